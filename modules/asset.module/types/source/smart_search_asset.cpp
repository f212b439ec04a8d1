// Smart search assets: a stored filter text.

#include "asset/types/smart_search_asset.h"

#include "asset/types/metadata_asset_type.h"

namespace kelvo {

const Id& SmartSearchAssetInterface::TypeId() {
  static const Id id{"net.kelvo.assettype.smartsearch"};
  return id;
}

Asset SmartSearchAssetInterface::Create() { return CreateTypedAsset<SmartSearchAssetInterface>(); }

std::string SmartSearchAssetInterface::GetFilterString() const {
  AssetMetaDataRef meta = GetMetaData();
  if (!meta) return std::string();
  Result<std::optional<std::string>> text = meta->GetValue<std::string>(smartsearchids::filter);
  return text.HasValue() && *text ? **text : std::string();
}

Result<void> SmartSearchAssetInterface::SetFilterString(const AssetDescription& asset, const std::string& filter) {
  return StoreAssetMeta(asset, smartsearchids::filter, filter.empty() ? Data() : Data(filter),
                        AssetMetaData::PERSISTENT);
}

} // namespace kelvo
