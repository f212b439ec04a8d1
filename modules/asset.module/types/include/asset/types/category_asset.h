#pragma once
// Category assets: the tree in which assets are shown. A category is an asset of type
// net.kelvo.assettype.category with empty content; any asset, a category too, names its parent
// category in net.kelvo.node.category (an Id, kind PERSISTENT; empty or missing: top level).

#include <string>
#include <vector>

#include "asset/core/assetrepository.h"
#include "asset/types/typed_assets.h"

namespace kelvo {

namespace categoryids {
inline const InternedId& parent = metaids::category;
} // namespace categoryids

class CategoryAssetInterface : public AssetBaseImpl {
public:
  static const Id& TypeId();
  // A new category asset object.
  static Asset Create();
  // The parent category of asset; the empty Id at the top level. Errors of the metadata service
  // pass through.
  static Result<Id> GetParentCategory(const AssetDescription& asset);
  // Stores category as asset's parent, unchecked; the empty Id removes the link.
  static Result<void> SetAssetCategory(const AssetDescription& asset, const Id& category);
  // The names of asset's ancestors, the root first, asset's own name not included. A parent that
  // repository can't find ends the path without error; a parent met a second time ends it too.
  // Errors of the search pass through.
  static Result<std::vector<std::string>> GetAssetBreadcrumbString(const AssetDescription& asset,
                                                                   const AssetRepositoryRef& repository);
  // SetAssetCategory after checks, for callers that take the category from a user: category must
  // be empty or a category that repository finds, and when asset is a category, category must
  // be neither asset itself nor one of its descendants. A refused move changes nothing.
  static Result<void> MoveToCategory(const AssetDescription& asset, const Id& category,
                                     const AssetRepositoryRef& repository);
};

using CategoryAssetImpl = TypedAssetImpl<CategoryAssetInterface>;

} // namespace kelvo
