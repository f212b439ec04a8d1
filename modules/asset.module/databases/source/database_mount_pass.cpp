// The mount pass of the database registry.

#include "database_mount_pass.h"

#include <errno.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <unordered_map>
#include <unordered_set>

#include "asset/standard/assets.h"
#include "asset/storage/urlassetrepository.h"
#include "database_collection.h"
#include "database_registry.h"
#include "remote_database.h"
#include "kelvo/job_queue.h"
#include "kelvo/log.h"
#include "kelvo/registry.h"
#include "kelvo/zip_io.h"

namespace kelvo {

namespace {

constexpr const char* kLoadingAssetDatabases = "Loading asset databases";

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string Elapsed(Clock::time_point start) { return FormatString("@ s", SecondsSince(start)); }

// The application's updater shares the library but mounts nothing.
bool IsUpdaterApplication() { return ToLowerAscii(program_invocation_short_name).starts_with("upd_"); }

Id UrlRepositoryType(const Url& url) {
  const Data type = url.GetData(assetdatabasekeys::assetdatabasetype);
  if (auto id = type.Get<Id>()) return *id;
  if (auto text = type.Get<std::string>()) return Id(*text);
  return Id();
}

bool IsRemote(const Url& url) { return url.GetScheme() == "http" || url.GetScheme() == "https"; }

// Whether url lies in dir (both "file" URLs).
bool IsInside(const Url& url, const Url& dir) {
  if (url.GetScheme() != "file" || dir.GetScheme() != "file") return false;
  std::string prefix = dir.GetPath();
  while (prefix.size() > 1 && prefix.back() == '/') prefix.pop_back();
  const std::string& path = url.GetPath();
  return path == prefix || path.starts_with(prefix + "/");
}

// The base rule: gives repository exactly one base.
Result<void> SetSingleBase(const AssetRepositoryRef& repository, const AssetRepositoryRef& base) {
  RepositoryArrayRef bases = repository->GetBases();
  if (bases && bases->size() == 1 && bases->front() == base) return {};
  if (bases)
    for (const AssetRepositoryRef& b : *bases) KELVO_RETURN_ON_ERROR(repository->RemoveBase(b));
  return repository->AddBase(base);
}

// The record hash of one item: its URL with the repository type and its two flags.
std::uint64_t ItemHash(const DatabaseMountItem& item) {
  return static_cast<std::uint64_t>(HashValue(AssetDatabaseStruct(item.url, item.active, item.exportOnSaveProject)));
}

std::uint64_t Fingerprint(const std::vector<DatabaseMountItem>& items) {
  std::uint64_t h = 0;
  for (const DatabaseMountItem& item : items) {
    const auto p = static_cast<std::uint64_t>(item.priority);
    const std::uint64_t t = p ^ (p >> 32);
    const std::uint64_t u = t ^ (t >> 12) ^ (t >> 20);
    const std::uint64_t v = u ^ (u >> 7) ^ (u >> 4);
    h = ItemHash(item) + (v + h) * 0xbf58476d1ce4e5b9ull + 2;
  }
  return h;
}

// The state of one pass while it mounts.
struct PassContext {
  BackgroundEntryRef progress;
  AssetRepositoryRef user;
  AssetRepositoryRef head;
  bool applicationWritable = false;
  Url assetsDir;
  std::unordered_set<std::string> mountedUrls;
  std::unordered_map<Id, AssetRepositoryRef> byId;
};

// A database that could not be opened: logged, shown on the progress entry, kept on the entry.
void ReportMountError(PassContext& pass, RepositoryEntry& entry, const Url& url, const Error& error) {
  WarningOutput("Error reading database: @. Error: @", url, error);
  const std::string text = FormatString("Error mounting asset database @: @", url, error);
  pass.progress->AddMessage(BACKGROUNDPROGRESSSTATE::ERROR, text);
  entry.SetError(text);
  Unload(entry);
}

Result<void> MountOne(PassContext& pass, const DatabaseMountItem& item) {
  pass.progress->SetDetails(FormatString("Mounting: @", item.url));
  if (!pass.mountedUrls.insert(UrlKey(item.url)).second) return {};

  RepositoryEntryRef entry = FindEntry(item.url);
  bool active = false;
  if (entry) {
    std::lock_guard guard(entry->lock);
    active = entry->isActive;
  }
  if (!entry || !active) return IllegalStateError("Illegal state: Condition e != nullptr && e->_isActive not fulfilled. ");

  AssetRepositoryRef repository = entry->GetRepository();
  bool wasCustom;
  {
    std::lock_guard guard(entry->lock);
    wasCustom = entry->custom;
  }
  if (repository && wasCustom != IsCustom(item)) {
    // The database moved between the user's and the standard ones: it is opened again, since
    // whether it is custom is fixed when a repository is made.
    Unload(*entry);
    repository = nullptr;
  }
  if (repository) {
    if (IsCurrentJobCancelled()) return OperationCancelledError();
    KELVO_RETURN_ON_ERROR(SetSingleBase(repository, pass.head));
  } else {
    entry->SetError(std::string());
    bool writable = pass.applicationWritable || !IsInside(item.url, pass.assetsDir);
    Url url = item.url;
    std::optional<Error> openError;
    if (IsRemote(url)) {
      // The cache and its RAM disk stand in for the server; an empty root skips the database.
      std::string skipReason;
      url = PrepareRemoteDatabase(item.url, pass.progress, skipReason);
      writable = false;
      if (url.IsEmpty()) entry->SetError(skipReason);
    }
    if (!url.IsEmpty()) {
      const IODETECT kind = url.IoDetect();
      if (kind == IODETECT::NONE) {
        openError = IoError("The database @ doesn't exist.", url);
      } else if (kind == IODETECT::FILE) {
        // A plain file is an archive, read in place and never written.
        url = MakeZipUrl(item.url);
        url.SetData(assetdatabasekeys::originurl, Data(item.url));
        writable = false;
        if (Result<void> check = CheckZipArchive(url); check.HasError()) openError = check.GetError();
      }
      if (openError) {
        ReportMountError(pass, *entry, item.url, *openError);
      } else {
        const Clock::time_point start = Clock::now();
        Id type;
        const Id named = UrlRepositoryType(item.url);
        if (url.Append("databaseid").IoDetect() == IODETECT::FILE) {
          if (!named.IsEmpty() && named != repositorytypes::database)
            DiagnosticOutput("Forcing folder to be mounted as database (@) instead of @", item.url, named);
          type = repositorytypes::database;
        } else if (!named.IsEmpty()) {
          auto registry = GetRegistry<AssetRepositoryTypeInfo>(g_assetRepositoryTypesRegistryId);
          if (registry.HasError()) return registry.GetError();
          if ((*registry)->FindEntryValue(named)) type = named;
        }
        if (type.IsEmpty()) {
          const std::string text =
              FormatString("Missing database type when mounting: @. (URLFLAGS::ASSETREPOSITORYTYPE)", item.url);
          WarningOutput("@", text);
          entry->SetError(text);
        } else {
          Result<AssetRepositoryRef> created = AssetInterface::CreateRepositoryFromUrl(
              Id(), type, RepositoryArray{pass.head}, url,
              RepositoryOptions{.writable = writable, .derivedInPrefs = true, .custom = IsCustom(item)});
          if (created.HasError()) {
            if (created.GetError().Is(errors::OperationCancelledError)) return created.GetError();
            ReportMountError(pass, *entry, item.url, created.GetError());
          } else {
            {
              std::lock_guard guard(entry->lock);
              entry->repository = *created;
              entry->custom = IsCustom(item);
            }
            if (IsRemote(item.url)) ConnectRemoteDownloadState(url, *created);
          }
          if (g_assetDiagnostic)
            DiagnosticOutput("AssetInterface::CreateRepositoryFromUrl(@) @", item.url, Elapsed(start));
        }
      }
    }
    repository = entry->GetRepository();
  }

  if (repository) {
    const Id rid = repository->GetId();
    auto [it, inserted] = pass.byId.try_emplace(rid, repository);
    if (!inserted) {
      // The later database wins; the earlier one stays in the chain but is passed over.
      const AssetRepositoryRef& earlier = it->second;
      Url earlierUrl;
      if (auto* urlRepository = dynamic_cast<UrlAssetRepositoryInterface*>(earlier.get()))
        earlierUrl = urlRepository->GetUrl(true);
      pass.progress->AddMessage(BACKGROUNDPROGRESSSTATE::WARNING,
                                FormatString("'@' overwrites '@'.", item.url, earlierUrl));
      KELVO_RETURN_ON_ERROR(earlier->SetData(repositorykeys::skipinsearch, Data(true)));
      it->second = repository;
    }
    pass.head = repository;
    KELVO_RETURN_ON_ERROR(repository->SetData(repositorykeys::skipinsearch, Data(false)));
    KELVO_RETURN_ON_ERROR(
        repository->SetData(assetdatabasekeys::exportonsaveproject, Data(item.exportOnSaveProject)));
  }

  if (IsCurrentJobCancelled()) return OperationCancelledError();
  // Each database is searchable as soon as it is chained.
  return SetSingleBase(pass.user, pass.head);
}

Result<void> MountPass(const std::vector<AssetDatabaseStruct>& list, bool force, BackgroundEntryRef& progress) {
  DatabasesState& s = State();
  std::vector<DatabaseMountItem> items;
  std::vector<std::string> notes;
  {
    std::lock_guard guard(s.registryLock);
    KELVO_RETURN_ON_ERROR(CollectStandardDatabases(items, notes));
  }
  for (std::size_t i = 0; i < list.size(); ++i)
    items.push_back({kUserBand + static_cast<std::int64_t>(i), list[i]._dbUrl, list[i]._active,
                     list[i]._exportOnSaveProject});
  std::stable_sort(items.begin(), items.end(),
                   [](const DatabaseMountItem& a, const DatabaseMountItem& b) { return a.priority < b.priority; });

  const std::uint64_t fingerprint = Fingerprint(items);
  if (!force && fingerprint == s.lastListFingerprint.load()) return {};
  if (IsCurrentJobCancelled()) return OperationCancelledError();

  progress = BackgroundProgress::AddActiveEntry(kLoadingAssetDatabases);
  progress->SetProgress(kBackgroundProgressUnknown);
  progress->SetCancelDelegate([job = GetCurrentJob()] { job.Cancel(); });
  {
    std::lock_guard guard(s.jobLock);
    s.lastProgress = progress;
  }
  for (std::string& note : notes) {
    WarningOutput("@", note);
    progress->AddMessage(BACKGROUNDPROGRESSSTATE::ERROR, std::move(note));
  }

  std::vector<DatabaseMountItem> toMount;
  {
    std::lock_guard guard(s.registryLock);
    const std::vector<RepositoryEntryRef> entries = AllEntries();
    for (const RepositoryEntryRef& e : entries) {
      std::lock_guard entryGuard(e->lock);
      e->seenInPass = false;
    }
    for (const DatabaseMountItem& item : items) {
      RepositoryEntryRef entry = FindOrCreateEntry(item.url);
      {
        std::lock_guard entryGuard(entry->lock);
        entry->isActive = item.active;
        entry->exportOnSaveProject = item.exportOnSaveProject;
        entry->seenInPass = true;
        entry->priority = item.priority;
        if (!item.active) entry->error.clear();
      }
      if (!item.active) {
        Unload(*entry);
        continue;
      }
      toMount.push_back(item);
      if (force && item.priority >= kUserBand && !IsRemote(item.url)) Unload(*entry);
    }
    for (const RepositoryEntryRef& e : entries) {
      bool unload = false;
      {
        std::lock_guard entryGuard(e->lock);
        if (!e->seenInPass) {
          e->isActive = false;
          e->error.clear();
          unload = e->repository != nullptr;
        }
      }
      if (unload) Unload(*e);
    }
  }

  PassContext pass;
  pass.progress = progress;
  pass.user = AssetInterface::GetUserPrefsRepository();
  if (!pass.user) return IllegalStateError("Illegal state: Condition userRepository != nullptr not fulfilled. ");
  pass.head = AssetInterface::GetApplicationRepository();
  if (!pass.head) pass.head = AssetInterface::GetBuiltinRepository();
  if (!pass.head) return IllegalStateError("Illegal state: Condition head != nullptr not fulfilled. ");
  pass.applicationWritable = g_applicationRepositoryWritable.Get();
  pass.assetsDir = AssetDataBases::GetAssetsDirectory();

  for (std::size_t i = 0; i < toMount.size(); ++i) progress->AddJob(toMount[i].url.ToString(), 1.0);
  for (std::size_t i = 0; i < toMount.size(); ++i) {
    KELVO_RETURN_ON_ERROR(MountOne(pass, toMount[i]));
    progress->SetJobProgress(i, 1.0);
  }
  // Also when nothing was mounted, so that a list that lost its last database leaves no stale
  // base behind the user repository.
  if (IsCurrentJobCancelled()) return OperationCancelledError();
  KELVO_RETURN_ON_ERROR(SetSingleBase(pass.user, pass.head));
  progress->SetDetails(std::string());
  KELVO_RETURN_ON_ERROR(AssetDataBases::WriteGmlDependencies());
  s.lastListFingerprint = fingerprint;
  return {};
}

Result<void> RunMountJob(const std::vector<AssetDatabaseStruct>& list, bool force) {
  DatabasesState& s = State();
  if (g_assetDiagnostic) DiagnosticOutput("Async mounting asset databases started.");
  const Clock::time_point start = Clock::now();
  BackgroundEntryRef progress;
  Result<void> result = MountPass(list, force, progress);
  if (result.HasError() && !result.GetError().Is(errors::OperationCancelledError)) {
    WarningOutput("Error mounting asset databases: @", result.GetError());
    if (!progress) {
      // The pass failed before it had an entry (while collecting): one is made for the report.
      progress = BackgroundProgress::AddActiveEntry(kLoadingAssetDatabases);
      std::lock_guard guard(s.jobLock);
      s.lastProgress = progress;
    }
    progress->AddMessage(BACKGROUNDPROGRESSSTATE::ERROR, FormatString("Error mounting asset databases: @", result.GetError()));
  }
  if (progress) {
    if (result.HasError() && result.GetError().Is(errors::OperationCancelledError))
      progress->FinishCanceled();
    else
      progress->Finish();
  }
  // Logged before the job slot is cleared, so that a waiter sees the pass complete with its log.
  if (g_assetDiagnostic) DiagnosticOutput("Async mounting asset databases finished after: @", Elapsed(start));
  {
    // Cleared on failure too, so that a waiter never blocks on a finished pass.
    std::lock_guard guard(s.jobLock);
    if (s.mountJob == GetCurrentJob()) s.mountJob = JobRef();
  }
  return result;
}

} // namespace

// Cancels the running pass and waits for it. REQUIRES: startLock held.
Result<void> StopPassLocked() {
  DatabasesState& s = State();
  JobRef job;
  {
    std::lock_guard guard(s.jobLock);
    job = s.mountJob;
  }
  if (!job) return {};
  if (job == GetCurrentJob()) return IllegalStateError("A mount pass can't wait for itself.");
  job.Cancel();
  (void)job.Wait();
  std::lock_guard guard(s.jobLock);
  if (s.mountJob == job) s.mountJob = JobRef();
  return {};
}

Result<void> StartPass(std::vector<AssetDatabaseStruct> list, bool force) {
  if (IsUpdaterApplication()) return {};
  DatabasesState& s = State();
  std::lock_guard start(s.startLock);
  // Before the module starts the list is only stored; the start mounts it.
  if (!s.started) return {};
  KELVO_RETURN_ON_ERROR(StopPassLocked());
  std::shared_ptr<JobQueue> queue = JobQueue::GetServiceIoQueue();
  std::lock_guard guard(s.jobLock);
  KELVO_ASSIGN_OR_RETURN(JobRef job, queue->Enqueue([list = std::move(list), force]() -> Result<void> {
                           return RunMountJob(list, force);
                         }));
  s.mountJob = job;
  return {};
}

} // namespace kelvo
