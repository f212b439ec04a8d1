#pragma once
// The browser implementation, shared by its settings half (asset_browser.cpp) and its update
// job (browser_update_job.cpp).

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "asset/search/asset_browser.h"
#include "asset/search/asset_facts.h"
#include "kelvo/job_queue.h"
#include "kelvo/lock.h"

namespace kelvo {

// What the last search across the repositories found, kept for the next job: the assets that
// passed visibility and validity, with their facts. It belongs to the repository, types and left
// out databases it was made for, and is stale once anything is stored in those repositories.
struct BrowserWalk {
  std::weak_ptr<AssetRepositoryInterface> repository;
  std::vector<Id> types;
  IdSet excluded;
  bool showUnavailable = false;
  bool builderSettings = false; // g_assetBuilderSettings, which lists invisible assets
  LanguageRef language;
  std::uint64_t generation = 0;
  bool complete = false;
  std::vector<AssetFacts> assets;
  AssetFactsReader reader;
  // The latest keyword and subtype assets of every repository searched, which a filter text
  // matches to find the assets tagged with them; complete only when the walk covered all types
  // and left no database out.
  std::vector<AssetDescription> keywordsAndSubtypes;
  bool hasKeywordsAndSubtypes = false;
  // The assets (indexes into assets) that the last finished filter passed, with its text and
  // what else decided: a filter that only narrows it, as typing on does, tests these alone.
  bool passedValid = false;
  std::vector<std::uint32_t> passed;
  std::string passedText;
  std::string passedContext;
  // How many records, from the first, hold every value a filter reads (SearchFilter::Fill).
  std::size_t filled = 0;
  // The rows of the last job, whose memory the next job's rows take.
  std::shared_ptr<BrowserEntryList> spareRows = std::make_shared<BrowserEntryList>();
};

// Counts the changes stored in the repositories a walk searched; observers of their channels
// bump it. Shared with the observers, so that they never reach a browser that has gone.
struct ContentGeneration {
  std::atomic<std::uint64_t> value{1};
};

// The observers a browser keeps on the repository of its walk.
struct BrowserObservation {
  std::weak_ptr<AssetRepositoryInterface> repository;
  std::shared_ptr<ObservableAssetType> stored, erased, updated;
  std::shared_ptr<ObservableMetaDataStoredType> metaData;
  std::shared_ptr<ObservableBaseChangedType> bases;
  ObservableAssetType::Token storedToken = 0, erasedToken = 0, updatedToken = 0;
  ObservableMetaDataStoredType::Token metaDataToken = 0;
  ObservableBaseChangedType::Token basesToken = 0;
};

class AssetBrowserImpl final : public AssetBrowserInterface {
public:
  explicit AssetBrowserImpl(ASSETBROWSERMODE mode);
  ~AssetBrowserImpl() override;

  void SetAssetTypesFilter(const IdSet& assetTypes) override;
  void SetParentSelection(const IdSet& parentSelection, const IdSet& selectOnNextUpdate) override;
  void SetParentSelection(const IdSet& parentSelection) override;
  void SetDatabaseMasterfilter(const IdSet& masterFilterDatabaseIds) override;
  void SetSmartSearch(const std::vector<AssetDescription>& smartSearch) override;
  void DoFiltering(const std::string& masterFilter, const std::string& groupFilter, const std::string& sortFilter,
                   const std::string& filterString, bool localFilterMode, bool showUnavailable) override;
  void SetSelectionOnNextUpdate(const IdSet& selectOnNextUpdate) override;
  void SetGraphModel(const BrowserGraphModelRef& graphModel) override;
  void SetBuildEntryDelegate(const BuildEntryDelegate& builderDelegate) override;

  void SkipWatchfolders(bool skip) override;
  void SkipCommandAssets(bool skip) override;
  void ShowHiddenFlaggedCommandAssets(bool show) override;
  void SetLengthUnitSystem(LENGTHUNITSYSTEM system) override;
  void SetInitDataDelegate(const InitDataDelegate& delegate) override;
  void SetRelevantMasterFilter(MASTERFILTER filter) override;
  void SetActiveManager(std::int32_t managerId) override;
  void SetGetCommandRestrictionManagerDelegate(const AssetIntDelegate& delegate) override;
  void SetGetAssetDefaultPresetPluginTypeDelegate(const AssetIntDelegate& delegate) override;

  bool GetShowHiddenFlaggedCommandAssets() const override;
  ASSETBROWSERMODE GetBrowseMode() const override { return _mode; }
  AssetRepositoryRef GetLookupRepository() const override;
  IdSet GetAssetTypesFilter() const override;
  IdSet GetParentSelection() const override;
  IdSet GetDatabaseMasterfilter() const override;
  BrowserFilterStrings GetFilterStrings() const override;
  std::string GetFilterString() const override;
  std::vector<std::string> GetSearchStrings() const override;
  Result<std::string> GetSmartSearchString() const override;

  IdSet GetAndClearSelectionOnNextUpdate() override;
  bool GetAndResetClearState() override;
  void RequestAssetBrowserUpdate() override;
  void EnableUpdates(bool enableUpdates) override;
  void JobRefReset(bool wait) override;
  Result<void> CopySettingsFrom(const AssetBrowserRef& source) override;

  Result<void> BindUpdateTrigger();

private:
  // Everything a job reads of the settings, copied under the lock at its start.
  struct JobSettings {
    BrowserFilterStrings strings;
    bool showUnavailable = false;
    bool skipWatchfolders = false;
    bool skipCommandAssets = false;
    bool showHiddenFlaggedCommandAssets = false;
    LENGTHUNITSYSTEM lengthUnitSystem = LENGTHUNITSYSTEM::METRIC;
    std::vector<Id> types;
    IdSet excluded;
    IdSet parentSelection;
    BrowserGraphModelRef graphModel;
    std::shared_ptr<const void> lookupContext;
    RelevanceInputs relevance;
  };

  // Leaves the lock, cancels the job and fires the trigger when updates are enabled.
  void Restart(std::unique_lock<SpinLock>& locked);
  void FireUpdateTrigger();
  void TriggerFunction();
  JobSettings ReadJobSettings();

  // browser_update_job.cpp
  static Result<void> RunUpdateJob(const std::weak_ptr<AssetBrowserInterface>& weak);
  Result<void> UpdateJob();
  Result<void> RunFilterPipeline(const Data& root, const AssetRepositoryRef& repository, const BuildEntryDelegate& delegate);
  Result<void> FillRecords(BrowserWalk& walk, const AssetRepositoryRef& repository, LENGTHUNITSYSTEM lengthUnitSystem);
  Result<BrowserWalk*> FreshWalk(const AssetRepositoryRef& repository, const JobSettings& settings);
  Result<void> Walk(BrowserWalk& walk, const AssetRepositoryRef& repository);
  // Whether the settings still ask for the walk's repository, types and databases.
  bool IsWalkStillWanted(const BrowserWalk& walk);
  void ObserveRepository(const AssetRepositoryRef& repository);
  void StopObserving();

  const ASSETBROWSERMODE _mode;

  std::atomic<std::int32_t> _jobGate{0}; // 0 idle, 1 in transition, 2 a job exists
  std::mutex _jobRefLock;
  JobRef _jobRef;
  JobRef _cancelledByReset; // the job that JobRefReset cancelled last, guarded by _jobRefLock
  std::mutex _triggerLock;
  std::shared_ptr<JobQueue> _mainQueue;
  JobRef _trigger;

  mutable SpinLock _lock; // guards the settings below
  BrowserGraphModelRef _graphModel;
  std::shared_ptr<const void> _lookupContext;
  std::weak_ptr<AssetRepositoryInterface> _lookupRepository;
  BuildEntryDelegate _builderDelegate;
  InitDataDelegate _initDataDelegate;
  BrowserFilterStrings _strings;
  bool _clearState = false;
  bool _showUnavailable = false;
  bool _updatesEnabled = false;
  bool _skipWatchfolders = false;
  bool _skipCommandAssets = false;
  bool _showHiddenFlaggedCommandAssets = false;
  MASTERFILTER _relevantMasterFilter = MASTERFILTER::ALL;
  std::int32_t _activeManager = 0;
  LENGTHUNITSYSTEM _lengthUnitSystem = LENGTHUNITSYSTEM::METRIC;
  IdSet _assetTypesFilter;
  IdSet _parentSelection;
  IdSet _selectionOnNextUpdate;
  IdSet _databaseMasterfilter;
  std::vector<AssetDescription> _smartSearch;
  std::vector<std::string> _searchStrings;
  AssetIntDelegate _commandRestrictionManager;
  AssetIntDelegate _defaultPresetPluginType;

  // Kept between jobs; one job at a time holds _walkLock (a cancelled job lets go soon).
  std::mutex _walkLock;
  BrowserWalk _walk;
  std::shared_ptr<ContentGeneration> _generation = std::make_shared<ContentGeneration>();
  std::unique_ptr<BrowserObservation> _observation;
};

} // namespace kelvo
