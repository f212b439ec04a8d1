#pragma once
// A generated on-disk repository for the filter evaluation tests: a read-only base repository
// with keyword, subtype and category assets, and a writable main repository above it whose
// assets carry every metadata value that filter terms read.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cfloat>
#include <filesystem>
#include <set>
#include <string>

#include "asset/search/search_filter.h"
#include "asset/storage/urlassetrepository.h"
#include "asset/types/category_asset.h"
#include "asset/types/command_asset.h"
#include "asset/types/keyword_asset.h"
#include "asset/types/marker_assets.h"
#include "asset/types/typed_assets.h"
#include "kelvo/application.h"
#include "kelvo/settings.h"
#include "test_assets.h"

namespace kelvo::testing {

inline const Id kSearchMain{"test.search.main"};
inline const Id kSearchBase{"test.search.base"};
inline const InternedId kMetaProperties{"net.kelvo.asset.metaproperties"};

class SearchRepositoryTest : public ::testing::Test {
protected:
  void SetUp() override {
    RegisterTextAssetType();
    ASSERT_TRUE(RegisterTypedAssetTypes().HasValue());
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    _root = std::filesystem::path("/tmp") /
            ("kelvo_search_" + std::string(info->name()) + "_" + std::to_string(::getpid()));
    std::filesystem::remove_all(_root);
    for (const char* dir : {"main", "base", "prefs", "globalprefs"}) std::filesystem::create_directories(_root / dir);
    Application::SetUrl(APPLICATION_URLTYPE::PREFS_DIR, Url::FromFile((_root / "prefs").string()));
    Application::SetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR, Url::FromFile((_root / "globalprefs").string()));
    Settings::Reload();
  }
  void TearDown() override {
    _main.reset();
    _base.reset();
    Application::SetUrl(APPLICATION_URLTYPE::PREFS_DIR, Url());
    Application::SetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR, Url());
    Settings::Reload();
    std::error_code ec;
    std::filesystem::remove_all(_root, ec);
  }

  AssetRepositoryRef OpenRepository(const std::string& dir, const Id& id, const RepositoryArray& bases, bool writable) {
    auto r = CreateUrlAssetRepository(id, bases, Url::FromFile((_root / dir).string()), writable, false, false);
    EXPECT_TRUE(r.HasValue()) << r.GetError().ToString();
    return r.HasValue() ? AssetRepositoryRef(*r) : nullptr;
  }

  static AssetDescription Store(const AssetRepositoryRef& repo, const std::string& aid, const Asset& asset,
                                const std::string& name) {
    auto r = repo->StoreAsset(Id(aid), asset, nullptr);
    EXPECT_TRUE(r.HasValue()) << r.GetError().ToString();
    if (!r.HasValue()) return nullptr;
    if (!name.empty()) {
      EXPECT_TRUE((*r)->StoreMetaString(stringkeys::name, name, nullptr).HasValue());
    }
    return *r;
  }

  static void Meta(const AssetDescription& d, const char* id, Data value,
                   std::uint32_t kind = AssetMetaData::PERSISTENT) {
    auto r = d->GetRepository()->StoreMetaData(d, InternedId(id), value, kind);
    EXPECT_TRUE(r.HasValue()) << id << ": " << r.GetError().ToString();
  }

  static DataArray Ids(std::initializer_list<const char*> ids) {
    DataArray array;
    for (const char* id : ids) array.push_back(Data(Id(id)));
    return array;
  }

  // Writes both repositories, then opens them again so that every value is read from disk.
  void Generate() {
    {
      AssetRepositoryRef base = OpenRepository("base", kSearchBase, {}, true);
      ASSERT_TRUE(base);
      Store(base, "kw.wood", KeywordAssetInterface::Create(), "Wood");
      Store(base, "kw.steel", KeywordAssetInterface::Create(), "Steel beams");
      Store(base, "kw.bare", KeywordAssetInterface::Create(), "");
      Store(base, "net.kelvo.asset.subtype.file.png", SubTypeAssetInterface::Create(), "");
      Store(base, "cat.nature", CategoryAssetInterface::Create(), "Nature");
      AssetDescription trees = Store(base, "cat.trees", CategoryAssetInterface::Create(), "Trees");
      ASSERT_TRUE(CategoryAssetInterface::SetAssetCategory(trees, Id("cat.nature")).HasValue());

      AssetRepositoryRef main = OpenRepository("main", kSearchMain, {base}, true);
      ASSERT_TRUE(main);
      Store(main, "kw.mine", KeywordAssetInterface::Create(), "Mine");
      AssetDescription oak = Store(main, "oak", MakeText("oak"), "Oak Beam");
      Meta(oak, "net.kelvo.asset.keywords", Ids({"kw.wood", "kw.steel", "kw.bare"}));
      Meta(oak, "net.kelvo.asset.userkeywords", Ids({"kw.mine", "net.kelvo.keyword.favourite"}),
           AssetMetaData::PERSISTENT | AssetMetaData::USER);
      Meta(oak, "net.kelvo.asset.subtype", Data(Id("net.kelvo.asset.subtype.file.png")));
      Meta(oak, "net.kelvo.node.category", Data(Id("cat.trees")));
      Meta(oak, "net.kelvo.asset.size", Data(std::int64_t(3 * 1024 * 1024)));
      Meta(oak, "net.kelvo.asset.previewimageurl", Data(Url::FromFile("/previews/oak.png")));
      Meta(oak, "net.kelvo.assetmetadata.proxygeometry", Data(Url::FromFile("/proxies/oak.k3s")));
      DataDictionary usage;
      usage.SetData(Id("count"), Data(std::int64_t(7)));
      usage.SetData(Id("lastuse"), Data(UniversalDateTime::FromUnixSeconds(1709294400))); // 2024-03-01 12:00 UTC
      Meta(oak, "net.kelvo.asset.usage", Data(usage), AssetMetaData::PERSISTENT | AssetMetaData::USER);
      DataDictionary properties;
      const auto set = [&](const char* key, Data value) {
        properties.SetData(Id(std::string("net.kelvo.asset.metaproperties.") + key), std::move(value));
      };
      set("media.fps", Data(25.0));
      set("media.animlength", Data(2.5));
      set("media.bitdepth", Data(std::int64_t(16)));
      set("media.pixelformat", Data(std::string("RGBA8")));
      set("media.colorprofile", Data(std::string("sRGB v10")));
      set("media.width", Data(std::int64_t(4096)));
      set("media.height", Data(std::int64_t(2048)));
      set("media.alphachannels", Data(std::int64_t(1)));
      set("base.fileformatversion", Data(std::string("v9")));
      set("base.fileformat", Data(std::string("K3S")));
      set("k3sfile.pointcount", Data(std::int64_t(1000)));
      set("k3sfile.polygoncount", Data(std::int64_t(500)));
      set("k3sfile.geometryobjectcount", Data(std::int64_t(3)));
      set("k3sfile.materialcount", Data(std::int64_t(2)));
      set("k3sfile.boundingbox", Data(DataArray{Data(0.0), Data(0.0), Data(0.0), Data(300.0), Data(50.0), Data(20.0)}));
      Meta(oak, "net.kelvo.asset.metaproperties", Data(properties));
      ASSERT_TRUE(oak->StoreMetaString(Id("net.kelvo.object.base.annotations"), "Reviewed by art", nullptr).HasValue());
      ASSERT_TRUE(oak->StoreMetaString(stringkeys::tags, "timber,lumber;$%$Hardwood,Tree", nullptr).HasValue());

      AssetDescription pine = Store(main, "pine", MakeText("pine v1"), "Pine");
      Meta(pine, "net.kelvo.asset.versiontag", Data(std::string("draft")));
      pine = Store(main, "pine", MakeText("pine v2"), "Pine");
      Meta(pine, "net.kelvo.asset.versiontag", Data(std::string("final")));
      AssetDependencyStruct dependency;
      dependency.assetIdAndVersion = IdAndVersion{Id("oak"), Id()};
      dependency.assetTypeId = kTextType;
      Meta(pine, "net.kelvo.asset.dependencies.2", Data(DataArray{Data(dependency)}));

      AssetDescription rock = Store(main, "rock", MakeText("rock"), "Rock");
      DataDictionary none;
      none.SetData(Id("net.kelvo.asset.metaproperties.media.fps"), Data(-1.0));
      none.SetData(Id("net.kelvo.asset.metaproperties.k3sfile.pointcount"), Data(std::int64_t(-1)));
      none.SetData(Id("net.kelvo.asset.metaproperties.k3sfile.boundingbox"),
                   Data(DataArray{Data(double(FLT_MAX)), Data(double(FLT_MAX)), Data(double(FLT_MAX)),
                                  Data(-double(FLT_MAX)), Data(-double(FLT_MAX)), Data(-double(FLT_MAX))}));
      Meta(rock, "net.kelvo.asset.metaproperties", Data(none));

      AssetDescription command = Store(main, "cmd.extrude", CommandAssetInterface::Create(), "Extrude");
      ASSERT_TRUE(CommandAssetInterface::StoreCommandScopes(
                      command, {Id("net.kelvo.asset.command.scope.modeling")}).HasValue());
    }
    _base = OpenRepository("base", kSearchBase, {}, false);
    _main = OpenRepository("main", kSearchMain, {_base}, true);
  }

  // The ids among candidates that pass filterText, with the reason of each.
  std::map<std::string, std::string> Passing(const std::string& filterText,
                                             LENGTHUNITSYSTEM units = LENGTHUNITSYSTEM::METRIC) {
    static const std::vector<std::string> candidates{"oak", "pine", "rock", "cat.trees", "cmd.extrude"};
    SearchFilter filter(units);
    EXPECT_TRUE(filter.Parse(_main, filterText).HasValue()) << filterText;
    TypeNameCache cache;
    std::map<std::string, std::string> passing;
    for (const std::string& aid : candidates) {
      auto found = _main->FindLatestAsset(Id(), Id(aid), Id(), LATEST);
      EXPECT_TRUE(found.HasValue() && *found) << aid;
      if (!found.HasValue() || !*found) continue;
      std::string reason;
      auto rejected = filter.Evaluate(*found, reason, cache);
      EXPECT_TRUE(rejected.HasValue()) << filterText << " on " << aid << ": " << rejected.GetError().ToString();
      if (rejected.HasValue() && !*rejected) passing[aid] = reason;
    }
    return passing;
  }

  std::filesystem::path _root;
  AssetRepositoryRef _base;
  AssetRepositoryRef _main;
};

} // namespace kelvo::testing
