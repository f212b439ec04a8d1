// Keywords on a real on-disk repository: both scopes, the user tree, usage and favourites.

#include "asset/types/keyword_asset.h"
#include "asset/types/metadata_asset_type.h"
#include "types_fixture.h"

namespace kelvo::testing {
namespace {

using KeywordTest = TypesTest;

std::vector<Id> Array(const AssetDescription& d, const InternedId& array) {
  auto v = d->GetMetaData()->GetValue<DataArray>(array);
  EXPECT_TRUE(v.HasValue());
  return v.HasValue() ? IdsOf(*v) : std::vector<Id>();
}

TEST_F(KeywordTest, ScopesAreExclusiveAndUserKeywordsStayOutOfTheRepository) {
  auto repo = Open();
  AssetDescription oak = Store(repo, "oak", MakeText("oak"));
  ASSERT_EQ(KeywordAssetInterface::AddKeyword(oak, Id("wood"), false, false).GetValue(), true);
  ASSERT_EQ(KeywordAssetInterface::AddKeyword(oak, Id("mine"), true, false).GetValue(), true);
  // A keyword in one scope can't be added to the other, nor twice to the same.
  EXPECT_EQ(KeywordAssetInterface::AddKeyword(oak, Id("wood"), true, false).GetValue(), false);
  EXPECT_EQ(KeywordAssetInterface::AddKeyword(oak, Id("mine"), false, false).GetValue(), false);
  EXPECT_EQ(KeywordAssetInterface::HasKeyword(oak, Id("wood")).GetValue(), Id("net.kelvo.asset.keywords"));
  EXPECT_EQ(KeywordAssetInterface::HasKeyword(oak, Id("mine")).GetValue(), Id("net.kelvo.asset.userkeywords"));
  EXPECT_TRUE(KeywordAssetInterface::HasKeyword(oak, Id("stone")).GetValue().IsEmpty());
  // Removing from the wrong scope does nothing.
  EXPECT_EQ(KeywordAssetInterface::RemoveKeyword(oak, Id("mine"), false).GetValue(), false);

  EXPECT_FALSE(HasFileNamed(Dir("main"), "userkeywords"));
  EXPECT_TRUE(HasFileNamed(Dir("main"), "net.kelvo.asset.keywords"));
  EXPECT_TRUE(HasFileNamed(Dir("globalprefs"), "userkeywords"));

  repo.reset();
  repo = Open();
  AssetDescription again = Latest(repo, "oak");
  ASSERT_TRUE(again);
  EXPECT_EQ(Array(again, keywordids::keywords), std::vector<Id>{Id("wood")});
  EXPECT_EQ(Array(again, keywordids::userkeywords), std::vector<Id>{Id("mine")});
  EXPECT_EQ(GetAssetKeywords(again).GetValue(), (std::vector<Id>{Id("mine"), Id("wood")}));

  // Removing the last keyword of a scope removes its file.
  EXPECT_EQ(KeywordAssetInterface::RemoveKeyword(again, Id("wood"), false).GetValue(), true);
  EXPECT_FALSE(HasFileNamed(Dir("main"), "net.kelvo.asset.keywords"));
  EXPECT_EQ(KeywordAssetInterface::RemoveKeyword(again, Id("mine"), true).GetValue(), true);
  EXPECT_FALSE(HasFileNamed(Dir("globalprefs"), "userkeywords"));
  EXPECT_TRUE(GetAssetKeywords(again).GetValue().empty());
}

TEST_F(KeywordTest, UsageIsCountedOnTheKeywordAssetWhenThereIsOne) {
  auto repo = Open();
  AssetDescription wood = Store(repo, "wood", KeywordAssetInterface::Create(), "Wood");
  AssetDescription a = Store(repo, "a", MakeText("a"));
  AssetDescription b = Store(repo, "b", MakeText("b"));
  ASSERT_TRUE(KeywordAssetInterface::AddKeyword(a, Id("wood"), false, true).GetValue());
  ASSERT_TRUE(KeywordAssetInterface::AddKeyword(b, Id("wood"), false, true).GetValue());
  // A keyword without keyword asset is still added.
  ASSERT_TRUE(KeywordAssetInterface::AddKeyword(b, Id("ghost"), false, true).GetValue());
  EXPECT_EQ(Array(b, keywordids::keywords), (std::vector<Id>{Id("wood"), Id("ghost")}));

  repo.reset();
  repo = Open();
  auto usage = Latest(repo, "wood")->GetMetaData()->GetValue<DataDictionary>(keywordids::usage);
  ASSERT_TRUE(usage.HasValue() && *usage);
  EXPECT_EQ((*usage)->Get<std::int64_t>(keywordids::usageCount), 2);
  EXPECT_TRUE((*usage)->Get<UniversalDateTime>(keywordids::usageLastUse).has_value());
  // The keyword asset itself: empty content, found by its type.
  auto found = repo->FindLatestAsset(KeywordAssetInterface::TypeId(), Id("wood"), Id(), LATEST);
  ASSERT_TRUE(found.HasValue() && *found);
  EXPECT_EQ(std::filesystem::file_size((*found)->GetUrl().GetValue().GetPath()), 0u);
}

TEST_F(KeywordTest, FavouritesAreTheFavouriteKeywordInEitherScope) {
  auto repo = Open();
  AssetDescription a = Store(repo, "a", MakeText("a"));
  EXPECT_FALSE(KeywordAssetInterface::IsFavouriteAsset(a));
  ASSERT_TRUE(KeywordAssetInterface::AddKeyword(a, keywordids::favourite, true, false).GetValue());
  EXPECT_TRUE(KeywordAssetInterface::IsFavouriteAsset(a));
  ASSERT_TRUE(KeywordAssetInterface::RemoveKeyword(a, keywordids::favourite, true).GetValue());
  EXPECT_FALSE(KeywordAssetInterface::IsFavouriteAsset(a));
  EXPECT_FALSE(KeywordAssetInterface::IsFavouriteAsset(nullptr));
}

TEST_F(KeywordTest, SharedKeywordsNeedAWritableRepositoryAndChangeNothingOtherwise) {
  auto writable = Open();
  Store(writable, "a", MakeText("a"));
  writable.reset();
  auto readOnly = Open("main", kMainRepo, {}, false);
  AssetDescription a = Latest(readOnly, "a");
  const auto before = Snapshot(Dir("main"));
  EXPECT_TRUE(KeywordAssetInterface::AddKeyword(a, Id("wood"), false, false).HasError());
  EXPECT_EQ(Snapshot(Dir("main")), before);
  // The user's own keywords go to the user's tree and work on a read-only repository.
  EXPECT_EQ(KeywordAssetInterface::AddKeyword(a, Id("mine"), true, false).GetValue(), true);
  EXPECT_EQ(Snapshot(Dir("main")), before);
}

} // namespace
} // namespace kelvo::testing
