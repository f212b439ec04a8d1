// The validity of stored versions for this application version, and the resolution of one
// dependency with a fallback to another version of the same asset.

#include "asset/core/asset_version_validity.h"

#include "asset/core/assetrepository.h"
#include "kelvo/application.h"

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

Result<AssetVersionValidity> AssetInterface::IsAssetVersionValid(const AssetDescription& asset) {
  AssetVersionValidity result;
  if (!asset) return result;
  KELVO_ASSIGN_OR_RETURN(AssetVersionRange range, GetAssetVersionRange(asset));
  if (range.min == 0.0 && range.max == 0.0) return result;
  const double current = Application::GetVersion();
  if (current < range.min)
    result.validity = ASSET_VERSION_VALIDITY::INVALID_HIGHER_VERSION_REQUIRED;
  else if (range.max != 0.0 && current > range.max)
    result.validity = ASSET_VERSION_VALIDITY::INVALID_LOWER_VERSION_REQUIRED;
  if (result.validity != ASSET_VERSION_VALIDITY::VALID) {
    result.minVersion = range.min;
    result.maxVersion = range.max;
    result.currentVersion = current;
  }
  return result;
}

Result<bool> AssetInterface::IsAssetValid(const AssetDescription& asset) {
  KELVO_ASSIGN_OR_RETURN(AssetVersionValidity validity, IsAssetVersionValid(asset));
  return validity.validity == ASSET_VERSION_VALIDITY::VALID;
}

Result<bool> AssetInterface::IsAssetVisible(const AssetDescription& asset) { return IsAssetValid(asset); }

Result<void> AssetInterface::ResolveAssetsWithMissingAssets(
    const AssetRepositoryRef& searchRepository, const Id& typeId, const IdAndVersion& idVersion,
    const UniversalDateTime& assetCreationDate, IdAndVersionSet& checked,
    const std::function<Result<void>(const AssetDescription&, const IdAndVersion&)>& callbackFound,
    const std::function<Result<void>(bool olderExists)>& callbackMissing) {
  if (!checked.insert(idVersion).second) return {};
  if (!searchRepository) return NullptrError("Search repository is nullptr.");
  auto found = [&](const AssetDescription& d) -> Result<void> {
    return callbackFound ? callbackFound(d, idVersion) : Result<void>();
  };
  auto missing = [&](bool olderExists) -> Result<void> {
    return callbackMissing ? callbackMissing(olderExists) : Result<void>();
  };

  KELVO_ASSIGN_OR_RETURN(AssetDescription exact,
                         searchRepository->FindLatestAsset(typeId, idVersion.first, idVersion.second, NONE));
  if (exact) return found(exact);
  if (idVersion.second.IsEmpty()) return missing(false);

  // The version asked for is not there: another version may serve, unless it is older than the
  // one the dependency was made with.
  KELVO_ASSIGN_OR_RETURN(AssetDescription other, searchRepository->FindLatestAsset(typeId, idVersion.first, Id(), NONE));
  if (!other) return missing(false);
  KELVO_ASSIGN_OR_RETURN(std::optional<UniversalDateTime> stamp,
                         other->GetMetaData()->GetValue<UniversalDateTime>(metaids::timestamp));
  const UniversalDateTime time = stamp.value_or(UniversalDateTime());
  if (!assetCreationDate.IsEmpty() && !time.IsEmpty() && time < assetCreationDate) return missing(true);
  return found(other);
}

} // namespace kelvo
