#include "asset/core/asset_config.h"

namespace kelvo {

ConfigBool g_shortUuidForAssets("g_shortUuidForAssets", false, 1, "Use deterministic and shorter UUIDs for assets.");
ConfigBool g_builtinRepositoryWritable("g_builtinRepositoryWritable", false, 1,
                                       "Allows to write meta data of assets of the built-in repository.");
ConfigBool g_applicationRepositoryWritable("g_applicationRepositoryWritable", false, 1,
                                           "Allows to mount the application database writable for translations. "
                                           "Also allows automatic checkout of builtin resources.");
ConfigBool g_disableDerivedCache("g_disableDerivedCache", false, 1, "Disabled the derived cache of builtin nodes.");
ConfigBool g_assetDiagnostic("g_assetDiagnostic", false, 1, "diagnostic for asset database mounting.");
ConfigBool g_generateAssetRepositoryGml("g_generateAssetRepositoryGml", false, 1,
                                        "Generate an asset repository dependency gml graph.");

} // namespace kelvo
