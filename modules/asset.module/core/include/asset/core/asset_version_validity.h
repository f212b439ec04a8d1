#pragma once
// Whether a stored version may be used by this application version, and the set of dependencies
// already resolved by one run of ResolveAssetsWithMissingAssets.

#include <cstdint>
#include <unordered_set>
#include "asset/core/asset_description.h"
#include "asset/core/asset_identity.h"
#include "kelvo/result.h"

namespace kelvo {

enum class ASSET_VERSION_VALIDITY : std::int32_t {
  VALID = 0,
  INVALID_HIGHER_VERSION_REQUIRED = 1,
  INVALID_LOWER_VERSION_REQUIRED = 2,
};

// The three numbers are 0 when validity is VALID.
struct AssetVersionValidity {
  ASSET_VERSION_VALIDITY validity = ASSET_VERSION_VALIDITY::VALID;
  double minVersion = 0.0;
  double maxVersion = 0.0;
  double currentVersion = 0.0;
};

struct IdAndVersionHash {
  std::size_t operator()(const IdAndVersion& v) const noexcept { return HashValue(v); }
};
// The dependencies already resolved during one run of ResolveAssetsWithMissingAssets calls.
class IdAndVersionSet : public std::unordered_set<IdAndVersion, IdAndVersionHash> {
public:
  using std::unordered_set<IdAndVersion, IdAndVersionHash>::unordered_set;
};

// The range (min, max) of net.kelvo.asset.validversion, with (0, 0) when the metadata is absent
// or not a pair of numbers. A max of 0 means no upper bound.
struct AssetVersionRange {
  double min = 0.0;
  double max = 0.0;
};
Result<AssetVersionRange> GetAssetVersionRange(const AssetDescription& description);

// True when the application's version lies within the asset's valid range: the free form of
// AssetInterface::IsAssetValid. A null description and an asset without a range are valid. A
// read error of the metadata is returned.
Result<bool> IsAssetValid(const AssetDescription& description);

} // namespace kelvo
