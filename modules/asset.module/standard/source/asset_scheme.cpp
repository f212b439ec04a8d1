// The URL schemes "asset", "meta", "metasq" and "assetdb": resolving a URL to the asset behind
// it, the "asset" URL of an asset, the resolve record that URLs carry, opened connections, and
// the text a user interface shows for a URL.

#include <algorithm>
#include <cctype>
#include <mutex>
#include <unordered_set>

#include "asset/core/content_digest.h"
#include "asset/standard/assets.h"

namespace kelvo {

namespace {

constexpr std::string_view kRoot = "root";

Error NoAssetFound(const Url& url) { return Error(errors::unknown, FormatString("No asset found for Url @.", url)); }

std::string Lower(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
  return lower;
}

std::string ReplaceAll(std::string text, std::string_view from, std::string_view to) {
  for (std::size_t pos = 0; (pos = text.find(from, pos)) != std::string::npos; pos += to.size())
    text.replace(pos, from.size(), to);
  return text;
}

// The value of key in a query "k=v&k=v"; nothing when the key is absent.
std::optional<std::string> QueryValue(std::string_view query, std::string_view key) {
  std::size_t start = 0;
  while (start <= query.size()) {
    std::size_t end = query.find('&', start);
    if (end == std::string_view::npos) end = query.size();
    const std::string_view item = query.substr(start, end - start);
    if (item.size() > key.size() && item.substr(0, key.size()) == key && item[key.size()] == '=')
      return std::string(item.substr(key.size() + 1));
    start = end + 1;
  }
  return std::nullopt;
}

// The asset Id that the path of an "asset" URL names.
std::string AssetIdOfPath(std::string_view path) {
  std::string_view id = path.substr(0, path.find('/'));
  const auto dot = id.rfind('.');
  if (dot != std::string_view::npos && dot >= 1) {
    if (id[dot - 1] == '~')
      id = id.substr(0, dot - 1);
    else if (id.starts_with("file_"))
      id = id.substr(0, dot);
  }
  return UnescapeAssetIdFromUrlPath(id);
}

// True when every component of a path inside an asset stays inside it: no empty, "." or ".."
// component and no NUL.
bool IsPathInsideAsset(std::string_view rest) {
  std::size_t start = 0;
  while (true) {
    const std::size_t slash = rest.find('/', start);
    const std::string_view part = rest.substr(start, slash == std::string_view::npos ? std::string_view::npos : slash - start);
    if (part.empty() || part == "." || part == ".." || part.find('\0') != std::string_view::npos) return false;
    if (slash == std::string_view::npos) return true;
    start = slash + 1;
  }
}

const ResolveInfo* ResolveInfoOf(const Url& url, Data& holder) {
  holder = url.GetData(g_resolveInfoKey);
  return holder.GetPtr<ResolveInfo>();
}

AssetRepositoryRef OrUserRepository(const AssetRepositoryRef& repository) {
  return repository ? repository : AssetInterface::GetUserPrefsRepository();
}

// The name of an asset for display, with its category chain in front unless nameOnly.
Result<std::string> UiNameOfAsset(const AssetDescription& asset, std::uint32_t flags,
                                  const AssetRepositoryRef& repository) {
  const LanguageRef language = Language::GetCurrentLanguage();
  std::string name;
  if (flags & UINAME_ID) {
    name = asset->GetIdAndVersion().first.ToString();
  } else {
    KELVO_ASSIGN_OR_RETURN(name, asset->GetMetaString(stringkeys::name, language, ""));
    if (name.empty()) name = asset->GetIdAndVersion().first.ToString();
  }
  if (flags & UINAME_NAME_ONLY) return name;
  std::unordered_set<Id> seen{asset->GetIdAndVersion().first};
  AssetDescription current = asset;
  for (;;) {
    KELVO_ASSIGN_OR_RETURN(std::optional<Id> category, current->GetMetaData()->GetValue<Id>(metaids::category));
    if (!category || category->IsEmpty() || !seen.insert(*category).second) break;
    KELVO_ASSIGN_OR_RETURN(AssetDescription parent, repository->FindLatestAsset(g_categoryAssetTypeId, *category, Id(), NONE));
    if (!parent) break;
    KELVO_ASSIGN_OR_RETURN(std::string parentName, parent->GetMetaString(stringkeys::name, language, ""));
    if (parentName.empty()) break;
    name = parentName + "/" + name;
    current = parent;
  }
  return name;
}

// The operations of "asset", "meta" and "metasq" URLs; the mode is the only difference.
class AssetIoHandler final : public IoHandler {
public:
  explicit AssetIoHandler(ASSET_URL_MODE mode) : _mode(mode) {}

  std::string GetUrlScheme() const override {
    switch (_mode) {
    case ASSET_URL_MODE::ASSET: return "asset";
    case ASSET_URL_MODE::META: return "meta";
    case ASSET_URL_MODE::METASQ: return "metasq";
    }
    return "asset";
  }
  // An asset URL is a file to every caller, without a look-up.
  IODETECT IoDetect(const Url&) const override { return IODETECT::FILE; }
  Result<std::unique_ptr<InputStream>> OpenInputStream(const Url& url) const override {
    KELVO_ASSIGN_OR_RETURN(AssetConnection connection, Open(url));
    return connection.OpenInputStream();
  }
  Result<std::unique_ptr<OutputStream>> OpenOutputStream(const Url& url) const override {
    return FunctionNotImplementedError("Asset URLs are read-only: can't write to @.", url);
  }
  Result<Url> Normalize(const Url& url) const override {
    KELVO_ASSIGN_OR_RETURN(ResolvedAssetUrl r, ResolveUrl(url, nullptr, _mode));
    if (r.resolved == url) return url;
    return r.resolved.Normalize();
  }
  // The path never becomes empty: "root" stands for the empty path.
  Url AppendUrl(const Url& url, std::string_view relative) const override {
    Url u = url.GetPath() == kRoot ? url.GetDirectoryPlain() : url;
    u.AppendPlainInPlace(relative);
    return u;
  }
  Url RemoveUrl(const Url& url) const override {
    Url u = url;
    if (!u.GetPath().empty() && u.GetPath() != kRoot) u = u.GetDirectoryPlain();
    if (u.GetPath().empty()) u.SetPath(std::string(kRoot));
    return u;
  }
  Result<std::string> ConvertToUiName(const Url& url, std::uint32_t flags) const override {
    return ConvertAssetUrlToUiName(url, flags, nullptr);
  }

private:
  Result<AssetConnection> Open(const Url& url) const {
    KELVO_ASSIGN_OR_RETURN(ResolvedAssetUrl r, ResolveUrl(url, nullptr, _mode));
    return AssetConnection(url, r.resolved, r.description);
  }

  ASSET_URL_MODE _mode;
};

// "assetdb" URLs name an asset by its category path; they can't be opened, only normalized.
class AssetDbIoHandler final : public IoHandler {
public:
  std::string GetUrlScheme() const override { return "assetdb"; }
  IODETECT IoDetect(const Url&) const override { return IODETECT::NONE; }
  Result<std::unique_ptr<InputStream>> OpenInputStream(const Url& url) const override {
    return IoError("@: invalid asset", url);
  }
  Result<Url> Normalize(const Url& url) const override {
    KELVO_ASSIGN_OR_RETURN(Url assetUrl, ResolveAssetDbUrl(url));
    if (assetUrl == url) return url;
    return assetUrl.Normalize();
  }
};

std::mutex& MetasqLock() {
  static auto* lock = new std::mutex();
  return *lock;
}

// REQUIRES: MetasqLock() held.
MetasqResolver& MetasqResolverSlot() {
  static auto* slot = new MetasqResolver();
  return *slot;
}

} // namespace

void SetMetasqResolver(MetasqResolver resolver) {
  std::lock_guard guard(MetasqLock());
  MetasqResolverSlot() = std::move(resolver);
}

// ---- the resolve record -------------------------------------------------------------------------

// ---- resolving ------------------------------------------------------------------------------------

Result<AssetDescription> AssetInterface::ResolveAsset(const Url& url, const AssetRepositoryRef& repository) {
  if (!repository) return NullptrError("Repository is nullptr.");
  if (url.GetScheme() != "asset") {
    AssetDescription match;
    KELVO_RETURN_ON_ERROR(repository->FindAssets(TypeArray{}, Id(), Id(), LATEST,
                                                 [&](const AssetDescription& d) -> Result<bool> {
                                                   auto content = d->GetUrl();
                                                   if (content.HasError() || !(*content == url)) return true;
                                                   match = d;
                                                   return false;
                                                 }));
    return match;
  }
  const std::string aid = AssetIdOfPath(url.GetPath());
  if (aid.empty()) return AssetDescription();
  Id version;
  const std::string query = url.GetQuery();
  if (!query.empty()) {
    if (query.find('=') == std::string::npos)
      version = Id(Lower(query));
    else if (auto rev = QueryValue(query, "rev"))
      version = Id(*rev);
  }
  KELVO_ASSIGN_OR_RETURN(AssetDescription found, repository->FindLatestAsset(Id(), Id(aid), version, NONE));
  // Cache files of the renderer carry their own suffix and match only assets stored with it.
  const std::string first = url.GetPath().substr(0, url.GetPath().find('/'));
  if (found && Url("asset", first).GetSuffix() == "vtexbin") {
    auto content = found->GetUrl();
    if (content.HasError() || content->GetSuffix() != "vtexbin") return AssetDescription();
  }
  return found;
}

Result<ResolvedAssetUrl> ResolveUrl(const Url& url, const AssetRepositoryRef& repositoryIn, ASSET_URL_MODE mode) {
  ResolvedAssetUrl result;
  if (mode == ASSET_URL_MODE::METASQ) {
    MetasqResolver resolver;
    {
      std::lock_guard guard(MetasqLock());
      resolver = MetasqResolverSlot();
    }
    if (!resolver)
      return UnsupportedOperationError("Watch folder meta data is not available in this build: can't resolve @.", url);
    KELVO_ASSIGN_OR_RETURN(result.resolved, resolver(url));
    return result;
  }
  Data holder;
  if (const ResolveInfo* info = ResolveInfoOf(url, holder); info && info->text == url.ToString()) {
    // A record whose repository is gone is stale: the URL is searched again.
    const bool stale = url.GetScheme() == "asset" && info->description && !info->description->GetRepository();
    if (!stale) {
      result.usedRecord = true;
      result.resolved = info->resolved;
      result.description = info->description;
      return result;
    }
  }
  const AssetRepositoryRef repository = OrUserRepository(repositoryIn);
  if (!repository) return IllegalStateError("The asset module isn't started: can't resolve @.", url);
  KELVO_ASSIGN_OR_RETURN(AssetDescription description, AssetInterface::ResolveAsset(url, repository));
  if (!description) return NoAssetFound(url);
  KELVO_ASSIGN_OR_RETURN(Url content, description->GetUrl());
  if (content.IsEmpty()) return NoAssetFound(url);

  const std::string& path = url.GetPath();
  const auto slash = path.find('/');
  if (slash != std::string::npos) {
    if (!IsPathInsideAsset(std::string_view(path).substr(slash + 1)))
      return IllegalArgumentError("The path of @ leaves its asset.", url);
    if (mode == ASSET_URL_MODE::META) content = content.GetDirectory();
    content = content.Append(path.substr(slash + 1));
  } else if (mode == ASSET_URL_MODE::META) {
    return IllegalArgumentError("Meta Url without meta data identifier: @.", url);
  }
  result.resolved = std::move(content);
  result.description = std::move(description);
  return result;
}

Result<Url> AssetInterface::AddRepositoryScope(const Url& url, const AssetRepositoryRef& repository) {
  const std::string& scheme = url.GetScheme();
  if (scheme != "asset" && scheme != "meta") return url;
  const ASSET_URL_MODE mode = scheme == "asset" ? ASSET_URL_MODE::ASSET : ASSET_URL_MODE::META;
  KELVO_ASSIGN_OR_RETURN(ResolvedAssetUrl r, ResolveUrl(url, repository, mode));
  if (r.usedRecord) return url;
  Url scoped = url;
  scoped.SetData(g_resolveInfoKey, Data(ResolveInfo{r.resolved, url.ToString(), r.description}));
  return scoped;
}

Result<Url> AssetInterface::GetAssetUrl(const AssetDescription& asset, bool isLatest) {
  if (!asset) return NullptrError("Asset description is nullptr.");
  KELVO_ASSIGN_OR_RETURN(Url content, asset->GetUrl());
  if (content.IsEmpty()) return Url();
  const IdAndVersion aid = asset->GetIdAndVersion();
  std::string path = EscapeAssetIdForUrlPath(aid.first.View());
  if (const std::string suffix = content.GetSuffix(); !suffix.empty()) path += "~." + suffix;
  Url url("asset", path);

  const AssetRepositoryRef repository = asset->GetRepository();
  std::string db;
  if (repository) {
    KELVO_ASSIGN_OR_RETURN(db, repository->GetRepositoryName(Language::GetCurrentLanguage(), true));
  }
  KELVO_ASSIGN_OR_RETURN(std::string name, asset->GetMetaString(stringkeys::name, Language::GetCurrentLanguage(), ""));
  KELVO_ASSIGN_OR_RETURN(std::optional<std::string> tag, asset->GetMetaData()->GetValue<std::string>(metaids::versiontag));
  auto escape = [](std::string text) { return ReplaceAll(ReplaceAll(std::move(text), "&", "%26"), "=", "%3d"); };
  std::string query = FormatString("name=@&db=@", escape(name), escape(db));
  if (tag && !tag->empty()) query += "&version=" + *tag;
  if (!isLatest) query += "&rev=" + aid.second.ToString();
  url.SetQuery(query);
  return AddRepositoryScope(url, repository);
}

// ---- connections ----------------------------------------------------------------------------------

Result<AssetConnection> AssetConnection::Open(const Url& url, const AssetRepositoryRef& repository) {
  const std::string& scheme = url.GetScheme();
  ASSET_URL_MODE mode = ASSET_URL_MODE::ASSET;
  if (scheme == "meta")
    mode = ASSET_URL_MODE::META;
  else if (scheme == "metasq")
    mode = ASSET_URL_MODE::METASQ;
  else if (scheme != "asset")
    return IllegalArgumentError("@ is no asset or meta Url.", url);
  KELVO_ASSIGN_OR_RETURN(ResolvedAssetUrl r, ResolveUrl(url, repository, mode));
  return AssetConnection(url, r.resolved, r.description);
}

Result<std::unique_ptr<InputStream>> AssetConnection::OpenInputStream() const {
  if (_description) {
    KELVO_ASSIGN_OR_RETURN(bool valid, AssetInterface::IsAssetValid(_description));
    if (!valid) return IllegalStateError("Asset not allowed in this app version.");
    if (!_description->IsDeleted() && _description->GetUrl().GetValueOr(Url()) == _resolved)
      KELVO_RETURN_ON_ERROR(CheckMirroredContent(_resolved, _description->GetIdAndVersion().second));
  }
  return _resolved.OpenInputStream();
}

Result<std::uint64_t> AssetConnection::GetContentLength() const {
  KELVO_ASSIGN_OR_RETURN(auto in, _resolved.OpenInputStream());
  return in->GetSize();
}

Result<void> AssetConnection::IoCopyFile(const Url& destination) const {
  KELVO_ASSIGN_OR_RETURN(auto in, OpenInputStream());
  KELVO_ASSIGN_OR_RETURN(auto out, destination.OpenOutputStream());
  KELVO_RETURN_ON_ERROR(CopyStream(*in, *out));
  return out->Close();
}

Result<std::unique_ptr<OutputStream>> AssetConnection::OpenOutputStream() const {
  return FunctionNotImplementedError("Asset URLs are read-only: can't write to @.", _url);
}

// ---- names for display -------------------------------------------------------------------------------

Result<std::string> ConvertAssetUrlToUiName(const Url& urlIn, std::uint32_t flags, const AssetRepositoryRef& repositoryIn) {
  const std::string& scheme = urlIn.GetScheme();
  if (scheme != "asset" && scheme != "meta") return urlIn.ToString();
  const AssetRepositoryRef repository = OrUserRepository(repositoryIn);
  Url url = urlIn;
  url.EraseData(g_resolveInfoKey);
  url.SetQuery(urlIn.GetQuery());
  AssetDescription asset;
  if (repository) {
    KELVO_ASSIGN_OR_RETURN(asset, AssetInterface::ResolveAsset(url, repository));
  }
  const std::string query = url.GetQuery();
  if (!asset) {
    const std::string name = ReplaceAll(ReplaceAll(QueryValue(query, "name").value_or(""), "%26", "&"), "%3d", "=");
    if (name.empty()) return url.ToString();
    std::string text = name;
    const std::string db = ReplaceAll(ReplaceAll(QueryValue(query, "db").value_or(""), "%26", "&"), "%3d", "=");
    if (!(flags & UINAME_NO_DATABASE) && !db.empty()) text += " (" + db + ")";
    if (auto version = QueryValue(query, "version"); version && !version->empty()) text += " " + *version;
    return text;
  }
  KELVO_ASSIGN_OR_RETURN(std::string text, UiNameOfAsset(asset, flags, repository));
  if (flags & UINAME_NO_SUFFIX) {
    if (const auto dot = text.rfind('.'); dot != std::string::npos) text.resize(dot);
  }
  if (flags & UINAME_VERSION) {
    KELVO_ASSIGN_OR_RETURN(std::optional<std::string> tag,
                           asset->GetMetaData()->GetValue<std::string>(metaids::versiontag));
    const bool hasTag = tag && !tag->empty();
    std::string insert;
    if (hasTag && query.empty())
      insert = " (Latest: " + *tag + ")";
    else if (hasTag)
      insert = " (" + *tag + ")";
    else if (query.empty())
      insert = " (Latest)";
    const auto dot = text.rfind('.');
    text.insert(dot == std::string::npos ? text.size() : dot, insert);
  }
  if (flags & UINAME_NAME_ONLY) return text;
  return FormatString("@:///@", "assetdb", text);
}

Result<Url> ResolveAssetDbUrl(const Url& urlIn, const AssetRepositoryRef& repositoryIn) {
  if (urlIn.GetScheme() != "assetdb") return IllegalArgumentError("@ is no assetdb Url.", urlIn);
  std::vector<std::string> components;
  {
    const std::string& path = urlIn.GetPath();
    std::size_t start = 0;
    while (start < path.size()) {
      std::size_t end = path.find('/', start);
      if (end == std::string::npos) end = path.size();
      if (end > start) components.push_back(Lower(std::string_view(path).substr(start, end - start)));
      start = end + 1;
    }
  }
  if (components.size() <= 1) return urlIn;
  const AssetRepositoryRef repository = OrUserRepository(repositoryIn);
  if (!repository) return IllegalStateError("The asset module isn't started: can't resolve @.", urlIn);

  const LanguageRef language = Language::GetCurrentLanguage();
  AssetDescription match;
  KELVO_RETURN_ON_ERROR(repository->FindAssets(
      TypeArray{g_categoryAssetTypeId, g_fileAssetTypeId}, Id(), Id(), LATEST, [&](const AssetDescription& d) -> Result<bool> {
        KELVO_ASSIGN_OR_RETURN(std::string name, d->GetMetaString(stringkeys::name, language, ""));
        if (Lower(name) != components.back()) return true;
        AssetDescription current = d;
        std::unordered_set<Id> seen{d->GetIdAndVersion().first};
        for (std::size_t i = components.size() - 1; i-- > 0;) {
          KELVO_ASSIGN_OR_RETURN(std::optional<Id> category, current->GetMetaData()->GetValue<Id>(metaids::category));
          if (!category || category->IsEmpty() || !seen.insert(*category).second) return true;
          KELVO_ASSIGN_OR_RETURN(current, repository->FindLatestAsset(g_categoryAssetTypeId, *category, Id(), NONE));
          if (!current) return true;
          KELVO_ASSIGN_OR_RETURN(std::string parentName, current->GetMetaString(stringkeys::name, language, ""));
          if (Lower(parentName) != components[i]) return true;
        }
        match = d;
        return false;
      }));
  if (!match) return IoError("@: Asset not found", urlIn);
  return AssetInterface::GetAssetUrl(match, true);
}

// ---- registration -----------------------------------------------------------------------------------

void RegisterAssetIoHandlers() {
  RegisterIoHandler(std::make_shared<AssetIoHandler>(ASSET_URL_MODE::ASSET));
  RegisterIoHandler(std::make_shared<AssetIoHandler>(ASSET_URL_MODE::META));
  RegisterIoHandler(std::make_shared<AssetIoHandler>(ASSET_URL_MODE::METASQ));
  RegisterIoHandler(std::make_shared<AssetDbIoHandler>());
}

void UnregisterAssetIoHandlers() {
  for (const char* scheme : {"asset", "meta", "metasq", "assetdb"}) UnregisterIoHandler(scheme);
}

} // namespace kelvo
