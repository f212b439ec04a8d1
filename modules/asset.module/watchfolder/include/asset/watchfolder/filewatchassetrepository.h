#pragma once
// The watch folder repository: the whole listing in memory, a persistent copy in the store, and
// live rescans of the places that changed.
//
// Locks: the monitors lock, the pending lock and the assets lock are never held together; a
// node's own lock is taken inside the assets lock at most. No lock is held across a receiver.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "asset/core/baseassetrepository.h"
#include "asset/watchfolder/asset_watchfolder.h"
#include "kelvo/job_queue.h"
#include "kelvo/lock.h"

namespace kelvo {

class FileMonitor;
class Timer;
class WatchFolderStore;
struct WatchAssetNode;
struct WatchFileEntry;
struct WatchFolderIds;

// What one applied scan changed, by relative path.
struct WatchFolderChanges {
  std::vector<std::string> added, changed, removed;
};
using WatchFolderChangeReceiver = std::function<void(const WatchFolderChanges&)>;

class FileWatchAssetRepositoryImpl final : public RepositoryBaseClass,
                                           public BaseAssetRepositoryInterface,
                                           public UpdatableAssetRepositoryInterface {
public:
  // Opens the folder at url (a "file" URL of a directory) with its store and bases, and waits
  // until the listing is published: from the store when it holds one, else from the first
  // scan. Errors: url no directory, the store can't be opened. Any thread.
  static Result<std::shared_ptr<FileWatchAssetRepositoryImpl>> Create(const Url& url, const RepositoryArray& bases);
  ~FileWatchAssetRepositoryImpl() override;

  Id GetId() const override;
  AssetRepositoryRef FindRepository(const Id& repoId) const override;
  bool IsWritable() const override { return false; }
  Data GetData(const Id& key) const override;
  Result<bool> PrivateFindAssets(const TypeArray& types, const Id& aid, const Id& version, ASSET_FIND_MODE findMode,
                                 const AssetReceiver& receiver, FindState& state) override;
  Result<AssetDescription> GetDescription(const AssetIdentifier& asset) const override;
  COMPARERESULT CompareVersions(const std::shared_ptr<const AssetBase>&,
                                const std::shared_ptr<const AssetBase>&) const override {
    return INCOMPARABLE;
  }
  Result<AssetDescription> StoreAsset(const Id& aid, const Asset& asset, const AssetMetaDataRef& metaData) override;
  Result<AssetDescription> OverwriteAsset(const Id& aid, const Asset& asset,
                                          const AssetMetaDataRef& metaData) override;
  Result<AssetDescription> DeleteAsset(const Id& aid) override;
  // Deletes the asset's file (the only write into the folder, on the user's request); the
  // listing follows with the next rescan.
  Result<void> EraseAsset(const AssetDescription& asset) override;
  Result<AssetDescription> CopyAsset(const Id& aid, const AssetDescription& source, bool addEncryption,
                                     bool overwrite) override;
  // Writes one metadata value of a listed asset to the store. Errors: an id with characters
  // other than letters, digits, "-", "." and "_"; an asset not of this folder; store errors.
  Result<void> StoreMetaData(const AssetDescription& asset, const InternedId& metaId, const Data& data,
                             std::uint32_t kind) override;
  Result<void> StoreUrlMetaData(const AssetDescription& asset, const InternedId& metaId, const Url& source,
                                std::uint32_t kind) override;
  Id GetDescriptionDatabaseId() const override { return Id(); }
  Result<std::string> GetRepositoryName(const LanguageRef& language, bool addDetails) override;
  Result<void> SetRepositoryName(const std::string& name, const LanguageRef& language) override;
  void RequestUnloadRepository() override;
  // A watch folder holds no assets that refer to others: there is never anything to update.
  Result<std::vector<PendingUpdate>> GetPendingUpdates(bool) override { return std::vector<PendingUpdate>(); }
  Result<void> Update(const std::vector<PendingUpdate>&) override { return {}; }

  // The storage seam: only metadata reads are served; the rest is unsupported.
  Result<void> LoadExistingIdsImpl(const IdReceiver&) override;
  Result<void> LoadVersionsImpl(const Id&, const Id&, const Data&, const VersionReceiver&) override;
  Result<Data> CreateDataForIdImpl(const Id&, const Id&) override;
  Result<StoredVersion> StoreImpl(const Asset&, bool, const Id&, const AssetDescription&, Data&,
                                  const VersionNumber&, bool) override;
  Result<void> EraseImpl(const AssetDescription&, const Data&) override;
  Result<bool> HandleAssetErasedCompletely(const Id&, const Data&) override;
  Result<std::optional<Data>> LoadMetaDataImpl(const Data& vdata, const InternedId& metaId,
                                               std::uint32_t kind) override;
  Result<Data> StoreMetaDataImpl(const Data&, const InternedId&, const Data&, const IdAndVersion&, const Url&,
                                 std::uint32_t, bool) override;
  Result<VersionNumber> GetNextVersionImpl() override;
  Result<void> UpdateNextVersionImpl(const VersionNumber&) override;

  // ---- for hosts, tools and tests ----
  const Url& GetFolderUrl() const { return _folderUrl; }
  const Url& GetStoreUrl() const;
  // Walks the whole folder again now and waits for it.
  Result<void> Rescan();
  // Waits for the scan that is running, if any.
  Result<void> WaitForScan();
  // Scans that ran to their end, the first one included.
  std::uint64_t GetScanCount() const { return _scanCount.load(); }
  // The current pause before a rescan, in seconds.
  double GetUpdateDelay() const { return _updateDelay.load(); }
  bool IsWatchLimitReached() const { return _watchLimitReached.load(); }
  std::size_t GetNodeCount() const;
  // Told on a default queue thread after each scan that changed the listing.
  void SetChangeReceiver(WatchFolderChangeReceiver receiver);
  // The bytes held per listed entry (nodes, ids, map slots), for the benchmark.
  std::size_t EstimateMemoryPerNode() const;

  // Reads the bytes behind a "metasq" URL made by this repository, as a "memory" URL.
  Result<Url> ResolveMetasqUrl(const Url& url);

  FileWatchAssetRepositoryImpl();

private:
  using NodeMap = std::unordered_map<Id, std::shared_ptr<WatchAssetNode>>;
  struct ScanContext;

  Result<void> InitImpl(const Url& url, const RepositoryArray& bases);
  Result<void> StartScan();
  Result<void> ScanJob();
  Result<void> ScanFolder(ScanContext& context);
  Result<void> RescanPending(ScanContext& context, const std::set<std::string>& pending);
  void ApplyScanResult(NodeMap tree, bool early);
  Result<AssetDescription> GetNodeDescription(const std::shared_ptr<WatchAssetNode>& node);
  Result<AssetDescription> BuildDescription(const WatchAssetNode& node);
  std::shared_ptr<WatchAssetNode> FindNode(const Id& aid) const;
  std::shared_ptr<WatchAssetNode> NodeOfDescription(const AssetDescription& asset) const;
  Result<void> StoreValue(const AssetDescription& asset, const InternedId& metaId, std::uint32_t kind,
                          const Data& value, const Url& source);
  Result<void> WaitForListing();

  // Live updates (filewatchassetrepository_live.cpp).
  // Watches the root, once; true when this call made the monitor.
  Result<bool> RegisterRootMonitor();
  // Watches a directory that the first walk enters, before it is listed.
  void WatchEnteredDirectory(const std::string& relativeDir, int directoryFd);
  void HandleFileChange(const std::string& relativePath, bool fullRescan);
  void MarkChange(const std::string& relativePath);
  void ArmUpdateTimer();
  void StartPeriodicRescans();
  // Says once, in the log and on the repository's data, that the watch limit was reached.
  void NoteWatchLimit();
  void StopLiveUpdates();
  void CancelScanAndWait();

  std::weak_ptr<FileWatchAssetRepositoryImpl> _self;
  std::unique_ptr<WatchFolderIds> _ids;
  Url _folderUrl;
  std::string _folderPath;
  std::unique_ptr<WatchFolderStore> _store;
  Url _iconUrl, _pendingIconUrl;
  WatchFolderTimings _timings;

  std::mutex _monitorsLock;
  std::unique_ptr<FileMonitor> _monitor;
  std::atomic<bool> _recursiveMonitor{false};
  std::atomic<bool> _watchLimitReached{false};

  mutable ARWLock _assetsLock;
  NodeMap _assets;

  mutable std::mutex _pendingLock;
  std::set<std::string> _pendingChanges;
  bool _fullRescanPending = false;

  // The scan job and whether the listing was published; under _scanLock.
  mutable std::mutex _scanLock;
  std::condition_variable _scanChanged;
  JobRef _scanJob;
  bool _listingPublished = false;
  bool _unloaded = false;
  std::atomic<std::uint64_t> _scanCount{0};

  std::mutex _timerLock;
  std::shared_ptr<Timer> _updateTimer;
  std::shared_ptr<Timer> _periodicTimer;
  bool _unloadedTimers = false;
  std::atomic<double> _updateDelay{1.0};
  std::atomic<double> _lastChangeTime{0.0};

  std::mutex _receiverLock;
  WatchFolderChangeReceiver _changeReceiver;
};

} // namespace kelvo
