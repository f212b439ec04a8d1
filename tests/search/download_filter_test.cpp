// The INSTALLED and DOWNLOADING keys ask the download service about the assets of a remote
// database: installed once fetched, downloading while a server keeps the request waiting.

#include <gtest/gtest.h>

#include "asset/downloads/asset_downloads.h"
#include "asset/search/search_filter.h"
#include "raw_server.h"
#include "remote_database_fixture.h"

namespace kelvo::testing {
namespace {

using Ids = std::vector<std::string>;

class DownloadFilterTest : public RemoteDatabaseTest {
protected:
  void TearDown() override {
    AssetDownloads::FreeAssetDownloads();
    RemoteDatabaseTest::TearDown();
  }
  // The ids of the assets that text passes.
  static Ids Passing(const std::string& text, const std::vector<AssetDescription>& assets) {
    SearchFilter filter;
    EXPECT_TRUE(filter.Parse(text).HasValue());
    TypeNameCache cache;
    Ids passed;
    for (const AssetDescription& asset : assets) {
      FilterRecord record(asset);
      std::string reason;
      Result<bool> rejected = filter.Evaluate(record, reason, cache);
      EXPECT_TRUE(rejected.HasValue()) << rejected.GetError().ToString();
      if (rejected.HasValue() && !*rejected) passed.push_back(asset->GetIdAndVersion().first.ToString());
    }
    return passed;
  }
};

TEST_F(DownloadFilterTest, InstalledAndDownloadingFollowTheDownloadService) {
  Store("here", "fetched");
  Store("away", "not fetched");
  Store("busy", "kept waiting");
  Compact();
  StartServer();
  Mount(RemoteUrl());
  const AssetDescription here = Find("here"), away = Find("away"), busy = Find("busy");
  ASSERT_TRUE(here && away && busy);
  const std::vector<AssetDescription> all{here, away, busy};
  EXPECT_EQ(Passing("INSTALLED:yes", all), Ids{});
  ASSERT_TRUE(AssetDownloads::DownloadMultipleAssets({here}, AssetInterface::GetUserPrefsRepository()).HasValue());
  ASSERT_TRUE(AssetDownloads::WaitForDownloads().HasValue());
  EXPECT_EQ(Passing("INSTALLED:yes", all), Ids{"here"});
  EXPECT_EQ(Passing("DOWNLOADING:yes", all), Ids{});

  // In place of the server, a socket that takes connections and never answers.
  const int port = _nginx->GetPort();
  _nginx->Stop();
  RawServer silent(port, RawServer::MODE::SILENT);
  ASSERT_TRUE(silent.IsListening());
  auto started = AssetDownloads::DownloadAsset(busy, AssetInterface::GetUserPrefsRepository());
  ASSERT_TRUE(started.HasValue() && started->progress);
  EXPECT_EQ(Passing("DOWNLOADING:yes", all), Ids{"busy"});
  EXPECT_EQ(Passing("INSTALLED:no", all), (Ids{"away", "busy"}));
  started->progress->Cancel();
}

} // namespace
} // namespace kelvo::testing
