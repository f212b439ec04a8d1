#pragma once
// The browser object behind an asset panel. A panel creates one browser with a mode, gives it an
// entry delegate and filter settings, and then receives a stream of entry commands: START,
// RESET, ADD for every row, SELECT, END. Any change of a setting cancels what runs and starts one
// new update job on the default queue, through a trigger on the main thread queue. Setters and
// getters may be called from any thread and never wait for a job.
//
// Between updates a browser keeps, besides its settings, what the next filter can reuse: the
// assets found across the repositories with their texts. Any change stored in those
// repositories makes it stale, and the next job searches again.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "asset/core/assetrepository.h"
#include "asset/search/browser_entry.h"
#include "asset/search/relevance_ranking.h"
#include "asset/search/search_enums.h"
#include "kelvo/config.h"
#include "kelvo/data.h"
#include "kelvo/result.h"

namespace kelvo {

// Lists assets that are hidden or internal for the users of a finished application.
extern ConfigBool g_assetBuilderSettings;
// Lists node templates flagged hidden.
extern ConfigBool g_showHiddenNodeAssets;

inline const Id g_assetBrowserClassId{"net.kelvo.class.assetbrowser"};
inline const Id g_assetBrowserInterfaceId{"net.kelvo.interface.assetbrowser"};

// The host's node graph as a browser sees it: the repository to search and the context that
// decides which node assets the host supports. Called on the main thread queue only.
class BrowserGraphModelInterface {
public:
  virtual ~BrowserGraphModelInterface() = default;
  virtual AssetRepositoryRef GetLookupRepository() const = 0;
  virtual std::shared_ptr<const void> GetLookupContext() const = 0;
  // Whether the host supports a node asset in context (a false answer hides it from the list).
  virtual bool AssetSupports(const AssetDescription& asset, const std::shared_ptr<const void>& context) const = 0;
  // Whether a node template makes a scene object (relevance ranking).
  virtual bool IsObjectNodeAsset(const AssetDescription& asset) const = 0;
};
using BrowserGraphModelRef = std::shared_ptr<BrowserGraphModelInterface>;

// The graph model of a host without a node graph (a tool, a test): one repository to search, no
// lookup context, every asset supported and no node asset making scene objects.
class RepositoryGraphModelImpl final : public BrowserGraphModelInterface {
public:
  explicit RepositoryGraphModelImpl(AssetRepositoryRef repository) : _repository(std::move(repository)) {}
  AssetRepositoryRef GetLookupRepository() const override { return _repository; }
  std::shared_ptr<const void> GetLookupContext() const override { return nullptr; }
  bool AssetSupports(const AssetDescription&, const std::shared_ptr<const void>&) const override { return true; }
  bool IsObjectNodeAsset(const AssetDescription&) const override { return false; }

private:
  AssetRepositoryRef _repository;
};

using IdSet = std::unordered_set<Id>;
using InitDataDelegate = std::function<Result<void>(const AssetBrowserRef& browser)>;

struct BrowserFilterStrings {
  std::string masterFilter;
  std::string groupFilter;
  std::string sortFilter;
  std::string filterString;
  bool localFilterMode = false;
};

class AssetBrowserInterface : public std::enable_shared_from_this<AssetBrowserInterface> {
public:
  virtual ~AssetBrowserInterface() = default;

  // A browser of mode with updates disabled, all flags false and all sets empty. Fails only when
  // the main thread queue can't be had.
  static Result<AssetBrowserRef> Create(ASSETBROWSERMODE mode);

  // ---- setters that restart the update (an equal value changes nothing) ----
  virtual void SetAssetTypesFilter(const IdSet& assetTypes) = 0;
  virtual void SetParentSelection(const IdSet& parentSelection, const IdSet& selectOnNextUpdate) = 0;
  // The same, leaving the selection to report after the next job as it is.
  virtual void SetParentSelection(const IdSet& parentSelection) = 0;
  virtual void SetDatabaseMasterfilter(const IdSet& masterFilterDatabaseIds) = 0;
  virtual void SetSmartSearch(const std::vector<AssetDescription>& smartSearch) = 0;
  virtual void DoFiltering(const std::string& masterFilter, const std::string& groupFilter,
                           const std::string& sortFilter, const std::string& filterString, bool localFilterMode,
                           bool showUnavailable) = 0;
  virtual void SetSelectionOnNextUpdate(const IdSet& selectOnNextUpdate) = 0;
  virtual void SetGraphModel(const BrowserGraphModelRef& graphModel) = 0;
  virtual void SetBuildEntryDelegate(const BuildEntryDelegate& builderDelegate) = 0;

  // ---- setters that only store ----
  virtual void SkipWatchfolders(bool skip) = 0;
  virtual void SkipCommandAssets(bool skip) = 0;
  virtual void ShowHiddenFlaggedCommandAssets(bool show) = 0;
  virtual void SetLengthUnitSystem(LENGTHUNITSYSTEM system) = 0;
  virtual void SetInitDataDelegate(const InitDataDelegate& delegate) = 0;
  virtual void SetRelevantMasterFilter(MASTERFILTER filter) = 0;
  virtual void SetActiveManager(std::int32_t managerId) = 0;
  virtual void SetGetCommandRestrictionManagerDelegate(const AssetIntDelegate& delegate) = 0;
  virtual void SetGetAssetDefaultPresetPluginTypeDelegate(const AssetIntDelegate& delegate) = 0;

  // ---- getters ----
  virtual bool GetShowHiddenFlaggedCommandAssets() const = 0;
  virtual ASSETBROWSERMODE GetBrowseMode() const = 0;
  // The repository last taken from the graph model; null when it is gone.
  virtual AssetRepositoryRef GetLookupRepository() const = 0;
  virtual IdSet GetAssetTypesFilter() const = 0;
  virtual IdSet GetParentSelection() const = 0;
  virtual IdSet GetDatabaseMasterfilter() const = 0;
  virtual BrowserFilterStrings GetFilterStrings() const = 0;
  virtual std::string GetFilterString() const = 0;
  // The values of the last parsed filter, for highlighting.
  virtual std::vector<std::string> GetSearchStrings() const = 0;
  // The smart search selection as filter text. Errors of metadata reads are returned.
  virtual Result<std::string> GetSmartSearchString() const = 0;

  // ---- update control ----
  // Moves the selection to report out; it is empty afterwards.
  virtual IdSet GetAndClearSelectionOnNextUpdate() = 0;
  // Reads the clear state and sets it false.
  virtual bool GetAndResetClearState() = 0;
  // Restarts the update with the settings as they are.
  virtual void RequestAssetBrowserUpdate() = 0;
  virtual void EnableUpdates(bool enableUpdates) = 0;
  // Cancels the update job, and with wait waits until it has ended.
  virtual void JobRefReset(bool wait) = 0;
  // Copies the filter strings, selections, smart search and filters of source; starts nothing.
  // Errors: illegalargument for a null source.
  virtual Result<void> CopySettingsFrom(const AssetBrowserRef& source) = 0;
};

} // namespace kelvo
