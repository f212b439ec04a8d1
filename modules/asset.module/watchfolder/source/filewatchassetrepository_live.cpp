// Live updates of a watch folder: the file monitor marks each change at once, and a rescan of
// the changed places follows after a pause that grows with the rate of changes. When the
// kernel's watch limit leaves directories unwatched, full rescans run periodically instead.

#include <chrono>

#include "asset/core/asset_config.h"
#include "asset/watchfolder/filewatchassetrepository.h"
#include "kelvo/file_monitor.h"
#include "kelvo/log.h"
#include "kelvo/timer.h"
#include "watch_entry.h"

namespace kelvo {

namespace {

double NowSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Waits for job unless the calling thread is running it (a repository released by its own job).
void CancelAndWait(const JobRef& job) {
  if (!job) return;
  job.Cancel();
  if (!(GetCurrentJob() == job)) (void)job.Wait();
}

} // namespace

Result<bool> FileWatchAssetRepositoryImpl::RegisterRootMonitor() {
  std::lock_guard guard(_monitorsLock);
  if (_monitor) return false;
  std::weak_ptr<FileWatchAssetRepositoryImpl> weak = _self;
  const std::string root = _folderPath;
  FileMonitor::Options options;
  options.maxWatches = _timings.maxWatches;
  options.callerWalks = true;  // the scan that follows watches each directory it enters
  auto monitor = FileMonitor::WatchDirectory(
      Url::FromFile(_folderPath), true,
      [weak, root](const FileMonitor::Event& event) {
        auto self = weak.lock();
        if (!self) return;
        if (g_assetDiagnostic)
          DiagnosticOutput("  WatchFolder File change: @, @, @", event.watched, event.url, ToString(event.state));
        const auto relative = [&](const Url& url) -> std::optional<std::string> {
          const std::string& path = url.GetPath();
          if (path == root) return std::string();
          if (path.size() > root.size() + 1 && path.starts_with(root) && path[root.size()] == '/')
            return path.substr(root.size() + 1);
          return std::nullopt;
        };
        const bool rescan = event.state == FileMonitor::STATE::RESCAN;
        if (rescan && event.reason == FileMonitor::RESCANREASON::WATCHLIMIT) self->NoteWatchLimit();
        if (auto from = relative(event.from); from && event.state == FileMonitor::STATE::RENAMED)
          self->MarkChange(*from);
        if (auto path = relative(event.url)) self->HandleFileChange(*path, rescan);
      },
      options);
  if (monitor.HasError()) return monitor.GetError();
  _monitor = std::move(monitor).GetValue();
  _recursiveMonitor = true;
  if (_monitor->GetStatus().watchLimitReached) NoteWatchLimit();
  return true;
}

void FileWatchAssetRepositoryImpl::WatchEnteredDirectory(const std::string& relativeDir, int directoryFd) {
  bool limit = false;
  {
    std::lock_guard guard(_monitorsLock);
    limit = _monitor && !_monitor->WatchEntered(relativeDir, directoryFd) && _monitor->GetStatus().watchLimitReached;
  }
  if (limit) NoteWatchLimit();
}

void FileWatchAssetRepositoryImpl::NoteWatchLimit() {
  if (_watchLimitReached.exchange(true)) return;
  WarningOutput("Watch folder @: the kernel's watch limit (max_user_watches) is reached, so not every directory is "
                "watched; the folder is rescanned every @ s instead.",
                _folderPath, _timings.periodicRescan);
  (void)SetData(watchfolderkeys::watchlimitreached, Data(true));
  StartPeriodicRescans();
}

void FileWatchAssetRepositoryImpl::HandleFileChange(const std::string& relativePath, bool fullRescan) {
  MarkChange(relativePath);
  if (fullRescan) {
    std::lock_guard guard(_pendingLock);
    _fullRescanPending = true;
  }
  const double now = NowSeconds();
  const double last = _lastChangeTime.load();
  if (last != 0.0) {
    if (now - last < _timings.quietTime) {
      double delay = _updateDelay.load();
      while (!_updateDelay.compare_exchange_weak(delay, std::min(delay + _timings.step, _timings.limit))) {
      }
    } else {
      _updateDelay = _timings.startDelay;
      std::shared_ptr<Timer> pending;
      {
        std::lock_guard guard(_timerLock);
        pending = std::move(_updateTimer);
      }
      if (pending) pending->Cancel();
    }
  }
  if (g_assetDiagnostic) DiagnosticOutput("    WatchFolder File update: @, @", last != 0.0, _updateDelay.load());
  _lastChangeTime = now;
  ArmUpdateTimer();
}

void FileWatchAssetRepositoryImpl::MarkChange(const std::string& relativePath) {
  {
    std::lock_guard guard(_pendingLock);
    _pendingChanges.insert(relativePath);
  }
  const auto slash = relativePath.rfind('/');
  const Id aid = slash == std::string::npos ? _ids->AssetId("", relativePath)
                                            : _ids->AssetId(relativePath.substr(0, slash), relativePath.substr(slash + 1));
  // The changed asset and the folder's root show the "pending" icon until the rescan.
  for (const Id& id : {aid, _ids->rootCategoryId}) {
    ReadLocker guard(_assetsLock);
    auto it = _assets.find(id);
    if (it == _assets.end()) continue;
    std::lock_guard nodeGuard(it->second->lock);
    if (id == aid) it->second->pendingChange = true;
    if (it->second->description)
      if (auto meta = std::dynamic_pointer_cast<AssetMetaDataImpl>(it->second->description->GetMetaData()))
        (void)meta->Set(metaids::previewimageurl, Data(_pendingIconUrl), AssetMetaData::NONE, true);
  }
}

void FileWatchAssetRepositoryImpl::ArmUpdateTimer() {
  std::lock_guard guard(_timerLock);
  // A timer that hasn't fired yet covers this change too: its scan takes the pending set when
  // it runs. So the first change of a burst is rescanned after the short pause, and a change
  // that comes once the scan has started arms a timer with the pause grown meanwhile.
  if (_unloadedTimers || (_updateTimer && _updateTimer->IsPending())) return;
  std::weak_ptr<FileWatchAssetRepositoryImpl> weak = _self;
  _updateTimer = Timer::Create(_updateDelay.load(), [weak]() {
    auto self = weak.lock();
    if (!self) return;
    // Scans run on the default queue; the timer thread only hands over.
    (void)JobQueue::GetDefaultQueue()->Enqueue([weak]() -> Result<void> {
      auto repository = weak.lock();
      if (!repository) return {};
      return repository->StartScan();
    });
  });
}

void FileWatchAssetRepositoryImpl::StartPeriodicRescans() {
  std::weak_ptr<FileWatchAssetRepositoryImpl> weak = _self;
  auto timer = Timer::Create(_timings.periodicRescan, [weak]() {
    auto self = weak.lock();
    if (!self) return;
    (void)JobQueue::GetDefaultQueue()->Enqueue([weak]() -> Result<void> {
      auto repository = weak.lock();
      if (!repository) return {};
      {
        std::lock_guard guard(repository->_pendingLock);
        repository->_fullRescanPending = true;
      }
      Result<void> r = repository->StartScan();
      repository->StartPeriodicRescans();
      return r;
    });
  });
  std::lock_guard guard(_timerLock);
  if (!_unloadedTimers) _periodicTimer = std::move(timer);
}

void FileWatchAssetRepositoryImpl::StopLiveUpdates() {
  std::shared_ptr<Timer> update, periodic;
  {
    std::lock_guard guard(_timerLock);
    _unloadedTimers = true;
    update = std::move(_updateTimer);
    periodic = std::move(_periodicTimer);
  }
  if (update) update->Cancel();
  if (periodic) periodic->Cancel();
  std::unique_ptr<FileMonitor> monitor;
  {
    std::lock_guard guard(_monitorsLock);
    monitor = std::move(_monitor);
  }
  monitor.reset();
}

void FileWatchAssetRepositoryImpl::CancelScanAndWait() {
  JobRef job;
  {
    std::lock_guard guard(_scanLock);
    _unloaded = true;
    job = _scanJob;
  }
  _scanChanged.notify_all();
  CancelAndWait(job);
}

} // namespace kelvo
