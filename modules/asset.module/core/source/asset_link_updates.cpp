// Asset link updates: recording which loaded assets refer to which, finding the assets that a
// store affects with their update order, and writing the updates in place.

#include "asset/core/asset_link_updates.h"

#include <algorithm>

#include "asset/core/baseassetrepository.h"

namespace kelvo {

namespace {

constexpr const char* kUpdateCondition =
    "Assertion failed: Condition d.GetRepository() == self && aid.second == g_newVersion not fulfilled. ";

// The sort key of a description, the version that does not exist yet being the newest.
VersionKey KeyOf(const AssetDescription& d) {
  return d->GetIdAndVersion().second == g_newVersion ? VersionKey::NewVersion() : d->GetKey();
}

// Adds u to the updates of one dependent. Of several changes of one target only the newest is
// kept: a reference that both matched would otherwise be an ambiguous update.
void AddUpdate(std::vector<AssetDescription>& updates, const AssetDescription& u) {
  const Id& aid = u->GetIdAndVersion().first;
  for (AssetDescription& existing : updates) {
    if (existing->GetIdAndVersion().first != aid) continue;
    if (KeyOf(existing) < KeyOf(u)) existing = u;
    return;
  }
  updates.push_back(u);
}

// Orders nodes by Tarjan's algorithm for strongly connected components: a node comes after the
// nodes that it has edges to. Iterative, so that a long chain of references needs no deep stack.
// A component of more than one node is a cycle of references and fails.
Result<std::vector<std::size_t>> OrderByDependencies(const std::vector<PendingUpdate>& nodes,
                                                     const std::vector<std::vector<std::size_t>>& edges) {
  const std::size_t n = nodes.size();
  constexpr std::size_t kUnvisited = SIZE_MAX;
  std::vector<std::size_t> order(n, kUnvisited), low(n, 0);
  std::vector<bool> onStack(n, false);
  std::vector<std::size_t> stack, result;
  result.reserve(n);
  std::size_t counter = 0;
  struct Frame {
    std::size_t node;
    std::size_t edge;
  };
  std::vector<Frame> calls;
  auto visit = [&](std::size_t v) {
    order[v] = low[v] = counter++;
    stack.push_back(v);
    onStack[v] = true;
    calls.push_back(Frame{v, 0});
  };
  for (std::size_t start = 0; start < n; ++start) {
    if (order[start] != kUnvisited) continue;
    visit(start);
    while (!calls.empty()) {
      const std::size_t v = calls.back().node;
      if (calls.back().edge < edges[v].size()) {
        const std::size_t w = edges[v][calls.back().edge++];
        if (order[w] == kUnvisited)
          visit(w);
        else if (onStack[w])
          low[v] = std::min(low[v], order[w]);
        continue;
      }
      calls.pop_back();
      if (!calls.empty()) low[calls.back().node] = std::min(low[calls.back().node], low[v]);
      if (low[v] != order[v]) continue;
      const std::size_t w = stack.back();
      stack.pop_back();
      onStack[w] = false;
      if (w != v)
        return IllegalArgumentError("Circular node dependency involving @ and @",
                                    nodes[v].description->GetIdAndVersion().first,
                                    nodes[w].description->GetIdAndVersion().first);
      result.push_back(v);
    }
  }
  return result;
}

} // namespace

bool MatchesUpdate(const AssetReference& reference, const AssetBase& updated) {
  const AssetLink link = reference.GetLink();
  if (!link || link->GetUpdatePolicy() == ASSET_UPDATE_POLICY::NEVER) return false;
  const IdAndVersion r = reference.GetIdAndVersion();
  const IdAndVersion u = updated.GetIdAndVersion();
  if (r.first != u.first) return false;
  if (r.second == u.second) {
    // The same version again only after a newer link update of it, so that a finished update
    // isn't repeated.
    const auto* withUpdate = dynamic_cast<const AssetBaseWithUpdate*>(&updated);
    if (!withUpdate ||
        static_cast<std::int64_t>(withUpdate->GetUpdate()) <= static_cast<std::int64_t>(reference.GetUpdate()))
      return false;
  }
  const Id repositoryId = reference.GetRepositoryId();
  if (repositoryId.IsEmpty()) return false;
  const AssetRepositoryRef repository = updated.GetRepository();
  return repository && repository->FindRepository(repositoryId) != nullptr;
}

Result<void> AssetBaseImpl::GetPendingUpdates(const std::vector<AssetDescription>& updatedAssets,
                                              const AssetUpdateReceiver& receiver) const {
  auto r = GetReferencedAssets(true, [&](const AssetReferenceRef& reference) -> Result<bool> {
    if (!reference) return true;
    const AssetDescription* match = nullptr;
    for (const AssetDescription& updated : updatedAssets) {
      if (!updated || !MatchesUpdate(*reference, *updated)) continue;
      if (match) return IllegalArgumentError("Ambiguous update.");
      match = &updated;
    }
    if (match) KELVO_RETURN_ON_ERROR(receiver(reference, *match));
    return true;
  });
  if (r.HasError()) return r.GetError();
  return {};
}

// ---- recording -------------------------------------------------------------------------------

Result<void> BaseAssetRepositoryImpl::AssetLoadedImpl(const Asset& asset, bool updateLinks) {
  if (!updateLinks || !asset || !dynamic_cast<const UpdatableAssetInterface*>(asset.get())) return {};
  const Id aid = asset->GetIdAndVersion().first;
  const IdDataRef idData = FindIdData(aid);
  if (!idData) return {};
  // The asset reports its references with no lock held.
  std::unordered_map<Id, std::vector<AssetReferenceRef>> byTarget;
  auto reported = asset->GetReferencedAssets(true, [&](const AssetReferenceRef& reference) -> Result<bool> {
    const AssetLink link = reference ? reference->GetLink() : nullptr;
    if (!link || link->GetUpdatePolicy() == ASSET_UPDATE_POLICY::NEVER) return true;
    byTarget[link->GetIdAndVersion().first].push_back(reference);
    return true;
  });
  if (reported.HasError()) return reported.GetError();
  ReadLocker versionsGuard(idData->versionsLock);
  std::unique_lock dependentsGuard(_dependentsLock);
  for (auto& [target, references] : byTarget) {
    DependentEntry& entry = _dependents[target][aid];
    entry.asset = asset;
    entry.references = std::move(references);
  }
  return {};
}

void BaseAssetRepositoryImpl::AddPendingAsset(const AssetDescription& asset) {
  if (!asset) return;
  std::lock_guard guard(_pendingLock);
  _pendingAssets.push_back(asset);
}

void BaseAssetRepositoryImpl::HandleAssetStored(const AssetDescription& asset) {
  AddPendingAsset(asset);
  RepositoryBaseClass::HandleAssetStored(asset);
}

void BaseAssetRepositoryImpl::HandleAssetUpdated(const AssetDescription& asset) {
  AddPendingAsset(asset);
  RepositoryBaseClass::HandleAssetUpdated(asset);
}

// ---- finding the updates -----------------------------------------------------------------------

Result<std::vector<PendingUpdate>> BaseAssetRepositoryImpl::GetPendingUpdates(bool reset) {
  std::vector<AssetDescription> work;
  {
    std::lock_guard guard(_pendingLock);
    if (reset)
      work.swap(_pendingAssets);
    else
      work = _pendingAssets;
  }
  if (work.empty()) return std::vector<PendingUpdate>();

  const std::uint64_t now = UniversalDateTime::GetNow().GetValue();
  const AssetRepositoryRef self = std::static_pointer_cast<AssetRepositoryInterface>(shared_from_this());
  std::vector<PendingUpdate> nodes;
  std::unordered_map<Id, std::size_t> index;
  {
    // Each dependent found becomes a change in turn, so that its own dependents are found too.
    std::shared_lock guard(_dependentsLock);
    while (!work.empty()) {
      const AssetDescription u = std::move(work.back());
      work.pop_back();
      if (!u || !u->GetRepository()) continue;
      auto dependents = _dependents.find(u->GetIdAndVersion().first);
      if (dependents == _dependents.end()) continue;
      for (const auto& [dependentId, entry] : dependents->second) {
        const Asset dependent = entry.asset.lock();
        if (!dependent) continue;
        const bool matched = std::any_of(entry.references.begin(), entry.references.end(),
                                         [&](const AssetReferenceRef& r) { return r && MatchesUpdate(*r, *u); });
        if (!matched) continue;
        auto [slot, inserted] = index.try_emplace(dependentId, nodes.size());
        if (inserted) {
          auto pending = std::make_shared<AssetDescriptionImpl>(IdAndVersion{dependentId, g_newVersion},
                                                                dependent->GetTypeId(), VersionKey{now, 0, 0},
                                                                nullptr, false, self, Url());
          nodes.push_back(PendingUpdate{pending, {}});
          work.push_back(pending);
        }
        AddUpdate(nodes[slot->second].updates, u);
      }
    }
  }

  // An asset's edges go to the updated assets that are themselves to be updated.
  std::vector<std::vector<std::size_t>> edges(nodes.size());
  for (std::size_t i = 0; i < nodes.size(); ++i)
    for (const AssetDescription& u : nodes[i].updates)
      if (auto it = index.find(u->GetIdAndVersion().first); it != index.end()) edges[i].push_back(it->second);
  KELVO_ASSIGN_OR_RETURN(std::vector<std::size_t> order, OrderByDependencies(nodes, edges));
  std::vector<PendingUpdate> result;
  result.reserve(order.size());
  for (std::size_t i : order) result.push_back(std::move(nodes[i]));
  return result;
}

// ---- performing them ---------------------------------------------------------------------------

Result<void> BaseAssetRepositoryImpl::Update(const std::vector<PendingUpdate>& updates) {
  const AssetRepositoryRef self = std::static_pointer_cast<AssetRepositoryInterface>(shared_from_this());
  for (const PendingUpdate& pending : updates) {
    const AssetDescription& d = pending.description;
    if (!d || d->GetRepository() != self || d->GetIdAndVersion().second != g_newVersion)
      return UnexpectedError(kUpdateCondition);
    const Id aid = d->GetIdAndVersion().first;
    const IdDataRef idData = FindIdData(aid);
    if (!idData) continue;
    KELVO_RETURN_ON_ERROR(GetVersions(idData));
    AssetDescription last;
    {
      ReadLocker guard(idData->versionsLock);
      if (idData->versions && !idData->versions->entries.empty()) last = idData->versions->entries.back().description;
    }
    // A deletion mark has no content whose links could follow.
    if (!last || last->IsDeleted()) continue;
    KELVO_ASSIGN_OR_RETURN(Asset asset, last->Load(true));
    if (!dynamic_cast<const UpdatableAssetInterface*>(asset.get())) continue;
    std::vector<AssetUpdatePair> pairs;
    KELVO_RETURN_ON_ERROR(asset->GetPendingUpdates(
        pending.updates, [&](const AssetReferenceRef& reference, const AssetDescription& updated) -> Result<void> {
          pairs.emplace_back(reference, updated);
          return {};
        }));
    if (pairs.empty()) continue;
    // The loaded asset is shared through its description: the update goes into a copy.
    const Asset copy = asset->Clone();
    auto* updatable = copy ? dynamic_cast<UpdatableAssetInterface*>(copy.get()) : nullptr;
    if (!updatable) return UnexpectedError("Assertion failed: Condition updatable not fulfilled. ");
    KELVO_RETURN_ON_ERROR(updatable->Update(pairs, self));
    KELVO_RETURN_ON_ERROR(StoreCore(aid, StoreRequest{.asset = copy, .source = last, .updateInPlace = true}));
  }
  return {};
}

Result<AssetDescription> BaseAssetRepositoryImpl::UpdateInPlace(const Id& aid, const StoreRequest& request) {
  if (!request.asset || !request.source)
    return IllegalArgumentError("Illegal argument: Condition asset && source not fulfilled. ");
  if (!FindIdData(aid)) return IllegalStateError("No asset to update for asset id @.", aid);
  const auto description = std::dynamic_pointer_cast<const AssetDescriptionImpl>(request.source);
  if (!description) return IllegalArgumentError("Invalid asset description @.", request.source->GetIdAndVersion());
  // Nothing is written: later loads of the version get the changed object.
  KELVO_RETURN_ON_ERROR(description->HoldUpdatedAsset(request.asset));
  KELVO_RETURN_ON_ERROR(AssetLoadedImpl(request.asset, true));
  HandleAssetUpdated(request.source);
  return request.source;
}

} // namespace kelvo
