#include <gtest/gtest.h>

#include "asset/core/assetrepositorydecorator.h"
#include "test_assets.h"

using namespace kelvo;
using namespace kelvo::testing;

namespace {

// Derived data that counts what it hears.
struct CountingData final : DerivedAssetRepositoryDataInterface {
  int stored = 0, erased = 0, meta = 0, bases = 0;
  void HandleBaseChanged(const AssetRepositoryRef&, const AssetRepositoryRef&, bool) override { ++bases; }
  void HandleAssetStored(const AssetDescription&) override { ++stored; }
  void HandleAssetErased(const AssetDescription&) override { ++erased; }
  void HandleAssetUpdated(const AssetDescription&) override {}
  void HandleMetaDataStored(const AssetDescription&, const InternedId&, std::uint32_t, const Data&, const Data&) override {
    ++meta;
  }
  void HandleDownloadStateChanged(const AssetRepositoryRef&, bool) override {}
};

} // namespace

TEST(RepositoryEvents, ObserversAndDerivedRepositoriesHearEachChangeOnce) {
  auto base = MakeRepository("base"), top = MakeRepository("top");
  EXPECT_EQ(base->ObservableAssetStored(false), nullptr);
  ASSERT_TRUE(base->StoreAsset(Id("quiet"), MakeText("q"), nullptr).HasValue());
  EXPECT_EQ(base->ObservableAssetStored(false), nullptr); // no observer: nothing made

  ASSERT_TRUE(top->AddBase(base).HasValue());
  std::vector<std::string> order;
  base->ObservableAssetStored(true)->AddObserver([&](const AssetDescription& d) {
    order.push_back("base:" + d->GetRepositoryId().ToString());
  });
  top->ObservableAssetStored(true)->AddObserver([&](const AssetDescription& d) {
    order.push_back("top:" + d->GetRepositoryId().ToString());
  });
  auto counting = std::make_shared<CountingData>();
  auto cached = top->GetDerivedCachedData(Data("counting"), [&]() -> Result<DerivedAssetRepositoryDataRef> { return counting; });
  ASSERT_TRUE(cached.HasValue());

  auto d = *base->StoreAsset(Id("x"), MakeText("1"), nullptr);
  EXPECT_EQ(order, (std::vector<std::string>{"base:base", "top:base"}));
  EXPECT_EQ(counting->stored, 1);

  ASSERT_TRUE(base->StoreMetaData(d, InternedId("note"), Data("n"), AssetMetaData::PERSISTENT).HasValue());
  EXPECT_EQ(counting->meta, 1);
  ASSERT_TRUE(base->DeleteAsset(Id("x")).HasValue());
  EXPECT_EQ(counting->erased, 1);
  EXPECT_EQ(counting->stored, 1);

  // A diamond delivers twice to the top; a removed base delivers nothing.
  auto other = MakeRepository("other");
  ASSERT_TRUE(other->AddBase(base).HasValue());
  ASSERT_TRUE(top->AddBase(other).HasValue());
  EXPECT_EQ(counting->bases, 1); // other was not yet below top when base was added to it
  ASSERT_TRUE(base->StoreAsset(Id("y"), MakeText("2"), nullptr).HasValue());
  EXPECT_EQ(counting->stored, 3);
  ASSERT_TRUE(top->RemoveBase(other).HasValue());
  ASSERT_TRUE(top->RemoveBase(base).HasValue());
  ASSERT_TRUE(base->StoreAsset(Id("z"), MakeText("3"), nullptr).HasValue());
  EXPECT_EQ(counting->stored, 3);
}

TEST(RepositoryEvents, ObserverMayCallBackIntoTheRepository) {
  auto repo = MakeRepository("r");
  int found = 0;
  repo->ObservableAssetStored(true)->AddObserver([&](const AssetDescription& d) {
    // Reads, metadata writes and searches from inside the notification must not deadlock.
    auto latest = repo->FindLatestAsset(Id(), d->GetIdAndVersion().first, Id(), NONE);
    if (latest.HasValue() && *latest) ++found;
    EXPECT_TRUE(repo->StoreMetaData(d, InternedId("seen"), Data(true), AssetMetaData::PERSISTENT).HasValue());
    EXPECT_EQ(LoadText(d), "1");
  });
  auto d = *repo->StoreAsset(Id("x"), MakeText("1"), nullptr);
  EXPECT_EQ(found, 1);
  EXPECT_EQ(*d->GetMetaData()->Get(InternedId("seen")), Data(true));
}

TEST(RepositoryEvents, CachesKeyByValueAndRetryFailures) {
  auto repo = MakeRepository("r");
  int calls = 0;
  auto failing = [&]() -> Result<CachedValue> {
    ++calls;
    return IoError("not yet");
  };
  EXPECT_TRUE(repo->GetCachedData(Data("k"), failing).HasError());
  EXPECT_TRUE(repo->GetCachedData(Data("k"), failing).HasError());
  EXPECT_EQ(calls, 2);
  auto value = std::make_shared<int>(42);
  auto first = repo->GetCachedData(Data(DataArray{Data(1), Data("a")}), [&]() -> Result<CachedValue> { return value; });
  auto second = repo->GetCachedData(Data(DataArray{Data(1), Data("a")}), [&]() -> Result<CachedValue> {
    return std::make_shared<int>(0);
  });
  ASSERT_TRUE(first.HasValue() && second.HasValue());
  EXPECT_EQ(first->get(), second->get());
}

TEST(RepositoryDecorators, ForwardWhileAliveAndFailCleanlyAfter) {
  auto repo = MakeRepository("decorated");
  ASSERT_TRUE(repo->StoreAsset(Id("x"), MakeText("1"), nullptr).HasValue());
  auto decorator = WeakAssetRepositoryDecorator::Create(repo);
  EXPECT_EQ(decorator->GetId(), Id("decorated"));
  EXPECT_TRUE(decorator->IsWritable());
  auto latest = decorator->FindLatestAsset(Id(), Id("x"), Id(), NONE);
  ASSERT_TRUE(latest.HasValue() && *latest);
  EXPECT_EQ(decorator->FindRepository(Id("decorated")).get(), repo.get());
  // A decorator has no repository base and can't be a base.
  auto top = MakeRepository("top");
  EXPECT_TRUE(top->AddBase(decorator).HasError());

  repo.reset();
  EXPECT_EQ(decorator->GetId(), Id());
  EXPECT_FALSE(decorator->IsWritable());
  EXPECT_TRUE(decorator->GetBases()->empty());
  auto gone = decorator->FindAssets({}, Id(), Id(), ALL, [](const AssetDescription&) -> Result<bool> { return true; });
  ASSERT_TRUE(gone.HasError());
  EXPECT_TRUE(gone.GetError().Is(errors::nullptr_));
}
