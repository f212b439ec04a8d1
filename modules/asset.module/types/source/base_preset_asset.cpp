// Defaults of preset assets and their types, and the store through Serialize.

#include "asset/types/base_preset_asset.h"

#include "asset/types/metadata_asset_type.h"
#include "kelvo/hash.h"

namespace kelvo {

Result<Data> BasePresetAsset::GetPresetInternalConstDataPtr() const {
  return FunctionNotImplementedError("Preset @ has no internal data.", GetTypeId());
}

Result<Data> BasePresetAsset::GetPresetInternalData() const {
  return FunctionNotImplementedError("Preset @ has no internal data.", GetTypeId());
}

Result<Data> AssetTypePresetBase::CreateNewPresetSettings(const Data&) const {
  return FunctionNotImplementedError("Preset type @ can't create settings.", GetId());
}

std::string AssetTypePresetBase::GetFilterString() const { return "type:" + GetId().ToString(); }

Result<MetaValueMap> AssetTypePresetBase::Store(const Asset& asset, const Url& url, Digest* hash) const {
  const auto* preset = dynamic_cast<const BasePresetAsset*>(asset.get());
  if (!preset) return IllegalArgumentError("Illegal argument: Condition basePreset not fulfilled. ");
  std::unique_ptr<OutputStream> target;
  if (url.IsEmpty()) {
    target = NewNullOutputStream();
  } else {
    KELVO_ASSIGN_OR_RETURN(target, url.OpenOutputStream());
  }
  OutputStreamHasher* hasher = nullptr;
  if (hash) {
    auto wrapped = std::make_unique<OutputStreamHasher>(std::move(target));
    hasher = wrapped.get();
    target = std::move(wrapped);
  }
  Result<void> serialized = preset->Serialize(*target);
  Result<void> closed = target->Close();
  KELVO_RETURN_ON_ERROR(serialized);
  KELVO_RETURN_ON_ERROR(closed);
  if (hasher) *hash = hasher->GetDigest();
  return MetaValueMap();
}

Result<ComputedMetaData> AssetTypePresetBase::ComputeMetaData(const AssetRepositoryRef& repository,
                                                              const Asset& asset, const AssetMetaDataRef& meta,
                                                              const InternedId& metaId) const {
  if (auto own = ComputeTypedMetaData(TYPEDCOMPUTE::TAGS, metaId)) return *own;
  return AssetTypeBase::ComputeMetaData(repository, asset, meta, metaId);
}

Result<Data> AssetTypePresetBase::GetData(const Id& key) const {
  if (key == assettypeproperties::supportVersions) return Data(false);
  return AssetTypeBase::GetData(key);
}

} // namespace kelvo
