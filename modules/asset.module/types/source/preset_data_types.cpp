// The preset data types: identity, hashing and registration.

#include "asset/types/preset_data_types.h"

namespace kelvo {

namespace {

std::size_t HashOf(const void* p) { return std::hash<const void*>()(p); }

std::size_t HashOf(const PresetDependencyMap& map) {
  // Order-independent: the sum of the entries' hashes.
  std::size_t h = map.size();
  for (const auto& [id, version] : map) h += CombineHash(id.GetHashCode(), HashValue(version));
  return h;
}

} // namespace

const Id g_dataTypesRegistryId{"net.kelvo.registry.datatypes"};

std::size_t HashValue(const StoreAssetStruct& v) {
  return CombineHash(CombineHash(v.assetId.GetHashCode(), HashOf(v.repository.get())), HashOf(v.asset.get()));
}

std::size_t HashValue(const ResolveAssetDependenciesStruct& v) {
  return CombineHash(HashOf(v.resolve.get()), HashOf(v.resolved));
}

std::size_t HashValue(const AddAssetDepencendyStruct& v) {
  std::size_t h = CombineHash(v.assetId.GetHashCode(), HashOf(v.repository.get()));
  h = CombineHash(CombineHash(h, HashOf(v.asset.get())), v.updateLinks ? 1u : 0u);
  return CombineHash(h, HashOf(v.dependencies));
}

const Id& DataTypeTraits<StoreAssetStruct>::TypeId() {
  static const Id id{"net.kelvo.datatype.storeassetstruct"};
  return id;
}

const Id& DataTypeTraits<ResolveAssetDependenciesStruct>::TypeId() {
  static const Id id{"net.kelvo.datatype.resolveassetdependenciesstruct"};
  return id;
}

const Id& DataTypeTraits<AddAssetDepencendyStruct>::TypeId() {
  static const Id id{"net.kelvo.datatype.addassetdepencendystruct"};
  return id;
}

Result<std::shared_ptr<Registry<std::string>>> GetDataTypeRegistry() {
  return GetRegistry<std::string>(g_dataTypesRegistryId);
}

Result<void> RegisterPresetDataTypes() {
  KELVO_ASSIGN_OR_RETURN(auto registry, GetDataTypeRegistry());
  registry->InsertEntry(DataTypeTraits<StoreAssetStruct>::TypeId(), "StoreAssetStruct");
  registry->InsertEntry(DataTypeTraits<ResolveAssetDependenciesStruct>::TypeId(), "ResolveAssetDependenciesStruct");
  registry->InsertEntry(DataTypeTraits<AddAssetDepencendyStruct>::TypeId(), "AddAssetDepencendyStruct");
  return {};
}

} // namespace kelvo
