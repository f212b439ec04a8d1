#pragma once
// A remote database for tests: an on-disk repository filled and compacted by the test under a
// web root that a real nginx serves on a loopback port. Transfers use short time-outs and one
// try, so that a fault shows at once.

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "asset/databases/asset_databases.h"
#include "asset/databases/remote_databases.h"
#include "asset_library_fixture.h"
#include "kelvo/background_progress.h"
#include "kelvo/settings.h"
#include "nginx_server.h"

namespace kelvo::testing {

class RemoteDatabaseTest : public AssetLibraryTest {
protected:
  void SetUp() override {
    AssetLibraryTest::SetUp();
    HttpOptions fast;
    fast.connectTimeout = std::chrono::milliseconds(2000);
    fast.lowSpeedTime = std::chrono::seconds(1);
    fast.maxAttempts = 1;
    fast.syncFiles = false;
    SetRemoteDatabaseHttpOptions(fast);
    // The served index changes only when the test compacts.
    UrlAssetRepository::SetCompactionDelayOverride(3600);
    std::filesystem::create_directories(ServerDir());
    auto repo = CreateUrlAssetRepository(Id("db.remote"), {}, FileUrl(ServerDir()), true, false, false);
    ASSERT_TRUE(repo.HasValue()) << repo.GetError().ToString();
    _server = *repo;
  }
  void TearDown() override {
    AssetLibraryTest::TearDown();
    _server.reset();
    _nginx.reset();
    SetRemoteDatabaseHttpOptions(HttpOptions());
    UrlAssetRepository::SetCompactionDelayOverride(-1);
  }

  std::filesystem::path WebRoot() const { return _root / "www"; }
  std::filesystem::path ServerDir() const { return WebRoot() / "db"; }

  // Stores a text asset in the served repository; dependencies become its dependency metadata.
  AssetDescription Store(const std::string& aid, const std::string& text,
                         const std::vector<AssetDescription>& dependencies = {}) {
    auto stored = _server->StoreAsset(Id(aid), MakeText(text), nullptr);
    EXPECT_TRUE(stored.HasValue()) << stored.GetError().ToString();
    if (stored.HasError()) return nullptr;
    if (!dependencies.empty()) {
      DataArray array;
      for (const AssetDescription& d : dependencies)
        array.push_back(Data(AssetDependencyStruct{d->GetIdAndVersion(), d->GetTypeId(), UniversalDateTime(), aid,
                                                   ASSET_UPDATE_POLICY::NEVER}));
      auto meta = _server->StoreMetaData(*stored, metaids::dependencies, Data(std::move(array)), AssetMetaData::PERSISTENT);
      EXPECT_TRUE(meta.HasValue()) << meta.GetError().ToString();
    }
    return *stored;
  }
  void Compact() {
    auto compacted = _server->Compact();
    ASSERT_TRUE(compacted.HasValue()) << compacted.GetError().ToString();
  }
  void StartServer() {
    auto started = test::NginxServer::Start(WebRoot().string());
    ASSERT_TRUE(started.HasValue()) << started.GetError().ToString();
    _nginx = std::move(*started);
  }
  Url RemoteUrl() const { return _nginx->GetUrl("/db"); }
  std::filesystem::path CacheDir() const {
    return _root / "gprefs" / "_assetcache" / GetRemoteDatabaseCacheName(RemoteUrl());
  }
  std::size_t Requests(const std::string& path) const { return _nginx->CountRequests("/db/" + path); }
  // The content of aid read through its URL (a description keeps what it loaded once).
  static std::string ReadContent(const std::string& aid) {
    const AssetDescription d = Find(aid);
    if (!d) return "error: no asset";
    Result<std::string> text = d->GetUrl().GetValueOr(Url()).ReadAll();
    return text.HasValue() ? *text : "error: " + text.GetError().ToString();
  }
  // The path of an asset's content below the database root: its RAM disk path without the disk.
  static std::string ContentPath(const AssetDescription& d) {
    const std::string path = d->GetUrl().GetValueOr(Url()).GetPath();
    const std::size_t slash = path.find('/', path.find_first_not_of('/'));
    return path.substr(slash + 1);
  }

  // Starts the module with the remote database as the user's list and waits for the pass.
  static void Mount(const Url& url) {
    ASSERT_TRUE(Settings::Set(assetdatabasekeys::userpaths, AssetDatabasesToSettingsData({AssetDatabaseStruct(url)}))
                    .HasValue());
    ASSERT_TRUE(StartAssetModule().HasValue());
    auto done = AssetDataBases::WaitForDatabaseLoading();
    ASSERT_TRUE(done.HasValue()) << done.GetError().ToString();
  }
  // Ends the module and mounts again, as a new start of the application would.
  static void Remount(const Url& url) {
    EndAssetModule();
    Mount(url);
  }
  AssetRepositoryRef MountedRemote() const {
    return AssetDataBases::FindRepository(RemoteUrl()).GetValueOr(nullptr);
  }
  static std::vector<std::string> PassErrors() {
    std::vector<std::string> texts;
    if (BackgroundEntryRef entry = AssetDataBases::GetLastProgressEntry())
      for (const auto& m : entry->GetMessages())
        if (m.state == BACKGROUNDPROGRESSSTATE::ERROR) texts.push_back(m.text);
    return texts;
  }
  static bool AnyContains(const std::vector<std::string>& texts, const std::string& part) {
    for (const std::string& t : texts)
      if (t.find(part) != std::string::npos) return true;
    return false;
  }
  // The description of aid as a search on the user repository finds it.
  static AssetDescription Find(const std::string& aid) {
    auto found = AssetInterface::GetUserPrefsRepository()->FindLatestAsset(kTextType, Id(aid), Id(), LATEST);
    return found.HasValue() ? *found : nullptr;
  }

  std::shared_ptr<UrlAssetRepository> _server;
  std::unique_ptr<test::NginxServer> _nginx;
};

} // namespace kelvo::testing
