// Downloads of remote assets through a real nginx: the closure of dependencies fetched once
// each, states before and after, and faults (404, damaged content, truncated body, a server that
// never answers, cancel), each an error of its own asset only.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "asset/downloads/asset_downloads.h"
#include "kelvo/ramdisk.h"
#include "raw_server.h"
#include "remote_database_fixture.h"

namespace kelvo::testing {
namespace {

namespace fs = std::filesystem;

class AssetDownloadsTest : public RemoteDatabaseTest {
protected:
  void TearDown() override {
    AssetDownloads::FreeAssetDownloads();
    RemoteDatabaseTest::TearDown();
  }
  static DOWNLOADSTATE State(const AssetDescription& d) {
    auto state = AssetDownloads::GetDownloadState(d, {});
    EXPECT_TRUE(state.HasValue()) << state.GetError().ToString();
    return state.GetValueOr(DOWNLOADSTATE::UNAVAILABLE);
  }
  static std::vector<std::string> Errors(const BackgroundEntryRef& entry) {
    std::vector<std::string> texts;
    for (const auto& m : entry->GetMessages())
      if (m.state == BACKGROUNDPROGRESSSTATE::ERROR) texts.push_back(m.text);
    return texts;
  }
  static BackgroundEntryRef DownloadAndWait(const std::vector<AssetDescription>& assets) {
    auto started = AssetDownloads::DownloadMultipleAssets(assets, AssetInterface::GetUserPrefsRepository());
    EXPECT_TRUE(started.HasValue()) << started.GetError().ToString();
    EXPECT_TRUE(AssetDownloads::WaitForDownloads().HasValue());
    return started.HasValue() ? started->progress : nullptr;
  }
};

TEST_F(AssetDownloadsTest, AnAssetComesWithThreeLevelsOfDependenciesEachFetchedOnce) {
  const AssetDescription d = Store("d", "level three");
  const AssetDescription c = Store("c", "level two", {d});
  const AssetDescription b = Store("b", "level one", {c});
  const AssetDescription a = Store("a", "top", {b, d});
  const AssetDescription e = Store("e", "other top", {c});
  Compact();
  StartServer();
  Mount(RemoteUrl());

  std::map<std::string, AssetDescription> found;
  for (const char* aid : {"a", "b", "c", "d", "e"}) {
    found[aid] = Find(aid);
    ASSERT_NE(found[aid], nullptr) << aid;
    EXPECT_EQ(State(found[aid]), DOWNLOADSTATE::NO) << aid;
    EXPECT_FALSE(AssetDownloads::IsAssetCached(found[aid]));
  }
  // Depth first, each asset ahead of what it needs, each version once.
  std::vector<AssetDescription> closure;
  IdAndVersionSet processed;
  ASSERT_TRUE(AssetDownloads::AddAssetWithDependencies(found["a"], AssetInterface::GetUserPrefsRepository(), closure,
                                                       processed)
                  .HasValue());
  std::vector<std::string> order;
  for (const AssetDescription& x : closure) order.push_back(x->GetIdAndVersion().first.ToString());
  EXPECT_EQ(order, (std::vector<std::string>{"a", "b", "c", "d"}));
  // The caller's list of assets about to start shows as in progress.
  AssetDescriptionSet pending{found["a"]};
  EXPECT_EQ(AssetDownloads::GetDownloadState(found["a"], pending).GetValueOr(DOWNLOADSTATE::NO), DOWNLOADSTATE::INPROGRESS);

  BackgroundEntryRef progress = DownloadAndWait({found["a"], found["e"]});
  ASSERT_NE(progress, nullptr);
  EXPECT_EQ(progress->GetName(), "Downloading Assets");
  EXPECT_EQ(progress->GetState(), BACKGROUNDPROGRESSSTATE::SUCCEEDED) << ::testing::PrintToString(Errors(progress));
  EXPECT_FALSE(AssetDownloads::DownloadManagerIsDownloading());
  for (const auto& [aid, desc] : found) {
    EXPECT_EQ(State(desc), DOWNLOADSTATE::YES) << aid;
    EXPECT_EQ(_nginx->CountRequests("/db/" + ContentPath(desc), 1), 1u) << aid;
  }
  EXPECT_EQ(LoadText(found["d"]), "level three");
  // Everything is here: a new request queues nothing.
  auto again = AssetDownloads::DownloadAsset(found["a"], AssetInterface::GetUserPrefsRepository());
  ASSERT_TRUE(again.HasValue());
  EXPECT_EQ(again->progress, nullptr);
  EXPECT_EQ(again->jobIndex, -1);

  // A local asset needs no download and starts nothing.
  auto local = MakeRepository("local.repo");
  auto stored = local->StoreAsset(Id("here"), MakeText("local"), nullptr);
  ASSERT_TRUE(stored.HasValue());
  EXPECT_EQ(State(*stored), DOWNLOADSTATE::YES);
  auto none = AssetDownloads::DownloadAsset(*stored, local);
  ASSERT_TRUE(none.HasValue());
  EXPECT_EQ(none->progress, nullptr);
  EXPECT_FALSE(AssetDownloads::DownloadManagerIsDownloading());
}

TEST_F(AssetDownloadsTest, A404OrADamagedBodyFailsOnlyItsOwnAsset) {
  Store("good1", "fine");
  Store("good2", "also fine");
  const AssetDescription missing = Store("missing", "gone soon");
  const AssetDescription damaged = Store("damaged", "the original text");
  Compact();
  StartServer();
  Mount(RemoteUrl());
  const AssetDescription m = Find("missing");
  const AssetDescription x = Find("damaged");
  ASSERT_NE(m, nullptr);
  ASSERT_NE(x, nullptr);
  fs::remove(ServerDir() / ContentPath(m));
  const fs::path damagedFile = ServerDir() / ContentPath(x);
  std::ofstream(damagedFile, std::ios::binary | std::ios::trunc) << "the forged text!";
  // Direct reads, without a download first, are checked as well: a load, and a read through
  // the asset's "asset" URL.
  EXPECT_NE(LoadText(x).find("does not match its version Id"), std::string::npos);
  EXPECT_FALSE(fs::exists(CacheDir() / ContentPath(x)));
  const Result<std::string> read = AssetInterface::GetAssetUrl(x, false).GetValueOr(Url()).ReadAll();
  ASSERT_TRUE(read.HasError());
  EXPECT_NE(read.GetError().ToString().find("does not match its version Id"), std::string::npos);

  BackgroundEntryRef progress = DownloadAndWait({Find("good1"), m, x, Find("good2")});
  ASSERT_NE(progress, nullptr);
  EXPECT_EQ(progress->GetState(), BACKGROUNDPROGRESSSTATE::ERROR);
  const auto errors = Errors(progress);
  ASSERT_EQ(errors.size(), 2u) << ::testing::PrintToString(errors);
  EXPECT_TRUE(AnyContains(errors, "Download Error for asset 'missing'"));
  EXPECT_TRUE(AnyContains(errors, "404"));
  EXPECT_TRUE(AnyContains(errors, "does not match its version Id"));
  EXPECT_EQ(State(Find("good1")), DOWNLOADSTATE::YES);
  EXPECT_EQ(State(Find("good2")), DOWNLOADSTATE::YES);
  EXPECT_EQ(State(m), DOWNLOADSTATE::ERROR);
  EXPECT_EQ(State(x), DOWNLOADSTATE::ERROR);
  // The forged content was not kept in the cache.
  EXPECT_FALSE(fs::exists(CacheDir() / ContentPath(x)));
  EXPECT_FALSE(AssetDownloads::IsAssetCached(x));

  // A new request is the retry: with the server's content repaired it succeeds.
  std::ofstream(damagedFile, std::ios::binary | std::ios::trunc) << "the original text";
  BackgroundEntryRef retry = DownloadAndWait({x});
  ASSERT_NE(retry, nullptr);
  EXPECT_EQ(retry->GetState(), BACKGROUNDPROGRESSSTATE::SUCCEEDED);
  EXPECT_EQ(State(x), DOWNLOADSTATE::YES);
  EXPECT_EQ(LoadText(x), "the original text");

  // A copy torn by a crash is caught at its first read after a new start, and fetched again.
  std::ofstream(CacheDir() / ContentPath(x), std::ios::binary | std::ios::trunc) << "the orig";
  Remount(RemoteUrl());
  EXPECT_NE(LoadText(Find("damaged")).find("does not match its version Id"), std::string::npos);
  EXPECT_EQ(LoadText(Find("damaged")), "the original text");
}

TEST_F(AssetDownloadsTest, TruncatedBodiesAndSilentServersEndWithAnError) {
  Store("one", "first");
  Store("two", "second");
  Store("three", "third");
  Compact();
  StartServer();
  Mount(RemoteUrl());
  const AssetDescription one = Find("one");
  const AssetDescription two = Find("two");
  ASSERT_NE(one, nullptr);
  const int port = _nginx->GetPort();
  _nginx->Stop();

  {
    RawServer truncating(port, RawServer::MODE::TRUNCATED);
    ASSERT_TRUE(truncating.IsListening());
    BackgroundEntryRef progress = DownloadAndWait({one});
    ASSERT_NE(progress, nullptr);
    EXPECT_EQ(State(one), DOWNLOADSTATE::ERROR) << ::testing::PrintToString(Errors(progress));
    EXPECT_FALSE(fs::exists(CacheDir() / ContentPath(one)));
  }
  {
    // The low-speed limit bounds a server that accepts and never answers.
    RawServer silent(port, RawServer::MODE::SILENT);
    ASSERT_TRUE(silent.IsListening());
    BackgroundEntryRef progress = DownloadAndWait({two});
    ASSERT_NE(progress, nullptr);
    EXPECT_EQ(State(two), DOWNLOADSTATE::ERROR);
    EXPECT_EQ(Errors(progress).size(), 1u);

    // A cancelled download is no error: the asset is back to NO, and requests work afterwards.
    const AssetDescription three = Find("three");
    auto started = AssetDownloads::DownloadAsset(three, AssetInterface::GetUserPrefsRepository());
    ASSERT_TRUE(started.HasValue());
    ASSERT_NE(started->progress, nullptr);
    EXPECT_EQ(State(three), DOWNLOADSTATE::INPROGRESS);
    // A second request for the same object merges with the first.
    auto merged = AssetDownloads::DownloadAsset(three, AssetInterface::GetUserPrefsRepository());
    ASSERT_TRUE(merged.HasValue());
    EXPECT_EQ(merged->jobIndex, started->jobIndex);
    started->progress->Cancel();
    EXPECT_FALSE(AssetDownloads::DownloadManagerIsDownloading());
    EXPECT_EQ(State(three), DOWNLOADSTATE::NO);
    EXPECT_EQ(started->progress->GetState(), BACKGROUNDPROGRESSSTATE::CANCELED);
    auto again = AssetDownloads::DownloadAsset(three, AssetInterface::GetUserPrefsRepository());
    ASSERT_TRUE(again.HasValue());
    ASSERT_NE(again->progress, nullptr);
    EXPECT_NE(again->progress, started->progress);
    EXPECT_TRUE(AssetDownloads::DownloadManagerIsDownloading());
    AssetDownloads::DownloadManagerCancelAll();
    EXPECT_FALSE(AssetDownloads::DownloadManagerIsDownloading());
  }
}

} // namespace
} // namespace kelvo::testing
