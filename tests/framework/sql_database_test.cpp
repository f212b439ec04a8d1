#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "kelvo/sql_database.h"
#include "temp_tree.h"

using namespace kelvo;
namespace fs = std::filesystem;

namespace {

class SqlDatabaseTest : public kelvo::testing::TempTreeTest {
protected:
  Url FileUrl(const std::string& name) const { return Url::FromFile((_dir / name).string()); }

  std::shared_ptr<SqlDatabase> OpenDb(const std::string& name = "test.db",
                                      SqlDatabase::Options options = SqlDatabase::Options()) {
    auto db = SqlDatabase::Open(FileUrl(name), options);
    EXPECT_TRUE(db.HasValue()) << db.GetError().ToString();
    return db.HasValue() ? *db : nullptr;
  }

  static std::int64_t Count(SqlDatabase& db, const std::string& table) {
    std::int64_t n = -1;
    auto r = db.ExecuteSQLQuery("SELECT count(*) FROM " + table + ";", {}, [&](const SqlStatement& row) -> Result<bool> {
      n = row.GetInt64(0);
      return false;
    });
    EXPECT_TRUE(r.HasValue()) << r.GetError().ToString();
    return n;
  }
};

TEST_F(SqlDatabaseTest, AllTypesRoundTripThroughAFileAndAReopen) {
  const Blob blob{0, 1, 2, 255, 0, 7};
  const std::string text("t\xC3\xA4xt with \0 inside", 19);
  {
    auto db = OpenDb();
    ASSERT_TRUE(db->Exec("CREATE TABLE t (i INTEGER, d REAL, s TEXT, b BLOB, n);").HasValue());
    auto changes = db->ExecuteSQLQuery("INSERT INTO t VALUES (?, ?, ?, ?, ?);",
                               {std::int64_t(-9007199254740993), 2.5, text, blob, nullptr});
    ASSERT_TRUE(changes.HasValue()) << changes.GetError().ToString();
    EXPECT_EQ(changes->changes, 1);
    EXPECT_EQ(changes->lastInsertRowId, 1);
    // An empty blob stays an empty blob and a uint64 keeps its bits.
    ASSERT_TRUE(db->ExecuteSQLQuery("INSERT INTO t VALUES (?, ?, ?, ?, ?);",
                            {std::uint64_t(0xfedcba9876543210ull), 0.0, "", Blob(), 1})
                    .HasValue());
    EXPECT_EQ(db->GetLastInsertRowId(), 2);
  }
  auto db = OpenDb();
  std::vector<std::vector<SqlValue>> rows;
  ASSERT_TRUE(db->ExecuteSQLQuery("SELECT i, d, s, b, n FROM t WHERE rowid >= ? ORDER BY rowid;", {1},
                        [&](const SqlStatement& row) -> Result<bool> {
                          EXPECT_EQ(row.GetColumnCount(), 5);
                          EXPECT_EQ(row.GetColumnName(3), "b");
                          std::vector<SqlValue> values;
                          for (int c = 0; c < row.GetColumnCount(); ++c) values.push_back(row.GetValue(c));
                          rows.push_back(std::move(values));
                          return true;
                        })
                  .HasValue());
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0][0], SqlValue(std::int64_t(-9007199254740993)));
  EXPECT_EQ(rows[0][1], SqlValue(2.5));
  EXPECT_EQ(rows[0][2], SqlValue(text));
  EXPECT_EQ(rows[0][3], SqlValue(blob));
  EXPECT_TRUE(rows[0][4].IsNull());
  EXPECT_EQ(static_cast<std::uint64_t>(*rows[1][0].GetInt64()), 0xfedcba9876543210ull);
  EXPECT_EQ(rows[1][3].GetType(), SQLTYPE::BLOB);
  EXPECT_TRUE(rows[1][3].GetBlob()->empty());
  EXPECT_EQ(rows[1][2], SqlValue(""));
}

TEST_F(SqlDatabaseTest, ErrorsNameTheMessageAndTheStatement) {
  auto db = OpenDb();
  ASSERT_TRUE(db->Exec("CREATE TABLE m (k INTEGER NOT NULL, a TEXT UNIQUE);").HasValue());
  auto nullViolation = db->ExecuteSQLQuery("INSERT INTO m VALUES ((SELECT 1 WHERE 0), ?);", {"x"});
  ASSERT_TRUE(nullViolation.HasError());
  EXPECT_NE(nullViolation.GetError().GetMessage().find("NOT NULL constraint failed"), std::string::npos);
  EXPECT_NE(nullViolation.GetError().GetMessage().find("INSERT INTO m VALUES"), std::string::npos);

  auto syntax = db->ExecuteSQLQuery("SELEC 1;");
  ASSERT_TRUE(syntax.HasError());
  EXPECT_NE(syntax.GetError().GetMessage().find("SELEC 1;"), std::string::npos);
  EXPECT_TRUE(db->ExecuteSQLQuery("INSERT INTO m VALUES (?, ?);", {1}).HasError()) << "too few parameters";
  EXPECT_TRUE(db->Prepare("SELECT 1; SELECT 2;").HasError()) << "two statements in one Prepare";
  EXPECT_TRUE(db->ExecuteSQLQuery("INSERT INTO m VALUES (?, ?);", {1, "a"}).HasValue()) << "a failure leaves it usable";
}

TEST_F(SqlDatabaseTest, TransactionRollsBackUnlessCommittedAndNestsAsSavepoints) {
  auto db = OpenDb();
  ASSERT_TRUE(db->Exec("CREATE TABLE t (k INTEGER PRIMARY KEY, v TEXT);").HasValue());
  {
    auto tx = db->BeginTransaction();
    ASSERT_TRUE(tx.HasValue()) << tx.GetError().ToString();
    ASSERT_TRUE(db->ExecuteSQLQuery("INSERT INTO t VALUES (1, 'a');").HasValue());
    // A failing statement in the middle: the guard goes out of scope without Commit.
    ASSERT_TRUE(db->ExecuteSQLQuery("INSERT INTO t VALUES (1, 'duplicate');").HasError());
  }
  EXPECT_EQ(Count(*db, "t"), 0);

  auto outer = db->BeginTransaction();
  ASSERT_TRUE(outer.HasValue());
  ASSERT_TRUE(db->ExecuteSQLQuery("INSERT INTO t VALUES (1, 'kept');").HasValue());
  {
    auto inner = db->BeginTransaction();
    ASSERT_TRUE(inner.HasValue()) << inner.GetError().ToString();
    ASSERT_TRUE(db->ExecuteSQLQuery("INSERT INTO t VALUES (2, 'dropped');").HasValue());
  }
  {
    auto inner = db->BeginTransaction();
    ASSERT_TRUE(inner.HasValue());
    ASSERT_TRUE(db->ExecuteSQLQuery("INSERT INTO t VALUES (3, 'kept');").HasValue());
    ASSERT_TRUE(inner->Commit().HasValue());
  }
  ASSERT_TRUE(outer->Commit().HasValue());
  EXPECT_EQ(Count(*db, "t"), 2);
  EXPECT_TRUE(outer->Commit().HasError()) << "a second commit";
  EXPECT_TRUE(db->Vacuum().HasValue()) << "no transaction is left open";
}

TEST_F(SqlDatabaseTest, ReceiverMayRunTheSameStatementAgainAndCanStopOrFail) {
  auto db = OpenDb();
  ASSERT_TRUE(db->Exec("CREATE TABLE t (k INTEGER); INSERT INTO t VALUES (1), (2), (3);").HasValue());
  const std::string sql = "SELECT k FROM t WHERE k >= ? ORDER BY k;";
  const std::size_t cachedBefore = db->GetCachedStatementCount();
  std::vector<std::int64_t> pairs;
  auto r = db->ExecuteSQLQuery(sql, {1}, [&](const SqlStatement& outer) -> Result<bool> {
    const std::int64_t k = outer.GetInt64(0);
    // The cached statement is checked out by the outer query; the inner one must not disturb it.
    return db->ExecuteSQLQuery(sql, {k}, [&](const SqlStatement& inner) -> Result<bool> {
      pairs.push_back(k * 10 + inner.GetInt64(0));
      return true;
    }).HasError() ? Result<bool>(IoError("inner failed")) : Result<bool>(true);
  });
  ASSERT_TRUE(r.HasValue()) << r.GetError().ToString();
  EXPECT_EQ(pairs, (std::vector<std::int64_t>{11, 12, 13, 22, 23, 33}));
  EXPECT_EQ(db->GetCachedStatementCount(), cachedBefore + 1) << "the inner copy isn't cached";

  int seen = 0;
  ASSERT_TRUE(db->ExecuteSQLQuery(sql, {1}, [&](const SqlStatement&) -> Result<bool> { return ++seen < 2; }).HasValue());
  EXPECT_EQ(seen, 2);
  auto failed = db->ExecuteSQLQuery(sql, {1}, [&](const SqlStatement&) -> Result<bool> { return IoError("receiver"); });
  ASSERT_TRUE(failed.HasError());
  EXPECT_EQ(failed.GetError().GetMessage(), "receiver");
}

TEST_F(SqlDatabaseTest, StatementsWithValuesFormattedInDoNotGrowTheCacheWithoutBound) {
  auto db = OpenDb();
  for (long long i = 0; i < 400; ++i) {
    std::int64_t got = -1;
    ASSERT_TRUE(db->ExecuteSQLQuery("SELECT " + std::to_string(i) + " + ?;", {i}, [&](const SqlStatement& row) -> Result<bool> {
      got = row.GetInt64(0);
      return true;
    }).HasValue());
    ASSERT_EQ(got, 2 * i);
  }
  EXPECT_LE(db->GetCachedStatementCount(), 256u);
}

TEST_F(SqlDatabaseTest, UserVersionSurvivesAReopen) {
  {
    auto db = OpenDb();
    EXPECT_EQ(*db->GetUserVersion(), 0);
    ASSERT_TRUE(db->SetUserVersion(2).HasValue());
  }
  EXPECT_EQ(*OpenDb()->GetUserVersion(), 2);
}

TEST_F(SqlDatabaseTest, ReadersSeeTheLastCommitWhileAWriterWorks) {
  auto writer = OpenDb();
  ASSERT_TRUE(writer->Exec("CREATE TABLE t (k INTEGER); INSERT INTO t VALUES (1);").HasValue());
  auto reader = OpenDb();
  auto tx = writer->BeginTransaction();
  ASSERT_TRUE(tx.HasValue());
  ASSERT_TRUE(writer->ExecuteSQLQuery("INSERT INTO t VALUES (2);").HasValue());

  std::atomic<std::int64_t> seen{-1};
  std::thread readerThread([&] { seen = Count(*reader, "t"); });
  readerThread.join();
  EXPECT_EQ(seen.load(), 1) << "a reader isn't blocked by the open write and sees the old snapshot";
  ASSERT_TRUE(tx->Commit().HasValue());
  EXPECT_EQ(Count(*reader, "t"), 2);
}

TEST_F(SqlDatabaseTest, BusyWriterFailsAfterItsBudgetOrWaitsForTheCommit) {
  auto first = OpenDb();
  ASSERT_TRUE(first->Exec("CREATE TABLE t (k INTEGER);").HasValue());
  SqlDatabase::Options quick;
  quick.busyTimeoutSeconds = 0.05;
  auto second = OpenDb("test.db", quick);

  auto held = first->BeginTransaction();
  ASSERT_TRUE(held.HasValue());
  auto refused = second->BeginTransaction();
  ASSERT_TRUE(refused.HasError());
  EXPECT_TRUE(refused.GetError().Is(errors::sqlbusy)) << refused.GetError().ToString();
  second->SetBusyTimeout(0.05, 3);
  EXPECT_TRUE(second->ExecuteSQLQuery("INSERT INTO t VALUES (1);").GetError().Is(errors::sqlbusy));

  // With a longer budget, the second waits and gets the lock once the first commits.
  second->SetBusyTimeout(10.0, 1000000);
  std::atomic<bool> started{false};
  Result<SqlChanges> waited = IoError("not run");
  std::thread waiter([&] {
    started = true;
    waited = second->ExecuteSQLQuery("INSERT INTO t VALUES (2);");
  });
  while (!started) std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_TRUE(first->ExecuteSQLQuery("INSERT INTO t VALUES (1);").HasValue());
  ASSERT_TRUE(held->Commit().HasValue());
  waiter.join();
  ASSERT_TRUE(waited.HasValue()) << waited.GetError().ToString();
  EXPECT_EQ(Count(*first, "t"), 2);
}

TEST_F(SqlDatabaseTest, ThreadsSharingOneConnectionDoNotEnterEachOthersTransactions) {
  auto db = OpenDb();
  ASSERT_TRUE(db->Exec("CREATE TABLE t (k INTEGER);").HasValue());
  std::atomic<int> failures{0};
  auto work = [&](int base, bool commit) {
    for (int i = 0; i < 50; ++i) {
      auto tx = db->BeginTransaction();
      if (tx.HasError()) {
        ++failures;
        continue;
      }
      if (db->ExecuteSQLQuery("INSERT INTO t VALUES (?);", {base + i}).HasError()) ++failures;
      if (commit && tx->Commit().HasError()) ++failures;
    }
  };
  std::thread a(work, 0, true), b(work, 1000, false);
  a.join();
  b.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(Count(*db, "t"), 50) << "only the committing thread's rows remain";
}

TEST_F(SqlDatabaseTest, DamagedOrForeignFilesGiveErrorsNotCrashes) {
  kelvo::testing::WriteFile(_dir / "garbage.db", std::string(4096, 'x'));
  auto garbage = SqlDatabase::Open(FileUrl("garbage.db"));
  ASSERT_TRUE(garbage.HasError());
  EXPECT_TRUE(garbage.GetError().Is(errors::fileformat)) << garbage.GetError().ToString();

  SqlDatabase::Options noCreate;
  noCreate.create = false;
  EXPECT_TRUE(SqlDatabase::Open(FileUrl("missing.db"), noCreate).HasError());
  EXPECT_FALSE(fs::exists(_dir / "missing.db"));

  fs::create_symlink(_dir / "elsewhere.db", _dir / "link.db");
  EXPECT_TRUE(SqlDatabase::Open(FileUrl("link.db")).HasError()) << "a symlinked store is refused";
  EXPECT_FALSE(fs::exists(_dir / "elsewhere.db"));

  // A real database whose table pages are overwritten after the header.
  {
    auto db = OpenDb("damaged.db");
    ASSERT_TRUE(db->Exec("PRAGMA journal_mode=DELETE; CREATE TABLE t (k INTEGER, v TEXT);").HasValue());
    auto tx = db->BeginTransaction();
    for (int i = 0; i < 2000; ++i) {
      ASSERT_TRUE(db->ExecuteSQLQuery("INSERT INTO t VALUES (?, ?);", {i, std::string(100, 'v')}).HasValue());
    }
    ASSERT_TRUE(tx->Commit().HasValue());
  }
  {
    std::fstream f(_dir / "damaged.db", std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(4096);
    const std::string junk(8192, '\x5a');
    f.write(junk.data(), static_cast<std::streamsize>(junk.size()));
  }
  SqlDatabase::Options plain;
  plain.wal = false;
  // The first page with the schema is intact, so the file opens and the damage shows on use.
  auto damaged = SqlDatabase::Open(FileUrl("damaged.db"), plain);
  ASSERT_TRUE(damaged.HasValue()) << damaged.GetError().ToString();
  auto check = (*damaged)->CheckIntegrity();
  ASSERT_TRUE(check.HasError());
  EXPECT_TRUE(check.GetError().Is(errors::fileformat)) << check.GetError().ToString();
  auto read = (*damaged)->ExecuteSQLQuery("SELECT sum(length(v)) FROM t;", {}, [](const SqlStatement&) -> Result<bool> {
    return true;
  });
  ASSERT_TRUE(read.HasError());
  EXPECT_TRUE(read.GetError().Is(errors::fileformat)) << read.GetError().ToString();
}

} // namespace
