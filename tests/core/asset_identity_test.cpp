#include <gtest/gtest.h>

#include <cctype>

#include "test_assets.h"

using namespace kelvo;
using namespace kelvo::testing;

TEST(MakeUuid, CompactAndFullForms) {
  auto compact = MakeUuid("a.b.c@x", true);
  ASSERT_TRUE(compact.HasValue());
  const std::string c = compact->ToString();
  ASSERT_EQ(c.substr(0, 2), "c@");
  EXPECT_EQ(c.size(), 2u + 22u);
  EXPECT_TRUE(std::isalpha(static_cast<unsigned char>(c[2])));
  // Bit 5 of the first byte is cleared: the first character is one of the first 32 letters.
  EXPECT_NE(std::string("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdef").find(c[2]), std::string::npos);
  for (char ch : c.substr(2)) EXPECT_TRUE(std::isalnum(static_cast<unsigned char>(ch)) || ch == '$' || ch == '_');

  auto full = MakeUuid("", false);
  ASSERT_TRUE(full.HasValue());
  const std::string f = full->ToString();
  EXPECT_EQ(f.size(), 32u);
  for (char ch : f) EXPECT_TRUE(std::isdigit(static_cast<unsigned char>(ch)) || (ch >= 'a' && ch <= 'f')) << f;

  EXPECT_EQ(MakeUuid("net.kelvo.asset", false)->ToString().substr(0, 16), "net.kelvo.asset@");
  EXPECT_NE(*MakeUuid("", true), *MakeUuid("", true));

  ScopedConfig shortIds(g_shortUuidForAssets, true);
  EXPECT_EQ(MakeUuid("p", true)->size(), 2u + 6u);
  EXPECT_EQ(MakeUuid("p", false)->size(), 2u + 32u); // the short form acts on compact bodies only
}

TEST(VersionOrder, KeysOrderByTimeThenRepositoryWordThenNumber) {
  // Same tick: the repository word decides before the number.
  EXPECT_LT((VersionKey{5, 9, 1}), (VersionKey{5, 1, 2}));
  EXPECT_LT((VersionKey{5, 1, 2}), (VersionKey{5, 2, 2}));
  EXPECT_LT((VersionKey{4, 9, 9}), (VersionKey{5, 0, 0}));
  EXPECT_GT(VersionKey::NewVersion(), (VersionKey{~0ull - 1, ~0ull, ~0ull}));
}

TEST(VersionOrder, CompareVersionsOfStoredLoadedAndUnsavedAssets) {
  auto repo = MakeRepository("r");
  auto v1 = *repo->StoreAsset(Id("x"), MakeText("1"), nullptr);
  auto v2 = *repo->StoreAsset(Id("x"), MakeText("2"), nullptr);
  auto other = *repo->StoreAsset(Id("y"), MakeText("3"), nullptr);
  EXPECT_EQ(repo->CompareVersions(v1, v2), LESS);
  EXPECT_EQ(repo->CompareVersions(v2, v1), GREATER);
  EXPECT_EQ(repo->CompareVersions(v1, other), INCOMPARABLE);

  // An unsaved asset of the same Id is greater than any stored version.
  auto unsaved = std::make_shared<TextAsset>("new");
  unsaved->SetId(IdAndVersion{Id("x"), g_newVersion}, 0, repo, Url());
  EXPECT_EQ(repo->CompareVersions(unsaved, v2), GREATER);

  // Loaded objects of one version compare by their update counters.
  auto a = std::make_shared<TextAsset>("a"), b = std::make_shared<TextAsset>("b");
  a->SetId(v1->GetIdAndVersion(), 1, repo, Url());
  b->SetId(v1->GetIdAndVersion(), 2, repo, Url());
  EXPECT_EQ(repo->CompareVersions(a, b), LESS);
  // A loaded asset is mapped to its description's key.
  EXPECT_EQ(repo->CompareVersions(a, v2), LESS);
}

TEST(AssetLinks, EqualityTextAndResolve) {
  AssetLink l1 = AssetLinkInterface::Create(kTextType, Id("x"), ASSET_UPDATE_POLICY::IMPLICIT);
  AssetLink l2 = l1->Clone();
  EXPECT_TRUE(l1->Equals(*l2));
  l2->SetUpdatePolicy(ASSET_UPDATE_POLICY::NEVER);
  EXPECT_FALSE(l1->Equals(*l2));
  EXPECT_EQ(l1->ToString(), "x//IMPLICIT");
  AssetLink byUrl = AssetLinkInterface::Create(kTextType, Url("file:///tmp/a.png"));
  EXPECT_EQ(byUrl->ToString(), "file:///tmp/a.png");
  EXPECT_EQ(byUrl->GetUpdatePolicy(), ASSET_UPDATE_POLICY::NEVER);
  auto r = l1->Resolve(nullptr);
  ASSERT_TRUE(r.HasError());
  EXPECT_TRUE(r.GetError().Is(errors::functionnotimplemented));
}
