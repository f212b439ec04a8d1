#pragma once
// A browser over a generated on-disk repository, with a delegate that records every command.

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "asset/search/asset_browser.h"
#include "search_fixture.h"

namespace kelvo::testing {

// Records the commands of a browser. A row is "[group]" for a group and the name for an asset.
class Recorder {
public:
  struct Call {
    BUILDBROWSERENTRYCOMMAND command;
    Data payload;
    std::string row;
  };
  // Called on the job's thread for each command, before it is recorded.
  std::function<void(const Call&)> hook;

  BuildEntryDelegate Delegate() {
    return [this](const AssetBrowserRef&, BUILDBROWSERENTRYCOMMAND command, const Data&, const Data& payload,
                  const BrowserEntry& entry) -> Result<Data> {
      Call call{command, payload, entry.isGroup ? "[" + entry.name + "]" : entry.name};
      if (hook) hook(call);
      std::lock_guard guard(_lock);
      _calls.push_back(std::move(call));
      _changed.notify_all();
      return Data();
    };
  }

  // Waits until count jobs have ended without being cancelled.
  bool WaitForFinished(std::size_t count) {
    std::unique_lock locked(_lock);
    return _changed.wait_for(locked, std::chrono::seconds(20), [&] { return Finished() >= count; });
  }

  std::size_t FinishedCount() {
    std::lock_guard guard(_lock);
    return Finished();
  }

  std::size_t Finished() const {
    std::size_t n = 0;
    for (const Call& c : _calls) n += c.command == BUILDBROWSERENTRYCOMMAND::END && c.payload == Data(false);
    return n;
  }

  std::size_t Count(BUILDBROWSERENTRYCOMMAND command) {
    std::lock_guard guard(_lock);
    std::size_t n = 0;
    for (const Call& c : _calls) n += c.command == command;
    return n;
  }

  // The rows of the last job that ended without being cancelled.
  std::vector<std::string> LastRows() {
    std::lock_guard guard(_lock);
    std::vector<std::string> rows;
    bool open = false;
    std::vector<std::string> current;
    for (const Call& c : _calls) {
      if (c.command == BUILDBROWSERENTRYCOMMAND::RESET) {
        current.clear();
        open = true;
      } else if (c.command == BUILDBROWSERENTRYCOMMAND::ADD && open) {
        current.push_back(c.row);
      } else if (c.command == BUILDBROWSERENTRYCOMMAND::END) {
        if (c.payload == Data(false) && open) rows = current;
        open = false;
      }
    }
    return rows;
  }

  std::vector<Call> Calls() {
    std::lock_guard guard(_lock);
    return _calls;
  }

  void Clear() {
    std::lock_guard guard(_lock);
    _calls.clear();
  }

private:
  std::mutex _lock;
  std::condition_variable _changed;
  std::vector<Call> _calls;
};

class BrowserTest : public SearchRepositoryTest {
protected:
  void SetUp() override {
    SearchRepositoryTest::SetUp();
    _base = OpenRepository("base", kSearchBase, {}, true);
    _main = OpenRepository("main", kSearchMain, {_base}, true);
    ASSERT_TRUE(_main);
  }

  void TearDown() override {
    _browser.reset();
    SearchRepositoryTest::TearDown();
  }

  // A file asset of size bytes, named name.
  AssetDescription AddFile(const AssetRepositoryRef& repo, const std::string& id, const std::string& name,
                           std::size_t size) {
    const std::filesystem::path source = _root / (id + ".bin");
    std::ofstream(source, std::ios::binary) << std::string(size, 'x');
    return Store(repo, id, FileAssetInterface::Create(Url::FromFile(source.string())), name);
  }

  // A browser of the asset list over the main repository, updates enabled, after its first job.
  void OpenBrowser() {
    auto browser = AssetBrowserInterface::Create(ASSETBROWSERMODE::ASSETS);
    ASSERT_TRUE(browser.HasValue());
    _browser = *browser;
    _browser->SetGraphModel(std::make_shared<RepositoryGraphModelImpl>(_main));
    _browser->SetBuildEntryDelegate(_recorder.Delegate());
    _browser->EnableUpdates(true);
    ASSERT_TRUE(_recorder.WaitForFinished(1));
  }

  // Sets the filter strings and returns the rows of the job that they start.
  std::vector<std::string> Filter(const std::string& group, const std::string& sort, const std::string& text) {
    const std::size_t before = _recorder.FinishedCount();
    _browser->DoFiltering("", group, sort, text, false, false);
    EXPECT_TRUE(_recorder.WaitForFinished(before + 1)) << group << " " << sort << " " << text;
    return _recorder.LastRows();
  }

  AssetBrowserRef _browser;
  Recorder _recorder;
};

} // namespace kelvo::testing
