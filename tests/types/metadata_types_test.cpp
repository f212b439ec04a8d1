// What every metadata-only typed asset type shares, and the computed values and renamings of some.

#include "asset/types/marker_assets.h"
#include "asset/types/metadata_asset_type.h"
#include "asset/types/smart_search_asset.h"
#include "types_fixture.h"

namespace kelvo::testing {
namespace {

using MetadataTypesTest = TypesTest;

TEST_F(MetadataTypesTest, EachTypeStoresZeroBytesIsFoundByTypeAndRefusesForeignAssets) {
  auto repo = Open();
  for (const auto& [typeId, create] : kMetadataTypes) {
    SCOPED_TRACE(typeId.ToString());
    AssetDescription d = Store(repo, "one_" + typeId.ToString(), create());
    ASSERT_TRUE(d);
    const AssetType type = FindAssetType(typeId);
    ASSERT_TRUE(type);
    EXPECT_EQ(type->GetData(assettypeproperties::supportVersions).GetValue(), Data(false));
    EXPECT_EQ(type->GetUrlSuffix(create()), "");
    // A foreign asset: refused before the URL is touched.
    const auto file = Dir("main") / "foreign";
    auto refused = type->Store(MakeText("x"), Url::FromFile(file.string()), nullptr);
    ASSERT_TRUE(refused.HasError());
    EXPECT_EQ(refused.GetError().GetMessage().rfind("Given asset is not a valid ", 0), 0u) << refused.GetError().ToString();
    EXPECT_FALSE(std::filesystem::exists(file));
    // Another type's asset is as foreign as a file.
    const auto& other = typeId == kMetadataTypes[0].first ? kMetadataTypes[1] : kMetadataTypes[0];
    EXPECT_TRUE(type->Store(other.second(), Url(), nullptr).HasError());
  }
  repo.reset();
  repo = Open();
  for (const auto& [typeId, create] : kMetadataTypes) {
    SCOPED_TRACE(typeId.ToString());
    std::vector<AssetDescription> found;
    ASSERT_TRUE(repo->FindAssets(TypeArray{typeId}, Id(), Id(), LATEST, [&](const AssetDescription& d) -> Result<bool> {
      found.push_back(d);
      return true;
    }).HasValue());
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0]->GetIdAndVersion().first.ToString(), "one_" + typeId.ToString());
    // The version Id is the hash of nothing.
    EXPECT_EQ(found[0]->GetIdAndVersion().second.ToString(),
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(std::filesystem::file_size(found[0]->GetUrl().GetValue().GetPath()), 0u);
    auto loaded = found[0]->Load(false);
    ASSERT_TRUE(loaded.HasValue()) << loaded.GetError().ToString();
    EXPECT_EQ((*loaded)->GetType(), FindAssetType(typeId));
  }
}

TEST_F(MetadataTypesTest, TagsAndCategoryAreAnsweredByTheTypesThatHaveNone) {
  auto repo = Open();
  AssetDescription search = Store(repo, "s", SmartSearchAssetInterface::Create());
  AssetDescription plugin = Store(repo, "p", PluginAssetInterface::Create());
  auto tags = search->GetMetaData()->GetValue<std::string>(typedmetaids::tags);
  ASSERT_TRUE(tags.HasValue() && *tags);
  EXPECT_EQ(**tags, "");
  auto category = plugin->GetMetaData()->Get(typedmetaids::baseCategory);
  ASSERT_TRUE(category.HasValue() && *category);
  EXPECT_EQ(**category, Data(Id()));
}

TEST_F(MetadataTypesTest, PluginAssetsOfReplacedModulesAreRenamed) {
  auto replacements = GetRegistry<Id>(Id("net.kelvo.registry.replacemodule"));
  ASSERT_TRUE(replacements.HasValue());
  (*replacements)->InsertEntry(Id("net.old.module"), Id("net.new.module"));
  (*replacements)->InsertEntry(Id("net.emptied"), Id());
  EXPECT_EQ(PluginAssetInterface::RenamePluginAsset(Id("builtin_plugin_net.old.module")).GetValue(),
            Id("builtin_plugin_net.new.module"));
  EXPECT_EQ(PluginAssetInterface::RenamePluginAsset(Id("builtin_plugin_net.emptied")).GetValue(), Id("builtin_plugin_"));
  EXPECT_TRUE(PluginAssetInterface::RenamePluginAsset(Id("builtin_plugin_net.other")).GetValue().IsEmpty());
  EXPECT_TRUE(PluginAssetInterface::RenamePluginAsset(Id("net.old.module")).GetValue().IsEmpty());
  EXPECT_TRUE(PluginAssetInterface::RenamePluginAsset(Id("builtin_plugin_")).GetValue().IsEmpty());
  // The renaming is registered where the repositories look for renamings.
  using Renaming = std::function<Result<Id>(const Id&)>;
  auto renamings = GetRegistry<Renaming>(Id("net.kelvo.registry.assetrenamings"));
  ASSERT_TRUE(renamings.HasValue());
  auto entry = (*renamings)->FindEntryValue(Id("net.kelvo.asset.renaming.plugin"));
  ASSERT_TRUE(entry && *entry);
  EXPECT_EQ((*entry)(Id("builtin_plugin_net.old.module")).GetValue(), Id("builtin_plugin_net.new.module"));
  (*replacements)->EraseEntry(Id("net.old.module"));
  (*replacements)->EraseEntry(Id("net.emptied"));
}

} // namespace
} // namespace kelvo::testing
