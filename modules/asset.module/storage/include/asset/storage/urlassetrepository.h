#pragma once
// The URL repository: assets kept in a plain directory tree reached through a Url, optionally
// indexed (see compactableassetrepository.h). The tree is the whole persistent state; a
// repository is opened by pointing at its root, by scanning the tree or from its index.

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "asset/core/baseassetrepository.h"
#include "asset/storage/compactableassetrepository.h"
#include "kelvo/job_queue.h"
#include "kelvo/lock.h"
#include "kelvo/timer.h"

namespace kelvo {

extern const Id g_databaseRepositoryType; // "net.kelvo.assets.repositorytype.database"

class UrlAssetRepositoryInterface {
public:
  virtual ~UrlAssetRepositoryInterface() = default;
  // The repository root; with getOrigin, the URL the root carries under net.kelvo.url.originurl
  // when there is one.
  virtual Url GetUrl(bool getOrigin) const = 0;
};

// A metadata value that an index part holds for a version, so no file is read for it.
using UrlCompactedValues = std::vector<std::pair<InternedId, Data>>;

// A version known from the index: its version Id, the names of its content (first) and of its
// metadata files, and its compacted metadata values.
struct UrlIndexedVersion {
  Id versionId;
  std::vector<std::string> names;
  UrlCompactedValues compacted;
};
using UrlVersionTable = std::map<std::uint64_t, UrlIndexedVersion>;

// The per-asset record (adata) of a URL repository: the asset directory in the root and the
// versions that an index holds (null when none does). A version's record (vdata) is a Url, the
// version directory in the root.
struct UrlAssetData {
  Url url;
  std::shared_ptr<const UrlVersionTable> versions;
  friend bool operator==(const UrlAssetData& a, const UrlAssetData& b) {
    return a.url == b.url && a.versions == b.versions;
  }
};
std::size_t HashValue(const UrlAssetData& data);
template <> struct DataTypeTraits<UrlAssetData> {
  static const Id& TypeId(); // net.kelvo.asset.urlassetdata
};

class UrlAssetRepositoryImpl final : public BaseAssetRepositoryImpl,
                                     public CompactableAssetRepositoryInterface,
                                     public UrlAssetRepositoryInterface {
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
  // after a crash passes over a half-written version.
  Result<StoredVersion> StoreImpl(const Asset& asset, bool deleteAsset, const Id& overwrittenHash,
                                  const AssetDescription& source, Data& adata, const VersionNumber& version,
                                  bool addEncryption) override;
  Result<void> EraseImpl(const AssetDescription& asset, const Data& vdata) override;
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
  // modified.dat. A change to the repository while it runs makes it fail and leave no index.
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

  // Reads the tree (or the index) again, so that assets stored by other repository objects or
  // processes on the same directory appear. Assets already known are read anew as well.
  Result<void> Rescan();
  // True when the last opening or rescan read the index and walked no directory.
  bool WasOpenedFromIndex() const { return _openedFromIndex.load(); }

  // Replaces the delay of every delayed compaction in the process (tests, tools); a negative
  // value restores the delays the callers ask for.
  static void SetCompactionDelayOverride(double seconds);
  // Tells which repositories the user mounted (custom databases): their name falls back to the
  // name of their directory or origin, and SetRepositoryName is refused. Thread safe.
  static void SetCustomRepositoryCheck(std::function<bool(const Id& repositoryId)> check);

  // The steps of CreateUrlAssetRepository.
  Result<void> Init(const Id& id, const RepositoryArray& bases, const Url& url, bool writable, bool derivedInPrefs,
                    bool tempRepository);

private:
  struct LoadedIndex;
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
  Result<void> WriteNextVersion(std::uint64_t version);
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
};

// Opens (and for a writable repository, creates) the URL repository at url. id may be empty for
// a writable repository: the id is then read from the tree or made new.
Result<std::shared_ptr<UrlAssetRepositoryImpl>> CreateUrlAssetRepository(const Id& id, const RepositoryArray& bases,
                                                                         const Url& url, bool writable,
                                                                         bool derivedInPrefs, bool tempRepository);

} // namespace kelvo
