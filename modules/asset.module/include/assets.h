#pragma once
// The module's entry points for a host: start and end, the standard repository stack (user
// repository on the application repository on the built-in repository), the registries that
// other modules fill with built-in assets, the validity rules of stored versions, and the URL
// schemes "asset", "meta", "metasq" and "assetdb" through which any component opens an asset.
//
// The static operations themselves are members of AssetInterface (asset_description.h):
//   GetBuiltinRepository(), GetApplicationRepository() (may be null), GetUserPrefsRepository():
//     the references made at start; null before StartAssetModule and after EndAssetModule.
//   CreateRepositoryFromUrl(rid, repoType, bases, url, writable, derivedInPrefs, tempRepository):
//     a URL repository for g_databaseRepositoryType; an error for any other type.
//   IsAssetVersionValid / IsAssetValid / IsAssetVisible: the range net.kelvo.asset.validversion
//     against Application::GetVersion(); a null description is valid.
//   ResolveAssetsWithMissingAssets: resolves one dependency once per `checked` set.
//   ResolveAsset, GetAssetUrl, AddRepositoryScope: see the URL section below.

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_set>

#include "asset_description.h"
#include "assetrepository.h"
#include "kelvo/config.h"
#include "kelvo/data.h"
#include "kelvo/registry.h"
#include "kelvo/url.h"

namespace kelvo {

// ---- start and end ---------------------------------------------------------------------------

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

// "<version>_<build>", the stamp that marks derived metadata as made by this application
// version; empty before start and after end.
std::string GetDerivedStamp();

// ---- repository types and Ids ----------------------------------------------------------------

namespace repositoryids {
inline const Id builtin{"net.kelvo.repository.builtin"};
inline const Id application{"net.kelvo.repository.application"};
inline const Id userprefs{"net.kelvo.repository.userprefs"};
} // namespace repositoryids

namespace repositorytypes {
inline const Id database{"net.kelvo.assets.repositorytype.database"};
inline const Id watchfolder{"net.kelvo.assets.repositorytype.watchfolder"};
} // namespace repositorytypes

// One entry of net.kelvo.registry.assetrepositorytypes.
struct AssetRepositoryTypeInfo {
  Id typeId;
  std::string description;
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

// ---- configuration -----------------------------------------------------------------------------

extern ConfigBool g_builtinRepositoryWritable;
extern ConfigBool g_applicationRepositoryWritable;
extern ConfigBool g_disableDerivedCache;

// ---- validity ------------------------------------------------------------------------------------

enum class ASSET_VERSION_VALIDITY : std::int32_t {
  VALID = 0,
  INVALID_HIGHER_VERSION_REQUIRED = 1,
  INVALID_LOWER_VERSION_REQUIRED = 2,
};

// The three numbers are 0 when validity is VALID.
struct AssetVersionValidity {
  ASSET_VERSION_VALIDITY validity = ASSET_VERSION_VALIDITY::VALID;
  double minVersion = 0.0;
  double maxVersion = 0.0;
  double currentVersion = 0.0;
};

struct IdAndVersionHash {
  std::size_t operator()(const IdAndVersion& v) const noexcept { return HashValue(v); }
};
// The dependencies already resolved during one run of ResolveAssetsWithMissingAssets calls.
class IdAndVersionSet : public std::unordered_set<IdAndVersion, IdAndVersionHash> {
public:
  using std::unordered_set<IdAndVersion, IdAndVersionHash>::unordered_set;
};

// ---- URLs ------------------------------------------------------------------------------------------
//
//   asset:///<asset Id>[~.<suffix>][/<path inside a directory asset>][?<query>]
//   asset:///file_<rest>.<suffix>       (the asset Id is file_<rest>)
//     query: "name=..&db=..&version=..&rev=<version Id>" (only rev selects; the others are for
//     display, with "&" and "=" written as %26 and %3d), or a bare version Id.
//   meta:///<asset Id>/<metadata file name>?<version Id>
//   metasq:///...                        (watch folder metadata)
//   assetdb:///<category>/.../<asset name>
// The path "root" stands for the empty path of the first three schemes.

inline const Id g_assetIoHandlerId{"net.kelvo.iohandler.asset"};
inline const Id g_metaIoHandlerId{"net.kelvo.iohandler.meta"};
inline const Id g_metasqIoHandlerId{"net.kelvo.iohandler.metasq"};
inline const Id g_assetDbIoHandlerId{"net.kelvo.iohandler.asset.db"};

// The Url data key of the resolve record.
inline const Id g_resolveInfoKey{"asset"};

// What a URL resolved to, carried on the Url under g_resolveInfoKey so that copies of the URL
// resolve again without a search. Valid while text equals the URL's text and, for "asset" URLs,
// the description's repository still exists.
struct ResolveInfo {
  Url resolved;
  std::string text;
  AssetDescription description;
  friend bool operator==(const ResolveInfo& a, const ResolveInfo& b) {
    return a.resolved == b.resolved && a.text == b.text && a.description == b.description;
  }
};
std::size_t HashValue(const ResolveInfo& info);
template <> struct DataTypeTraits<ResolveInfo> {
  static const Id& TypeId();
};

enum class ASSET_URL_MODE : std::int32_t { ASSET = 0, META = 1, METASQ = 2 };

struct ResolvedAssetUrl {
  Url resolved;                // the physical URL
  AssetDescription description; // null for a resolve record without one
  bool usedRecord = false;     // the resolve record on the URL was used (it was current)
};

// The physical URL and the description behind an "asset", "meta" or "metasq" URL, searched in
// repository (the user repository when null). Errors: no asset, or one without content: unknown,
// "No asset found for Url @."; a "meta" URL without a file part: illegal argument.
Result<ResolvedAssetUrl> ResolveUrl(const Url& url, const AssetRepositoryRef& repository, ASSET_URL_MODE mode);

// One opened asset or meta URL: reads go to the physical URL; every write fails.
class AssetConnection {
public:
  AssetConnection(Url url, Url resolved, AssetDescription description)
      : _url(std::move(url)), _resolved(std::move(resolved)), _description(std::move(description)) {}
  // Opens the URL in repository (the user repository when null).
  static Result<AssetConnection> Open(const Url& url, const AssetRepositoryRef& repository = nullptr);

  const Url& GetUrl() const { return _url; }
  const Url& GetResolvedUrl() const { return _resolved; }
  const AssetDescription& GetDescription() const { return _description; }
  // Fails with illegal state "Asset not allowed in this app version." for an invalid asset.
  Result<std::unique_ptr<InputStream>> OpenInputStream() const;
  Result<std::uint64_t> GetContentLength() const;
  // Always FILE, even for a directory asset or no asset.
  IODETECT IoDetect() const { return IODETECT::FILE; }
  std::uint32_t IoGetAttributes() const { return 0x4901; }
  Result<void> IoCopyFile(const Url& destination) const;
  Result<std::unique_ptr<OutputStream>> OpenOutputStream() const;

private:
  Url _url;
  Url _resolved;
  AssetDescription _description;
};

// Flags of ConvertAssetUrlToUiName.
enum UINAMEFLAGS : std::uint32_t {
  UINAME_NAME_ONLY = 1,     // no "assetdb:///" and no category chain
  UINAME_ID = 2,            // the asset Id instead of its name
  UINAME_VERSION = 4,       // the version: " (Latest)", " (Latest: <tag>)" or " (<tag>)"
  UINAME_NO_SUFFIX = 8,     // the text cut at its last "."
  UINAME_NO_DATABASE = 16,  // for an unresolved URL, no " (<db>)"
};
// The text a user interface shows for a URL of any scheme (schemes other than "asset" and
// "meta" come back as their text): "assetdb:///<categories>/<name>" for a found asset, else the
// name from the query, else the URL's text.
Result<std::string> ConvertAssetUrlToUiName(const Url& url, std::uint32_t flags,
                                            const AssetRepositoryRef& repository = nullptr);

// The "asset" URL of the asset that an "assetdb" path names ("<category>/.../<name>", names
// compared without regard to case), searched in repository (the user repository when null).
// A path of one component or none comes back unchanged; no match is an io error
// "Asset not found".
Result<Url> ResolveAssetDbUrl(const Url& url, const AssetRepositoryRef& repository = nullptr);

// Registers the four handlers; done by StartAssetModule. Safe to call more than once.
void RegisterAssetIoHandlers();
void UnregisterAssetIoHandlers();

} // namespace kelvo
