#pragma once
// Watch folders: a plain directory of the user's becomes a read-only asset repository (repository
// type net.kelvo.assets.repositorytype.watchfolder). Files become file assets, directories
// categories; the folder is never written to. The listing and the metadata users give its assets
// live in an SQLite store; file changes are followed through the file monitor and rescanned
// after a pause that grows with the rate of changes.

#include <cstddef>
#include <string>

#include "kelvo/config.h"
#include "kelvo/id.h"
#include "kelvo/result.h"
#include "kelvo/url.h"

namespace kelvo {

// Gates the whole feature: when false, CreateRepositoryFromUrl yields no repository for the type.
extern ConfigBool g_enableAssetWatchFolders;
// Keeps the store in the watched folder (<folder>/.kelvo.db/.kelvo.db.db) instead of the global
// preferences.
extern ConfigBool g_enableAssetWatchFoldersLocalDatabase;
// Uses the SQLite store. The form with metadata files instead is not part of this version: with
// this switched off watch folders don't open.
extern ConfigBool g_enableAssetWatchFolderSQLiteMode;

namespace watchfolderkeys {
// Repository data: true once the kernel's watch limit left parts of the folder unwatched; the
// folder is then rescanned periodically.
inline const Id watchlimitreached{"net.kelvo.assetrepository.watchfolder.watchlimitreached"};
// Repository data: the number of files, of folders, and the bytes of the files, as UInt64.
inline const Id assetcount{"net.kelvo.assetrepository.assetcount"};
inline const Id categorycount{"net.kelvo.assetrepository.categorycount"};
inline const Id assetsize{"net.kelvo.assetrepository.assetsize"};
// URL data: a display name for the folder.
inline const Id watchfolderstring{"net.kelvo.url.watchfolderstring"};
} // namespace watchfolderkeys

// The pauses of live updates. The defaults are those of a running application; tests shorten
// them. Read when a repository is made.
struct WatchFolderTimings {
  double startDelay = 1.0;   // the pause after a quiet time
  double step = 5.0;         // added for each change within quietTime of the last one
  double limit = 60.0;       // the longest pause
  double quietTime = 60.0;   // after this long without a change the pause starts over
  double periodicRescan = 60.0; // interval of full rescans while the watch limit is reached
  std::size_t maxWatches = 0;   // passed to the file monitor; 0: only the kernel's limit
};
void SetWatchFolderTimings(const WatchFolderTimings& timings);
WatchFolderTimings GetWatchFolderTimings();

class WatchFolderAssetRepositoryInterface {
public:
  // Adds the folder at url to the user's list of databases as a watch folder (or sets the
  // active flag of its entry) and starts a mount pass. A folder that holds "databaseid" is an
  // asset database and is refused with an illegal argument error. Any thread.
  static Result<void> AddWatchFolder(const Url& url, bool active);
  // Reports success and does nothing: removal goes through SetDatabases.
  static Result<void> RemoveWatchFolder(const Url& url);
};

// Registers the repository factory of the watch folder type and the "metasq" resolver. Called
// by the module start after the standard repositories; idempotent.
Result<void> PrivateStartWatchFolders();
// Unregisters the "metasq" resolver. Called by the module end.
void PrivateEndWatchFolders();

} // namespace kelvo
