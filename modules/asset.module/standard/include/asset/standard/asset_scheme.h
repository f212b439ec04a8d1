#pragma once
// The URL schemes "asset", "meta", "metasq" and "assetdb": resolving, opening and naming asset URLs.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include "asset/core/asset_description.h"
#include "asset/core/asset_url.h"
#include "asset/core/assetrepository.h"
#include "kelvo/url.h"

namespace kelvo {

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

// Resolves a "metasq" URL to a readable physical URL. The watch folder subsystem sets it when it
// starts; until then "metasq" URLs fail as unsupported. Any thread.
using MetasqResolver = std::function<Result<Url>(const Url& url)>;
void SetMetasqResolver(MetasqResolver resolver);

// Registers the four handlers; done by StartAssetModule. Safe to call more than once.
void RegisterAssetIoHandlers();
void UnregisterAssetIoHandlers();

} // namespace kelvo
