// The watch folder repository: opening, the scan job, applying a scan to the listing, searches,
// descriptions and names. Metadata in the store: filewatchassetrepository_store.cpp.

#include "asset/watchfolder/filewatchassetrepository.h"

#include <algorithm>
#include <chrono>
#include <unordered_set>

#include "asset/core/asset_config.h"
#include "asset/databases/asset_databases.h"
#include "asset/storage/url_layout.h"
#include "kelvo/application.h"
#include "kelvo/file_monitor.h"
#include "kelvo/log.h"
#include "kelvo/memory_io.h"
#include "kelvo/timer.h"
#include "watch_entry.h"
#include "watchfolder_metadata.h"
#include "watchfolder_scanner.h"
#include "watchfolder_store.h"

namespace kelvo {

namespace {

using Clock = std::chrono::steady_clock;

const Id kVersionId{"1"};

std::string Elapsed(Clock::time_point start) {
  return FormatString("@ ms", std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// Where the store of a folder lives.
Url StoreFileOf(const Url& folder, const WatchFolderIds& ids) {
  if (g_enableAssetWatchFoldersLocalDatabase) return folder.Append(".kelvo.db/.kelvo.db");
  std::string name = Lower(ids.repositoryId.ToString() + "~" + folder.GetDirectory().GetName() + "~" + folder.GetName());
  name.erase(std::remove(name.begin(), name.end(), ':'), name.end());
  std::replace(name.begin(), name.end(), '/', '_');
  return Application::PrivateGetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR).Append("_assets/watchfolder/" + name + ".db");
}

WatchListingRow RowOf(const WatchFileEntry& entry) {
  std::string url = "/";
  url += entry.RelativePath();
  return WatchListingRow{static_cast<std::int64_t>(entry.urlHash), std::move(url), entry.size, entry.modified,
                         entry.IsDirectory()};
}

WatchFileEntry EntryOfRow(const WatchListingRow& row, const WatchFolderIds& ids) {
  WatchFileEntry entry;
  entry.urlHash = static_cast<std::uint64_t>(row.assetid);
  entry.assetType = row.isdir ? g_categoryAssetTypeId : g_fileAssetTypeId;
  entry.size = row.size;
  entry.modified = row.modified;
  const std::string path = row.url.size() > 1 ? row.url.substr(1) : std::string();
  const auto slash = path.rfind('/');
  entry.directory = slash == std::string::npos ? std::string() : path.substr(0, slash);
  entry.name = slash == std::string::npos ? path : path.substr(slash + 1);
  entry.category = entry.IsRoot() ? g_watchRootParentCategory : ids.CategoryOf(entry.directory);
  return entry;
}

WatchFileEntry RootEntry() {
  WatchFileEntry root;
  root.urlHash = RelativeUrlHash("");
  root.assetType = g_categoryAssetTypeId;
  root.category = g_watchRootParentCategory;
  return root;
}

std::string Parent(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

} // namespace

struct FileWatchAssetRepositoryImpl::ScanContext {
  NodeMap tree;
  void Add(const WatchFolderIds& ids, WatchFileEntry&& entry) {
    Id aid = ids.AssetId(entry.directory, entry.name);
    tree.insert_or_assign(std::move(aid), std::make_shared<WatchAssetNode>(std::move(entry)));
  }
};

namespace {

// The store's rows of a listing.
WatchListing ListingOf(const std::vector<WatchAssetNodeRef>& nodes) {
  WatchListing listing;
  listing.reserve(nodes.size());
  for (const WatchAssetNodeRef& node : nodes)
    listing.emplace(static_cast<std::int64_t>(node->entry.urlHash), RowOf(node->entry));
  return listing;
}

} // namespace

FileWatchAssetRepositoryImpl::FileWatchAssetRepositoryImpl() = default;

FileWatchAssetRepositoryImpl::~FileWatchAssetRepositoryImpl() {
  StopLiveUpdates();
  CancelScanAndWait();
  UnregisterLiveWatchFolder(_ids ? _ids->repositoryId : Id(), this);
}

Result<std::shared_ptr<FileWatchAssetRepositoryImpl>> FileWatchAssetRepositoryImpl::Create(
    const Url& url, const RepositoryArray& bases) {
  auto repository = std::make_shared<FileWatchAssetRepositoryImpl>();
  repository->_self = repository;
  KELVO_RETURN_ON_ERROR(repository->InitImpl(url, bases));
  return repository;
}

Result<void> FileWatchAssetRepositoryImpl::InitImpl(const Url& url, const RepositoryArray& bases) {
  const Url resources = Application::PrivateGetUrl(APPLICATION_URLTYPE::CURRENT_MODULE_RESOURCE_DIR);
  _iconUrl = resources.Append("icons/watchfolder.svg");
  _pendingIconUrl = resources.Append("icons/watchfolder2.svg");
  if (url.GetScheme() != "file" || url.IoDetect() != IODETECT::DIRECTORY)
    return IoError("@ is not a directory.", url);
  if (!g_enableAssetWatchFolderSQLiteMode)
    return UnsupportedOperationError("Watch folders without the SQLite store are not available: can't open @.", url);
  _folderUrl = url;
  _folderPath = url.GetPath();
  while (_folderPath.size() > 1 && _folderPath.back() == '/') _folderPath.pop_back();
  _ids = std::make_unique<WatchFolderIds>(WatchFolderIds::ForFolder(Url::FromFile(_folderPath).ToString()));
  _timings = GetWatchFolderTimings();
  _updateDelay = _timings.startDelay;
  KELVO_ASSIGN_OR_RETURN(_store, WatchFolderStore::Open(StoreFileOf(Url::FromFile(_folderPath), *_ids)));
  KELVO_RETURN_ON_ERROR(InitBases(bases));
  {
    NodeMap tree;
    tree[_ids->rootCategoryId] = std::make_shared<WatchAssetNode>(RootEntry());
    WriteLocker guard(_assetsLock);
    _assets = std::move(tree);
  }
  RegisterLiveWatchFolder(_ids->repositoryId, _self);
  KELVO_RETURN_ON_ERROR(StartScan());
  return WaitForListing();
}

const Url& FileWatchAssetRepositoryImpl::GetStoreUrl() const { return _store->GetUrl(); }

Id FileWatchAssetRepositoryImpl::GetId() const { return _ids->repositoryId; }

AssetRepositoryRef FileWatchAssetRepositoryImpl::FindRepository(const Id& repoId) const {
  if (repoId == _ids->repositoryId) return std::const_pointer_cast<AssetRepositoryInterface>(shared_from_this());
  RepositoryArrayRef bases = GetBases();
  for (const AssetRepositoryRef& base : *bases)
    if (AssetRepositoryRef found = base->FindRepository(repoId)) return found;
  return nullptr;
}

// ---- scanning ----------------------------------------------------------------------------------

Result<void> FileWatchAssetRepositoryImpl::StartScan() {
  JobRef running;
  {
    std::lock_guard guard(_scanLock);
    if (_unloaded) return {};
    running = _scanJob;
  }
  // One scan at a time: a running one is cancelled and waited for first.
  if (running) {
    running.Cancel();
    (void)running.Wait();
  }
  std::weak_ptr<FileWatchAssetRepositoryImpl> weak = _self;
  KELVO_ASSIGN_OR_RETURN(JobRef job, JobQueue::GetDefaultQueue()->Enqueue([weak]() -> Result<void> {
    auto self = weak.lock();
    if (!self) return {};
    Result<void> r = self->ScanJob();
    if (r.HasError() && !r.GetError().Is(errors::OperationCancelledError))
      WarningOutput("Error scanning watchfolder: @", r.GetError());
    {
      std::lock_guard guard(self->_scanLock);
      self->_listingPublished = true;
    }
    self->_scanChanged.notify_all();
    return r;
  }));
  std::lock_guard guard(_scanLock);
  _scanJob = job;
  return {};
}

Result<void> FileWatchAssetRepositoryImpl::WaitForListing() {
  std::unique_lock guard(_scanLock);
  _scanChanged.wait(guard, [&] { return _listingPublished || _unloaded; });
  return {};
}

Result<void> FileWatchAssetRepositoryImpl::WaitForScan() {
  JobRef job;
  {
    std::lock_guard guard(_scanLock);
    job = _scanJob;
  }
  if (!job) return {};
  Result<void> r = job.Wait();
  if (r.HasError() && r.GetError().Is(errors::OperationCancelledError)) return {};
  return r;
}

Result<void> FileWatchAssetRepositoryImpl::Rescan() {
  {
    std::lock_guard guard(_pendingLock);
    _fullRescanPending = true;
  }
  KELVO_RETURN_ON_ERROR(StartScan());
  return WaitForScan();
}

Result<void> FileWatchAssetRepositoryImpl::ScanJob() {
  const Clock::time_point start = Clock::now();
  if (g_assetDiagnostic) DiagnosticOutput("Watchfolder start scanning: '@'", _folderUrl);
  KELVO_ASSIGN_OR_RETURN(WatchListing oldListing, _store->ReadListing(true));
  if (g_assetDiagnostic)
    DiagnosticOutput("  WatchFolder getting fileinfo: @ entries, @", oldListing.size(), Elapsed(start));
  if (!oldListing.empty() && GetNodeCount() < 2) {
    // Early publication: a known folder shows its assets before the disk has been walked.
    NodeMap tree;
    tree.reserve(oldListing.size());
    for (const auto& [assetid, row] : oldListing) {
      WatchFileEntry entry = EntryOfRow(row, *_ids);
      Id aid = _ids->AssetId(entry.directory, entry.name);
      tree[aid] = std::make_shared<WatchAssetNode>(std::move(entry));
    }
    ApplyScanResult(std::move(tree), true);
    if (g_assetDiagnostic) DiagnosticOutput("  WatchFolder listing of the store shown: @", Elapsed(start));
    {
      std::lock_guard guard(_scanLock);
      _listingPublished = true;
    }
    _scanChanged.notify_all();
  }

  // Changes that arrive from here on stay for the next scan.
  std::set<std::string> pending;
  bool full = false;
  {
    std::lock_guard guard(_pendingLock);
    pending.swap(_pendingChanges);
    full = _fullRescanPending;
    _fullRescanPending = false;
  }
  const auto restorePending = [&] {
    std::lock_guard guard(_pendingLock);
    _pendingChanges.insert(pending.begin(), pending.end());
    _fullRescanPending = _fullRescanPending || full;
  };

  const Clock::time_point walkStart = Clock::now();
  ScanContext context;
  context.tree.reserve(oldListing.size());
  Result<void> walked = (pending.empty() || full || GetNodeCount() < 2) ? ScanFolder(context)
                                                                          : RescanPending(context, pending);
  if (walked.HasError()) {
    restorePending();
    return walked.GetError();
  }
  if (g_assetDiagnostic) DiagnosticOutput("  WatchFolder ScanFolder time: @", Elapsed(walkStart));
  // The listing is shown as soon as the walk is done; the store follows. Should writing it fail,
  // the marked changes stay for the next scan, which writes the differences to what the store holds.
  std::vector<WatchAssetNodeRef> nodes;
  nodes.reserve(context.tree.size());
  for (const auto& [aid, node] : context.tree) nodes.push_back(node);
  ApplyScanResult(std::move(context.tree), false);
  {
    std::lock_guard guard(_scanLock);
    _listingPublished = true;
  }
  _scanChanged.notify_all();
  if (Result<WatchListingWriteCounts> written = _store->WriteListing(oldListing, ListingOf(nodes));
      written.HasError()) {
    restorePending();
    return written.GetError();
  }
  ++_scanCount;
  if (g_assetDiagnostic) DiagnosticOutput("Watchfolder total reload time: @ '@'", Elapsed(start), _folderUrl);
  return {};
}

Result<void> FileWatchAssetRepositoryImpl::ScanFolder(ScanContext& context) {
  const Clock::time_point start = Clock::now();
  // A new monitor watches the root only: this walk adds the directory watches as it goes, so
  // the tree is walked once. Directories that appear later are watched by the monitor itself.
  KELVO_ASSIGN_OR_RETURN(const bool newMonitor, RegisterRootMonitor());
  if (g_assetDiagnostic) DiagnosticOutput("  WatchFolder root watch set: @", Elapsed(start));
  context.Add(*_ids, RootEntry());
  DirectoryEntered entered;
  if (newMonitor)
    entered = [this](const std::string& dir, int fd) {
      if (!dir.empty()) WatchEnteredDirectory(dir, fd);
    };
  return WalkFolder(
      _folderPath, "", *_ids,
      [&](WatchFileEntry&& entry) -> Result<void> {
        context.Add(*_ids, std::move(entry));
        return {};
      },
      true, entered);
}

Result<void> FileWatchAssetRepositoryImpl::RescanPending(ScanContext& context, const std::set<std::string>& pending) {
  {
    ReadLocker guard(_assetsLock);
    context.tree = _assets;
  }
  // The children of each directory of the listing, by relative path.
  std::unordered_map<std::string, std::vector<Id>> children;
  for (const auto& [aid, node] : context.tree)
    if (!node->entry.IsRoot()) children[node->entry.directory].push_back(aid);
  const auto removeSubtree = [&](const Id& aid) {
    std::vector<Id> stack{aid};
    while (!stack.empty()) {
      const Id id = std::move(stack.back());
      stack.pop_back();
      auto it = context.tree.find(id);
      if (it == context.tree.end()) continue;
      if (it->second->entry.IsDirectory()) {
        auto c = children.find(it->second->entry.RelativePath());
        if (c != children.end()) stack.insert(stack.end(), c->second.begin(), c->second.end());
      }
      if (g_assetDiagnostic) DiagnosticOutput("  WatchFolder entry deleted: @", it->second->entry.RelativePath());
      context.tree.erase(it);
    }
  };

  std::set<std::string> directories;
  for (const std::string& path : pending) directories.insert(Parent(path));
  std::set<std::string> done;
  while (!directories.empty()) {
    if (IsCurrentJobCancelled()) return OperationCancelledError();
    const std::string dir = *directories.rbegin();
    directories.erase(std::prev(directories.end()));
    if (!done.insert(dir).second) continue;
    const Id dirId = _ids->AssetId(Parent(dir), dir.substr(dir.rfind('/') == std::string::npos ? 0 : dir.rfind('/') + 1));
    if (!dir.empty() && !context.tree.count(dirId)) {
      // Not listed (new or below a hidden one): its parent's rescan finds it.
      directories.insert(Parent(dir));
      continue;
    }
    Result<DirectoryListing> listing = ListDirectory(_folderPath, dir, *_ids);
    if (listing.HasError()) {
      if (dir.empty()) return listing.GetError();
      // Gone or unreadable: the parent's rescan settles it.
      directories.insert(Parent(dir));
      continue;
    }
    std::unordered_set<Id> seen;
    for (const WatchFileEntry& entry : listing->entries) {
      const Id aid = _ids->AssetId(entry.directory, entry.name);
      seen.insert(aid);
      auto it = context.tree.find(aid);
      if (it == context.tree.end()) {
        if (g_assetDiagnostic) DiagnosticOutput("  WatchFolder new entry: @", entry.RelativePath());
        context.tree[aid] = std::make_shared<WatchAssetNode>(entry);
        if (entry.IsDirectory()) {
          KELVO_RETURN_ON_ERROR(WalkFolder(
              _folderPath, entry.RelativePath(), *_ids,
              [&](WatchFileEntry&& e) -> Result<void> {
                context.Add(*_ids, std::move(e));
                return {};
              },
              true));
        }
      } else if (!(it->second->entry == entry)) {
        if (g_assetDiagnostic) DiagnosticOutput("  WatchFolder entry modified: @", entry.RelativePath());
        it->second = std::make_shared<WatchAssetNode>(entry);
      }
    }
    if (auto c = children.find(dir); c != children.end())
      for (const Id& child : c->second)
        if (!seen.count(child)) removeSubtree(child);
  }
  return {};
}

void FileWatchAssetRepositoryImpl::ApplyScanResult(NodeMap tree, bool early) {
  WatchFolderChangeReceiver receiver;
  if (!early) {
    std::lock_guard guard(_receiverLock);
    receiver = _changeReceiver;
  }
  WatchFolderChanges changes;
  bool wholeNew = false;
  {
    ReadLocker guard(_assetsLock);
    wholeNew = _assets.size() < 2;
    for (auto& [aid, current] : _assets) {
      auto it = tree.find(aid);
      if (it == tree.end()) {
        changes.removed.push_back(current->entry.RelativePath());
        continue;
      }
      if (it->second == current || it->second->entry == current->entry) {
        // Unchanged assets keep their loaded metadata, unless a change was marked on them: then
        // the description is built anew, without the marked preview.
        std::lock_guard nodeGuard(current->lock);
        if (!current->pendingChange && !current->entry.IsRoot()) it->second = current;
        else if (it->second == current) it->second = std::make_shared<WatchAssetNode>(current->entry);
      } else {
        changes.changed.push_back(current->entry.RelativePath());
      }
    }
    // A whole new listing is told as such; its paths are listed only for those who read them.
    if (!wholeNew || receiver || g_assetDiagnostic)
      for (const auto& [aid, node] : tree)
        if (wholeNew || !_assets.count(aid))
          if (!node->entry.IsRoot()) changes.added.push_back(node->entry.RelativePath());
  }
  if (!wholeNew && changes.added.empty() && changes.changed.empty() && changes.removed.empty()) {
    // Only fresh nodes for marked ones: swap them in quietly.
    WriteLocker guard(_assetsLock);
    _assets = std::move(tree);
    return;
  }
  if (g_assetDiagnostic) {
    for (const auto& p : changes.changed) DiagnosticOutput("  WatchFolder Asset Changed: @", p);
    for (const auto& p : changes.added) DiagnosticOutput("  WatchFolder Asset New    : @", p);
    for (const auto& p : changes.removed) DiagnosticOutput("  WatchFolder Asset Removed: @", p);
  }
  {
    WriteLocker guard(_assetsLock);
    _assets = std::move(tree);
  }
  if (!changes.changed.empty()) HandleAssetUpdated(nullptr);
  if (wholeNew || !changes.added.empty()) HandleAssetStored(nullptr);
  if (!changes.removed.empty()) HandleAssetErased(nullptr);
  if (receiver) receiver(changes);
}

std::size_t FileWatchAssetRepositoryImpl::GetNodeCount() const {
  ReadLocker guard(_assetsLock);
  return _assets.size();
}

void FileWatchAssetRepositoryImpl::SetChangeReceiver(WatchFolderChangeReceiver receiver) {
  std::lock_guard guard(_receiverLock);
  _changeReceiver = std::move(receiver);
}

std::size_t FileWatchAssetRepositoryImpl::EstimateMemoryPerNode() const {
  ReadLocker guard(_assetsLock);
  if (_assets.empty()) return 0;
  std::size_t bytes = _assets.bucket_count() * sizeof(void*);
  for (const auto& [aid, node] : _assets) {
    // The map node (key, value, next pointer, cached hash), the shared node with its control
    // block, the strings' heap parts and the id's shared text.
    bytes += sizeof(Id) + sizeof(std::shared_ptr<WatchAssetNode>) + 2 * sizeof(void*);
    bytes += sizeof(WatchAssetNode) + 16;
    if (node->entry.directory.capacity() > 15) bytes += node->entry.directory.capacity() + 1;
    if (node->entry.name.capacity() > 15) bytes += node->entry.name.capacity() + 1;
    bytes += aid.View().size() + 32;
  }
  return bytes / _assets.size();
}

void FileWatchAssetRepositoryImpl::RequestUnloadRepository() {
  StopLiveUpdates();
  CancelScanAndWait();
}

// ---- searching ---------------------------------------------------------------------------------

Result<bool> FileWatchAssetRepositoryImpl::PrivateFindAssets(const TypeArray& types, const Id& aid,
                                                             const Id& version, ASSET_FIND_MODE findMode,
                                                             const AssetReceiver& receiver, FindState& state) {
  bool searchOwn = !GetData(repositorykeys::skipinsearch).Get<bool>().value_or(false);
  if (searchOwn && (findMode & PRIVATE_QUERY_REPOSITORY_VISIBILITY) && state.visibility) {
    KELVO_ASSIGN_OR_RETURN(searchOwn, state.visibility(std::const_pointer_cast<AssetRepositoryInterface>(shared_from_this())));
  }
  const bool versionOk = version.IsEmpty() ? (findMode & (LATEST | ALL)) != 0 : version == kVersionId;
  if (searchOwn && versionOk) {
    KELVO_RETURN_ON_ERROR(WaitForListing());
    std::vector<std::shared_ptr<WatchAssetNode>> nodes;
    const bool anyType = types.empty() || types.front().IsEmpty();
    {
      ReadLocker guard(_assetsLock);
      if (aid.IsEmpty()) {
        nodes.reserve(_assets.size());
        for (const auto& [id, node] : _assets) nodes.push_back(node);
      } else if (aid.View().starts_with("watch.") || std::string_view("watch.").starts_with(aid.View())) {
        if (findMode & PREFIX) {
          for (const auto& [id, node] : _assets)
            if (id.View().starts_with(aid.View())) nodes.push_back(node);
        } else if (auto it = _assets.find(aid); it != _assets.end()) {
          nodes.push_back(it->second);
        }
      }
    }
    const bool merge = (findMode & (LATEST | WITHOUT_BASES)) == LATEST;
    for (const auto& node : nodes) {
      if ((findMode & CHECK_CANCELLATION) && IsCurrentJobCancelled()) return OperationCancelledError();
      if (!anyType && std::find(types.begin(), types.end(), node->entry.assetType) == types.end()) continue;
      KELVO_ASSIGN_OR_RETURN(AssetDescription description, GetNodeDescription(node));
      if (merge) {
        MergeIntoLatestMap(state.latestMap, description->GetIdAndVersion().first, description);
      } else {
        KELVO_ASSIGN_OR_RETURN(bool goOn, receiver(description));
        if (!goOn) return false;
      }
    }
  }
  return PrivateFindInBases(types, aid, version, findMode, receiver, state);
}

std::shared_ptr<WatchAssetNode> FileWatchAssetRepositoryImpl::FindNode(const Id& aid) const {
  ReadLocker guard(_assetsLock);
  auto it = _assets.find(aid);
  return it == _assets.end() ? nullptr : it->second;
}

std::shared_ptr<WatchAssetNode> FileWatchAssetRepositoryImpl::NodeOfDescription(const AssetDescription& asset) const {
  if (!asset || asset->GetRepositoryId() != _ids->repositoryId) return nullptr;
  return FindNode(asset->GetIdAndVersion().first);
}

Result<AssetDescription> FileWatchAssetRepositoryImpl::GetNodeDescription(const std::shared_ptr<WatchAssetNode>& node) {
  std::lock_guard guard(node->lock);
  if (!node->description) {
    KELVO_ASSIGN_OR_RETURN(node->description, BuildDescription(*node));
  }
  return node->description;
}

Result<AssetDescription> FileWatchAssetRepositoryImpl::BuildDescription(const WatchAssetNode& node) {
  const WatchFileEntry& e = node.entry;
  const Id aid = _ids->AssetId(e.directory, e.name);
  AssetRepositoryRef self = std::const_pointer_cast<AssetRepositoryInterface>(shared_from_this());
  std::string name = e.name;
  if (e.IsRoot()) {
    KELVO_ASSIGN_OR_RETURN(name, GetRepositoryName(Language::GetDefaultLanguage(), false));
  }
  DataDictionary text;
  text.SetData(stringkeys::translatedString, Data(name));
  DataDictionary strings;
  strings.SetData(stringkeys::name, Data(std::move(text)));
  MetaEntryMap entries;
  const InternedId languageKey = AssetInterface::GetLanguageMetaDataId(Id(Language::GetDefaultLanguage()->GetIdentifier()));
  entries[languageKey] = MetaEntry{Data(std::move(strings)), AssetMetaData::PERSISTENT, true, 0};
  constexpr std::uint32_t kBuiltin = AssetMetaData::READ_ONLY | AssetMetaData::PERSISTENT | AssetMetaData::VERSION;
  entries[metaids::size] = MetaEntry{Data(e.size), kBuiltin, true, 0};
  entries[metaids::timestamp] = MetaEntry{Data(e.modified), kBuiltin, true, 0};
  entries[metaids::category] = MetaEntry{Data(e.category), AssetMetaData::PERSISTENT, true, 0};
  KELVO_RETURN_ON_ERROR(MergeStoredKeys(*_store, e.urlHash, _ids->repositoryId, entries));
  if (e.IsDirectory() && !entries.count(metaids::previewimageurl))
    entries[metaids::previewimageurl] = MetaEntry{Data(_iconUrl), AssetMetaData::NONE, true, 0};
  const VersionKey key{e.modified.GetValue(), 1, static_cast<std::uint64_t>(FoldHash(HashText(_ids->repositoryId.ToString())))};
  const IdAndVersion idv{aid, kVersionId};
  auto meta = std::make_shared<AssetMetaDataImpl>(self, e.assetType, idv, key, Data(std::uint64_t(e.urlHash)),
                                                  std::move(entries));
  const Url url = e.IsRoot() ? _folderUrl : Url::FromFile(_folderPath + "/" + e.RelativePath());
  return AssetDescription(std::make_shared<AssetDescriptionImpl>(idv, e.assetType, key, meta, false, self, url));
}

Data FileWatchAssetRepositoryImpl::GetData(const Id& key) const {
  if (key == watchfolderkeys::assetcount || key == watchfolderkeys::categorycount || key == watchfolderkeys::assetsize) {
    std::uint64_t assets = 0, categories = 0, size = 0;
    ReadLocker guard(_assetsLock);
    for (const auto& [aid, node] : _assets) {
      if (node->entry.IsDirectory()) {
        ++categories;
      } else {
        ++assets;
        size += node->entry.size;
      }
    }
    return Data(key == watchfolderkeys::assetcount ? assets : key == watchfolderkeys::categorycount ? categories : size);
  }
  return RepositoryBaseClass::GetData(key);
}

Result<AssetDescription> FileWatchAssetRepositoryImpl::GetDescription(const AssetIdentifier&) const {
  return UnsupportedOperationError("GetDescription isn't supported by watch folder @.", _ids->repositoryId);
}

Result<AssetDescription> FileWatchAssetRepositoryImpl::StoreAsset(const Id&, const Asset&, const AssetMetaDataRef&) {
  return UnsupportedOperationError("Watch folder @ is read-only: can't store assets.", _ids->repositoryId);
}

Result<AssetDescription> FileWatchAssetRepositoryImpl::OverwriteAsset(const Id&, const Asset&,
                                                                      const AssetMetaDataRef&) {
  return UnsupportedOperationError("Watch folder @ is read-only: can't overwrite assets.", _ids->repositoryId);
}

Result<AssetDescription> FileWatchAssetRepositoryImpl::DeleteAsset(const Id&) {
  return UnsupportedOperationError("Watch folder @ is read-only: can't delete assets.", _ids->repositoryId);
}

Result<AssetDescription> FileWatchAssetRepositoryImpl::CopyAsset(const Id&, const AssetDescription&, bool, bool) {
  return UnsupportedOperationError("Watch folder @ is read-only: can't copy assets.", _ids->repositoryId);
}

Result<void> FileWatchAssetRepositoryImpl::EraseAsset(const AssetDescription& asset) {
  std::shared_ptr<WatchAssetNode> node = NodeOfDescription(asset);
  if (!node || node->entry.IsDirectory())
    return IllegalArgumentError("@ is no file of watch folder @.", asset ? asset->GetIdAndVersion().first : Id(),
                                _ids->repositoryId);
  KELVO_ASSIGN_OR_RETURN(Url url, asset->GetUrl());
  return url.IoDelete(false);
}

// ---- names -------------------------------------------------------------------------------------

Result<std::string> FileWatchAssetRepositoryImpl::GetRepositoryName(const LanguageRef&, bool resolve) {
  if (auto own = RepositoryBaseClass::GetData(watchfolderkeys::watchfolderstring).Get<std::string>(); own && !own->empty())
    return *own;
  if (auto text = _folderUrl.GetData(watchfolderkeys::watchfolderstring).Get<std::string>(); text && !text->empty())
    return *text;
  if (auto origin = _folderUrl.GetData(assetdatabasekeys::originurl).Get<Url>()) {
    std::string name = origin->GetName();
    if (resolve && (origin->GetScheme() == "http" || origin->GetScheme() == "https"))
      name += FormatString(" (@)", origin->GetPath().substr(0, origin->GetPath().find('/')));
    return name;
  }
  std::string name = Url::FromFile(_folderPath).GetName();
  if (!name.empty()) name[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(name[0])));
  return name;
}

Result<void> FileWatchAssetRepositoryImpl::SetRepositoryName(const std::string& name, const LanguageRef&) {
  KELVO_ASSIGN_OR_RETURN(AssetRepositoryRef listed, AssetDataBases::FindRepository(_folderUrl));
  if (listed) return IllegalStateError("SetRepositoryName is blocked for custom databases.");
  return SetData(watchfolderkeys::watchfolderstring, Data(name));
}

} // namespace kelvo
