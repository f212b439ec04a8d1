// The shared type of the metadata-only typed assets and the small helpers they all use.

#include "asset/types/metadata_asset_type.h"

#include "asset/core/assetrepository.h"
#include "kelvo/application.h"
#include "kelvo/hash.h"

namespace kelvo {

Url TypedAssetIconUrl(std::string_view name) {
  return Application::PrivateGetUrl(APPLICATION_URLTYPE::CURRENT_MODULE_RESOURCE_DIR).Append("icons").Append(name);
}

Result<void> StoreEmptyContent(const Url& url, Digest* hash) {
  if (!url.IsEmpty()) {
    KELVO_ASSIGN_OR_RETURN(auto out, url.OpenOutputStream());
    KELVO_RETURN_ON_ERROR(out->Close());
  }
  if (hash) *hash = Sha256().Finish();
  return {};
}

std::optional<ComputedMetaData> ComputeTypedMetaData(TYPEDCOMPUTE compute, const InternedId& metaId) {
  if (compute == TYPEDCOMPUTE::BASE) return std::nullopt;
  if (metaId == typedmetaids::tags) return ComputedMetaData{Data(std::string()), true};
  if (compute == TYPEDCOMPUTE::TAGS_AND_CATEGORY && metaId == typedmetaids::baseCategory)
    return ComputedMetaData{Data(Id()), true};
  return std::nullopt;
}

Url MetadataAssetType::GetDefaultIcon(const AssetRepositoryRef& repository, const Asset& asset,
                                      const AssetMetaDataRef& meta) const {
  if (_info.iconName.empty()) return AssetTypeBase::GetDefaultIcon(repository, asset, meta);
  return TypedAssetIconUrl(_info.iconName);
}

Result<Asset> MetadataAssetType::Load(const AssetRepositoryRef&, const AssetDescription&, const Url&, bool) const {
  return _info.create();
}

Result<MetaValueMap> MetadataAssetType::Store(const Asset& asset, const Url& url, Digest* hash) const {
  if (!asset || !_info.isOwn(*asset)) return IllegalArgumentError(_info.refusal);
  KELVO_RETURN_ON_ERROR(StoreEmptyContent(url, hash));
  return MetaValueMap();
}

Result<ComputedMetaData> MetadataAssetType::ComputeMetaData(const AssetRepositoryRef& repository, const Asset& asset,
                                                            const AssetMetaDataRef& meta,
                                                            const InternedId& metaId) const {
  if (auto own = ComputeTypedMetaData(_info.compute, metaId)) return *own;
  return AssetTypeBase::ComputeMetaData(repository, asset, meta, metaId);
}

Result<Data> MetadataAssetType::GetData(const Id& key) const {
  if (key == assettypeproperties::supportVersions) return Data(false);
  return AssetTypeBase::GetData(key);
}

Result<void> StoreAssetMeta(const AssetDescription& asset, const InternedId& metaId, const Data& value,
                            std::uint32_t kind) {
  if (!asset) return IllegalArgumentError("Illegal argument: Condition asset not fulfilled. ");
  AssetRepositoryRef repository = asset->GetRepository();
  if (!repository) return IllegalStateError("The repository of asset @ is gone.", asset->GetIdAndVersion());
  return repository->StoreMetaData(asset, metaId, value, kind);
}

std::vector<Id> IdsOf(const std::optional<DataArray>& array) {
  std::vector<Id> ids;
  if (!array) return ids;
  ids.reserve(array->size());
  for (const Data& d : *array)
    if (const Id* id = d.GetPtr<Id>()) ids.push_back(*id);
  return ids;
}

DataArray ToDataArray(const std::vector<Id>& ids) {
  DataArray out;
  out.reserve(ids.size());
  for (const Id& id : ids) out.emplace_back(id);
  return out;
}

} // namespace kelvo
