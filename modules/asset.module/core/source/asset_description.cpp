// Descriptions of stored versions (URL, load with its two caches, translated strings), the
// defaults shared by all loaded assets, and the asset-level static services.

#include "asset/core/asset_description.h"

#include <atomic>

#include "asset/core/asset_version_validity.h"
#include "asset/core/baseassetrepository.h"
#include "asset/core/content_digest.h"
#include "meta_strings.h"

namespace kelvo {

namespace {

constexpr const char* kRepositoryGone = "Repository doesn't exist any longer.";

// The latest stored version of aid in repository itself (bases not consulted); null when none.
Result<AssetDescription> FindLatestOwnVersion(const AssetRepositoryRef& repository, const Id& typeId, const Id& aid) {
  AssetDescription latest;
  KELVO_RETURN_ON_ERROR(repository->FindAssets(TypeArray{typeId}, aid, Id(), LATEST | WITHOUT_BASES,
                                               [&latest](const AssetDescription& found) -> Result<bool> {
                                                 latest = found;
                                                 return false;
                                               }));
  return latest;
}

Result<std::string> VersionStringOf(const AssetMetaDataRef& meta, const IdAndVersion& aid) {
  std::string tag, time;
  if (meta) {
    KELVO_ASSIGN_OR_RETURN(std::optional<std::string> t, meta->GetValue<std::string>(metaids::versiontag));
    if (t) tag = *t;
    KELVO_ASSIGN_OR_RETURN(std::optional<UniversalDateTime> stamp,
                           meta->GetValue<UniversalDateTime>(metaids::timestamp));
    if (stamp && !stamp->IsEmpty()) time = stamp->FormatLocal("%Y-%m-%d %H:%M");
  }
  if (tag.empty() && time.empty()) return aid.second.ToString();
  if (tag.empty()) return time;
  if (time.empty()) return tag;
  return tag + " - " + time;
}

// The language table: "strings_<language>" per language Id, in 16 buckets of singly linked nodes
// that are pushed at the head by compare-and-swap and never removed, so readers need no lock and
// a repeated look-up allocates nothing.
struct LanguageNode {
  Id languageId;
  InternedId metaId;
  LanguageNode* next;
};
constexpr std::size_t kLanguageBuckets = 16;
std::atomic<LanguageNode*> g_languageBuckets[kLanguageBuckets];

} // namespace

// ---- AssetDescriptionImpl --------------------------------------------------------------------

AssetDescriptionImpl::AssetDescriptionImpl(IdAndVersion aid, Id typeId, VersionKey key, AssetMetaDataRef metaData,
                                           bool deleted, AssetRepositoryRef repository, Url url, Asset loaded)
    : _aid(std::move(aid)), _typeId(std::move(typeId)), _key(key),
      _metaData(metaData ? std::move(metaData) : AssetMetaData::DefaultValuePtr()), _deleted(deleted),
      _repositoryId(repository ? repository->GetId() : Id()), _repository(repository), _url(std::move(url)),
      _loaded(loaded), _loadedWithUpdates(loaded) {}

Result<Url> AssetDescriptionImpl::GetUrl() const {
  // The URL is written only here, once, and read only after the guard is done.
  auto fetch = [this]() -> Result<void> {
    if (!_url.IsEmpty()) return {};
    AssetRepositoryRef repository = _repository.lock();
    if (!repository) return IllegalStateError(kRepositoryGone);
    KELVO_ASSIGN_OR_RETURN(AssetDescription latest, FindLatestOwnVersion(repository, _typeId, _aid.first));
    if (!latest) return IllegalStateError("No stored version of @ to take the Url from.", _aid);
    if (latest.get() == this) return {};
    KELVO_ASSIGN_OR_RETURN(Url url, latest->GetUrl());
    _url = std::move(url);
    return {};
  };
  KELVO_RETURN_ON_ERROR(_urlOnce.Run(fetch));
  return _url;
}

Result<Asset> AssetDescriptionImpl::Load(bool updateLinks) const {
  if (_deleted) return IllegalStateError("Can't load deleted asset @", _aid);
  ARWLock& slotLock = updateLinks ? _loadedWithUpdatesLock : _loadedLock;
  Asset& slot = updateLinks ? _loadedWithUpdates : _loaded;
  {
    ReadLocker guard(slotLock);
    if (slot) return slot;
  }

  AssetRepositoryRef repository = _repository.lock();
  IdAndVersion aid = _aid;
  Url url;
  Asset asset;
  if (_aid.second == g_newVersion) {
    // The version that does not exist yet stands for the latest stored one.
    AssetDescription latest;
    if (repository) {
      KELVO_ASSIGN_OR_RETURN(latest, FindLatestOwnVersion(repository, _typeId, _aid.first));
    }
    if (!latest || latest.get() == this) return IllegalStateError("Can't load asset for @.", _aid);
    KELVO_ASSIGN_OR_RETURN(asset, latest->Load(updateLinks));
    aid.second = latest->GetIdAndVersion().second;
    url = latest->GetUrl().GetValueOr(Url());
  } else {
    AssetType type = FindAssetType(_typeId);
    if (!type) return IllegalStateError("Unknown asset type @.", _typeId);
    KELVO_ASSIGN_OR_RETURN(url, GetUrl());
    if (url.IsEmpty()) return IllegalStateError("Empty Url for asset @.", _aid);
    const AssetDescription self = weak_from_this().lock();
    KELVO_ASSIGN_OR_RETURN(bool valid, IsAssetValid(self));
    if (!valid) return IllegalStateError("Asset not valid for this app version.");
    KELVO_RETURN_ON_ERROR(CheckMirroredContent(url, _aid.second));
    // No lock is held here: two threads may load at once, and the slot keeps the first result.
    KELVO_ASSIGN_OR_RETURN(asset, type->Load(repository, self, url, updateLinks));
  }
  if (!asset) return UnexpectedError("Assertion failed: Condition loaded not fulfilled. ");

  WriteLocker guard(slotLock);
  if (slot) return slot;
  if (asset.use_count() > 1) {
    asset = asset->Clone();
    if (!asset) return UnexpectedError("Assertion failed: Condition loaded not fulfilled. ");
  }
  asset->SetId(aid, updateLinks ? 1 : 0, repository, url);
  asset->SetMetaData(_metaData);
  slot = asset;
  // The links are recorded outside the slot lock: the repository takes its own locks for them.
  guard.unlock();
  if (AssetRecordLoaderRef loader = repository ? repository->GetRecordLoader() : nullptr)
    KELVO_RETURN_ON_ERROR(loader->AssetLoadedImpl(asset, updateLinks));
  return asset;
}

Result<void> AssetDescriptionImpl::HoldUpdatedAsset(const Asset& asset) const {
  if (!asset) return IllegalArgumentError("Illegal argument: Condition asset not fulfilled. ");
  KELVO_ASSIGN_OR_RETURN(Url url, GetUrl());
  WriteLocker guard(_loadedWithUpdatesLock);
  const std::uint64_t update = _loadedWithUpdates ? _loadedWithUpdates->GetUpdate() + 1 : 1;
  asset->SetId(_aid, update, _repository.lock(), url);
  _loadedWithUpdates = asset;
  return {};
}

Result<std::string> AssetDescriptionImpl::GetMetaString(const Id& key, const LanguageRef& language,
                                                        const std::string& fallback) const {
  const std::string& effectiveFallback =
      key == stringkeys::name && fallback.empty() ? _aid.first.GetString() : fallback;
  const AssetDescription self = weak_from_this().lock();
  if (!self) {
    // Not owned by a shared reference: read the table directly.
    KELVO_ASSIGN_OR_RETURN(std::optional<std::string> text, FindTranslatedString(*_metaData, key, language));
    return text ? *text : effectiveFallback;
  }
  if (AssetType type = FindAssetType(_typeId)) return type->GetMetaString(self, key, language, effectiveFallback);
  return GetDefaultMetaString(self, key, language, effectiveFallback);
}

Result<void> AssetDescriptionImpl::StoreMetaString(const Id& key, const std::string& value,
                                                   const LanguageRef& language) const {
  const AssetDescription self = weak_from_this().lock();
  if (!self) return IllegalStateError("Asset description @ isn't held by a reference.", _aid);
  if (AssetType type = FindAssetType(_typeId)) return type->StoreMetaString(self, key, value, language);
  return StoreDefaultMetaString(self, key, value, language);
}

// ---- AssetBaseImpl -----------------------------------------------------------------------------

AssetBaseImpl::AssetBaseImpl(const AssetBaseImpl& other)
    : AssetInterface(other), _aid(other._aid), _update(other._update), _repositoryId(other._repositoryId),
      _repository(other._repository) {
  std::lock_guard guard(other._metaLock);
  _metaData = other._metaData;
}

Id AssetBaseImpl::GetTypeId() const {
  AssetType type = GetType();
  return type ? type->GetId() : Id();
}

void AssetBaseImpl::SetId(const IdAndVersion& aid, std::uint64_t update, const AssetRepositoryRef& repository,
                          const Url&) {
  _aid = aid;
  _update = update;
  _repositoryId = repository ? repository->GetId() : Id();
  _repository = repository;
}

AssetDescription AssetBaseImpl::GetDescription() const {
  AssetRepositoryRef repository = _repository.lock();
  if (!repository) return nullptr;
  Result<AssetDescription> description = repository->GetDescription(*this);
  return description.HasValue() ? *description : nullptr;
}

Result<bool> AssetBaseImpl::GetReferencedAssets(bool, const AssetReferenceReceiver&) const {
  return true;
}

void AssetBaseImpl::SetMetaData(const AssetMetaDataRef& data) {
  std::lock_guard guard(_metaLock);
  _metaData = data;
}

AssetMetaDataRef AssetBaseImpl::GetMetaData() const {
  {
    std::lock_guard guard(_metaLock);
    if (AssetMetaDataRef meta = _metaData.lock()) return meta;
  }
  // Not under the spin lock: asking the repository may read files.
  AssetDescription description = GetDescription();
  if (!description) return AssetMetaData::DefaultValuePtr();
  AssetMetaDataRef meta = description->GetMetaData();
  std::lock_guard guard(_metaLock);
  _metaData = meta;
  return meta;
}

// ---- static services ---------------------------------------------------------------------------

InternedId AssetInterface::GetLanguageMetaDataId(const Id& languageId) {
  std::atomic<LanguageNode*>& head = g_languageBuckets[languageId.GetHashCode() % kLanguageBuckets];
  LanguageNode* searchedUpTo = head.load(std::memory_order_acquire);
  for (LanguageNode* n = searchedUpTo; n; n = n->next)
    if (n->languageId == languageId) return n->metaId;
  const std::string metaText = "strings_" + languageId.ToString();
  auto* node = new LanguageNode{languageId, InternedId(std::string_view(metaText)), searchedUpTo};
  for (;;) {
    if (head.compare_exchange_weak(node->next, node, std::memory_order_release, std::memory_order_acquire))
      return node->metaId;
    // Others pushed nodes meanwhile: only those in front of the part already searched are new.
    for (LanguageNode* n = node->next; n != searchedUpTo; n = n->next) {
      if (n->languageId == languageId) {
        const InternedId found = n->metaId;
        delete node;
        return found;
      }
    }
    searchedUpTo = node->next;
  }
}

Result<std::string> AssetInterface::GetVersionString(const AssetDescription& description) {
  if (!description) return NullptrError("Asset description is nullptr.");
  return VersionStringOf(description->GetMetaData(), description->GetIdAndVersion());
}

Result<std::string> AssetInterface::GetVersionString(const Asset& asset) {
  if (!asset) return NullptrError("Asset is nullptr.");
  return VersionStringOf(asset->GetMetaData(), asset->GetIdAndVersion());
}

} // namespace kelvo
