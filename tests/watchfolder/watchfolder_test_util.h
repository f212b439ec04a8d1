#pragma once
// Shared helpers of the watch folder tests: a temporary folder with its own preferences, and the
// listing of a repository by relative path.

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <thread>

#include "asset/watchfolder/filewatchassetrepository.h"
#include "kelvo/application.h"

namespace kelvo::test {

namespace fs = std::filesystem;

class WatchFolderTest : public ::testing::Test {
protected:
  void SetUp() override {
    char pattern[] = "/tmp/watchfolder-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    _root = pattern;
    _folder = _root / "Folder";
    fs::create_directories(_folder);
    fs::create_directories(_root / "globalprefs");
    _oldPrefs = Application::PrivateGetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR);
    Application::SetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR, Url::FromFile((_root / "globalprefs").string()));
    WatchFolderTimings timings;
    timings.startDelay = 0.05;
    timings.step = 0.05;
    timings.limit = 0.3;
    timings.quietTime = 2.0;
    timings.periodicRescan = 0.2;
    SetWatchFolderTimings(timings);
  }
  void TearDown() override {
    SetWatchFolderTimings(WatchFolderTimings());
    Application::SetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR, _oldPrefs);
    std::error_code ec;
    fs::permissions(_root, fs::perms::owner_all, fs::perm_options::add, ec);
    for (auto it = fs::recursive_directory_iterator(_root, fs::directory_options::skip_permission_denied, ec);
         it != fs::recursive_directory_iterator(); it.increment(ec))
      if (it->is_directory(ec) && !it->is_symlink(ec)) fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
    fs::remove_all(_root, ec);
  }

  static void Write(const fs::path& path, const std::string& content) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << content;
  }

  std::shared_ptr<FileWatchAssetRepositoryImpl> Open() {
    auto repo = FileWatchAssetRepositoryImpl::Create(Url::FromFile(_folder.string()), {});
    EXPECT_TRUE(repo.HasValue()) << (repo.HasError() ? repo.GetError().ToString() : "");
    if (repo.HasError()) return nullptr;
    EXPECT_TRUE(repo.GetValue()->WaitForScan().HasValue());
    return repo.GetValue();
  }

  // Relative path ("" for the root) to "d" or "f", from a search of the repository alone.
  std::map<std::string, std::string> Listing(FileWatchAssetRepositoryImpl& repo) {
    std::map<std::string, std::string> listing;
    const std::string prefix = _folder.string();
    auto r = repo.FindAssets(TypeArray{}, Id(), Id(), LATEST | WITHOUT_BASES, [&](const AssetDescription& d) -> Result<bool> {
      auto url = d->GetUrl();
      if (url.HasError()) return url.GetError();
      std::string path = url->GetPath();
      path = path.size() > prefix.size() ? path.substr(prefix.size() + 1) : std::string();
      listing[path] = d->GetTypeId() == g_categoryAssetTypeId ? "d" : "f";
      return true;
    });
    EXPECT_TRUE(r.HasValue()) << (r.HasError() ? r.GetError().ToString() : "");
    return listing;
  }

  AssetDescription FindByPath(FileWatchAssetRepositoryImpl& repo, const std::string& relative) {
    AssetDescription found;
    const std::string want = relative.empty() ? _folder.string() : (_folder / relative).string();
    (void)repo.FindAssets(TypeArray{}, Id(), Id(), LATEST | WITHOUT_BASES, [&](const AssetDescription& d) -> Result<bool> {
      if (auto url = d->GetUrl(); url.HasValue() && url->GetPath() == want) found = d;
      return !found;
    });
    return found;
  }

  // Polls until condition holds, for at most seconds.
  static bool Eventually(const std::function<bool()>& condition, double seconds = 10.0) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end) {
      if (condition()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return condition();
  }

  fs::path _root, _folder;
  Url _oldPrefs;
};

} // namespace kelvo::test
