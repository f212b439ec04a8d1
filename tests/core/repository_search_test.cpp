#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

#include "kelvo/job_queue.h"
#include "kelvo/registry.h"
#include "test_assets.h"

using namespace kelvo;
using namespace kelvo::testing;

namespace {

// Collects what a search delivers.
struct Collected {
  std::vector<AssetDescription> all;
  AssetReceiver Receiver() {
    return [this](const AssetDescription& d) -> Result<bool> {
      all.push_back(d);
      return true;
    };
  }
  std::multiset<std::string> Texts() const {
    std::multiset<std::string> texts;
    for (const auto& d : all) texts.insert(LoadText(d));
    return texts;
  }
};

AssetDescription Store(const std::shared_ptr<MemoryAssetRepositoryImpl>& repo, const std::string& aid,
                       const std::string& text) {
  auto r = repo->StoreAsset(Id(aid), MakeText(text), nullptr);
  EXPECT_TRUE(r.HasValue()) << r.GetError().ToString();
  return r.HasValue() ? *r : nullptr;
}

Collected Find(const AssetRepositoryRef& repo, const std::string& aid, ASSET_FIND_MODE mode,
               const std::string& version = "") {
  Collected c;
  auto r = repo->FindAssets({}, Id(aid), Id(version), mode, c.Receiver());
  EXPECT_TRUE(r.HasValue()) << r.GetError().ToString();
  return c;
}

} // namespace

TEST(RepositorySearch, LatestAcrossStackedRepositoriesPrefersNewestTimeThenNearestRepository) {
  auto c = MakeRepository("c"), b = MakeRepository("b"), a = MakeRepository("a");
  ASSERT_TRUE(b->AddBase(c).HasValue());
  ASSERT_TRUE(a->AddBase(b).HasValue());

  // Equal times: copies keep the time stamp of the original, so the nearest repository wins.
  AssetDescription original = Store(c, "x", "from c");
  ASSERT_TRUE(b->CopyAsset(Id("x"), original, false, false).HasValue());
  ASSERT_TRUE(a->CopyAsset(Id("x"), original, false, false).HasValue());
  auto found = a->FindLatestAsset(Id(), Id("x"), Id(), NONE);
  ASSERT_TRUE(found.HasValue());
  ASSERT_TRUE(*found);
  EXPECT_EQ((*found)->GetRepositoryId(), Id("a"));

  // A strictly newer time in a base wins over the nearer repository.
  Store(b, "x", "newest in b");
  found = a->FindLatestAsset(Id(), Id("x"), Id(), NONE);
  ASSERT_TRUE(found.HasValue() && *found);
  EXPECT_EQ((*found)->GetRepositoryId(), Id("b"));
  EXPECT_EQ(LoadText(*found), "newest in b");

  // WITHOUT_BASES streams only the own latest version.
  Collected own = Find(a, "x", LATEST | WITHOUT_BASES);
  ASSERT_EQ(own.all.size(), 1u);
  EXPECT_EQ(own.all[0]->GetRepositoryId(), Id("a"));

  // ALL across the stack reports each version of each repository.
  EXPECT_EQ(Find(a, "x", ALL).all.size(), 4u);
  // Not found is a null description, not an error.
  found = a->FindLatestAsset(Id(), Id("missing"), Id(), NONE);
  ASSERT_TRUE(found.HasValue());
  EXPECT_FALSE(*found);
}

TEST(RepositorySearch, DiamondIsWalkedOnceAndCyclesEnd) {
  auto a = MakeRepository("a"), b = MakeRepository("b"), c = MakeRepository("c"), d = MakeRepository("d");
  ASSERT_TRUE(a->AddBase(b).HasValue());
  ASSERT_TRUE(a->AddBase(c).HasValue());
  ASSERT_TRUE(b->AddBase(d).HasValue());
  ASSERT_TRUE(c->AddBase(d).HasValue());
  Store(d, "shared", "d");
  EXPECT_EQ(Find(a, "", ALL).all.size(), 1u);

  // A cycle of bases: d on a. The walk and FindRepository still end.
  ASSERT_TRUE(d->AddBase(a).HasValue());
  EXPECT_EQ(Find(b, "", ALL).all.size(), 1u);
  EXPECT_EQ(b->FindRepository(Id("c")).get(), c.get());
  EXPECT_EQ(b->FindRepository(Id("nowhere")), nullptr);
  ASSERT_TRUE(d->RemoveBase(a).HasValue());
}

TEST(RepositorySearch, VersionSelectionWithDeletion) {
  auto repo = MakeRepository("r");
  AssetDescription v1 = Store(repo, "x", "one");
  Store(repo, "x", "two");
  EXPECT_EQ(Find(repo, "x", ALL).Texts(), (std::multiset<std::string>{"one", "two"}));
  EXPECT_EQ(Find(repo, "x", LATEST).Texts(), (std::multiset<std::string>{"two"}));
  EXPECT_TRUE(Find(repo, "x", NONE).all.empty());

  ASSERT_TRUE(repo->DeleteAsset(Id("x")).HasValue());
  EXPECT_TRUE(Find(repo, "x", LATEST).all.empty());
  EXPECT_TRUE(Find(repo, "x", ALL).all.empty()); // the whole Id counts as deleted
  Collected deleted = Find(repo, "x", LATEST | WITH_DELETED);
  ASSERT_EQ(deleted.all.size(), 1u);
  EXPECT_TRUE(deleted.all[0]->IsDeleted());
  EXPECT_EQ(Find(repo, "x", ALL | WITH_DELETED).all.size(), 3u);
  // An exact version is still found.
  EXPECT_EQ(Find(repo, "x", NONE, v1->GetIdAndVersion().second.ToString()).Texts(),
            (std::multiset<std::string>{"one"}));
  // A new store brings the Id back with its older versions.
  Store(repo, "x", "three");
  EXPECT_EQ(Find(repo, "x", ALL).all.size(), 3u);
}

TEST(RepositorySearch, PrefixTypesAndSkippedRepositories) {
  auto base = MakeRepository("base"), top = MakeRepository("top");
  ASSERT_TRUE(top->AddBase(base).HasValue());
  Store(top, "a.b", "1");
  Store(base, "a.bc", "2");
  Store(top, "a.c", "3");
  EXPECT_EQ(Find(top, "a.b", LATEST | PREFIX).Texts(), (std::multiset<std::string>{"1", "2"}));

  Collected wrongType;
  ASSERT_TRUE(top->FindAssets({Id("net.kelvo.assettype.other")}, Id(), Id(), ALL, wrongType.Receiver()).HasValue());
  EXPECT_TRUE(wrongType.all.empty());
  Collected rightType;
  ASSERT_TRUE(top->FindAssets({kTextType}, Id(), Id(), ALL, rightType.Receiver()).HasValue());
  EXPECT_EQ(rightType.all.size(), 3u);

  ASSERT_TRUE(top->SetData(repositorykeys::skipinsearch, Data(true)).HasValue());
  EXPECT_EQ(Find(top, "", LATEST).Texts(), (std::multiset<std::string>{"2"}));

  // The visibility receiver can hide a repository's own content, not its bases.
  ASSERT_TRUE(top->SetData(repositorykeys::skipinsearch, Data(false)).HasValue());
  Collected visible;
  auto r = top->FindAssets({}, Id(), Id(), LATEST | PRIVATE_QUERY_REPOSITORY_VISIBILITY, visible.Receiver(),
                           [&](const AssetRepositoryRef& repo) -> Result<bool> { return repo.get() != top.get(); });
  ASSERT_TRUE(r.HasValue());
  EXPECT_EQ(visible.Texts(), (std::multiset<std::string>{"2"}));
}

TEST(RepositorySearch, ReceiverStopsOrFailsTheWalk) {
  auto base = MakeRepository("base"), top = MakeRepository("top");
  ASSERT_TRUE(top->AddBase(base).HasValue());
  Store(base, "x", "1");
  Store(base, "y", "2");
  int calls = 0;
  auto stop = top->FindAssets({}, Id(), Id(), ALL, [&](const AssetDescription&) -> Result<bool> {
    ++calls;
    return false;
  });
  ASSERT_TRUE(stop.HasValue());
  EXPECT_FALSE(*stop);
  EXPECT_EQ(calls, 1);

  auto fail = top->FindAssets({}, Id(), Id(), LATEST, [&](const AssetDescription&) -> Result<bool> {
    return IoError("receiver broke");
  });
  ASSERT_TRUE(fail.HasError());
  EXPECT_EQ(fail.GetError().GetMessage(), "receiver broke");
}

TEST(RepositorySearch, RenamingsRewriteTheIdForAllBases) {
  auto base = MakeRepository("base"), top = MakeRepository("top");
  ASSERT_TRUE(top->AddBase(base).HasValue());
  Store(base, "new.id", "renamed");
  using Renaming = std::function<Result<Id>(const Id&)>;
  auto registry = *GetRegistry<Renaming>(Id("net.kelvo.registry.assetrenamings"));
  registry->InsertEntry(Id("test.renaming"), [](const Id& aid) -> Result<Id> {
    return aid == Id("old.id") ? Id("new.id") : Id();
  });
  EXPECT_EQ(Find(top, "old.id", LATEST).Texts(), (std::multiset<std::string>{"renamed"}));
  registry->EraseEntry(Id("test.renaming"));
}

TEST(RepositorySearch, BadInputGivesErrorsNotCrashes) {
  auto repo = MakeRepository("r");
  EXPECT_TRUE(repo->FindAssets({}, Id(), Id(), ALL, nullptr).HasError());
  auto empty = repo->FindLatestAsset(Id(), Id(), Id(), NONE);
  ASSERT_TRUE(empty.HasError());
  EXPECT_EQ(empty.GetError().GetMessage(), "Asset ID cannot be null.");
  EXPECT_TRUE(repo->AddBase(nullptr).HasError());
  EXPECT_TRUE(repo->AddBase(repo).HasError());
  EXPECT_TRUE(repo->InitBases({nullptr}).HasError());
  auto other = MakeRepository("o");
  ASSERT_TRUE(repo->AddBase(other).HasValue());
  auto again = repo->InitBases({other});
  ASSERT_TRUE(again.HasError());
  EXPECT_TRUE(again.GetError().Is(errors::illegalstate));
  IdAndVersion nothing{Id("nothing"), Id("v")};
  struct Ident : AssetIdentifier {
    IdAndVersion v;
    Id GetTypeId() const override { return Id(); }
    IdAndVersion GetIdAndVersion() const override { return v; }
  } ident;
  ident.v = nothing;
  auto d = repo->GetDescription(ident);
  ASSERT_TRUE(d.HasError());
  EXPECT_EQ(d.GetError().GetMessage(), "No asset description for nothing/v found in r.");
}

TEST(RepositorySearch, CancelledJobEndsTheWalk) {
  auto repo = MakeRepository("r");
  for (int i = 0; i < 50; ++i) Store(repo, "a" + std::to_string(i), "t");
  std::atomic<int> seen{0};
  auto job = JobQueue::GetDefaultQueue()->Enqueue([&]() -> Result<void> {
    auto r = repo->FindAssets({}, Id(), Id(), ALL | CHECK_CANCELLATION, [&](const AssetDescription&) -> Result<bool> {
      if (++seen == 5) GetCurrentJob().Cancel();
      return true;
    });
    return r.HasError() ? Result<void>(r.GetError()) : Result<void>();
  });
  ASSERT_TRUE(job.HasValue());
  auto r = job->Wait();
  ASSERT_TRUE(r.HasError());
  EXPECT_TRUE(r.GetError().Is(errors::OperationCancelledError));
  EXPECT_EQ(seen.load(), 5);
}

TEST(RepositorySearch, ConcurrentFindsWhileBasesChange) {
  auto top = MakeRepository("top");
  std::vector<std::shared_ptr<MemoryAssetRepositoryImpl>> bases;
  for (int i = 0; i < 4; ++i) {
    bases.push_back(MakeRepository("base" + std::to_string(i)));
    for (int j = 0; j < 20; ++j) Store(bases.back(), "asset" + std::to_string(j), "b" + std::to_string(i));
  }
  std::atomic<bool> stop{false};
  std::atomic<int> failures{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 3; ++t)
    readers.emplace_back([&] {
      while (!stop) {
        std::size_t count = 0;
        auto r = top->FindAssets({}, Id(), Id(), LATEST, [&](const AssetDescription& d) -> Result<bool> {
          if (!d || d->GetIdAndVersion().first.IsEmpty()) ++failures;
          ++count;
          return true;
        });
        if (r.HasError() || count > 20) ++failures;
      }
    });
  for (int round = 0; round < 200; ++round) {
    auto& b = bases[static_cast<std::size_t>(round) % bases.size()];
    ASSERT_TRUE(top->AddBase(b).HasValue());
    if (round % 3 == 0) {
      ASSERT_TRUE(top->RemoveBase(b).HasValue());
    }
  }
  stop = true;
  for (auto& t : readers) t.join();
  EXPECT_EQ(failures.load(), 0);
}

namespace {

// An in-memory repository whose back end fails to list the versions of one asset, as a damaged
// or unreachable store would.
class FailingRepository : public MemoryAssetRepositoryImpl {
public:
  FailingRepository() : MemoryAssetRepositoryImpl(true, std::make_shared<MemoryAssetStore>("failing")) {}
  Result<void> LoadVersionsImpl(const Id& aid, const Id& type, const Data& adata,
                                const VersionReceiver& receiver) override {
    if (failing && aid == Id("broken")) return IoError("The versions of @ can't be read.", aid);
    return MemoryAssetRepositoryImpl::LoadVersionsImpl(aid, type, adata, receiver);
  }
  bool failing = false;
};

} // namespace

// An error raised inside a base reaches the caller in the modes that merge (LATEST) and in those
// that don't (ALL, LATEST | WITHOUT_BASES on the base): the walk never drops it and goes on.
TEST(RepositorySearch, ErrorsOfABaseReachTheCaller) {
  auto base = std::make_shared<FailingRepository>();
  ASSERT_TRUE(base->InitImpl(Id("test.failing"), false).HasValue());
  Store(base, "fine", "f");
  Store(base, "broken", "b");
  ASSERT_TRUE(base->Rescan().HasValue()); // forget the versions listed by the stores
  base->failing = true;
  auto top = MakeRepository("top");
  ASSERT_TRUE(top->AddBase(base).HasValue());
  Store(top, "own", "o");
  auto search = [](const AssetRepositoryRef& repo, ASSET_FIND_MODE mode) {
    std::size_t found = 0;
    auto r = repo->FindAssets({}, Id(), Id(), mode, [&found](const AssetDescription&) -> Result<bool> {
      ++found;
      return true;
    });
    return r.HasError() ? r.GetError().ToString() : "found " + std::to_string(found);
  };
  for (const ASSET_FIND_MODE mode : {ALL, ALL | WITH_DELETED, LATEST, LATEST | RANDOMIZED_ORDER}) {
    SCOPED_TRACE(static_cast<int>(mode));
    EXPECT_NE(search(top, mode).find("can't be read"), std::string::npos) << search(top, mode);
  }
  EXPECT_NE(search(base, LATEST | WITHOUT_BASES).find("can't be read"), std::string::npos);
  EXPECT_NE(search(base, ALL | WITHOUT_BASES).find("can't be read"), std::string::npos);
  EXPECT_EQ(search(top, LATEST | WITHOUT_BASES), "found 1");
}
