// The category tree snapshot and its text form.

#include "asset/types/category_tree.h"

#include <algorithm>
#include <unordered_map>

#include "asset/storage/database_asset.h"
#include "asset/types/category_asset.h"

namespace kelvo {

namespace {

struct IdHash {
  std::size_t operator()(const Id& id) const noexcept { return id.GetHashCode(); }
};

// Sums the totals below index (children first) and marks what it reached.
std::size_t SumTotals(CategoryTree& tree, std::size_t index, std::vector<bool>& reached) {
  reached[index] = true;
  std::size_t total = tree.nodes[index].direct;
  for (std::size_t child : tree.nodes[index].children) total += SumTotals(tree, child, reached);
  tree.nodes[index].total = total;
  return total;
}

void FormatNode(const CategoryTree& tree, std::size_t index, std::size_t depth, std::string& out) {
  const CategoryNode& node = tree.nodes[index];
  out.append(depth * 2, ' ');
  out += node.name + "  (" + std::to_string(node.direct);
  if (node.total != node.direct) out += ", " + std::to_string(node.total) + " in all";
  out += ")\n";
  for (std::size_t child : node.children) FormatNode(tree, child, depth + 1, out);
}

} // namespace

Result<CategoryTree> BuildCategoryTree(const AssetRepositoryRef& repository, const LanguageRef& language) {
  if (!repository) return IllegalArgumentError("Illegal argument: Condition repository not fulfilled. ");
  CategoryTree tree;
  std::unordered_map<Id, std::size_t, IdHash> assetsIn;
  std::size_t assets = 0;
  KELVO_RETURN_ON_ERROR(repository->FindAssets(
      TypeArray{}, Id(), Id(), LATEST | CHECK_CANCELLATION, [&](const AssetDescription& d) -> Result<bool> {
        KELVO_ASSIGN_OR_RETURN(Id parent, CategoryAssetInterface::GetParentCategory(d));
        // The repository's own information asset isn't shown anywhere as an asset.
        if (d->GetTypeId() == g_databaseAssetTypeId) return true;
        if (d->GetTypeId() == CategoryAssetInterface::TypeId()) {
          KELVO_ASSIGN_OR_RETURN(std::string name, d->GetMetaString(stringkeys::name, language, std::string()));
          tree.nodes.push_back(CategoryNode{d->GetIdAndVersion().first, std::move(name), parent, {}, 0, 0});
        } else {
          ++assets;
          if (!parent.IsEmpty()) ++assetsIn[parent];
        }
        return true;
      }));

  std::unordered_map<Id, std::size_t, IdHash> indexOf;
  for (std::size_t i = 0; i < tree.nodes.size(); ++i) indexOf.emplace(tree.nodes[i].id, i);
  std::size_t categorized = 0;
  for (CategoryNode& node : tree.nodes) {
    auto it = assetsIn.find(node.id);
    if (it != assetsIn.end()) categorized += node.direct = it->second;
  }
  tree.uncategorized = assets - categorized;

  auto byName = [&](std::size_t a, std::size_t b) {
    const CategoryNode &x = tree.nodes[a], &y = tree.nodes[b];
    return std::tie(x.name, x.id) < std::tie(y.name, y.id);
  };
  std::vector<std::size_t> order(tree.nodes.size());
  for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::sort(order.begin(), order.end(), byName);
  for (std::size_t i : order) {
    auto parent = indexOf.find(tree.nodes[i].parent);
    if (parent == indexOf.end() || parent->second == i)
      tree.roots.push_back(i);
    else
      tree.nodes[parent->second].children.push_back(i);
  }
  std::vector<bool> reached(tree.nodes.size(), false);
  for (std::size_t root : tree.roots) SumTotals(tree, root, reached);
  // Categories on a cycle of parent links are reached from no root: the first of each cycle (by
  // name) is shown at the top level and loses its place in its parent's children.
  for (std::size_t i : order) {
    if (reached[i]) continue;
    auto& siblings = tree.nodes[indexOf.at(tree.nodes[i].parent)].children;
    siblings.erase(std::find(siblings.begin(), siblings.end(), i));
    tree.roots.push_back(i);
    SumTotals(tree, i, reached);
  }
  std::sort(tree.roots.begin(), tree.roots.end(), byName);
  return tree;
}

std::string FormatCategoryTree(const CategoryTree& tree) {
  std::string out;
  for (std::size_t root : tree.roots) FormatNode(tree, root, 0, out);
  if (tree.uncategorized) out += "(no category)  (" + std::to_string(tree.uncategorized) + ")\n";
  return out;
}

} // namespace kelvo
