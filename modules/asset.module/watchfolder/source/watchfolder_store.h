#pragma once
// The SQLite store of one watch folder: the listing of the last scan and the metadata that users
// gave its assets. A watch folder never writes into the assets it lists, so this is where their
// metadata lives, and a restart reads the listing from here before the disk is walked.
//
// Safe for concurrent use by multiple threads: the connection serialises every statement.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "kelvo/data.h"
#include "kelvo/result.h"
#include "kelvo/sql_database.h"
#include "kelvo/url.h"

namespace kelvo {

inline constexpr int kWatchFolderSchemaVersion = 6;

// One row of the table `directory`.
struct WatchListingRow {
  std::int64_t assetid = 0; // the entry's urlHash as signed 64-bit
  std::string url;          // "/" + relative path; "/" alone for the root
  std::uint64_t size = 0;
  UniversalDateTime modified;
  bool isdir = false;
  friend bool operator==(const WatchListingRow&, const WatchListingRow&) = default;
};
using WatchListing = std::unordered_map<std::int64_t, WatchListingRow>;

struct WatchListingWriteCounts {
  std::size_t written = 0;
  std::size_t deleted = 0;
};

class WatchFolderStore {
public:
  // Opens or creates the database file and brings its schema to the current version: version 4
  // and 5 keep their metadata and lose the listing, older ones lose both (and are compacted). A
  // store written by a newer version is refused with an illegal state error and left untouched.
  // A file that isn't a readable database (damaged, truncated, foreign) is moved aside under the
  // name "<file>.damaged-<seconds>" and a new store is made in its place. Any thread.
  static Result<std::unique_ptr<WatchFolderStore>> Open(const Url& file);

  const Url& GetUrl() const { return _url; }

  // The listing of the last scan. With cancellable, a cancelled job ends the read.
  Result<WatchListing> ReadListing(bool cancellable);
  // Writes the differences between oldListing (what the store holds) and newListing in one
  // transaction: rows gone from the new listing are deleted with their metadata, new and
  // changed rows are written. Nothing is touched when nothing differs.
  Result<WatchListingWriteCounts> WriteListing(const WatchListing& oldListing, const WatchListing& newListing);

  // Metadata values, by asset key (urlHash), version (always 1) and attribute text
  // ("<metaId>.meta|.version|.derived"). An empty data deletes the value.
  Result<void> StoreValue(std::int64_t assetid, const std::string& attribute, const std::string& suffix,
                          const Blob& data);
  Result<void> DeleteValue(std::int64_t assetid, const std::string& attribute);
  // The stored bytes; nothing when there is no such value.
  Result<std::optional<Blob>> ReadValue(std::int64_t assetid, const std::string& attribute);
  // (assetid, attribute, suffix) of every stored value, or of one asset's values.
  using KeyReceiver = std::function<Result<void>(std::int64_t assetid, const std::string& attribute,
                                                 const std::string& suffix)>;
  Result<void> ListKeys(std::optional<std::int64_t> assetid, const KeyReceiver& receiver);
  // (assetid, bytes) of one attribute over all assets.
  Result<void> ReadAttribute(const std::string& attribute,
                             const std::function<Result<void>(std::int64_t assetid, const Blob& data)>& receiver);

private:
  explicit WatchFolderStore(std::shared_ptr<SqlDatabase> db, Url url) : _db(std::move(db)), _url(std::move(url)) {}
  Result<void> SetupSchema();
  Result<void> WriteMetadata(std::int64_t assetid, const std::string& attribute, const std::string& suffix,
                             const Blob& data);

  std::shared_ptr<SqlDatabase> _db;
  Url _url;
};

} // namespace kelvo
