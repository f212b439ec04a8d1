#pragma once
// Remote databases: any static HTTP server that serves a repository tree with its _index
// (index.dat listing the tree, modified.dat with the time of the last compaction) is a database.
// A mount pass never opens it over the network as such: it keeps one cache directory per database
// below the cache path, "<name>_<md5 of the URL text>", holding _index/index.dat and
// _index/modified.dat, and mounts a RAM disk whose files are declared from index.dat and fetched
// into that directory on first read. modified.dat decides whether the local index is stale, so a
// mount costs two small requests at most, and an unreachable server still mounts from the cache.

#include <string>

#include "kelvo/http_fetcher.h"
#include "kelvo/id.h"
#include "kelvo/url.h"

namespace kelvo {

namespace assetdatabasekeys {
// Settings: the directory (URL text) below which the caches of remote databases lie.
inline const Id cachepath{"net.kelvo.appsettings.assets.cachepath"};
} // namespace assetdatabasekeys

// True for the schemes of remote databases, "http" and "https".
bool IsRemoteDatabaseUrl(const Url& url);
// The cache directory name of a remote database: the last path component of url, "_" and the
// lower-case hex MD5 of the URL text ("https://host/path"). A name that could leave the cache
// directory ("", ".", "..") is replaced by "db".
std::string GetRemoteDatabaseCacheName(const Url& url);
// The default cache path: <GLOBALPREFS_DIR>/_assetcache.
Url GetDefaultAssetDatabaseCachePath();
// The transfer settings of the index requests and of the RAM disks of later mounts (tools and
// tests use short time-outs). By default their files are not synced one by one (syncFiles off):
// a download syncs the mirrors once at its end, and every version's content is checked against
// its version Id before its first use in a process, so a copy torn by a crash is fetched again.
// The local index is synced whatever the settings. Any thread.
void SetRemoteDatabaseHttpOptions(const HttpOptions& options);

} // namespace kelvo
