#include "kelvo/sql_database.h"

#include <sqlite3.h>

#include <chrono>
#include <thread>

namespace kelvo {

namespace {

constexpr std::size_t kMaxCachedStatements = 256;

double MonotonicSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

bool IsBusyCode(int code) {
  const int primary = code & 0xff;
  return primary == SQLITE_BUSY || primary == SQLITE_LOCKED;
}

bool IsDamageCode(int code) {
  const int primary = code & 0xff;
  return primary == SQLITE_NOTADB || primary == SQLITE_CORRUPT;
}

Id ErrorClassOf(int code) {
  if (IsBusyCode(code)) return errors::sqlbusy;
  if (IsDamageCode(code)) return errors::fileformat;
  if ((code & 0xff) == SQLITE_CANTOPEN || (code & 0xff) == SQLITE_IOERR) return errors::io;
  return errors::sql;
}

} // namespace

// A prepared statement in the cache, with a flag that it is checked out.
struct SqlStatement::Cached {
  sqlite3_stmt* stmt = nullptr;
  std::string sql;
  bool inUse = false;
  ~Cached() { sqlite3_finalize(stmt); }
};

// ---- SqlStatement ----------------------------------------------------------------------------

SqlStatement::SqlStatement(SqlDatabase* db, std::unique_lock<std::recursive_mutex> lock, Cached* cached,
                           std::unique_ptr<Cached> owned)
    : _db(db), _lock(std::move(lock)), _cached(cached), _owned(std::move(owned)) {}

SqlStatement::SqlStatement(SqlStatement&& other) noexcept
    : _db(std::exchange(other._db, nullptr)), _lock(std::move(other._lock)),
      _cached(std::exchange(other._cached, nullptr)), _owned(std::move(other._owned)) {}

SqlStatement::~SqlStatement() {
  if (!_cached) return;
  sqlite3_reset(_cached->stmt);
  sqlite3_clear_bindings(_cached->stmt);
  if (!_owned) _db->Release(_cached);
}

Error SqlStatement::MakeError(int code) const { return _db->MakeError(code, _cached->sql); }

Result<void> SqlStatement::Bind(int index, const SqlValue& value) {
  sqlite3_stmt* s = _cached->stmt;
  int rc = SQLITE_OK;
  switch (value.GetType()) {
  case SQLTYPE::NULLVALUE: rc = sqlite3_bind_null(s, index); break;
  case SQLTYPE::INTEGER: rc = sqlite3_bind_int64(s, index, *value.GetInt64()); break;
  case SQLTYPE::FLOAT: rc = sqlite3_bind_double(s, index, *value.GetDouble()); break;
  case SQLTYPE::TEXT: {
    const std::string& t = *value.GetText();
    rc = sqlite3_bind_text64(s, index, t.data(), t.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
    break;
  }
  case SQLTYPE::BLOB: {
    const Blob& b = *value.GetBlob();
    // A zero-length blob is bound as an empty blob, not as NULL.
    rc = b.empty() ? sqlite3_bind_zeroblob(s, index, 0)
                   : sqlite3_bind_blob64(s, index, b.data(), b.size(), SQLITE_TRANSIENT);
    break;
  }
  }
  if (rc == SQLITE_RANGE) {
    return IllegalArgumentError("Parameter @ out of range (statement has @) in: @", index,
                                sqlite3_bind_parameter_count(s), _cached->sql);
  }
  if (rc != SQLITE_OK) return MakeError(rc);
  return {};
}

Result<void> SqlStatement::BindAll(std::span<const SqlValue> values) {
  const int expected = sqlite3_bind_parameter_count(_cached->stmt);
  if (static_cast<std::size_t>(expected) != values.size()) {
    return IllegalArgumentError("Statement takes @ parameters, @ given: @", expected, values.size(), _cached->sql);
  }
  for (std::size_t i = 0; i < values.size(); ++i) KELVO_RETURN_ON_ERROR(Bind(static_cast<int>(i + 1), values[i]));
  return {};
}

Result<bool> SqlStatement::Step() {
  const int rc = sqlite3_step(_cached->stmt);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  Error error = MakeError(sqlite3_extended_errcode(_db->_db));
  sqlite3_reset(_cached->stmt);
  return error;
}

Result<SqlChanges> SqlStatement::Run() {
  for (;;) {
    KELVO_ASSIGN_OR_RETURN(bool row, Step());
    if (!row) break;
  }
  SqlChanges changes{sqlite3_changes64(_db->_db), sqlite3_last_insert_rowid(_db->_db)};
  sqlite3_reset(_cached->stmt);
  return changes;
}

void SqlStatement::Reset() { sqlite3_reset(_cached->stmt); }

int SqlStatement::GetColumnCount() const { return sqlite3_column_count(_cached->stmt); }

std::string SqlStatement::GetColumnName(int column) const {
  const char* name = sqlite3_column_name(_cached->stmt, column);
  return name ? name : "";
}

SQLTYPE SqlStatement::GetColumnType(int column) const {
  if (column < 0 || column >= GetColumnCount()) return SQLTYPE::NULLVALUE;
  switch (sqlite3_column_type(_cached->stmt, column)) {
  case SQLITE_INTEGER: return SQLTYPE::INTEGER;
  case SQLITE_FLOAT: return SQLTYPE::FLOAT;
  case SQLITE_TEXT: return SQLTYPE::TEXT;
  case SQLITE_BLOB: return SQLTYPE::BLOB;
  default: return SQLTYPE::NULLVALUE;
  }
}

std::int64_t SqlStatement::GetInt64(int column) const {
  return GetColumnType(column) == SQLTYPE::NULLVALUE ? 0 : sqlite3_column_int64(_cached->stmt, column);
}

double SqlStatement::GetDouble(int column) const {
  return GetColumnType(column) == SQLTYPE::NULLVALUE ? 0.0 : sqlite3_column_double(_cached->stmt, column);
}

std::string SqlStatement::GetText(int column) const {
  if (GetColumnType(column) == SQLTYPE::NULLVALUE) return {};
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(_cached->stmt, column));
  return text ? std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(_cached->stmt, column))) : std::string();
}

Blob SqlStatement::GetBlob(int column) const {
  if (GetColumnType(column) == SQLTYPE::NULLVALUE) return {};
  const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(_cached->stmt, column));
  return bytes ? Blob(bytes, bytes + sqlite3_column_bytes(_cached->stmt, column)) : Blob();
}

SqlValue SqlStatement::GetValue(int column) const {
  switch (GetColumnType(column)) {
  case SQLTYPE::INTEGER: return GetInt64(column);
  case SQLTYPE::FLOAT: return GetDouble(column);
  case SQLTYPE::TEXT: return GetText(column);
  case SQLTYPE::BLOB: return GetBlob(column);
  case SQLTYPE::NULLVALUE: break;
  }
  return {};
}

const std::string& SqlStatement::GetSql() const { return _cached->sql; }

// ---- SqlTransaction --------------------------------------------------------------------------

SqlTransaction::SqlTransaction(SqlDatabase* db, std::unique_lock<std::recursive_mutex> lock, std::string savepoint)
    : _db(db), _lock(std::move(lock)), _savepoint(std::move(savepoint)), _open(true) {}

SqlTransaction::SqlTransaction(SqlTransaction&& other) noexcept
    : _db(other._db), _lock(std::move(other._lock)), _savepoint(std::move(other._savepoint)),
      _open(std::exchange(other._open, false)) {}

SqlTransaction::~SqlTransaction() { (void)Rollback(); }

Result<void> SqlTransaction::Commit() {
  if (!_open) return IllegalStateError("Illegal state: Condition transaction open not fulfilled. ");
  Result<void> r = _db->Exec(_savepoint.empty() ? "COMMIT;" : "RELEASE " + _savepoint + ";");
  if (r.HasError()) {
    (void)Rollback();
    return r;
  }
  _open = false;
  if (!_savepoint.empty()) --_db->_savepointDepth;
  return {};
}

Result<void> SqlTransaction::Rollback() {
  if (!_open) return {};
  _open = false;
  if (_savepoint.empty()) {
    // A failed statement may already have ended the transaction; then there is nothing to undo.
    if (sqlite3_get_autocommit(_db->_db)) return {};
    return _db->Exec("ROLLBACK;");
  }
  --_db->_savepointDepth;
  return _db->Exec("ROLLBACK TO " + _savepoint + "; RELEASE " + _savepoint + ";");
}

// ---- SqlDatabase -----------------------------------------------------------------------------

Result<std::shared_ptr<SqlDatabase>> SqlDatabase::Open(const Url& file, const Options& options) {
  KELVO_ASSIGN_OR_RETURN(Url url, file.Normalize());
  if (url.GetScheme() != "file") {
    return UnsupportedArgumentError("SQL database @ is not a local file.", file.ToString());
  }
  std::shared_ptr<SqlDatabase> db(new SqlDatabase());
  db->_url = url;
  db->_busyTimeout = options.busyTimeoutSeconds;
  db->_busyTries = options.busyTries;

  int flags = SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_EXRESCODE;
  flags |= options.readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE;
  if (options.create && !options.readOnly) flags |= SQLITE_OPEN_CREATE;
  const int rc = sqlite3_open_v2(url.GetPath().c_str(), &db->_db, flags, nullptr);
  if (rc != SQLITE_OK) {
    std::string message = db->_db ? sqlite3_errmsg(db->_db) : sqlite3_errstr(rc);
    return Error(ErrorClassOf(rc), FormatString("Can't open SQL database @: @", url.GetPath(), message));
  }
  sqlite3_extended_result_codes(db->_db, 1);
  sqlite3_busy_handler(db->_db, &SqlDatabase::BusyHandler, db.get());

  // Reading the journal mode reads the file header, so a file that isn't a database fails here.
  if (options.wal && !options.readOnly) {
    std::string mode;
    KELVO_RETURN_ON_ERROR(db->ExecuteSQLQuery("PRAGMA journal_mode=WAL;", {}, [&](const SqlStatement& row) -> Result<bool> {
      mode = row.GetText(0);
      return false;
    }));
    if (mode != "wal") return IoError("SQL database @ can't use write-ahead logging (mode @).", url.GetPath(), mode);
    KELVO_RETURN_ON_ERROR(db->Exec("PRAGMA synchronous=NORMAL;"));
  } else {
    KELVO_RETURN_ON_ERROR(db->Exec("SELECT count(*) FROM sqlite_schema;"));
  }
  return db;
}

SqlDatabase::~SqlDatabase() {
  _cache.clear();
  sqlite3_close_v2(_db);
}

int SqlDatabase::BusyHandler(void* self, int count) {
  // Called by SQLite on this connection's thread with the connection lock held.
  auto* db = static_cast<SqlDatabase*>(self);
  const double now = MonotonicSeconds();
  if (count == 0) db->_busyStart = now;
  if (count + 1 >= db->_busyTries || now - db->_busyStart >= db->_busyTimeout) return 0;
  std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return 1;
}

void SqlDatabase::SetBusyTimeout(double seconds, int maxTries) {
  std::lock_guard guard(_lock);
  _busyTimeout = seconds;
  _busyTries = maxTries;
}

Error SqlDatabase::MakeError(int code, std::string_view sql) const {
  const char* message = _db ? sqlite3_errmsg(_db) : sqlite3_errstr(code);
  return Error(ErrorClassOf(code), FormatString("SQLite: @ (@) in: @", message, sqlite3_errstr(code), sql));
}

Result<void> SqlDatabase::Exec(std::string_view sql) {
  std::lock_guard guard(_lock);
  const std::string text(sql);
  char* message = nullptr;
  const int rc = sqlite3_exec(_db, text.c_str(), nullptr, nullptr, &message);
  if (rc == SQLITE_OK) return {};
  std::string detail = message ? message : sqlite3_errstr(rc);
  sqlite3_free(message);
  return Error(ErrorClassOf(sqlite3_extended_errcode(_db)),
               FormatString("SQLite: @ (@) in: @", detail, sqlite3_errstr(rc), sql));
}

Result<SqlStatement> SqlDatabase::Prepare(std::string_view sql) {
  std::unique_lock lock(_lock);
  std::string key(sql);
  auto it = _cache.find(key);
  if (it != _cache.end() && !it->second->inUse) {
    it->second->inUse = true;
    return SqlStatement(this, std::move(lock), it->second.get(), nullptr);
  }
  auto cached = std::make_unique<SqlStatement::Cached>();
  cached->sql = std::move(key);
  const char* tail = nullptr;
  const int rc = sqlite3_prepare_v3(_db, cached->sql.data(), static_cast<int>(cached->sql.size()),
                                    SQLITE_PREPARE_PERSISTENT, &cached->stmt, &tail);
  if (rc != SQLITE_OK) return MakeError(sqlite3_extended_errcode(_db), sql);
  if (!cached->stmt) return IllegalArgumentError("SQL text holds no statement: @", sql);
  for (; tail && *tail; ++tail) {
    if (*tail != ' ' && *tail != '\n' && *tail != '\t' && *tail != '\r' && *tail != ';') {
      return IllegalArgumentError("SQL text holds more than one statement: @", sql);
    }
  }
  cached->inUse = true;
  if (it != _cache.end() || _cache.size() >= kMaxCachedStatements) {
    // The cached one is checked out further up this thread's stack, or the cache is full: this
    // one lives on its own.
    SqlStatement::Cached* raw = cached.get();
    return SqlStatement(this, std::move(lock), raw, std::move(cached));
  }
  SqlStatement::Cached* raw = cached.get();
  _cache.emplace(raw->sql, std::move(cached));
  return SqlStatement(this, std::move(lock), raw, nullptr);
}

void SqlDatabase::Release(SqlStatement::Cached* cached) {
  std::lock_guard guard(_lock);
  cached->inUse = false;
}

Result<SqlChanges> SqlDatabase::ExecuteSQLQuery(std::string_view sql, std::span<const SqlValue> params,
                                                const SqlRowReceiver& receiver) {
  KELVO_ASSIGN_OR_RETURN(SqlStatement statement, Prepare(sql));
  KELVO_RETURN_ON_ERROR(statement.BindAll(params));
  if (!receiver) return statement.Run();
  for (;;) {
    KELVO_ASSIGN_OR_RETURN(bool row, statement.Step());
    if (!row) break;
    KELVO_ASSIGN_OR_RETURN(bool more, receiver(statement));
    if (!more) break;
  }
  return SqlChanges{sqlite3_changes64(_db), sqlite3_last_insert_rowid(_db)};
}

Result<SqlTransaction> SqlDatabase::BeginTransaction(TRANSACTIONMODE mode) {
  std::unique_lock lock(_lock);
  if (!sqlite3_get_autocommit(_db)) {
    std::string savepoint = "kelvo_sp" + std::to_string(++_savepointDepth);
    Result<void> r = Exec("SAVEPOINT " + savepoint + ";");
    if (r.HasError()) {
      --_savepointDepth;
      return r.GetError();
    }
    return SqlTransaction(this, std::move(lock), std::move(savepoint));
  }
  const char* begin = mode == TRANSACTIONMODE::IMMEDIATE   ? "BEGIN IMMEDIATE;"
                      : mode == TRANSACTIONMODE::EXCLUSIVE ? "BEGIN EXCLUSIVE;"
                                                           : "BEGIN;";
  KELVO_RETURN_ON_ERROR(Exec(begin));
  return SqlTransaction(this, std::move(lock), std::string());
}

Result<void> SqlDatabase::Vacuum() { return Exec("VACUUM;"); }

Result<std::int32_t> SqlDatabase::GetUserVersion() {
  std::int32_t version = 0;
  KELVO_RETURN_ON_ERROR(ExecuteSQLQuery("PRAGMA user_version;", {}, [&](const SqlStatement& row) -> Result<bool> {
    version = static_cast<std::int32_t>(row.GetInt64(0));
    return false;
  }));
  return version;
}

Result<void> SqlDatabase::SetUserVersion(std::int32_t version) {
  // Pragmas take no parameters; the value is an integer, so formatting it is safe.
  return Exec("PRAGMA user_version = " + std::to_string(version) + ";");
}

Result<void> SqlDatabase::CheckIntegrity() {
  std::string problems;
  int count = 0;
  KELVO_RETURN_ON_ERROR(ExecuteSQLQuery("PRAGMA quick_check(10);", {}, [&](const SqlStatement& row) -> Result<bool> {
    std::string line = row.GetText(0);
    if (line == "ok") return false;
    problems += (count++ ? "; " : "") + line;
    return true;
  }));
  if (count) return FileFormatError("SQL database @ is damaged: @", _url.GetPath(), problems);
  return {};
}

std::int64_t SqlDatabase::GetLastInsertRowId() {
  std::lock_guard guard(_lock);
  return sqlite3_last_insert_rowid(_db);
}

std::int64_t SqlDatabase::GetChanges() {
  std::lock_guard guard(_lock);
  return sqlite3_changes64(_db);
}

std::size_t SqlDatabase::GetCachedStatementCount() {
  std::lock_guard guard(_lock);
  return _cache.size();
}

} // namespace kelvo
