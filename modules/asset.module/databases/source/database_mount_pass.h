#pragma once
// A mount pass: collects the databases, mounts them one at a time on the service I/O queue and
// chains them between the user and the application repository.

#include <vector>

#include "asset/databases/asset_databases.h"
#include "kelvo/result.h"

namespace kelvo {

// Replaces the running pass (if any) by a new one over the standard databases and list. Before the
// module starts, and in the application's updater, it does nothing. Errors: only those of enqueuing;
// the pass reports its own on its progress entry. Any thread but a pass's own job.
Result<void> StartPass(std::vector<AssetDatabaseStruct> list, bool force);

// Cancels the running pass and waits for it. REQUIRES: startLock held; not called from the pass.
Result<void> StopPassLocked();

} // namespace kelvo
