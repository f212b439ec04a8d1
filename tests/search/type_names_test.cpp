// Type names, names with category paths through the cache, and the colour transfer.

#include "asset/search/display_strings.h"
#include "search_fixture.h"

namespace kelvo::testing {
namespace {

using TypeNamesTest = SearchRepositoryTest;

TEST_F(TypeNamesTest, TypesGetTheirTableNameARegisteredTypeNoPrefixAnyOtherTheLastPrefix) {
  EXPECT_EQ(GetAssetTypeName(Id("net.kelvo.assettype.file")), (TypeName{"File", "#$07"}));
  EXPECT_EQ(GetAssetTypeName(Id("net.kelvo.assettype.category")), (TypeName{"Category", "#$01"}));
  EXPECT_EQ(GetAssetTypeName(kTextType), (TypeName{kTextType.ToString(), ""}));
  EXPECT_EQ(GetAssetTypeName(Id("x.unknown")), (TypeName{"x.unknown", "#$99"}));
  EXPECT_EQ(StripSortPrefix("#$07File"), "File");
  EXPECT_EQ(StripSortPrefix("#$0File"), "#$0File");
}

TEST_F(TypeNamesTest, AssetNamesWithParentsFileSubtypesAndTheCache) {
  Generate();
  TypeNameCache cache;
  auto oak = GetAssetTypeName(_main, kTextType, Id("oak"), Id(), true, &cache);
  ASSERT_TRUE(oak.HasValue()) << oak.GetError().ToString();
  EXPECT_EQ(oak->name, "Nature/Trees/Oak Beam");
  EXPECT_EQ(GetAssetTypeName(_main, kTextType, Id("oak"), Id(), false, &cache)->name, "Oak Beam");
  // An unnamed file subtype reads as the file type with its extension.
  EXPECT_EQ(GetAssetTypeName(_main, Id("net.kelvo.assettype.subtype"), Id("net.kelvo.asset.subtype.file.png"), Id(),
                             false, &cache)
                ->name,
            "File (*.png)");
  // A missing asset falls back to its type's name and prefix.
  EXPECT_EQ(GetAssetTypeName(_main, Id("net.kelvo.assettype.keyword"), Id("kw.none"), Id(), false, &cache).GetValue(),
            (TypeName{"Keyword", "#$08"}));
  EXPECT_EQ(cache.GetCount(), 4u);
  // A hit is served from the cache: a changed name shows only in a new walk.
  auto stored = _main->FindLatestAsset(Id(), Id("oak"), Id(), LATEST);
  ASSERT_TRUE((*stored)->StoreMetaString(stringkeys::name, "Renamed", nullptr).HasValue());
  EXPECT_EQ(GetAssetTypeName(_main, kTextType, Id("oak"), Id(), false, &cache)->name, "Oak Beam");
  EXPECT_EQ(GetAssetTypeName(_main, kTextType, Id("oak"), Id(), false, nullptr)->name, "Renamed");
}

TEST_F(TypeNamesTest, ColourBarAndDependencyQuestions) {
  EXPECT_DOUBLE_EQ(LinearToSrgb(0.0), 0.0);
  EXPECT_NEAR(LinearToSrgb(1.0), 1.0, 1e-12);
  EXPECT_NEAR(LinearToSrgb(0.002), 0.002 * 12.92, 1e-12);
  Generate();
  auto pine = _main->FindLatestAsset(Id(), Id("pine"), Id(), LATEST);
  ASSERT_TRUE(pine.HasValue() && *pine);
  EXPECT_FALSE(GetAssetColorBar(*pine).has_value());
  EXPECT_FALSE(HasLumoraDependencies(*pine));
  IdAndVersionSet checked;
  auto missing = HasMissingDependencies(_main, *pine, checked);
  ASSERT_TRUE(missing.HasValue()) << missing.GetError().ToString();
  EXPECT_FALSE(*missing);
}

} // namespace
} // namespace kelvo::testing
