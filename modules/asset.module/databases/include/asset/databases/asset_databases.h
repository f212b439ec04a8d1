#pragma once
// Asset databases: which databases exist, how each is opened as a repository and how they are
// chained between the user repository and the application repository, so that one search on
// the user repository reaches them all.
//
// The databases of one mount pass come from four sources, in this order of priority (smaller
// first, so mounted first and searched last):
//   folders under <LIBRARY_DIR>/assets ("basics" 0, "utilities" 1, others from 1000, "unittests"
//   5000), .zip archives there (10000 + n), .dat link files there, whose text is a database URL
//   (20000 + n), the user's list from the settings (100000 + index), and the URLs that observers
//   of ObservableQueryDatabases add (1000000 + n).
// A search on the user repository then walks: user repository, last mounted database, ...,
// first mounted database, application repository, built-in repository.
//
// Mounting never runs on the caller's thread: every change of the list cancels the running pass
// and starts a new one on the service I/O queue; WaitForDatabaseLoading waits for it. Progress
// and problems of a pass go to a master background progress entry. A database that can't be
// opened is reported there and skipped; the others are mounted all the same.
//
// Remote databases (http, https) are mounted from a local cache that a RAM disk fills on demand
// (asset/databases/remote_databases.h); the cache operations below act on all of them.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "asset/core/assetrepository.h"
#include "asset/storage/urlassetrepository.h"
#include "kelvo/background_progress.h"
#include "kelvo/config.h"
#include "kelvo/data.h"
#include "kelvo/observable.h"
#include "kelvo/result.h"
#include "kelvo/url.h"

namespace kelvo {

// ---- keys and configuration ----------------------------------------------------------------------

namespace assetdatabasekeys {
// Settings: the user's list, an array of AssetDatabaseStruct records.
inline const Id userpaths{"net.kelvo.appsettings.assets.userpaths"};
// URL data: the Id of the repository type (net.kelvo.registry.assetrepositorytypes) to mount with.
inline const Id assetdatabasetype{"net.kelvo.url.assetdatabasetype"};
// URL data: the URL that a derived URL (a zip wrapper) stands for.
inline const Id& originurl = g_originUrlKey;
// Repository data: whether the database is exported when a project is saved.
inline const Id exportonsaveproject{"net.kelvo.assetrepository.exportonsaveproject"};
} // namespace assetdatabasekeys


// ---- the database record ---------------------------------------------------------------------------

// One database of the user's list. Held in Data as net.kelvo.datatype.assetdatabasestruct.
struct AssetDatabaseStruct {
  // The database's location; its data may carry assetdatabasekeys::assetdatabasetype.
  Url _dbUrl;
  // False keeps the database in the list without mounting it.
  bool _active = true;
  // Copied to the repository as assetdatabasekeys::exportonsaveproject.
  bool _exportOnSaveProject = true;

  AssetDatabaseStruct() = default;
  explicit AssetDatabaseStruct(Url url, bool active = true, bool exportOnSaveProject = true)
      : _dbUrl(std::move(url)), _active(active), _exportOnSaveProject(exportOnSaveProject) {}
  // Equal URLs (scheme, path, query and repository type) and equal flags.
  friend bool operator==(const AssetDatabaseStruct& a, const AssetDatabaseStruct& b);
};
// Covers the URL with its repository type and the two flags.
std::size_t HashValue(const AssetDatabaseStruct& db);
template <> struct DataTypeTraits<AssetDatabaseStruct> {
  static const Id& TypeId(); // net.kelvo.datatype.assetdatabasestruct
  static constexpr const char* kTypeName = "kelvo::AssetDatabaseStruct";
};

// The settings form of a list: an array of dictionaries {"_dbUrl": text, "_active": bool,
// "_exportOnSaveProject": bool, and "query" / "net.kelvo.url.assetdatabasetype" when the URL has
// them}.
Data AssetDatabasesToSettingsData(const std::vector<AssetDatabaseStruct>& databases);
// The reverse; an empty Data is the empty list. A value that is no such array, or an element
// without a URL text, is a fileformat error. Elements that are AssetDatabaseStruct values are
// taken as they are.
Result<std::vector<AssetDatabaseStruct>> AssetDatabasesFromSettingsData(const Data& data);

// ---- state of the registry -------------------------------------------------------------------------

// What the registry knows of one URL after the last pass (for hosts and tools).
struct AssetDatabaseState {
  Url url;
  std::int64_t priority = 0;   // of the last pass that listed it
  bool active = false;         // listed by the last pass with its active flag set
  bool mounted = false;        // a repository is mounted for it
  bool exportOnSaveProject = false;
  Id repositoryId;             // of the mounted repository
  bool skipInSearch = false;   // hidden behind a later database with the same repository Id
  std::string error;           // why the last pass could not mount it; empty when it could
};

using AssetDatabaseReceiver = std::function<Result<bool>(const AssetDatabaseStruct&)>;
// An observer of ObservableQueryDatabases gets this and feeds it every URL it wants mounted.
using DatabaseUrlReceiver = std::function<void(const Url&)>;
using ObservableQueryDatabasesType = Observable<DatabaseUrlReceiver>;

class AssetDataBases {
public:
  // The repository mounted for url; null when the URL is unknown, inactive or not mounted.
  static Result<AssetRepositoryRef> FindRepository(const Url& url);
  // The URL of the entry that holds exactly this repository object; an illegal argument error
  // when none does.
  static Result<Url> FindRepository(const AssetRepositoryRef& repository);
  // Hands each database of the user's list to receiver in list order; stops when it returns
  // false or an error. The standard databases are not in this list. Returns false when stopped.
  static Result<bool> GetDatabases(const AssetDatabaseReceiver& receiver);
  // The user's list as an array.
  static Result<std::vector<AssetDatabaseStruct>> GetDatabaseList();
  // Writes the list to the settings, then starts a pass with it.
  static Result<void> SetDatabases(const std::vector<AssetDatabaseStruct>& databases);
  // With g_generateAssetRepositoryGml: writes the repository graph, from the user repository
  // through every repository derived from it, to <PREFS_DIR>/assetrepository_deps.gml.
  static Result<void> WriteGmlDependencies();
  // Waits with no time limit for the running pass (and a pass that replaced it meanwhile).
  // True when no pass runs or the pass ended without an error.
  static Result<bool> WaitForDatabaseLoading();
  // Reads the user's list and starts a pass with it. force reopens local databases of the
  // user's list and mounts even an unchanged list.
  static Result<void> ReloadAssetRepositories(bool force);
  // The directory of the caches of remote databases: the setting, else <GLOBALPREFS_DIR>/_assetcache.
  static Url GetAssetDatabaseCachePath();
  // Makes url the cache path. Accepted: the current path, a missing directory, an empty one, or
  // one whose every entry is a database cache (a directory with _index/index.dat); anything else
  // fails with "Not a valid cache path". Live RAM disks mirror into the new place from then on;
  // cached files are not moved. Any thread.
  static Result<void> SetAssetDatabaseCachePath(const Url& url);
  // The bytes of all files below the cache path; links are not followed, and a directory that
  // can't be listed counts 0. Any thread.
  static std::uint64_t GetAssetDatabaseCacheSize();
  // Deletes the cache path with everything in it; live RAM disks fetch their files again on the
  // next read. Errors: the deletion's. Any thread.
  static Result<void> ClearAssetDatabaseCache();
  // Fired once per pass while the standard databases are collected, on the pass's thread with
  // the registry lock held: observers must not call into AssetDataBases. Made on first use;
  // released at module end, so observers are added again after a restart.
  static std::shared_ptr<ObservableQueryDatabasesType> ObservableQueryDatabases();

  // Every URL the registry has an entry for, ordered by the priority of the last pass.
  static std::vector<AssetDatabaseState> GetDatabaseStates();
  // The progress entry of the running or last pass; null before the first pass that mounted.
  static BackgroundEntryRef GetLastProgressEntry();
  // The assets directory: <LIBRARY_DIR>/assets.
  static Url GetAssetsDirectory();
};

// Prepares the registry and starts the first mount pass (once per start). Called by the module
// start after the standard repositories exist.
Result<void> PrivateStartAssetDatabases();
// Cancels the running mount pass and waits for it, then empties the registry and releases its
// repositories. Called by the module end before the standard repositories go. Idempotent.
void PrivateEndAssetDatabases();

} // namespace kelvo
