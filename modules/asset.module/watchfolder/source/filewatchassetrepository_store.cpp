// The watch folder repository's metadata kept in the store: writing user metadata, reading
// stored values lazily, "metasq" URLs; and the storage operations a watch folder answers as a
// read-only repository without versions of its own.

#include "asset/watchfolder/filewatchassetrepository.h"

#include <cctype>

#include "watch_entry.h"
#include "watchfolder_metadata.h"
#include "watchfolder_store.h"

namespace kelvo {

namespace {

bool IsLegalMetaId(std::string_view id, char& bad) {
  for (char c : id) {
    if (std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '.' || c == '_') continue;
    bad = c;
    return false;
  }
  return true;
}

} // namespace

Result<void> FileWatchAssetRepositoryImpl::StoreMetaData(const AssetDescription& asset, const InternedId& metaId,
                                                         const Data& data, std::uint32_t kind) {
  return StoreValue(asset, metaId, kind, data, Url());
}

Result<void> FileWatchAssetRepositoryImpl::StoreUrlMetaData(const AssetDescription& asset, const InternedId& metaId,
                                                            const Url& source, std::uint32_t kind) {
  const std::uint32_t base = kind & AssetMetaData::MASK & ~std::uint32_t(AssetMetaData::DERIVED | AssetMetaData::USER);
  if (base != 2 && base != 6 && base != 7)
    return IllegalArgumentError("Kind @ can't hold an attached file.", kind);
  return StoreValue(asset, metaId, kind, Data(), source);
}

Result<void> FileWatchAssetRepositoryImpl::StoreValue(const AssetDescription& asset, const InternedId& metaId,
                                                      std::uint32_t kind, const Data& valueIn, const Url& source) {
  char bad = 0;
  if (!IsLegalMetaId(metaId.ToString(), bad))
    return IllegalArgumentError("Meta data id @ contains illegal character @.", metaId.ToString(), bad);
  std::shared_ptr<WatchAssetNode> node = NodeOfDescription(asset);
  if (!node)
    return IllegalArgumentError("@ is no asset of watch folder @.", asset ? asset->GetIdAndVersion().first : Id(),
                                _ids->repositoryId);
  KELVO_ASSIGN_OR_RETURN(AssetDescription current, GetNodeDescription(node));
  auto meta = std::dynamic_pointer_cast<AssetMetaDataImpl>(current->GetMetaData());
  if (!meta) return IllegalStateError("Illegal state: Condition meta not fulfilled. ");
  const std::uint32_t k = kind & AssetMetaData::MASK;
  Data value = valueIn;
  if (k & AssetMetaData::PERSISTENT) {
    const std::uint32_t plain = k & ~std::uint32_t(AssetMetaData::USER);
    if (plain != 2 && plain != 6 && plain != 7 && plain != 10)
      return IllegalArgumentError("Illegal argument: Condition !(kind & AssetMetaData::KIND::PERSISTENT) not fulfilled. ");
    KELVO_ASSIGN_OR_RETURN(value, WriteStoredValue(*_store, node->entry.urlHash, _ids->repositoryId, metaId, k, valueIn,
                                                   source));
    if (value.IsEmpty() && metaId == metaids::previewimageurl && node->entry.IsDirectory()) value = Data(_iconUrl);
  }
  KELVO_ASSIGN_OR_RETURN(Data previous, meta->Set(metaId, value, k, true));
  HandleMetaDataStored(current, metaId, k, previous, value);
  return {};
}

Result<std::optional<Data>> FileWatchAssetRepositoryImpl::LoadMetaDataImpl(const Data& vdata, const InternedId& metaId,
                                                                           std::uint32_t kind) {
  const std::uint64_t* urlHash = vdata.GetPtr<std::uint64_t>();
  if (!urlHash) return IllegalArgumentError("Foreign version record @.", vdata);
  return ReadStoredValue(*_store, *urlHash, metaId, kind);
}

Result<Url> FileWatchAssetRepositoryImpl::ResolveMetasqUrl(const Url& url) {
  return ReadMetasqValue(*_store, _ids->repositoryId, url);
}

// The storage seam beyond metadata reads: a watch folder keeps no versions of its own.
Result<void> FileWatchAssetRepositoryImpl::LoadExistingIdsImpl(const IdReceiver&) { return {}; }
Result<void> FileWatchAssetRepositoryImpl::LoadVersionsImpl(const Id&, const Id&, const Data&, const VersionReceiver&) {
  return {};
}
Result<Data> FileWatchAssetRepositoryImpl::CreateDataForIdImpl(const Id&, const Id&) {
  return UnsupportedOperationError("Watch folder @ is read-only.", _ids->repositoryId);
}
Result<StoredVersion> FileWatchAssetRepositoryImpl::StoreImpl(const Asset&, bool, const Id&, const AssetDescription&,
                                                              Data&, const VersionNumber&, bool) {
  return UnsupportedOperationError("Watch folder @ is read-only.", _ids->repositoryId);
}
Result<void> FileWatchAssetRepositoryImpl::EraseImpl(const AssetDescription&, const Data&) {
  return UnsupportedOperationError("Watch folder @ is read-only.", _ids->repositoryId);
}
Result<bool> FileWatchAssetRepositoryImpl::HandleAssetErasedCompletely(const Id&, const Data&) { return false; }
Result<Data> FileWatchAssetRepositoryImpl::StoreMetaDataImpl(const Data&, const InternedId&, const Data&,
                                                             const IdAndVersion&, const Url&, std::uint32_t, bool) {
  return UnsupportedOperationError("Watch folder @ stores metadata through StoreMetaData.", _ids->repositoryId);
}
Result<VersionNumber> FileWatchAssetRepositoryImpl::GetNextVersionImpl() {
  return UnsupportedOperationError("Watch folder @ is read-only.", _ids->repositoryId);
}
Result<void> FileWatchAssetRepositoryImpl::UpdateNextVersionImpl(const VersionNumber&) { return {}; }

} // namespace kelvo
