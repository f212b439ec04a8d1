// The SQLite store of watch folders: schema setup and migrations, a store from a newer version,
// damaged files, and the listing written as differences.

#include <sqlite3.h>

#include "watchfolder_store.h"
#include "watchfolder_test_util.h"

namespace kelvo::test {
namespace {

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Runs plain SQL on a database file with SQLite itself, to make stores of older versions.
void RawSql(const fs::path& file, const std::string& sql) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
  char* message = nullptr;
  EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message), SQLITE_OK) << (message ? message : "");
  sqlite3_free(message);
  sqlite3_close(db);
}

std::int64_t Count(const fs::path& file, const std::string& table) {
  auto db = SqlDatabase::Open(Url::FromFile(file.string()));
  EXPECT_TRUE(db.HasValue());
  std::int64_t n = -1;
  (void)(*db)->ExecuteSQLQuery("SELECT COUNT(*) FROM " + table + ";", {}, [&](const SqlStatement& row) -> Result<bool> {
    n = row.GetInt64(0);
    return false;
  });
  return n;
}

class WatchFolderStoreTest : public WatchFolderTest {
protected:
  fs::path StoreFile() { return _root / "store" / "w.db"; }
  Result<std::unique_ptr<WatchFolderStore>> OpenStore() { return WatchFolderStore::Open(Url::FromFile(StoreFile().string())); }
};

TEST_F(WatchFolderStoreTest, NewStoreHasAllTablesAndOneSchemaRowAndListingIsWrittenAsDifferences) {
  auto store = OpenStore();
  ASSERT_TRUE(store.HasValue()) << store.GetError().ToString();
  EXPECT_EQ(Count(StoreFile(), "schema"), 1);
  WatchListing first{{1, {1, "/", 0, {}, true}}, {2, {2, "/a.txt", 3, UniversalDateTime::FromValue(5), false}}};
  auto counts = (*store)->WriteListing({}, first);
  ASSERT_TRUE(counts.HasValue());
  EXPECT_EQ(counts->written, 2u);
  auto read = (*store)->ReadListing(false);
  ASSERT_TRUE(read.HasValue());
  EXPECT_EQ(*read, first);
  // Unchanged: nothing written; one row changed and one gone.
  EXPECT_EQ((*store)->WriteListing(first, first)->written, 0u);
  WatchListing second{{1, {1, "/", 0, {}, true}}, {3, {3, "/b.txt", 4, UniversalDateTime::FromValue(6), false}}};
  ASSERT_TRUE((*store)->StoreValue(2, "net.kelvo.asset.keywords.meta", "", Blob{1, 2}).HasValue());
  counts = (*store)->WriteListing(first, second);
  EXPECT_EQ(counts->written, 1u);
  EXPECT_EQ(counts->deleted, 1u);
  EXPECT_EQ(*(*store)->ReadListing(false), second);
  // The row that went took its metadata along.
  EXPECT_FALSE((*store)->ReadValue(2, "net.kelvo.asset.keywords.meta")->has_value());
}

TEST_F(WatchFolderStoreTest, OlderSchemasMigrateAndANewerOneIsRefusedUntouched) {
  {
    auto store = OpenStore();
    ASSERT_TRUE(store.HasValue());
    ASSERT_TRUE((*store)->WriteListing({}, {{1, {1, "/", 0, {}, true}}}).HasValue());
    ASSERT_TRUE((*store)->StoreValue(1, "k.meta", "", Blob{7}).HasValue());
  }
  // Version 5: the listing goes, the metadata stays.
  RawSql(StoreFile(), "DELETE FROM schema; INSERT INTO schema VALUES(5, 0);");
  {
    auto store = OpenStore();
    ASSERT_TRUE(store.HasValue()) << store.GetError().ToString();
    EXPECT_TRUE((*store)->ReadListing(false)->empty());
    EXPECT_EQ(*(*store)->ReadValue(1, "k.meta"), std::optional<Blob>(Blob{7}));
  }
  EXPECT_EQ(Count(StoreFile(), "schema"), 2);
  // Version 3: the metadata goes too.
  RawSql(StoreFile(), "DELETE FROM schema; INSERT INTO schema VALUES(3, 0);");
  {
    auto store = OpenStore();
    ASSERT_TRUE(store.HasValue()) << store.GetError().ToString();
    EXPECT_FALSE((*store)->ReadValue(1, "k.meta")->has_value());
  }
  // A newer version, in the rollback journal mode that a writing open would switch to WAL:
  // refused with a clear error, the file left byte for byte and no journal made beside it.
  RawSql(StoreFile(), "PRAGMA journal_mode=DELETE; INSERT INTO schema VALUES(7, 0);");
  const std::string bytes = ReadFile(StoreFile());
  auto newer = OpenStore();
  ASSERT_TRUE(newer.HasError());
  EXPECT_NE(newer.GetError().ToString().find("newer version"), std::string::npos) << newer.GetError().ToString();
  EXPECT_EQ(ReadFile(StoreFile()), bytes);
  EXPECT_FALSE(fs::exists(StoreFile().string() + "-wal"));
}

TEST_F(WatchFolderStoreTest, DamagedOrTruncatedStoreIsMovedAsideAndRebuilt) {
  {
    auto store = OpenStore();
    ASSERT_TRUE(store.HasValue());
    WatchListing listing;
    for (int i = 0; i < 2000; ++i) listing[i] = {i, "/f" + std::to_string(i), 1, {}, false};
    ASSERT_TRUE((*store)->WriteListing({}, listing).HasValue());
  }
  for (const char* how : {"garbage", "truncated"}) {
    SCOPED_TRACE(how);
    if (std::string(how) == "garbage") {
      Write(StoreFile(), std::string(5000, 'x'));
    } else {
      const std::string bytes = ReadFile(StoreFile());
      ASSERT_GT(bytes.size(), 8192u);
      Write(StoreFile(), bytes.substr(0, bytes.size() / 2));
    }
    auto store = OpenStore();
    ASSERT_TRUE(store.HasValue()) << store.GetError().ToString();
    EXPECT_TRUE((*store)->ReadListing(false)->empty());
    bool aside = false;
    for (const auto& e : fs::directory_iterator(StoreFile().parent_path()))
      aside = aside || e.path().filename().string().starts_with("w.db.damaged-");
    EXPECT_TRUE(aside);
  }
}

TEST_F(WatchFolderStoreTest, DamagedStoreOfARepositoryIsRebuiltFromTheFolder) {
  Write(_folder / "a.txt", "a");
  std::string storePath;
  {
    auto repo = Open();
    ASSERT_TRUE(repo);
    storePath = repo->GetStoreUrl().GetPath();
  }
  Write(storePath, std::string(3000, '\0') + "not a database");
  auto repo = Open();
  ASSERT_TRUE(repo);
  EXPECT_EQ(Listing(*repo), (std::map<std::string, std::string>{{"", "d"}, {"a.txt", "f"}}));
  EXPECT_EQ(ReadFile(_folder / "a.txt"), "a");
}

} // namespace
} // namespace kelvo::test
