#pragma once
// Start and end of the whole asset module, for a host.

#include "kelvo/result.h"

namespace kelvo {


// Sets the UUID salt and the derived-data stamp, registers the module's registries, asset types
// and URL handlers, and makes the three standard repositories: the application repository from
// <LIBRARY_DIR>/assets/application when that is a directory, the user repository in
// <PREFS_DIR>/userrepository (created when missing), then enqueues the first mount pass of the
// asset databases (asset_databases.h). Calling it again after a successful start does nothing.
// Not thread safe against EndAssetModule.
Result<void> StartAssetModule();
// Cancels and waits for a running mount pass and releases the mounted databases, then releases
// the standard repositories and the derived-data stamp and unregisters the URL handlers.
// Idempotent: a second call, or a call without a start, does nothing.
void EndAssetModule();
// True between a successful StartAssetModule and EndAssetModule.
bool IsAssetModuleStarted();

} // namespace kelvo
