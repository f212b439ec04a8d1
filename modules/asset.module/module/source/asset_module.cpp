// Start and end of the whole module: the subsystems in the order they build on each other, and
// the reverse order at the end.

#include "asset/module/asset_module.h"

#include "asset/databases/asset_databases.h"
#include "asset/downloads/asset_downloads.h"
#include "asset/standard/assets.h"
#include "asset/watchfolder/asset_watchfolder.h"
#include "asset/types/command_asset.h"
#include "asset/types/typed_assets.h"
#include "kelvo/log.h"

namespace kelvo {

Result<void> StartAssetModule() {
  if (PrivateStandardRepositoriesStarted()) return {};
  KELVO_RETURN_ON_ERROR(RegisterTypedAssetTypes());
  KELVO_RETURN_ON_ERROR(PrivateStartStandardRepositories());
  KELVO_RETURN_ON_ERROR(PrivateStartWatchFolders());
  // The first mount pass only gets enqueued here; callers wait with WaitForDatabaseLoading.
  if (Result<void> databases = PrivateStartAssetDatabases(); databases.HasError())
    WarningOutput("Can't start mounting the asset databases: @", databases.GetError());
  return {};
}

void EndAssetModule() {
  // Downloads read from the remote databases: they end before the databases go.
  AssetDownloads::FreeAssetDownloads();
  // The mount pass uses the standard repositories: it is cancelled and waited for first.
  PrivateEndAssetDatabases();
  PrivateEndWatchFolders();
  PrivateEndStandardRepositories();
  CommandAssetInterface::PrivateClearLegacyTables();
}

bool IsAssetModuleStarted() { return PrivateStandardRepositoriesStarted(); }

} // namespace kelvo
