// Several processes on one URL repository tree: writers storing versions of shared and new
// assets while another process erases and compacts, and writers killed at random points. Every
// version that a process reported as stored is found afterwards (unless reported erased), whole,
// with content that matches its digest, and nothing half-written shows.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "kelvo/hash.h"
#include "url_repository_fixture.h"

using namespace kelvo;
using namespace kelvo::testing;
namespace fs = std::filesystem;

namespace {

using Reported = std::set<std::pair<std::string, std::string>>; // asset Id, version Id

std::string Sha256HexOf(const std::string& text) {
  Sha256 h;
  h.Update(text.data(), text.size());
  const auto d = h.Finish();
  return ToHex(d.data(), d.size());
}

class RepositoryProcessesTest : public UrlRepositoryTest {
protected:
  // Runs body in a child process that appends its report lines "<asset> <version>" to
  // <base>/report-<name>; the child has 60 seconds before an alarm ends it.
  pid_t Spawn(const std::string& name, const std::function<bool(const std::function<void(const std::string&, const std::string&)>&)>& body) {
    const std::string reportPath = (_dir / ("report-" + name)).string();
    const pid_t pid = ::fork();
    if (pid != 0) return pid;
    ::alarm(60);
    FILE* report = std::fopen(reportPath.c_str(), "w");
    if (!report) ::_exit(5);
    const bool ok = body([report](const std::string& aid, const std::string& version) {
      std::fprintf(report, "%s %s\n", aid.c_str(), version.c_str());
      std::fflush(report);
    });
    std::fclose(report);
    ::_exit(ok ? 0 : 3);
  }

  Reported ReadReport(const std::string& name) {
    Reported out;
    std::istringstream in(ReadFile(_dir / ("report-" + name)));
    std::string aid, version;
    while (in >> aid >> version) out.emplace(aid, version);
    return out;
  }

  std::shared_ptr<UrlAssetRepository> OpenInChild() {
    auto r = CreateUrlAssetRepository(Id("test.repo"), {}, RootUrl(), true, false, false);
    return r.HasValue() ? *r : nullptr;
  }

  // Every version of every text asset is whole: its content hashes to its version Id.
  static void ExpectWhole(const std::map<std::string, std::map<std::string, std::string>>& contents) {
    for (const auto& [aid, versions] : contents)
      for (const auto& [version, text] : versions) EXPECT_EQ(Sha256HexOf(text), version) << aid;
  }
};

TEST_F(RepositoryProcessesTest, WritersEraserAndCompactorLoseNoVersion) {
  {
    auto repo = Open();
    ASSERT_TRUE(Store(repo, "victim", "seed"));
  }
  constexpr int kWriters = 4, kStores = 24;
  std::vector<pid_t> children;
  for (int w = 0; w < kWriters; ++w) {
    children.push_back(Spawn("w" + std::to_string(w), [this, w](const auto& report) {
      auto repo = OpenInChild();
      if (!repo) return false;
      for (int k = 0; k < kStores; ++k) {
        // Each writer's list of versions is stale after the first store of another: the shared
        // and the victim asset force a number that another process has taken.
        const std::string aid = k % 3 == 0 ? "shared" : k % 3 == 1 ? "victim" : "new-" + std::to_string(w) + "-" + std::to_string(k);
        auto stored = repo->StoreAsset(Id(aid), MakeText("writer " + std::to_string(w) + " store " + std::to_string(k)), nullptr);
        if (stored.HasError()) {
          std::fprintf(stderr, "store failed: %s\n", stored.GetError().ToString().c_str());
          return false;
        }
        report(aid, (*stored)->GetIdAndVersion().second.ToString());
      }
      return true;
    }));
  }
  children.push_back(Spawn("eraser", [this](const auto& report) {
    auto repo = OpenInChild();
    if (!repo) return false;
    for (int round = 0; round < 12; ++round) {
      if (repo->Rescan().HasError()) return false;
      if (auto latest = repo->FindLatestAsset(Id(), Id("victim"), Id(), WITHOUT_BASES); latest.HasValue() && *latest) {
        const std::string version = (*latest)->GetIdAndVersion().second.ToString();
        auto erased = repo->EraseAsset(*latest);
        if (erased.HasError()) {
          std::fprintf(stderr, "erase failed: %s\n", erased.GetError().ToString().c_str());
          return false;
        }
        report("victim", version);
      }
      auto compacted = repo->Compact();
      if (compacted.HasError() && !compacted.GetError().Is(errors::OperationCancelledError)) {
        std::fprintf(stderr, "compact failed: %s\n", compacted.GetError().ToString().c_str());
        return false;
      }
    }
    return true;
  }));
  for (pid_t child : children) {
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child ended with " << status;
  }

  Reported stored;
  for (int w = 0; w < kWriters; ++w) {
    const Reported r = ReadReport("w" + std::to_string(w));
    EXPECT_EQ(r.size(), static_cast<std::size_t>(kStores));
    stored.insert(r.begin(), r.end());
  }
  const Reported erased = ReadReport("eraser");
  EXPECT_FALSE(erased.empty());

  // Opened twice: once as the tree (and index) stand, once after a fresh compaction.
  for (int pass = 0; pass < 2; ++pass) {
    SCOPED_TRACE(pass);
    auto repo = Open();
    ASSERT_TRUE(repo);
    const auto contents = Contents(repo);
    ExpectWhole(contents);
    for (const auto& [aid, version] : stored) {
      if (erased.count({aid, version})) continue;
      ASSERT_TRUE(contents.count(aid)) << aid;
      EXPECT_TRUE(contents.at(aid).count(version)) << aid << " " << version;
    }
    for (const auto& [aid, version] : erased) {
      if (contents.count(aid)) {
        EXPECT_FALSE(contents.at(aid).count(version)) << "erased " << version;
      }
    }
    EXPECT_EQ(contents.at("shared").size(), static_cast<std::size_t>(kWriters * ((kStores + 2) / 3)));
    ASSERT_TRUE(repo->Compact().HasValue());
  }
}

TEST_F(RepositoryProcessesTest, KilledWritersLeaveWholeVersionsAndNoReusedSlot) {
  Open().reset();
  std::mt19937 random(static_cast<unsigned>(::getpid()));
  constexpr int kWriters = 3;
  std::vector<pid_t> children;
  for (int w = 0; w < kWriters; ++w) {
    children.push_back(Spawn("k" + std::to_string(w), [this, w](const auto& report) {
      auto repo = OpenInChild();
      if (!repo) return false;
      const std::string big(256 * 1024, static_cast<char>('a' + w));
      for (int k = 0;; ++k) {
        auto stored = repo->StoreAsset(Id("shared"), MakeText(big + std::to_string(w) + "/" + std::to_string(k)), nullptr);
        if (stored.HasError()) return false;
        (void)repo->StoreMetaData(*stored, kNote, Data(std::to_string(w) + "/" + std::to_string(k)), 2);
        report("shared", (*stored)->GetIdAndVersion().second.ToString());
      }
    }));
  }
  // Each writer is killed at its own random moment, within a few hundred milliseconds of the first
  // finished store (a slow build may need seconds to get there; the check below needs one).
  for (int waited = 0; waited < 3000 && ReadReport("k0").empty(); ++waited) ::usleep(10000);
  for (pid_t child : children) {
    ::usleep(static_cast<useconds_t>(50000 + random() % 250000));
    ::kill(child, SIGKILL);
  }
  for (pid_t child : children) {
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status)) << "writer ended with " << status;
  }
  Reported stored;
  for (int w = 0; w < kWriters; ++w) {
    const Reported r = ReadReport("k" + std::to_string(w));
    stored.insert(r.begin(), r.end());
  }
  auto repo = Open();
  const auto contents = Contents(repo);
  ExpectWhole(contents);
  for (const auto& [aid, version] : stored) EXPECT_TRUE(contents.at(aid).count(version)) << version;

  // A store after the crash never lands in a directory that a killed store left: it carries no
  // metadata of another content. A left-over directory just above the newest version is made
  // sure of, with a note of an earlier version in it.
  std::uint64_t highest = 0;
  fs::path noted;
  for (const auto& e : fs::directory_iterator(Root() / "shared")) {
    const std::string name = e.path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    highest = std::max<std::uint64_t>(highest, std::stoull(name));
    if (fs::exists(e.path() / "net.kelvo.test.note.meta")) noted = e.path() / "net.kelvo.test.note.meta";
  }
  ASSERT_FALSE(noted.empty());
  const fs::path leftover = Root() / "shared" / std::to_string(highest + 1);
  fs::create_directories(leftover);
  WriteFile(leftover / kIncompleteMarker, "");
  fs::copy_file(noted, leftover / "net.kelvo.test.note.meta", fs::copy_options::overwrite_existing);
  auto fresh = Store(repo, "shared", "after the crash");
  ASSERT_TRUE(fresh);
  auto note = fresh->GetMetaData()->Get(kNote);
  ASSERT_TRUE(note.HasValue());
  EXPECT_FALSE(note->has_value());
  auto reopened = Open();
  auto latest = Latest(reopened, "shared");
  ASSERT_TRUE(latest);
  EXPECT_EQ(LoadText(latest), "after the crash");
  auto reread = latest->GetMetaData()->Get(kNote);
  ASSERT_TRUE(reread.HasValue());
  EXPECT_FALSE(reread->has_value());
}

// In one process: erasing the last version of an Id while a store of the same Id runs. The store
// that succeeds is found, by this object and after reopening.
TEST_F(RepositoryProcessesTest, EraseOfTheLastVersionDuringAStoreLosesNoStore) {
  auto repo = Open();
  for (int round = 0; round < 60; ++round) {
    SCOPED_TRACE(round);
    auto first = Store(repo, "x", "first " + std::to_string(round));
    ASSERT_TRUE(first);
    Result<AssetDescription> second = AssetDescription();
    std::thread storer([&] { second = repo->StoreAsset(Id("x"), MakeText("second " + std::to_string(round)), nullptr); });
    auto erased = repo->EraseAsset(first);
    storer.join();
    ASSERT_TRUE(erased.HasValue()) << erased.GetError().ToString();
    ASSERT_TRUE(second.HasValue()) << second.GetError().ToString();
    auto latest = Latest(repo, "x");
    ASSERT_TRUE(latest);
    EXPECT_EQ(latest->GetIdAndVersion().second, (*second)->GetIdAndVersion().second);
    ASSERT_TRUE(repo->EraseAsset(latest).HasValue());
  }
  EXPECT_EQ(Contents(Open()).count("x"), 0u);
  auto last = Store(repo, "x", "kept");
  ASSERT_TRUE(last);
  EXPECT_EQ(LoadText(Latest(Open(), "x")), "kept");
}

} // namespace
