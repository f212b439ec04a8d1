// Link updates on in-memory repositories: which loaded assets follow a new version of what they
// refer to, in which order, how often, and what stays unchanged.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "linked_asset.h"
#include "test_assets.h"

using namespace kelvo;
using namespace kelvo::testing;

namespace {

using Policy = ASSET_UPDATE_POLICY;

AssetDescription Store(const std::shared_ptr<MemoryAssetRepositoryImpl>& repo, const std::string& aid,
                       std::vector<LinkReferenceRef> references = {}, const std::string& label = "") {
  auto stored = repo->StoreAsset(Id(aid), MakeLinked(label.empty() ? aid : label, std::move(references)), nullptr);
  EXPECT_TRUE(stored.HasValue()) << stored.GetError().ToString();
  return stored.HasValue() ? *stored : nullptr;
}

// The asset that later loads of the latest version of aid get.
std::shared_ptr<LinkedAsset> Current(const AssetRepositoryRef& repo, const std::string& aid) {
  auto d = repo->FindLatestAsset(Id(), Id(aid), Id(), LATEST);
  if (d.HasError() || !*d) return nullptr;
  auto asset = (*d)->Load(true);
  return asset.HasValue() ? std::dynamic_pointer_cast<LinkedAsset>(*asset) : nullptr;
}

std::vector<std::string> Ids(const std::vector<PendingUpdate>& updates) {
  std::vector<std::string> ids;
  for (const PendingUpdate& p : updates) {
    EXPECT_EQ(p.description->GetIdAndVersion().second, g_newVersion);
    ids.push_back(p.description->GetIdAndVersion().first.ToString());
  }
  return ids;
}

std::vector<std::string> Pending(const std::shared_ptr<MemoryAssetRepositoryImpl>& repo, bool reset) {
  auto r = repo->GetPendingUpdates(reset);
  EXPECT_TRUE(r.HasValue()) << r.GetError().ToString();
  return r.HasValue() ? Ids(*r) : std::vector<std::string>{"error"};
}

// Runs the host's pass: the pending updates, then Update.
void UpdatePass(const std::shared_ptr<MemoryAssetRepositoryImpl>& repo) {
  auto pending = repo->GetPendingUpdates(true);
  ASSERT_TRUE(pending.HasValue()) << pending.GetError().ToString();
  auto r = repo->Update(*pending);
  ASSERT_TRUE(r.HasValue()) << r.GetError().ToString();
}

} // namespace

TEST(LinkUpdates, ChainFollowsInOrderOnceAndKeepsTheVersion) {
  auto repo = MakeRepository("r");
  auto c1 = Store(repo, "c");
  auto b = Store(repo, "b", {LinkTo(c1)});
  auto a = Store(repo, "a", {LinkTo(b)});
  // The stores themselves are changes, but nobody refers to a newer version than it has.
  EXPECT_TRUE(Pending(repo, true).empty());

  std::vector<std::string> told;
  repo->ObservableAssetUpdated(true)->AddObserver(
      [&](const AssetDescription& d) { told.push_back(d->GetIdAndVersion().first.ToString()); });
  auto c2 = Store(repo, "c", {}, "c two");
  const std::vector<std::string> expected{"b", "a"};
  EXPECT_EQ(Pending(repo, false), expected);
  auto pending = repo->GetPendingUpdates(true);
  ASSERT_TRUE(pending.HasValue());
  EXPECT_EQ(Ids(*pending), expected);
  ASSERT_EQ((*pending)[1].updates.size(), 1u);
  EXPECT_EQ((*pending)[1].updates[0], (*pending)[0].description); // a takes over b's pending description
  EXPECT_TRUE(Pending(repo, true).empty());

  ASSERT_TRUE(repo->Update(*pending).HasValue());
  EXPECT_EQ(told, expected);
  auto nb = Current(repo, "b"), na = Current(repo, "a");
  ASSERT_TRUE(nb && na);
  EXPECT_EQ(nb->references[0]->GetIdAndVersion(), c2->GetIdAndVersion());
  EXPECT_EQ(na->references[0]->GetIdAndVersion(), b->GetIdAndVersion());
  EXPECT_EQ(na->references[0]->GetUpdate(), nb->GetUpdate());
  EXPECT_EQ(nb->updatesApplied, 1);
  EXPECT_EQ(na->updatesApplied, 1);
  // In place: the same version, the same time stamp, no new version.
  auto latestA = *repo->FindLatestAsset(Id(), Id("a"), Id(), LATEST);
  EXPECT_EQ(latestA, a);
  EXPECT_EQ(*latestA->GetMetaData()->GetValue<UniversalDateTime>(metaids::timestamp),
            *a->GetMetaData()->GetValue<UniversalDateTime>(metaids::timestamp));
  std::size_t versions = 0;
  ASSERT_TRUE(repo->FindAssets({}, Id("a"), Id(), ALL, [&](const AssetDescription&) -> Result<bool> {
    ++versions;
    return true;
  }).HasValue());
  EXPECT_EQ(versions, 1u);
  // The updates are changes too, but they don't start the same updates again.
  EXPECT_TRUE(Pending(repo, true).empty());

  // Two new versions before a pass: b follows the newest, and a follows b.
  Store(repo, "c", {}, "c three");
  auto c4 = Store(repo, "c", {}, "c four");
  UpdatePass(repo);
  EXPECT_EQ(Current(repo, "b")->references[0]->GetIdAndVersion(), c4->GetIdAndVersion());
  EXPECT_EQ(Current(repo, "a")->updatesApplied, 2);

  auto wrongVersion = repo->Update({PendingUpdate{a, {c4}}});
  ASSERT_TRUE(wrongVersion.HasError());
  EXPECT_EQ(wrongVersion.GetError().GetMessage(),
            "Assertion failed: Condition d.GetRepository() == self && aid.second == g_newVersion not fulfilled. ");
}

TEST(LinkUpdates, DiamondUpdatesTheTopOnceAfterBothSides) {
  auto repo = MakeRepository("r");
  auto a1 = Store(repo, "a");
  auto b = Store(repo, "b", {LinkTo(a1)});
  auto c = Store(repo, "c", {LinkTo(a1, Policy::EXPLICIT)});
  auto d = Store(repo, "d", {LinkTo(b), LinkTo(c)});
  (void)Pending(repo, true);
  auto a2 = Store(repo, "a", {}, "a two");
  auto order = Pending(repo, false);
  ASSERT_EQ(order.size(), 3u);
  EXPECT_EQ(order.back(), "d");
  UpdatePass(repo);
  auto nd = Current(repo, "d");
  ASSERT_TRUE(nd);
  EXPECT_EQ(nd->updatesApplied, 1);
  EXPECT_EQ(nd->references[0]->GetUpdate(), Current(repo, "b")->GetUpdate());
  EXPECT_EQ(nd->references[1]->GetUpdate(), Current(repo, "c")->GetUpdate());
  EXPECT_EQ(Current(repo, "c")->references[0]->GetIdAndVersion(), a2->GetIdAndVersion());
}

TEST(LinkUpdates, NeverIsNeitherRecordedNorFollowed) {
  auto repo = MakeRepository("r");
  auto t1 = Store(repo, "t");
  Store(repo, "never", {LinkTo(t1, Policy::NEVER)});
  Store(repo, "explicit", {LinkTo(t1, Policy::EXPLICIT)});
  Store(repo, "implicit", {LinkTo(t1, Policy::IMPLICIT)});
  // Also a NEVER reference beside an updatable one to the same target: only the latter follows.
  Store(repo, "mixed", {LinkTo(t1, Policy::NEVER), LinkTo(t1, Policy::IMPLICIT)});
  (void)Pending(repo, true);
  auto t2 = Store(repo, "t", {}, "t two");
  auto order = Pending(repo, false);
  std::sort(order.begin(), order.end());
  EXPECT_EQ(order, (std::vector<std::string>{"explicit", "implicit", "mixed"}));
  UpdatePass(repo);
  EXPECT_EQ(Current(repo, "never")->references[0]->GetIdAndVersion(), t1->GetIdAndVersion());
  EXPECT_EQ(Current(repo, "explicit")->references[0]->GetIdAndVersion(), t2->GetIdAndVersion());
  auto mixed = Current(repo, "mixed");
  EXPECT_EQ(mixed->references[0]->GetIdAndVersion(), t1->GetIdAndVersion());
  EXPECT_EQ(mixed->references[1]->GetIdAndVersion(), t2->GetIdAndVersion());
}

TEST(LinkUpdates, ACycleFailsWithBothAssetsNamed) {
  auto repo = MakeRepository("r");
  auto a1 = Store(repo, "a");
  auto b1 = Store(repo, "b", {LinkTo(a1)});
  Store(repo, "a", {LinkTo(b1)}, "a two");
  auto r = repo->GetPendingUpdates(true);
  ASSERT_TRUE(r.HasError());
  EXPECT_EQ(r.GetError().GetClass(), errors::illegalargument);
  const std::string message = r.GetError().GetMessage();
  EXPECT_TRUE(message == "Circular node dependency involving a and b" ||
              message == "Circular node dependency involving b and a")
      << message;
  // The changes were taken by the failed call.
  EXPECT_TRUE(Pending(repo, true).empty());
}

TEST(LinkUpdates, AnUpdateReachesReferencesToItsBasesOnly) {
  auto base = MakeRepository("base");
  auto derived = MakeRepository("derived");
  ASSERT_TRUE(derived->AddBase(base).HasValue());
  auto c1 = Store(base, "c");
  Store(derived, "x", {LinkTo(c1)}); // made to the base
  // A new version in the derived repository reaches a reference made to its base...
  auto c2 = Store(derived, "c", {}, "c in derived");
  EXPECT_EQ(Pending(derived, true), std::vector<std::string>{"x"});
  // ...but a new version in the base doesn't reach one made to the derived repository.
  Store(derived, "y", {LinkTo(c2)});
  (void)Pending(derived, true);
  Store(base, "c", {}, "c in base");
  EXPECT_EQ(Pending(derived, true), std::vector<std::string>{"x"});
}

TEST(LinkUpdates, StoresFromOtherThreadsDuringUpdatePassesAreNotLost) {
  auto repo = MakeRepository("r");
  constexpr int kTargets = 150;
  std::vector<AssetDescription> targets;
  for (int i = 0; i < kTargets; ++i) {
    targets.push_back(Store(repo, "t" + std::to_string(i)));
    Store(repo, "d" + std::to_string(i), {LinkTo(targets.back())});
  }
  auto stable = Store(repo, "stable");
  (void)Pending(repo, true);

  // One thread stores a second version of every target; another stores new assets that refer to
  // a target that never changes, so links are recorded while passes walk them.
  std::atomic<int> running{2};
  std::vector<AssetDescription> second(kTargets);
  std::thread targetWriter([&] {
    for (int i = 0; i < kTargets; ++i) second[i] = Store(repo, "t" + std::to_string(i), {}, "second");
    --running;
  });
  std::thread otherWriter([&] {
    for (int i = 0; i < kTargets; ++i) Store(repo, "o" + std::to_string(i), {LinkTo(stable)});
    --running;
  });
  while (running > 0) UpdatePass(repo);
  targetWriter.join();
  otherWriter.join();
  UpdatePass(repo);

  for (int i = 0; i < kTargets; ++i) {
    auto d = Current(repo, "d" + std::to_string(i));
    ASSERT_TRUE(d);
    EXPECT_EQ(d->references[0]->GetIdAndVersion(), second[i]->GetIdAndVersion()) << i;
    EXPECT_EQ(d->updatesApplied, 1) << i;
  }
}
