#pragma once
// The URL repository's implementation class and its private state; other layers use
// asset/storage/urlassetrepository.h and CreateUrlAssetRepository.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "asset/storage/urlassetrepository.h"
#include "kelvo/job_queue.h"
#include "kelvo/lock.h"
#include "kelvo/timer.h"

namespace kelvo {

class RepositoryTreeLock;
class RepositoryChangeToken;

class UrlAssetRepositoryImpl final : public UrlAssetRepository {
public:
  // Use CreateUrlAssetRepository.
  UrlAssetRepositoryImpl() = default;
  // Cancels the delayed compaction and the compaction job and waits for the job.
  ~UrlAssetRepositoryImpl() override;

  // ---- AssetRepositoryInterface ----
  bool IsWritable() const override { return _writable.load(std::memory_order_relaxed); }
  // The name set at run time, else the name of the repository's database asset, else its Id.
  Result<std::string> GetRepositoryName(const LanguageRef& language, bool addDetails) override;
  Result<void> SetRepositoryName(const std::string& name, const LanguageRef& language) override;
  // Also finishes the version directory of a store from this repository (see StoreImpl).
  void HandleAssetStored(const AssetDescription& asset) override;

  // ---- UrlAssetRepositoryInterface ----
  Url GetUrl(bool getOrigin) const override;

  // ---- BaseAssetRepositoryInterface ----
  Result<void> LoadExistingIdsImpl(const IdReceiver& receiver) override;
  Result<void> LoadVersionsImpl(const Id& aid, const Id& type, const Data& adata,
                                const VersionReceiver& receiver) override;
  Result<Data> CreateDataForIdImpl(const Id& aid, const Id& type) override;
  // Writes <asset directory>/<n>/: a hidden marker first, then the content and the hash file.
  // The marker goes when the store has written its metadata too (HandleAssetStored), so a scan
  // after a crash, or a reader in another process, passes over a half-written version. A new
  // version's directory is made exclusively: when <n> is taken, the next free number is used and
  // returned in StoredVersion::number. An overwrite (overwrittenHash given) reuses <n>.
  Result<StoredVersion> StoreImpl(const Asset& asset, bool deleteAsset, const Id& overwrittenHash,
                                  const AssetDescription& source, Data& adata, const VersionNumber& version,
                                  bool addEncryption) override;
  // Moves the version directory to a hidden name, then deletes it: readers see it whole or not at all.
  Result<void> EraseImpl(const AssetDescription& asset, const Data& vdata) override;
  // Removes the asset directory unless another process stored a version into it meanwhile
  // (then false: the Id stays).
  Result<bool> HandleAssetErasedCompletely(const Id& aid, const Data& adata) override;
  Result<std::optional<Data>> LoadMetaDataImpl(const Data& vdata, const InternedId& metaId,
                                               std::uint32_t kind) override;
  Result<Data> StoreMetaDataImpl(const Data& vdata, const InternedId& metaId, const Data& data,
                                 const IdAndVersion& asset, const Url& source, std::uint32_t kind,
                                 bool urlMode) override;
  bool NeedsLoadVersionsBeforeStore() const override { return true; }
  Result<VersionNumber> GetNextVersionImpl() override;
  Result<void> UpdateNextVersionImpl(const VersionNumber& currentVersion) override;

  // ---- CompactableAssetRepositoryInterface ----
  // Writes _index/<0>-<next version> with the listing and compacted metadata, index.dat and
  // modified.dat. A change to the repository while it runs makes it fail and leave no index. A
  // delayed or running background compaction is cancelled first (and waited for).
  // index.dat lists the tree without the files the index replaces, one line per entry, sorted:
  // "d" TAB path or "f" TAB path, paths relative to the root with "/". modified.dat is the JSON
  // object {"modified": "<UTC time, ISO 8601 with nanoseconds>"}.
  Result<void> Compact() override;
  // Cancels the pending and running compaction and removes _index.
  Result<void> DeleteIndexFiles() override;
  // delay 0: starts a compaction job on the default queue unless one runs. Otherwise (re)starts
  // a timer that starts the job after delay seconds (or the process-wide override, see below).
  Result<void> CompactInBackground(double delay) override;
  REPOSITORYINDEXSTATE GetIndexState() const override;
  // A change of its own content makes the index stale: it is removed, and rebuilt after a pause
  // when there was one.
  void OwnContentChanged() override;

  Result<void> Rescan() override;
  bool WasOpenedFromIndex() const override { return _openedFromIndex.load(); }

  // The steps of CreateUrlAssetRepository.
  Result<void> Init(const Id& id, const RepositoryArray& bases, const Url& url, const RepositoryOptions& options);

  // What an opening reads from _index (url_repository_index.h).
  struct LoadedIndex;

private:
  // A metadata file of a version: its metadata Id, kind, whether it is an attached file.
  struct MetaName {
    std::string metaId;
    std::uint32_t kind = 0;
    bool isUrl = false;
    std::string fileName;
  };
  // Reads _index; true when it is complete and covers every version, so no directory is read.
  Result<bool> LoadIndex(LoadedIndex& index);
  // Reads one part; any inconsistency is an error, and the caller then walks the tree instead.
  Result<void> LoadIndexPart(const Url& partDir, std::uint64_t lo, std::uint64_t hi, LoadedIndex& index,
                             std::uint64_t& highestVersion);
  Result<void> ScanTree(const IdReceiver& receiver, LoadedIndex& index);
  Result<void> ReportVersion(const Id& aid, const Id& type, const Url& versionDir, std::uint64_t number,
                             const Id& versionId, bool deleted, const Url& content,
                             const std::vector<MetaName>& metaNames, const UrlCompactedValues* compacted,
                             const VersionReceiver& receiver);
  // Adds the metadata files of the user and derived trees of a version.
  Result<void> AddSideTreeMetaData(const std::string& assetDirectory, std::uint64_t number,
                                   std::vector<MetaName>& metaNames);
  // The directory of a version in the tree of kind; none is set when that tree doesn't exist.
  Result<Url> SideTreeDirectory(const Url& versionDir, std::uint32_t kind, bool& none) const;
  // Writes the version file with the larger of version and what it holds (with above, one more
  // than what it holds); the number written.
  Result<std::uint64_t> WriteNextVersion(std::uint64_t version, bool above);
  // Makes <asset directory>/<number> exclusively (with the incomplete marker when marked), or the
  // next free number when it is taken; the number made.
  Result<std::uint64_t> CreateVersionDirectory(const UrlAssetData& data, std::uint64_t number, bool marked);
  // After a change of the tree: renews the change token for the indexes of other processes.
  void NoteTreeChanged();
  Result<void> CompactCore(std::uint64_t generation);
  // Removes _index under the index lock and clears _indexExists; true when there was one.
  Result<bool> RemoveIndexDirectory();
  void CancelCompaction(bool wait);
  Result<void> EnsureDatabaseAsset();

  // The asset directories present in a side tree (user or derived metadata), listed once per
  // opening, so that versions without side metadata cost no file system call.
  struct SideTreeNames {
    std::mutex lock;
    bool loaded = false;
    std::unordered_set<std::string> names;
  };
  bool MayHaveSideDirectory(SideTreeNames& names, const Url& tree, const std::string& assetDirectory);
  void NoteSideDirectory(const Url& versionDir, std::uint32_t kind);
  SideTreeNames _userNames;
  SideTreeNames _derivedNames;

  // The pending delayed compaction and the running compaction job; guarded by _compactLock.
  mutable std::mutex _compactLock;
  std::shared_ptr<Timer> _compactTimer;
  JobRef _compactJob;
  // Counts the changes that invalidated the index; a compaction installs its result only when
  // none happened since it began. Installing and deleting the index hold _indexLock.
  std::atomic<std::uint64_t> _changeGeneration{0};
  std::mutex _indexLock;

  Url _url;
  Url _versionUrl;
  Url _derivedUrl;
  Url _userUrl;
  std::mutex _nameLock;
  std::string _name; // guarded by _nameLock
  bool _scanNeeded = true;         // guarded by _lock
  std::uint64_t _nextVersion = 0; // guarded by _lock
  std::uint64_t _versionFileHolds = ~std::uint64_t(0); // what this object last wrote; guarded by _lock
  SpinLock _lock;
  std::atomic<bool> _writable{false};
  std::atomic<bool> _indexExists{false};
  std::atomic<bool> _openedFromIndex{false};
  bool _tempRepository = false;
  bool _custom = false;
  // Coordination with other processes on the same tree (url_repository_lock.h); made in Init.
  // The root opened once (O_PATH) for the checks that no version directory lies behind a link.
  struct RootDescriptor {
    int fd = -1;
    RootDescriptor() = default;
    RootDescriptor(const RootDescriptor&) = delete;
    RootDescriptor& operator=(const RootDescriptor&) = delete;
    ~RootDescriptor();
  } _root;
  // False when the version directory <asset directory>/<n> is reached through a symbolic link or
  // lies outside the root (with a warning); true for other schemes and when it is missing.
  bool IsVersionDirectoryInside(const std::string& assetDirectory, std::uint64_t number) const;
  std::shared_ptr<RepositoryTreeLock> _treeLock;
  std::shared_ptr<RepositoryChangeToken> _changeToken;
};

} // namespace kelvo
