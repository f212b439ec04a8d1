#pragma once
// The base asset repository: search, version selection, storing and notification, implemented
// once for all storage back ends. A back end implements only the *Impl operations of
// BaseAssetRepositoryInterface, which touch storage and nothing else.
//
// Lock order: storeLock, versionsLock (then the metadata lock), dependentsLock; idsLock is never
// held across another lock, a back-end call or a receiver call.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <unordered_map>
#include <vector>

#include "asset/core/asset_link_updates.h"
#include "asset/core/assetrepository.h"

namespace kelvo {

// One stored version in a VersionsData snapshot.
struct VersionEntry {
  VersionKey key;
  AssetDescription description;
  Data vdata;
};

// The versions of one asset Id: an immutable snapshot, replaced as a whole by writers, so a
// reader holding one keeps seeing it.
struct VersionsData {
  bool loaded = false;
  std::vector<VersionEntry> entries; // ascending by key; one entry per key

  // The index of the entry with key, or of the place where it belongs, and whether it is there.
  std::pair<std::size_t, bool> Find(const VersionKey& key) const;
  // The index of the newest entry with version Id versionId. An asset has few versions, and a
  // scan spares every asset a hash table of its own.
  std::optional<std::size_t> FindVersion(const Id& versionId) const;
};
using VersionsDataRef = std::shared_ptr<const VersionsData>;

// One known asset Id. Held by shared_ptr so a search that copied it keeps it valid while the Id
// is erased.
struct IdData {
  IdData(Id id, Id type, Data data) : aid(std::move(id)), typeId(std::move(type)), adata(std::move(data)) {}
  const Id aid;
  const Id typeId;
  Data adata;              // the back end's record; guarded by versionsLock once published
  VersionsDataRef versions; // guarded by versionsLock
  mutable ARWLock versionsLock;
  // Held for the whole of a store or erase of this Id, file I/O included: a blocking mutex, so
  // that a second writer sleeps instead of spinning through a slow write.
  std::mutex storeLock;
};
using IdDataRef = std::shared_ptr<IdData>;

// What StoreImpl gives back for a new version.
struct StoredVersion {
  Url url;
  Id versionId;
  Data vdata;
  MetaValueMap extraMeta;
  // The version number the back end wrote, when it is not the one asked for (another process
  // took that one); 0 when it is.
  std::uint64_t number = 0;
};

// The storage seam.
class BaseAssetRepositoryInterface : public AssetRecordLoader {
public:
  virtual ~BaseAssetRepositoryInterface() = default;
  using IdReceiver = std::function<Result<Data*>(const Id& aid, const Id& type)>;
  using VersionReceiver =
      std::function<Result<void>(const VersionKey& key, const AssetDescription& description, const Data& vdata)>;

  // Calls receiver(aid, type) once per known asset and fills the adata slot it returns.
  virtual Result<void> LoadExistingIdsImpl(const IdReceiver& receiver) = 0;
  // Calls receiver once per stored version, in any order. Runs with the IdData write-locked.
  virtual Result<void> LoadVersionsImpl(const Id& aid, const Id& type, const Data& adata,
                                        const VersionReceiver& receiver) = 0;
  // The back end's record for a new Id.
  virtual Result<Data> CreateDataForIdImpl(const Id& aid, const Id& type) = 0;
  // Stores asset, or copies source, as version `version`; with deleteAsset only the mark.
  // overwrittenHash is the version Id being replaced, empty when none is.
  virtual Result<StoredVersion> StoreImpl(const Asset& asset, bool deleteAsset, const Id& overwrittenHash,
                                          const AssetDescription& source, Data& adata, const VersionNumber& version,
                                          bool addEncryption) = 0;
  virtual Result<void> EraseImpl(const AssetDescription& asset, const Data& vdata) = 0;
  // Removes what remains of an asset whose last version was erased. True: the Id is gone.
  virtual Result<bool> HandleAssetErasedCompletely(const Id& aid, const Data& adata) = 0;
  // Writes one metadata value (urlMode: the file at source) and returns what readers will see.
  virtual Result<Data> StoreMetaDataImpl(const Data& vdata, const InternedId& metaId, const Data& data,
                                         const IdAndVersion& asset, const Url& source, std::uint32_t kind,
                                         bool urlMode) = 0;
  virtual bool NeedsLoadVersionsBeforeStore() const { return true; }
  // A version number not used before, with this repository's word.
  virtual Result<VersionNumber> GetNextVersionImpl() = 0;
  // Moves the counter up to currentVersion, never down.
  virtual Result<void> UpdateNextVersionImpl(const VersionNumber& currentVersion) = 0;
};

class BaseAssetRepositoryImpl : public RepositoryBaseClass,
                                public BaseAssetRepositoryInterface,
                                public UpdatableAssetRepositoryInterface {
public:
  // Brings the repository up: stores rid and reads the known Ids from the back end.
  Result<void> InitImpl(const Id& rid, bool tempRepository);

  Id GetId() const override { return _repositoryId; }
  AssetRepositoryRef FindRepository(const Id& repoId) const override;
  Result<bool> PrivateFindAssets(const TypeArray& types, const Id& aid, const Id& version, ASSET_FIND_MODE findMode,
                                 const AssetReceiver& receiver, FindState& state) override;
  Result<AssetDescription> GetDescription(const AssetIdentifier& asset) const override;
  COMPARERESULT CompareVersions(const std::shared_ptr<const AssetBase>& first,
                                const std::shared_ptr<const AssetBase>& second) const override;
  Id GetDescriptionDatabaseId() const override { return _descriptionDatabaseId; }

  Result<AssetDescription> StoreAsset(const Id& aid, const Asset& asset, const AssetMetaDataRef& metaData) override;
  Result<AssetDescription> OverwriteAsset(const Id& aid, const Asset& asset,
                                          const AssetMetaDataRef& metaData) override;
  Result<AssetDescription> DeleteAsset(const Id& aid) override;
  Result<void> EraseAsset(const AssetDescription& asset) override;
  Result<AssetDescription> CopyAsset(const Id& aid, const AssetDescription& source, bool addEncryption,
                                     bool overwrite) override;
  Result<void> StoreMetaData(const AssetDescription& asset, const InternedId& metaId, const Data& data,
                             std::uint32_t kind) override;
  Result<void> StoreUrlMetaData(const AssetDescription& asset, const InternedId& metaId, const Url& source,
                                std::uint32_t kind) override;
  Result<std::string> GetRepositoryName(const LanguageRef& language, bool addDetails) override;
  Result<void> SetRepositoryName(const std::string& name, const LanguageRef& language) override;

  // ---- link updates (asset_link_updates.cpp) ----
  Result<std::vector<PendingUpdate>> GetPendingUpdates(bool reset) override;
  Result<void> Update(const std::vector<PendingUpdate>& updates) override;
  // Records the references of a loaded updatable asset of this repository (with updateLinks).
  Result<void> AssetLoadedImpl(const Asset& asset, bool updateLinks) override;
  // Both add the asset to the changes that GetPendingUpdates looks at, then notify.
  void HandleAssetStored(const AssetDescription& asset) override;
  void HandleAssetUpdated(const AssetDescription& asset) override;
  // Adds asset to the changes that GetPendingUpdates looks at, as a store of it would, without
  // notifying anyone: for a host that loads a repository in a new process and wants the assets
  // that refer to asset brought up to date.
  void AddPendingAsset(const AssetDescription& asset);

  // The versions of an Id, loaded from the back end on first need.
  Result<VersionsDataRef> GetVersions(const IdDataRef& idData);
  // The IdData of aid; null when the Id is unknown.
  IdDataRef FindIdData(const Id& aid) const;
  // A snapshot of all known Ids.
  std::vector<Id> GetAllIds() const;

protected:
  BaseAssetRepositoryImpl() = default;

  // One write of an Id: new content (asset), a copy of another version (source), or the deletion
  // mark (deleteAsset).
  struct StoreRequest {
    Asset asset{};
    AssetMetaDataRef metaData{}; // entries added to those the content or source brings
    AssetDescription source{};
    bool deleteAsset = false;
    bool addEncryption = false;
    bool overwrite = false; // replaces the latest version instead of adding one
    // A link update: asset, changed by its links, replaces the loaded asset of source (the latest
    // version) in memory; nothing is written and no version comes into being.
    bool updateInPlace = false;
  };
  // The core of StoreAsset, OverwriteAsset, DeleteAsset and CopyAsset.
  Result<AssetDescription> StoreCore(const Id& aid, const StoreRequest& request);
  Result<void> StoreMetaDataCore(const AssetDescription& asset, const InternedId& metaId, const Data& data,
                                 const Url& source, std::uint32_t kind, bool urlMode);
  // Drops all known Ids and reads them again from the back end (after a rescan).
  Result<void> ReloadIds();

private:
  Result<bool> SelectVersions(const IdDataRef& idData, const Id& version, ASSET_FIND_MODE findMode,
                              const AssetReceiver& receiver, FindState& state);

  Result<AssetDescription> UpdateInPlace(const Id& aid, const StoreRequest& request);

  // A loaded dependent asset and its references to one target.
  struct DependentEntry {
    std::weak_ptr<AssetInterface> asset;
    std::vector<AssetReferenceRef> references;
  };

  Id _repositoryId;
  Id _descriptionDatabaseId;
  mutable ARWLock _idsLock;
  std::unordered_map<Id, IdDataRef> _ids;
  // Target asset Id -> dependent asset Id -> entry. Memory only: it grows with loads.
  std::shared_mutex _dependentsLock;
  std::unordered_map<Id, std::unordered_map<Id, DependentEntry>> _dependents;
  // Assets stored or updated since the last GetPendingUpdates(true).
  SpinLock _pendingLock;
  std::vector<AssetDescription> _pendingAssets;
};

// Merges a description into the latest map of a search: a slot is replaced only by a strictly
// newer time from another repository, or a strictly greater key from the same repository.
void MergeIntoLatestMap(std::unordered_map<Id, AssetDescription>& latestMap, const Id& aid,
                        const AssetDescription& description);

} // namespace kelvo
