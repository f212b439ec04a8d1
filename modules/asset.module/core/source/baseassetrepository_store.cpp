// The write side of the base asset repository: new versions, overwrites, deletion marks, copies,
// erasure and metadata writes. Back ends only write bytes; numbering, metadata assembly, the
// in-memory lists and notification live here.

#include <mutex>

#include "asset/core/asset_version_validity.h"
#include "asset/core/baseassetrepository.h"

namespace kelvo {

namespace {

std::uint64_t RepositoryWord(const Id& rid) { return static_cast<std::uint64_t>(rid.GetHashCode()); }

bool IsMetaIdCharacter(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' || c == '.' || c == '_';
}

// Copies the entries of meta that a new version inherits into entries. With fromCopy (a copy of
// a description) every entry that is not derived comes along as well.
Result<void> CopyInheritedEntries(const AssetMetaDataRef& meta, bool fromCopy, MetaEntryMap& entries) {
  if (!meta) return {};
  KELVO_ASSIGN_OR_RETURN(auto existing, meta->GetExistingEntries());
  for (const auto& [metaId, kind] : existing) {
    const bool take = IsPlainPersistent(kind) || (fromCopy && !(kind & AssetMetaData::DERIVED));
    if (!take) continue;
    KELVO_ASSIGN_OR_RETURN(std::optional<Data> value, meta->Get(metaId));
    if (!value) continue;
    entries[metaId] = MetaEntry{*value, kind & AssetMetaData::MASK, true, 0};
  }
  return {};
}

} // namespace

Result<AssetDescription> BaseAssetRepositoryImpl::StoreAsset(const Id& aid, const Asset& asset,
                                                             const AssetMetaDataRef& metaData) {
  return StoreCore(aid, StoreRequest{.asset = asset, .metaData = metaData});
}

Result<AssetDescription> BaseAssetRepositoryImpl::OverwriteAsset(const Id& aid, const Asset& asset,
                                                                 const AssetMetaDataRef& metaData) {
  return StoreCore(aid, StoreRequest{.asset = asset, .metaData = metaData, .overwrite = true});
}

Result<AssetDescription> BaseAssetRepositoryImpl::DeleteAsset(const Id& aid) {
  return StoreCore(aid, StoreRequest{.deleteAsset = true});
}

Result<AssetDescription> BaseAssetRepositoryImpl::CopyAsset(const Id& aid, const AssetDescription& source,
                                                            bool addEncryption, bool overwrite) {
  return StoreCore(aid, StoreRequest{.source = source, .addEncryption = addEncryption, .overwrite = overwrite});
}

Result<AssetDescription> BaseAssetRepositoryImpl::StoreCore(const Id& aid, const StoreRequest& request) {
  const Asset& assetIn = request.asset;
  const AssetMetaDataRef& metaData = request.metaData;
  const AssetDescription& source = request.source;
  const bool deleteAsset = request.deleteAsset;
  const bool overwrite = request.overwrite;
  if (aid.IsEmpty()) return IllegalArgumentError("Asset ID cannot be null.");
  // Ids end up in line-based files and listings: a control character would split or hide one.
  const std::string_view text = aid.View();
  for (std::size_t at = 0; at < text.size(); ++at)
    if (static_cast<unsigned char>(text[at]) < 0x20 || text[at] == 0x7f)
      return IllegalArgumentError("Asset Id @... contains a control character (code @) at position @.",
                                  std::string(text.substr(0, at)), static_cast<int>(static_cast<unsigned char>(text[at])),
                                  at);
  // A copy must not bring a version this application can't read into a repository it writes.
  if (source) {
    KELVO_ASSIGN_OR_RETURN(bool valid, IsAssetValid(source));
    if (!valid) return IllegalStateError("Asset not valid for this app version.");
  }
  // A link update writes nothing, so it needs no writable repository.
  if (request.updateInPlace) return UpdateInPlace(aid, request);
  if (!deleteAsset && !assetIn && !source)
    return IllegalArgumentError("Illegal argument: Condition asset || source not fulfilled. ");
  if (!IsWritable()) return IllegalStateError("Repository @ isn't writable", _repositoryId);
  // A new Id gets its record before any version exists, so that concurrent stores share it.
  IdDataRef idData = FindIdData(aid);
  if (!idData) {
    WriteLocker guard(_idsLock);
    auto it = _ids.find(aid);
    if (it != _ids.end()) {
      idData = it->second;
    } else {
      if (deleteAsset) return IllegalStateError("No asset to delete for asset id @.", aid);
      const Id type = source ? source->GetTypeId() : (assetIn ? assetIn->GetTypeId() : Id());
      KELVO_ASSIGN_OR_RETURN(Data adata, CreateDataForIdImpl(aid, type));
      idData = std::make_shared<IdData>(aid, type, std::move(adata));
      _ids.emplace(aid, idData);
    }
  }

  // A back end that numbers versions from what it holds must have read them first.
  if (NeedsLoadVersionsBeforeStore()) KELVO_RETURN_ON_ERROR(GetVersions(idData));

  // The next number after the latest version, or the latest's own for an overwrite; the
  // repository's counter is moved along so that numbers are never handed out twice.
  VersionNumber number;
  std::optional<VersionKey> replacedKey;
  Id overwrittenHash;
  {
    ReadLocker guard(idData->versionsLock);
    const VersionsDataRef& versions = idData->versions;
    const bool empty = !versions || versions->entries.empty();
    if (!overwrite) {
      number = empty ? VersionNumber{1, RepositoryWord(_repositoryId)}
                     : VersionNumber{versions->entries.back().key.number + 1, versions->entries.back().key.repositoryWord};
    } else if (!empty) {
      const VersionEntry& last = versions->entries.back();
      replacedKey = last.key;
      number = VersionNumber{last.key.number, last.key.repositoryWord};
      if (last.description) overwrittenHash = last.description->GetIdAndVersion().second;
    }
  }
  if (!number.IsZero()) {
    KELVO_RETURN_ON_ERROR(UpdateNextVersionImpl(number));
  } else {
    KELVO_ASSIGN_OR_RETURN(number, GetNextVersionImpl());
  }

  // Stores to one Id run one at a time from here on.
  std::unique_lock storeGuard(idData->storeLock);
  // An erase of the last version may have dropped this IdData while the number was chosen: a
  // version stored into it would be found by no search, so the store starts over.
  if (FindIdData(aid) != idData) {
    storeGuard.unlock();
    return StoreCore(aid, request);
  }
  if (!overwrite) {
    // Another store to this Id may have finished since the number was chosen: take the next one.
    ReadLocker guard(idData->versionsLock);
    const VersionsDataRef& versions = idData->versions;
    if (versions && !versions->entries.empty() && versions->entries.back().key.number >= number.number) {
      number = VersionNumber{versions->entries.back().key.number + 1, versions->entries.back().key.repositoryWord};
      guard.unlock();
      KELVO_RETURN_ON_ERROR(UpdateNextVersionImpl(number));
    }
  }

  // The content first: the metadata below names the version the back end wrote.
  Asset asset = assetIn;
  Data adata;
  {
    ReadLocker guard(idData->versionsLock);
    adata = idData->adata;
  }
  KELVO_ASSIGN_OR_RETURN(StoredVersion stored,
                         StoreImpl(asset, deleteAsset, overwrittenHash, source, adata, number, request.addEncryption));
  {
    WriteLocker guard(idData->versionsLock);
    idData->adata = adata;
  }
  if (stored.number != 0 && stored.number != number.number) {
    number.number = stored.number;
    KELVO_RETURN_ON_ERROR(UpdateNextVersionImpl(number));
  }

  // The metadata of the new version: its time stamp, what the content or the source brings,
  // the caller's entries over those, and what the back end computed while writing.
  MetaEntryMap entries;
  entries[metaids::timestamp] =
      MetaEntry{Data(UniversalDateTime::GetNow()), AssetMetaData::READ_ONLY_VERSION, true, 0};
  if (!deleteAsset) {
    const AssetMetaDataRef inherited = asset ? asset->GetMetaData() : (source ? source->GetMetaData() : nullptr);
    KELVO_RETURN_ON_ERROR(CopyInheritedEntries(inherited, source != nullptr, entries));
  }
  if (metaData) KELVO_RETURN_ON_ERROR(CopyInheritedEntries(metaData, false, entries));
  for (const auto& [metaId, value] : stored.extraMeta) entries[metaId] = MetaEntry{value, AssetMetaData::PERSISTENT, true, 0};

  // Each entry is written through the back end; a "meta" URL value is written as its file.
  const IdAndVersion idv{aid, stored.versionId};
  for (auto& [metaId, entry] : entries) {
    const Url* url = entry.data.GetPtr<Url>();
    const bool urlMode = url && url->GetScheme() == "meta";
    const Url src = urlMode ? *url : Url();
    KELVO_ASSIGN_OR_RETURN(entry.data, StoreMetaDataImpl(stored.vdata, metaId, urlMode ? Data() : entry.data, idv, src,
                                                         entry.kind, urlMode));
  }

  // Versions sort by time stamp, then number and repository word.
  auto timeIt = entries.find(metaids::timestamp);
  const UniversalDateTime* time = timeIt == entries.end() ? nullptr : timeIt->second.data.GetPtr<UniversalDateTime>();
  if (!time) return UnexpectedError("Assertion failed: Condition timeMeta not fulfilled. ");
  const VersionKey key{time->GetValue(), number.number, number.repositoryWord};
  AssetRepositoryRef self = std::static_pointer_cast<AssetRepositoryInterface>(shared_from_this());
  const Id typeId = idData->typeId;
  auto meta = std::make_shared<AssetMetaDataImpl>(self, typeId, idv, key, stored.vdata, std::move(entries));

  // A stored asset object becomes the description's loaded asset, so it is not read back.
  AssetDescription description;
  if (asset) {
    if (asset.use_count() > 1) asset = asset->Clone();
    asset->SetId(idv, 0, self, stored.url);
    asset->SetMetaData(meta);
    description = std::make_shared<AssetDescriptionImpl>(idv, typeId, key, meta, false, self, stored.url, asset);
  } else {
    description = std::make_shared<AssetDescriptionImpl>(idv, typeId, key, meta, deleteAsset, self, stored.url);
  }

  // Readers hold snapshots of the version list: a new one is published, never changed in place.
  {
    WriteLocker guard(idData->versionsLock);
    auto versions = idData->versions ? std::make_shared<VersionsData>(*idData->versions) : std::make_shared<VersionsData>();
    if (replacedKey) {
      auto [index, found] = versions->Find(*replacedKey);
      if (found) versions->entries.erase(versions->entries.begin() + static_cast<std::ptrdiff_t>(index));
    }
    auto [index, found] = versions->Find(key);
    if (found)
      versions->entries[index] = VersionEntry{key, description, stored.vdata};
    else
      versions->entries.insert(versions->entries.begin() + static_cast<std::ptrdiff_t>(index),
                               VersionEntry{key, description, stored.vdata});
    idData->versions = std::move(versions);
  }
  storeGuard.unlock();

  // The back end records the asset's links to other assets.
  if (asset) KELVO_RETURN_ON_ERROR(AssetLoadedImpl(asset, true));
  // Observers are told last, with no lock held, so that they may call back into the repository.
  if (deleteAsset)
    HandleAssetErased(description);
  else
    HandleAssetStored(description);
  return description;
}

Result<void> BaseAssetRepositoryImpl::EraseAsset(const AssetDescription& asset) {
  if (!asset) return IllegalArgumentError("Illegal argument: Condition asset not fulfilled. ");
  if (!IsWritable()) return IllegalStateError("Repository @ isn't writable", _repositoryId);
  const IdAndVersion idv = asset->GetIdAndVersion();
  IdDataRef idData = FindIdData(idv.first);
  if (!idData) return IllegalStateError("No asset to erase for asset id @.", idv.first);
  KELVO_RETURN_ON_ERROR(GetVersions(idData));
  // Erasing runs under the store lock of the Id, like a store: an erase of the last version can't
  // remove the directory that a store is writing, and a store that waited sees the Id gone.
  std::lock_guard storeGuard(idData->storeLock);
  bool gone = false;
  {
    WriteLocker guard(idData->versionsLock);
    auto versions = std::make_shared<VersionsData>(*idData->versions);
    const std::optional<std::size_t> found = versions->FindVersion(idv.second);
    if (!found) return IllegalStateError("No asset version @ to erase for asset id @.", idv.second, idv.first);
    const std::size_t index = *found;
    AssetDescription description = versions->entries[index].description;
    const Data vdata = versions->entries[index].vdata;
    versions->entries.erase(versions->entries.begin() + static_cast<std::ptrdiff_t>(index));
    const bool empty = versions->entries.empty();
    idData->versions = std::move(versions);
    KELVO_RETURN_ON_ERROR(EraseImpl(description ? description : asset, vdata));
    HandleAssetErased(description ? description : asset);
    if (empty) {
      KELVO_ASSIGN_OR_RETURN(gone, HandleAssetErasedCompletely(idv.first, idData->adata));
    }
  }
  if (gone) {
    WriteLocker guard(_idsLock);
    auto it = _ids.find(idv.first);
    if (it != _ids.end() && it->second == idData) _ids.erase(it);
  }
  return {};
}

Result<void> BaseAssetRepositoryImpl::StoreMetaData(const AssetDescription& asset, const InternedId& metaId,
                                                    const Data& data, std::uint32_t kind) {
  return StoreMetaDataCore(asset, metaId, data, Url(), kind, false);
}

Result<void> BaseAssetRepositoryImpl::StoreUrlMetaData(const AssetDescription& asset, const InternedId& metaId,
                                                       const Url& source, std::uint32_t kind) {
  return StoreMetaDataCore(asset, metaId, Data(), source, kind, true);
}

Result<void> BaseAssetRepositoryImpl::StoreMetaDataCore(const AssetDescription& asset, const InternedId& metaId,
                                                        const Data& data, const Url& source, std::uint32_t kind,
                                                        bool urlMode) {
  if (!asset) return IllegalArgumentError("Illegal argument: Condition asset not fulfilled. ");
  if ((kind & (AssetMetaData::PERSISTENT | AssetMetaData::DERIVED | AssetMetaData::USER)) == AssetMetaData::PERSISTENT &&
      !IsWritable())
    return IllegalStateError("Repository @ isn't writable", _repositoryId);
  auto meta = std::dynamic_pointer_cast<AssetMetaDataImpl>(asset->GetMetaData());
  if (!meta || !meta->IsBound() || meta->GetRepositoryWeak().lock().get() != this)
    return IllegalArgumentError("Invalid asset description @.", asset->GetIdAndVersion());
  if (metaId.IsEmpty()) return IllegalArgumentError("Meta data id @ contains illegal character @.", metaId, "");
  for (char c : metaId.View())
    if (!IsMetaIdCharacter(c)) return IllegalArgumentError("Meta data id @ contains illegal character @.", metaId, c);
  const std::uint32_t plainKind = kind & AssetMetaData::MASK;
  // Refuse a read-only entry before the back end writes anything.
  if (!(kind & AssetMetaData::IGNORE_READ_ONLY) && (urlMode || !data.IsEmpty())) {
    KELVO_ASSIGN_OR_RETURN(auto existing, meta->GetExistingEntries());
    std::uint32_t existingKind = 0;
    for (const auto& [id, k] : existing)
      if (id == metaId) existingKind = k;
    if ((existingKind | plainKind) & AssetMetaData::READ_ONLY)
      return IllegalArgumentError("Illegal argument: Condition !((v.Get<AssetMetaData::KIND>() | kind) & "
                                    "AssetMetaData::KIND::READ_ONLY) not fulfilled. ");
  }
  Data previous, stored;
  {
    WriteLocker guard(meta->GetLock());
    KELVO_ASSIGN_OR_RETURN(stored, StoreMetaDataImpl(meta->GetVersionData(), metaId, data, asset->GetIdAndVersion(),
                                                     source, plainKind, urlMode));
    KELVO_ASSIGN_OR_RETURN(previous,
                           meta->SetLocked(metaId, stored, plainKind, (kind & AssetMetaData::IGNORE_READ_ONLY) != 0));
  }
  HandleMetaDataStored(asset, metaId, plainKind, previous, stored);
  return {};
}

Result<std::string> BaseAssetRepositoryImpl::GetRepositoryName(const LanguageRef&, bool) {
  return _repositoryId.ToString();
}

Result<void> BaseAssetRepositoryImpl::SetRepositoryName(const std::string&, const LanguageRef&) {
  return FunctionNotImplementedError("Repository names are kept by the repository's database asset.");
}

} // namespace kelvo
