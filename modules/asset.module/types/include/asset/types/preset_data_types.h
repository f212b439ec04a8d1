#pragma once
// Plain data types through which the host's preset code passes repositories and dependencies in
// Data values. The module only defines and registers them (net.kelvo.registry.datatypes, type Id
// to type name); the members beyond an Id, references, flag, delegate and map are the contract
// of the preset classes that use them. Equality of references and delegates is identity.
// The references are strong: a value kept in the metadata of the repository it names keeps that
// repository alive for good, so keep such values only while the preset operation runs.

#include <functional>
#include <memory>
#include <unordered_map>

#include "asset/core/assetrepository.h"
#include "kelvo/registry.h"

namespace kelvo {

// Dependencies found so far: the referenced asset Id to the version chosen for it.
using PresetDependencyMap = std::unordered_map<Id, IdAndVersion>;

// An asset to be stored under an Id in a repository.
struct StoreAssetStruct {
  Id assetId;
  AssetRepositoryRef repository;
  Asset asset;
  friend bool operator==(const StoreAssetStruct&, const StoreAssetStruct&) = default;
};

// What the dependencies of a preset resolve to; resolve is asked for each one not yet in resolved.
struct ResolveAssetDependenciesStruct {
  using Resolver = std::function<Result<AssetDescription>(const AssetDependencyStruct&)>;
  std::shared_ptr<const Resolver> resolve;
  PresetDependencyMap resolved;
  friend bool operator==(const ResolveAssetDependenciesStruct&, const ResolveAssetDependenciesStruct&) = default;
};

// A dependency to be added to the asset assetId of repository; updateLinks decides whether
// links to it follow later versions.
struct AddAssetDepencendyStruct {
  Id assetId;
  AssetRepositoryRef repository;
  Asset asset;
  bool updateLinks = false;
  PresetDependencyMap dependencies;
  friend bool operator==(const AddAssetDepencendyStruct&, const AddAssetDepencendyStruct&) = default;
};

std::size_t HashValue(const StoreAssetStruct& v);
std::size_t HashValue(const ResolveAssetDependenciesStruct& v);
std::size_t HashValue(const AddAssetDepencendyStruct& v);
template <> struct DataTypeTraits<StoreAssetStruct> {
  static const Id& TypeId(); // net.kelvo.datatype.storeassetstruct
};
template <> struct DataTypeTraits<ResolveAssetDependenciesStruct> {
  static const Id& TypeId(); // net.kelvo.datatype.resolveassetdependenciesstruct
};
template <> struct DataTypeTraits<AddAssetDepencendyStruct> {
  static const Id& TypeId(); // net.kelvo.datatype.addassetdepencendystruct
};

extern const Id g_dataTypesRegistryId; // net.kelvo.registry.datatypes
// The registry of data types: type Id to the name of the type.
Result<std::shared_ptr<Registry<std::string>>> GetDataTypeRegistry();
// Enters the three types into the registry. Called by the typed asset registration.
Result<void> RegisterPresetDataTypes();

} // namespace kelvo
