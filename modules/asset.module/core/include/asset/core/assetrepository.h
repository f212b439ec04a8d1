#pragma once
// The published repository interface, the find modes, derived data, and the repository base
// shared by every repository (bases, derived repositories, observables, caches, the data
// dictionary).

#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "asset/core/asset_description.h"
#include "asset/core/asset_identity.h"
#include "asset/core/asset_metadata.h"
#include "kelvo/data.h"
#include "kelvo/lock.h"
#include "kelvo/observable.h"
#include "kelvo/result.h"

namespace kelvo {

enum ASSET_FIND_MODE : std::uint32_t {
  NONE = 0,
  LATEST = 1,
  ALL = 2,
  WITHOUT_BASES = 4,
  WITH_DELETED = 8,
  PREFIX = 16,
  RANDOMIZED_ORDER = 32,
  CHECK_CANCELLATION = 64,
  PRIVATE_QUERY_REPOSITORY_VISIBILITY = 128,
};
inline ASSET_FIND_MODE operator|(ASSET_FIND_MODE a, ASSET_FIND_MODE b) {
  return static_cast<ASSET_FIND_MODE>(static_cast<std::uint32_t>(a) | static_cast<std::uint32_t>(b));
}

using RepositoryArray = std::vector<AssetRepositoryRef>;
using RepositoryArrayRef = std::shared_ptr<const RepositoryArray>;
using TypeArray = std::vector<Id>;

// Ids of the standard repositories and of the repository types, known to every layer.
namespace repositoryids {
inline const Id builtin{"net.kelvo.repository.builtin"};
inline const Id application{"net.kelvo.repository.application"};
inline const Id userprefs{"net.kelvo.repository.userprefs"};
inline const Id scene{"net.kelvo.repository.scene"};
} // namespace repositoryids

namespace repositorytypes {
inline const Id database{"net.kelvo.assets.repositorytype.database"};
inline const Id watchfolder{"net.kelvo.assets.repositorytype.watchfolder"};
} // namespace repositorytypes

// Renamed assets: the registry "net.kelvo.registry.assetrenamings" holds functions from an old asset
// Id to its new Id (an empty Id when they don't rename it). A search for an Id applies them first.
using AssetRenaming = std::function<Result<Id>(const Id&)>;
inline const Id g_assetRenamingsRegistryId{"net.kelvo.registry.assetrenamings"};
// The Id after the registered renamings: the first non-empty result, else aid. Any thread.
Result<Id> ApplyAssetRenamings(const Id& aid);

// Gets each match of a search; false stops the search without an error.
using AssetReceiver = std::function<Result<bool>(const AssetDescription&)>;
// With PRIVATE_QUERY_REPOSITORY_VISIBILITY: asked once per repository before its own content is
// searched; false skips that repository's content (its bases are still searched).
using RepositoryVisibilityReceiver = std::function<Result<bool>(const AssetRepositoryRef&)>;
using RepositoryReceiver = std::function<Result<bool>(const AssetRepositoryRef&)>;

// The state of one search walk: repositories visited, and the latest description per asset Id.
struct FindState {
  std::unordered_set<const AssetRepositoryInterface*> visited;
  std::unordered_map<Id, AssetDescription> latestMap;
  RepositoryVisibilityReceiver visibility;
};

// Data derived from a repository's content, told of every change.
class DerivedAssetRepositoryDataInterface {
public:
  virtual ~DerivedAssetRepositoryDataInterface() = default;
  virtual void HandleBaseChanged(const AssetRepositoryRef& repo, const AssetRepositoryRef& base, bool added) = 0;
  virtual void HandleAssetStored(const AssetDescription& asset) = 0;
  virtual void HandleAssetErased(const AssetDescription& asset) = 0;
  virtual void HandleAssetUpdated(const AssetDescription& asset) = 0;
  virtual void HandleMetaDataStored(const AssetDescription& asset, const InternedId& metaId, std::uint32_t kind,
                                    const Data& prevData, const Data& newData) = 0;
  virtual void HandleDownloadStateChanged(const AssetRepositoryRef& repository, bool finished) = 0;
};
using DerivedAssetRepositoryDataRef = std::shared_ptr<DerivedAssetRepositoryDataInterface>;

using ObservableBaseChangedType = Observable<AssetRepositoryRef, bool>;
using ObservableAssetType = Observable<AssetDescription>;
using ObservableMetaDataStoredType = Observable<AssetDescription, InternedId, std::uint32_t, Data, Data>;
using ObservableDownloadStateChangedType = Observable<AssetRepositoryRef, bool>;

// An opaque cached value; its destructor is its clean-up.
using CachedValue = std::shared_ptr<void>;

// Data keys of repositories.
namespace repositorykeys {
inline const Id skipinsearch{"net.kelvo.assetrepository.skipinsearch"};
}

// What metadata and descriptions load through: the records of the back end that made them.
// A repository hands it out and a decorator forwards the one of its decorated repository, so
// metadata bound to a decorator still reach the back end. Called from any thread.
class AssetRecordLoader {
public:
  virtual ~AssetRecordLoader() = default;
  // The value of one metadata entry of the version whose back-end record is vdata; empty when
  // there is none. Errors: io for a missing or unreadable value, others for a damaged one.
  virtual Result<std::optional<Data>> LoadMetaDataImpl(const Data& vdata, const InternedId& metaId,
                                                       std::uint32_t kind) = 0;
  // Called once a description has loaded its asset, so that the back end can finish it.
  virtual Result<void> AssetLoadedImpl(const Asset& asset, bool updateLinks);
};
using AssetRecordLoaderRef = std::shared_ptr<AssetRecordLoader>;

class AssetRepositoryInterface : public std::enable_shared_from_this<AssetRepositoryInterface> {
public:
  virtual ~AssetRepositoryInterface() = default;

  // The loader of this repository's records: the repository itself when it is one, else null.
  virtual AssetRecordLoaderRef GetRecordLoader();

  // ---- data dictionary ----
  virtual Result<void> SetData(const Id& key, const Data& value) = 0;
  virtual Data GetData(const Id& key) const = 0;
  virtual Result<void> EraseData(const Id& key) = 0;

  // ---- repository ----
  virtual Id GetId() const = 0;
  // The current bases; a later change makes a new array, so the caller iterates without a lock.
  virtual RepositoryArrayRef GetBases() const = 0;
  // Calls receiver for each derived repository still alive, with no lock held.
  virtual Result<bool> GetDerived(const RepositoryReceiver& receiver) const = 0;
  virtual Result<void> InitBases(const RepositoryArray& bases) = 0;
  virtual Result<void> AddBase(const AssetRepositoryRef& base) = 0;
  virtual Result<void> RemoveBase(const AssetRepositoryRef& base) = 0;
  // This repository for its own Id, else the first match among the bases; null when none.
  virtual AssetRepositoryRef FindRepository(const Id& repoId) const = 0;
  virtual bool IsWritable() const = 0;
  // The recursion steps of the two walks. Only the repository core calls them.
  virtual Result<bool> PrivateFindAssets(const TypeArray& types, const Id& aid, const Id& version,
                                         ASSET_FIND_MODE findMode, const AssetReceiver& receiver, FindState& state) = 0;
  virtual Result<void> PrivatePrefetchMetaData(const InternedId& metaId, std::uint32_t kind,
                                               ASSET_FIND_MODE findMode,
                                               std::unordered_set<const AssetRepositoryInterface*>& visited) = 0;
  // Calls receiver for each match, on the caller's thread with no repository lock held.
  // Returns false when the receiver stopped the search.
  virtual Result<bool> FindAssets(const TypeArray& types, const Id& aid, const Id& version, ASSET_FIND_MODE findMode,
                                  const AssetReceiver& receiver,
                                  const RepositoryVisibilityReceiver& visibility = nullptr) = 0;
  // The latest matching description; null (no error) when there is none.
  virtual Result<AssetDescription> FindLatestAsset(const Id& type, const Id& aid, const Id& version,
                                                   ASSET_FIND_MODE findMode) = 0;
  // The description of exactly this asset version in this repository (bases not consulted).
  virtual Result<AssetDescription> GetDescription(const AssetIdentifier& asset) const = 0;
  virtual COMPARERESULT CompareVersions(const std::shared_ptr<const AssetBase>& first,
                                        const std::shared_ptr<const AssetBase>& second) const = 0;

  // ---- write path ----
  // The writers below may be called from any thread; writes to one Id run one at a time, writes
  // to different Ids in parallel. They fail with illegalstate on a read-only repository and with
  // the back end's io error when it can't write; a failed write leaves the earlier versions as
  // they were. Observers are told on the writing thread after the write, with no lock held.

  // Stores asset as a new version of aid (version 1 for a new Id), with the asset's metadata and
  // metaData's entries over it. Fires AssetStored. Returns the new version's description.
  virtual Result<AssetDescription> StoreAsset(const Id& aid, const Asset& asset, const AssetMetaDataRef& metaData) = 0;
  // As StoreAsset, but replaces the latest version (keeping its number) instead of adding one.
  virtual Result<AssetDescription> OverwriteAsset(const Id& aid, const Asset& asset,
                                                  const AssetMetaDataRef& metaData) = 0;
  // Stores a deletion mark as the latest version; the earlier versions stay. Fires AssetErased.
  // Errors: illegalstate when aid is unknown.
  virtual Result<AssetDescription> DeleteAsset(const Id& aid) = 0;
  // Removes one version for good, and the Id with its last version. Fires AssetErased.
  // Errors: illegalstate when the version is unknown.
  virtual Result<void> EraseAsset(const AssetDescription& asset) = 0;
  // Stores a copy of source (content and metadata) as a new version of aid, or over the latest
  // with overwrite. Errors: illegalstate when source is not valid for this application.
  virtual Result<AssetDescription> CopyAsset(const Id& aid, const AssetDescription& source, bool addEncryption,
                                             bool overwrite) = 0;
  // Writes one metadata value of asset's version (an empty Data removes it). Fires MetaDataStored;
  // a plain persistent value also makes the derived values of the version stale.
  virtual Result<void> StoreMetaData(const AssetDescription& asset, const InternedId& metaId, const Data& data,
                                     std::uint32_t kind) = 0;
  // As StoreMetaData with the file at source as the value; only kinds kept as files accept it
  // (illegalargument otherwise).
  virtual Result<void> StoreUrlMetaData(const AssetDescription& asset, const InternedId& metaId, const Url& source,
                                        std::uint32_t kind) = 0;

  // ---- events ----
  // The observables; with create false they may be null (nothing observes them yet).
  virtual std::shared_ptr<ObservableBaseChangedType> ObservableBaseChanged(bool create) = 0;
  virtual std::shared_ptr<ObservableAssetType> ObservableAssetStored(bool create) = 0;
  virtual std::shared_ptr<ObservableAssetType> ObservableAssetErased(bool create) = 0;
  virtual std::shared_ptr<ObservableAssetType> ObservableAssetUpdated(bool create) = 0;
  virtual std::shared_ptr<ObservableMetaDataStoredType> ObservableMetaDataStored(bool create) = 0;
  virtual std::shared_ptr<ObservableDownloadStateChangedType> ObservableDownloadStateChanged(bool create) = 0;

  // The plain cache: the value of key, made by callback on the first call. A failed callback
  // stores nothing, so the next call tries again.
  virtual Result<CachedValue> GetCachedData(const Data& key, const std::function<Result<CachedValue>()>& callback) = 0;
  virtual Id GetDescriptionDatabaseId() const = 0;
  // The display name of the repository, and its change.
  virtual Result<std::string> GetRepositoryName(const LanguageRef& language, bool addDetails) = 0;
  virtual Result<void> SetRepositoryName(const std::string& name, const LanguageRef& language) = 0;
  // The derived cache: like the plain cache, and the object then gets every Handle call.
  virtual Result<DerivedAssetRepositoryDataRef> GetDerivedCachedData(
      const Data& key, const std::function<Result<DerivedAssetRepositoryDataRef>()>& callback) = 0;

  virtual void HandleBaseChanged(const AssetRepositoryRef& base, bool added) = 0;
  virtual void HandleAssetStored(const AssetDescription& asset) = 0;
  virtual void HandleAssetErased(const AssetDescription& asset) = 0;
  virtual void HandleAssetUpdated(const AssetDescription& asset) = 0;
  virtual void HandleMetaDataStored(const AssetDescription& asset, const InternedId& metaId, std::uint32_t kind,
                                    const Data& prevData, const Data& newData) = 0;
  virtual void HandleDownloadStateChanged(const AssetRepositoryRef& repository, bool finished) = 0;
  virtual void RequestUnloadRepository() {}

  // ---- static ----
  // Orders two versions of one asset: INCOMPARABLE for different assets, by key for different
  // versions (g_newVersion greatest), by update counter for the same version.
  static COMPARERESULT CompareKeysAndUpdates(const std::shared_ptr<const AssetBase>& first, const VersionKey& firstKey,
                                            const std::shared_ptr<const AssetBase>& second,
                                            const VersionKey& secondKey);
};

class RepositoryBaseClass;

// The part shared by every repository: bases, derived repositories, the six observables, the
// two caches and the data dictionary. Lock order: own bases lock, then a base's derived lock.
class RepositoryBaseClass : public AssetRepositoryInterface {
public:
  ~RepositoryBaseClass() override;

  Result<void> SetData(const Id& key, const Data& value) override;
  Data GetData(const Id& key) const override;
  Result<void> EraseData(const Id& key) override;

  RepositoryArrayRef GetBases() const override;
  Result<bool> GetDerived(const RepositoryReceiver& receiver) const override;
  Result<void> InitBases(const RepositoryArray& bases) override;
  Result<void> AddBase(const AssetRepositoryRef& base) override;
  Result<void> RemoveBase(const AssetRepositoryRef& base) override;
  Result<bool> FindAssets(const TypeArray& types, const Id& aid, const Id& version, ASSET_FIND_MODE findMode,
                          const AssetReceiver& receiver,
                          const RepositoryVisibilityReceiver& visibility = nullptr) override;
  Result<AssetDescription> FindLatestAsset(const Id& type, const Id& aid, const Id& version,
                                           ASSET_FIND_MODE findMode) override;
  Result<void> PrivatePrefetchMetaData(const InternedId& metaId, std::uint32_t kind, ASSET_FIND_MODE findMode,
                                       std::unordered_set<const AssetRepositoryInterface*>& visited) override;

  std::shared_ptr<ObservableBaseChangedType> ObservableBaseChanged(bool create) override;
  std::shared_ptr<ObservableAssetType> ObservableAssetStored(bool create) override;
  std::shared_ptr<ObservableAssetType> ObservableAssetErased(bool create) override;
  std::shared_ptr<ObservableAssetType> ObservableAssetUpdated(bool create) override;
  std::shared_ptr<ObservableMetaDataStoredType> ObservableMetaDataStored(bool create) override;
  std::shared_ptr<ObservableDownloadStateChangedType> ObservableDownloadStateChanged(bool create) override;

  Result<CachedValue> GetCachedData(const Data& key, const std::function<Result<CachedValue>()>& callback) override;
  Result<DerivedAssetRepositoryDataRef> GetDerivedCachedData(
      const Data& key, const std::function<Result<DerivedAssetRepositoryDataRef>()>& callback) override;

  void HandleBaseChanged(const AssetRepositoryRef& base, bool added) override;
  void HandleAssetStored(const AssetDescription& asset) override;
  void HandleAssetErased(const AssetDescription& asset) override;
  void HandleAssetUpdated(const AssetDescription& asset) override;
  void HandleMetaDataStored(const AssetDescription& asset, const InternedId& metaId, std::uint32_t kind,
                            const Data& prevData, const Data& newData) override;
  void HandleDownloadStateChanged(const AssetRepositoryRef& repository, bool finished) override;

protected:
  RepositoryBaseClass() = default;
  // Walks the bases in order for the search (the last step of PrivateFindAssets).
  Result<bool> PrivateFindInBases(const TypeArray& types, const Id& aid, const Id& version, ASSET_FIND_MODE findMode,
                                  const AssetReceiver& receiver, FindState& state);
  // Calls OwnContentChanged when the changed asset is from this very repository, not one whose
  // event is passed on from a base.
  void RefreshIndex(const AssetDescription& asset);
  // Runs first in the Handle operations for a change of this repository's own content (a store,
  // an erase, an update, persistent metadata), so that a back end can react to its own changes,
  // e.g. drop its index and schedule a new one. Runs on the changing thread, no lock held.
  virtual void OwnContentChanged() {}
  // Calls f on each live derived repository and then on each derived data object.
  void FanOut(const std::function<void(AssetRepositoryInterface&)>& toDerived,
              const std::function<void(DerivedAssetRepositoryDataInterface&)>& toData);

private:
  template <typename O> std::shared_ptr<O> GetObservable(std::shared_ptr<O>& slot, const char* name, bool create);

  mutable SpinLock _observableLock;
  std::shared_ptr<ObservableBaseChangedType> _baseChanged;
  std::shared_ptr<ObservableAssetType> _assetStored, _assetErased, _assetUpdated;
  std::shared_ptr<ObservableMetaDataStoredType> _metaDataStored;
  std::shared_ptr<ObservableDownloadStateChangedType> _downloadStateChanged;

  mutable ARWLock _basesLock;
  RepositoryArrayRef _bases = std::make_shared<const RepositoryArray>();
  mutable ARWLock _derivedLock;
  std::shared_ptr<const std::vector<std::weak_ptr<AssetRepositoryInterface>>> _derived =
      std::make_shared<const std::vector<std::weak_ptr<AssetRepositoryInterface>>>();

  SpinLock _cacheLock;
  std::unordered_map<Data, CachedValue, DataHash> _cache;
  ARWLock _derivedCacheLock;
  std::vector<std::pair<Data, DerivedAssetRepositoryDataRef>> _derivedCache;

  mutable ARWLock _dataLock;
  DataDictionary _data;
};

} // namespace kelvo
