// The database registry: collecting the databases of a pass, mounting them one at a time on the
// service I/O queue and chaining them between the user and the application repository.

#include "asset/databases/asset_databases.h"

#include <errno.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <mutex>
#include <unordered_map>
#include <unordered_set>

#include "asset/standard/assets.h"
#include "kelvo/application.h"
#include "kelvo/job_queue.h"
#include "kelvo/log.h"
#include "kelvo/registry.h"
#include "kelvo/settings.h"
#include "kelvo/zip_io.h"
#include "asset/storage/urlassetrepository.h"

namespace kelvo {


namespace {

// Priority bands of the sources of a pass.
constexpr std::int64_t kFirstOtherFolder = 1000;
constexpr std::int64_t kUnittestsFolder = 5000;
constexpr std::int64_t kZipBand = 10000;
constexpr std::int64_t kLinkBand = 20000;
constexpr std::int64_t kUserBand = 100000;
constexpr std::int64_t kObserverBand = 1000000;

constexpr const char* kLoadingAssetDatabases = "Loading asset databases";
// The link file reserved for the other application of the suite; this application skips it.
constexpr const char* kReservedLinkFile = "kelvoorpheumassets.dat";

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string Elapsed(Clock::time_point start) { return FormatString("@ s", SecondsSince(start)); }

// One database of a pass.
struct DatabaseMountItem {
  std::int64_t priority = 0;
  Url url;
  bool active = true;
  bool exportOnSaveProject = true;
};

// The registry's record of one URL. Lives until the registry is emptied at module end.
struct RepositoryEntry {
  mutable std::mutex lock; // guards every field; held only for reads and writes of them
  Url url;
  bool isActive = false;
  bool exportOnSaveProject = true;
  AssetRepositoryRef repository;
  bool seenInPass = false;
  std::int64_t priority = 0;
  std::string error;

  AssetRepositoryRef GetRepository() const {
    std::lock_guard guard(lock);
    return repository;
  }
  // Swaps the repository out, so that it is released with no lock held.
  AssetRepositoryRef TakeRepository() {
    std::lock_guard guard(lock);
    return std::exchange(repository, nullptr);
  }
  void SetError(std::string text) {
    std::lock_guard guard(lock);
    error = std::move(text);
  }
};
using RepositoryEntryRef = std::shared_ptr<RepositoryEntry>;

struct DatabasesState {
  // The table from URL to entry; tableLock guards the map itself, each entry its own fields.
  std::mutex tableLock;
  std::unordered_map<std::string, RepositoryEntryRef> table;
  // Held over the two walks of a pass over the table and over the collection.
  std::mutex registryLock;
  // Serialises the starters of passes.
  std::mutex startLock;
  // The running pass, its progress entry and the observable.
  std::mutex jobLock;
  JobRef mountJob;
  BackgroundEntryRef lastProgress;
  std::shared_ptr<ObservableQueryDatabasesType> observable;
  bool started = false; // guarded by startLock
  std::atomic<std::uint64_t> lastListFingerprint{0};
  // The repository Ids mounted from outside the application's directory.
  std::mutex customLock;
  std::unordered_set<Id> customIds;
};

DatabasesState& State() {
  // Never destroyed: passes may end during static destruction of other units.
  static DatabasesState* state = new DatabasesState();
  return *state;
}

// URLs are compared by scheme, path and query.
std::string UrlKey(const Url& url) { return url.GetScheme() + '\n' + url.GetPath() + '\n' + url.GetQuery(); }

RepositoryEntryRef FindEntry(const Url& url) {
  DatabasesState& s = State();
  std::lock_guard guard(s.tableLock);
  auto it = s.table.find(UrlKey(url));
  return it == s.table.end() ? nullptr : it->second;
}

RepositoryEntryRef FindOrCreateEntry(const Url& url) {
  DatabasesState& s = State();
  std::lock_guard guard(s.tableLock);
  RepositoryEntryRef& slot = s.table[UrlKey(url)];
  if (!slot) {
    slot = std::make_shared<RepositoryEntry>();
    slot->url = url;
  }
  return slot;
}

std::vector<RepositoryEntryRef> AllEntries() {
  DatabasesState& s = State();
  std::lock_guard guard(s.tableLock);
  std::vector<RepositoryEntryRef> entries;
  entries.reserve(s.table.size());
  for (const auto& [key, entry] : s.table) entries.push_back(entry);
  return entries;
}

std::string ToLower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// The application's updater shares the library but mounts nothing.
bool IsUpdaterApplication() { return ToLower(program_invocation_short_name).starts_with("upd_"); }

Id UrlRepositoryType(const Url& url) {
  const Data type = url.GetData(assetdatabasekeys::assetdatabasetype);
  if (auto id = type.Get<Id>()) return *id;
  if (auto text = type.Get<std::string>()) return Id(*text);
  return Id();
}

bool IsRemote(const Url& url) { return url.GetScheme() == "http" || url.GetScheme() == "https"; }

// A remote URL as its users write it: "https://host/path".
std::string RemoteUrlText(const Url& url) {
  std::string text = url.GetScheme() + "://" + url.GetPath();
  if (const std::string query = url.GetQuery(); !query.empty()) text += "?" + query;
  return text;
}

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

void Unload(RepositoryEntry& entry) {
  AssetRepositoryRef repository = entry.TakeRepository();
  if (repository) repository->RequestUnloadRepository();
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

// The URL that a link file names: its whole text, trimmed; a relative path counts from the
// directory of the link file.
Url LinkTarget(const std::string& content, const Url& linkFile) {
  std::string text = content;
  if (text.size() >= 3 && static_cast<unsigned char>(text[0]) == 0xEF && static_cast<unsigned char>(text[1]) == 0xBB &&
      static_cast<unsigned char>(text[2]) == 0xBF)
    text.erase(0, 3);
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return Url();
  text = text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
  if (text.find("://") == std::string::npos && text.front() != '/')
    return linkFile.GetDirectory().Append(text);
  return Url(text);
}

Url DatabaseUrl(Url url) {
  url.SetData(assetdatabasekeys::assetdatabasetype, Data(repositorytypes::database));
  return url;
}

// Collects the folders, archives and link files of the assets directory and the URLs of the
// observers. Problems that concern one database only go to notes. REQUIRES: registryLock held.
Result<void> CollectStandardDatabases(std::vector<DatabaseMountItem>& items, std::vector<std::string>& notes) {
  const Url assetsDir = AssetDataBases::GetAssetsDirectory();
  if (assetsDir.IoDetect() == IODETECT::DIRECTORY) {
    KELVO_ASSIGN_OR_RETURN(std::vector<Url> children, assetsDir.IoBrowse());
    // By name, so that the numbering of a pass does not depend on the directory's order.
    std::sort(children.begin(), children.end(), [](const Url& a, const Url& b) { return a.GetName() < b.GetName(); });
    std::int64_t c = kFirstOtherFolder;
    for (const Url& child : children) {
      const std::string name = child.GetName();
      if (name.empty() || name.front() == '.') continue;
      const IODETECT kind = child.IoDetect();
      if (kind == IODETECT::DIRECTORY) {
        if (name == "application" || name == "builtin") continue;
        std::int64_t priority;
        if (name == "basics")
          priority = 0;
        else if (name == "utilities")
          priority = 1;
        else if (name == "unittests")
          priority = kUnittestsFolder;
        else
          priority = c++;
        items.push_back({priority, DatabaseUrl(child), true, true});
      } else if (kind == IODETECT::FILE) {
        const std::string suffix = ToLower(child.GetSuffix());
        if (suffix == "zip") {
          items.push_back({c++ + kZipBand, DatabaseUrl(child), true, true});
        } else if (suffix == "dat") {
          if (ToLower(name) == kReservedLinkFile) continue;
          KELVO_ASSIGN_OR_RETURN(std::string content, child.ReadAll());
          const Url target = LinkTarget(content, child);
          const std::int64_t priority = c++ + kLinkBand;
          if (target.IsEmpty()) {
            notes.push_back(FormatString("Link file @ names no database.", child));
            continue;
          }
          items.push_back({priority, DatabaseUrl(target), true, true});
        }
      }
    }
  }

  if (std::shared_ptr<ObservableQueryDatabasesType> observable = AssetDataBases::ObservableQueryDatabases()) {
    std::vector<Url> urls;
    std::unordered_set<std::string> keys;
    const DatabaseUrlReceiver receiver = [&](const Url& url) {
      if (!url.IsEmpty() && keys.insert(UrlKey(url)).second) urls.push_back(url);
    };
    observable->Notify(receiver);
    for (std::size_t i = 0; i < urls.size(); ++i)
      items.push_back({kObserverBand + static_cast<std::int64_t>(i), urls[i], true, false});
  }
  return {};
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
  std::unordered_set<Id> customIds;
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
  if (repository) {
    if (IsCurrentJobCancelled()) return OperationCancelledError();
    KELVO_RETURN_ON_ERROR(SetSingleBase(repository, pass.head));
  } else {
    entry->SetError(std::string());
    bool writable = pass.applicationWritable || !IsInside(item.url, pass.assetsDir);
    Url url = item.url;
    std::optional<Error> openError;
    if (IsRemote(url)) {
      // Remote databases need the local cache and the lazy file tree, which this version lacks.
      const std::string text = FormatString(
          "Remote asset database @ can't be mounted yet: this version mounts only local folders and archives.",
          RemoteUrlText(url));
      WarningOutput("@", text);
      pass.progress->AddMessage(BACKGROUNDPROGRESSSTATE::ERROR, text);
      entry->SetError(text);
    } else {
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
              Id(), type, RepositoryArray{pass.head}, url, writable, true, false);
          if (created.HasError()) {
            if (created.GetError().Is(errors::OperationCancelledError)) return created.GetError();
            ReportMountError(pass, *entry, item.url, created.GetError());
          } else {
            std::lock_guard guard(entry->lock);
            entry->repository = *created;
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
    if (item.priority >= kUserBand) pass.customIds.insert(rid);
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
  {
    std::lock_guard guard(s.customLock);
    s.customIds = std::move(pass.customIds);
  }
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

Result<std::vector<AssetDatabaseStruct>> ReadUserList() {
  return AssetDatabasesFromSettingsData(Settings::Get(assetdatabasekeys::userpaths));
}

} // namespace

// ---- AssetDataBases ------------------------------------------------------------------------------

Result<AssetRepositoryRef> AssetDataBases::FindRepository(const Url& url) {
  RepositoryEntryRef entry = FindEntry(url);
  if (!entry) return AssetRepositoryRef();
  std::lock_guard guard(entry->lock);
  return entry->isActive ? entry->repository : AssetRepositoryRef();
}

Result<Url> AssetDataBases::FindRepository(const AssetRepositoryRef& repository) {
  if (repository) {
    for (const RepositoryEntryRef& entry : AllEntries()) {
      std::lock_guard guard(entry->lock);
      if (entry->repository == repository) return entry->url;
    }
  }
  return IllegalArgumentError("The repository is not mounted as an asset database.");
}

Result<bool> AssetDataBases::GetDatabases(const AssetDatabaseReceiver& receiver) {
  KELVO_ASSIGN_OR_RETURN(std::vector<AssetDatabaseStruct> list, ReadUserList());
  for (const AssetDatabaseStruct& db : list) {
    KELVO_ASSIGN_OR_RETURN(bool more, receiver(db));
    if (!more) return false;
  }
  return true;
}

Result<std::vector<AssetDatabaseStruct>> AssetDataBases::GetDatabaseList() { return ReadUserList(); }

Result<void> AssetDataBases::SetDatabases(const std::vector<AssetDatabaseStruct>& databases) {
  KELVO_RETURN_ON_ERROR(Settings::Set(assetdatabasekeys::userpaths, AssetDatabasesToSettingsData(databases)));
  return StartPass(databases, false);
}

Result<bool> AssetDataBases::WaitForDatabaseLoading() {
  DatabasesState& s = State();
  bool success = true;
  JobRef waited;
  for (;;) {
    JobRef job;
    {
      std::lock_guard guard(s.jobLock);
      job = s.mountJob;
    }
    // A pass that replaced the one waited for is waited for as well.
    if (!job || job == waited) return success;
    if (job == GetCurrentJob()) return IllegalStateError("A mount pass can't wait for itself.");
    success = job.Wait().HasValue();
    waited = job;
  }
}

Result<void> AssetDataBases::ReloadAssetRepositories(bool force) {
  KELVO_ASSIGN_OR_RETURN(std::vector<AssetDatabaseStruct> list, ReadUserList());
  return StartPass(std::move(list), force);
}

std::shared_ptr<ObservableQueryDatabasesType> AssetDataBases::ObservableQueryDatabases() {
  DatabasesState& s = State();
  std::lock_guard guard(s.jobLock);
  if (!s.observable) s.observable = std::make_shared<ObservableQueryDatabasesType>(Id("ObservableQueryDatabases"));
  return s.observable;
}

std::vector<AssetDatabaseState> AssetDataBases::GetDatabaseStates() {
  std::vector<AssetDatabaseState> states;
  for (const RepositoryEntryRef& entry : AllEntries()) {
    AssetDatabaseState state;
    AssetRepositoryRef repository;
    {
      std::lock_guard guard(entry->lock);
      state.url = entry->url;
      state.priority = entry->priority;
      state.active = entry->isActive;
      state.exportOnSaveProject = entry->exportOnSaveProject;
      state.error = entry->error;
      repository = entry->repository;
    }
    if (repository) {
      state.mounted = true;
      state.repositoryId = repository->GetId();
      state.skipInSearch = repository->GetData(repositorykeys::skipinsearch).Get<bool>().value_or(false);
    }
    states.push_back(std::move(state));
  }
  std::sort(states.begin(), states.end(),
            [](const AssetDatabaseState& a, const AssetDatabaseState& b) { return a.priority < b.priority; });
  return states;
}

BackgroundEntryRef AssetDataBases::GetLastProgressEntry() {
  DatabasesState& s = State();
  std::lock_guard guard(s.jobLock);
  return s.lastProgress;
}

Url AssetDataBases::GetAssetsDirectory() {
  return Application::PrivateGetUrl(APPLICATION_URLTYPE::LIBRARY_DIR).Append("assets");
}

// ---- module start and end ---------------------------------------------------------------------------

Result<void> PrivateStartAssetDatabases() {
  DatabasesState& s = State();
  {
    std::lock_guard start(s.startLock);
    if (s.started) return {};
    RegisterZipIoHandler();
    (void)AssetDataBases::ObservableQueryDatabases();
    {
      std::lock_guard guard(s.tableLock);
      s.table.reserve(32);
    }
    UrlAssetRepositoryImpl::SetCustomRepositoryCheck([](const Id& rid) {
      DatabasesState& st = State();
      std::lock_guard guard(st.customLock);
      return st.customIds.count(rid) != 0;
    });
    s.lastListFingerprint = 0;
    s.started = true;
  }
  // Without a readable list nothing is mounted, not even the standard databases: the caller gets
  // the error, and a later SetDatabases with a good list starts the first pass.
  KELVO_ASSIGN_OR_RETURN(std::vector<AssetDatabaseStruct> list, ReadUserList());
  return StartPass(std::move(list), false);
}

void PrivateEndAssetDatabases() {
  DatabasesState& s = State();
  std::unordered_map<std::string, RepositoryEntryRef> table;
  std::shared_ptr<ObservableQueryDatabasesType> observable;
  {
    std::lock_guard start(s.startLock);
    if (!s.started) return;
    (void)StopPassLocked();
    s.started = false;
    {
      std::lock_guard guard(s.tableLock);
      table.swap(s.table);
    }
    {
      std::lock_guard guard(s.jobLock);
      observable = std::move(s.observable);
      s.lastProgress = nullptr;
    }
    {
      std::lock_guard guard(s.customLock);
      s.customIds.clear();
    }
    s.lastListFingerprint = 0;
  }
  // The repositories are released here, with no lock held.
  for (auto& [key, entry] : table) (void)entry->TakeRepository();
}

} // namespace kelvo
