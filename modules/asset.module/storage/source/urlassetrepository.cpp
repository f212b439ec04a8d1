// The URL repository: opening, the directory scan, and the read and metadata operations of the
// base repository's seam over the tree of url_layout.h. Writing versions lives in
// url_repository_store.cpp, the index in url_repository_index.cpp.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <algorithm>
#include <cctype>
#include <filesystem>

#include "asset/core/asset_url.h"
#include "data_document.h"
#include "asset/storage/database_asset.h"
#include "kelvo/application.h"
#include "kelvo/log.h"
#include "asset/storage/url_layout.h"
#include "url_repository_index.h"
#include "url_repository_lock.h"
#include "url_repository_records.h"
#include "urlassetrepository_impl.h"

namespace kelvo {


namespace {

const Id kUrlAssetDataType{"net.kelvo.asset.urlassetdata"};

bool IsHexVersionId(std::string_view s) {
  return s.size() == HASH_LEN && s.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

// A version Id read from a hash file: 64 hex digits, "deleted", or any other single-line Id a
// caller forced; nothing for text that can't be one.
std::optional<Id> ParseHashLine(const std::string& line) {
  if (IsHexVersionId(line) || line == g_deletedVersionId.View()) return Id(line);
  if (IsValidIdText(line) && IsSafePathComponent(line)) return Id(line);
  return std::nullopt;
}

} // namespace

std::optional<std::string> ReadFirstLine(const Url& file, const Url& root, int rootFd) {
  Result<std::string> text = ReadRepositoryFile(file, kSmallFileLimit, root, rootFd);
  if (text.HasError()) return std::nullopt;
  std::string line;
  LineReader reader(*text);
  if (!reader.Next(line)) return std::string();
  return line;
}

bool IsBelow(const Url& child, const Url& root) {
  if (child.GetScheme() != root.GetScheme()) return false;
  std::string prefix = root.GetPath();
  if (prefix.empty() || prefix.back() != '/') prefix += '/';
  const std::string& path = child.GetPath();
  if (!path.starts_with(prefix) || path.size() == prefix.size()) return false;
  const std::string_view rest = std::string_view(path).substr(prefix.size());
  std::size_t start = 0;
  while (start <= rest.size()) {
    const std::size_t slash = rest.find('/', start);
    const std::string_view part = rest.substr(start, slash == std::string_view::npos ? std::string_view::npos : slash - start);
    if (part == ".." || part == ".") return false;
    if (slash == std::string_view::npos) break;
    start = slash + 1;
  }
  return true;
}

Result<Url> GetVersionDirectory(const Data& vdata) {
  const Url* dir = vdata.GetPtr<Url>();
  if (!dir || dir->IsEmpty()) return IllegalArgumentError("Foreign version record @.", vdata);
  return *dir;
}

const Id& DataTypeTraits<UrlAssetData>::TypeId() { return kUrlAssetDataType; }

std::size_t HashValue(const UrlAssetData& data) {
  return CombineHash(std::hash<std::string>()(data.url.ToString()), std::hash<const void*>()(data.versions.get()));
}

Id NormalizeAssetTypeId(const std::string& text) {
  Id type(text == "net.kelvo.node.assettype.nodefactory" ? std::string("net.kelvo.node.assettype.nodetemplate") : text);
  if (AssetType registered = FindAssetType(type)) return registered->GetId();
  return type;
}

Id TypeIdCache::Get(const std::string& text) {
  auto it = _types.find(text);
  if (it != _types.end()) return it->second;
  Id type = NormalizeAssetTypeId(text);
  if (_types.size() < 256) _types.emplace(text, type);
  return type;
}

// ---- opening -------------------------------------------------------------------------------------

Result<std::shared_ptr<UrlAssetRepository>> CreateUrlAssetRepository(const Id& id, const RepositoryArray& bases,
                                                                     const Url& url,
                                                                     const RepositoryOptions& options) {
  auto repository = std::make_shared<UrlAssetRepositoryImpl>();
  KELVO_RETURN_ON_ERROR(repository->Init(id, bases, url, options));
  return repository;
}

Result<void> UrlAssetRepositoryImpl::Init(const Id& id, const RepositoryArray& bases, const Url& url,
                                          const RepositoryOptions& options) {
  const bool writable = options.writable;
  const bool derivedInPrefs = options.derivedInPrefs;
  const bool tempRepository = options.tempRepository;
  _custom = options.custom;
  if (url.IoDetect() != IODETECT::DIRECTORY) return IllegalArgumentError("@ doesn't point to a directory.", url);
  _url = url;
  _versionUrl = url.Append("version");
  if (url.GetScheme() == "file") _root.fd = ::open(url.GetPath().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  _treeLock = std::make_shared<RepositoryTreeLock>(url);
  _changeToken = std::make_shared<RepositoryChangeToken>(url);
  _writable = writable;
  _tempRepository = tempRepository;
  RegisterDataBaseAssetType();

  const Url idFile = url.Append("databaseid");
  Id repositoryId;
  bool damagedId = false;
  if (Result<std::string> text = ReadRepositoryFile(idFile, kSmallFileLimit); text.HasValue()) {
    std::string fileId = *text;
    while (!fileId.empty() && (fileId.back() == '\n' || fileId.back() == '\r')) fileId.pop_back();
    if (IsValidIdText(fileId) && (id.IsEmpty() || id.View() == fileId)) repositoryId = Id(fileId);
    damagedId = !IsValidIdText(fileId);
  } else {
    damagedId = idFile.IoDetect() != IODETECT::NONE;
  }
  if (repositoryId.IsEmpty()) {
    if (!writable)
      return IllegalStateError("The repository at path @ has no identifier, so this is not a valid repository path.",
                               url);
    if (!id.IsEmpty()) {
      repositoryId = id;
    } else {
      KELVO_ASSIGN_OR_RETURN(repositoryId, MakeUuid("database", true));
    }
    if (damagedId)
      WarningOutput("The identifier file @ is empty or damaged; the repository gets the identifier @.", idFile,
                    repositoryId);
    KELVO_RETURN_ON_ERROR(idFile.WriteAll(repositoryId.View()));
  }

  // A databaseid without write permission marks the whole tree read-only; the mode bits are
  // asked, so that this holds for a privileged user as well.
  if (_writable && !g_applicationRepositoryWritable.Get() && url.GetScheme() == "file") {
    struct stat st{};
    if (::stat(idFile.GetPath().c_str(), &st) == 0 && (st.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0)
      _writable = false;
  }

  if (_writable && !derivedInPrefs) {
    _derivedUrl = url;
  } else if (!_writable && tempRepository) {
    _derivedUrl = Url();
  } else {
    _derivedUrl = Application::PrivateGetUrl(APPLICATION_URLTYPE::PREFS_DIR)
                      .Append("dc")
                      .Append(AssetIdToDirectoryName(repositoryId.View()));
  }
  _userUrl = Application::PrivateGetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR).Append("_assets/user.db");

  KELVO_RETURN_ON_ERROR(InitBases(bases));
  KELVO_RETURN_ON_ERROR(InitImpl(repositoryId, tempRepository));
  return EnsureDatabaseAsset();
}

UrlAssetRepositoryImpl::RootDescriptor::~RootDescriptor() {
  if (fd >= 0) ::close(fd);
}

bool UrlAssetRepositoryImpl::IsVersionDirectoryInside(const std::string& assetDirectory, std::uint64_t number) const {
  if (_root.fd < 0) return true;
  const std::string relative = assetDirectory + "/" + std::to_string(number);
  const int fd = OpenBeneath(_root.fd, relative, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) {
    ::close(fd);
    return true;
  }
  // A link as the last component fails with ENOTDIR (O_DIRECTORY wins over O_NOFOLLOW).
  if (errno != ELOOP && errno != EXDEV && errno != ENOTDIR) return true;
  WarningOutput("Passing over version @ of @: it lies behind a symbolic link.", number, _url.Append(assetDirectory));
  return false;
}

Result<void> UrlAssetRepositoryImpl::EnsureDatabaseAsset() {
  const Id rid = GetId();
  const Id aid = DataBaseAssetInterface::GetDatabaseAssetId(rid);
  ASSET_FIND_MODE mode = LATEST;
  if (rid != repositoryids::userprefs && rid != repositoryids::scene) mode = mode | WITHOUT_BASES;
  bool found = false;
  KELVO_RETURN_ON_ERROR(FindAssets(TypeArray{g_databaseAssetTypeId}, aid, Id(), mode,
                                   [&found](const AssetDescription&) -> Result<bool> {
                                     found = true;
                                     return false;
                                   }));
  if (found || !IsWritable()) return {};
  KELVO_RETURN_ON_ERROR(StoreAsset(aid, DataBaseAssetInterface::Create(), nullptr));
  return {};
}

Url UrlAssetRepositoryImpl::GetUrl(bool getOrigin) const {
  if (getOrigin) {
    if (auto origin = _url.GetData(g_originUrlKey).Get<Url>(); origin && !origin->IsEmpty()) return *origin;
  }
  return _url;
}

Result<void> UrlAssetRepositoryImpl::Rescan() { return ReloadIds(); }

// ---- names ---------------------------------------------------------------------------------------

Result<std::string> UrlAssetRepositoryImpl::GetRepositoryName(const LanguageRef& language, bool addDetails) {
  {
    std::lock_guard guard(_nameLock);
    if (!_name.empty()) return _name;
  }
  std::string fallback;
  if (_custom) {
    const auto origin = _url.GetData(g_originUrlKey).Get<Url>();
    if (origin && !origin->IsEmpty()) {
      fallback = origin->GetName();
      if (addDetails && (origin->GetScheme() == "http" || origin->GetScheme() == "https")) {
        std::string authority = origin->GetPath();
        if (const auto slash = authority.find('/'); slash != std::string::npos) authority.resize(slash);
        fallback += FormatString(" (@)", authority);
      }
    } else {
      fallback = _url.GetName();
      if (!fallback.empty() && fallback[0] >= 'a' && fallback[0] <= 'z') fallback[0] = static_cast<char>(fallback[0] - 32);
    }
  }
  AssetRepositoryRef self = std::static_pointer_cast<AssetRepositoryInterface>(shared_from_this());
  return DataBaseAssetInterface::GetRepositoryName(self, language, fallback, addDetails);
}

Result<void> UrlAssetRepositoryImpl::SetRepositoryName(const std::string& name, const LanguageRef& language) {
  if (GetId() == repositoryids::scene) {
    std::lock_guard guard(_nameLock);
    _name = name;
    return {};
  }
  if (_custom) return IllegalArgumentError("SetRepositoryName is blocked for custom databases.");
  AssetRepositoryRef self = std::static_pointer_cast<AssetRepositoryInterface>(shared_from_this());
  return DataBaseAssetInterface::SetRepositoryName(self, name, language);
}

// ---- known Ids -------------------------------------------------------------------------------------

Result<void> UrlAssetRepositoryImpl::LoadExistingIdsImpl(const IdReceiver& receiver) {
  for (SideTreeNames* names : {&_userNames, &_derivedNames}) {
    std::lock_guard guard(names->lock);
    names->loaded = false;
    names->names.clear();
  }
  LoadedIndex index;
  KELVO_ASSIGN_OR_RETURN(bool fromIndex, LoadIndex(index));
  _openedFromIndex = fromIndex;
  if (fromIndex) {
    for (LoadedIndex::Asset& asset : index.assets) {
      KELVO_ASSIGN_OR_RETURN(Data * slot, receiver(asset.aid, asset.type));
      *slot = Data(UrlAssetData{_url.Append(asset.directoryName), std::move(asset.versions), asset.aid, asset.type});
    }
    return {};
  }
  return ScanTree(receiver, index);
}

Result<void> UrlAssetRepositoryImpl::ScanTree(const IdReceiver& receiver, LoadedIndex& index) {
  KELVO_ASSIGN_OR_RETURN(std::vector<DirectoryEntry> entries, BrowseDirectory(_url));
  // Directory names in listing order, so that of two directories claiming one Id the same one wins
  // on every scan.
  std::sort(entries.begin(), entries.end(), [](const DirectoryEntry& a, const DirectoryEntry& b) { return a.name < b.name; });
  std::unordered_map<Id, std::string> claimed;
  TypeIdCache types;
  for (const DirectoryEntry& entry : entries) {
    if (IsCurrentJobCancelled()) return OperationCancelledError();
    if (entry.type != IODETECT::DIRECTORY || entry.isLink) continue;
    // The index is no asset (archives and served trees carry it too, where the warning below would
    // fire for it). Asset directories never take that name in any case.
    if (std::equal(entry.name.begin(), entry.name.end(), std::string_view("_index").begin(), std::string_view("_index").end(),
                   [](char a, char b) { return std::tolower(static_cast<unsigned char>(a)) == b; }))
      continue;
    const Url dir = _url.Append(entry.name);
    const Url infoFile = dir.Append("asset.info");
    Result<std::string> info = ReadRepositoryFile(infoFile, kSmallFileLimit, _url, _root.fd);
    if (info.HasError()) {
      // No asset.info: _index, working directories of a compaction, foreign folders.
      struct stat st{};
      if (infoFile.GetScheme() != "file" || ::lstat(infoFile.GetPath().c_str(), &st) == 0)
        WarningOutput("Skipping asset directory @: @", dir, info.GetError());
      continue;
    }
    const std::optional<AssetInfoLines> lines = ParseAssetInfo(*info);
    if (!lines) {
      WarningOutput("Skipping asset directory @: its asset.info holds no valid Id.", dir);
      continue;
    }
    const Id aid(lines->aid);
    const Id type = types.Get(lines->type);
    if (auto [at, added] = claimed.emplace(aid, entry.name); !added) {
      WarningOutput("Skipping asset directory @: asset @ is held by the directory @ already.", dir, aid, at->second);
      continue;
    }
    KELVO_ASSIGN_OR_RETURN(Data * slot, receiver(aid, type));
    std::shared_ptr<UrlVersionTable> versions;
    if (const std::size_t at = index.Find(aid); at < index.assets.size() && index.assets[at].directoryName == entry.name)
      versions = index.assets[at].versions;
    *slot = Data(UrlAssetData{dir, std::move(versions), aid, type});
  }
  return {};
}

// ---- versions ----------------------------------------------------------------------------------------

Result<void> UrlAssetRepositoryImpl::LoadVersionsImpl(const Id& aid, const Id& type, const Data& adata,
                                                      const VersionReceiver& receiver) {
  const UrlAssetData* data = GetUrlAssetData(adata);
  if (!data) return IllegalArgumentError("Foreign asset record @ for @.", adata, aid);
  const Url& assetDir = data->url;
  const std::string assetDirectory = assetDir.GetName();
  if (data->versions) {
    for (const auto& [number, indexed] : *data->versions) {
      // The index names the directories; a link planted since must not serve files from elsewhere.
      if (!IsVersionDirectoryInside(assetDirectory, number)) continue;
      const Url versionDir = assetDir.Append(std::to_string(number));
      Url content;
      std::vector<MetaName> metaNames;
      for (std::size_t i = 0; i < indexed.names.size(); ++i) {
        const std::string& name = indexed.names[i];
        if (i == 0) {
          if (!name.empty()) content = versionDir.Append(name);
          continue;
        }
        if (auto meta = ClassifyMetaFileName(name, 0)) metaNames.push_back(MetaName{std::move(meta->metaId), meta->kind, meta->isUrl, name});
      }
      KELVO_RETURN_ON_ERROR(AddSideTreeMetaData(assetDirectory, number, metaNames));
      const bool deleted = indexed.versionId == g_deletedVersionId;
      KELVO_RETURN_ON_ERROR(ReportVersion(aid, type, versionDir, number, indexed.versionId, deleted, content, metaNames,
                                          &indexed.compacted, receiver));
    }
  }
  {
    std::lock_guard guard(_lock);
    if (!_scanNeeded) return {};
  }
  if (assetDir.IoDetect() != IODETECT::DIRECTORY) return {};
  KELVO_ASSIGN_OR_RETURN(std::vector<DirectoryEntry> entries, BrowseDirectory(assetDir));
  for (const DirectoryEntry& entry : entries) {
    if (entry.type != IODETECT::DIRECTORY || entry.isLink) continue;
    std::optional<VersionDirectoryName> parsed = ParseVersionDirectoryName(entry.name);
    if (!parsed) continue;
    if (data->versions && data->versions->count(parsed->number)) continue;
    if (!IsVersionDirectoryInside(assetDirectory, parsed->number)) continue;
    const Url versionDir = assetDir.Append(entry.name);
    KELVO_ASSIGN_OR_RETURN(VersionDirectoryContent found, FindContentUrl(versionDir, 0));
    if (found.incomplete) {
      DiagnosticOutput("Passing over the unfinished version @ of @.", versionDir, aid);
      continue;
    }
    Id versionId(parsed->versionId);
    std::optional<Id> fromHashFile;
    if (versionId.IsEmpty()) {
      if (auto line = ReadFirstLine(versionDir.Append("hash"), _url, _root.fd); line && !line->empty()) {
        fromHashFile = ParseHashLine(*line);
        if (!fromHashFile) WarningOutput("Ignoring the malformed hash file of @.", versionDir);
      }
      if (fromHashFile) versionId = *fromHashFile;
    }
    std::vector<MetaName> metaNames;
    for (auto& meta : found.meta)
      metaNames.push_back(MetaName{std::move(meta.name.metaId), meta.name.kind, meta.name.isUrl, std::move(meta.fileName)});
    KELVO_RETURN_ON_ERROR(AddSideTreeMetaData(assetDirectory, parsed->number, metaNames));
    // A deletion mark is a version directory whose hash file says "deleted".
    const bool deleted = parsed->deleted || versionId == g_deletedVersionId;
    if (!deleted && found.content.IsEmpty()) continue;
    {
      std::lock_guard guard(_lock);
      _nextVersion = std::max(_nextVersion, parsed->number);
    }
    if (versionId.IsEmpty()) {
      // Content without a hash file: compute the digest, and keep it when the tree is writable.
      // Content that can't be read (a FIFO, a file without permission) is one damaged version, not a
      // reason to fail every search that reaches this repository: it is passed over with a warning,
      // and `kasset check` names it too.
      Result<Digest> digest = HashContent(found.content, Url());
      if (digest.HasError()) {
        WarningOutput("Passing over version @ of @: its digest can't be taken: @", parsed->number, aid, digest.GetError());
        continue;
      }
      versionId = Id(DigestToHex(*digest));
      if (IsWritable()) {
        if (Result<void> kept = versionDir.Append("hash").WriteAll(versionId.ToString() + "\n"); kept.HasError())
          WarningOutput("Can't keep the digest of version @ of @: @", parsed->number, aid, kept.GetError());
      }
    }
    KELVO_RETURN_ON_ERROR(ReportVersion(aid, type, versionDir, parsed->number, versionId, deleted, found.content,
                                        metaNames, nullptr, receiver));
  }
  return {};
}

bool UrlAssetRepositoryImpl::MayHaveSideDirectory(SideTreeNames& names, const Url& tree,
                                                  const std::string& assetDirectory) {
  std::lock_guard guard(names.lock);
  if (!names.loaded) {
    names.names.clear();
    if (auto entries = BrowseDirectory(tree); entries.HasValue()) {
      for (DirectoryEntry& e : *entries)
        if (e.type == IODETECT::DIRECTORY) names.names.insert(std::move(e.name));
    } else if (tree.IoDetect() != IODETECT::NONE) {
      // Unreadable: look at each version directory instead of trusting an empty list.
      return true;
    }
    names.loaded = true;
  }
  return names.names.count(assetDirectory) != 0;
}

void UrlAssetRepositoryImpl::NoteSideDirectory(const Url& versionDir, std::uint32_t kind) {
  SideTreeNames* names = nullptr;
  if ((kind & AssetMetaData::USER) && !(_userUrl == _url))
    names = &_userNames;
  else if ((kind & AssetMetaData::DERIVED) && !(_derivedUrl == _url))
    names = &_derivedNames;
  if (!names) return;
  std::lock_guard guard(names->lock);
  names->names.insert(versionDir.GetDirectory().GetName());
}

Result<void> UrlAssetRepositoryImpl::AddSideTreeMetaData(const std::string& assetDirectory, std::uint64_t number,
                                                         std::vector<MetaName>& metaNames) {
  const bool user =
      !_userUrl.IsEmpty() && !(_userUrl == _url) && MayHaveSideDirectory(_userNames, _userUrl, assetDirectory);
  const bool derived =
      !_derivedUrl.IsEmpty() && !(_derivedUrl == _url) && MayHaveSideDirectory(_derivedNames, _derivedUrl, assetDirectory);
  if (!user && !derived) return {};
  const std::string relative = assetDirectory + "/" + std::to_string(number);
  if (user) {
    KELVO_ASSIGN_OR_RETURN(VersionDirectoryContent found, FindContentUrl(_userUrl.Append(relative), AssetMetaData::USER));
    for (auto& meta : found.meta)
      if (!meta.name.isUrl)
        metaNames.push_back(MetaName{std::move(meta.name.metaId), meta.name.kind, false, std::move(meta.fileName)});
  }
  if (derived) {
    KELVO_ASSIGN_OR_RETURN(VersionDirectoryContent found, FindContentUrl(_derivedUrl.Append(relative), 0));
    for (auto& meta : found.meta)
      if (!meta.name.isUrl)
        metaNames.push_back(MetaName{std::move(meta.name.metaId), meta.name.kind, false, std::move(meta.fileName)});
  }
  return {};
}

Result<void> UrlAssetRepositoryImpl::ReportVersion(const Id& aid, const Id& type, const Url& versionDir,
                                                   std::uint64_t number, const Id& versionId, bool deleted,
                                                   const Url& content, const std::vector<MetaName>& metaNames,
                                                   const UrlCompactedValues* compacted,
                                                   const VersionReceiver& receiver) {
  const IdAndVersion idv{aid, versionId};
  const Data vdata(versionDir);
  MetaEntryMap entries;
  for (const MetaName& meta : metaNames) {
    if (!IsValidIdText(meta.metaId)) continue;
    const InternedId metaId{std::string_view(meta.metaId)};
    std::uint32_t kind = meta.kind;
    if (metaId == metaids::timestamp) kind |= AssetMetaData::READ_ONLY;
    MetaEntry entry{Data(), kind, false, 0};
    if (meta.isUrl) {
      Url value("meta", EscapeAssetIdForUrlPath(aid.View()) + "/" + meta.fileName);
      value.SetQuery(versionId.View());
      value.SetData(g_resolveInfoKey, Data(ResolveInfo{versionDir.Append(meta.fileName), value.ToString(), nullptr}));
      entry.data = Data(std::move(value));
      entry.loaded = true;
    } else if (compacted && !(kind & (AssetMetaData::DERIVED | AssetMetaData::USER))) {
      for (const auto& [compactedId, value] : *compacted) {
        if (compactedId != metaId) continue;
        entry.data = value;
        entry.loaded = true;
        break;
      }
    }
    entries[metaId] = std::move(entry);
  }
  std::uint64_t time = 0;
  if (auto it = entries.find(metaids::timestamp); it != entries.end()) {
    if (!it->second.loaded) {
      auto loaded = LoadMetaDataImpl(vdata, metaids::timestamp, it->second.kind);
      if (loaded.HasError()) {
        WarningOutput("Can't read the time of version @ of @: @", number, aid, loaded.GetError());
      } else if (*loaded) {
        it->second.data = **loaded;
        it->second.loaded = true;
      }
    }
    if (const auto* t = it->second.data.GetPtr<UniversalDateTime>()) time = t->GetValue();
  }
  const VersionKey key{time, number, static_cast<std::uint64_t>(GetId().GetHashCode())};
  AssetRepositoryRef self = std::static_pointer_cast<AssetRepositoryInterface>(shared_from_this());
  auto metaData = std::make_shared<AssetMetaDataImpl>(self, type, idv, key, vdata, std::move(entries));
  auto description = std::make_shared<AssetDescriptionImpl>(idv, type, key, metaData, deleted, self, content);
  return receiver(key, description, vdata);
}

// ---- metadata ----------------------------------------------------------------------------------------

Result<Url> UrlAssetRepositoryImpl::SideTreeDirectory(const Url& versionDir, std::uint32_t kind, bool& none) const {
  none = false;
  const Url* tree = nullptr;
  if ((kind & AssetMetaData::USER) && !(_userUrl == _url))
    tree = &_userUrl;
  else if ((kind & AssetMetaData::DERIVED) && !(_derivedUrl == _url))
    tree = &_derivedUrl;
  if (!tree) return versionDir;
  if (tree->IsEmpty()) {
    none = true;
    return Url();
  }
  return tree->Append(versionDir.GetDirectory().GetName()).Append(versionDir.GetName());
}

Result<std::optional<Data>> UrlAssetRepositoryImpl::LoadMetaDataImpl(const Data& vdata, const InternedId& metaId,
                                                                     std::uint32_t kind) {
  KELVO_ASSIGN_OR_RETURN(Url versionDir, GetVersionDirectory(vdata));
  bool none = false;
  KELVO_ASSIGN_OR_RETURN(Url dir, SideTreeDirectory(versionDir, kind, none));
  if (none) return std::optional<Data>();
  const std::string fileName = metaId.ToString() + MetaFileSuffix(kind);
  if (!IsSafePathComponent(fileName)) return IllegalArgumentError("Illegal metadata Id @.", metaId);
  // dir is <tree>/<asset directory>/<n>: nothing below the tree's root may be a link.
  const Url tree = dir.GetDirectory().GetDirectory();
  return ReadMetaDataFile(dir.Append(fileName), (kind & AssetMetaData::DERIVED) != 0, tree, tree == _url ? _root.fd : -1);
}

Result<Data> UrlAssetRepositoryImpl::StoreMetaDataImpl(const Data& vdata, const InternedId& metaId, const Data& data,
                                                       const IdAndVersion& asset, const Url& source,
                                                       std::uint32_t kind, bool urlMode) {
  kind &= AssetMetaData::MASK;
  KELVO_ASSIGN_OR_RETURN(Url versionDir, GetVersionDirectory(vdata));
  if (!IsValidIdText(metaId.View()) || metaId.View().find('/') != std::string_view::npos)
    return IllegalArgumentError("Illegal metadata Id @.", metaId);
  bool none = false;
  KELVO_ASSIGN_OR_RETURN(Url dir, SideTreeDirectory(versionDir, kind, none));
  if (none) return IllegalStateError("Asset repository @ doesn't support to store derived meta data.", GetId());

  // A changed persistent value makes every derived value of the version stale.
  // Only a separate derived tree is cleared: derived values kept in the root stay.
  if ((kind == AssetMetaData::PERSISTENT || kind == AssetMetaData::PERSISTENT_USER) && !_derivedUrl.IsEmpty() &&
      !(_derivedUrl == _url)) {
    bool noDerived = false;
    KELVO_ASSIGN_OR_RETURN(Url derivedDir, SideTreeDirectory(versionDir, AssetMetaData::PERSISTENT | AssetMetaData::DERIVED, noDerived));
    if (!noDerived && derivedDir.IoDetect() == IODETECT::DIRECTORY) {
      KELVO_ASSIGN_OR_RETURN(std::vector<DirectoryEntry> entries, BrowseDirectory(derivedDir));
      for (const DirectoryEntry& e : entries)
        if (e.name.ends_with(".derived")) KELVO_RETURN_ON_ERROR(derivedDir.Append(e.name).IoDelete(false));
    }
  }

  if (!urlMode) {
    const bool written = kind == AssetMetaData::PERSISTENT || kind == AssetMetaData::PERSISTENT_VERSION ||
                         kind == AssetMetaData::READ_ONLY_VERSION || kind == AssetMetaData::DERIVED_CACHE ||
                         kind == AssetMetaData::PERSISTENT_USER;
    if (!written) {
      if (kind & AssetMetaData::PERSISTENT)
        return IllegalArgumentError("Illegal argument: Condition !(kind & AssetMetaData::KIND::PERSISTENT) not fulfilled. ");
      return data;
    }
    const Url file = dir.Append(metaId.ToString() + MetaFileSuffix(kind));
    if (data.IsEmpty()) {
      KELVO_RETURN_ON_ERROR(file.IoDelete(false));
      return data;
    }
    KELVO_RETURN_ON_ERROR(dir.IoCreateDirectory(true));
    NoteSideDirectory(versionDir, kind);
    KELVO_RETURN_ON_ERROR(WriteMetaDataFile(file, data, kind == AssetMetaData::DERIVED_CACHE));
    return data;
  }

  if (kind != AssetMetaData::PERSISTENT && kind != AssetMetaData::PERSISTENT_VERSION &&
      kind != AssetMetaData::READ_ONLY_VERSION)
    return IllegalArgumentError("Kind @ can't hold a file as metadata.", kind);
  const std::string base = metaId.ToString() + (kind == AssetMetaData::PERSISTENT ? ".meta" : ".version");
  std::string suffix = source.GetSuffix();
  if (suffix.empty() || suffix.find('/') != std::string::npos) suffix = "file";
  const std::string name = base + "." + suffix;
  if (!IsSafePathComponent(name)) return IllegalArgumentError("Illegal metadata file name @.", name);
  KELVO_RETURN_ON_ERROR(dir.IoCreateDirectory(true));
  KELVO_ASSIGN_OR_RETURN(std::vector<DirectoryEntry> entries, BrowseDirectory(dir));
  for (const DirectoryEntry& e : entries) {
    if (e.name != base && !e.name.starts_with(base + ".")) continue;
    if (!source.IsEmpty() && e.name == name) continue;
    KELVO_RETURN_ON_ERROR(dir.Append(e.name).IoDelete(true));
  }
  if (source.IsEmpty()) return Data();
  const Url target = dir.Append(name);
  KELVO_RETURN_ON_ERROR(CopyContent(source, target));
  Url value("meta", EscapeAssetIdForUrlPath(asset.first.View()) + "/" + name);
  value.SetQuery(asset.second.View());
  value.SetData(g_resolveInfoKey, Data(ResolveInfo{target, value.ToString(), nullptr}));
  return Data(std::move(value));
}

} // namespace kelvo
