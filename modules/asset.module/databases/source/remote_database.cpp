// Remote databases: the cache directory of each, the freshness test by modified.dat, the RAM disk
// declared from index.dat, and the forwarding of its cache notifications to the repository.

#include "remote_database.h"

#include <openssl/evp.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <mutex>
#include <optional>
#include <unordered_map>

#include <nlohmann/json.hpp>

#include "asset/core/asset_config.h"
#include "asset/databases/asset_databases.h"
#include "asset/databases/remote_databases.h"
#include "asset/storage/url_layout.h"
#include "kelvo/application.h"
#include "kelvo/datetime.h"
#include "kelvo/hash.h"
#include "kelvo/log.h"
#include "kelvo/settings.h"

namespace kelvo {

namespace {

// modified.dat is a few dozen bytes; anything much larger is not one.
constexpr std::uint64_t kMaxModifiedBytes = 64 * 1024;

// The files of a mirror are fetched without a sync each: a download syncs the mirrors once when
// it ends, and content torn by a crash before that fails the check against its version Id when
// it is read.
HttpOptions DefaultOptions() {
  HttpOptions options;
  options.syncFiles = false;
  return options;
}

struct RemoteState {
  std::mutex lock;
  HttpOptions options = DefaultOptions();
  std::shared_ptr<HttpFetcher> fetcher = std::make_shared<HttpFetcher>(options);
  std::shared_ptr<HttpFetcher> indexFetcher;  // made on first use
  // The observer token of each RAM disk whose notifications go to a repository, by disk name.
  std::unordered_map<std::string, std::pair<std::weak_ptr<RamDisk>, Observable<Url, bool>::Token>> connections;
};

RemoteState& Remote() {
  static RemoteState* state = new RemoteState(); // never destroyed: mount jobs may outlive statics
  return *state;
}

std::shared_ptr<HttpFetcher> Fetcher() {
  RemoteState& s = Remote();
  std::lock_guard guard(s.lock);
  return s.fetcher;
}

// The local index is the one file that nothing checks when it is read, so it is always synced.
std::shared_ptr<HttpFetcher> IndexFetcher() {
  RemoteState& s = Remote();
  std::lock_guard guard(s.lock);
  if (!s.indexFetcher) {
    HttpOptions synced = s.options;
    synced.syncFiles = true;
    s.indexFetcher = std::make_shared<HttpFetcher>(synced);
  }
  return s.indexFetcher;
}

HttpOptions Options() {
  RemoteState& s = Remote();
  std::lock_guard guard(s.lock);
  return s.options;
}

std::string Md5Hex(std::string_view text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  if (EVP_Digest(text.data(), text.size(), digest, &size, EVP_md5(), nullptr) != 1) size = 0;
  return ToHex(digest, size);
}

// The URL without trailing "/", so that "https://host/db/" and "https://host/db" share one cache.
Url Trimmed(Url url) {
  std::string path = url.GetPath();
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  url.SetPath(std::move(path));
  return url;
}

Url NoProxyCaching(Url url) {
  url.SetData(urlkeys::http_no_proxy_caching, Data(true));
  return url;
}

// The "modified" time of the first dictionary of a modified.dat (an object, or a list of
// objects); nothing for an empty list. Anything else is a file format error.
Result<std::optional<std::int64_t>> ParseModified(const std::string& text, const std::string& source) {
  const nlohmann::json json = nlohmann::json::parse(text, nullptr, false);
  const nlohmann::json* first = &json;
  if (json.is_array()) {
    if (json.empty()) return std::optional<std::int64_t>();
    first = &json.front();
  }
  if (!first->is_object() || !first->contains("modified") || !(*first)["modified"].is_number_integer())
    return FileFormatError("@ holds no modification time.", source);
  return std::optional<std::int64_t>((*first)["modified"].get<std::int64_t>());
}

std::string FormatTime(std::int64_t value) {
  return UniversalDateTime::FromValue(static_cast<std::uint64_t>(value)).FormatLocal("%Y-%m-%d %H:%M:%S");
}

} // namespace

// ---- names and settings ------------------------------------------------------------------------------

bool IsRemoteDatabaseUrl(const Url& url) { return url.GetScheme() == "http" || url.GetScheme() == "https"; }

std::string GetRemoteDatabaseCacheName(const Url& url) {
  const Url trimmed = Trimmed(url);
  const std::string text = HttpFetcher::ToRequestText(trimmed).GetValueOr(trimmed.ToString());
  std::string name = trimmed.GetName();
  if (!IsSafePathComponent(name)) name = "db";
  return name + "_" + Md5Hex(text);
}

Url GetDefaultAssetDatabaseCachePath() {
  return Application::PrivateGetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR).Append("_assetcache");
}

void SetRemoteDatabaseHttpOptions(const HttpOptions& options) {
  RemoteState& s = Remote();
  std::lock_guard guard(s.lock);
  s.options = options;
  s.fetcher = std::make_shared<HttpFetcher>(options);
  s.indexFetcher = nullptr;
}

Url ReadAssetDatabaseCachePath() {
  const std::string text = Settings::Get(assetdatabasekeys::cachepath).Get<std::string>().value_or(std::string());
  return text.empty() ? GetDefaultAssetDatabaseCachePath() : Url(text);
}

Result<void> PrivateWriteAssetDatabaseCachePathDefault() {
  if (!Settings::Get(assetdatabasekeys::cachepath).IsEmpty()) return {};
  return Settings::Set(assetdatabasekeys::cachepath, Data(GetDefaultAssetDatabaseCachePath().ToString()));
}

// ---- the directory tree listing ----------------------------------------------------------------------

Result<void> ReadDirectoryTree(const Url& listing, const RamDisk::DeclareFileDelegate& declare,
                               std::vector<std::string>& refused) {
  KELVO_ASSIGN_OR_RETURN(const std::string text, listing.ReadAll());
  // The four kinds of flags, made once: a listing of a large database has hundreds of thousands
  // of lines.
  DataDictionary file, directory, indexFile, indexDirectory;
  directory.SetData(urlkeys::ramdisk_directory, Data(true));
  indexFile.SetData(urlkeys::http_no_proxy_caching, Data(true));
  indexDirectory = directory;
  indexDirectory.SetData(urlkeys::http_no_proxy_caching, Data(true));

  LineReader lines(text);
  std::string line;
  std::vector<std::string> components;
  std::size_t number = 0;
  while (lines.Next(line)) {
    ++number;
    if (line.empty()) continue;
    if (line.size() < 3 || line[1] != '\t' || (line[0] != 'd' && line[0] != 'f'))
      return FileFormatError("@ is no directory tree listing (line @).", listing, number);
    const std::string_view path = std::string_view(line).substr(2);
    // The component strings are reused from line to line, keeping their storage.
    std::size_t count = 0;
    bool safe = true;
    for (std::size_t pos = 0; pos <= path.size();) {
      std::size_t next = path.find('/', pos);
      if (next == std::string_view::npos) next = path.size();
      const std::string_view part = path.substr(pos, next - pos);
      safe = safe && IsSafePathComponent(part);
      if (count == components.size()) components.emplace_back();
      components[count++].assign(part);
      pos = next + 1;
    }
    components.resize(count);
    if (!safe) {
      refused.push_back(std::string(path));
      continue;
    }
    const bool isDirectory = line[0] == 'd';
    const bool isIndex = components.front() == "_index";
    const DataDictionary& flags = isIndex ? (isDirectory ? indexDirectory : indexFile) : (isDirectory ? directory : file);
    if (Result<void> declared = declare(components, flags); declared.HasError())
      refused.push_back(FormatString("@ (@)", path, declared.GetError()));
  }
  return {};
}

// ---- preparing one database ------------------------------------------------------------------------

Url PrepareRemoteDatabase(const Url& databaseUrl, const BackgroundEntryRef& progress, std::string& skipReason) {
  const Url url = Trimmed(databaseUrl);
  const std::string urlText = HttpFetcher::ToRequestText(url).GetValueOr(url.ToString());
  auto report = [&](const std::string& text) {
    WarningOutput("@", text);
    if (progress) progress->AddMessage(BACKGROUNDPROGRESSSTATE::ERROR, text);
  };
  auto skip = [&](const Error& error) -> Url {
    skipReason = FormatString("@: @", urlText, error);
    report(skipReason);
    return Url();
  };

  Url cachePath = ReadAssetDatabaseCachePath();
  if (cachePath.IoDetect() != IODETECT::DIRECTORY) {
    // A cache path that can't be made falls back to the default, without changing the setting.
    if (cachePath.GetScheme() != "file" || cachePath.IoCreateDirectory(true).HasError()) {
      cachePath = GetDefaultAssetDatabaseCachePath();
      if (Result<void> made = cachePath.IoCreateDirectory(true); made.HasError()) return skip(made.GetError());
    }
  }
  const Url dir = cachePath.Append(GetRemoteDatabaseCacheName(url));
  const Url indexDir = dir.Append("_index");
  const Url localIndex = indexDir.Append("index.dat");
  const Url localModified = indexDir.Append("modified.dat");
  const Url remoteModified = NoProxyCaching(url.Append("_index/modified.dat"));
  const std::string remoteText = HttpFetcher::ToRequestText(remoteModified).GetValueOr(urlText);
  const std::shared_ptr<HttpFetcher> fetcher = Fetcher();

  // The server's time decides; without it the cache is used as it is.
  std::optional<std::int64_t> remote;
  std::string remoteBody;
  Result<std::string> fetched = fetcher->FetchToMemory(remoteModified, kMaxModifiedBytes);
  Result<std::optional<std::int64_t>> parsed =
      fetched.HasError() ? Result<std::optional<std::int64_t>>(fetched.GetError()) : ParseModified(*fetched, remoteText);
  if (parsed.HasError()) {
    skipReason = FormatString("@: @", remoteText, parsed.GetError());
    report(skipReason);
    if (localModified.IoDetect() != IODETECT::FILE) return Url();
    skipReason.clear();
  } else {
    remote = *parsed;
    remoteBody = std::move(*fetched);
  }
  std::optional<std::int64_t> local;
  if (localModified.IoDetect() == IODETECT::FILE) {
    Result<std::string> body = localModified.ReadAll();
    Result<std::optional<std::int64_t>> localParsed =
        body.HasError() ? Result<std::optional<std::int64_t>>(body.GetError()) : ParseModified(*body, localModified.GetPath());
    if (localParsed.HasError())
      report(FormatString("@: @", localModified.GetPath(), localParsed.GetError()));
    else
      local = *localParsed;
  }
  const bool stale = remote && (!local || *remote > *local);

  if (stale) {
    DiagnosticOutput("Newer version of asset database found: @ (@ / @)", urlText, FormatTime(*remote),
                     local ? FormatTime(*local) : std::string("---"));
    if (Result<void> removed = localIndex.IoDelete(); removed.HasError()) DiagnosticOutput("@", removed.GetError());
    if (Result<void> removed = indexDir.IoDelete(true); removed.HasError()) DiagnosticOutput("@", removed.GetError());
  }
  if (indexDir.IoDetect() != IODETECT::DIRECTORY)
    if (Result<void> made = indexDir.IoCreateDirectory(true); made.HasError()) return skip(made.GetError());

  // One disk per URL in a process, so that a second mount finds the first.
  char name[32];
  std::snprintf(name, sizeof name, "%016llx", static_cast<unsigned long long>(std::hash<std::string>{}(urlText)));
  RamDiskRef disk = RamDiskService::FindExisting(name);
  if (!disk) {
    Result<RamDiskRef> created = RamDiskService::Create(name);
    if (created.HasError()) return skip(created.GetError());
    disk = *created;
  }
  disk->SetHttpOptions(Options());
  Result<RamDisk::DeclareFileDelegate> declare = disk->Mount(url, dir);
  if (declare.HasError()) return skip(declare.GetError());

  std::vector<std::string> refused;
  const auto declareStart = std::chrono::steady_clock::now();
  Result<void> read = localIndex.IoDetect() == IODETECT::FILE ? ReadDirectoryTree(localIndex, *declare, refused)
                                                              : Result<void>(IoError("No local index."));
  if (read.HasError()) {
    // No usable local copy: the server's, read afresh on a clean mount.
    const Url remoteIndex = NoProxyCaching(url.Append("_index/index.dat"));
    if (Result<std::uint64_t> copied = IndexFetcher()->FetchToFile(remoteIndex, localIndex); copied.HasError())
      return skip(copied.GetError());
    declare = disk->Mount(url, dir);
    if (declare.HasError()) return skip(declare.GetError());
    refused.clear();
    if (read = ReadDirectoryTree(localIndex, *declare, refused); read.HasError()) {
      (void)localIndex.IoDelete();
      return skip(read.GetError());
    }
  }
  if (g_assetDiagnostic)
    DiagnosticOutput("Declared the tree of @ in @ s", urlText,
                     std::chrono::duration<double>(std::chrono::steady_clock::now() - declareStart).count());
  if (!refused.empty()) {
    std::string list;
    for (std::size_t i = 0; i < refused.size() && i < 5; ++i) list += (i ? ", " : "") + refused[i];
    if (refused.size() > 5) list += ", ...";
    report(FormatString("@: @ entries of the index refused: @", urlText, refused.size(), list));
  }
  // Last, so that an interrupted refresh is repeated at the next start.
  if (stale)
    if (Result<void> written = localModified.WriteAll(remoteBody); written.HasError())
      report(FormatString("@: @", localModified, written.GetError()));

  Url root = disk->GetRoot();
  root.SetData(assetdatabasekeys::originurl, Data(databaseUrl));
  return root;
}

void ConnectRemoteDownloadState(const Url& root, const AssetRepositoryRef& repository) {
  std::string name = root.GetPath();
  while (!name.empty() && name.front() == '/') name.erase(0, 1);
  RamDiskRef disk = RamDiskService::FindExisting(name);
  if (!disk || !repository) return;
  std::weak_ptr<AssetRepositoryInterface> weak = repository;
  const auto token = disk->ObservableLoadIntoCacheChange().AddObserver([weak](const Url&, const bool& cached) {
    // A repository that has been unloaded ends the notification.
    if (AssetRepositoryRef r = weak.lock()) r->HandleDownloadStateChanged(r, cached);
  });
  RemoteState& s = Remote();
  std::pair<std::weak_ptr<RamDisk>, Observable<Url, bool>::Token> previous;
  {
    std::lock_guard guard(s.lock);
    previous = std::exchange(s.connections[name], {disk, token});
  }
  if (RamDiskRef old = previous.first.lock()) old->ObservableLoadIntoCacheChange().RemoveObserver(previous.second);
}

} // namespace kelvo
