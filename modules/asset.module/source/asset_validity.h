#pragma once
// Whether a stored version may be used by this application version.

#include "asset_description.h"
#include "kelvo/result.h"

namespace kelvo {

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
