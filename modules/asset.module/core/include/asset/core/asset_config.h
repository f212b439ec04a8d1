#pragma once
// The module's configuration variables. Each is a typed handle: code reads it directly, never by
// its name; the host finds them by name through the framework's configuration registry.

#include "kelvo/config.h"

namespace kelvo {

// Use short (6 character) compact UUID bodies.
extern ConfigBool g_shortUuidForAssets;
// Allows writing metadata of assets of the built-in repository.
extern ConfigBool g_builtinRepositoryWritable;
// Mounts the application repository writable (for translations), even when its databaseid is
// write-protected.
extern ConfigBool g_applicationRepositoryWritable;
// Disables the derived cache of built-in assets.
extern ConfigBool g_disableDerivedCache;
// Switches on the timing and diagnostic lines of mounting and compaction.
extern ConfigBool g_assetDiagnostic;
// Makes each complete mount pass write <PREFS_DIR>/assetrepository_deps.gml.
extern ConfigBool g_generateAssetRepositoryGml;

} // namespace kelvo
