// The repository base: bases and derived repositories, the search entry points, events, caches
// and the repository's data dictionary.

#include <algorithm>

#include "asset/core/assetrepository.h"
#include "kelvo/job_queue.h"

namespace kelvo {

namespace {
const char* const kNoBaseComponent = "The given base repository has no RepositoryBaseClass component.";
using WeakArray = std::vector<std::weak_ptr<AssetRepositoryInterface>>;
} // namespace

RepositoryBaseClass::~RepositoryBaseClass() {
  // Our weak references in the bases' derived lists are dead now; drop them.
  for (const AssetRepositoryRef& base : *_bases) {
    auto* b = dynamic_cast<RepositoryBaseClass*>(base.get());
    if (!b) continue;
    WriteLocker guard(b->_derivedLock);
    auto list = std::make_shared<WeakArray>(*b->_derived);
    std::erase_if(*list, [](const auto& w) { return w.expired(); });
    b->_derived = std::move(list);
  }
}

// ---- data dictionary ---------------------------------------------------------------------------

Result<void> RepositoryBaseClass::SetData(const Id& key, const Data& value) {
  WriteLocker guard(_dataLock);
  _data.SetData(key, value);
  return {};
}

Data RepositoryBaseClass::GetData(const Id& key) const {
  ReadLocker guard(_dataLock);
  return _data.GetData(key);
}

Result<void> RepositoryBaseClass::EraseData(const Id& key) {
  WriteLocker guard(_dataLock);
  _data.EraseData(key);
  return {};
}

// ---- bases and derived -------------------------------------------------------------------------

RepositoryArrayRef RepositoryBaseClass::GetBases() const {
  ReadLocker guard(_basesLock);
  return _bases;
}

Result<bool> RepositoryBaseClass::GetDerived(const RepositoryReceiver& receiver) const {
  if (!receiver) return NullptrError("Receiver is null.");
  std::shared_ptr<const WeakArray> derived;
  {
    ReadLocker guard(_derivedLock);
    derived = _derived;
  }
  for (const auto& weak : *derived) {
    if (AssetRepositoryRef repo = weak.lock()) {
      auto r = receiver(repo);
      if (r.HasError() || !*r) return r;
    }
  }
  return true;
}

Result<void> RepositoryBaseClass::InitBases(const RepositoryArray& bases) {
  for (const auto& base : bases)
    if (!dynamic_cast<RepositoryBaseClass*>(base.get())) return IllegalArgumentError(kNoBaseComponent);
  WriteLocker guard(_basesLock);
  {
    ReadLocker derivedGuard(_derivedLock);
    if (!_bases->empty() || !_derived->empty())
      return IllegalStateError("Illegal state: Condition w->IsEmpty() && _derived.Read()->IsEmpty() not fulfilled. ");
  }
  auto self = weak_from_this();
  RepositoryArray added;
  for (const auto& base : bases) {
    if (std::find(added.begin(), added.end(), base) != added.end()) continue;
    auto* b = static_cast<RepositoryBaseClass*>(base.get());
    if (b == this) return IllegalArgumentError("A repository can't be its own base.");
    WriteLocker derivedGuard(b->_derivedLock);
    auto list = std::make_shared<WeakArray>(*b->_derived);
    list->push_back(self);
    b->_derived = std::move(list);
    added.push_back(base);
  }
  _bases = std::make_shared<const RepositoryArray>(std::move(added));
  return {};
}

Result<void> RepositoryBaseClass::AddBase(const AssetRepositoryRef& base) {
  auto* b = dynamic_cast<RepositoryBaseClass*>(base.get());
  if (!b) return IllegalArgumentError(kNoBaseComponent);
  if (b == this) return IllegalArgumentError("A repository can't be its own base.");
  {
    WriteLocker guard(_basesLock);
    if (std::find(_bases->begin(), _bases->end(), base) != _bases->end()) return {};
    auto copy = std::make_shared<RepositoryArray>(*_bases);
    copy->push_back(base);
    {
      WriteLocker derivedGuard(b->_derivedLock);
      auto list = std::make_shared<WeakArray>(*b->_derived);
      list->push_back(weak_from_this());
      b->_derived = std::move(list);
    }
    _bases = std::move(copy);
  }
  HandleBaseChanged(base, true);
  return {};
}

Result<void> RepositoryBaseClass::RemoveBase(const AssetRepositoryRef& base) {
  auto* b = dynamic_cast<RepositoryBaseClass*>(base.get());
  if (!b) return IllegalArgumentError(kNoBaseComponent);
  {
    WriteLocker guard(_basesLock);
    auto it = std::find(_bases->begin(), _bases->end(), base);
    if (it == _bases->end()) return {};
    auto copy = std::make_shared<RepositoryArray>(*_bases);
    copy->erase(copy->begin() + (it - _bases->begin()));
    {
      WriteLocker derivedGuard(b->_derivedLock);
      auto list = std::make_shared<WeakArray>(*b->_derived);
      std::erase_if(*list, [this](const auto& w) {
        auto p = w.lock();
        return !p || p.get() == this;
      });
      b->_derived = std::move(list);
    }
    _bases = std::move(copy);
  }
  HandleBaseChanged(base, false);
  return {};
}

// ---- search entry points -----------------------------------------------------------------------

Result<bool> RepositoryBaseClass::FindAssets(const TypeArray& types, const Id& aid, const Id& version,
                                             ASSET_FIND_MODE findMode, const AssetReceiver& receiver,
                                             const RepositoryVisibilityReceiver& visibility) {
  if (!receiver) return NullptrError("Receiver is null.");
  FindState state;
  state.visibility = visibility;
  state.visited.insert(this);
  auto r = PrivateFindAssets(types, aid, version, findMode, receiver, state);
  if (r.HasError() || !*r) return r;
  for (const auto& [id, description] : state.latestMap) {
    if ((findMode & CHECK_CANCELLATION) && IsCurrentJobCancelled()) return OperationCancelledError();
    auto rr = receiver(description);
    if (rr.HasError() || !*rr) return rr;
  }
  return true;
}

Result<AssetDescription> RepositoryBaseClass::FindLatestAsset(const Id& type, const Id& aid, const Id& version,
                                                              ASSET_FIND_MODE findMode) {
  if (aid.IsEmpty()) return IllegalArgumentError("Asset ID cannot be null.");
  AssetDescription found;
  auto r = FindAssets(TypeArray{type}, aid, version, findMode | LATEST, [&](const AssetDescription& d) -> Result<bool> {
    found = d;
    return false;
  });
  if (r.HasError()) return r.GetError();
  return found;
}

Result<bool> RepositoryBaseClass::PrivateFindInBases(const TypeArray& types, const Id& aid, const Id& version,
                                                     ASSET_FIND_MODE findMode, const AssetReceiver& receiver,
                                                     FindState& state) {
  if (findMode & WITHOUT_BASES) return true;
  const RepositoryArrayRef bases = GetBases();
  for (const AssetRepositoryRef& base : *bases) {
    if ((findMode & CHECK_CANCELLATION) && IsCurrentJobCancelled()) return OperationCancelledError();
    if (!base) return NullptrError("Null base repository in @.", GetId());
    if (!state.visited.insert(base.get()).second) continue;
    auto r = base->PrivateFindAssets(types, aid, version, findMode, receiver, state);
    if (r.HasError() || !*r) return r;
  }
  return true;
}

Result<void> RepositoryBaseClass::PrivatePrefetchMetaData(const InternedId& metaId, std::uint32_t kind,
                                                          ASSET_FIND_MODE findMode,
                                                          std::unordered_set<const AssetRepositoryInterface*>& visited) {
  if (findMode & WITHOUT_BASES) return {};
  const RepositoryArrayRef bases = GetBases();
  for (const AssetRepositoryRef& base : *bases) {
    if ((findMode & CHECK_CANCELLATION) && IsCurrentJobCancelled()) return OperationCancelledError();
    if (!base) return NullptrError("Null base repository in @.", GetId());
    if (!visited.insert(base.get()).second) continue;
    KELVO_RETURN_ON_ERROR(base->PrivatePrefetchMetaData(metaId, kind, findMode, visited));
  }
  return {};
}

// ---- observables -------------------------------------------------------------------------------

template <typename O>
std::shared_ptr<O> RepositoryBaseClass::GetObservable(std::shared_ptr<O>& slot, const char* name, bool create) {
  std::lock_guard guard(_observableLock);
  if (!slot && create) slot = std::make_shared<O>(Id(name));
  return slot;
}

std::shared_ptr<ObservableBaseChangedType> RepositoryBaseClass::ObservableBaseChanged(bool create) {
  return GetObservable(_baseChanged, "ObservableBaseChanged", create);
}
std::shared_ptr<ObservableAssetType> RepositoryBaseClass::ObservableAssetStored(bool create) {
  return GetObservable(_assetStored, "ObservableAssetStored", create);
}
std::shared_ptr<ObservableAssetType> RepositoryBaseClass::ObservableAssetErased(bool create) {
  return GetObservable(_assetErased, "ObservableAssetErased", create);
}
std::shared_ptr<ObservableAssetType> RepositoryBaseClass::ObservableAssetUpdated(bool create) {
  return GetObservable(_assetUpdated, "ObservableAssetUpdated", create);
}
std::shared_ptr<ObservableMetaDataStoredType> RepositoryBaseClass::ObservableMetaDataStored(bool create) {
  return GetObservable(_metaDataStored, "ObservableMetaDataStored", create);
}
std::shared_ptr<ObservableDownloadStateChangedType> RepositoryBaseClass::ObservableDownloadStateChanged(bool create) {
  return GetObservable(_downloadStateChanged, "ObservableDownloadStateChanged", create);
}

// ---- caches --------------------------------------------------------------------------------------

Result<CachedValue> RepositoryBaseClass::GetCachedData(const Data& key,
                                                       const std::function<Result<CachedValue>()>& callback) {
  std::lock_guard guard(_cacheLock);
  auto it = _cache.find(key);
  if (it != _cache.end()) return it->second;
  if (!callback) return NullptrError("Callback is null.");
  KELVO_ASSIGN_OR_RETURN(CachedValue value, callback());
  _cache.emplace(key, value);
  return value;
}

Result<DerivedAssetRepositoryDataRef> RepositoryBaseClass::GetDerivedCachedData(
    const Data& key, const std::function<Result<DerivedAssetRepositoryDataRef>()>& callback) {
  WriteLocker guard(_derivedCacheLock);
  for (const auto& [k, v] : _derivedCache)
    if (k == key) return v;
  if (!callback) return NullptrError("Callback is null.");
  KELVO_ASSIGN_OR_RETURN(DerivedAssetRepositoryDataRef value, callback());
  if (!value) return NullptrError("Derived data callback gave no object.");
  _derivedCache.emplace_back(key, value);
  return value;
}

// ---- events ----------------------------------------------------------------------------------------

void RepositoryBaseClass::RefreshIndex(const AssetDescription& asset) {
  if (!asset || asset->GetRepository().get() != this) return;
  OwnContentChanged();
}

void RepositoryBaseClass::FanOut(const std::function<void(AssetRepositoryInterface&)>& toDerived,
                                 const std::function<void(DerivedAssetRepositoryDataInterface&)>& toData) {
  std::shared_ptr<const WeakArray> derived;
  {
    ReadLocker guard(_derivedLock);
    derived = _derived;
  }
  // Repositories whose events are being passed on by this thread: a cycle of bases must not
  // pass an event round for ever. A diamond still delivers twice, one path after the other.
  thread_local std::vector<const AssetRepositoryInterface*> climbing;
  climbing.push_back(this);
  for (const auto& weak : *derived) {
    AssetRepositoryRef repo = weak.lock();
    if (repo && std::find(climbing.begin(), climbing.end(), repo.get()) == climbing.end()) toDerived(*repo);
  }
  climbing.pop_back();
  ReadLocker guard(_derivedCacheLock);
  for (const auto& [key, data] : _derivedCache) toData(*data);
}

void RepositoryBaseClass::HandleBaseChanged(const AssetRepositoryRef& base, bool added) {
  if (auto o = ObservableBaseChanged(false)) o->Notify(base, added);
  AssetRepositoryRef self = weak_from_this().lock();
  FanOut([&](AssetRepositoryInterface& r) { r.HandleBaseChanged(base, added); },
         [&](DerivedAssetRepositoryDataInterface& d) { d.HandleBaseChanged(self, base, added); });
}

void RepositoryBaseClass::HandleAssetStored(const AssetDescription& asset) {
  RefreshIndex(asset);
  if (auto o = ObservableAssetStored(false)) o->Notify(asset);
  FanOut([&](AssetRepositoryInterface& r) { r.HandleAssetStored(asset); },
         [&](DerivedAssetRepositoryDataInterface& d) { d.HandleAssetStored(asset); });
}

void RepositoryBaseClass::HandleAssetErased(const AssetDescription& asset) {
  RefreshIndex(asset);
  if (auto o = ObservableAssetErased(false)) o->Notify(asset);
  FanOut([&](AssetRepositoryInterface& r) { r.HandleAssetErased(asset); },
         [&](DerivedAssetRepositoryDataInterface& d) { d.HandleAssetErased(asset); });
}

void RepositoryBaseClass::HandleAssetUpdated(const AssetDescription& asset) {
  RefreshIndex(asset);
  if (auto o = ObservableAssetUpdated(false)) o->Notify(asset);
  FanOut([&](AssetRepositoryInterface& r) { r.HandleAssetUpdated(asset); },
         [&](DerivedAssetRepositoryDataInterface& d) { d.HandleAssetUpdated(asset); });
}

void RepositoryBaseClass::HandleMetaDataStored(const AssetDescription& asset, const InternedId& metaId,
                                               std::uint32_t kind, const Data& prevData, const Data& newData) {
  if ((kind & (AssetMetaData::PERSISTENT | AssetMetaData::DERIVED | AssetMetaData::USER)) == AssetMetaData::PERSISTENT)
    RefreshIndex(asset);
  if (auto o = ObservableMetaDataStored(false)) o->Notify(asset, metaId, kind, prevData, newData);
  FanOut([&](AssetRepositoryInterface& r) { r.HandleMetaDataStored(asset, metaId, kind, prevData, newData); },
         [&](DerivedAssetRepositoryDataInterface& d) { d.HandleMetaDataStored(asset, metaId, kind, prevData, newData); });
}

void RepositoryBaseClass::HandleDownloadStateChanged(const AssetRepositoryRef& repository, bool finished) {
  if (auto o = ObservableDownloadStateChanged(false)) o->Notify(repository, finished);
  FanOut([&](AssetRepositoryInterface& r) { r.HandleDownloadStateChanged(repository, finished); },
         [&](DerivedAssetRepositoryDataInterface& d) { d.HandleDownloadStateChanged(repository, finished); });
}

Result<void> AssetRecordLoader::AssetLoadedImpl(const Asset&, bool) { return {}; }

AssetRecordLoaderRef AssetRepositoryInterface::GetRecordLoader() {
  // The one place that asks: repositories that are their own back end need no override.
  auto* loader = dynamic_cast<AssetRecordLoader*>(this);
  return loader ? AssetRecordLoaderRef(shared_from_this(), loader) : nullptr;
}

} // namespace kelvo
