// The database registry's published calls and its part of the module start and end: the
// registry mounts the databases named by the user and the assets directory (see database_mount_pass.h).

#include "asset/databases/asset_databases.h"
#include "remote_database.h"

#include <algorithm>
#include <mutex>
#include <unordered_map>

#include "asset/standard/assets.h"
#include "database_mount_pass.h"
#include "database_registry.h"
#include "kelvo/application.h"
#include "kelvo/job_queue.h"
#include "kelvo/log.h"
#include "kelvo/settings.h"
#include "kelvo/zip_io.h"

namespace kelvo {

namespace {

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
  if (Result<void> cache = PrivateWriteAssetDatabaseCachePathDefault(); cache.HasError())
    WarningOutput("Can't write the default cache path of remote databases: @", cache.GetError());
  {
    std::lock_guard start(s.startLock);
    if (s.started) return {};
    RegisterZipIoHandler();
    (void)AssetDataBases::ObservableQueryDatabases();
    {
      std::lock_guard guard(s.tableLock);
      s.table.reserve(32);
    }
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
    s.lastListFingerprint = 0;
  }
  // The repositories are released here, with no lock held.
  for (auto& [key, entry] : table) (void)entry->TakeRepository();
}

} // namespace kelvo
