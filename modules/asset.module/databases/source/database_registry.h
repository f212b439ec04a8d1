#pragma once
// The database registry's table: one entry per URL that a pass has named, with the repository
// mounted for it, and the state shared by the passes and the published AssetDataBases calls.
// Lock order: startLock, then registryLock, then tableLock or jobLock, then an entry's lock.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "asset/core/assetrepository.h"
#include "asset/databases/asset_databases.h"
#include "kelvo/background_progress.h"
#include "kelvo/job_queue.h"
#include "kelvo/url.h"

namespace kelvo {

// Priority bands of the sources of a pass: the standard folders first, then archives, link files,
// the user's list and the observers' URLs.
constexpr std::int64_t kFirstOtherFolder = 1000;
constexpr std::int64_t kUnittestsFolder = 5000;
constexpr std::int64_t kZipBand = 10000;
constexpr std::int64_t kLinkBand = 20000;
constexpr std::int64_t kUserBand = 100000;
constexpr std::int64_t kObserverBand = 1000000;

// One database of a pass.
struct DatabaseMountItem {
  std::int64_t priority = 0;
  Url url;
  bool active = true;
  bool exportOnSaveProject = true;
};

// The databases the user mounted (the list and the observers): custom databases, named after
// their directory or origin, and never renamed.
inline bool IsCustom(const DatabaseMountItem& item) { return item.priority >= kUserBand; }

// The registry's record of one URL. Lives until the registry is emptied at module end.
struct RepositoryEntry {
  mutable std::mutex lock; // guards every field; held only for reads and writes of them
  Url url;
  bool isActive = false;
  bool exportOnSaveProject = true;
  AssetRepositoryRef repository;
  bool custom = false; // what the repository was opened with
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
};

// The one registry of the process; never destroyed, since passes may end during static
// destruction of other units.
DatabasesState& State();

// URLs are compared by scheme, path and query.
std::string UrlKey(const Url& url);

RepositoryEntryRef FindEntry(const Url& url);
RepositoryEntryRef FindOrCreateEntry(const Url& url);
std::vector<RepositoryEntryRef> AllEntries();

// Takes the entry's repository and asks it to unload, with no lock held.
void Unload(RepositoryEntry& entry);

} // namespace kelvo
