// The watch folder type in the module: configuration, the repository factory that the
// repository-type registry calls, the "metasq" resolver, and adding folders to the user's list.

#include "asset/watchfolder/asset_watchfolder.h"

#include <algorithm>
#include <mutex>

#include "asset/databases/asset_databases.h"
#include "asset/standard/assets.h"
#include "asset/watchfolder/filewatchassetrepository.h"
#include "watchfolder_metadata.h"

namespace kelvo {

ConfigBool g_enableAssetWatchFolders("g_enableAssetWatchFolders", true, 1,
                                     "enable experimental watch folders inside the asset browser.");
ConfigBool g_enableAssetWatchFoldersLocalDatabase("g_enableAssetWatchFoldersLocalDatabase", false, 1,
                                                  "stores the metadata in the local folder instead global prefs.");
ConfigBool g_enableAssetWatchFolderSQLiteMode("g_enableAssetWatchFolderSQLiteMode", true, 1,
                                              "uses a sqlite3 database to store data instead of filesystem.");

namespace {

std::mutex& TimingsLock() {
  static auto* lock = new std::mutex();
  return *lock;
}

WatchFolderTimings& TimingsSlot() {
  static auto* timings = new WatchFolderTimings();
  return *timings;
}

Result<AssetRepositoryRef> CreateWatchFolder(const Id&, const std::vector<AssetRepositoryRef>& bases, const Url& url,
                                             bool, bool, bool) {
  if (!g_enableAssetWatchFolders) return AssetRepositoryRef();
  KELVO_ASSIGN_OR_RETURN(std::shared_ptr<FileWatchAssetRepositoryImpl> repository,
                         FileWatchAssetRepositoryImpl::Create(url, bases));
  return AssetRepositoryRef(std::move(repository));
}

} // namespace

void SetWatchFolderTimings(const WatchFolderTimings& timings) {
  std::lock_guard guard(TimingsLock());
  TimingsSlot() = timings;
}

WatchFolderTimings GetWatchFolderTimings() {
  std::lock_guard guard(TimingsLock());
  return TimingsSlot();
}

Result<void> WatchFolderAssetRepositoryInterface::AddWatchFolder(const Url& urlIn, bool active) {
  if (urlIn.Append("databaseid").IoDetect() == IODETECT::FILE)
    return IllegalArgumentError("The given path (@] is a k3s asset database and cannot be added as watch folder.",
                                urlIn);
  KELVO_ASSIGN_OR_RETURN(std::vector<AssetDatabaseStruct> list, AssetDataBases::GetDatabaseList());
  Url url = urlIn;
  url.SetData(assetdatabasekeys::assetdatabasetype, Data(repositorytypes::watchfolder));
  auto it = std::find_if(list.begin(), list.end(), [&](const AssetDatabaseStruct& db) { return db._dbUrl == url; });
  if (it != list.end()) {
    it->_active = active;
    it->_dbUrl = url;
  } else {
    list.emplace_back(url, active, true);
  }
  return AssetDataBases::SetDatabases(list);
}

Result<void> WatchFolderAssetRepositoryInterface::RemoveWatchFolder(const Url&) { return {}; }

Result<void> PrivateStartWatchFolders() {
  KELVO_ASSIGN_OR_RETURN(auto types, GetRegistry<AssetRepositoryTypeInfo>(g_assetRepositoryTypesRegistryId));
  types->InsertEntry(repositorytypes::watchfolder,
                     AssetRepositoryTypeInfo{repositorytypes::watchfolder, "A watched plain folder of files.",
                                             CreateWatchFolder});
  SetMetasqResolver(ResolveWatchFolderMetasqUrl);
  return {};
}

void PrivateEndWatchFolders() { SetMetasqResolver(nullptr); }

} // namespace kelvo
