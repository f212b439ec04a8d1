#include "asset_browser_impl.h"

#include <thread>

#include "asset/search/control_tokens.h"
#include "asset/types/category_asset.h"
#include "asset/types/keyword_asset.h"
#include "asset/types/metadata_asset_type.h"
#include "asset/types/smart_search_asset.h"
#include "kelvo/log.h"

namespace kelvo {

ConfigBool g_assetBuilderSettings("g_assetBuilderSettings", false, 1, "");
ConfigBool g_showHiddenNodeAssets("g_showHiddenNodeAssets", false, 6, "");

namespace {

// Waits in rising steps while another thread finishes a transition of the job gate.
void BackOff(int& round) {
  if (++round < 16) return;
  if (round < 64) std::this_thread::yield();
  else std::this_thread::sleep_for(std::chrono::microseconds(std::min(round - 63, 100)));
}

} // namespace

Result<AssetBrowserRef> AssetBrowserInterface::Create(ASSETBROWSERMODE mode) {
  auto browser = std::make_shared<AssetBrowserImpl>(mode);
  KELVO_RETURN_ON_ERROR(browser->BindUpdateTrigger());
  return AssetBrowserRef(std::move(browser));
}

AssetBrowserImpl::AssetBrowserImpl(ASSETBROWSERMODE mode) : _mode(mode) {}

AssetBrowserImpl::~AssetBrowserImpl() {
  {
    std::lock_guard guard(_triggerLock);
    if (_trigger) _trigger.Cancel();
  }
  // The job holds only a weak reference; it ends at its next look at the browser or at the
  // cancel flag. Waiting here keeps it from touching the walk after it has gone.
  JobRefReset(true);
  std::lock_guard walk(_walkLock);
  StopObserving();
}

Result<void> AssetBrowserImpl::BindUpdateTrigger() {
  _mainQueue = JobQueue::GetMainThreadQueue();
  if (!_mainQueue) return IllegalStateError("Illegal state: Condition mainQueue not fulfilled. ");
  return {};
}

void AssetBrowserImpl::Restart(std::unique_lock<SpinLock>& locked) {
  const bool enabled = _updatesEnabled;
  locked.unlock();
  JobRefReset(false);
  if (enabled) FireUpdateTrigger();
}

void AssetBrowserImpl::FireUpdateTrigger() {
  std::lock_guard guard(_triggerLock);
  // A trigger that still waits never runs. One that runs is not waited for: the main thread
  // queue runs one job at a time, so the new trigger follows it, and the caller never waits.
  if (_trigger) _trigger.Cancel();
  std::weak_ptr<AssetBrowserInterface> weak = weak_from_this();
  Result<JobRef> queued = _mainQueue->Enqueue([weak]() -> Result<void> {
    if (auto self = std::static_pointer_cast<AssetBrowserImpl>(weak.lock())) self->TriggerFunction();
    return {};
  });
  if (queued.HasError()) {
    WarningOutput("AssetBrowser Error: @", queued.GetError().ToString());
    _trigger = JobRef();
    return;
  }
  _trigger = *queued;
}

void AssetBrowserImpl::TriggerFunction() {
  std::unique_lock locked(_lock);
  AssetRepositoryRef repository;
  std::shared_ptr<const void> context;
  if (_graphModel) {
    const BrowserGraphModelRef model = _graphModel;
    locked.unlock();
    repository = model->GetLookupRepository();
    context = model->GetLookupContext();
    locked.lock();
  }
  const bool changed = context != _lookupContext || repository != _lookupRepository.lock();
  if (changed) {
    _lookupContext = context;
    _lookupRepository = repository;
  }
  const bool hasDelegate = static_cast<bool>(_builderDelegate);
  locked.unlock();
  if (changed) JobRefReset(false);
  if (!hasDelegate || _jobGate.load() == 2) return;

  int round = 0;
  for (std::int32_t idle = 0; !_jobGate.compare_exchange_weak(idle, 1); idle = 0) {
    if (idle == 2) return; // another trigger started a job meanwhile
    BackOff(round);
  }
  std::weak_ptr<AssetBrowserInterface> weak = weak_from_this();
  Result<JobRef> job = JobQueue::GetDefaultQueue()->Enqueue([weak] { return RunUpdateJob(weak); });
  if (job.HasError()) {
    WarningOutput("AssetBrowser Error: @", job.GetError().ToString());
    _jobGate.store(0);
    return;
  }
  {
    std::lock_guard guard(_jobRefLock);
    _jobRef = *job;
  }
  _jobGate.store(2);
}

void AssetBrowserImpl::JobRefReset(bool wait) {
  if (_jobGate.load() == 0) return;
  int round = 0;
  for (std::int32_t existing = 2; !_jobGate.compare_exchange_weak(existing, 1); existing = 2) {
    if (existing == 0) return;
    BackOff(round);
  }
  JobRef job;
  {
    std::lock_guard guard(_jobRefLock);
    job = std::exchange(_jobRef, JobRef());
    _cancelledByReset = job;
  }
  if (job) {
    job.Cancel();
    // A job that calls this on its own thread must not wait for itself.
    if (wait && !(GetCurrentJob() == job)) (void)job.Wait();
  }
  _jobGate.store(0);
}

// ---- setters that restart ----

void AssetBrowserImpl::SetAssetTypesFilter(const IdSet& assetTypes) {
  std::unique_lock locked(_lock);
  if (_assetTypesFilter == assetTypes) return;
  _assetTypesFilter = assetTypes;
  _clearState = true;
  Restart(locked);
}

void AssetBrowserImpl::SetParentSelection(const IdSet& parentSelection, const IdSet& selectOnNextUpdate) {
  std::unique_lock locked(_lock);
  if (_parentSelection == parentSelection && _selectionOnNextUpdate == selectOnNextUpdate) return;
  _parentSelection = parentSelection;
  if (&selectOnNextUpdate != &_selectionOnNextUpdate) _selectionOnNextUpdate = selectOnNextUpdate;
  _clearState = true;
  Restart(locked);
}

void AssetBrowserImpl::SetParentSelection(const IdSet& parentSelection) {
  std::unique_lock locked(_lock);
  if (_parentSelection == parentSelection) return;
  _parentSelection = parentSelection;
  _clearState = true;
  Restart(locked);
}

void AssetBrowserImpl::SetDatabaseMasterfilter(const IdSet& masterFilterDatabaseIds) {
  std::unique_lock locked(_lock);
  if (_databaseMasterfilter == masterFilterDatabaseIds) return;
  _databaseMasterfilter = masterFilterDatabaseIds;
  _clearState = true;
  Restart(locked);
}

void AssetBrowserImpl::SetSmartSearch(const std::vector<AssetDescription>& smartSearch) {
  std::unique_lock locked(_lock);
  if (_smartSearch == smartSearch) return;
  _smartSearch = smartSearch;
  _clearState = true;
  Restart(locked);
}

void AssetBrowserImpl::DoFiltering(const std::string& masterFilter, const std::string& groupFilter,
                                   const std::string& sortFilter, const std::string& filterString,
                                   bool localFilterMode, bool showUnavailable) {
  std::unique_lock locked(_lock);
  if (_strings.filterString == filterString && _strings.localFilterMode == localFilterMode &&
      _strings.masterFilter == masterFilter && _strings.groupFilter == groupFilter &&
      _strings.sortFilter == sortFilter && _showUnavailable == showUnavailable)
    return;
  _strings = BrowserFilterStrings{masterFilter, groupFilter, sortFilter, filterString, localFilterMode};
  _showUnavailable = showUnavailable;
  _clearState = true;
  Restart(locked);
}

void AssetBrowserImpl::SetSelectionOnNextUpdate(const IdSet& selectOnNextUpdate) {
  std::unique_lock locked(_lock);
  if (_selectionOnNextUpdate == selectOnNextUpdate) return;
  _selectionOnNextUpdate = selectOnNextUpdate;
  Restart(locked);
}

void AssetBrowserImpl::SetGraphModel(const BrowserGraphModelRef& graphModel) {
  std::unique_lock locked(_lock);
  _graphModel = graphModel;
  Restart(locked);
}

void AssetBrowserImpl::SetBuildEntryDelegate(const BuildEntryDelegate& builderDelegate) {
  JobRefReset(false);
  std::unique_lock locked(_lock);
  _builderDelegate = builderDelegate;
  Restart(locked);
}

// ---- setters that only store ----

void AssetBrowserImpl::SkipWatchfolders(bool skip) {
  std::lock_guard guard(_lock);
  _skipWatchfolders = skip;
}
void AssetBrowserImpl::SkipCommandAssets(bool skip) {
  std::lock_guard guard(_lock);
  _skipCommandAssets = skip;
}
void AssetBrowserImpl::ShowHiddenFlaggedCommandAssets(bool show) {
  std::lock_guard guard(_lock);
  _showHiddenFlaggedCommandAssets = show;
}
void AssetBrowserImpl::SetLengthUnitSystem(LENGTHUNITSYSTEM system) {
  std::lock_guard guard(_lock);
  _lengthUnitSystem = system;
}
void AssetBrowserImpl::SetInitDataDelegate(const InitDataDelegate& delegate) {
  std::lock_guard guard(_lock);
  _initDataDelegate = delegate;
}
void AssetBrowserImpl::SetRelevantMasterFilter(MASTERFILTER filter) {
  std::lock_guard guard(_lock);
  _relevantMasterFilter = filter;
}
void AssetBrowserImpl::SetActiveManager(std::int32_t managerId) {
  std::lock_guard guard(_lock);
  _activeManager = managerId;
}
void AssetBrowserImpl::SetGetCommandRestrictionManagerDelegate(const AssetIntDelegate& delegate) {
  std::lock_guard guard(_lock);
  _commandRestrictionManager = delegate;
}
void AssetBrowserImpl::SetGetAssetDefaultPresetPluginTypeDelegate(const AssetIntDelegate& delegate) {
  std::lock_guard guard(_lock);
  _defaultPresetPluginType = delegate;
}

// ---- getters ----

bool AssetBrowserImpl::GetShowHiddenFlaggedCommandAssets() const {
  std::lock_guard guard(_lock);
  return _showHiddenFlaggedCommandAssets;
}
AssetRepositoryRef AssetBrowserImpl::GetLookupRepository() const {
  std::lock_guard guard(_lock);
  return _lookupRepository.lock();
}
IdSet AssetBrowserImpl::GetAssetTypesFilter() const {
  std::lock_guard guard(_lock);
  return _assetTypesFilter;
}
IdSet AssetBrowserImpl::GetParentSelection() const {
  std::lock_guard guard(_lock);
  return _parentSelection;
}
IdSet AssetBrowserImpl::GetDatabaseMasterfilter() const {
  std::lock_guard guard(_lock);
  return _databaseMasterfilter;
}
BrowserFilterStrings AssetBrowserImpl::GetFilterStrings() const {
  std::lock_guard guard(_lock);
  return _strings;
}
std::string AssetBrowserImpl::GetFilterString() const {
  std::lock_guard guard(_lock);
  return _strings.filterString;
}
std::vector<std::string> AssetBrowserImpl::GetSearchStrings() const {
  std::lock_guard guard(_lock);
  return _searchStrings;
}

Result<std::string> AssetBrowserImpl::GetSmartSearchString() const {
  std::vector<AssetDescription> assets;
  MASTERFILTER relevant;
  {
    std::lock_guard guard(_lock);
    assets = _smartSearch;
    relevant = _relevantMasterFilter;
  }
  // Metadata is read outside the spin lock; the array is a snapshot of the selection.
  std::string text;
  for (const AssetDescription& asset : assets) {
    if (!asset) continue;
    std::string piece;
    const Id type = asset->GetTypeId();
    if (type == SmartSearchAssetInterface::TypeId()) {
      KELVO_ASSIGN_OR_RETURN(std::optional<std::string> stored, ReadMeta<std::string>(asset, smartsearchids::filter));
      piece = SmartSearchPiece(stored.value_or(std::string()), relevant);
    } else if (type == KeywordAssetInterface::TypeId()) {
      piece = KeywordSearchPiece(asset->GetIdAndVersion().first.View());
    } else if (type == CategoryAssetInterface::TypeId()) {
      piece = CategorySearchPiece(asset->GetIdAndVersion().first.View());
    }
    if (piece.empty()) continue;
    if (!text.empty()) text += ' ';
    text += piece;
  }
  return text;
}

// ---- update control ----

IdSet AssetBrowserImpl::GetAndClearSelectionOnNextUpdate() {
  std::lock_guard guard(_lock);
  return std::exchange(_selectionOnNextUpdate, IdSet());
}

bool AssetBrowserImpl::GetAndResetClearState() {
  std::lock_guard guard(_lock);
  return std::exchange(_clearState, false);
}

void AssetBrowserImpl::RequestAssetBrowserUpdate() {
  JobRefReset(false);
  bool enabled;
  {
    std::lock_guard guard(_lock);
    enabled = _updatesEnabled;
  }
  if (enabled) FireUpdateTrigger();
}

void AssetBrowserImpl::EnableUpdates(bool enableUpdates) {
  {
    std::lock_guard guard(_lock);
    if (_updatesEnabled == enableUpdates) return;
    _updatesEnabled = enableUpdates;
  }
  if (!enableUpdates) {
    JobRefReset(false);
    return;
  }
  if (_jobGate.load() == 2) return;
  FireUpdateTrigger();
}

Result<void> AssetBrowserImpl::CopySettingsFrom(const AssetBrowserRef& source) {
  if (!source) return IllegalArgumentError("Illegal argument: Condition source not fulfilled. ");
  auto* other = dynamic_cast<AssetBrowserImpl*>(source.get());
  if (!other) return IllegalArgumentError("Illegal argument: Condition source is a browser of this module not fulfilled. ");
  if (other == this) return {};
  std::lock_guard sourceGuard(other->_lock);
  std::lock_guard guard(_lock);
  _strings = other->_strings;
  _parentSelection = other->_parentSelection;
  _searchStrings = other->_searchStrings;
  _smartSearch = other->_smartSearch;
  _databaseMasterfilter = other->_databaseMasterfilter;
  _assetTypesFilter = other->_assetTypesFilter;
  _selectionOnNextUpdate = other->_selectionOnNextUpdate;
  return {};
}

AssetBrowserImpl::JobSettings AssetBrowserImpl::ReadJobSettings() {
  std::lock_guard guard(_lock);
  JobSettings s;
  s.strings = _strings;
  s.showUnavailable = _showUnavailable;
  s.skipWatchfolders = _skipWatchfolders;
  s.skipCommandAssets = _skipCommandAssets;
  s.showHiddenFlaggedCommandAssets = _showHiddenFlaggedCommandAssets;
  s.lengthUnitSystem = _lengthUnitSystem;
  s.types.assign(_assetTypesFilter.begin(), _assetTypesFilter.end());
  std::sort(s.types.begin(), s.types.end());
  s.excluded = _databaseMasterfilter;
  s.parentSelection = _parentSelection;
  s.graphModel = _graphModel;
  s.lookupContext = _lookupContext;
  s.relevance.activeManager = _activeManager;
  s.relevance.commandRestrictionManager = _commandRestrictionManager;
  s.relevance.defaultPresetPluginType = _defaultPresetPluginType;
  if (const BrowserGraphModelRef model = _graphModel)
    s.relevance.isObjectNodeAsset = [model](const AssetDescription& asset) { return model->IsObjectNodeAsset(asset); };
  return s;
}

} // namespace kelvo
