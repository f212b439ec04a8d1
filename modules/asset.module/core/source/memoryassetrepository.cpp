// The in-memory storage back end.

#include <atomic>

#include "kelvo/hash.h"
#include "kelvo/memory_io.h"
#include "asset/core/memoryassetrepository.h"

namespace kelvo {

namespace {

const Id kAid{"aid"};
const Id kNumber{"number"};

// vdata of a version: which asset and which number.
Data MakeVersionData(const Id& aid, std::uint64_t number) {
  DataDictionary d;
  d.SetData(kAid, aid);
  d.SetData(kNumber, number);
  return Data(std::move(d));
}

Result<std::pair<Id, std::uint64_t>> ReadVersionData(const Data& vdata) {
  const DataDictionary* d = vdata.GetPtr<DataDictionary>();
  auto aid = d ? d->Get<Id>(kAid) : std::nullopt;
  auto number = d ? d->Get<std::uint64_t>(kNumber) : std::nullopt;
  if (!aid || !number) return IllegalArgumentError("Foreign version record @.", vdata);
  return std::make_pair(*aid, *number);
}

std::string SafeName(std::string_view text) {
  std::string out;
  for (char c : text) out += (std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' || c == '_') ? c : '_';
  return out;
}

} // namespace

MemoryAssetStore::MemoryAssetStore(std::string name) : _name(std::move(name)) { RegisterMemoryIoHandler(); }

MemoryAssetStore::~MemoryAssetStore() { ClearMemoryFiles(_name + "/"); }

Result<std::shared_ptr<MemoryAssetRepositoryImpl>> MemoryAssetRepositoryImpl::Create(
    const Id& rid, bool writable, std::shared_ptr<MemoryAssetStore> store) {
  if (!store) {
    static std::atomic<std::uint64_t> counter{0};
    store = std::make_shared<MemoryAssetStore>("memstore" + std::to_string(++counter));
  }
  auto repo = std::make_shared<MemoryAssetRepositoryImpl>(writable, std::move(store));
  KELVO_RETURN_ON_ERROR(repo->InitImpl(rid, false));
  return repo;
}

Result<void> MemoryAssetRepositoryImpl::LoadExistingIdsImpl(const IdReceiver& receiver) {
  std::vector<std::pair<Id, Id>> ids;
  {
    std::lock_guard guard(_store->_lock);
    for (const auto& [aid, asset] : _store->_assets) ids.emplace_back(aid, asset.type);
  }
  for (const auto& [aid, type] : ids) {
    KELVO_ASSIGN_OR_RETURN(Data * slot, receiver(aid, type));
    *slot = Data(aid);
  }
  return {};
}

Result<void> MemoryAssetRepositoryImpl::LoadVersionsImpl(const Id& aid, const Id& type, const Data&,
                                                         const VersionReceiver& receiver) {
  std::vector<std::pair<std::uint64_t, MemoryAssetStore::StoredVersionRecord>> versions;
  std::uint64_t word = 0;
  {
    std::lock_guard guard(_store->_lock);
    auto it = _store->_assets.find(aid);
    if (it == _store->_assets.end()) return {};
    word = it->second.repositoryWord;
    for (const auto& v : it->second.versions) versions.push_back(v);
  }
  AssetRepositoryRef self = std::static_pointer_cast<AssetRepositoryInterface>(shared_from_this());
  for (const auto& [number, record] : versions) {
    // Entries are announced without values so that they are read lazily, as from a disk.
    MetaEntryMap entries;
    std::uint64_t time = 0;
    for (const auto& [metaId, meta] : record.meta) {
      entries[metaId] = MetaEntry{Data(), meta.kind, false, 0};
      if (metaId == metaids::timestamp)
        if (auto t = meta.value.Get<UniversalDateTime>()) time = t->GetValue();
    }
    const VersionKey key{time, number, word};
    const IdAndVersion idv{aid, record.versionId};
    const Data vdata = MakeVersionData(aid, number);
    auto metaData = std::make_shared<AssetMetaDataImpl>(self, type, idv, key, vdata, std::move(entries));
    auto description = std::make_shared<AssetDescriptionImpl>(idv, type, key, metaData, record.deleted, self, record.url);
    KELVO_RETURN_ON_ERROR(receiver(key, description, vdata));
  }
  return {};
}

Result<Data> MemoryAssetRepositoryImpl::CreateDataForIdImpl(const Id& aid, const Id&) { return Data(aid); }

Result<StoredVersion> MemoryAssetRepositoryImpl::StoreImpl(const Asset& asset, bool deleteAsset, const Id&,
                                                           const AssetDescription& source, Data& adata,
                                                           const VersionNumber& version, bool) {
  const Id* aid = adata.GetPtr<Id>();
  if (!aid) return IllegalArgumentError("Foreign asset record @.", adata);
  StoredVersion stored;
  Id type;
  if (deleteAsset) {
    KELVO_ASSIGN_OR_RETURN(stored.versionId, MakeUuid("", false));
  } else {
    const Url dir = Url("memory", _store->GetName() + "/" + SafeName(GetId().View()) + "/" + SafeName(aid->View()) +
                                      "/" + std::to_string(version.number));
    Digest digest{};
    if (asset) {
      AssetType assetType = asset->GetType();
      if (!assetType) return IllegalStateError("Unknown asset type @.", asset->GetTypeId());
      type = assetType->GetId();
      const std::string suffix = assetType->GetUrlSuffix(asset);
      stored.url = dir.Append(suffix.empty() ? "content" : "content." + suffix);
      KELVO_ASSIGN_OR_RETURN(stored.extraMeta, assetType->Store(asset, stored.url, &digest));
    } else {
      type = source->GetTypeId();
      KELVO_ASSIGN_OR_RETURN(Url from, source->GetUrl());
      const std::string suffix = from.GetSuffix();
      stored.url = dir.Append(suffix.empty() ? "content" : "content." + suffix);
      KELVO_ASSIGN_OR_RETURN(auto in, from.OpenInputStream());
      KELVO_ASSIGN_OR_RETURN(auto file, stored.url.OpenOutputStream());
      OutputStreamHasher hashed(std::move(file));
      KELVO_RETURN_ON_ERROR(CopyStream(*in, hashed));
      KELVO_RETURN_ON_ERROR(hashed.Close());
      digest = hashed.GetDigest();
    }
    stored.versionId = Id(ToHex(digest.data(), digest.size()));
  }
  stored.vdata = MakeVersionData(*aid, version.number);
  std::lock_guard guard(_store->_lock);
  auto& record = _store->_assets[*aid];
  if (record.versions.empty()) {
    record.repositoryWord = version.repositoryWord;
    if (!type.IsEmpty()) record.type = type;
  }
  record.versions[version.number] = MemoryAssetStore::StoredVersionRecord{stored.versionId, deleteAsset, stored.url, {}};
  return stored;
}

Result<void> MemoryAssetRepositoryImpl::EraseImpl(const AssetDescription& asset, const Data& vdata) {
  KELVO_ASSIGN_OR_RETURN(auto ref, ReadVersionData(vdata));
  Url url;
  {
    std::lock_guard guard(_store->_lock);
    auto it = _store->_assets.find(ref.first);
    if (it == _store->_assets.end()) return IllegalStateError("No asset to erase for asset id @.", ref.first);
    auto v = it->second.versions.find(ref.second);
    if (v == it->second.versions.end())
      return IllegalStateError("No asset version @ to erase for asset id @.", asset->GetIdAndVersion().second, ref.first);
    url = v->second.url;
    it->second.versions.erase(v);
  }
  if (!url.IsEmpty()) KELVO_RETURN_ON_ERROR(url.GetDirectory().IoDelete(true));
  return {};
}

Result<bool> MemoryAssetRepositoryImpl::HandleAssetErasedCompletely(const Id& aid, const Data&) {
  std::lock_guard guard(_store->_lock);
  auto it = _store->_assets.find(aid);
  if (it != _store->_assets.end() && it->second.versions.empty()) _store->_assets.erase(it);
  return true;
}

Result<std::optional<Data>> MemoryAssetRepositoryImpl::LoadMetaDataImpl(const Data& vdata, const InternedId& metaId,
                                                                        std::uint32_t) {
  KELVO_ASSIGN_OR_RETURN(auto ref, ReadVersionData(vdata));
  std::lock_guard guard(_store->_lock);
  auto it = _store->_assets.find(ref.first);
  if (it == _store->_assets.end()) return std::optional<Data>();
  auto v = it->second.versions.find(ref.second);
  if (v == it->second.versions.end()) return std::optional<Data>();
  auto m = v->second.meta.find(metaId);
  if (m == v->second.meta.end()) return std::optional<Data>();
  return std::optional<Data>(m->second.value);
}

Result<Data> MemoryAssetRepositoryImpl::StoreMetaDataImpl(const Data& vdata, const InternedId& metaId,
                                                          const Data& data, const IdAndVersion& asset,
                                                          const Url& source, std::uint32_t kind, bool urlMode) {
  KELVO_ASSIGN_OR_RETURN(auto ref, ReadVersionData(vdata));
  Data value = data;
  if (urlMode) {
    // The attached file is copied next to the content; readers see its memory URL.
    KELVO_ASSIGN_OR_RETURN(std::string bytes, source.ReadAll());
    const std::string suffix = source.GetSuffix();
    Url target("memory", _store->GetName() + "/" + SafeName(GetId().View()) + "/meta/" + SafeName(asset.first.View()) +
                             "/" + std::to_string(ref.second) + "/" + metaId.ToString() + ".meta" +
                             (suffix.empty() ? "" : "." + suffix));
    KELVO_RETURN_ON_ERROR(target.WriteAll(bytes));
    value = Data(target);
  }
  if (!(kind & AssetMetaData::PERSISTENT)) return value;
  std::lock_guard guard(_store->_lock);
  auto it = _store->_assets.find(ref.first);
  if (it == _store->_assets.end()) return IllegalStateError("No asset @ in the store of @.", ref.first, GetId());
  auto v = it->second.versions.find(ref.second);
  if (v == it->second.versions.end()) return IllegalStateError("No version @ of @ in the store.", asset.second, ref.first);
  auto& version = v->second;
  if (value.IsEmpty())
    version.meta.erase(metaId);
  else
    version.meta[metaId] = MemoryAssetStore::StoredMeta{kind, value};
  return value;
}

Result<VersionNumber> MemoryAssetRepositoryImpl::GetNextVersionImpl() {
  std::lock_guard guard(_store->_lock);
  return VersionNumber{_store->_nextVersion++, static_cast<std::uint64_t>(GetId().GetHashCode())};
}

Result<void> MemoryAssetRepositoryImpl::UpdateNextVersionImpl(const VersionNumber& currentVersion) {
  std::lock_guard guard(_store->_lock);
  if (_store->_nextVersion <= currentVersion.number) _store->_nextVersion = currentVersion.number + 1;
  return {};
}

} // namespace kelvo
