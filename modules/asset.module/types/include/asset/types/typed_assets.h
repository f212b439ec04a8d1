#pragma once
// The typed assets of the module: registration of their types and the one implementation class
// that each typed asset interface is completed with.

#include "asset/core/asset_description.h"
#include "kelvo/result.h"

namespace kelvo {

// Enters every typed asset type (keyword, category, color category, command, smart search,
// node space, plugin, subtype) into net.kelvo.registry.assettypes, the plugin renaming into
// net.kelvo.registry.assetrenamings, the "assettype" enum list and the preset data types. Runs once per process; later calls return the first
// outcome. Thread safe. Called by the module start and, lazily, by each Create().
Result<void> RegisterTypedAssetTypes();

// The registered type of typeId, registering the typed asset types first; null when unknown.
AssetType FindTypedAssetType(const Id& typeId);

// The implementation of a typed asset interface: no state of its own, its type found by the
// interface's TypeId().
template <typename Interface> class TypedAssetImpl final : public Interface {
public:
  AssetType GetType() const override { return FindTypedAssetType(Interface::TypeId()); }
  Asset Clone() const override { return std::make_shared<TypedAssetImpl>(*this); }
};

// A new asset of a typed asset interface, its type registered first.
template <typename Interface> Asset CreateTypedAsset() {
  (void)RegisterTypedAssetTypes();
  return std::make_shared<TypedAssetImpl<Interface>>();
}

} // namespace kelvo
