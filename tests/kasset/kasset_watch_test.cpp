// kasset's watch folder commands driven as a subprocess: a watched folder is listed by ls like
// any database in later runs, keeps its state in the list, and goes again on remove; following a
// folder prints its changes until the process is interrupted.

#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>

#include "kasset_runner.h"

namespace {

namespace fs = std::filesystem;
using kelvo::testing::KassetRun;

extern "C" char** environ;

// "kasset watch DIR --follow" running in the background, its standard output read through a pipe.
class FollowingKasset {
public:
  FollowingKasset(const fs::path& root, const fs::path& folder) {
    int fds[2];
    if (::pipe(fds) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    posix_spawn_file_actions_addclose(&actions, fds[1]);
    std::vector<std::string> env = {"KELVO_PREFS_DIR=" + (root / "prefs").string(),
                                    "KELVO_GLOBALPREFS_DIR=" + (root / "gprefs").string(),
                                    "KELVO_LIBRARY_DIR=" + (root / "library").string()};
    std::vector<char*> envp;
    for (std::string& e : env) envp.push_back(e.data());
    for (char** e = environ; *e; ++e)
      if (!std::string_view(*e).starts_with("KELVO_")) envp.push_back(*e);
    envp.push_back(nullptr);
    std::vector<std::string> args = {KASSET_BINARY, "watch", folder.string(), "--follow"};
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    if (posix_spawn(&_pid, KASSET_BINARY, &actions, nullptr, argv.data(), envp.data()) != 0) _pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    ::close(fds[1]);
    _out = fds[0];
  }
  ~FollowingKasset() {
    if (_pid > 0) {
      ::kill(_pid, SIGKILL);
      ::waitpid(_pid, nullptr, 0);
    }
    if (_out >= 0) ::close(_out);
  }
  bool Started() const { return _pid > 0; }

  // Reads output until it holds every one of lines, for at most seconds; whether it did.
  bool WaitForLines(const std::vector<std::string>& lines, double seconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    for (;;) {
      bool all = true;
      for (const std::string& line : lines) all = all && ("\n" + output).find("\n" + line + "\n") != std::string::npos;
      if (all) return true;
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
      if (left.count() <= 0) return false;
      pollfd p{_out, POLLIN, 0};
      if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
      char buffer[4096];
      const ssize_t n = ::read(_out, buffer, sizeof buffer);
      if (n <= 0) return false;
      output.append(buffer, static_cast<std::size_t>(n));
    }
  }

  // Sends SIGINT and waits for the exit; the exit code, -1 when it didn't exit normally.
  int Interrupt() {
    ::kill(_pid, SIGINT);
    int status = 0;
    const pid_t done = ::waitpid(_pid, &status, 0);
    _pid = -1;
    return done > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  std::string output;

private:
  pid_t _pid = -1;
  int _out = -1;
};

class KassetWatchTest : public kelvo::testing::KassetFixture {
protected:
  void SetUp() override {
    KassetFixture::SetUp();
    fs::create_directories(root / "library" / "assets");
    Write(root / "Photos" / "beach.png", "png");
    Write(root / "Photos" / "Trips" / "alps.jpg", "jpg");
  }
};

TEST_F(KassetWatchTest, AddListLsRemove) {
  const std::string dir = (root / "Photos").string();
  KassetRun added = Kasset({"watch", "add", dir});
  ASSERT_EQ(added.code, 0) << added.err;
  EXPECT_NE(added.out.find("2 files, 1 folders"), std::string::npos) << added.out;

  // A later run mounts it from the list; ls reaches its files and folders.
  KassetRun ls = Kasset({"ls"});
  ASSERT_EQ(ls.code, 0) << ls.err;
  for (const char* name : {"beach.png", "alps.jpg", "Trips"}) EXPECT_NE(ls.out.find(name), std::string::npos) << name;
  KassetRun list = Kasset({"watch", "list"});
  ASSERT_EQ(list.code, 0) << list.err;
  EXPECT_NE(list.out.find(dir), std::string::npos);
  EXPECT_NE(list.out.find("mounted as watchfolder@"), std::string::npos) << list.out;

  // The folder is never written to.
  std::size_t entries = 0;
  for (auto it = fs::recursive_directory_iterator(root / "Photos"); it != fs::recursive_directory_iterator(); ++it) ++entries;
  EXPECT_EQ(entries, 3u);

  ASSERT_EQ(Kasset({"watch", "remove", dir}).code, 0);
  EXPECT_EQ(Kasset({"ls"}).out.find("beach.png"), std::string::npos);
  EXPECT_EQ(Kasset({"watch", "remove", dir}).code, 3);
}

TEST_F(KassetWatchTest, BadInput) {
  EXPECT_EQ(Kasset({"watch", "add", (root / "missing").string()}).code, 3);
  EXPECT_EQ(Kasset({"watch", "add"}).code, 2);
  EXPECT_EQ(Kasset({"watch", "list", "extra"}).code, 2);
  EXPECT_EQ(Kasset({"watch", (root / "Photos").string()}).code, 2); // --follow is needed
  // A folder that is an asset database can't be a watch folder.
  std::ofstream(root / "Photos" / "databaseid") << "db";
  KassetRun db = Kasset({"watch", "add", (root / "Photos").string()});
  EXPECT_EQ(db.code, 1);
  EXPECT_NE(db.err.find("cannot be added as watch folder"), std::string::npos) << db.err;
}

TEST_F(KassetWatchTest, FollowPrintsTheChangesUntilInterrupted) {
  const fs::path photos = root / "Photos";
  FollowingKasset follow(root, photos);
  ASSERT_TRUE(follow.Started());
  ASSERT_TRUE(follow.WaitForLines({"watching " + photos.string() + ": 3 files and folders (Ctrl-C ends)"}, 20))
      << follow.output;
  std::ofstream(photos / "new.txt") << "new";
  fs::create_directory(photos / "Winter");
  std::ofstream(photos / "Winter" / "snow.jpg") << "snow";
  fs::rename(photos / "beach.png", photos / "sea.png");
  fs::remove(photos / "Trips" / "alps.jpg");
  EXPECT_TRUE(follow.WaitForLines(
      {"+ new.txt", "+ Winter", "+ Winter/snow.jpg", "+ sea.png", "- beach.png", "- Trips/alps.jpg"}, 30))
      << follow.output;
  EXPECT_EQ(follow.Interrupt(), 0) << follow.output;
}

} // namespace
