#include <gtest/gtest.h>

#include <atomic>

#include "kelvo/hash.h"
#include "test_assets.h"

using namespace kelvo;
using namespace kelvo::testing;

namespace {

const Id kCountingType{"net.kelvo.assettype.test.counting"};
const InternedId kComputed{"test.computed"};

// A text type whose metadata test.computed is computed (and counted) on demand.
class CountingTextType final : public AssetTypeBase {
public:
  mutable std::atomic<int> computed{0};
  Id GetId() const override { return kCountingType; }
  Id GetAssetDataType() const override { return Id("net.kelvo.datatype.test.counting"); }
  std::string GetUrlSuffix(const Asset&) const override { return "txt"; }
  Result<Asset> Load(const AssetRepositoryRef& repo, const AssetDescription& d, const Url& url, bool u) const override {
    return RegisterTextAssetType()->Load(repo, d, url, u);
  }
  // The content is empty.
  Result<MetaValueMap> Store(const Asset&, const Url& url, Digest* hash) const override {
    if (!url.IsEmpty()) KELVO_RETURN_ON_ERROR(url.WriteAll(""));
    if (hash) *hash = Sha256().Finish();
    return MetaValueMap{};
  }
  Result<ComputedMetaData> ComputeMetaData(const AssetRepositoryRef& repository, const Asset& asset,
                                           const AssetMetaDataRef& meta, const InternedId& metaId) const override {
    if (metaId != kComputed) return AssetTypeBase::ComputeMetaData(repository, asset, meta, metaId);
    ++computed;
    return ComputedMetaData{Data(std::int64_t(42)), false};
  }
};

class CountingAsset final : public AssetBaseImpl {
public:
  explicit CountingAsset(AssetType type) : _type(std::move(type)) {}
  AssetType GetType() const override { return _type; }
  Asset Clone() const override { return std::make_shared<CountingAsset>(*this); }

private:
  AssetType _type;
};

} // namespace

TEST(MetaDataInRepository, DerivedValuesAreComputedOnceAndCachedInTheBackEnd) {
  auto type = std::make_shared<CountingTextType>();
  GetAssetTypeRegistry()->InsertEntry(kCountingType, type);
  auto repo = MakeRepository("r");
  auto stored = repo->StoreAsset(Id("x"), std::make_shared<CountingAsset>(type), nullptr);
  ASSERT_TRUE(stored.HasValue()) << stored.GetError().ToString();
  auto d = *stored;
  // Announce the entry as derived and persistent, without a value, as a back end would.
  auto meta = std::dynamic_pointer_cast<AssetMetaDataImpl>(d->GetMetaData());
  ASSERT_TRUE(meta);
  meta->AddEntry(kComputed, AssetMetaData::PERSISTENT | AssetMetaData::DERIVED, std::nullopt);

  auto first = d->GetMetaData()->Get(kComputed);
  ASSERT_TRUE(first.HasValue()) << first.GetError().ToString();
  EXPECT_EQ(*first, Data(std::int64_t(42)));
  EXPECT_EQ(*d->GetMetaData()->Get(kComputed), Data(std::int64_t(42)));
  EXPECT_EQ(type->computed.load(), 1);

  // The cached value went to the back end: a second repository object reads it without computing.
  auto again = *MemoryAssetRepositoryImpl::Create(Id("r"), true, repo->GetStore());
  auto reread = *again->FindLatestAsset(Id(), Id("x"), Id(), NONE);
  ASSERT_TRUE(reread);
  EXPECT_EQ(*reread->GetMetaData()->Get(kComputed), Data(std::int64_t(42)));
  EXPECT_EQ(type->computed.load(), 1);

  // A plain persistent write makes derived values stale: the next read computes again.
  ASSERT_TRUE(again->StoreMetaData(reread, InternedId("note"), Data("n"), AssetMetaData::PERSISTENT).HasValue());
  EXPECT_EQ(*reread->GetMetaData()->Get(kComputed), Data(std::int64_t(42)));
  EXPECT_EQ(type->computed.load(), 2);
  GetAssetTypeRegistry()->EraseEntry(kCountingType);
}

TEST(MetaDataInRepository, TheNewVersionLoadsTheLatestStoredContent) {
  auto repo = MakeRepository("r");
  auto d1 = *repo->StoreAsset(Id("x"), MakeText("one"), nullptr);
  auto d2 = *repo->StoreAsset(Id("x"), MakeText("two"), nullptr);
  // A description of the version that does not exist yet loads the latest stored content.
  auto pending = std::make_shared<AssetDescriptionImpl>(IdAndVersion{Id("x"), g_newVersion}, kTextType,
                                                        VersionKey::NewVersion(), nullptr, false, repo, Url());
  auto loaded = pending->Load(false);
  ASSERT_TRUE(loaded.HasValue()) << loaded.GetError().ToString();
  EXPECT_EQ(dynamic_cast<TextAsset*>(loaded->get())->text, "two");
  EXPECT_EQ((*loaded)->GetIdAndVersion().second, d2->GetIdAndVersion().second);
  EXPECT_EQ((*loaded)->GetRepository(), repo);
  // The stand-in holds a copy: the latest version keeps its own object.
  EXPECT_NE(loaded->get(), d2->Load(false).GetValueOr(nullptr).get());
  (void)d1;
}
