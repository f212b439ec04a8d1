#pragma once
// Start and end of the database registry, called by the module's start and end.

#include "kelvo/result.h"

namespace kelvo {

// Prepares the registry and starts the first mount pass (once per start). Call after the
// standard repositories exist.
Result<void> PrivateStartAssetDatabases();
// Cancels the running mount pass and waits for it, then empties the registry and releases its
// repositories. Call before the standard repositories are released. Idempotent.
void PrivateEndAssetDatabases();

} // namespace kelvo
