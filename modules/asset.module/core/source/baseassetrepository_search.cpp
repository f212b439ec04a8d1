// The read side of the base asset repository: known Ids, lazily loaded version lists, the search
// walk with version selection, and descriptions by exact version.

#include <algorithm>
#include <random>

#include "asset/core/baseassetrepository.h"
#include "kelvo/job_queue.h"
#include "kelvo/registry.h"

namespace kelvo {

const Id g_assetRenamingsRegistryId{"net.kelvo.registry.assetrenamings"};

namespace {

const Id kSceneRepository{"net.kelvo.repository.scene"};

using Renaming = std::function<Result<Id>(const Id&)>;

// Applies the registered renamings: the first non-empty result replaces aid.
Result<Id> ApplyRenamings(const Id& aid) {
  auto registry = GetRegistry<Renaming>(g_assetRenamingsRegistryId);
  if (registry.HasError()) return registry.GetError();
  for (const auto& [key, rename] : (*registry)->GetEntries()) {
    if (!rename) continue;
    KELVO_ASSIGN_OR_RETURN(Id renamed, rename(aid));
    if (!renamed.IsEmpty()) return renamed;
  }
  return aid;
}

std::uint64_t SplitMix(std::uint64_t& s) {
  std::uint64_t z = (s ^ (s >> 30)) * 0xbf58476d1ce4e5b9ull;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
  const std::uint64_t r = z ^ (z >> 31);
  s = r;
  return r;
}

bool KeyLess(const VersionEntry& e, const VersionKey& k) { return e.key < k; }

} // namespace

std::pair<std::size_t, bool> VersionsData::Find(const VersionKey& key) const {
  auto it = std::lower_bound(entries.begin(), entries.end(), key, KeyLess);
  const std::size_t index = static_cast<std::size_t>(it - entries.begin());
  return {index, it != entries.end() && it->key == key};
}

std::optional<std::size_t> VersionsData::FindVersion(const Id& versionId) const {
  if (versionId.IsEmpty()) return std::nullopt;
  for (std::size_t i = entries.size(); i-- > 0;)
    if (entries[i].description && entries[i].description->GetIdAndVersion().second == versionId) return i;
  return std::nullopt;
}


void MergeIntoLatestMap(std::unordered_map<Id, AssetDescription>& latestMap, const Id& aid,
                        const AssetDescription& description) {
  AssetDescription& slot = latestMap[aid];
  if (!slot) {
    slot = description;
    return;
  }
  if (slot->GetRepositoryId() != description->GetRepositoryId()) {
    if (description->GetKey().time > slot->GetKey().time) slot = description;
  } else if (description->GetKey() > slot->GetKey()) {
    slot = description;
  }
}

// ---- lifecycle -----------------------------------------------------------------------------------

Result<void> BaseAssetRepositoryImpl::InitImpl(const Id& rid, bool tempRepository) {
  _repositoryId = rid;
  KELVO_RETURN_ON_ERROR(ReloadIds());
  if (!tempRepository) {
    if (rid == kSceneRepository) {
      KELVO_ASSIGN_OR_RETURN(_descriptionDatabaseId, MakeUuid(FormatString("assets.@", rid), false));
    } else {
      _descriptionDatabaseId = Id(FormatString("assets.@", rid));
    }
  }
  return {};
}

Result<void> BaseAssetRepositoryImpl::ReloadIds() {
  std::unordered_map<Id, IdDataRef> ids;
  KELVO_RETURN_ON_ERROR(LoadExistingIdsImpl([&](const Id& aid, const Id& type) -> Result<Data*> {
    if (aid.IsEmpty()) return IllegalArgumentError("Empty asset Id reported by the back end of @.", _repositoryId);
    auto& slot = ids[aid];
    slot = std::make_shared<IdData>(aid, type, Data());
    return &slot->adata;
  }));
  WriteLocker guard(_idsLock);
  _ids.swap(ids);
  return {};
}

AssetRepositoryRef BaseAssetRepositoryImpl::FindRepository(const Id& repoId) const {
  if (repoId == _repositoryId) return std::const_pointer_cast<AssetRepositoryInterface>(shared_from_this());
  // Depth first over the bases, each repository once, so that a cycle of bases ends.
  std::unordered_set<const AssetRepositoryInterface*> visited{this};
  std::vector<RepositoryArrayRef> stack{GetBases()};
  std::vector<std::size_t> positions{0};
  while (!stack.empty()) {
    if (positions.back() >= stack.back()->size()) {
      stack.pop_back();
      positions.pop_back();
      continue;
    }
    const AssetRepositoryRef& base = (*stack.back())[positions.back()++];
    if (!base || !visited.insert(base.get()).second) continue;
    if (base->GetId() == repoId) return base;
    stack.push_back(base->GetBases());
    positions.push_back(0);
  }
  return nullptr;
}

IdDataRef BaseAssetRepositoryImpl::FindIdData(const Id& aid) const {
  ReadLocker guard(_idsLock);
  auto it = _ids.find(aid);
  return it == _ids.end() ? nullptr : it->second;
}

std::vector<Id> BaseAssetRepositoryImpl::GetAllIds() const {
  ReadLocker guard(_idsLock);
  std::vector<Id> all;
  all.reserve(_ids.size());
  for (const auto& [id, data] : _ids) all.push_back(id);
  return all;
}

// ---- versions ----------------------------------------------------------------------------------------

Result<VersionsDataRef> BaseAssetRepositoryImpl::GetVersions(const IdDataRef& idData) {
  {
    ReadLocker guard(idData->versionsLock);
    if (idData->versions && idData->versions->loaded) return idData->versions;
  }
  WriteLocker guard(idData->versionsLock);
  if (idData->versions && idData->versions->loaded) return idData->versions;
  auto working = idData->versions ? std::make_shared<VersionsData>(*idData->versions) : std::make_shared<VersionsData>();
  KELVO_RETURN_ON_ERROR(LoadVersionsImpl(
      idData->aid, idData->typeId, idData->adata,
      [&](const VersionKey& key, const AssetDescription& description, const Data& vdata) -> Result<void> {
        auto [index, found] = working->Find(key);
        if (found && working->entries[index].description) return {};
        if (found) {
          working->entries[index].description = description;
          working->entries[index].vdata = vdata;
        } else {
          working->entries.insert(working->entries.begin() + static_cast<std::ptrdiff_t>(index),
                                  VersionEntry{key, description, vdata});
        }
        return {};
      }));
  working->loaded = true;
  idData->versions = working;
  return VersionsDataRef(working);
}

// ---- search ------------------------------------------------------------------------------------------

Result<bool> BaseAssetRepositoryImpl::PrivateFindAssets(const TypeArray& types, const Id& aidIn, const Id& version,
                                                        ASSET_FIND_MODE findMode, const AssetReceiver& receiver,
                                                        FindState& state) {
  Id aid = aidIn;
  if (!aid.IsEmpty()) {
    KELVO_ASSIGN_OR_RETURN(aid, ApplyRenamings(aid));
  }
  const bool skip = GetData(repositorykeys::skipinsearch).Get<bool>().value_or(false);
  bool searchOwn = !skip;
  if (searchOwn && (findMode & PRIVATE_QUERY_REPOSITORY_VISIBILITY) && state.visibility) {
    KELVO_ASSIGN_OR_RETURN(bool visible,
                           state.visibility(std::const_pointer_cast<AssetRepositoryInterface>(shared_from_this())));
    searchOwn = visible;
  }
  if (searchOwn) {
    const bool anyType = types.empty() || types.front().IsEmpty();
    std::vector<IdDataRef> candidates;
    {
      ReadLocker guard(_idsLock);
      if (aid.IsEmpty()) {
        candidates.reserve(_ids.size());
        for (const auto& [id, data] : _ids) candidates.push_back(data);
      } else if (findMode & PREFIX) {
        for (const auto& [id, data] : _ids)
          if (id.View().starts_with(aid.View())) candidates.push_back(data);
      } else {
        auto it = _ids.find(aid);
        if (it != _ids.end()) candidates.push_back(it->second);
      }
    }
    if ((findMode & RANDOMIZED_ORDER) && candidates.size() >= 2) {
      int a = 0, b = 0;
      std::uint64_t s = std::hash<const void*>()(&a) * 31 + std::hash<const void*>()(&b) +
                        static_cast<std::uint64_t>(std::random_device()());
      for (std::size_t i = 0; i + 1 < candidates.size(); ++i) {
        const std::size_t remaining = candidates.size() - i;
        std::swap(candidates[i], candidates[i + SplitMix(s) % remaining]);
      }
    }
    if ((findMode & (LATEST | WITHOUT_BASES)) == LATEST && state.latestMap.empty())
      state.latestMap.reserve(candidates.size());
    for (const IdDataRef& idData : candidates) {
      if ((findMode & CHECK_CANCELLATION) && IsCurrentJobCancelled()) return OperationCancelledError();
      if (!anyType && std::find(types.begin(), types.end(), idData->typeId) == types.end()) continue;
      KELVO_ASSIGN_OR_RETURN(bool goOn, SelectVersions(idData, version, findMode, receiver, state));
      if (!goOn) return false;
    }
  }
  return PrivateFindInBases(types, aid, version, findMode, receiver, state);
}

Result<bool> BaseAssetRepositoryImpl::SelectVersions(const IdDataRef& idData, const Id& version,
                                                     ASSET_FIND_MODE findMode, const AssetReceiver& receiver,
                                                     FindState& state) {
  KELVO_ASSIGN_OR_RETURN(VersionsDataRef versions, GetVersions(idData));
  const auto& entries = versions->entries;
  std::size_t first = 0, last = 0; // the selection [first, last)
  if (!version.IsEmpty()) {
    const std::optional<std::size_t> index = versions->FindVersion(version);
    if (!index) return true;
    first = *index;
    last = *index + 1;
  } else {
    if (entries.empty()) return true;
    const bool withDeleted = findMode & WITH_DELETED;
    const AssetDescription& newest = entries.back().description;
    if (!withDeleted && newest && newest->IsDeleted()) return true;
    if (findMode & LATEST) {
      first = entries.size() - 1;
      last = entries.size();
    } else if (findMode & ALL) {
      first = 0;
      last = entries.size();
    } else {
      return true;
    }
  }
  const bool merge = (findMode & (LATEST | WITHOUT_BASES)) == LATEST;
  for (std::size_t i = last; i-- > first;) {
    const AssetDescription& d = entries[i].description;
    if (!d) continue;
    if (!(findMode & WITH_DELETED) && d->IsDeleted()) continue;
    if (merge) {
      MergeIntoLatestMap(state.latestMap, idData->aid, d);
    } else {
      auto r = receiver(d);
      if (r.HasError() || !*r) return r;
    }
  }
  return true;
}

Result<AssetDescription> BaseAssetRepositoryImpl::GetDescription(const AssetIdentifier& asset) const {
  const IdAndVersion aid = asset.GetIdAndVersion();
  auto notFound = [&] { return IllegalArgumentError("No asset description for @ found in @.", aid, _repositoryId); };
  IdDataRef idData = FindIdData(aid.first);
  if (!idData) return notFound();
  KELVO_ASSIGN_OR_RETURN(VersionsDataRef versions, const_cast<BaseAssetRepositoryImpl*>(this)->GetVersions(idData));
  const std::optional<std::size_t> index = versions->FindVersion(aid.second);
  if (!index || !versions->entries[*index].description) return notFound();
  return versions->entries[*index].description;
}

COMPARERESULT BaseAssetRepositoryImpl::CompareVersions(const std::shared_ptr<const AssetBase>& first,
                                                       const std::shared_ptr<const AssetBase>& second) const {
  auto keyOf = [this](const std::shared_ptr<const AssetBase>& a) -> VersionKey {
    if (!a) return VersionKey();
    if (a->GetIdAndVersion().second == g_newVersion) return VersionKey::NewVersion();
    if (auto d = std::dynamic_pointer_cast<const AssetDescriptionInterface>(a)) return d->GetKey();
    if (std::dynamic_pointer_cast<const AssetInterface>(a)) {
      auto r = GetDescription(*a);
      if (r.HasValue() && *r) return (*r)->GetKey();
    }
    return VersionKey();
  };
  return CompareKeysAndUpdates(first, keyOf(first), second, keyOf(second));
}

COMPARERESULT AssetRepositoryInterface::CompareKeysAndUpdates(const std::shared_ptr<const AssetBase>& first,
                                                              const VersionKey& firstKey,
                                                              const std::shared_ptr<const AssetBase>& second,
                                                              const VersionKey& secondKey) {
  const IdAndVersion a = first ? first->GetIdAndVersion() : IdAndVersion();
  const IdAndVersion b = second ? second->GetIdAndVersion() : IdAndVersion();
  if (a.first != b.first) return INCOMPARABLE;
  if (a.second != b.second) {
    if (firstKey < secondKey) return LESS;
    return firstKey == secondKey ? EQUAL : GREATER;
  }
  auto ua = std::dynamic_pointer_cast<const AssetBaseWithUpdate>(first);
  auto ub = std::dynamic_pointer_cast<const AssetBaseWithUpdate>(second);
  if (!ua || !ub) return EQUAL;
  if (ua->GetUpdate() < ub->GetUpdate()) return LESS;
  return ua->GetUpdate() == ub->GetUpdate() ? EQUAL : GREATER;
}

} // namespace kelvo
