// The metadata table of one stored version: lazy loading through the repository's back end,
// computation of derived values through the asset type, and the write rules by kind.

#include "asset/core/asset_metadata.h"

#include <mutex>

#include "asset/core/asset_description.h"
#include "asset/core/baseassetrepository.h"
#include "class_name.h"

namespace kelvo {

namespace {

constexpr const char* kRepositoryGone = "Repository doesn't exist any longer.";

// True when a weak reference was made from a repository at all (expired or not); a
// default-constructed one shares no control block with anything.
bool RefersToSomething(const std::weak_ptr<AssetRepositoryInterface>& w) {
  const std::weak_ptr<AssetRepositoryInterface> none;
  return w.owner_before(none) || none.owner_before(w);
}

bool MatchesType(const Data& value, const Id& type) {
  return !value.IsEmpty() && (type.IsEmpty() || type == datatypes::none || value.GetType() == type);
}

bool DeliverValue(const std::optional<Data>& value, const Id& type, Data& mem) {
  if (!value || !MatchesType(*value, type)) return false;
  mem = *value;
  return true;
}

} // namespace

const AssetMetaDataRef& AssetMetaData::DefaultValuePtr() {
  // Never destroyed: descriptions and assets may hand it out during static destruction.
  static const AssetMetaDataRef* empty = new AssetMetaDataRef(std::make_shared<AssetMetaDataImpl>());
  return *empty;
}

AssetMetaDataImpl::AssetMetaDataImpl(std::weak_ptr<AssetRepositoryInterface> repository, Id typeId, IdAndVersion aid,
                                     VersionKey key, Data vdata, MetaEntryMap entries)
    : _repository(std::move(repository)), _typeId(std::move(typeId)), _aid(std::move(aid)), _key(key),
      _vdata(std::move(vdata)), _entries(std::move(entries)) {
  _bound = RefersToSomething(_repository);
  for (auto& [metaId, entry] : _entries) entry.kind &= AssetMetaData::MASK;
}

Result<std::vector<std::pair<InternedId, std::uint32_t>>> AssetMetaDataImpl::GetExistingEntries() const {
  ReadLocker guard(_lock);
  std::vector<std::pair<InternedId, std::uint32_t>> result;
  result.reserve(_entries.size());
  for (const auto& [metaId, entry] : _entries) result.emplace_back(metaId, entry.kind);
  return result;
}

Result<std::optional<Data>> AssetMetaDataImpl::Get(const InternedId& metaId) const {
  Data mem;
  KELVO_ASSIGN_OR_RETURN(bool found, PrivateGet(metaId, datatypes::none, mem));
  if (!found) return std::optional<Data>();
  return std::optional<Data>(std::move(mem));
}

std::uint64_t AssetMetaDataImpl::GetTimeStamp(const InternedId& metaId) const {
  ReadLocker guard(_lock);
  auto it = _entries.find(metaId);
  return it == _entries.end() ? 0 : it->second.timeStamp;
}

bool AssetMetaDataImpl::Deliver(const MetaEntry& entry, const Id& type, Data& mem) {
  if (!MatchesType(entry.data, type)) return false;
  mem = entry.data;
  return true;
}

Result<bool> AssetMetaDataImpl::PrivateGet(const InternedId& metaId, const Id& type, Data& mem) const {
  {
    ReadLocker guard(_lock);
    auto it = _entries.find(metaId);
    if (it == _entries.end()) {
      if (!_bound) return false;
      if (_repository.expired()) return IllegalStateError(kRepositoryGone);
    } else if (it->second.loaded) {
      return Deliver(it->second, type, mem);
    }
  }
  // From here the entry was unknown (the asset type may compute it) or not loaded yet.
  // Released after the metadata lock, so that a repository dying here is not torn down under it.
  AssetRepositoryRef repository;
  {
    WriteLocker guard(_lock);
    auto it = _entries.find(metaId);
    if (it == _entries.end()) {
      // Unknown to the back end: the asset type may still compute it.
      if (!_bound) return false;
    } else {
      MetaEntry& entry = it->second;
      if (entry.loaded) return Deliver(entry, type, mem);
      if (!_bound) return false;
      repository = _repository.lock();
      if (!repository) return IllegalStateError(kRepositoryGone);
      AssetRecordLoaderRef loader = repository->GetRecordLoader();
      if (!loader) return IllegalStateError("Repository has unsupported class @.", ClassNameOf(*repository));
      // The first reader loads while holding the write lock, so the back end is asked once.
      auto loaded = loader->LoadMetaDataImpl(_vdata, metaId, entry.kind);
      std::optional<Data> value;
      if (loaded.HasError()) {
        // A missing or unreadable file is no value; anything else is not remembered.
        if (!loaded.GetError().Is(errors::io)) return loaded.GetError();
      } else {
        value = std::move(loaded).GetValue();
      }
      if (value && !value->IsEmpty()) {
        entry.data = std::move(*value);
        entry.loaded = true;
        return Deliver(entry, type, mem);
      }
      if (entry.kind != AssetMetaData::DERIVED_CACHE) {
        entry.data = Data();
        entry.loaded = true;
        return false;
      }
      // A derived cache whose stored value is gone is computed again below, without the lock.
    }
  }
  return Compute(metaId, type, mem);
}

Result<bool> AssetMetaDataImpl::Compute(const InternedId& metaId, const Id& type, Data& mem) const {
  // No metadata lock is held here: the asset type may load the asset and read this very table.
  AssetType assetType = FindAssetType(_typeId);
  if (!assetType) return false;
  AssetRepositoryRef repository = _repository.lock();
  if (!repository) return IllegalStateError(kRepositoryGone);
  AssetMetaDataRef self = std::const_pointer_cast<AssetMetaDataImpl>(weak_from_this().lock());
  KELVO_ASSIGN_OR_RETURN(ComputedMetaData computed, assetType->ComputeMetaData(repository, nullptr, self, metaId));
  if (!computed.value || computed.value->IsEmpty() || computed.final) return DeliverValue(computed.value, type, mem);

  // Cache the value through the description of this very version, so that the back end keeps it.
  AssetDescription description;
  KELVO_RETURN_ON_ERROR(repository->FindAssets(
      TypeArray{_typeId}, _aid.first, _aid.second, ALL | WITHOUT_BASES,
      [&description](const AssetDescription& found) -> Result<bool> {
        description = found;
        return false;
      }));
  if (!description) return DeliverValue(computed.value, type, mem);
  KELVO_RETURN_ON_ERROR(repository->StoreMetaData(description, metaId, *computed.value, AssetMetaData::DERIVED_CACHE));
  {
    ReadLocker guard(_lock);
    auto it = _entries.find(metaId);
    if (it != _entries.end() && it->second.loaded) return Deliver(it->second, type, mem);
  }
  // The store went to another table (the description holds a different metadata object).
  return DeliverValue(computed.value, type, mem);
}

Result<Data> AssetMetaDataImpl::SetLocked(const InternedId& metaId, const Data& data, std::uint32_t kind,
                                          bool ignoreReadOnly) {
  kind &= AssetMetaData::MASK;
  const bool dropDerived = IsPlainPersistent(kind);
  auto it = _entries.find(metaId);
  if (!data.IsEmpty() && !ignoreReadOnly) {
    // The kind the entry will have after the derived entries are dropped: a derived entry is
    // removed first and written anew with the given kind.
    const bool survives = it != _entries.end() && !(dropDerived && (it->second.kind & AssetMetaData::DERIVED));
    const std::uint32_t effective = (survives ? it->second.kind : 0) | kind;
    if (effective & AssetMetaData::READ_ONLY)
      return IllegalArgumentError("Illegal argument: Condition !((v.Get<AssetMetaData::KIND>() | kind) & "
                                  "AssetMetaData::KIND::READ_ONLY) not fulfilled. ");
  }
  if (dropDerived) {
    // A change of plain persistent data makes every derived value of this version stale.
    std::erase_if(_entries, [](const auto& e) { return (e.second.kind & AssetMetaData::DERIVED) != 0; });
    it = _entries.find(metaId);
  }
  if (data.IsEmpty()) {
    if (it == _entries.end()) return Data();
    Data previous = std::move(it->second.data);
    _entries.erase(it);
    return previous;
  }
  if (it == _entries.end()) it = _entries.emplace(metaId, MetaEntry{Data(), kind, false, 0}).first;
  MetaEntry& entry = it->second;
  Data previous = std::move(entry.data);
  entry.data = data;
  entry.loaded = true;
  ++entry.timeStamp;
  return previous;
}

Result<Data> AssetMetaDataImpl::Set(const InternedId& metaId, const Data& data, std::uint32_t kind,
                                    bool ignoreReadOnly) {
  WriteLocker guard(_lock);
  return SetLocked(metaId, data, kind, ignoreReadOnly);
}

void AssetMetaDataImpl::AddEntry(const InternedId& metaId, std::uint32_t kind, std::optional<Data> value) {
  WriteLocker guard(_lock);
  MetaEntry& entry = _entries[metaId];
  entry.kind = kind & AssetMetaData::MASK;
  if (value) {
    entry.data = std::move(*value);
    entry.loaded = true;
  }
}

namespace {
std::mutex g_derivedStampLock;
std::string g_derivedStamp;
} // namespace

std::string GetDerivedStamp() {
  std::lock_guard guard(g_derivedStampLock);
  return g_derivedStamp;
}

void SetDerivedStamp(std::string stamp) {
  std::lock_guard guard(g_derivedStampLock);
  g_derivedStamp = std::move(stamp);
}

} // namespace kelvo
