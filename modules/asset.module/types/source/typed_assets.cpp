// Registration of the typed asset types.

#include "asset/types/typed_assets.h"

#include <mutex>

#include "asset/types/asset_type_enum_list.h"
#include "asset/types/category_asset.h"
#include "asset/types/color_category_asset.h"
#include "asset/types/command_asset.h"
#include "asset/types/keyword_asset.h"
#include "asset/types/marker_assets.h"
#include "asset/types/metadata_asset_type.h"
#include "asset/types/preset_data_types.h"
#include "asset/types/smart_search_asset.h"
#include "kelvo/registry.h"

namespace kelvo {

namespace {

template <typename Interface>
MetadataAssetTypeInfo InfoOf(const char* dataType, const char* what, const char* icon, TYPEDCOMPUTE compute) {
  return MetadataAssetTypeInfo{
      Interface::TypeId(), Id(dataType), std::string("Given asset is not a valid ") + what + ".", icon, compute,
      [](const AssetInterface& asset) { return dynamic_cast<const Interface*>(&asset) != nullptr; },
      [] { return Asset(std::make_shared<TypedAssetImpl<Interface>>()); }};
}

Result<void> RegisterAll() {
  std::shared_ptr<AssetTypeRegistry> registry = GetAssetTypeRegistry();
  if (!registry) return IllegalStateError("Registry @ has values of another type.", g_assetTypesRegistryId);
  const MetadataAssetTypeInfo infos[] = {
      InfoOf<KeywordAssetInterface>("net.kelvo.datatype.keywordasset", "keyword", "keyword.svg", TYPEDCOMPUTE::BASE),
      InfoOf<CategoryAssetInterface>("net.kelvo.datatype.categoryasset", "category", "category.svg",
                                     TYPEDCOMPUTE::TAGS_AND_CATEGORY),
      InfoOf<ColorCategoryAssetInterface>("net.kelvo.datatype.colorcategoryasset", "color category", "",
                                          TYPEDCOMPUTE::TAGS_AND_CATEGORY),
      // Commands have no icon of their own and show the keyword's.
      InfoOf<CommandAssetInterface>("net.kelvo.datatype.commandasset", "command", "keyword.svg", TYPEDCOMPUTE::BASE),
      InfoOf<SmartSearchAssetInterface>("net.kelvo.datatype.smartsearchasset", "smart filter", "smartsearch.svg",
                                        TYPEDCOMPUTE::TAGS),
      InfoOf<NodeSpaceAssetInterface>("net.kelvo.datatype.nodespaceasset", "nodespace", "",
                                      TYPEDCOMPUTE::TAGS_AND_CATEGORY),
      InfoOf<PluginAssetInterface>("net.kelvo.datatype.pluginasset", "plugin", "", TYPEDCOMPUTE::TAGS_AND_CATEGORY),
      InfoOf<SubTypeAssetInterface>("net.kelvo.datatype.subtypeasset", "subtype", "", TYPEDCOMPUTE::BASE),
  };
  for (const MetadataAssetTypeInfo& info : infos)
    registry->InsertEntry(info.typeId, std::make_shared<MetadataAssetType>(info));
  KELVO_ASSIGN_OR_RETURN(auto renamings, GetRegistry<AssetRenaming>(g_assetRenamingsRegistryId));
  renamings->InsertEntry(Id("net.kelvo.asset.renaming.plugin"), AssetRenaming(&PluginAssetInterface::RenamePluginAsset));
  KELVO_ASSIGN_OR_RETURN(auto enumLists, GetProcessEnumListRegistry());
  enumLists->InsertEntry(g_assetTypeEnumListId, ProcessEnumListDelegate(&ProcessAssetTypeEnumList));
  return RegisterPresetDataTypes();
}

} // namespace

Result<void> RegisterTypedAssetTypes() {
  static std::once_flag once;
  static Result<void> outcome;
  std::call_once(once, [] { outcome = RegisterAll(); });
  return outcome;
}

AssetType FindTypedAssetType(const Id& typeId) {
  (void)RegisterTypedAssetTypes();
  return FindAssetType(typeId);
}

} // namespace kelvo
