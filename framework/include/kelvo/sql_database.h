#pragma once
// SqlDatabase: one SQLite connection with prepared statements cached by SQL text, typed `?`
// parameters, row receivers, transactions (nested ones become savepoints), VACUUM and the
// user_version pragma for schema migrations.
//
// A connection is safe for concurrent use by multiple threads: every operation takes the
// connection's recursive lock, and a checked-out SqlStatement or an open SqlTransaction keeps
// holding it, so other threads wait until it is released and never run inside someone else's
// transaction. Errors carry SQLite's message, its result code name and the statement.

#include <concepts>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <variant>
#include <vector>

#include "kelvo/data.h"
#include "kelvo/result.h"
#include "kelvo/url.h"

struct sqlite3;
struct sqlite3_stmt;

namespace kelvo {

namespace errors {
// The database was locked by another connection beyond the busy budget.
inline const Id sqlbusy{"net.kelvo.error.sqlbusy"};
// Any other failure reported by SQLite. A damaged or foreign file reports errors::fileformat.
inline const Id sql{"net.kelvo.error.sql"};
} // namespace errors

enum class SQLTYPE { NULLVALUE, INTEGER, FLOAT, TEXT, BLOB };

// A typed parameter or column value. Booleans and 32-bit integers are stored as INTEGER, a
// UniversalDateTime as its nanosecond value in INTEGER, a uint64 by its bit pattern.
class SqlValue {
public:
  SqlValue() = default;
  SqlValue(std::nullptr_t) {}
  SqlValue(bool v) : _v(std::int64_t(v ? 1 : 0)) {}
  template <std::integral N>
    requires(!std::is_same_v<N, bool>)
  SqlValue(N v) : _v(static_cast<std::int64_t>(v)) {}
  SqlValue(double v) : _v(v) {}
  SqlValue(std::string v) : _v(std::move(v)) {}
  SqlValue(std::string_view v) : _v(std::string(v)) {}
  SqlValue(const char* v) : _v(std::string(v ? v : "")) {}
  SqlValue(Blob v) : _v(std::move(v)) {}
  SqlValue(UniversalDateTime v) : _v(static_cast<std::int64_t>(v.GetValue())) {}

  SQLTYPE GetType() const { return static_cast<SQLTYPE>(_v.index()); }
  bool IsNull() const { return _v.index() == 0; }
  const std::int64_t* GetInt64() const { return std::get_if<std::int64_t>(&_v); }
  const double* GetDouble() const { return std::get_if<double>(&_v); }
  const std::string* GetText() const { return std::get_if<std::string>(&_v); }
  const Blob* GetBlob() const { return std::get_if<Blob>(&_v); }
  friend bool operator==(const SqlValue&, const SqlValue&) = default;

private:
  std::variant<std::monostate, std::int64_t, double, std::string, Blob> _v;
};

class SqlDatabase;

// What a statement that writes did: rows changed and the row id of the last insert.
struct SqlChanges {
  std::int64_t changes = 0;
  std::int64_t lastInsertRowId = 0;
};

// A prepared statement checked out of its database. While it lives it holds the connection's
// lock; destroying it resets the statement, clears its bindings and returns it to the cache.
// Move only. REQUIRES: use by the thread that prepared it.
class SqlStatement {
public:
  SqlStatement(SqlStatement&& other) noexcept;
  SqlStatement& operator=(SqlStatement&&) = delete;
  SqlStatement(const SqlStatement&) = delete;
  ~SqlStatement();

  // Binds parameter 1-based `index`; a wrong index or type error is an illegal argument.
  Result<void> Bind(int index, const SqlValue& value);
  // Binds all parameters in order; the count must match the statement's `?` count.
  Result<void> BindAll(std::span<const SqlValue> values);
  // Advances to the next row: true when a row is available, false when done.
  Result<bool> Step();
  // Runs the statement to its end, ignoring rows.
  Result<SqlChanges> Run();
  // Back to before the first row, keeping the bindings.
  void Reset();

  // Columns of the current row, 0-based. An index out of range reads as NULL.
  int GetColumnCount() const;
  std::string GetColumnName(int column) const;
  SQLTYPE GetColumnType(int column) const;
  std::int64_t GetInt64(int column) const;
  double GetDouble(int column) const;
  std::string GetText(int column) const;
  Blob GetBlob(int column) const;
  SqlValue GetValue(int column) const;
  const std::string& GetSql() const;

private:
  friend class SqlDatabase;
  struct Cached;
  SqlStatement(SqlDatabase* db, std::unique_lock<std::recursive_mutex> lock, Cached* cached,
               std::unique_ptr<Cached> owned);
  Error MakeError(int code) const;

  SqlDatabase* _db = nullptr;
  std::unique_lock<std::recursive_mutex> _lock;
  Cached* _cached = nullptr;            // in the database's cache, or _owned
  std::unique_ptr<Cached> _owned;       // a statement prepared while the cached one was in use
};

// Returns false to stop after this row (not an error).
using SqlRowReceiver = std::function<Result<bool>(const SqlStatement& row)>;

// A transaction or, when one is already open on this connection, a savepoint. Rolls back when
// destroyed without a successful Commit. Holds the connection's lock while open.
// REQUIRES: use by the thread that began it.
class SqlTransaction {
public:
  SqlTransaction(SqlTransaction&& other) noexcept;
  SqlTransaction& operator=(SqlTransaction&&) = delete;
  SqlTransaction(const SqlTransaction&) = delete;
  ~SqlTransaction();

  // Commits (or releases the savepoint). On failure the transaction is rolled back.
  Result<void> Commit();
  // Rolls back now; a no-op after Commit or Rollback.
  Result<void> Rollback();

private:
  friend class SqlDatabase;
  SqlTransaction(SqlDatabase* db, std::unique_lock<std::recursive_mutex> lock, std::string savepoint);

  SqlDatabase* _db = nullptr;
  std::unique_lock<std::recursive_mutex> _lock;
  std::string _savepoint;  // empty for a top level transaction
  bool _open = false;
};

class SqlDatabase {
public:
  struct Options {
    // Create the file when it does not exist; otherwise a missing file is an io error.
    bool create = true;
    bool readOnly = false;
    // Write-ahead logging: readers see the last commit while a writer works.
    bool wal = true;
    // How long a statement waits for another connection's lock, and how many waits at most.
    double busyTimeoutSeconds = 1.0;
    int busyTries = 1000000;
  };
  enum class TRANSACTIONMODE { DEFERRED, IMMEDIATE, EXCLUSIVE };

  // Opens the database file at a "file" URL (another scheme must normalize to one). A final
  // symlink is refused. A file that isn't an SQLite database fails with errors::fileformat.
  // Any thread.
  static Result<std::shared_ptr<SqlDatabase>> Open(const Url& file, const Options& options);
  static Result<std::shared_ptr<SqlDatabase>> Open(const Url& file) { return Open(file, Options()); }
  ~SqlDatabase();
  SqlDatabase(const SqlDatabase&) = delete;
  SqlDatabase& operator=(const SqlDatabase&) = delete;

  // Runs plain SQL, which may hold several statements separated by ";". Any thread.
  Result<void> Exec(std::string_view sql);
  // Checks out the cached statement for `sql`, preparing it on first use. Exactly one statement.
  // The cache keeps the first 256 distinct texts; others are prepared for each use, so SQL with
  // values formatted in can't grow it without bound.
  Result<SqlStatement> Prepare(std::string_view sql);
  // Binds parameters and runs one statement to its end, handing each row to receiver when one
  // is given; a receiver that returns false stops after that row. Rows are delivered on the
  // calling thread with the connection lock held: the receiver may use this database from the
  // same thread, never wait for another thread that does. A receiver's error ends the statement
  // and is returned. The changes are those of a statement that writes. Any thread.
  Result<SqlChanges> ExecuteSQLQuery(std::string_view sql, std::span<const SqlValue> params = {},
                                     const SqlRowReceiver& receiver = nullptr);
  Result<SqlChanges> ExecuteSQLQuery(std::string_view sql, std::initializer_list<SqlValue> params,
                                     const SqlRowReceiver& receiver = nullptr) {
    return ExecuteSQLQuery(sql, std::span<const SqlValue>(params.begin(), params.size()), receiver);
  }

  // Begins a transaction, or a savepoint inside an open one. IMMEDIATE takes the write lock at
  // once, so a busy database fails here (errors::sqlbusy after the budget) and not at a later
  // write. Any thread; others wait until the transaction ends.
  Result<SqlTransaction> BeginTransaction(TRANSACTIONMODE mode = TRANSACTIONMODE::IMMEDIATE);
  // Sets the busy budget of later statements. Any thread.
  void SetBusyTimeout(double seconds, int maxTries);

  // Rebuilds the file to its smallest size. Fails inside a transaction. Any thread.
  Result<void> Vacuum();
  // The schema version kept in the file header for migrations (0 for a new file). Any thread.
  Result<std::int32_t> GetUserVersion();
  Result<void> SetUserVersion(std::int32_t version);
  // Runs SQLite's quick integrity check; a damaged file fails with errors::fileformat naming
  // the first problems. Any thread.
  Result<void> CheckIntegrity();

  // Of the last statement run on this connection by any thread. Prefer the SqlChanges that
  // ExecuteSQLQuery returns when other threads share the connection.
  std::int64_t GetLastInsertRowId();
  std::int64_t GetChanges();
  const Url& GetUrl() const { return _url; }
  // Prepared statements held in the cache.
  std::size_t GetCachedStatementCount();

private:
  friend class SqlStatement;
  friend class SqlTransaction;
  SqlDatabase() = default;
  Error MakeError(int code, std::string_view sql) const;
  void Release(SqlStatement::Cached* cached);

  std::recursive_mutex _lock;
  sqlite3* _db = nullptr;
  Url _url;
  static int BusyHandler(void* self, int count);

  // All under _lock.
  std::unordered_map<std::string, std::unique_ptr<SqlStatement::Cached>> _cache;
  int _savepointDepth = 0;
  double _busyTimeout = 1.0;
  int _busyTries = 1000000;
  double _busyStart = 0.0;
};

} // namespace kelvo
