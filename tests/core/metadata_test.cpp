// The metadata table: write rules by kind, lazy loading through a back end, computation and
// caching of derived values. A scripted loader in front of an in-memory repository stands in for a
// back end; the description paths that need one (late URL, storing translated strings) use it too.

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <thread>

#include "asset/core/asset_description.h"
#include "asset/core/assetrepositorydecorator.h"
#include "asset/core/memoryassetrepository.h"

namespace kelvo {
namespace {

using K = AssetMetaData;
const Id kComputingType{"net.kelvo.assettype.test.computing"};
const IdAndVersion kAid{Id("net.kelvo.test.asset"), Id("v2")};
const InternedId kValue{"net.kelvo.test.value"};
const InternedId kOther{"net.kelvo.test.other"};

// An in-memory repository behind a decorator that scripts what metadata and descriptions load
// and records what they ask: the descriptions it finds are the ones a test registers, and metadata
// writes go to the description's table and to backEnd.
class FakeRepository final : public AssetRepositoryDecoratorBase, public AssetRecordLoader {
public:
  AssetRepositoryRef PrivateGetDecoratedObject() const override { return _memory; }
  AssetRecordLoaderRef GetRecordLoader() override { return AssetRecordLoaderRef(shared_from_this(), this); }

  // Matches by asset Id and, when given, version; with LATEST only the last match.
  Result<bool> FindAssets(const TypeArray&, const Id& aid, const Id& version, ASSET_FIND_MODE findMode,
                          const AssetReceiver& receiver, const RepositoryVisibilityReceiver&) override {
    std::vector<AssetDescription> matches;
    {
      std::lock_guard guard(mutex);
      findModes.push_back(findMode);
      for (const auto& d : descriptions)
        if (d->GetIdAndVersion().first == aid && (version.IsEmpty() || d->GetIdAndVersion().second == version))
          matches.push_back(d);
    }
    if ((findMode & LATEST) && !matches.empty()) matches = {matches.back()};
    for (const auto& d : matches) {
      KELVO_ASSIGN_OR_RETURN(bool go, receiver(d));
      if (!go) return false;
    }
    return true;
  }
  // Writes into the description's table under its lock, as the repository core does.
  Result<void> StoreMetaData(const AssetDescription& asset, const InternedId& metaId, const Data& data,
                             std::uint32_t kind) override {
    auto meta = std::dynamic_pointer_cast<AssetMetaDataImpl>(asset->GetMetaData());
    if (!meta) return IllegalArgumentError("Invalid asset description @.", asset->GetIdAndVersion());
    {
      WriteLocker guard(meta->GetLock());
      KELVO_RETURN_ON_ERROR(meta->SetLocked(metaId, data, kind & K::MASK, (kind & K::IGNORE_READ_ONLY) != 0));
    }
    std::lock_guard guard(mutex);
    stores.push_back(StoreCall{metaId, kind});
    backEnd[metaId] = data;
    return {};
  }
  Result<std::optional<Data>> LoadMetaDataImpl(const Data& vdata, const InternedId& metaId,
                                               std::uint32_t kind) override {
    ++loadCalls;
    std::lock_guard guard(mutex);
    lastVdata = vdata;
    lastKind = kind;
    if (loadError) return loadError;
    auto it = backEnd.find(metaId);
    return it == backEnd.end() ? std::optional<Data>() : std::optional<Data>(it->second);
  }
  Result<void> AssetLoadedImpl(const Asset& asset, bool updateLinks) override {
    std::lock_guard guard(mutex);
    loadedAssets.emplace_back(asset, updateLinks);
    return {};
  }

  struct StoreCall {
    InternedId metaId;
    std::uint32_t kind;
  };
  std::mutex mutex;
  std::vector<AssetDescription> descriptions;
  std::vector<ASSET_FIND_MODE> findModes;
  std::vector<StoreCall> stores;
  std::map<InternedId, Data> backEnd;
  std::atomic<int> loadCalls{0};
  Error loadError;
  Data lastVdata;
  std::uint32_t lastKind = 0;
  std::vector<std::pair<Asset, bool>> loadedAssets;

private:
  AssetRepositoryRef _memory = MemoryAssetRepositoryImpl::Create(Id("net.kelvo.repository.test.fake"), true).GetValue();
};

// An asset type whose ComputeMetaData each test scripts.
using ComputeHandler = std::function<Result<ComputedMetaData>(const AssetMetaDataRef&, const InternedId&)>;
ComputeHandler g_compute;
std::atomic<int> g_computeCalls{0};

class ComputingType final : public AssetTypeBase {
public:
  Id GetId() const override { return kComputingType; }
  Id GetAssetDataType() const override { return Id("net.kelvo.datatype.test.computing"); }
  std::string GetUrlSuffix(const Asset&) const override { return ""; }
  Result<Asset> Load(const AssetRepositoryRef&, const AssetDescription&, const Url& url, bool) const override {
    return FileAssetInterface::Create(url);
  }
  Result<MetaValueMap> Store(const Asset&, const Url&, Digest*) const override { return MetaValueMap(); }
  Result<ComputedMetaData> ComputeMetaData(const AssetRepositoryRef&, const Asset&, const AssetMetaDataRef& meta,
                                           const InternedId& metaId) const override {
    ++g_computeCalls;
    return g_compute ? g_compute(meta, metaId) : Result<ComputedMetaData>(ComputedMetaData{});
  }
};

ComputeHandler Gives(Data value, bool final) {
  return [value, final](const AssetMetaDataRef&, const InternedId&) -> Result<ComputedMetaData> {
    return ComputedMetaData{value, final};
  };
}

std::uint32_t KindOf(const AssetMetaDataImpl& meta, const InternedId& id) {
  auto entries = meta.GetExistingEntries();
  for (const auto& [entry, kind] : *entries)
    if (entry == id) return kind;
  return ~0u;
}
bool Has(const AssetMetaDataImpl& meta, const InternedId& id) { return KindOf(meta, id) != ~0u; }

// ---- tables without a repository -------------------------------------------------------------

TEST(UnboundMetaData, ReadsGiveNoValueAndNoError) {
  AssetMetaDataImpl meta;
  EXPECT_FALSE(meta.IsBound());
  auto value = meta.Get(kValue);
  ASSERT_TRUE(value.HasValue());
  EXPECT_FALSE(value->has_value());
  meta.AddEntry(kOther, K::PERSISTENT, std::nullopt); // known to exist, but nowhere to load from
  EXPECT_FALSE(meta.Get(kOther)->has_value());

  ASSERT_TRUE(meta.Set(kValue, Data("text"), K::PERSISTENT, false).HasValue());
  Data mem(std::int32_t(5));
  EXPECT_FALSE(*meta.PrivateGet(kValue, datatypes::int32, mem));
  EXPECT_EQ(mem.Get<std::int32_t>(), 5);
  EXPECT_TRUE(*meta.PrivateGet(kValue, datatypes::string, mem));
  EXPECT_EQ(mem.Get<std::string>(), "text");

  const AssetMetaDataRef& shared = AssetMetaData::DefaultValuePtr();
  EXPECT_EQ(shared, AssetMetaData::DefaultValuePtr());
  EXPECT_TRUE(shared->GetExistingEntries()->empty());
  EXPECT_FALSE(dynamic_cast<AssetMetaDataImpl&>(*shared).IsBound());
}

TEST(MetaDataWrite, PlainPersistentWritesDropDerivedEntries) {
  AssetMetaDataImpl meta;
  auto reset = [&] {
    meta.AddEntry(InternedId("d10"), K::PERSISTENT | K::DERIVED, Data(1.0));
    meta.AddEntry(InternedId("d8"), K::DERIVED, Data(1.0));
  };
  reset();
  meta.AddEntry(InternedId("t7"), K::READ_ONLY | K::PERSISTENT | K::VERSION, Data(1.0));
  ASSERT_TRUE(meta.Set(kValue, Data("x"), K::DERIVED, false).HasValue());
  ASSERT_TRUE(meta.Set(kValue, Data("x"), K::PERSISTENT | K::VERSION, false).HasValue());
  EXPECT_TRUE(Has(meta, InternedId("d10")) && Has(meta, InternedId("d8")));

  ASSERT_TRUE(meta.Set(kOther, Data("x"), K::PERSISTENT, false).HasValue());
  EXPECT_FALSE(Has(meta, InternedId("d10")) || Has(meta, InternedId("d8")));
  EXPECT_EQ(KindOf(meta, InternedId("t7")), 7u);
  reset();
  ASSERT_TRUE(meta.Set(kOther, Data("y"), K::USER | K::PERSISTENT, false).HasValue()); // USER is ignored
  EXPECT_FALSE(Has(meta, InternedId("d10")));
  reset();
  ASSERT_TRUE(meta.Set(InternedId("absent"), Data(), K::PERSISTENT, false).HasValue()); // a removal is a change
  EXPECT_FALSE(Has(meta, InternedId("d10")));
}

TEST(MetaDataWrite, ValuesCountersAndKinds) {
  AssetMetaDataImpl meta;
  EXPECT_EQ(meta.GetTimeStamp(kValue), 0u);
  meta.AddEntry(kValue, K::PERSISTENT | K::VERSION, Data("loaded"));
  EXPECT_EQ(meta.GetTimeStamp(kValue), 0u); // a load is no write
  EXPECT_EQ(meta.Set(kValue, Data("a"), K::PERSISTENT, false)->Get<std::string>(), "loaded");
  EXPECT_EQ(meta.Set(kValue, Data("b"), K::USER, false)->Get<std::string>(), "a");
  EXPECT_EQ(meta.GetTimeStamp(kValue), 2u);
  EXPECT_EQ(KindOf(meta, kValue), 6u); // the kind of an existing entry never changes
  EXPECT_EQ(meta.Set(kValue, Data(), K::PERSISTENT, false)->Get<std::string>(), "b");
  EXPECT_FALSE(Has(meta, kValue));
  EXPECT_EQ(meta.GetTimeStamp(kValue), 0u);
  auto absent = meta.Set(kValue, Data(), K::PERSISTENT, false);
  ASSERT_TRUE(absent.HasValue());
  EXPECT_TRUE(absent->IsEmpty());

  // A derived entry written as plain persistent data is dropped first and comes back anew.
  meta.AddEntry(kOther, K::PERSISTENT | K::DERIVED, Data("cached"));
  ASSERT_TRUE(meta.Set(kOther, Data("fixed"), K::PERSISTENT | K::IGNORE_READ_ONLY, false).HasValue());
  EXPECT_EQ(KindOf(meta, kOther), 2u);
  EXPECT_EQ(meta.GetTimeStamp(kOther), 1u);
}

TEST(MetaDataWrite, ReadOnlyEntries) {
  AssetMetaDataImpl meta;
  const auto stamp = UniversalDateTime::FromUnixSeconds(100);
  meta.AddEntry(metaids::timestamp, K::READ_ONLY | K::PERSISTENT | K::VERSION, Data(stamp));
  meta.AddEntry(InternedId("d10"), K::PERSISTENT | K::DERIVED, Data(1.0));
  auto refused = meta.Set(metaids::timestamp, Data(UniversalDateTime::FromUnixSeconds(200)), K::PERSISTENT, false);
  ASSERT_TRUE(refused.HasError());
  EXPECT_TRUE(refused.GetError().Is(errors::illegalargument));
  EXPECT_EQ(refused.GetError().GetMessage(), "Illegal argument: Condition !((v.Get<AssetMetaData::KIND>() | kind) & "
                                             "AssetMetaData::KIND::READ_ONLY) not fulfilled. ");
  // No change at all, not even to the derived entries.
  EXPECT_EQ(*meta.GetValue<UniversalDateTime>(metaids::timestamp), stamp);
  EXPECT_EQ(meta.GetTimeStamp(metaids::timestamp), 0u);
  EXPECT_TRUE(Has(meta, InternedId("d10")));
  EXPECT_TRUE(meta.Set(kValue, Data("x"), K::READ_ONLY | K::PERSISTENT, false).HasError());
  EXPECT_FALSE(Has(meta, kValue));

  auto forced = meta.Set(metaids::timestamp, Data(UniversalDateTime::FromUnixSeconds(300)), K::PERSISTENT, true);
  ASSERT_TRUE(forced.HasValue());
  EXPECT_EQ(forced->Get<UniversalDateTime>(), stamp);
  EXPECT_EQ(KindOf(meta, metaids::timestamp), 7u);
}

// ---- tables bound to a repository ------------------------------------------------------------

class BoundMetaDataTest : public ::testing::Test {
protected:
  void SetUp() override {
    GetAssetTypeRegistry()->InsertEntry(kComputingType, std::make_shared<ComputingType>());
    g_compute = nullptr;
    g_computeCalls = 0;
  }
  void TearDown() override { g_compute = nullptr; }

  // A table bound to repo with one entry not loaded yet, and its description registered in repo.
  std::shared_ptr<AssetMetaDataImpl> MakeMeta(std::uint32_t kind = 0, const Url& url = Url()) {
    MetaEntryMap entries;
    if (kind) entries[kValue] = MetaEntry{Data(), kind, false, 0};
    auto meta = std::make_shared<AssetMetaDataImpl>(AssetRepositoryRef(repo), kComputingType, kAid,
                                                    VersionKey{5, 2, 9}, Data("vdata-of-v2"), std::move(entries));
    description = std::make_shared<AssetDescriptionImpl>(kAid, kComputingType, VersionKey{5, 2, 9}, meta, false,
                                                         repo, url);
    repo->descriptions.push_back(description);
    return meta;
  }

  std::shared_ptr<FakeRepository> repo = std::make_shared<FakeRepository>();
  AssetDescription description;
};

TEST_F(BoundMetaDataTest, ConcurrentFirstReadsLoadOnce) {
  repo->backEnd[kValue] = Data("stored");
  auto meta = MakeMeta(K::PERSISTENT);
  std::atomic<int> ok{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i)
    threads.emplace_back([&] { ok += meta->GetValue<std::string>(kValue).GetValueOr(std::nullopt) == "stored"; });
  for (auto& t : threads) t.join();
  EXPECT_EQ(ok, 8);
  EXPECT_EQ(repo->loadCalls, 1);
  EXPECT_EQ(repo->lastVdata.Get<std::string>(), "vdata-of-v2");
  EXPECT_EQ(repo->lastKind, 2u);
  EXPECT_EQ(meta->GetTimeStamp(kValue), 0u);
}

// A missing or unreadable value (an io error) is remembered as none and not computed; other
// load errors are returned and the next read tries again.
TEST_F(BoundMetaDataTest, LoadErrors) {
  g_compute = Gives(Data("computed"), false);
  repo->loadError = IoError("Can't open @: gone", "file");
  auto meta = MakeMeta(K::PERSISTENT);
  for (int i = 0; i < 2; ++i) {
    auto value = meta->Get(kValue);
    ASSERT_TRUE(value.HasValue()) << value.GetError().ToString();
    EXPECT_FALSE(value->has_value());
  }
  EXPECT_EQ(repo->loadCalls, 1);
  EXPECT_EQ(g_computeCalls, 0);

  repo->loadError = UnexpectedError("broken back end");
  auto other = MakeMeta(K::PERSISTENT);
  auto failed = other->Get(kValue);
  ASSERT_TRUE(failed.HasError());
  EXPECT_EQ(failed.GetError().GetMessage(), "broken back end");
  repo->loadError = Error();
  repo->backEnd[kValue] = Data("later");
  EXPECT_EQ(*other->GetValue<std::string>(kValue), "later");
}

TEST_F(BoundMetaDataTest, FinalValuesAndValuesWithoutDescriptionAreNotStored) {
  g_compute = Gives(Data("final"), true);
  auto meta = MakeMeta();
  EXPECT_EQ(*meta->GetValue<std::string>(kValue), "final");
  EXPECT_EQ(*meta->GetValue<std::string>(kValue), "final");
  EXPECT_EQ(g_computeCalls, 2);
  g_compute = Gives(Data("cacheable"), false);
  repo->descriptions.clear();
  EXPECT_EQ(*meta->GetValue<std::string>(kValue), "cacheable");
  EXPECT_TRUE(repo->stores.empty());
  EXPECT_FALSE(Has(*meta, kValue));
}

TEST_F(BoundMetaDataTest, ComputeRunsWithoutTheMetaDataLock) {
  auto meta = MakeMeta();
  ASSERT_TRUE(meta->Set(kOther, Data("sibling"), K::PERSISTENT, false).HasValue());
  g_compute = [](const AssetMetaDataRef& m, const InternedId&) -> Result<ComputedMetaData> {
    // Reading and writing the same table from in here would block on a held lock.
    KELVO_ASSIGN_OR_RETURN(auto sibling, m->GetValue<std::string>(kOther));
    KELVO_RETURN_ON_ERROR(dynamic_cast<AssetMetaDataImpl&>(*m).Set(InternedId("side"), Data("x"), K::VERSION, false));
    return ComputedMetaData{Data(sibling.value_or("") + "+derived"), false};
  };
  EXPECT_EQ(*meta->GetValue<std::string>(kValue), "sibling+derived");
  g_compute = [](const AssetMetaDataRef&, const InternedId&) -> Result<ComputedMetaData> {
    return IllegalStateError("cannot compute");
  };
  auto failed = meta->Get(InternedId("net.kelvo.test.fresh"));
  ASSERT_TRUE(failed.HasError());
  EXPECT_EQ(failed.GetError().GetMessage(), "cannot compute");
}

TEST_F(BoundMetaDataTest, RepositoryGoneOrWithoutBackEnd) {
  auto meta = MakeMeta(K::PERSISTENT);
  description.reset();
  repo.reset();
  for (const InternedId& id : {kValue, kOther}) {
    auto r = meta->Get(id);
    ASSERT_TRUE(r.HasError());
    EXPECT_TRUE(r.GetError().Is(errors::illegalstate));
    EXPECT_EQ(r.GetError().GetMessage(), "Repository doesn't exist any longer.");
  }
  // A decorator whose repository is gone has no back end to load from.
  auto dead = WeakAssetRepositoryDecorator::Create(std::make_shared<FakeRepository>());
  MetaEntryMap entries{{kValue, MetaEntry{Data(), K::PERSISTENT, false, 0}}};
  auto other = std::make_shared<AssetMetaDataImpl>(AssetRepositoryRef(dead), kComputingType, kAid, VersionKey{},
                                                   Data(), std::move(entries));
  auto r = other->Get(kValue);
  ASSERT_TRUE(r.HasError());
  EXPECT_EQ(r.GetError().GetMessage(), "Repository has unsupported class kelvo::WeakAssetRepositoryDecorator.");
}

// Metadata and a description bound to a decorator load through the decorated back end.
TEST_F(BoundMetaDataTest, BoundToADecoratorLoadsThroughTheDecoratedBackEnd) {
  repo->backEnd[kValue] = Data("stored");
  auto decorator = WeakAssetRepositoryDecorator::Create(repo);
  MetaEntryMap entries{{kValue, MetaEntry{Data(), K::PERSISTENT, false, 0}}};
  auto meta = std::make_shared<AssetMetaDataImpl>(AssetRepositoryRef(decorator), kComputingType, kAid,
                                                  VersionKey{5, 2, 9}, Data("vdata-of-v2"), std::move(entries));
  auto value = meta->GetValue<std::string>(kValue);
  ASSERT_TRUE(value.HasValue()) << value.GetError().ToString();
  EXPECT_EQ(*value, "stored");
  EXPECT_EQ(repo->lastVdata.Get<std::string>(), "vdata-of-v2");
  auto decorated = std::make_shared<AssetDescriptionImpl>(kAid, kComputingType, VersionKey{5, 2, 9}, meta, false,
                                                          decorator, Url::FromFile("/store/v2/content"));
  auto loaded = decorated->Load(false);
  ASSERT_TRUE(loaded.HasValue()) << loaded.GetError().ToString();
  ASSERT_EQ(repo->loadedAssets.size(), 1u);
  EXPECT_EQ(repo->loadedAssets[0], std::make_pair(*loaded, false));
}

// ---- description paths that need a repository ------------------------------------------------

TEST_F(BoundMetaDataTest, LateUrlComesFromTheLatestVersion) {
  auto late = std::make_shared<AssetDescriptionImpl>(IdAndVersion{kAid.first, Id("v1")}, kComputingType,
                                                     VersionKey{1, 1, 9}, nullptr, false, repo, Url());
  EXPECT_TRUE(late->GetUrl().HasError()); // nothing stored yet; a later call tries again
  MakeMeta(0, Url::FromFile("/store/v2/content"));
  EXPECT_EQ(late->GetUrl().GetValueOr(Url()), Url::FromFile("/store/v2/content"));
  EXPECT_EQ(late->GetUrl().GetValueOr(Url()), Url::FromFile("/store/v2/content"));
  ASSERT_EQ(repo->findModes.size(), 2u);
  EXPECT_EQ(repo->findModes[1], LATEST | WITHOUT_BASES);
}

TEST_F(BoundMetaDataTest, TranslatedStringsAreStoredPerLanguage) {
  MakeMeta();
  const LanguageRef english = Language::GetDefaultLanguage(), german = Language::Get("de-DE");
  const InternedId germanStrings = AssetInterface::GetLanguageMetaDataId(Id("de-DE"));
  ASSERT_TRUE(description->StoreMetaString(stringkeys::name, "Thing", english).HasValue());
  ASSERT_TRUE(description->StoreMetaString(stringkeys::name, "Ding", german).HasValue());
  ASSERT_TRUE(description->StoreMetaString(stringkeys::tags, "Sache", german).HasValue());
  EXPECT_EQ(description->GetMetaString(stringkeys::name, german, "").GetValueOr(""), "Ding");
  EXPECT_EQ(description->GetMetaString(stringkeys::tags, german, "").GetValueOr(""), "Sache");
  EXPECT_EQ(description->GetMetaString(stringkeys::name, english, "").GetValueOr(""), "Thing");
  EXPECT_EQ(repo->stores.back().metaId, germanStrings);
  EXPECT_EQ(repo->stores.back().kind, 2u);

  // A text equal to what the fallback language shows is no translation of its own.
  ASSERT_TRUE(description->StoreMetaString(stringkeys::name, "Thing", german).HasValue());
  auto strings = description->GetMetaData()->GetValue<DataDictionary>(germanStrings);
  ASSERT_TRUE(strings.HasValue() && strings->has_value());
  EXPECT_FALSE((*strings)->Contains(stringkeys::name));
  EXPECT_TRUE((*strings)->Contains(stringkeys::tags));
  // Removing the last text removes the language's metadata; removing it again writes nothing.
  ASSERT_TRUE(description->StoreMetaString(stringkeys::tags, "", german).HasValue());
  EXPECT_FALSE(description->GetMetaData()->Get(germanStrings)->has_value());
  const std::size_t stores = repo->stores.size();
  ASSERT_TRUE(description->StoreMetaString(stringkeys::tags, "", german).HasValue());
  EXPECT_EQ(repo->stores.size(), stores);
}

} // namespace
} // namespace kelvo
