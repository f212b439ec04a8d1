#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <thread>

#include "test_assets.h"

using namespace kelvo;
using namespace kelvo::testing;

namespace {

std::vector<AssetDescription> All(const AssetRepositoryRef& repo, const std::string& aid,
                                  ASSET_FIND_MODE mode = ALL | WITHOUT_BASES) {
  std::vector<AssetDescription> found;
  auto r = repo->FindAssets({}, Id(aid), Id(), mode, [&](const AssetDescription& d) -> Result<bool> {
    found.push_back(d);
    return true;
  });
  EXPECT_TRUE(r.HasValue());
  return found;
}

// Metadata to hand to a store, with the given entries already set.
AssetMetaDataRef Meta(std::initializer_list<std::tuple<const char*, Data, std::uint32_t>> entries) {
  auto meta = std::make_shared<AssetMetaDataImpl>();
  for (const auto& [id, value, kind] : entries) EXPECT_TRUE(meta->Set(InternedId(id), value, kind, true).HasValue());
  return meta;
}

std::optional<Data> Read(const AssetDescription& d, const char* id) {
  auto r = d->GetMetaData()->Get(InternedId(id));
  EXPECT_TRUE(r.HasValue()) << r.GetError().ToString();
  return r.HasValue() ? *r : std::nullopt;
}

} // namespace

TEST(RepositoryStore, NumbersOverwriteAndCopies) {
  auto repo = MakeRepository("r");
  auto v1 = *repo->StoreAsset(Id("x"), MakeText("one"), nullptr);
  auto v2 = *repo->StoreAsset(Id("x"), MakeText("two"), nullptr);
  EXPECT_EQ(v1->GetKey().number, 1u);
  EXPECT_EQ(v2->GetKey().number, 2u);
  EXPECT_EQ(v1->GetKey().repositoryWord, v2->GetKey().repositoryWord);
  EXPECT_EQ(v1->GetKey().repositoryWord, static_cast<std::uint64_t>(Id("r").GetHashCode()));

  // Overwrite replaces the last version: same number and word, new time and version Id.
  auto v3 = *repo->OverwriteAsset(Id("x"), MakeText("three"), nullptr);
  EXPECT_EQ(v3->GetKey().number, 2u);
  EXPECT_EQ(v3->GetKey().repositoryWord, v2->GetKey().repositoryWord);
  EXPECT_GT(v3->GetKey().time, v2->GetKey().time);
  EXPECT_NE(v3->GetIdAndVersion().second, v2->GetIdAndVersion().second);
  auto all = All(repo, "x");
  ASSERT_EQ(all.size(), 2u);
  std::set<std::string> texts{LoadText(all[0]), LoadText(all[1])};
  EXPECT_EQ(texts, (std::set<std::string>{"one", "three"}));

  // Overwrite of an unknown Id is a store numbered by the back end.
  auto fresh = *repo->OverwriteAsset(Id("fresh"), MakeText("f"), nullptr);
  EXPECT_GT(fresh->GetKey().number, 0u);
  EXPECT_EQ(All(repo, "fresh").size(), 1u);

  // The content Id is the SHA-256 of the content: equal texts give equal version Ids.
  auto same = *repo->StoreAsset(Id("y"), MakeText("one"), nullptr);
  EXPECT_EQ(same->GetIdAndVersion().second, v1->GetIdAndVersion().second);
}

TEST(RepositoryStore, MetadataInheritanceByKind) {
  auto repo = MakeRepository("r");
  auto first = *repo->StoreAsset(Id("x"), MakeText("1"),
                                 Meta({{"note", Data("kept"), AssetMetaData::PERSISTENT},
                                       {"versioned", Data("only v1"), AssetMetaData::PERSISTENT | AssetMetaData::VERSION},
                                       {"cached", Data("d"), AssetMetaData::PERSISTENT | AssetMetaData::DERIVED}}));
  EXPECT_EQ(Read(first, "note"), Data("kept"));
  EXPECT_EQ(Read(first, "versioned"), std::nullopt); // only plain persistent entries are taken from the argument
  ASSERT_TRUE(Read(first, "net.kelvo.asset.timestamp").has_value());
  ASSERT_TRUE(repo->StoreMetaData(first, InternedId("versioned"), Data("only v1"),
                                  AssetMetaData::PERSISTENT | AssetMetaData::VERSION).HasValue());

  // A new version from the loaded asset inherits plain persistent entries only.
  Asset loaded = *first->Load(false);
  auto second = *repo->StoreAsset(Id("x"), loaded, nullptr);
  EXPECT_EQ(Read(second, "note"), Data("kept"));
  EXPECT_EQ(Read(second, "versioned"), std::nullopt);

  // A copy keeps everything but derived entries, the time stamp included.
  ASSERT_TRUE(repo->StoreMetaData(first, InternedId("cachedvalue"), Data(1.5),
                                  AssetMetaData::PERSISTENT | AssetMetaData::DERIVED).HasValue());
  auto copy = *repo->CopyAsset(Id("copy"), first, false, false);
  EXPECT_EQ(Read(copy, "versioned"), Data("only v1"));
  EXPECT_EQ(Read(copy, "net.kelvo.asset.timestamp"), Read(first, "net.kelvo.asset.timestamp"));
  EXPECT_EQ(copy->GetKey().time, first->GetKey().time);
  auto entries = *copy->GetMetaData()->GetExistingEntries();
  EXPECT_TRUE(std::none_of(entries.begin(), entries.end(),
                           [](const auto& e) { return e.first == InternedId("cachedvalue"); }));
  EXPECT_EQ(LoadText(copy), "1");
}

TEST(RepositoryStore, MetadataSurvivesANewSnapshotAndAReopen) {
  auto repo = MakeRepository("r");
  auto d = *repo->StoreAsset(Id("x"), MakeText("1"), nullptr);
  ASSERT_TRUE(repo->StoreMetaData(d, InternedId("net.kelvo.asset.versiontag"), Data("first"),
                                  AssetMetaData::PERSISTENT).HasValue());
  // A later store publishes a new snapshot; the old description keeps its value.
  auto d2 = *repo->StoreAsset(Id("x"), MakeText("2"), nullptr);
  EXPECT_EQ(Read(d, "net.kelvo.asset.versiontag"), Data("first"));
  EXPECT_EQ(Read(d2, "net.kelvo.asset.versiontag"), std::nullopt); // stored on v1 after the asset was made

  // A second repository object on the same store reads versions and values back lazily.
  auto again = *MemoryAssetRepositoryImpl::Create(Id("r"), true, repo->GetStore());
  auto versions = All(again, "x");
  ASSERT_EQ(versions.size(), 2u);
  auto v1 = versions[0]->GetKey() < versions[1]->GetKey() ? versions[0] : versions[1];
  EXPECT_EQ(Read(v1, "net.kelvo.asset.versiontag"), Data("first"));
  EXPECT_EQ(LoadText(v1), "1");
}

TEST(RepositoryStore, DeleteEraseAndErrors) {
  auto repo = MakeRepository("r");
  auto v1 = *repo->StoreAsset(Id("x"), MakeText("1"), nullptr);
  ASSERT_TRUE(repo->DeleteAsset(Id("x")).HasValue());
  ASSERT_TRUE(repo->DeleteAsset(Id("x")).HasValue()); // twice in a row is fine
  EXPECT_EQ(All(repo, "x", ALL | WITH_DELETED).size(), 3u);
  auto unknownDelete = repo->DeleteAsset(Id("nothing"));
  ASSERT_TRUE(unknownDelete.HasError());
  EXPECT_EQ(unknownDelete.GetError().GetMessage(), "No asset to delete for asset id nothing.");

  auto loaded = v1->Load(false);
  ASSERT_TRUE(loaded.HasValue());
  auto deleted = All(repo, "x", LATEST | WITH_DELETED | WITHOUT_BASES);
  ASSERT_EQ(deleted.size(), 1u);
  auto deletedLoad = deleted[0]->Load(false);
  ASSERT_TRUE(deletedLoad.HasError());

  // Erasing every version drops the Id.
  for (const auto& d : All(repo, "x", ALL | WITH_DELETED)) ASSERT_TRUE(repo->EraseAsset(d).HasValue());
  EXPECT_TRUE(All(repo, "x", ALL | WITH_DELETED).empty());
  EXPECT_EQ(repo->FindIdData(Id("x")), nullptr);
  auto again = repo->EraseAsset(v1);
  ASSERT_TRUE(again.HasError());
  EXPECT_EQ(again.GetError().GetMessage(), "No asset to erase for asset id x.");
  EXPECT_EQ(repo->EraseAsset(nullptr).GetError().GetMessage(), "Illegal argument: Condition asset not fulfilled. ");

  auto none = repo->StoreAsset(Id("y"), nullptr, nullptr);
  ASSERT_TRUE(none.HasError());
  EXPECT_EQ(none.GetError().GetMessage(), "Illegal argument: Condition asset || source not fulfilled. ");
  EXPECT_TRUE(repo->StoreAsset(Id(), MakeText("t"), nullptr).HasError());
}

TEST(RepositoryStore, ReadOnlyRepositoryAndMetadataRules) {
  auto writable = MakeRepository("w");
  auto readOnly = *MemoryAssetRepositoryImpl::Create(Id("ro"), false, writable->GetStore());
  auto refused = readOnly->StoreAsset(Id("x"), MakeText("1"), nullptr);
  ASSERT_TRUE(refused.HasError());
  EXPECT_EQ(refused.GetError().GetMessage(), "Repository ro isn't writable");
  EXPECT_EQ(readOnly->FindIdData(Id("x")), nullptr); // refused before the Id was made

  auto d = *writable->StoreAsset(Id("x"), MakeText("1"), nullptr);
  ASSERT_TRUE(readOnly->Rescan().HasValue());
  auto seen = All(readOnly, "x");
  ASSERT_EQ(seen.size(), 1u);
  // User and derived values may be stored in a read-only repository, persistent ones not.
  EXPECT_TRUE(readOnly->StoreMetaData(seen[0], InternedId("mine"), Data("u"),
                                      AssetMetaData::USER | AssetMetaData::PERSISTENT).HasValue());
  auto persistent = readOnly->StoreMetaData(seen[0], InternedId("p"), Data("p"), AssetMetaData::PERSISTENT);
  ASSERT_TRUE(persistent.HasError());
  // A description of another repository is refused.
  EXPECT_EQ(readOnly->StoreMetaData(d, InternedId("mine"), Data("u"), AssetMetaData::USER).GetError().GetMessage(),
            "Invalid asset description x/" + d->GetIdAndVersion().second.ToString() + ".");

  auto bad = writable->StoreMetaData(d, InternedId("has blank"), Data(1), AssetMetaData::PERSISTENT);
  ASSERT_TRUE(bad.HasError());
  EXPECT_EQ(bad.GetError().GetMessage(), "Meta data id has blank contains illegal character  .");

  // The time stamp is read-only unless the store says otherwise, and keeps its kind.
  auto ro = writable->StoreMetaData(d, InternedId("net.kelvo.asset.timestamp"), Data(UniversalDateTime::FromUnixSeconds(5)),
                                    AssetMetaData::PERSISTENT);
  ASSERT_TRUE(ro.HasError());
  EXPECT_TRUE(ro.GetError().Is(errors::illegalargument));
  ASSERT_TRUE(writable->StoreMetaData(d, InternedId("net.kelvo.asset.timestamp"), Data(UniversalDateTime::FromUnixSeconds(5)),
                                      AssetMetaData::PERSISTENT | AssetMetaData::IGNORE_READ_ONLY).HasValue());
  auto entries = *d->GetMetaData()->GetExistingEntries();
  auto ts = std::find_if(entries.begin(), entries.end(), [](const auto& e) { return e.first == InternedId("net.kelvo.asset.timestamp"); });
  ASSERT_NE(ts, entries.end());
  EXPECT_EQ(ts->second, 7u);
}

TEST(RepositoryStore, ConcurrentStoresToOneIdLoseNothing) {
  auto repo = MakeRepository("r");
  constexpr int kThreads = 6, kEach = 25;
  std::vector<std::thread> threads;
  std::vector<std::vector<std::uint64_t>> numbers(kThreads);
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        auto d = repo->StoreAsset(Id("shared"), MakeText(std::to_string(t) + ":" + std::to_string(i)), nullptr);
        if (d.HasValue()) numbers[static_cast<std::size_t>(t)].push_back((*d)->GetKey().number);
      }
    });
  for (auto& th : threads) th.join();
  std::set<std::uint64_t> distinct;
  for (const auto& list : numbers) {
    EXPECT_EQ(list.size(), static_cast<std::size_t>(kEach));
    EXPECT_TRUE(std::is_sorted(list.begin(), list.end())); // increasing within each thread
    distinct.insert(list.begin(), list.end());
  }
  EXPECT_EQ(distinct.size(), static_cast<std::size_t>(kThreads * kEach));
  auto all = All(repo, "shared");
  ASSERT_EQ(all.size(), static_cast<std::size_t>(kThreads * kEach));
  // Entries sorted by key have increasing numbers: time and number agree.
  std::sort(all.begin(), all.end(), [](const auto& a, const auto& b) { return a->GetKey() < b->GetKey(); });
  for (std::size_t i = 1; i < all.size(); ++i) EXPECT_LT(all[i - 1]->GetKey().number, all[i]->GetKey().number);
}
