// kasset's watch folder commands driven as a subprocess: a watched folder is listed by ls like
// any database in later runs, keeps its state in the list, and goes again on remove.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "kasset_runner.h"

namespace {

namespace fs = std::filesystem;
using kelvo::testing::KassetRun;

class KassetWatchTest : public ::testing::Test {
protected:
  void SetUp() override {
    root = fs::temp_directory_path() / ("kasset_watch_" + std::to_string(::getpid()));
    fs::create_directories(root / "library" / "assets");
    fs::create_directories(root / "Photos" / "Trips");
    std::ofstream(root / "Photos" / "beach.png") << "png";
    std::ofstream(root / "Photos" / "Trips" / "alps.jpg") << "jpg";
  }
  void TearDown() override {
    std::error_code ec;
    fs::remove_all(root, ec);
  }
  KassetRun Kasset(const std::vector<std::string>& args) { return kelvo::testing::RunKasset(root, args); }
  fs::path root;
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

} // namespace
