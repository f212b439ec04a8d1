// Color categories: the standard table, the color tag and its failure cases.

#include "asset/types/color_category_asset.h"
#include "types_fixture.h"

namespace kelvo::testing {
namespace {

using ColorCategoryTest = TypesTest;

TEST_F(ColorCategoryTest, AStandardColorIsMadeOnceAndTagsAnAssetAcrossRepositoryObjects) {
  auto repo = Open();
  auto red = ColorCategoryAssetInterface::ProvideStandardColorCategory("Red", repo);
  ASSERT_TRUE(red.HasValue()) << red.GetError().ToString();
  auto again = ColorCategoryAssetInterface::ProvideStandardColorCategory("net.kelvo.colorcategory.red", repo);
  ASSERT_TRUE(again.HasValue());
  EXPECT_EQ((*again)->GetIdAndVersion(), (*red)->GetIdAndVersion());
  AssetDescription oak = Store(repo, "oak", MakeText("oak"));
  ASSERT_TRUE(ColorCategoryAssetInterface::SetColorCategory(oak, (*red)->GetIdAndVersion().first).HasValue());

  repo.reset();
  repo = Open();
  const ColorCategoryTag tag = ColorCategoryAssetInterface::GetColorCategory(Latest(repo, "oak"), repo);
  EXPECT_EQ(tag.category, Id("net.kelvo.colorcategory.red"));
  EXPECT_DOUBLE_EQ(tag.color[0], 0.799);
  EXPECT_DOUBLE_EQ(tag.color[1], 0.026);
  EXPECT_EQ(Latest(repo, "net.kelvo.colorcategory.red")->GetMetaString(stringkeys::name, nullptr, "").GetValue(), "Red");
  std::size_t colors = 0;
  ASSERT_TRUE(repo->FindAssets(TypeArray{ColorCategoryAssetInterface::TypeId()}, Id(), Id(), LATEST,
                               [&](const AssetDescription&) -> Result<bool> {
                                 ++colors;
                                 return true;
                               }).HasValue());
  EXPECT_EQ(colors, 1u);

  // The empty Id removes the tag.
  ASSERT_TRUE(ColorCategoryAssetInterface::SetColorCategory(Latest(repo, "oak"), Id()).HasValue());
  EXPECT_FALSE(HasFileNamed(Dir("main"), "net.kelvo.asset.colorcategory"));
  EXPECT_TRUE(ColorCategoryAssetInterface::GetColorCategory(Latest(repo, "oak"), repo).category.IsEmpty());
}

TEST_F(ColorCategoryTest, StaleTagsAndColorlessCategoriesAndUnknownColors) {
  auto repo = Open();
  AssetDescription a = Store(repo, "a", MakeText("a"));
  const ColorCategoryTag none = ColorCategoryAssetInterface::GetColorCategory(a, repo);
  EXPECT_TRUE(none.category.IsEmpty());
  EXPECT_EQ(none.color, (LinearColor{0, 0, 0}));
  // A tag whose color category is gone looks like no tag.
  ASSERT_TRUE(ColorCategoryAssetInterface::SetColorCategory(a, Id("net.kelvo.colorcategory.gone")).HasValue());
  EXPECT_TRUE(ColorCategoryAssetInterface::GetColorCategory(a, repo).category.IsEmpty());
  // A color category without a color is black.
  Store(repo, "plain", ColorCategoryAssetInterface::Create());
  ASSERT_TRUE(ColorCategoryAssetInterface::SetColorCategory(a, Id("plain")).HasValue());
  const ColorCategoryTag plain = ColorCategoryAssetInterface::GetColorCategory(a, repo);
  EXPECT_EQ(plain.category, Id("plain"));
  EXPECT_EQ(plain.color, (LinearColor{0, 0, 0}));

  const auto before = Snapshot(Dir("main"));
  auto outside = ColorCategoryAssetInterface::ProvideStandardColorCategory("chartreuse", repo);
  ASSERT_TRUE(outside.HasError());
  EXPECT_NE(outside.GetError().GetMessage().find("No color chartreuse; the colors are red, orange"), std::string::npos);
  EXPECT_EQ(Snapshot(Dir("main")), before);
}

} // namespace
} // namespace kelvo::testing
