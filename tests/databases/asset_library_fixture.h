#pragma once
// A temporary application tree for tests of the asset databases: the preference, global
// preference and library directories under one root, with an empty assets directory in the
// library. The asset module is ended and the tree removed at the end of each test.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <string>

#include "asset/module/asset_module.h"
#include "asset/standard/assets.h"
#include "kelvo/application.h"
#include "kelvo/zip_io.h"
#include "test_assets.h"
#include "asset/storage/urlassetrepository.h"

namespace kelvo::testing {

class AssetLibraryTest : public ::testing::Test {
protected:
  void SetUp() override {
    RegisterTextAssetType();
    static int counter = 0;
    _root = std::filesystem::temp_directory_path() /
            ("kelvo_library_" + std::to_string(::getpid()) + "_" + std::to_string(counter++));
    std::filesystem::remove_all(_root);
    std::filesystem::create_directories(Assets());
    Application::SetUrl(APPLICATION_URLTYPE::PREFS_DIR, FileUrl(_root / "prefs"));
    Application::SetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR, FileUrl(_root / "gprefs"));
    Application::SetUrl(APPLICATION_URLTYPE::LIBRARY_DIR, FileUrl(_root / "library"));
  }
  void TearDown() override {
    EndAssetModule();
    for (auto kind : {APPLICATION_URLTYPE::PREFS_DIR, APPLICATION_URLTYPE::GLOBALPREFS_DIR, APPLICATION_URLTYPE::LIBRARY_DIR})
      Application::SetUrl(kind, Url());
    // Archives of the removed tree must not be served from the cache to the next test.
    FlushZipArchiveCache();
    std::error_code ec;
    std::filesystem::remove_all(_root, ec);
  }

  // The library's assets directory, whose folders and archives are mounted as databases.
  std::filesystem::path Assets() const { return _root / "library" / "assets"; }
  static Url FileUrl(const std::filesystem::path& p) { return Url::FromFile(p.string()); }

  // A database folder with id rid holding one text asset per entry of assets (asset Id to text).
  static void MakeDatabase(const std::filesystem::path& dir, const std::string& rid,
                           const std::map<std::string, std::string>& assets) {
    std::filesystem::create_directories(dir);
    auto repo = CreateUrlAssetRepository(Id(rid), {}, FileUrl(dir), true, false, false);
    ASSERT_TRUE(repo.HasValue()) << repo.GetError().ToString();
    for (const auto& [aid, text] : assets) {
      auto stored = (*repo)->StoreAsset(Id(aid), MakeText(text), nullptr);
      ASSERT_TRUE(stored.HasValue()) << stored.GetError().ToString();
    }
  }

  std::filesystem::path _root;
};

} // namespace kelvo::testing
