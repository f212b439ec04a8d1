#pragma once
// On-disk repositories for the typed asset tests: a temporary tree with two repository roots
// (main and base) and the two preference trees.

#include <map>
#include <string>

#include "asset/storage/urlassetrepository.h"
#include "asset/types/category_asset.h"
#include "asset/types/color_category_asset.h"
#include "asset/types/command_asset.h"
#include "asset/types/keyword_asset.h"
#include "asset/types/marker_assets.h"
#include "asset/types/smart_search_asset.h"
#include "asset/types/typed_assets.h"
#include "kelvo/application.h"
#include "kelvo/settings.h"
#include "temp_tree.h"
#include "test_assets.h"

namespace kelvo::testing {

inline const Id kMainRepo{"test.types.main"};
inline const Id kBaseRepo{"test.types.base"};

// Each typed asset type whose assets are metadata only, with a way to make one.
inline const std::vector<std::pair<Id, Asset (*)()>> kMetadataTypes{
    {KeywordAssetInterface::TypeId(), &KeywordAssetInterface::Create},
    {CategoryAssetInterface::TypeId(), &CategoryAssetInterface::Create},
    {ColorCategoryAssetInterface::TypeId(), &ColorCategoryAssetInterface::Create},
    {CommandAssetInterface::TypeId(), &CommandAssetInterface::Create},
    {SmartSearchAssetInterface::TypeId(), &SmartSearchAssetInterface::Create},
    {NodeSpaceAssetInterface::TypeId(), &NodeSpaceAssetInterface::Create},
    {PluginAssetInterface::TypeId(), &PluginAssetInterface::Create},
    {SubTypeAssetInterface::TypeId(), &SubTypeAssetInterface::Create},
};

class TypesTest : public TempTreeTest {
protected:
  void SetUp() override {
    RegisterTextAssetType();
    ASSERT_TRUE(RegisterTypedAssetTypes().HasValue());
    TempTreeTest::SetUp();
    for (const char* dir : {"main", "base", "prefs", "globalprefs"}) std::filesystem::create_directories(_dir / dir);
    Application::SetUrl(APPLICATION_URLTYPE::PREFS_DIR, Url::FromFile((_dir / "prefs").string()));
    Application::SetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR, Url::FromFile((_dir / "globalprefs").string()));
    Settings::Reload();
  }
  void TearDown() override {
    Application::SetUrl(APPLICATION_URLTYPE::PREFS_DIR, Url());
    Application::SetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR, Url());
    Settings::Reload();
    TempTreeTest::TearDown();
  }

  std::filesystem::path Dir(const std::string& name) const { return _dir / name; }

  // Opens the repository in directory dir (main or base) with the given bases.
  AssetRepositoryRef Open(const std::string& dir = "main", const Id& id = kMainRepo, const RepositoryArray& bases = {},
                          bool writable = true) {
    auto r = CreateUrlAssetRepository(id, bases, Url::FromFile(Dir(dir).string()), writable, false, false);
    EXPECT_TRUE(r.HasValue()) << r.GetError().ToString();
    return r.HasValue() ? *r : nullptr;
  }

  static AssetDescription Store(const AssetRepositoryRef& repo, const std::string& aid, const Asset& asset,
                                const std::string& name = std::string()) {
    auto r = repo->StoreAsset(Id(aid), asset, nullptr);
    EXPECT_TRUE(r.HasValue()) << r.GetError().ToString();
    if (!r.HasValue()) return nullptr;
    if (!name.empty()) {
      auto named = (*r)->StoreMetaString(stringkeys::name, name, nullptr);
      EXPECT_TRUE(named.HasValue()) << named.GetError().ToString();
    }
    return *r;
  }

  static AssetDescription Latest(const AssetRepositoryRef& repo, const std::string& aid, const Id& type = Id()) {
    auto r = repo->FindLatestAsset(type, Id(aid), Id(), LATEST);
    EXPECT_TRUE(r.HasValue()) << r.GetError().ToString();
    return r.HasValue() ? *r : nullptr;
  }

  // Every file below dir, relative paths with their contents, for "nothing changed" checks.
  static std::map<std::string, std::string> Snapshot(const std::filesystem::path& dir) {
    std::map<std::string, std::string> files;
    std::error_code ec;
    for (auto it = std::filesystem::recursive_directory_iterator(dir, ec); it != std::filesystem::end(it); ++it)
      if (it->is_regular_file()) files[std::filesystem::relative(it->path(), dir).string()] = ReadFile(it->path());
    return files;
  }

  // True when some file below dir has a name containing part.
  static bool HasFileNamed(const std::filesystem::path& dir, const std::string& part) {
    for (const auto& [path, content] : Snapshot(dir))
      if (std::filesystem::path(path).filename().string().find(part) != std::string::npos) return true;
    return false;
  }
};

} // namespace kelvo::testing
