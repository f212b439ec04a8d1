#pragma once
// The mount of one remote database from its cache (see asset/databases/remote_databases.h).

#include <string>
#include <vector>

#include "asset/core/assetrepository.h"
#include "kelvo/background_progress.h"
#include "kelvo/ramdisk.h"
#include "kelvo/result.h"
#include "kelvo/url.h"

namespace kelvo {

// Prepares the cache of the remote database url, refreshes its index when the server's
// modified.dat is newer, mounts its RAM disk and returns the disk's root (carrying
// net.kelvo.url.originurl = url). An empty URL when the database is skipped: the reason is
// logged, added to progress as ERROR and given in skipReason. Runs on the mount job.
Url PrepareRemoteDatabase(const Url& url, const BackgroundEntryRef& progress, std::string& skipReason);

// Forwards the cache notifications of the RAM disk behind root to repository, held weakly, so
// the browser can show download state. Replaces an earlier connection of the same disk.
void ConnectRemoteDownloadState(const Url& root, const AssetRepositoryRef& repository);

// Reads a directory tree listing (index.dat: one "d" or "f", TAB, path relative to the root
// with "/" per line, LF or CRLF) and declares each entry. Entries under _index bypass proxy
// caches. A line of another form makes the whole listing a file format error; an entry whose
// path could leave the root, or that declare refuses, is skipped and described in refused.
Result<void> ReadDirectoryTree(const Url& listing, const RamDisk::DeclareFileDelegate& declare,
                               std::vector<std::string>& refused);

// Writes the default of the cache path into the settings when none is set. Module start.
Result<void> PrivateWriteAssetDatabaseCachePathDefault();
// The cache path of the settings, or the default when none is set.
Url ReadAssetDatabaseCachePath();

} // namespace kelvo
