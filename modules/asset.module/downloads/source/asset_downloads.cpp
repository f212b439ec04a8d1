// The download manager: one process-wide set of assets in progress, their jobs on a pool that
// lives while there is work, one shared progress entry, and the errors of failed attempts.

#include "asset/downloads/asset_downloads.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "asset/core/asset_config.h"
#include "asset/core/content_digest.h"
#include "asset/standard/assets.h"
#include "asset/types/category_asset.h"
#include "asset/types/command_asset.h"
#include "asset/types/keyword_asset.h"
#include "kelvo/job_queue.h"
#include "kelvo/log.h"
#include "kelvo/ramdisk.h"

namespace kelvo {

namespace {

constexpr int kMaxThreads = 10;
constexpr const char* kProgressName = "Downloading Assets";

using Clock = std::chrono::steady_clock;
using AssetKey = const AssetDescriptionInterface*;

// One asset in progress. download is taken out when its job is created.
struct JobEntry {
  std::weak_ptr<const AssetDescriptionInterface> asset;
  std::function<Result<void>()> download;
  std::size_t progressJob = 0;
  std::uint64_t size = 0;
  std::uint64_t done = 0;
};

struct FailedAttempt {
  std::weak_ptr<const AssetDescriptionInterface> asset;
  Error error;
};

struct Manager {
  // Guards every field. Never held during a transfer, a size query or a wait.
  std::mutex lock;
  std::condition_variable idle; // notified when jobs runs empty
  std::unordered_map<AssetKey, JobEntry> jobs;
  std::unordered_map<AssetKey, FailedAttempt> errors;
  std::shared_ptr<JobQueue> queue; // null while nothing runs
  BackgroundEntryRef progress;     // null while nothing is shown
  Clock::time_point started;
  std::uint64_t totalBytes = 0;   // of the assets of the current progress entry
  std::uint64_t settledBytes = 0; // of its assets that have ended
  std::uint64_t runningBytes = 0; // done of the assets in jobs, their JobEntry::done summed
  Clock::time_point lastDetails;  // when the details text was last set
};

// The details text is rebuilt at most this often: transfers report many times a second.
constexpr std::chrono::milliseconds kDetailsInterval{100};

Manager& GetManager() {
  static Manager* manager = new Manager(); // never destroyed: jobs may end during static destruction
  return *manager;
}

bool IsRamDiskUrl(const Url& url) { return url.GetScheme() == kRamDiskScheme; }

bool NeedsNoDownload(const Id& type) {
  // Read with the database's index: nothing to download.
  return type == CategoryAssetInterface::TypeId() || type == KeywordAssetInterface::TypeId() ||
         type == CommandAssetInterface::TypeId();
}

std::string SizeText(double bytes) {
  static const char* const units[] = {"B", "KB", "MB", "GB", "TB"};
  std::size_t unit = 0;
  while (bytes >= 1024.0 && unit + 1 < std::size(units)) bytes /= 1024.0, ++unit;
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, units[unit]);
  return text;
}

// "<percent>% (<done> of <total>, <rate>/s)". REQUIRES: m.lock held.
std::string ProgressText(const Manager& m) {
  const std::uint64_t done = m.settledBytes + m.runningBytes;
  const double seconds = std::chrono::duration<double>(Clock::now() - m.started).count();
  const double rate = seconds > 0.0 ? static_cast<double>(done) / seconds : 0.0;
  const double percent = m.totalBytes ? 100.0 * static_cast<double>(done) / static_cast<double>(m.totalBytes) : 0.0;
  char head[16];
  std::snprintf(head, sizeof head, "%.0f%%", std::min(percent, 100.0));
  return FormatString("@ (@ of @, @/s)", head, SizeText(static_cast<double>(done)),
                      SizeText(static_cast<double>(m.totalBytes)), SizeText(rate));
}

// Sets up the shared progress entry when there is none. REQUIRES: m.lock held.
BackgroundEntryRef EnsureProgressLocked(Manager& m) {
  if (!m.progress) {
    m.progress = BackgroundProgress::AddActiveEntry(kProgressName);
    m.progress->SetCancelDelegate([] { AssetDownloads::DownloadManagerCancelAll(); });
    m.started = Clock::now();
    m.totalBytes = m.settledBytes = m.runningBytes = 0;
    m.lastDetails = Clock::time_point();
  }
  return m.progress;
}

// Ends the progress entry and releases the pool once no job is left. Returns the pool, to be
// shut down by the caller with no lock held. REQUIRES: m.lock held.
std::shared_ptr<JobQueue> SettleIfIdleLocked(Manager& m, bool cancelled) {
  if (!m.jobs.empty()) return nullptr;
  if (BackgroundEntryRef progress = std::exchange(m.progress, nullptr)) {
    if (cancelled)
      progress->FinishCanceled();
    else
      progress->Finish();
  }
  m.idle.notify_all();
  return std::exchange(m.queue, nullptr);
}

// The directory of an asset's version on its RAM disk.
Url VersionDirectory(const Url& url) { return url.GetDirectory(); }

// Checks the fetched content against the version Id; a mismatch drops what was fetched.
Result<void> VerifyDownloadedVersion(const AssetDescription& asset, const Url& url) {
  if (asset->IsDeleted()) return {};
  const std::string expected = asset->GetIdAndVersion().second.ToString();
  KELVO_ASSIGN_OR_RETURN(const Digest digest, HashContent(url, Url()));
  const std::string actual = DigestToHex(digest);
  if (actual == expected) return {};
  if (Result<void> dropped = RamDiskService::DropFromCache(VersionDirectory(url)); dropped.HasError())
    WarningOutput("Can't remove the damaged download @: @", url, dropped.GetError());
  return FileFormatError("The content of @ does not match its version Id @ (its SHA-256 is @); it was not kept.", url,
                         expected, actual);
}

// The delegate of one asset's job: fetches its version directory and checks it.
Result<void> Download(const AssetDescription& asset, const std::string& name, const Url& url) {
  Manager& m = GetManager();
  const AssetKey key = asset.get();
  {
    std::lock_guard guard(m.lock);
    m.errors.erase(key);
  }
  if (!IsRamDiskUrl(url) || NeedsNoDownload(asset->GetTypeId())) return {};
  BackgroundEntryRef progress;
  std::size_t progressJob = 0;
  {
    std::lock_guard guard(m.lock);
    progress = EnsureProgressLocked(m);
    if (auto it = m.jobs.find(key); it != m.jobs.end()) progressJob = it->second.progressJob;
  }
  Result<void> result = RamDiskService::LoadIntoCache(
      VersionDirectory(url), [&](std::uint64_t done, std::uint64_t total) -> Result<void> {
        const double fraction = total ? std::clamp(static_cast<double>(done) / static_cast<double>(total), 0.0, 1.0) : 0.0;
        std::string details;
        {
          std::lock_guard guard(m.lock);
          if (auto it = m.jobs.find(key); it != m.jobs.end()) {
            // The size known in advance may be missing or wrong: the transfer's own total counts.
            if (total > it->second.size) m.totalBytes += total - it->second.size, it->second.size = total;
            m.runningBytes = m.runningBytes - it->second.done + done;
            it->second.done = done;
          }
          if (const Clock::time_point now = Clock::now(); now - m.lastDetails >= kDetailsInterval) {
            m.lastDetails = now;
            details = ProgressText(m);
          }
        }
        progress->SetJobProgress(progressJob, fraction);
        if (!details.empty()) progress->SetDetails(std::move(details));
        if (IsCurrentJobCancelled()) return OperationCancelledError();
        return {};
      });
  if (result.HasValue()) result = VerifyDownloadedVersion(asset, url);
  if (result.HasValue()) {
    progress->SetJobProgress(progressJob, 1.0);
    return {};
  }
  const Error& error = result.GetError();
  const bool cancelled = error.Is(errors::OperationCancelledError) || IsCurrentJobCancelled();
  const std::string text = FormatString("Download Error for asset '@': @:\n@", name, url, error);
  if (!cancelled) {
    {
      std::lock_guard guard(m.lock);
      m.errors[key] = FailedAttempt{asset, error};
    }
    progress->AddMessage(BACKGROUNDPROGRESSSTATE::ERROR, text);
  }
  return ErrorWithCause(error, errors::illegalstate, text);
}

// The job around a delegate: runs it, then removes the asset from the set in progress.
Result<void> RunJob(AssetKey key, const std::weak_ptr<const AssetDescriptionInterface>& weak,
                    const std::function<Result<void>()>& download) {
  Manager& m = GetManager();
  if (AssetDescription asset = weak.lock()) {
    if (Result<void> r = download(); r.HasError() && !r.GetError().Is(errors::OperationCancelledError))
      DiagnosticOutput("Error executing job: @", r.GetError().GetMessage()); // the message holds the cause
  }
  bool last = false;
  {
    std::lock_guard guard(m.lock);
    if (auto it = m.jobs.find(key); it != m.jobs.end()) {
      m.settledBytes += it->second.size;
      m.runningBytes -= it->second.done;
      m.jobs.erase(it);
    }
    last = m.jobs.empty();
  }
  // Files are fetched without a sync each; the last job syncs the mirrors once for all of them
  // before the download counts as done. (A copy torn by a crash before this point fails the
  // check against its version Id on its next read, and is fetched again.)
  if (last) {
    const Clock::time_point start = Clock::now();
    if (Result<void> synced = RamDiskService::SyncMirrors(); synced.HasError())
      WarningOutput("Downloaded files may not be on the disk yet: @", synced.GetError());
    if (g_assetDiagnostic)
      DiagnosticOutput("Downloaded files synced in @ s", std::chrono::duration<double>(Clock::now() - start).count());
  }
  std::shared_ptr<JobQueue> released;
  {
    std::lock_guard guard(m.lock);
    released = SettleIfIdleLocked(m, IsCurrentJobCancelled());
  }
  // On its own worker the pool detaches this thread, which ends after this job.
  if (released) released->Shutdown();
  return {};
}

// Queues one asset; merges with an entry already there. Returns the progress job index.
Result<DownloadStart> Queue(const AssetDescription& asset, const Url& url) {
  Manager& m = GetManager();
  const std::int64_t size = AssetDownloads::GetAssetFileSize(asset).GetValueOr(-1);
  KELVO_ASSIGN_OR_RETURN(std::string name, asset->GetMetaString(stringkeys::name, Language::GetDefaultLanguage(), ""));
  std::lock_guard guard(m.lock);
  BackgroundEntryRef progress = EnsureProgressLocked(m);
  auto [it, inserted] = m.jobs.try_emplace(asset.get());
  if (!inserted) return DownloadStart{progress, static_cast<std::int64_t>(it->second.progressJob)};
  JobEntry& entry = it->second;
  entry.asset = asset;
  entry.size = size > 0 ? static_cast<std::uint64_t>(size) : 0;
  m.totalBytes += entry.size;
  // An unknown size weighs as little as the entry allows, so it hardly moves the total.
  entry.progressJob = progress->AddJob(name, size > 0 ? static_cast<double>(size) : 1e-9);
  entry.download = [asset, name, url] { return Download(asset, name, url); };
  progress->SetJobProgress(entry.progressJob, 0.0);
  return DownloadStart{progress, static_cast<std::int64_t>(entry.progressJob)};
}

// Creates the pool when there is none and a job for each entry that has none yet.
Result<void> Launch() {
  Manager& m = GetManager();
  std::lock_guard guard(m.lock);
  if (m.jobs.empty()) return {};
  if (!m.queue) {
    const int machine = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    const int n = std::min(std::max(kMaxThreads, 1), machine);
    m.queue = JobQueue::Create(n == 1 ? "AsyncAssetJobsPseudo" : "AsyncAssetJobsDefault", n);
  }
  for (auto it = m.jobs.begin(); it != m.jobs.end();) {
    if (it->second.asset.expired()) {
      m.runningBytes -= it->second.done;
      it = m.jobs.erase(it);
      continue;
    }
    if (it->second.download) {
      const AssetKey key = it->first;
      // A failure leaves the delegate in place, so that a later launch picks the entry up.
      KELVO_RETURN_ON_ERROR(m.queue->Enqueue([key, weak = it->second.asset, download = it->second.download] {
        return RunJob(key, weak, download);
      }));
      it->second.download = nullptr;
    }
    ++it;
  }
  return {};
}

Result<std::vector<AssetDescription>> Closure(const std::vector<AssetDescription>& assets,
                                              const AssetRepositoryRef& searchRepository) {
  std::vector<AssetDescription> all;
  IdAndVersionSet processed;
  for (const AssetDescription& asset : assets)
    if (asset) KELVO_RETURN_ON_ERROR(AssetDownloads::AddAssetWithDependencies(asset, searchRepository, all, processed));
  return all;
}

// Queues what of the list needs a download and starts the jobs.
Result<DownloadStart> Start(const std::vector<AssetDescription>& assets) {
  DownloadStart first;
  for (const AssetDescription& asset : assets) {
    KELVO_ASSIGN_OR_RETURN(const DOWNLOADSTATE state, AssetDownloads::GetDownloadState(asset, {}));
    if (state == DOWNLOADSTATE::YES || state == DOWNLOADSTATE::UNAVAILABLE) continue;
    Result<Url> url = asset->GetUrl();
    if (url.HasError() || !IsRamDiskUrl(*url) || NeedsNoDownload(asset->GetTypeId())) continue;
    KELVO_ASSIGN_OR_RETURN(DownloadStart queued, Queue(asset, *url));
    if (!first.progress) first = queued;
  }
  KELVO_RETURN_ON_ERROR(Launch());
  return first;
}

// Takes the pool out, cancels and waits for it, and ends the progress entry.
void CancelAndWait(bool forgetErrors) {
  Manager& m = GetManager();
  std::shared_ptr<JobQueue> queue;
  {
    std::lock_guard guard(m.lock);
    queue = std::exchange(m.queue, nullptr);
  }
  if (queue) {
    queue->CancelAll();
    queue->Shutdown();
  }
  std::lock_guard guard(m.lock);
  m.jobs.clear();
  m.runningBytes = 0;
  (void)SettleIfIdleLocked(m, true);
  if (forgetErrors) m.errors.clear();
}

} // namespace

const char* GetEnumName(DOWNLOADSTATE state) {
  switch (state) {
  case DOWNLOADSTATE::NO: return "NO";
  case DOWNLOADSTATE::YES: return "YES";
  case DOWNLOADSTATE::INPROGRESS: return "INPROGRESS";
  case DOWNLOADSTATE::ERROR: return "ERROR";
  case DOWNLOADSTATE::UNAVAILABLE: return "UNAVAILABLE";
  }
  return "?";
}

std::size_t AssetDescriptionHash::operator()(const AssetDescription& d) const {
  return d ? CombineHash(HashValue(d->GetIdAndVersion()), std::hash<Id>{}(d->GetRepositoryId())) : 0;
}

bool AssetDescriptionEqual::operator()(const AssetDescription& a, const AssetDescription& b) const {
  if (!a || !b) return a == b;
  return a->GetIdAndVersion() == b->GetIdAndVersion() && a->GetRepositoryId() == b->GetRepositoryId();
}

bool AssetDownloads::IsAssetCached(const AssetDescription& asset) {
  Result<bool> valid = AssetInterface::IsAssetValid(asset);
  if (valid.HasError() || !*valid || !asset) return true;
  Result<Url> url = asset->GetUrl();
  if (url.HasError() || !IsRamDiskUrl(*url)) return true;
  return RamDiskService::IsInCache(VersionDirectory(*url)).GetValueOr(true);
}

Result<std::int64_t> AssetDownloads::GetAssetFileSize(const AssetDescription& asset) {
  if (!asset) return std::int64_t(-1);
  const Id type = asset->GetTypeId();
  if (type != g_fileAssetTypeId && type != downloadtypes::nodetemplate) return std::int64_t(-1);
  Result<std::optional<Data>> meta = asset->GetMetaData()->Get(metaids::size);
  if (meta.HasValue() && *meta) {
    if (auto v = (*meta)->Get<std::int64_t>(); v && *v != -1) return *v;
    if (auto v = (*meta)->Get<std::uint64_t>()) return static_cast<std::int64_t>(*v);
  }
  Result<Url> url = asset->GetUrl();
  if (url.HasError() || url->IsEmpty()) return std::int64_t(-1);
  // Opening a RAM disk file fetches it: only a file that is here is asked.
  if (IsRamDiskUrl(*url) && !RamDiskService::IsInCache(*url).GetValueOr(false)) return std::int64_t(-1);
  Result<std::unique_ptr<InputStream>> stream = url->OpenInputStream();
  if (stream.HasError()) return std::int64_t(-1);
  Result<std::uint64_t> size = (*stream)->GetSize();
  return size.HasError() ? std::int64_t(-1) : static_cast<std::int64_t>(*size);
}

Result<DOWNLOADSTATE> AssetDownloads::GetDownloadState(const AssetDescription& asset,
                                                       const AssetDescriptionSet& toDownloadTemp) {
  KELVO_ASSIGN_OR_RETURN(const bool valid, AssetInterface::IsAssetValid(asset));
  if (!valid || !asset) return DOWNLOADSTATE::UNAVAILABLE;
  Result<Url> url = asset->GetUrl();
  if (url.HasError() || url->IsEmpty()) return DOWNLOADSTATE::UNAVAILABLE;
  if (!IsRamDiskUrl(*url) || NeedsNoDownload(asset->GetTypeId())) return DOWNLOADSTATE::YES;
  KELVO_ASSIGN_OR_RETURN(const bool cached, RamDiskService::IsInCache(VersionDirectory(*url)));
  if (cached) return DOWNLOADSTATE::YES;
  Manager& m = GetManager();
  {
    std::lock_guard guard(m.lock);
    if (auto it = m.errors.find(asset.get()); it != m.errors.end() && it->second.asset.lock() == asset)
      return DOWNLOADSTATE::ERROR;
    if (m.jobs.count(asset.get())) return DOWNLOADSTATE::INPROGRESS;
  }
  return toDownloadTemp.count(asset) ? DOWNLOADSTATE::INPROGRESS : DOWNLOADSTATE::NO;
}

Result<void> AssetDownloads::AddAssetWithDependencies(const AssetDescription& asset,
                                                      const AssetRepositoryRef& searchRepository,
                                                      std::vector<AssetDescription>& assetsToExport,
                                                      IdAndVersionSet& assetsProcessed) {
  if (!asset || !assetsProcessed.insert(asset->GetIdAndVersion()).second) return {};
  assetsToExport.push_back(asset);
  if (!searchRepository) return {};
  const AssetMetaDataRef meta = asset->GetMetaData();
  auto follow = [&](const Id& type, const Id& aid, const Id& version) -> Result<void> {
    if (aid.IsEmpty()) return {};
    KELVO_ASSIGN_OR_RETURN(AssetDescription found, searchRepository->FindLatestAsset(type, aid, version, LATEST));
    if (!found) return {};
    return AddAssetWithDependencies(found, searchRepository, assetsToExport, assetsProcessed);
  };
  KELVO_ASSIGN_OR_RETURN(std::optional<Data> dependencies, meta->Get(metaids::dependencies));
  if (dependencies)
    if (const DataArray* array = dependencies->GetPtr<DataArray>())
      for (const Data& item : *array)
        if (const AssetDependencyStruct* dep = item.GetPtr<AssetDependencyStruct>())
          KELVO_RETURN_ON_ERROR(follow(dep->assetTypeId, dep->assetIdAndVersion.first, dep->assetIdAndVersion.second));
  KELVO_ASSIGN_OR_RETURN(std::optional<Data> category, meta->Get(categoryids::parent));
  if (category)
    if (std::optional<Id> id = category->Get<Id>()) KELVO_RETURN_ON_ERROR(follow(CategoryAssetInterface::TypeId(), *id, Id()));
  KELVO_ASSIGN_OR_RETURN(std::optional<Data> keywords, meta->Get(keywordids::keywords));
  if (keywords)
    if (const DataArray* array = keywords->GetPtr<DataArray>())
      for (const Data& item : *array)
        if (std::optional<Id> id = item.Get<Id>()) KELVO_RETURN_ON_ERROR(follow(KeywordAssetInterface::TypeId(), *id, Id()));
  return {};
}

Result<void> AssetDownloads::DownloadAsset(const std::vector<AssetDescription>& assetsToDownload,
                                           const AssetRepositoryRef& searchRepository) {
  KELVO_ASSIGN_OR_RETURN(const std::vector<AssetDescription> all, Closure(assetsToDownload, searchRepository));
  KELVO_RETURN_ON_ERROR(Start(all));
  return {};
}

Result<DownloadStart> AssetDownloads::DownloadAsset(const AssetDescription& asset,
                                                    const AssetRepositoryRef& searchRepository) {
  return DownloadMultipleAssets({asset}, searchRepository);
}

Result<DownloadStart> AssetDownloads::DownloadMultipleAssets(const std::vector<AssetDescription>& assetsToDownload,
                                                             const AssetRepositoryRef& searchRepository) {
  KELVO_ASSIGN_OR_RETURN(const std::vector<AssetDescription> all, Closure(assetsToDownload, searchRepository));
  return Start(all);
}

void AssetDownloads::DownloadManagerCancelAll() { CancelAndWait(false); }

bool AssetDownloads::DownloadManagerIsDownloading() {
  Manager& m = GetManager();
  std::lock_guard guard(m.lock);
  return !m.jobs.empty();
}

Result<void> AssetDownloads::WaitForDownloads() {
  Manager& m = GetManager();
  std::unique_lock guard(m.lock);
  if (m.queue && m.queue->IsWorkerThread()) return IllegalStateError("A download job can't wait for the downloads.");
  m.idle.wait(guard, [&] { return m.jobs.empty(); });
  return {};
}

void AssetDownloads::FreeAssetDownloads() { CancelAndWait(true); }

} // namespace kelvo
