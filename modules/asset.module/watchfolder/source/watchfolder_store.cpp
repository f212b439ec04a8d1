#include "watchfolder_store.h"

#include <algorithm>
#include <chrono>

#include "asset/core/asset_config.h"
#include "kelvo/job_queue.h"
#include "kelvo/log.h"

namespace kelvo {

namespace {

using Clock = std::chrono::steady_clock;

std::string Elapsed(Clock::time_point start) {
  return FormatString("@ ms", std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

constexpr const char* kCreateTables =
    "CREATE TABLE IF NOT EXISTS attributes (attributeid INTEGER PRIMARY KEY AUTOINCREMENT UNIQUE NOT NULL, "
    "attribute STRING NOT NULL UNIQUE);"
    "CREATE TABLE IF NOT EXISTS metadata (assetid INTEGER NOT NULL, versionid INTEGER, "
    "attributeid INTEGER NOT NULL REFERENCES attributes (attributeid), suffix STRING, data BLOB);"
    "CREATE UNIQUE INDEX IF NOT EXISTS [index] ON metadata (assetid, versionid, attributeid);"
    "CREATE VIEW IF NOT EXISTS metaview AS SELECT assetid, versionid, attributeid, attribute, suffix, data "
    "FROM metadata INNER JOIN attributes USING (attributeid);"
    "CREATE TABLE IF NOT EXISTS directory (assetid INTEGER PRIMARY KEY UNIQUE, url STRING UNIQUE, size INTEGER, "
    "modified DATETIME, isdir BOOLEAN);";

// Listing writes of more rows than this get a larger page cache while they run.
constexpr std::size_t kLargeWriteRows = 5000;

// Every version has exactly one version of each asset.
constexpr std::int64_t kVersionId = 1;

// Moves a store that can't be read out of the way, with its journal files, so that a new one can
// take its place and the damaged one stays for inspection.
Result<void> MoveAside(const Url& file, const Error& why) {
  const std::string aside = FormatString("@.damaged-@", file.GetPath(), UniversalDateTime::GetNow().ToUnixSeconds());
  WarningOutput("Watch folder store @ can't be read (@); moved aside to @ and rebuilt from the folder.", file.GetPath(),
                why, aside);
  KELVO_RETURN_ON_ERROR(file.IoRename(Url::FromFile(aside)));
  for (const char* journal : {"-wal", "-shm"}) {
    const Url extra = Url::FromFile(file.GetPath() + journal);
    if (extra.IoDetect() == IODETECT::FILE) KELVO_RETURN_ON_ERROR(extra.IoRename(Url::FromFile(aside + journal)));
  }
  return {};
}

// Opens the file and checks that it is a readable database.
Result<std::shared_ptr<SqlDatabase>> OpenChecked(const Url& file) {
  KELVO_ASSIGN_OR_RETURN(std::shared_ptr<SqlDatabase> db, SqlDatabase::Open(file));
  KELVO_RETURN_ON_ERROR(db->CheckIntegrity());
  return db;
}

// The newest schema version entered in the store; nothing for a store without one.
Result<std::optional<std::int64_t>> ReadSchemaVersion(SqlDatabase& db) {
  std::optional<std::int64_t> found;
  bool hasTable = false;
  KELVO_RETURN_ON_ERROR(db.ExecuteSQLQuery("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = 'schema';", {},
                                           [&](const SqlStatement&) -> Result<bool> {
                                             hasTable = true;
                                             return false;
                                           }));
  if (!hasTable) return found;
  KELVO_RETURN_ON_ERROR(db.ExecuteSQLQuery("SELECT MAX(version) FROM schema;", {},
                                           [&](const SqlStatement& row) -> Result<bool> {
                                             if (row.GetColumnType(0) != SQLTYPE::NULLVALUE) found = row.GetInt64(0);
                                             return false;
                                           }));
  return found;
}

// A store written by a newer version is refused before anything opens it for writing: a
// read-write open would switch its journal mode and enter tables, and the newer version's data
// must stay as it is. Files that aren't readable databases pass here and are dealt with later.
Result<void> RefuseNewerStore(const Url& file) {
  if (file.IoDetect() != IODETECT::FILE) return {};
  SqlDatabase::Options options;
  options.create = false;
  options.readOnly = true;
  options.wal = false;
  Result<std::shared_ptr<SqlDatabase>> db = SqlDatabase::Open(file, options);
  if (db.HasError()) return {};
  Result<std::optional<std::int64_t>> version = ReadSchemaVersion(**db);
  if (version.HasError() || !*version || **version <= kWatchFolderSchemaVersion) return {};
  return IllegalStateError("The watch folder store @ was written by a newer version (schema @, this version reads "
                           "up to @); it is left as it is.",
                           file.GetPath(), **version, kWatchFolderSchemaVersion);
}

// The outcome of a statement whose changes don't matter to the caller.
Result<void> Done(const Result<SqlChanges>& r) {
  if (r.HasError()) return r.GetError();
  return {};
}

} // namespace

Result<std::unique_ptr<WatchFolderStore>> WatchFolderStore::Open(const Url& file) {
  KELVO_RETURN_ON_ERROR(file.GetDirectory().IoCreateDirectory(true));
  KELVO_RETURN_ON_ERROR(RefuseNewerStore(file));
  Result<std::shared_ptr<SqlDatabase>> db = OpenChecked(file);
  if (db.HasError() && db.GetError().Is(errors::fileformat)) {
    KELVO_RETURN_ON_ERROR(MoveAside(file, db.GetError()));
    db = OpenChecked(file);
  }
  if (db.HasError()) return db.GetError();
  (*db)->SetBusyTimeout(1.0, 1000);
  std::unique_ptr<WatchFolderStore> store(new WatchFolderStore(*db, file));
  if (Result<void> setup = store->SetupSchema(); setup.HasError()) {
    DiagnosticOutput("SetupDatabase error: @", setup.GetError());
    return setup.GetError();
  }
  return store;
}

Result<void> WatchFolderStore::SetupSchema() {
  KELVO_RETURN_ON_ERROR(_db->Exec("CREATE TABLE IF NOT EXISTS schema (version INTEGER PRIMARY KEY NOT NULL, "
                                  "date DATETIME NOT NULL);"));
  KELVO_ASSIGN_OR_RETURN(std::optional<std::int64_t> found, ReadSchemaVersion(*_db));
  const auto writeVersion = [&]() {
    return Done(_db->ExecuteSQLQuery("INSERT INTO schema VALUES(?, ?);",
                                {SqlValue(kWatchFolderSchemaVersion), SqlValue(UniversalDateTime::GetNow())}));
  };
  if (!found) {
    KELVO_RETURN_ON_ERROR(writeVersion());
  } else if (*found != kWatchFolderSchemaVersion) {
    DiagnosticOutput("  WatchFolder db schema mismatch @ <-> @", *found, kWatchFolderSchemaVersion);
    if (*found > kWatchFolderSchemaVersion)
      return IllegalStateError("The watch folder store @ was written by a newer version (schema @, this version "
                               "reads up to @); it is left as it is.",
                               _url.GetPath(), *found, kWatchFolderSchemaVersion);
    const Clock::time_point start = Clock::now();
    if (*found < 4)
      KELVO_RETURN_ON_ERROR(
          _db->Exec("DROP VIEW IF EXISTS metaview; DROP TABLE IF EXISTS metadata; DROP TABLE IF EXISTS attributes;"));
    // The next scan writes the whole listing again.
    KELVO_RETURN_ON_ERROR(_db->Exec("DROP TABLE IF EXISTS directory;"));
    KELVO_RETURN_ON_ERROR(writeVersion());
    if (*found < 4) KELVO_RETURN_ON_ERROR(_db->Vacuum());
    DiagnosticOutput("Migrating database done: @", Elapsed(start));
  }
  KELVO_ASSIGN_OR_RETURN(SqlTransaction transaction, _db->BeginTransaction());
  KELVO_RETURN_ON_ERROR(_db->Exec(kCreateTables));
  return transaction.Commit();
}

Result<WatchListing> WatchFolderStore::ReadListing(bool cancellable) {
  WatchListing listing;
  // Sized once: a large listing would otherwise be rehashed a dozen times while it is read.
  KELVO_RETURN_ON_ERROR(_db->ExecuteSQLQuery("SELECT COUNT(*) FROM directory;", {}, [&](const SqlStatement& row) -> Result<bool> {
    listing.reserve(static_cast<std::size_t>(std::max<std::int64_t>(0, row.GetInt64(0))));
    return false;
  }));
  KELVO_RETURN_ON_ERROR(_db->ExecuteSQLQuery(
      "SELECT assetid, url, size, modified, isdir FROM directory;", {}, [&](const SqlStatement& row) -> Result<bool> {
        if (cancellable && IsCurrentJobCancelled()) return OperationCancelledError();
        WatchListingRow r;
        r.assetid = row.GetInt64(0);
        r.url = row.GetText(1);
        r.size = static_cast<std::uint64_t>(row.GetInt64(2));
        r.modified = UniversalDateTime::FromValue(static_cast<std::uint64_t>(row.GetInt64(3)));
        r.isdir = row.GetInt64(4) != 0;
        listing.emplace(r.assetid, std::move(r));
        return true;
      }));
  return listing;
}

Result<WatchListingWriteCounts> WatchFolderStore::WriteListing(const WatchListing& oldListing,
                                                               const WatchListing& newListing) {
  const Clock::time_point start = Clock::now();
  WatchListingWriteCounts counts;
  std::optional<SqlTransaction> transaction;
  const auto open = [&]() -> Result<void> {
    if (transaction) return {};
    KELVO_ASSIGN_OR_RETURN(SqlTransaction t, _db->BeginTransaction());
    transaction.emplace(std::move(t));
    return {};
  };
  for (const auto& [assetid, row] : oldListing) {
    if (newListing.count(assetid)) continue;
    KELVO_RETURN_ON_ERROR(open());
    KELVO_RETURN_ON_ERROR(_db->ExecuteSQLQuery("DELETE FROM directory WHERE assetid = ?;", {SqlValue(assetid)}));
    KELVO_RETURN_ON_ERROR(_db->ExecuteSQLQuery("DELETE FROM metadata WHERE assetid = ?;", {SqlValue(assetid)}));
    ++counts.deleted;
  }
  // Rows go in in key order, so that the table grows at its end instead of splitting pages all
  // over the file.
  std::vector<const WatchListingRow*> rows;
  for (const auto& [assetid, row] : newListing) {
    auto old = oldListing.find(assetid);
    if (old == oldListing.end() || !(old->second == row)) rows.push_back(&row);
  }
  std::sort(rows.begin(), rows.end(), [](const auto* a, const auto* b) { return a->assetid < b->assetid; });
  // A large write (a first scan) gets a page cache that holds the table and its index, so that
  // SQLite doesn't spill pages to the journal in the middle of the transaction; the memory is
  // handed back afterwards.
  const bool large = rows.size() > kLargeWriteRows;
  if (large) KELVO_RETURN_ON_ERROR(_db->Exec("PRAGMA cache_size=-65536;"));
  for (const WatchListingRow* row : rows) {
    KELVO_RETURN_ON_ERROR(open());
    KELVO_RETURN_ON_ERROR(_db->ExecuteSQLQuery("INSERT OR REPLACE INTO directory VALUES(?, ?, ?, ?, ?);",
                                               {SqlValue(row->assetid), SqlValue(row->url), SqlValue(row->size),
                                                SqlValue(row->modified), SqlValue(row->isdir)}));
    ++counts.written;
  }
  Result<void> committed = transaction ? transaction->Commit() : Result<void>();
  if (large) {
    (void)_db->Exec("PRAGMA cache_size=-2000;");
    (void)_db->Exec("PRAGMA shrink_memory;");
  }
  KELVO_RETURN_ON_ERROR(committed);
  if (g_assetDiagnostic)
    DiagnosticOutput("  WatchFolder writing fileinfo to sqlite: @ written, @ deleted, @", counts.written,
                     counts.deleted, Elapsed(start));
  return counts;
}

Result<void> WatchFolderStore::WriteMetadata(std::int64_t assetid, const std::string& attribute,
                                             const std::string& suffix, const Blob& data) {
  return Done(_db->ExecuteSQLQuery(
      "INSERT OR REPLACE INTO metadata VALUES(?, ?, (SELECT attributeid FROM attributes WHERE attribute = ?), ?, ?);",
      {SqlValue(assetid), SqlValue(kVersionId), SqlValue(attribute), SqlValue(suffix), SqlValue(data)}));
}

Result<void> WatchFolderStore::StoreValue(std::int64_t assetid, const std::string& attribute,
                                          const std::string& suffix, const Blob& data) {
  if (data.empty() && suffix.empty()) return DeleteValue(assetid, attribute);
  Result<void> first = WriteMetadata(assetid, attribute, suffix, data);
  if (first.HasValue()) return {};
  // An attribute that was never stored isn't in the dictionary yet: the sub-select gave NULL.
  if (first.GetError().ToString().find("NOT NULL constraint failed") == std::string::npos) return first.GetError();
  KELVO_ASSIGN_OR_RETURN(SqlTransaction transaction, _db->BeginTransaction());
  KELVO_RETURN_ON_ERROR(
      _db->ExecuteSQLQuery("INSERT OR IGNORE INTO attributes (attribute) VALUES(?);", {SqlValue(attribute)}));
  KELVO_RETURN_ON_ERROR(WriteMetadata(assetid, attribute, suffix, data));
  return transaction.Commit();
}

Result<void> WatchFolderStore::DeleteValue(std::int64_t assetid, const std::string& attribute) {
  return Done(_db->ExecuteSQLQuery("DELETE FROM metadata WHERE assetid = ? AND versionid = ? AND attributeid = (SELECT "
                              "attributeid FROM attributes WHERE attribute = ?);",
                              {SqlValue(assetid), SqlValue(kVersionId), SqlValue(attribute)}));
}

Result<std::optional<Blob>> WatchFolderStore::ReadValue(std::int64_t assetid, const std::string& attribute) {
  std::optional<Blob> value;
  KELVO_RETURN_ON_ERROR(
      _db->ExecuteSQLQuery("SELECT data FROM metaview WHERE assetid = ? AND versionid = ? AND attribute = ?;",
                           {SqlValue(assetid), SqlValue(kVersionId), SqlValue(attribute)},
                           [&](const SqlStatement& row) -> Result<bool> {
                             value = row.GetBlob(0);
                             return false;
                           }));
  return value;
}

Result<void> WatchFolderStore::ListKeys(std::optional<std::int64_t> assetid, const KeyReceiver& receiver) {
  const auto onRow = [&](const SqlStatement& row) -> Result<bool> {
    KELVO_RETURN_ON_ERROR(receiver(row.GetInt64(0), row.GetText(2), row.GetText(3)));
    return true;
  };
  if (assetid)
    return Done(_db->ExecuteSQLQuery("SELECT assetid, versionid, attribute, suffix FROM metaview WHERE assetid = ?;",
                                {SqlValue(*assetid)}, onRow));
  return Done(_db->ExecuteSQLQuery("SELECT assetid, versionid, attribute, suffix FROM metaview;", {}, onRow));
}

Result<void> WatchFolderStore::ReadAttribute(const std::string& attribute,
                                             const std::function<Result<void>(std::int64_t, const Blob&)>& receiver) {
  return Done(_db->ExecuteSQLQuery("SELECT assetid, data FROM metaview WHERE attribute = ?;", {SqlValue(attribute)},
                              [&](const SqlStatement& row) -> Result<bool> {
                                KELVO_RETURN_ON_ERROR(receiver(row.GetInt64(0), row.GetBlob(1)));
                                return true;
                              }));
}

} // namespace kelvo
