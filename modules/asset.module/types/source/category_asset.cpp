// Category assets: parent links, breadcrumbs and checked moves within the category tree.

#include "asset/types/category_asset.h"

#include <unordered_set>

#include "asset/types/metadata_asset_type.h"

namespace kelvo {

namespace {

struct IdHash {
  std::size_t operator()(const Id& id) const noexcept { return id.GetHashCode(); }
};

Result<AssetDescription> FindCategory(const AssetRepositoryRef& repository, const Id& category) {
  return repository->FindLatestAsset(CategoryAssetInterface::TypeId(), category, Id(), NONE);
}

} // namespace

const Id& CategoryAssetInterface::TypeId() { return g_categoryAssetTypeId; }

Asset CategoryAssetInterface::Create() { return CreateTypedAsset<CategoryAssetInterface>(); }

Result<Id> CategoryAssetInterface::GetParentCategory(const AssetDescription& asset) {
  KELVO_ASSIGN_OR_RETURN(std::optional<Id> parent, ReadMeta<Id>(asset, categoryids::parent));
  return parent.value_or(Id());
}

Result<void> CategoryAssetInterface::SetAssetCategory(const AssetDescription& asset, const Id& category) {
  return StoreAssetMeta(asset, categoryids::parent, category.IsEmpty() ? Data() : Data(category),
                        AssetMetaData::PERSISTENT);
}

Result<std::vector<std::string>> CategoryAssetInterface::GetAssetBreadcrumbString(
    const AssetDescription& asset, const AssetRepositoryRef& repository) {
  if (!repository) return IllegalArgumentError("Illegal argument: Condition repository not fulfilled. ");
  std::vector<std::string> names;
  // Stored parent links may form a cycle; a walk ends at the first Id it meets again.
  std::unordered_set<Id, IdHash> seen{asset ? asset->GetIdAndVersion().first : Id()};
  AssetDescription current = asset;
  for (;;) {
    KELVO_ASSIGN_OR_RETURN(Id parent, GetParentCategory(current));
    if (parent.IsEmpty() || !seen.insert(parent).second) break;
    KELVO_ASSIGN_OR_RETURN(AssetDescription found, FindCategory(repository, parent));
    if (!found) break;
    KELVO_ASSIGN_OR_RETURN(std::string name, found->GetMetaString(stringkeys::name, nullptr, std::string()));
    names.insert(names.begin(), std::move(name));
    current = found;
  }
  return names;
}

Result<void> CategoryAssetInterface::MoveToCategory(const AssetDescription& asset, const Id& category,
                                                    const AssetRepositoryRef& repository) {
  if (!asset) return IllegalArgumentError("Illegal argument: Condition asset not fulfilled. ");
  if (!repository) return IllegalArgumentError("Illegal argument: Condition repository not fulfilled. ");
  if (!category.IsEmpty()) {
    const Id self = asset->GetIdAndVersion().first;
    if (category == self) return IllegalArgumentError("Category @ can't be its own parent.", self);
    KELVO_ASSIGN_OR_RETURN(AssetDescription target, FindCategory(repository, category));
    if (!target) return IllegalArgumentError("No category @.", category);
    if (asset->GetTypeId() == TypeId()) {
      // Walk up from the new parent: meeting the category being moved means a move under its own
      // descendant, which would cut the subtree off the tree.
      std::unordered_set<Id, IdHash> seen{category};
      AssetDescription current = target;
      for (;;) {
        KELVO_ASSIGN_OR_RETURN(Id parent, GetParentCategory(current));
        if (parent.IsEmpty() || !seen.insert(parent).second) break;
        if (parent == self)
          return IllegalArgumentError("Category @ can't move under @, which lies inside it.", self, category);
        KELVO_ASSIGN_OR_RETURN(current, FindCategory(repository, parent));
        if (!current) break;
      }
    }
  }
  return SetAssetCategory(asset, category);
}

} // namespace kelvo
