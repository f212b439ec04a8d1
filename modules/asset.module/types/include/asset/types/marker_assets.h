#pragma once
// Three small typed assets that stand for something of the host and carry only metadata: a node
// space, a plugin, and a subtype (a name and icon for a value of net.kelvo.asset.subtype).

#include "asset/core/assetrepository.h"
#include "asset/types/typed_assets.h"

namespace kelvo {

class NodeSpaceAssetInterface : public AssetBaseImpl {
public:
  static const Id& TypeId();
  static Asset Create();
};

class PluginAssetInterface : public AssetBaseImpl {
public:
  static const Id& TypeId();
  static Asset Create();
  // The renaming of plugin asset Ids: "builtin_plugin_<module>" becomes "builtin_plugin_<new>"
  // when net.kelvo.registry.replacemodule names <new> as the replacement of <module>; the empty
  // Id (no renaming) otherwise. Entered in net.kelvo.registry.assetrenamings.
  static Result<Id> RenamePluginAsset(const Id& aid);
};

class SubTypeAssetInterface : public AssetBaseImpl {
public:
  static const Id& TypeId();
  static Asset Create();
  // Stores subtype as target's net.kelvo.asset.subtype (kind PERSISTENT).
  static Result<void> SetSubType(const AssetDescription& target, const Id& subtype);
};

using NodeSpaceAssetImpl = TypedAssetImpl<NodeSpaceAssetInterface>;
using PluginAssetImpl = TypedAssetImpl<PluginAssetInterface>;
using SubTypeAssetImpl = TypedAssetImpl<SubTypeAssetInterface>;

} // namespace kelvo
