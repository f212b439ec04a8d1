#pragma once
// The category tree of a repository as one snapshot: every category with its children and the
// number of (non-category) assets in it, built from one search.

#include <string>
#include <vector>

#include "asset/core/assetrepository.h"
#include "kelvo/language.h"

namespace kelvo {

struct CategoryNode {
  Id id;
  std::string name;
  Id parent;                         // as stored; empty at the top level
  std::vector<std::size_t> children; // indexes into CategoryTree::nodes, ordered by name
  std::size_t direct = 0;            // assets whose category is this one
  std::size_t total = 0;             // direct plus the totals of the children
};

struct CategoryTree {
  std::vector<CategoryNode> nodes;
  std::vector<std::size_t> roots; // ordered by name
  // Assets without category, or whose category the repository doesn't know.
  std::size_t uncategorized = 0;
};

// Walks the latest versions of repository and its bases once. A category whose parent is
// unknown, or whose parent links form a cycle, is shown at the top level. Names are read in
// language (null: the current one). Errors of the search and of metadata reads pass through;
// the walk tests for cancellation of the current job. Any thread.
Result<CategoryTree> BuildCategoryTree(const AssetRepositoryRef& repository, const LanguageRef& language);

// The tree as indented lines, two blanks per level: "Name  (n)" where n assets lie in the
// category itself and nothing below it, else "Name  (n, m in all)"; last "(no category)  (k)"
// when k assets have none.
std::string FormatCategoryTree(const CategoryTree& tree);

} // namespace kelvo
