#pragma once
// The standard repository stack (user repository on the application repository on the built-in
// repository), the registries that other modules fill with built-in assets, the validity rules of
// stored versions (asset_version_validity.h), and the URL schemes "asset", "meta", "metasq" and
// "assetdb" through which any component opens an asset (asset_scheme.h). The module's start and
// end are in asset/module/asset_module.h.
//
// The static operations themselves are members of AssetInterface (asset_description.h):
//   GetBuiltinRepository(), GetApplicationRepository() (may be null), GetUserPrefsRepository():
//     the references made at start; null before StartAssetModule and after EndAssetModule.
//   CreateRepositoryFromUrl(rid, repoType, bases, url, options):
//     a URL repository for repositorytypes::database; other types through the factory of their
//     entry in net.kelvo.registry.assetrepositorytypes; an error for a type without one.
//   IsAssetVersionValid / IsAssetValid / IsAssetVisible: the range net.kelvo.asset.validversion
//     against Application::GetVersion(); a null description is valid.
//   ResolveAssetsWithMissingAssets: resolves one dependency once per `checked` set.
//   ResolveAsset, GetAssetUrl, AddRepositoryScope: see the URL section below.

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_set>

#include "asset/core/asset_description.h"
#include "asset/core/assetrepository.h"
#include "asset/standard/asset_scheme.h"
#include "asset/core/asset_version_validity.h"
#include "asset/core/asset_config.h"
#include "kelvo/data.h"
#include "kelvo/registry.h"
#include "kelvo/url.h"

namespace kelvo {

// ---- start and end -------------------------------------------------------------------------------

// Sets the UUID salt and the derived-data stamp, registers the registries, asset types and URL
// handlers, and makes the three standard repositories: the application repository from
// <LIBRARY_DIR>/assets/application when that is a directory, the user repository in
// <PREFS_DIR>/userrepository (created when missing). Does nothing once started; on an error
// nothing stays made. Called by the module start; not thread safe against the end.
Result<void> PrivateStartStandardRepositories();
// Releases the standard repositories and the stamp and unregisters the URL handlers. Idempotent.
void PrivateEndStandardRepositories();
bool PrivateStandardRepositoriesStarted();

// ---- repository types and Ids ----------------------------------------------------------------

// repositoryids and repositorytypes are in asset/core/assetrepository.h.

// Opens a repository of one type: the arguments of CreateRepositoryFromUrl without the type.
// A subsystem above this layer fills it in when it starts; no repository (null, no error) means
// that the type is switched off.
using RepositoryFactory = std::function<Result<AssetRepositoryRef>(
    const Id& rid, const std::vector<AssetRepositoryRef>& bases, const Url& url, bool writable,
    bool derivedInPrefs, bool tempRepository)>;

// One entry of net.kelvo.registry.assetrepositorytypes.
struct AssetRepositoryTypeInfo {
  Id typeId;
  std::string description;
  // Empty for a type whose subsystem hasn't started; CreateRepositoryFromUrl then refuses it.
  RepositoryFactory create;
};
extern const Id g_assetRepositoryTypesRegistryId; // net.kelvo.registry.assetrepositorytypes

// ---- built-in asset loaders -------------------------------------------------------------------

// A loader offers the built-in assets it has that match types and aid (all when aid is empty;
// with PREFIX in findMode, those whose Id begins with aid) to the receiver. metaData becomes
// persistent metadata of the asset; url (loaders2 only) is a folder whose metadata files the
// asset gets as well, or empty. A loader returns false, or the receiver's error, to stop.
using BuiltinAssetReceiver2 = std::function<Result<bool>(const Asset& asset, const DataDictionary& metaData,
                                                         const Url& url)>;
using BuiltinAssetLoader2 = std::function<Result<bool>(const TypeArray& types, const Id& aid,
                                                       ASSET_FIND_MODE findMode, const BuiltinAssetReceiver2& receiver)>;
using BuiltinAssetReceiver = std::function<Result<bool>(const Asset& asset, const DataDictionary& metaData)>;
using BuiltinAssetLoader = std::function<Result<bool>(const TypeArray& types, const Id& aid, ASSET_FIND_MODE findMode,
                                                      const BuiltinAssetReceiver& receiver)>;

extern const Id g_builtinAssetLoaders2RegistryId; // net.kelvo.registry.builtinassetloaders2
extern const Id g_builtinAssetLoadersRegistryId;  // net.kelvo.registry.builtinassetloaders
Result<std::shared_ptr<Registry<BuiltinAssetLoader2>>> GetBuiltinAssetLoaders2();
Result<std::shared_ptr<Registry<BuiltinAssetLoader>>> GetBuiltinAssetLoaders();

} // namespace kelvo
