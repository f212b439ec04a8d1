// The index of the URL repository: compaction, opening from the index, stale and damaged
// indexes, removal on change, delayed background compaction and its end with the repository.

#include <nlohmann/json.hpp>
#include <thread>

#include "kelvo/background_progress.h"
#include "kelvo/hash.h"
#include "kelvo/job_queue.h"
#include "kelvo/log.h"
#include "asset/storage/url_layout.h"
#include "url_repository_fixture.h"

using namespace kelvo;
using namespace kelvo::testing;
namespace fs = std::filesystem;

namespace {

class IndexTest : public UrlRepositoryTest {
protected:
  void TearDown() override {
    UrlAssetRepository::SetCompactionDelayOverride(-1);
    UrlRepositoryTest::TearDown();
  }

  // A repository with three assets, one with two versions and metadata, compacted.
  std::map<std::string, std::map<std::string, std::string>> MakeIndexed() {
    auto repo = Open();
    EXPECT_TRUE(repo);
    Store(repo, "alpha", "a1");
    auto a2 = Store(repo, "alpha", "a2");
    Store(repo, "beta", "b1");
    Store(repo, "gamma", "g1");
    EXPECT_TRUE(repo->StoreMetaData(a2, kNote, Data(std::string("note")), 2).HasValue());
    WriteFile(_dir / "p.png", "png");
    EXPECT_TRUE(repo->StoreUrlMetaData(a2, kPreview, Url::FromFile((_dir / "p.png").string()), 2).HasValue());
    auto compacted = repo->Compact();
    EXPECT_TRUE(compacted.HasValue()) << compacted.GetError().ToString();
    EXPECT_EQ(repo->GetIndexState(), REPOSITORYINDEXSTATE::EXISTS);
    return Contents(repo);
  }

  static bool WaitFor(const std::function<bool()>& condition, double seconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!condition()) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
  }
};

TEST_F(IndexTest, CompactWritesPartsAndReopensWithoutWalkingTheTree) {
  const auto expected = MakeIndexed();
  const fs::path part = PartDir();
  ASSERT_FALSE(part.empty());
  // Version numbers count per asset; the range ends at the highest one handed out.
  EXPECT_EQ(part.filename().string(), "0-2");
  EXPECT_TRUE(fs::exists(part / "index"));
  EXPECT_TRUE(fs::exists(part / "net.kelvo.asset.timestamp"));
  EXPECT_TRUE(fs::exists(Root() / "_index" / "0-2.json" / "net.kelvo.test.note.json"));
  EXPECT_TRUE(fs::exists(Root() / "_index" / "index.dat"));
  // modified.dat: the time of the compaction as a 64-bit value.
  const auto modified = nlohmann::json::parse(ReadFile(Root() / "_index" / "modified.dat"), nullptr, false);
  ASSERT_TRUE(modified.is_object() && modified.contains("modified") && modified["modified"].is_number_unsigned());
  EXPECT_GT(modified["modified"].get<std::uint64_t>(), 0u);
  EXPECT_LE(modified["modified"].get<std::uint64_t>(), UniversalDateTime::GetNow().GetValue());
  // index.dat lists content and attached files, not what the index replaces.
  const std::string tree = ReadFile(Root() / "_index" / "index.dat");
  EXPECT_NE(tree.find("f\talpha/2/asset.txt\n"), std::string::npos);
  EXPECT_NE(tree.find("f\talpha/2/net.kelvo.test.preview.meta.png\n"), std::string::npos);
  EXPECT_EQ(tree.find("alpha/2/hash"), std::string::npos);
  EXPECT_EQ(tree.find("alpha/asset.info"), std::string::npos);
  EXPECT_EQ(tree.find("net.kelvo.test.note.meta"), std::string::npos);
  // No working directories stay behind.
  for (const auto& e : fs::directory_iterator(Root())) EXPECT_FALSE(e.path().filename().string().starts_with("tmp"));

  // The values come from the index: the files they were read from may go.
  fs::remove(Root() / "alpha" / "2" / "net.kelvo.test.note.meta");
  fs::remove(Root() / "alpha" / "2" / "net.kelvo.asset.timestamp.version");
  auto repo = Open();
  ASSERT_TRUE(repo);
  EXPECT_TRUE(repo->WasOpenedFromIndex());
  EXPECT_EQ(repo->GetIndexState(), REPOSITORYINDEXSTATE::EXISTS);
  EXPECT_EQ(Contents(repo), expected);
  auto latest = Latest(repo, "alpha");
  ASSERT_TRUE(latest);
  EXPECT_EQ(*latest->GetMetaData()->Get(kNote), std::optional<Data>(Data(std::string("note"))));
  EXPECT_GT(latest->GetKey().time, 0u);
  auto preview = latest->GetMetaData()->Get(kPreview);
  ASSERT_TRUE(preview.HasValue() && preview->has_value());
  EXPECT_EQ((*preview)->GetPtr<Url>()->GetName(), "net.kelvo.test.preview.meta.png");
}

TEST_F(IndexTest, StaleIndexIsCompletedByAScan) {
  const auto before = MakeIndexed();
  fs::rename(Root() / "_index", _dir / "saved_index");
  {
    auto repo = Open();
    ASSERT_TRUE(Store(repo, "delta", "d1"));
    ASSERT_TRUE(Store(repo, "alpha", "a3"));
  }
  // The old index comes back: it doesn't cover the newest version numbers.
  fs::remove_all(Root() / "_index");
  fs::rename(_dir / "saved_index", Root() / "_index");
  auto repo = Open();
  EXPECT_FALSE(repo->WasOpenedFromIndex());
  const auto contents = Contents(repo);
  EXPECT_EQ(contents.at("delta").size(), 1u);
  EXPECT_EQ(contents.at("alpha").size(), 3u);
  EXPECT_EQ(contents.at("beta"), before.at("beta"));
}

TEST_F(IndexTest, DamagedIndexFallsBackToTheScan) {
  const auto expected = MakeIndexed();
  const fs::path part = PartDir();
  const std::string listing = ReadFile(part / "index");
  const std::string checksums = ReadFile(part / ".checksum");
  const std::string covers = ReadFile(part / ".covers");
  const std::string timestamps = ReadFile(part / "net.kelvo.asset.timestamp");
  struct Damage {
    const char* what;
    std::function<void()> apply;
  };
  const std::vector<Damage> damages{
      {"truncated listing", [&] { WriteFile(part / "index", listing.substr(0, listing.size() / 2)); }},
      {"garbage listing", [&] { WriteFile(part / "index", std::string("\x01\x02garbage\n\t\t\n", 12)); }},
      {"empty listing", [&] { WriteFile(part / "index", ""); }},
      {"truncated document", [&] { WriteFile(part / "net.kelvo.asset.timestamp", timestamps.substr(0, 10)); }},
      {"unknown format", [&] { WriteFile(part / ".checksum", "kelvo-index 99\n" + checksums.substr(checksums.find('\n') + 1)); }},
      {"damaged checksum line", [&] { WriteFile(part / ".checksum", checksums.substr(0, checksums.size() - 5) + "\n"); }},
      {"stale change token", [&] { WriteFile(part / ".covers", "another token"); }},
      {"extra document", [&] { WriteFile(part / "net.kelvo.test.extra", "x"); }},
  };
  for (const Damage& damage : damages) {
    SCOPED_TRACE(damage.what);
    damage.apply();
    auto repo = Open();
    ASSERT_TRUE(repo);
    EXPECT_FALSE(repo->WasOpenedFromIndex());
    EXPECT_EQ(Contents(repo), expected);
    repo.reset();
    WriteFile(part / "index", listing);
    WriteFile(part / ".checksum", checksums);
    WriteFile(part / ".covers", covers);
    WriteFile(part / "net.kelvo.asset.timestamp", timestamps);
    fs::remove(part / "net.kelvo.test.extra");
    auto restored = Open();
    EXPECT_TRUE(restored->WasOpenedFromIndex());
  }
}

TEST_F(IndexTest, PartsWithoutChecksumsAreReadUnchecked) {
  const auto expected = MakeIndexed();
  fs::remove(PartDir() / ".checksum");
  auto repo = Open();
  EXPECT_TRUE(repo->WasOpenedFromIndex());
  EXPECT_EQ(Contents(repo), expected);
}

// An index installed after another process's change (its compaction began before the change)
// never hides that change, whatever the version numbers: a new asset's version 1 lies inside the
// index's range.
TEST_F(IndexTest, AnIndexOlderThanAChangeByAnotherObjectIsNotUsed) {
  MakeIndexed();
  fs::copy(Root() / "_index", _dir / "saved_index", fs::copy_options::recursive);
  {
    auto other = Open();
    ASSERT_TRUE(Store(other, "zeta", "z1"));
  }
  fs::remove_all(Root() / "_index");
  fs::rename(_dir / "saved_index", Root() / "_index");
  auto repo = Open();
  EXPECT_FALSE(repo->WasOpenedFromIndex());
  EXPECT_EQ(Contents(repo).count("zeta"), 1u);
}

TEST_F(IndexTest, IndexNamesLeavingTheRootAreRefused) {
  MakeIndexed();
  const fs::path part = PartDir();
  // A listing that names a directory outside the root, with a matching checksum.
  WriteFile(_dir / "outside" / "asset.info", "stolen\nnet.kelvo.assettype.test.text\n");
  WriteFile(_dir / "outside" / "1" / "asset.txt", "secret");
  for (const std::string name : {"../outside", "/tmp", "..", "a/b"}) {
    SCOPED_TRACE(name);
    const std::string listing = name + "\nstolen\nnet.kelvo.assettype.test.text\n\t1\n\tdeadbeef\n\t\tasset.txt\n";
    WriteListing(part, listing);
    auto repo = Open();
    EXPECT_FALSE(repo->WasOpenedFromIndex());
    const auto contents = Contents(repo);
    EXPECT_EQ(contents.count("stolen"), 0u);
    EXPECT_EQ(contents.count("alpha"), 1u);
  }
}

TEST_F(IndexTest, OnlyWellFormedRangesArePartsAndTheWidestNewestWins) {
  MakeIndexed();
  // Not parts: a JSON twin, a name that is no range, a range without listing.
  fs::create_directories(Root() / "_index" / "3-x");
  WriteFile(Root() / "_index" / "3-x" / "index", "garbage");
  fs::create_directories(Root() / "_index" / "7-9");
  // An older, narrower part fully covered by 0-2 is not read, even when damaged.
  fs::create_directories(Root() / "_index" / "1-2");
  WriteFile(Root() / "_index" / "1-2" / "index", "\tbroken");
  auto repo = Open();
  EXPECT_TRUE(repo->WasOpenedFromIndex());
  EXPECT_EQ(Contents(repo).size(), 3u);
}

TEST_F(IndexTest, EmptyRepositoryCompactsToAnEmptyListing) {
  auto r = CreateUrlAssetRepository(Id("empty.repo"), {}, RootUrl(), true, false, false);
  ASSERT_TRUE(r.HasValue());
  auto repo = *r;
  // Only the database asset is there; erase it for an empty repository.
  auto info = Latest(repo, "databaseinfo_empty.repo");
  ASSERT_TRUE(info && repo->EraseAsset(info).HasValue());
  ASSERT_TRUE(repo->Compact().HasValue());
  EXPECT_EQ(ReadFile(Root() / "_index" / "0-1" / "index"), "");
  EXPECT_EQ(repo->GetIndexState(), REPOSITORYINDEXSTATE::EXISTS);
}

TEST_F(IndexTest, ChangeRemovesIndexAndDelayedCompactionWritesANewOne) {
  UrlAssetRepository::SetCompactionDelayOverride(0.05);
  MakeIndexed();
  auto repo = Open();
  ASSERT_TRUE(repo->WasOpenedFromIndex());
  ASSERT_TRUE(Store(repo, "epsilon", "e1"));
  // Gone at once, pending, then back.
  EXPECT_FALSE(fs::exists(Root() / "_index" / "0-2"));
  const REPOSITORYINDEXSTATE state = repo->GetIndexState();
  EXPECT_TRUE(state == REPOSITORYINDEXSTATE::PENDING || state == REPOSITORYINDEXSTATE::RUNNING ||
              state == REPOSITORYINDEXSTATE::EXISTS);
  ASSERT_TRUE(WaitFor([&] { return repo->GetIndexState() == REPOSITORYINDEXSTATE::EXISTS; }, 20));
  EXPECT_TRUE(fs::exists(Root() / "_index" / "0-2" / "index"));
  // The job showed itself in the background progress.
  bool reported = false;
  for (const BackgroundEntryRef& entry : BackgroundProgress::GetEntries())
    if (entry->GetName() == "Update Database Index for 'repo'") reported = true;
  EXPECT_TRUE(reported);
  auto reopened = Open();
  EXPECT_TRUE(reopened->WasOpenedFromIndex());
  EXPECT_EQ(Contents(reopened).count("epsilon"), 1u);
}

// A compaction asked for while a delayed or a running one is under way replaces it: side by side,
// each would renew the change token and make the other's index stale.
TEST_F(IndexTest, CompactSupersedesADelayedOrRunningCompaction) {
  UrlAssetRepository::SetCompactionDelayOverride(0.05);
  auto repo = Open();
  for (int i = 0; i < 20; ++i) ASSERT_TRUE(Store(repo, "asset" + std::to_string(i), "text"));
  for (const double delay : {10.0, 0.0}) {
    SCOPED_TRACE(delay);
    ASSERT_TRUE(repo->CompactInBackground(delay).HasValue());
    auto compacted = repo->Compact();
    ASSERT_TRUE(compacted.HasValue()) << compacted.GetError().ToString();
    const std::string modified = ReadFile(Root() / "_index" / "modified.dat");
    // Past the delay, nothing else has run and rewritten the index.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ASSERT_TRUE(JobQueue::GetDefaultQueue()->WaitAll().HasValue());
    EXPECT_EQ(repo->GetIndexState(), REPOSITORYINDEXSTATE::EXISTS);
    EXPECT_EQ(ReadFile(Root() / "_index" / "modified.dat"), modified);
  }
}

TEST_F(IndexTest, RepositoryWithoutIndexGetsNoneOnChange) {
  auto repo = Open();
  ASSERT_TRUE(Store(repo, "a", "1"));
  EXPECT_EQ(repo->GetIndexState(), REPOSITORYINDEXSTATE::NONE);
  EXPECT_FALSE(fs::exists(Root() / "_index"));
}

TEST_F(IndexTest, FailedCompactionLeavesNoIndex) {
  const auto expected = MakeIndexed();
  auto repo = Open();
  ASSERT_TRUE(repo->WasOpenedFromIndex());
  // A compaction in a job that is cancelled fails partway.
  auto job = JobQueue::GetDefaultQueue()->Enqueue([&]() -> Result<void> {
    GetCurrentJob().Cancel();
    return repo->Compact();
  });
  ASSERT_TRUE(job.HasValue());
  auto r = job->Wait();
  ASSERT_TRUE(r.HasError());
  EXPECT_TRUE(r.GetError().Is(errors::OperationCancelledError));
  EXPECT_FALSE(fs::exists(Root() / "_index"));
  EXPECT_NE(repo->GetIndexState(), REPOSITORYINDEXSTATE::EXISTS);
  repo.reset();
  auto reopened = Open();
  EXPECT_FALSE(reopened->WasOpenedFromIndex());
  EXPECT_EQ(Contents(reopened), expected);
}

TEST_F(IndexTest, DeleteIndexFilesCancelsAndRemoves) {
  MakeIndexed();
  auto repo = Open();
  ASSERT_TRUE(repo->CompactInBackground(60).HasValue());
  EXPECT_EQ(repo->GetIndexState(), REPOSITORYINDEXSTATE::EXISTS);
  ASSERT_TRUE(repo->DeleteIndexFiles().HasValue());
  EXPECT_EQ(repo->GetIndexState(), REPOSITORYINDEXSTATE::NONE);
  EXPECT_FALSE(fs::exists(Root() / "_index"));
  // A read-only repository leaves the disk alone.
  MakeIndexed();
  auto readOnly = Open(false);
  ASSERT_TRUE(readOnly->DeleteIndexFiles().HasValue());
  EXPECT_TRUE(fs::exists(Root() / "_index"));
  EXPECT_TRUE(readOnly->CompactInBackground(0).HasError());
}

TEST_F(IndexTest, NoCompactionOutlivesItsRepository) {
  for (int round = 0; round < 20; ++round) {
    auto repo = Open();
    ASSERT_TRUE(repo);
    for (int i = 0; i < 5; ++i) Store(repo, "asset" + std::to_string(i), std::to_string(round));
    ASSERT_TRUE(repo->CompactInBackground(round % 2 ? 0.0 : 0.001).HasValue());
    if (round % 3 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    repo.reset(); // cancels and waits; a job still running would touch a dead object
  }
  // A job that held its repository when the handle went stops at its next asset; let it end
  // before the tree is read and removed.
  ASSERT_TRUE(JobQueue::GetDefaultQueue()->WaitAll().HasValue());
  // Whatever finished left a consistent tree.
  auto repo = Open();
  EXPECT_EQ(Contents(repo).size(), 5u);
}

} // namespace
