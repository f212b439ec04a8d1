// The application-version range check of stored versions.

#include "asset_validity.h"


namespace kelvo {

namespace {

std::optional<double> AsNumber(const Data& value) {
  if (auto v = value.Get<double>()) return *v;
  if (auto v = value.Get<std::int32_t>()) return static_cast<double>(*v);
  if (auto v = value.Get<std::int64_t>()) return static_cast<double>(*v);
  if (auto v = value.Get<std::uint64_t>()) return static_cast<double>(*v);
  return std::nullopt;
}

} // namespace

Result<AssetVersionRange> GetAssetVersionRange(const AssetDescription& description) {
  AssetVersionRange range;
  if (!description) return range;
  AssetMetaDataRef meta = description->GetMetaData();
  if (!meta) return range;
  KELVO_ASSIGN_OR_RETURN(std::optional<Data> value, meta->Get(metaids::validversion));
  if (!value) return range;
  const DataArray* pair = value->GetPtr<DataArray>();
  if (!pair || pair->size() != 2) return range;
  const std::optional<double> min = AsNumber((*pair)[0]);
  const std::optional<double> max = AsNumber((*pair)[1]);
  if (!min || !max) return range;
  range.min = *min;
  range.max = *max;
  return range;
}

Result<bool> IsAssetValid(const AssetDescription& description) { return AssetInterface::IsAssetValid(description); }

} // namespace kelvo
