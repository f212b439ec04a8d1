// Live updates on real directories through inotify: changes converge, a burst of changes costs
// few rescans, the pause grows and is capped, and an exhausted watch limit falls back to
// periodic rescans.

#include "kelvo/log.h"
#include "watchfolder_test_util.h"

namespace kelvo::test {
namespace {

using Listed = std::map<std::string, std::string>;

TEST_F(WatchFolderTest, AddRenameMoveAndDeleteWhileWatchedConverge) {
  Write(_folder / "a.txt", "a");
  Write(_folder / "Dir" / "b.txt", "b");
  auto repo = Open();
  ASSERT_TRUE(repo);
  std::vector<std::string> added;
  std::mutex lock;
  repo->SetChangeReceiver([&](const WatchFolderChanges& c) {
    std::lock_guard guard(lock);
    added.insert(added.end(), c.added.begin(), c.added.end());
  });

  Write(_folder / "new.txt", "n");
  fs::rename(_folder / "a.txt", _folder / "renamed.txt");
  fs::create_directories(_folder / "Other");
  fs::rename(_folder / "Dir" / "b.txt", _folder / "Other" / "b.txt");
  Write(_folder / "Tree" / "x" / "y.txt", "deep");
  const Listed expected{{"", "d"},           {"new.txt", "f"},     {"renamed.txt", "f"}, {"Dir", "d"},
                        {"Other", "d"},      {"Other/b.txt", "f"}, {"Tree", "d"},        {"Tree/x", "d"},
                        {"Tree/x/y.txt", "f"}};
  EXPECT_TRUE(Eventually([&] { return Listing(*repo) == expected; })) << "listing did not converge";
  {
    std::lock_guard guard(lock);
    EXPECT_NE(std::find(added.begin(), added.end(), "Tree/x/y.txt"), added.end());
  }

  // A directory moved and one deleted with its content.
  fs::rename(_folder / "Tree", _folder / "Other" / "Tree");
  fs::remove_all(_folder / "Dir");
  const Listed moved{{"", "d"},
                     {"new.txt", "f"},
                     {"renamed.txt", "f"},
                     {"Other", "d"},
                     {"Other/b.txt", "f"},
                     {"Other/Tree", "d"},
                     {"Other/Tree/x", "d"},
                     {"Other/Tree/x/y.txt", "f"}};
  EXPECT_TRUE(Eventually([&] { return Listing(*repo) == moved; })) << "listing did not converge after the move";

  // A hidden file is noted and never listed.
  Write(_folder / ".partial", "x");
  Write(_folder / "last.txt", "x");
  EXPECT_TRUE(Eventually([&] { return Listing(*repo).count("last.txt") == 1; }));
  EXPECT_EQ(Listing(*repo).count(".partial"), 0u);
  repo->SetChangeReceiver(nullptr);
}

TEST_F(WatchFolderTest, CopyingAThousandFilesCostsABoundedNumberOfRescans) {
  auto repo = Open();
  ASSERT_TRUE(repo);
  const std::uint64_t before = repo->GetScanCount();
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 1000; ++i) Write(_folder / ("f" + std::to_string(i) + ".dat"), std::string(64, 'x'));
  const double writing = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_TRUE(Eventually([&] { return Listing(*repo).size() == 1001; }, 20.0));
  // The pause grows with each change up to its limit, so the burst is rescanned a few times, not
  // per file: at most once per limit of copying (a slow machine copies longer), and a few more.
  EXPECT_LE(repo->GetScanCount() - before, static_cast<std::uint64_t>(writing / GetWatchFolderTimings().limit) + 10u);
  EXPECT_GE(repo->GetScanCount() - before, 1u);
}

TEST_F(WatchFolderTest, PauseGrowsWithTheRateOfChangesAndStartsOverAfterAQuietTime) {
  WatchFolderTimings timings = GetWatchFolderTimings();
  timings.startDelay = 0.5;
  timings.step = 0.5;
  timings.limit = 3.0;
  timings.quietTime = 0.6;
  SetWatchFolderTimings(timings);
  auto repo = Open();
  ASSERT_TRUE(repo);
  EXPECT_EQ(repo->GetUpdateDelay(), 0.5);
  // Thirteen changes in quick succession: 0.5 + 12 * 0.5 would be 6.5, the limit holds it at 3.
  for (int i = 0; i < 13; ++i) Write(_folder / ("c" + std::to_string(i)), "x");
  EXPECT_TRUE(Eventually([&] { return repo->GetUpdateDelay() == 3.0; }, 5.0)) << repo->GetUpdateDelay();
  EXPECT_TRUE(Eventually([&] { return Listing(*repo).size() == 14; }, 10.0));
  // After the quiet time the next change starts over.
  std::this_thread::sleep_for(std::chrono::milliseconds(700));
  Write(_folder / "after-quiet", "x");
  // One write is several events (created, modified), so the pause may have grown by a step since.
  EXPECT_TRUE(Eventually([&] { return repo->GetUpdateDelay() <= 1.0; }, 5.0)) << repo->GetUpdateDelay();
}

TEST_F(WatchFolderTest, ExhaustedWatchLimitIsReportedOnceAndRescansStillConverge) {
  for (const char* dir : {"A", "B", "C"}) Write(_folder / dir / "old.txt", "x");
  WatchFolderTimings timings = GetWatchFolderTimings();
  timings.maxWatches = 1; // only the root is watched
  SetWatchFolderTimings(timings);
  std::vector<std::string> warnings;
  std::mutex lock;
  LogSink previous = SetLogSink([&](LOGLEVEL level, const std::string& line) {
    std::lock_guard guard(lock);
    if (level == LOGLEVEL::WARNING) warnings.push_back(line);
  });
  auto repo = Open();
  ASSERT_TRUE(repo);
  EXPECT_TRUE(Eventually([&] { return repo->IsWatchLimitReached(); }, 5.0));
  EXPECT_EQ(repo->GetData(watchfolderkeys::watchlimitreached).Get<bool>(), std::optional<bool>(true));

  // B isn't watched: only the periodic rescans find what changes there.
  Write(_folder / "B" / "new.txt", "n");
  fs::remove(_folder / "C" / "old.txt");
  EXPECT_TRUE(Eventually([&] {
    auto l = Listing(*repo);
    return l.count("B/new.txt") == 1 && l.count("C/old.txt") == 0;
  }));
  repo.reset();
  SetLogSink(previous);
  std::lock_guard guard(lock);
  EXPECT_EQ(std::count_if(warnings.begin(), warnings.end(),
                          [](const std::string& w) { return w.find("is rescanned every") != std::string::npos; }),
            1);
}

} // namespace
} // namespace kelvo::test
