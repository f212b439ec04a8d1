// Node space, plugin and subtype assets, and the renaming of plugin assets of replaced modules.

#include "asset/types/marker_assets.h"

#include "asset/types/metadata_asset_type.h"
#include "kelvo/registry.h"

namespace kelvo {

namespace {
constexpr std::string_view kPluginPrefix = "builtin_plugin_";
} // namespace

const Id& NodeSpaceAssetInterface::TypeId() {
  static const Id id{"net.kelvo.assettype.nodespace"};
  return id;
}

Asset NodeSpaceAssetInterface::Create() { return CreateTypedAsset<NodeSpaceAssetInterface>(); }

const Id& PluginAssetInterface::TypeId() {
  static const Id id{"net.kelvo.assettype.plugin"};
  return id;
}

Asset PluginAssetInterface::Create() { return CreateTypedAsset<PluginAssetInterface>(); }

Result<Id> PluginAssetInterface::RenamePluginAsset(const Id& aid) {
  if (!aid.View().starts_with(kPluginPrefix)) return Id();
  // A registry of the framework whose values are Ids; one holding values of another type is no
  // replacement table.
  auto registry = GetRegistry<Id>(Id("net.kelvo.registry.replacemodule"));
  if (registry.HasError()) return Id();
  std::optional<Id> replacement = (*registry)->FindEntryValue(Id(aid.View().substr(kPluginPrefix.size())));
  if (!replacement) return Id();
  return Id(std::string(kPluginPrefix) + replacement->ToString());
}

const Id& SubTypeAssetInterface::TypeId() {
  static const Id id{"net.kelvo.assettype.subtype"};
  return id;
}

Asset SubTypeAssetInterface::Create() { return CreateTypedAsset<SubTypeAssetInterface>(); }

Result<void> SubTypeAssetInterface::SetSubType(const AssetDescription& target, const Id& subtype) {
  return StoreAssetMeta(target, metaids::subtype, subtype.IsEmpty() ? Data() : Data(subtype),
                        AssetMetaData::PERSISTENT);
}

} // namespace kelvo
