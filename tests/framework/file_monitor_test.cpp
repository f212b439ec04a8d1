#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#include "kelvo/file_monitor.h"
#include "kelvo/log.h"
#include "temp_tree.h"

using namespace kelvo;
namespace fs = std::filesystem;
using STATE = FileMonitor::STATE;

namespace {

// Records the events of a monitor and lets the test wait for one.
class Recorder {
public:
  void operator()(const FileMonitor::Event& event) {
    std::lock_guard guard(_lock);
    _events.push_back(event);
    _changed.notify_all();
  }

  // Waits until an event satisfies pred; false after 10 seconds.
  template <typename P> bool WaitFor(P pred) {
    std::unique_lock guard(_lock);
    return _changed.wait_for(guard, std::chrono::seconds(10), [&] {
      return std::any_of(_events.begin(), _events.end(), pred);
    });
  }
  bool WaitFor(STATE state, const fs::path& path) {
    return WaitFor([&](const FileMonitor::Event& e) { return e.state == state && e.url.GetPath() == path.string(); });
  }
  std::vector<FileMonitor::Event> Events() {
    std::lock_guard guard(_lock);
    return _events;
  }
  std::size_t CountPath(const fs::path& path) {
    auto events = Events();
    return std::count_if(events.begin(), events.end(),
                         [&](const FileMonitor::Event& e) { return e.url.GetPath() == path.string(); });
  }

private:
  std::mutex _lock;
  std::condition_variable _changed;
  std::vector<FileMonitor::Event> _events;
};

class FileMonitorTest : public kelvo::testing::TempTreeTest {
protected:
  void SetUp() override {
    TempTreeTest::SetUp();
    _root = _dir / "root";
    _outside = _dir / "outside";
    fs::create_directories(_root);
    fs::create_directories(_outside);
  }
  void TearDown() override {
    _monitor.reset();
    TempTreeTest::TearDown();
  }

  void Start(FileMonitor::Options options = FileMonitor::Options()) {
    auto monitor = FileMonitor::WatchDirectory(Url::FromFile(_root.string()), true,
                                               [this](const FileMonitor::Event& e) { _recorder(e); }, options);
    ASSERT_TRUE(monitor.HasValue()) << monitor.GetError().ToString();
    _monitor = std::move(*monitor);
  }

  static void Touch(const fs::path& p, const std::string& content = "x") { std::ofstream(p) << content; }

  // Events of one monitor arrive in order: once the event of a fresh marker file is in, every
  // event caused before it has been delivered too.
  void Sync() {
    const fs::path marker = _root / ("marker" + std::to_string(_markers++));
    Touch(marker);
    ASSERT_TRUE(_recorder.WaitFor(STATE::MODIFIED, marker));
  }

  fs::path _root, _outside;
  Recorder _recorder;
  std::unique_ptr<FileMonitor> _monitor;
  int _markers = 0;
};

TEST_F(FileMonitorTest, FileLifecycleInTheRootIsReportedInOrder) {
  Start();
  Touch(_root / "a.txt");
  ASSERT_TRUE(_recorder.WaitFor(STATE::MODIFIED, _root / "a.txt"));
  fs::rename(_root / "a.txt", _root / "b.txt");
  ASSERT_TRUE(_recorder.WaitFor(STATE::RENAMED, _root / "b.txt"));
  fs::permissions(_root / "b.txt", fs::perms::owner_read);
  ASSERT_TRUE(_recorder.WaitFor(STATE::METADATA, _root / "b.txt"));
  fs::remove(_root / "b.txt");
  ASSERT_TRUE(_recorder.WaitFor(STATE::DELETED, _root / "b.txt"));

  std::vector<STATE> states;
  for (const auto& e : _recorder.Events()) {
    EXPECT_EQ(e.watched.GetPath(), _root.string());
    states.push_back(e.state);
    if (e.state == STATE::RENAMED) {
      EXPECT_EQ(e.from.GetPath(), (_root / "a.txt").string());
    }
  }
  EXPECT_EQ(states, (std::vector<STATE>{STATE::CREATED, STATE::MODIFIED, STATE::RENAMED, STATE::METADATA,
                                        STATE::DELETED}));
}

TEST_F(FileMonitorTest, TreesCreatedMovedInRenamedAndMovedOutKeepCorrectPaths) {
  fs::create_directories(_root / "existing" / "deep");
  Start();
  EXPECT_EQ(_monitor->GetStatus().watches, 3u);

  // A tree made at once: entries that beat the new watch are reported from the walk.
  fs::create_directories(_root / "x" / "y" / "z");
  Touch(_root / "x" / "y" / "z" / "f");
  ASSERT_TRUE(_recorder.WaitFor(STATE::CREATED, _root / "x" / "y" / "z" / "f"));

  // A tree moved in from outside gets watches on all its levels.
  fs::create_directories(_outside / "in" / "sub");
  fs::rename(_outside / "in", _root / "in");
  ASSERT_TRUE(_recorder.WaitFor(STATE::MOVED_IN, _root / "in"));
  Touch(_root / "in" / "sub" / "g");
  ASSERT_TRUE(_recorder.WaitFor(STATE::MODIFIED, _root / "in" / "sub" / "g"));

  // A directory renamed inside the tree: later events carry the new path.
  fs::rename(_root / "x", _root / "x2");
  ASSERT_TRUE(_recorder.WaitFor(STATE::RENAMED, _root / "x2"));
  Touch(_root / "x2" / "y" / "h");
  ASSERT_TRUE(_recorder.WaitFor(STATE::MODIFIED, _root / "x2" / "y" / "h"));
  EXPECT_EQ(_monitor->GetStatus().watches, 8u);

  // Moved out: reported, and what happens to it out there isn't.
  fs::rename(_root / "x2", _outside / "gone");
  ASSERT_TRUE(_recorder.WaitFor(STATE::MOVED_OUT, _root / "x2"));
  Touch(_outside / "gone" / "y" / "late");
  Sync();
  for (const auto& e : _recorder.Events()) EXPECT_EQ(e.url.GetPath().find("late"), std::string::npos);
  EXPECT_EQ(_monitor->GetStatus().watches, 5u);

  // A tree deleted: each entry reported, its watches dropped.
  fs::remove_all(_root / "existing");
  ASSERT_TRUE(_recorder.WaitFor(STATE::DELETED, _root / "existing"));
  EXPECT_EQ(_recorder.CountPath(_root / "existing" / "deep"), 1u);
  Sync();
  EXPECT_EQ(_monitor->GetStatus().watches, 3u);
  EXPECT_FALSE(_monitor->GetStatus().watchLimitReached);
  EXPECT_FALSE(_monitor->GetStatus().overflowed);
}

TEST_F(FileMonitorTest, NonRecursiveMonitorWatchesOnlyItsOwnDirectory) {
  fs::create_directories(_root / "sub");
  auto monitor = FileMonitor::WatchDirectory(Url::FromFile(_root.string()), false,
                                             [this](const FileMonitor::Event& e) { _recorder(e); });
  ASSERT_TRUE(monitor.HasValue());
  EXPECT_EQ((*monitor)->GetStatus().watches, 1u);
  Touch(_root / "sub" / "inner");
  fs::create_directories(_root / "new" / "deeper");
  ASSERT_TRUE(_recorder.WaitFor(STATE::CREATED, _root / "new"));
  Sync();
  EXPECT_EQ(_recorder.CountPath(_root / "sub" / "inner"), 0u);
  EXPECT_EQ(_recorder.CountPath(_root / "new" / "deeper"), 0u);
  EXPECT_EQ((*monitor)->GetStatus().watches, 1u);
}

TEST_F(FileMonitorTest, CallerWalkWatchesWhatItEntersAndTheMonitorWhatAppearsLater) {
  for (const char* d : {"a/b", "c", "d"}) fs::create_directories(_root / d);
  FileMonitor::Options options;
  options.callerWalks = true;
  options.maxWatches = 4;
  Start(options);
  EXPECT_EQ(_monitor->GetStatus().watches, 1u) << "the root only, until the caller enters more";
  EXPECT_FALSE(_monitor->WatchEntered("a/b")) << "its parent was not entered";
  EXPECT_TRUE(_monitor->WatchEntered("a"));
  EXPECT_TRUE(_monitor->WatchEntered("a/b"));
  EXPECT_EQ(_monitor->GetStatus().watches, 3u);
  Touch(_root / "a" / "b" / "f");
  ASSERT_TRUE(_recorder.WaitFor(STATE::MODIFIED, _root / "a" / "b" / "f"));

  // A directory made later is watched by the monitor itself; then the limit is reached, once.
  fs::create_directories(_root / "a" / "new");
  ASSERT_TRUE(_recorder.WaitFor(STATE::CREATED, _root / "a" / "new"));
  Sync();
  EXPECT_EQ(_monitor->GetStatus().watches, 4u);
  EXPECT_FALSE(_monitor->WatchEntered("c"));
  EXPECT_FALSE(_monitor->WatchEntered("d"));
  ASSERT_TRUE(_recorder.WaitFor([](const auto& e) { return e.reason == FileMonitor::RESCANREASON::WATCHLIMIT; }));
  EXPECT_TRUE(_monitor->GetStatus().watchLimitReached);
  Touch(_root / "a" / "new" / "g");
  ASSERT_TRUE(_recorder.WaitFor(STATE::MODIFIED, _root / "a" / "new" / "g"));
  auto events = _recorder.Events();
  EXPECT_EQ(std::count_if(events.begin(), events.end(), [](const auto& e) { return e.state == STATE::RESCAN; }), 1);
}

TEST_F(FileMonitorTest, SymlinksAreNeverFollowedOutOfTheTree) {
  fs::create_directories(_root / "sub");
  fs::create_directory_symlink(_outside, _root / "link");
  Start();
  EXPECT_EQ(_monitor->GetStatus().watches, 2u) << "root and sub, not the symlink";

  // The watched directory "sub" is replaced by a symlink to the outside.
  fs::remove(_root / "sub");
  fs::create_directory_symlink(_outside, _root / "sub");
  ASSERT_TRUE(_recorder.WaitFor(STATE::CREATED, _root / "sub"));
  Touch(_outside / "secret");
  Sync();
  for (const auto& e : _recorder.Events()) EXPECT_EQ(e.url.GetPath().find("secret"), std::string::npos);
  EXPECT_EQ(_monitor->GetStatus().watches, 1u);

  EXPECT_TRUE(FileMonitor::WatchDirectory(Url::FromFile((_root / "link").string()), true,
                                          [](const FileMonitor::Event&) {})
                  .HasError())
      << "a symlinked root is refused";
}

TEST_F(FileMonitorTest, BurstOfAThousandFilesIsDeliveredOrSignalled) {
  Start();
  constexpr int kFiles = 1000;
  for (int i = 0; i < kFiles; ++i) Touch(_root / ("f" + std::to_string(i)));
  Sync();
  auto events = _recorder.Events();
  const bool overflow = std::any_of(events.begin(), events.end(), [](const auto& e) {
    return e.state == STATE::RESCAN && e.reason == FileMonitor::RESCANREASON::OVERFLOW;
  });
  if (!overflow) {
    std::vector<bool> seen(kFiles);
    for (const auto& e : events) {
      const std::string name = e.url.GetName();
      if (e.state == STATE::MODIFIED && name[0] == 'f') seen[std::stoi(name.substr(1))] = true;
    }
    EXPECT_EQ(std::count(seen.begin(), seen.end(), true), kFiles);
  }
  EXPECT_EQ(_monitor->GetStatus().overflowed, overflow);
}

TEST_F(FileMonitorTest, QueueOverflowIsSignalledAndDeliveryGoesOn) {
  std::ifstream limitFile("/proc/sys/fs/inotify/max_queued_events");
  long queueLimit = 0;
  limitFile >> queueLimit;
  if (queueLimit <= 0 || queueLimit > 100000) GTEST_SKIP() << "queue limit " << queueLimit << " is too large to fill";

  // The first event blocks the monitor thread while the test fills the kernel's queue. The
  // monitor sits at its watch limit as well: the resynchronisation after the overflow must keep
  // the watches it has.
  fs::create_directories(_root / "d");
  FileMonitor::Options options;
  options.maxWatches = 2;
  std::mutex gate;
  std::unique_lock closed(gate);
  std::atomic<int> overflows{0};
  auto monitor = FileMonitor::WatchDirectory(
      Url::FromFile(_root.string()), true,
      [&](const FileMonitor::Event& e) {
        { std::lock_guard wait(gate); }
        if (e.state == STATE::RESCAN && e.reason == FileMonitor::RESCANREASON::OVERFLOW) ++overflows;
        _recorder(e);
      },
      options);
  ASSERT_TRUE(monitor.HasValue());
  fs::create_directories(_root / "e");  // over the limit
  // Two events per file; the thread may have read up to one buffer before it blocked.
  for (long i = 0; i < queueLimit + 1000; ++i) Touch(_root / ("f" + std::to_string(i)), "");
  closed.unlock();

  ASSERT_TRUE(_recorder.WaitFor([](const auto& e) { return e.reason == FileMonitor::RESCANREASON::OVERFLOW; }));
  EXPECT_GE(overflows.load(), 1);
  const FileMonitor::Status status = (*monitor)->GetStatus();
  EXPECT_TRUE(status.overflowed);
  EXPECT_TRUE(status.watchLimitReached);
  EXPECT_EQ(status.watches, 2u);
  Touch(_root / "d" / "after");
  ASSERT_TRUE(_recorder.WaitFor(STATE::MODIFIED, _root / "d" / "after"));
}

TEST_F(FileMonitorTest, WatchLimitIsReportedOnceAndWatchedPartsKeepReporting) {
  for (const char* d : {"a", "b", "c", "d", "e"}) fs::create_directories(_root / d);
  std::atomic<int> warnings{0};
  LogSink previous = SetLogSink([&](LOGLEVEL level, const std::string&) {
    if (level == LOGLEVEL::WARNING) ++warnings;
  });
  FileMonitor::Options options;
  options.maxWatches = 3;
  Start(options);
  ASSERT_TRUE(_recorder.WaitFor([](const auto& e) { return e.reason == FileMonitor::RESCANREASON::WATCHLIMIT; }));
  EXPECT_TRUE(_monitor->GetStatus().watchLimitReached);
  EXPECT_EQ(_monitor->GetStatus().watches, 3u);

  fs::create_directories(_root / "f" / "g");
  Touch(_root / "top");
  ASSERT_TRUE(_recorder.WaitFor(STATE::CREATED, _root / "f"));
  Sync();
  auto events = _recorder.Events();
  EXPECT_EQ(std::count_if(events.begin(), events.end(), [](const auto& e) { return e.state == STATE::RESCAN; }), 1);
  EXPECT_EQ(_recorder.CountPath(_root / "top"), 2u) << "CREATED and MODIFIED in the watched root";
  EXPECT_EQ(warnings.load(), 1);
  SetLogSink(previous);
}

TEST_F(FileMonitorTest, NoDelegateRunsAfterStopWhileEventsPourIn) {
  std::atomic<bool> stopped{false};
  std::atomic<int> late{0};
  std::atomic<int> delivered{0};
  auto monitor = FileMonitor::WatchDirectory(Url::FromFile(_root.string()), true, [&](const FileMonitor::Event&) {
    if (stopped) ++late;
    ++delivered;
  });
  ASSERT_TRUE(monitor.HasValue());
  std::atomic<bool> writing{true};
  std::thread writer([&] {
    for (int i = 0; writing; ++i) Touch(_root / ("f" + std::to_string(i % 200)));
  });
  while (delivered.load() < 100) std::this_thread::yield();
  (*monitor)->Stop();
  stopped = true;
  const int atStop = delivered.load();
  Touch(_root / "after-stop");
  writing = false;
  writer.join();
  EXPECT_EQ(late.load(), 0);
  EXPECT_EQ(delivered.load(), atStop);
  (*monitor)->Stop();  // a second Stop is harmless
}

TEST_F(FileMonitorTest, StopFromTheDelegateAndFromAnotherThreadAtOnceEndsTheMonitor) {
  // Atomic, so the delegate's thread sees the monitor object built by this one.
  std::atomic<FileMonitor*> self{nullptr};
  std::atomic<bool> inDelegate{false};
  std::atomic<int> calls{0};
  auto monitor = FileMonitor::WatchDirectory(Url::FromFile(_root.string()), true, [&](const FileMonitor::Event&) {
    ++calls;
    inDelegate = true;
    // Gives the other thread time to enter Stop while this one is still in the delegate.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    self.load()->Stop();
  });
  ASSERT_TRUE(monitor.HasValue());
  self.store(monitor->get());
  Touch(_root / "a");
  while (!inDelegate) std::this_thread::yield();
  (*monitor)->Stop();
  EXPECT_EQ(calls.load(), 1) << "the delegate's Stop lets no further event through";
  monitor->reset();
}

TEST_F(FileMonitorTest, DelegateMayDestroyItsOwnMonitor) {
  std::unique_ptr<FileMonitor> monitor;
  std::mutex lock;
  std::condition_variable done;
  bool destroyed = false;
  auto created = FileMonitor::WatchDirectory(Url::FromFile(_root.string()), true, [&](const FileMonitor::Event&) {
    std::lock_guard guard(lock);
    if (destroyed || !monitor) return;
    monitor.reset();
    destroyed = true;
    done.notify_all();
  });
  ASSERT_TRUE(created.HasValue());
  {
    std::lock_guard guard(lock);
    monitor = std::move(*created);
  }
  Touch(_root / "a");
  std::unique_lock guard(lock);
  EXPECT_TRUE(done.wait_for(guard, std::chrono::seconds(10), [&] { return destroyed; }));
}

} // namespace
