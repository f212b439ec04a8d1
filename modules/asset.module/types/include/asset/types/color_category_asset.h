#pragma once
// Color category assets: named colors that assets are tagged with. A color category is an asset
// of type net.kelvo.assettype.colorcategory with empty content; its color lies in its metadata,
// and an asset names its color category in net.kelvo.asset.colorcategory.

#include <array>
#include <string>
#include <vector>

#include "asset/core/assetrepository.h"
#include "asset/types/typed_assets.h"

namespace kelvo {

namespace colorcategoryids {
// On any asset: the Id of its color category (kind PERSISTENT).
inline const InternedId tag{"net.kelvo.asset.colorcategory"};
// On the color category: an array of three Float64, the linear red, green and blue.
inline const InternedId color{"net.kelvo.assetmetadata.colorcategory.color"};
} // namespace colorcategoryids

using LinearColor = std::array<double, 3>;

struct ColorCategoryTag {
  Id category;
  LinearColor color{0.0, 0.0, 0.0};
};

// One color of the standard table: the Id of its color category asset, its name and color.
struct StandardColorCategory {
  Id id;
  std::string name;
  LinearColor color;
};

class ColorCategoryAssetInterface : public AssetBaseImpl {
public:
  static const Id& TypeId();
  // A new color category asset object.
  static Asset Create();
  // The color category of asset and its color, as found in repository. Never an error: any
  // failure, a missing tag or a tag naming no color category gives the empty Id and black; a
  // color category without a stored color gives its Id and black.
  static ColorCategoryTag GetColorCategory(const AssetDescription& asset, const AssetRepositoryRef& repository);
  // Stores category as asset's color category, unchecked; the empty Id removes the tag.
  static Result<void> SetColorCategory(const AssetDescription& asset, const Id& category);

  // The standard colors (red, orange, yellow, green, blue, purple, gray).
  static const std::vector<StandardColorCategory>& GetStandardColorCategories();
  // The color category asset of a standard color (by name, case-insensitive, or Id) in
  // repository, made with its name and color when repository has none yet. An illegal argument
  // error for a name outside the table, and nothing is stored then.
  static Result<AssetDescription> ProvideStandardColorCategory(const std::string& nameOrId,
                                                               const AssetRepositoryRef& repository);
};

using ColorCategoryAssetImpl = TypedAssetImpl<ColorCategoryAssetInterface>;

} // namespace kelvo
