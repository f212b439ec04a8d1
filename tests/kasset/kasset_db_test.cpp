// kasset's database commands driven as a subprocess: the user's list survives between runs,
// mounted databases are searched by the other commands, and the graph file is written.

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "kasset_runner.h"
#include "nginx_server.h"

namespace {

namespace fs = std::filesystem;
using kelvo::testing::KassetRun;
using kelvo::testing::ReadFile;

class KassetDbTest : public kelvo::testing::KassetFixture {
protected:
  void SetUp() override {
    KassetFixture::SetUp();
    fs::create_directories(root / "library" / "assets");
    Write(root / "notes.txt", "notes in a database\n");
  }
  // A database in dir holding notes.txt under the Id "notes".
  void MakeDatabase(const fs::path& dir) {
    ASSERT_EQ(Kasset({"init", dir.string()}).code, 0);
    KassetRun added = Kasset({"--repo", dir.string(), "add", "--id", "notes", (root / "notes.txt").string()});
    ASSERT_EQ(added.code, 0) << added.err;
  }
};

TEST_F(KassetDbTest, AddListDeactivateRemove) {
  MakeDatabase(root / "mydb");
  const std::string db = (root / "mydb").string();

  KassetRun added = Kasset({"db", "add", db});
  ASSERT_EQ(added.code, 0) << added.err;
  EXPECT_NE(added.out.find("added: " + db), std::string::npos);
  EXPECT_NE(added.out.find("mounted as "), std::string::npos);
  // A later run finds the list in the settings and searches the database.
  KassetRun ls = Kasset({"ls", "--ids"});
  ASSERT_EQ(ls.code, 0) << ls.err;
  EXPECT_NE(ls.out.find("notes"), std::string::npos);
  KassetRun list = Kasset({"db", "list"});
  ASSERT_EQ(list.code, 0) << list.err;
  EXPECT_NE(list.out.find("user    mounted"), std::string::npos) << list.out;
  EXPECT_NE(list.out.find(db), std::string::npos);
  EXPECT_EQ(Kasset({"db", "add", db}).code, 1); // listed already

  ASSERT_EQ(Kasset({"db", "deactivate", db}).code, 0);
  EXPECT_EQ(Kasset({"ls", "--ids"}).out.find("notes"), std::string::npos);
  EXPECT_NE(Kasset({"db", "list"}).out.find("inactive"), std::string::npos);
  ASSERT_EQ(Kasset({"db", "activate", db}).code, 0);
  EXPECT_NE(Kasset({"ls", "--ids"}).out.find("notes"), std::string::npos);

  ASSERT_EQ(Kasset({"db", "remove", db}).code, 0);
  EXPECT_EQ(Kasset({"ls", "--ids"}).out.find("notes"), std::string::npos);
  EXPECT_EQ(Kasset({"db", "remove", db}).code, 3);
  EXPECT_EQ(Kasset({"db", "activate", db}).code, 3);
}

TEST_F(KassetDbTest, BadInputAndRemoteDatabases) {
  EXPECT_EQ(Kasset({"db", "add", (root / "missing").string()}).code, 3);
  EXPECT_EQ(Kasset({"db", "frobnicate"}).code, 2);
  EXPECT_EQ(Kasset({"db", "add"}).code, 2);
  EXPECT_EQ(Kasset({"db", "list", "extra"}).code, 2);

  // A remote database whose server is down and that was never cached is kept in the list and
  // reported as not mounted, with the request that failed.
  auto port = kelvo::test::FindFreeLoopbackPort();
  ASSERT_TRUE(port.HasValue());
  const std::string url = "http://127.0.0.1:" + std::to_string(*port) + "/lib";
  KassetRun remote = Kasset({"db", "add", url});
  ASSERT_EQ(remote.code, 0) << remote.err;
  EXPECT_NE(remote.err.find("not mounted: " + url + "/_index/modified.dat: "), std::string::npos) << remote.err;
  KassetRun list = Kasset({"db", "list"});
  EXPECT_NE(list.out.find("not mounted"), std::string::npos) << list.out;
  EXPECT_NE(list.out.find(url), std::string::npos);

  // A damaged archive in the library is listed with its error; the command still succeeds.
  std::ofstream(root / "library" / "assets" / "broken.zip") << "not an archive";
  KassetRun withBroken = Kasset({"db", "list"});
  ASSERT_EQ(withBroken.code, 0);
  EXPECT_NE(withBroken.out.find("archive  not mounted"), std::string::npos) << withBroken.out;
  EXPECT_NE(withBroken.err.find("broken.zip"), std::string::npos);
}

TEST_F(KassetDbTest, GraphIsWrittenWithoutTheVariable) {
  MakeDatabase(root / "library" / "assets" / "basics");
  KassetRun graph = Kasset({"graph"});
  ASSERT_EQ(graph.code, 0) << graph.err;
  const fs::path file = root / "prefs" / "assetrepository_deps.gml";
  EXPECT_NE(graph.out.find(file.string()), std::string::npos);
  const std::string text = ReadFile(file);
  EXPECT_EQ(text.rfind("graph [", 0), 0u);
  EXPECT_NE(text.find("Id: net.kelvo.repository.userprefs"), std::string::npos);
  EXPECT_NE(text.find("Id: net.kelvo.repository.builtin"), std::string::npos);
  EXPECT_NE(text.find("Writable: false"), std::string::npos); // the library database
}

// Link files in the library that are no regular text files: a FIFO, a link to /dev/zero, a file of
// gigabytes. Each is reported by name and skipped; a good link file beside them still mounts its
// database, and nothing waits or fills memory.
TEST_F(KassetDbTest, LinkFilesThatAreNoRegularFilesAreSkipped) {
  MakeDatabase(root / "mydb");
  const fs::path assets = root / "library" / "assets";
  std::ofstream(assets / "good.dat") << (root / "mydb").string() << "\n";
  ASSERT_EQ(::mkfifo((assets / "fifo.dat").c_str(), 0644), 0);
  fs::create_symlink("/dev/zero", assets / "zero.dat");
  const int fd = ::open((assets / "huge.dat").c_str(), O_WRONLY | O_CREAT, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::ftruncate(fd, off_t(4) << 30), 0); // sparse: nothing is allocated
  ::close(fd);

  ::alarm(60); // a hang ends the test binary instead of the suite
  KassetRun ls = Kasset({"ls", "--ids"});
  ::alarm(0);
  ASSERT_EQ(ls.code, 0) << ls.err;
  EXPECT_NE(ls.out.find("notes"), std::string::npos) << ls.out;
  for (const char* name : {"fifo.dat", "zero.dat", "huge.dat"}) EXPECT_NE(ls.err.find(name), std::string::npos) << name << ": " << ls.err;
  EXPECT_EQ(ls.err.find("good.dat"), std::string::npos) << ls.err;
}

} // namespace
