// The category tree on real on-disk repositories: breadcrumbs, checked moves, a tree spread over
// a base repository, and the tree builder.

#include "asset/types/category_asset.h"
#include "asset/types/category_tree.h"
#include "types_fixture.h"

namespace kelvo::testing {
namespace {

class CategoryTest : public TypesTest {
protected:
  // Materials > Wood > Oak, and a text asset in Oak.
  void MakeTree(const AssetRepositoryRef& repo) {
    Store(repo, "materials", CategoryAssetInterface::Create(), "Materials");
    Store(repo, "wood", CategoryAssetInterface::Create(), "Wood");
    Store(repo, "oak", CategoryAssetInterface::Create(), "Oak");
    ASSERT_TRUE(CategoryAssetInterface::SetAssetCategory(Latest(repo, "wood"), Id("materials")).HasValue());
    ASSERT_TRUE(CategoryAssetInterface::SetAssetCategory(Latest(repo, "oak"), Id("wood")).HasValue());
  }
  static std::vector<std::string> Crumbs(const AssetDescription& d, const AssetRepositoryRef& repo) {
    auto r = CategoryAssetInterface::GetAssetBreadcrumbString(d, repo);
    EXPECT_TRUE(r.HasValue()) << r.GetError().ToString();
    return r.HasValue() ? *r : std::vector<std::string>();
  }
};

TEST_F(CategoryTest, BreadcrumbsOfNestedCategoriesSurviveANewRepositoryObject) {
  auto repo = Open();
  MakeTree(repo);
  AssetDescription plank = Store(repo, "plank", MakeText("plank"));
  ASSERT_TRUE(CategoryAssetInterface::SetAssetCategory(plank, Id("oak")).HasValue());
  repo.reset();
  repo = Open();
  EXPECT_EQ(Crumbs(Latest(repo, "plank"), repo), (std::vector<std::string>{"Materials", "Wood", "Oak"}));
  EXPECT_EQ(Crumbs(Latest(repo, "oak"), repo), (std::vector<std::string>{"Materials", "Wood"}));
  EXPECT_TRUE(Crumbs(Latest(repo, "materials"), repo).empty());
  EXPECT_EQ(CategoryAssetInterface::GetParentCategory(Latest(repo, "plank")).GetValue(), Id("oak"));
  // Categories have empty content and are found by their type.
  std::vector<std::string> categories;
  ASSERT_TRUE(repo->FindAssets(TypeArray{CategoryAssetInterface::TypeId()}, Id(), Id(), LATEST,
                               [&](const AssetDescription& d) -> Result<bool> {
                                 categories.push_back(d->GetIdAndVersion().first.ToString());
                                 EXPECT_EQ(std::filesystem::file_size(d->GetUrl().GetValue().GetPath()), 0u);
                                 return true;
                               }).HasValue());
  std::sort(categories.begin(), categories.end());
  EXPECT_EQ(categories, (std::vector<std::string>{"materials", "oak", "wood"}));
}

TEST_F(CategoryTest, GapsNamelessParentsAndCyclesEndOrShapeTheBreadcrumb) {
  auto repo = Open();
  MakeTree(repo);
  Store(repo, "unnamed", CategoryAssetInterface::Create());
  ASSERT_TRUE(CategoryAssetInterface::SetAssetCategory(Latest(repo, "unnamed"), Id("oak")).HasValue());
  AssetDescription a = Store(repo, "a", MakeText("a"));
  ASSERT_TRUE(CategoryAssetInterface::SetAssetCategory(a, Id("unnamed")).HasValue());
  // GetMetaString of a nameless asset with an empty fallback is its Id.
  EXPECT_EQ(Crumbs(a, repo), (std::vector<std::string>{"Materials", "Wood", "Oak", "unnamed"}));

  // A parent nobody knows cuts the path.
  ASSERT_TRUE(CategoryAssetInterface::SetAssetCategory(Latest(repo, "materials"), Id("gone")).HasValue());
  EXPECT_EQ(Crumbs(Latest(repo, "oak"), repo), (std::vector<std::string>{"Materials", "Wood"}));

  // Stored links that form a cycle end the walk.
  ASSERT_TRUE(CategoryAssetInterface::SetAssetCategory(Latest(repo, "materials"), Id("oak")).HasValue());
  EXPECT_EQ(Crumbs(Latest(repo, "wood"), repo), (std::vector<std::string>{"Oak", "Materials"}));

  // The empty Id makes an asset top level and removes the link file.
  ASSERT_TRUE(CategoryAssetInterface::SetAssetCategory(a, Id()).HasValue());
  EXPECT_TRUE(Crumbs(a, repo).empty());
  EXPECT_TRUE(CategoryAssetInterface::GetParentCategory(a).GetValue().IsEmpty());
}

TEST_F(CategoryTest, MovesThatWouldBreakTheTreeAreRefusedAndChangeNothing) {
  auto repo = Open();
  MakeTree(repo);
  AssetDescription materials = Latest(repo, "materials");
  auto underChild = CategoryAssetInterface::MoveToCategory(materials, Id("oak"), repo);
  ASSERT_TRUE(underChild.HasError());
  EXPECT_NE(underChild.GetError().GetMessage().find("lies inside it"), std::string::npos);
  auto self = CategoryAssetInterface::MoveToCategory(materials, Id("materials"), repo);
  ASSERT_TRUE(self.HasError());
  EXPECT_NE(self.GetError().GetMessage().find("its own parent"), std::string::npos);
  auto missing = CategoryAssetInterface::MoveToCategory(materials, Id("nowhere"), repo);
  ASSERT_TRUE(missing.HasError());
  EXPECT_EQ(missing.GetError().GetMessage(), "No category nowhere.");
  // A text asset is no category, so it can't be a parent.
  Store(repo, "text", MakeText("t"));
  const auto withText = Snapshot(Dir("main"));
  EXPECT_TRUE(CategoryAssetInterface::MoveToCategory(materials, Id("text"), repo).HasError());
  EXPECT_EQ(Snapshot(Dir("main")), withText);
  EXPECT_TRUE(CategoryAssetInterface::GetParentCategory(Latest(repo, "materials")).GetValue().IsEmpty());

  // A legal move: oak out of wood to the top, then wood under oak.
  ASSERT_TRUE(CategoryAssetInterface::MoveToCategory(Latest(repo, "oak"), Id(), repo).HasValue());
  ASSERT_TRUE(CategoryAssetInterface::MoveToCategory(Latest(repo, "wood"), Id("oak"), repo).HasValue());
  EXPECT_EQ(Crumbs(Latest(repo, "wood"), repo), std::vector<std::string>{"Oak"});
}

TEST_F(CategoryTest, ACategoryInABaseRepositoryIsReachedThroughTheRepositoryBuiltOnIt) {
  {
    auto base = Open("base", kBaseRepo);
    MakeTree(base);
  }
  auto base = Open("base", kBaseRepo, {}, false);
  auto repo = Open("main", kMainRepo, {base});
  AssetDescription plank = Store(repo, "plank", MakeText("plank"));
  ASSERT_TRUE(CategoryAssetInterface::MoveToCategory(plank, Id("oak"), repo).HasValue());
  EXPECT_EQ(Crumbs(Latest(repo, "plank"), repo), (std::vector<std::string>{"Materials", "Wood", "Oak"}));
  // Searched in the base alone, the asset stays unknown; its link names the base's category.
  EXPECT_FALSE(Latest(base, "plank"));

  auto tree = BuildCategoryTree(repo, nullptr);
  ASSERT_TRUE(tree.HasValue()) << tree.GetError().ToString();
  const std::string text = FormatCategoryTree(*tree);
  EXPECT_EQ(text, "Materials  (0, 1 in all)\n  Wood  (0, 1 in all)\n    Oak  (1)\n");
}

TEST_F(CategoryTest, TheTreeCountsAssetsAndShowsUncategorizedOnesAndStaleLinks) {
  auto repo = Open();
  MakeTree(repo);
  for (int i = 0; i < 3; ++i) {
    AssetDescription d = Store(repo, "in_wood_" + std::to_string(i), MakeText(std::to_string(i)));
    ASSERT_TRUE(CategoryAssetInterface::SetAssetCategory(d, Id("wood")).HasValue());
  }
  Store(repo, "loose", MakeText("loose"));
  AssetDescription stale = Store(repo, "stale", MakeText("stale"));
  ASSERT_TRUE(CategoryAssetInterface::SetAssetCategory(stale, Id("gone")).HasValue());
  auto tree = BuildCategoryTree(repo, nullptr);
  ASSERT_TRUE(tree.HasValue()) << tree.GetError().ToString();
  EXPECT_EQ(tree->uncategorized, 2u);
  EXPECT_EQ(FormatCategoryTree(*tree),
            "Materials  (0, 3 in all)\n  Wood  (3)\n    Oak  (0)\n(no category)  (2)\n");
}

} // namespace
} // namespace kelvo::testing
