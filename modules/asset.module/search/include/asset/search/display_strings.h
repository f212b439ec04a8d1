#pragma once
// What a browser row shows beside an asset's name, besides its type name (type_names.h): the
// colour bar, the tag string that free text searches read, and two questions about dependencies.

#include <array>
#include <optional>
#include <string>

#include "asset/core/asset_version_validity.h"
#include "asset/core/assetrepository.h"

namespace kelvo {

namespace displayids {
// The dependency that stands for assets that could not be found.
inline const Id missingassets{"net.kelvo.asset.file.missingassets"};
// Stamp of derived metadata, kept beside the stored tag string.
inline const Id derivedmetadatastamp{"net.kelvo.asset.derivedmetadatastamp"};
inline const Id nodetemplate{"net.kelvo.node.assettype.nodetemplate"};
} // namespace displayids

// sRGB colour of the asset's colour category, or nothing when it has none (or no description).
// Never fails; any thread.
std::optional<std::array<double, 3>> GetAssetColorBar(const AssetDescription& asset);

// The sRGB transfer function of one linear component.
double LinearToSrgb(double c);

// The search tags of an asset: groups separated by ";", synonyms within a group by ",". The
// expanded text is kept as derived metadata with the derived stamp and the language, so that the
// next search reads it back; a write that fails is logged and the text returned all the same.
// Placeholders "{node/port}" stay as they stand: this system has no node descriptions to expand
// them from. Errors of metadata reads are returned. Any thread.
Result<std::string> GetTagStrings(const AssetDescription& asset);

// Whether asset, or any asset it depends on (followed through repository), is or names the
// missing assets marker, or names a dependency that can't be found. checked holds the
// dependencies resolved so far and is shared by a whole walk. Errors of the lookups are returned.
Result<bool> HasMissingDependencies(const AssetRepositoryRef& repository, const AssetDescription& asset,
                                    IdAndVersionSet& checked);

// Whether asset directly depends on a plugin or node space of the external renderer. Never fails.
bool HasLumoraDependencies(const AssetDescription& asset);

} // namespace kelvo
