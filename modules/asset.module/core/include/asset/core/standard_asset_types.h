#pragma once
// Registration of the asset types that the core itself provides.

#include "kelvo/result.h"

namespace kelvo {

// Enters the file asset type into net.kelvo.registry.assettypes. Runs once per process; later
// calls return at once. Called by the module start and, lazily, by FindAssetType.
Result<void> RegisterStandardAssetTypes();

} // namespace kelvo
