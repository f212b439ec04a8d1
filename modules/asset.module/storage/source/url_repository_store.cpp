// The write side of the URL repository: asset and version directories (made so that several
// processes share a tree, see url_repository_lock.h), erasure, and the version counter.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>

#include "asset/storage/url_layout.h"
#include "urlassetrepository_impl.h"
#include "kelvo/log.h"
#include "url_repository_index.h"
#include "url_repository_lock.h"
#include "url_repository_records.h"

namespace kelvo {

namespace {

// Writes a file that must not exist yet (O_EXCL | O_NOFOLLOW), for files of a directory that this
// store made: no temporary name and rename needed, and nothing planted there is followed.
Result<void> CreateNewFile(const Url& file, std::string_view content) {
  if (file.GetScheme() != "file") return file.WriteAll(content);
  const int fd = ::open(file.GetPath().c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) return IoError("Can't create @: @", file, std::strerror(errno));
  std::size_t done = 0;
  while (done < content.size()) {
    const ssize_t n = ::write(fd, content.data() + done, content.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      const int error = errno;
      ::close(fd);
      return IoError("Can't write @: @", file, std::strerror(error));
    }
    done += static_cast<std::size_t>(n);
  }
  if (::close(fd) != 0) return IoError("Can't write @: @", file, std::strerror(errno));
  return {};
}

} // namespace

// ---- writing ---------------------------------------------------------------------------------------

Result<Data> UrlAssetRepositoryImpl::CreateDataForIdImpl(const Id& aid, const Id& type) {
  if (!IsWritable()) return IllegalStateError("Illegal state: Condition _writable not fulfilled. ");
  // Ids that differ only in case or replaced characters would share a directory, and asset.info
  // can name only one: a later Id gets the first free "<name>~<k>".
  // A name beginning with "." would be "..", "." or hidden from every scan: it starts with "_".
  std::string base = AssetIdToDirectoryName(aid.View());
  if (base.empty() || base.front() == '.') base.insert(base.begin(), '_');
  // Another process may choose a directory at the same time.
  KELVO_ASSIGN_OR_RETURN(RepositoryTreeLock::Guard treeGuard, _treeLock->Lock());
  // A name of the repository's own files is never an asset directory, and neither is an entry
  // that is no directory of this Id (a file, a link, or another Id's directory).
  Url dir = _url.Append(IsReservedRootName(base) ? base + "~1" : base);
  const bool local = dir.GetScheme() == "file";
  for (int k = 2;; ++k) {
    IODETECT kind;
    if (local) {
      struct stat st{};
      const bool missing = ::lstat(dir.GetPath().c_str(), &st) != 0 && errno == ENOENT;
      kind = missing ? IODETECT::NONE : S_ISDIR(st.st_mode) ? IODETECT::DIRECTORY : IODETECT::FILE;
    } else {
      kind = dir.IoDetect();
    }
    if (kind == IODETECT::NONE) break;
    if (kind == IODETECT::DIRECTORY) {
      auto line = ReadFirstLine(dir.Append("asset.info"), _url, _root.fd);
      if (line && *line == aid.View()) break;
    }
    if (k > 1000) return IllegalStateError("No free directory for asset @ in @.", aid, _url);
    dir = _url.Append(base + "~" + std::to_string(k));
  }
  if (!local || ::mkdir(dir.GetPath().c_str(), 0755) != 0) KELVO_RETURN_ON_ERROR(dir.IoCreateDirectory(true));
  KELVO_RETURN_ON_ERROR(dir.Append("asset.info").WriteAll(aid.ToString() + "\n" + type.ToString() + "\n"));
  return Data(UrlAssetData{dir, nullptr, aid, type});
}

Result<StoredVersion> UrlAssetRepositoryImpl::StoreImpl(const Asset& asset, bool deleteAsset, const Id& overwrittenHash,
                                                        const AssetDescription& source, Data& adata,
                                                        const VersionNumber& version, bool addEncryption) {
  if (!IsWritable()) return IllegalStateError("Illegal state: Condition _writable not fulfilled. ");
  if (addEncryption && !source)
    return IllegalArgumentError("Illegal argument: Condition !addEncryption || source not fulfilled. ");
  const UrlAssetData* data = GetUrlAssetData(adata);
  if (!data) return IllegalArgumentError("Foreign asset record @.", adata);
  const bool overwrite = !overwrittenHash.IsEmpty();
  StoredVersion stored;
  Url dir;
  bool existed = false;
  bool fresh = false; // dir was made by this store

  if (overwrite || data->url.GetScheme() != "file") {
    dir = data->url.Append(std::to_string(version.number));
    existed = dir.IoDetect() != IODETECT::NONE;
    KELVO_RETURN_ON_ERROR(dir.IoCreateDirectory(true));
    KELVO_RETURN_ON_ERROR(dir.Append(kIncompleteMarker).WriteAll(""));
  } else {
    KELVO_ASSIGN_OR_RETURN(std::uint64_t number, CreateVersionDirectory(*data, version.number, !deleteAsset));
    dir = data->url.Append(std::to_string(number));
    fresh = true;
    if (number != version.number) stored.number = number;
  }
  stored.vdata = Data(dir);
  if (deleteAsset) {
    stored.versionId = g_deletedVersionId;
    // Written so that a later scan reads the directory as a deletion mark, not as a lost store.
    KELVO_RETURN_ON_ERROR(dir.Append("hash").WriteAll(stored.versionId.ToString() + "\n"));
    return stored;
  }
  if (existed) {
    // An overwrite replaces the content: drop what an earlier store left.
    KELVO_ASSIGN_OR_RETURN(VersionDirectoryContent earlier, FindContentUrl(dir, 0));
    if (!earlier.content.IsEmpty()) KELVO_RETURN_ON_ERROR(earlier.content.IoDelete(true));
  }

  std::string suffix;
  if (asset) {
    AssetType assetType = asset->GetType();
    if (!assetType) return IllegalStateError("Unknown asset type @.", asset->GetTypeId());
    suffix = assetType->GetUrlSuffix(asset);
  } else if (source) {
    KELVO_ASSIGN_OR_RETURN(Url from, source->GetUrl());
    suffix = from.GetSuffix();
  }
  const std::string contentName = suffix.empty() ? std::string("asset") : "asset." + suffix;
  if (!IsSafePathComponent(contentName)) return IllegalArgumentError("Illegal content suffix @.", suffix);
  stored.url = dir.Append(contentName);

  if (source) {
    stored.versionId = source->GetIdAndVersion().second;
    KELVO_ASSIGN_OR_RETURN(Url from, source->GetUrl());
    std::function<Result<void>(const Url&, const Url&)> encrypt;
    if (addEncryption) {
      AssetType sourceType = FindAssetType(source->GetTypeId());
      if (!sourceType) return IllegalStateError("Unknown asset type @.", source->GetTypeId());
      encrypt = [&](const Url& a, const Url& b) { return sourceType->CopyWithEncryption(source, a, b); };
    }
    KELVO_RETURN_ON_ERROR(CopyContent(from, stored.url, encrypt));
  } else {
    if (!asset) return IllegalArgumentError("Illegal argument: Condition asset || source not fulfilled. ");
    AssetType assetType = asset->GetType();
    Digest digest{};
    digest.fill(0);
    bool hashed = false;
    // The type writes through a hashing stream, so the content is read once.
    KELVO_ASSIGN_OR_RETURN(stored.extraMeta, assetType->Store(asset, stored.url, &digest));
    hashed = std::any_of(digest.begin(), digest.end(), [](std::uint8_t b) { return b != 0; });
    if (!hashed) return IllegalStateError("Illegal state: Condition hash.GetLength() == HASH_LEN/2 not fulfilled. ");
    stored.versionId = Id(DigestToHex(digest));
  }
  if (!overwrittenHash.IsEmpty()) stored.versionId = overwrittenHash;
  if (!IsValidIdText(stored.versionId.View()))
    return IllegalArgumentError("Illegal version Id @ for a store.", stored.versionId);
  // A fresh directory of this store gets a new file; into another one the hash file is written
  // through a new file and a rename. Either way a link planted at the name is never followed.
  const Url hashFile = dir.Append("hash");
  if (fresh)
    KELVO_RETURN_ON_ERROR(CreateNewFile(hashFile, stored.versionId.ToString() + "\n"));
  else
    KELVO_RETURN_ON_ERROR(hashFile.WriteAll(stored.versionId.ToString() + "\n"));
  return stored;
}

Result<std::uint64_t> UrlAssetRepositoryImpl::CreateVersionDirectory(const UrlAssetData& data, std::uint64_t number,
                                                                     bool marked) {
  KELVO_ASSIGN_OR_RETURN(RepositoryTreeLock::Guard treeGuard, _treeLock->Lock());
  bool listed = false;
  for (int attempt = 0; attempt < 100000; ++attempt) {
    const Url dir = data.url.Append(std::to_string(number));
    if (::mkdir(dir.GetPath().c_str(), 0755) == 0) {
      // Made while holding the tree lock, so no erase of the asset removes it before the marker.
      if (marked) KELVO_RETURN_ON_ERROR(CreateNewFile(dir.Append(kIncompleteMarker), ""));
      return number;
    }
    const int error = errno;
    if (error == ENOENT) {
      // Another process erased the asset since this one read it: make its directory again.
      if (data.aid.IsEmpty()) return IoError("Asset directory @ is gone.", data.url);
      KELVO_RETURN_ON_ERROR(data.url.IoCreateDirectory(true));
      KELVO_RETURN_ON_ERROR(data.url.Append("asset.info").WriteAll(data.aid.ToString() + "\n" + data.type.ToString() + "\n"));
      continue;
    }
    if (error != EEXIST) return IoError("Can't create version directory @: @", dir, std::strerror(error));
    // Taken by another writer (or a store that was killed): the next free number above all taken.
    ++number;
    if (!listed) {
      listed = true;
      KELVO_ASSIGN_OR_RETURN(std::vector<DirectoryEntry> entries, BrowseDirectory(data.url));
      for (const DirectoryEntry& e : entries)
        if (auto parsed = ParseVersionDirectoryName(e.name)) number = std::max(number, parsed->number + 1);
    }
  }
  return IllegalStateError("No free version number in @.", data.url);
}

void UrlAssetRepositoryImpl::HandleAssetStored(const AssetDescription& asset) {
  if (asset && asset->GetRepository().get() == this) {
    auto meta = std::dynamic_pointer_cast<const AssetMetaDataImpl>(asset->GetMetaData());
    if (const Url* dir = meta ? meta->GetVersionData().GetPtr<Url>() : nullptr) {
      auto removed = dir->Append(kIncompleteMarker).IoDelete(false);
      if (removed.HasError())
        WarningOutput("Can't finish version @ of @: @", asset->GetIdAndVersion().second,
                      asset->GetIdAndVersion().first, removed.GetError());
    }
  }
  BaseAssetRepositoryImpl::HandleAssetStored(asset);
}

void UrlAssetRepositoryImpl::NoteTreeChanged() {
  if (!_changeToken || !IsWritable()) return;
  // The token is this object's own already: nothing to renew, no lock needed (a compaction that
  // began meanwhile renewed it, and then the lock is taken below).
  if (_changeToken->IsOwn()) return;
  auto noted = [this]() -> Result<void> {
    KELVO_ASSIGN_OR_RETURN(RepositoryTreeLock::Guard treeGuard, _treeLock->Lock());
    return _changeToken->NoteChange();
  }();
  if (noted.HasError())
    WarningOutput("Can't mark the change of @ for other processes; its index may be stale: @", _url, noted.GetError());
}

Result<void> UrlAssetRepositoryImpl::EraseImpl(const AssetDescription&, const Data& vdata) {
  KELVO_ASSIGN_OR_RETURN(Url dir, GetVersionDirectory(vdata));
  if (!IsBelow(dir, _url)) return IllegalArgumentError("Version directory @ lies outside @.", dir, _url);
  Result<void> erased;
  if (dir.GetScheme() == "file" && dir.IoDetect() == IODETECT::DIRECTORY) {
    // A hidden name first: a reader never sees a version with part of its files gone.
    KELVO_ASSIGN_OR_RETURN(Id uuid, MakeUuid("", false));
    Url hidden = dir;
    hidden.SetName(".erased-" + dir.GetName() + "-" + uuid.ToString());
    KELVO_RETURN_ON_ERROR(dir.IoRename(hidden));
    erased = hidden.IoDelete(true);
  } else {
    erased = dir.IoDelete(true);
  }
  return erased;
}

Result<bool> UrlAssetRepositoryImpl::HandleAssetErasedCompletely(const Id& aid, const Data& adata) {
  const UrlAssetData* data = GetUrlAssetData(adata);
  if (!data) return IllegalArgumentError("Foreign asset record @ for @.", adata, aid);
  if (!IsBelow(data->url, _url)) return IllegalArgumentError("Asset directory @ lies outside @.", data->url, _url);
  KELVO_ASSIGN_OR_RETURN(RepositoryTreeLock::Guard treeGuard, _treeLock->Lock());
  if (data->url.IoDetect() == IODETECT::DIRECTORY) {
    // Another process may have stored a version since this one read the list: the asset stays.
    KELVO_ASSIGN_OR_RETURN(std::vector<DirectoryEntry> entries, BrowseDirectory(data->url));
    for (const DirectoryEntry& e : entries)
      if (ParseVersionDirectoryName(e.name)) return false;
  }
  KELVO_RETURN_ON_ERROR(data->url.IoDelete(true));
  return true;
}

// ---- version numbers ---------------------------------------------------------------------------------

Result<std::uint64_t> UrlAssetRepositoryImpl::WriteNextVersion(std::uint64_t version, bool above) {
  // Other processes write the file too: under the tree lock it only ever rises.
  KELVO_ASSIGN_OR_RETURN(RepositoryTreeLock::Guard treeGuard, _treeLock->Lock());
  if (Result<std::string> text = ReadRepositoryFile(_versionUrl, kSmallFileLimit); text.HasValue()) {
    std::uint64_t inFile = 0;
    const auto parsed = std::from_chars(text->data(), text->data() + text->size(), inFile);
    if (parsed.ec == std::errc() && inFile < (std::uint64_t(1) << 62))
      version = std::max(version, above ? inFile + 1 : inFile);
  }
  KELVO_RETURN_ON_ERROR(_versionUrl.WriteAll(std::to_string(version) + "\n"));
  return version;
}

Result<VersionNumber> UrlAssetRepositoryImpl::GetNextVersionImpl() {
  std::lock_guard guard(_lock);
  KELVO_ASSIGN_OR_RETURN(const std::uint64_t next, WriteNextVersion(_nextVersion + 1, true));
  _nextVersion = next;
  _versionFileHolds = next;
  return VersionNumber{next, static_cast<std::uint64_t>(GetId().GetHashCode())};
}

Result<void> UrlAssetRepositoryImpl::UpdateNextVersionImpl(const VersionNumber& currentVersion) {
  std::lock_guard guard(_lock);
  const std::uint64_t next = std::max(_nextVersion, currentVersion.number);
  // The file already holds the number when this object wrote it: no rewrite per store.
  if (next <= _versionFileHolds && _versionFileHolds != ~std::uint64_t(0) && _versionUrl.IoDetect() == IODETECT::FILE)
    return {};
  KELVO_ASSIGN_OR_RETURN(const std::uint64_t written, WriteNextVersion(next, false));
  _nextVersion = written;
  _versionFileHolds = written;
  return {};
}

} // namespace kelvo
