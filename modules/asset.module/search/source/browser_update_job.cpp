// The update job of a browser: START, the filter pipeline of an asset list over the assets kept
// from the last search, RESET, the sorted rows, SELECT and END.

#include <algorithm>
#include <ctime>

#include "asset/search/control_tokens.h"
#include "asset/search/display_strings.h"
#include "asset/search/result_model.h"
#include "asset/search/search_filter.h"
#include "asset/search/text_case.h"
#include "asset/types/category_asset.h"
#include "asset/types/metadata_asset_type.h"
#include "asset_browser_impl.h"
#include "kelvo/log.h"

namespace kelvo {
namespace {

namespace typeids {
const Id keyword{"net.kelvo.assettype.keyword"};
const Id category{"net.kelvo.assettype.category"};
const Id colorcategory{"net.kelvo.assettype.colorcategory"};
const Id nodecontext{"net.kelvo.assettype.nodecontext"};
const Id plugin{"net.kelvo.assettype.plugin"};
const Id file{"net.kelvo.assettype.file"};
const Id command{"net.kelvo.assettype.command"};
const Id database{"net.kelvo.assettype.database"};
const Id subtype{"net.kelvo.assettype.subtype"};
const Id preset{"net.kelvo.assettype.preset"};
const Id nodespace{"net.kelvo.assettype.nodespace"};
} // namespace typeids

const Id kFavouriteKeyword{"net.kelvo.keyword.favourite"};
const Id kMissingPlugin{"net.kelvo.asset.plugin.missing"};
const Id kInternalModulePlugin{"net.kelvo.asset.plugin.internalmodule"};
const InternedId kNodeHidden{"net.kelvo.description.data.info.hidden"};
const InternedId kFilterTags{"net.kelvo.node.base.filtertags"};
constexpr std::size_t kCancelCheckInterval = 500;

bool IsCancelledError(const Error& error) { return error.GetClass() == errors::OperationCancelledError; }

void LogJobError(const Error& error) {
  if (!IsCancelledError(error)) WarningOutput("AssetBrowser Error: @", error.ToString());
}

// Whether a node asset may be listed: not flagged hidden (unless hidden nodes are shown),
// supported by the host, and tagged for the object graph when it has filter tags at all.
Result<bool> IsNodeHidden(const AssetDescription& asset, const BrowserGraphModelRef& graphModel,
                          const std::shared_ptr<const void>& lookupContext) {
  KELVO_ASSIGN_OR_RETURN(std::optional<bool> hidden, ReadMeta<bool>(asset, kNodeHidden));
  if (hidden.value_or(false) && !g_showHiddenNodeAssets) return false;
  if (graphModel && !graphModel->AssetSupports(asset, lookupContext)) return false;
  KELVO_ASSIGN_OR_RETURN(std::optional<std::string> tags, ReadMeta<std::string>(asset, kFilterTags));
  return !tags || tags->empty() || tags->find("zepton") != std::string::npos;
}

// What the filter of one job knows beside the parsed filter.
struct AssetFilterContext {
  SearchFilter* filter = nullptr; // null without filter text
  TypeNameCache* cache = nullptr;
  bool localNoSmart = false;
  bool hasSmart = false;
  bool showSubContent = false;
  bool skipCommandAssets = false;
  bool showHiddenFlaggedCommandAssets = false;
  const IdSet* selection = nullptr;
  BrowserGraphModelRef graphModel;
  std::shared_ptr<const void> lookupContext;
};

Result<FILTERASSETRESULT> FilterAsset(AssetFacts& facts, std::string& reason, AssetFilterContext& context) {
  constexpr FILTERASSETRESULT SKIP = FILTERASSETRESULT::SKIP;
  const Id& type = facts.typeId;
  const Id& aid = facts.assetId;
  if (!facts.inWatchFolder && facts.categoryId == factids::uncategorized) {
    if (type == typeids::category) return SKIP;
    if (!context.hasSmart && (type == typeids::keyword || type == typeids::colorcategory ||
                              type == typeids::nodecontext || type == typeids::plugin))
      return SKIP;
  }
  if (context.localNoSmart && !context.selection->count(facts.categoryId)) return SKIP;
  if (type == typeids::keyword) {
    if (aid == kFavouriteKeyword) return SKIP;
  } else if (type == typeids::file) {
    if (aid == displayids::missingassets) return SKIP;
  } else if (type == typeids::category) {
    if (context.localNoSmart && context.showSubContent) return SKIP;
  } else if (type == typeids::colorcategory || type == typeids::database || type == typeids::subtype ||
             type == typeids::preset || type == typeids::nodespace) {
    return SKIP;
  } else if (type == displayids::nodetemplate) {
    KELVO_ASSIGN_OR_RETURN(bool shown, IsNodeHidden(facts.asset, context.graphModel, context.lookupContext));
    if (!shown) return SKIP;
  } else if (type == typeids::plugin) {
    if (aid == kMissingPlugin || (aid == kInternalModulePlugin && !g_assetBuilderSettings)) return SKIP;
  } else if (type == typeids::command) {
    if (context.skipCommandAssets) return SKIP;
    if (facts.commandHidden && !context.showHiddenFlaggedCommandAssets) return SKIP;
  }
  if (context.filter) {
    KELVO_ASSIGN_OR_RETURN(bool rejected, context.filter->Evaluate(facts.record, reason, *context.cache));
    if (rejected) return SKIP;
    if (context.localNoSmart && type != typeids::category) context.filter->AddMatchedCategory(facts.categoryId);
  }
  return FILTERASSETRESULT::ADD;
}

// The missing assets filter: an asset passes when it, through its dependencies followed
// recursively, or its keywords name the missing assets marker.
Result<FILTERASSETRESULT> FilterMissingAssets(const AssetFacts& facts, const AssetRepositoryRef& repository,
                                              const AssetFilterContext& context) {
  std::vector<AssetDescription> pending{facts.asset};
  std::unordered_set<Id> seen;
  bool hit = false;
  while (!pending.empty() && !hit) {
    const AssetDescription current = pending.back();
    pending.pop_back();
    KELVO_ASSIGN_OR_RETURN(std::optional<DataArray> array, ReadMeta<DataArray>(current, metaids::dependencies));
    if (!array) continue;
    for (const Data& entry : *array) {
      const auto* dependency = entry.GetPtr<AssetDependencyStruct>();
      if (!dependency || !seen.insert(dependency->assetIdAndVersion.first).second) continue;
      if (dependency->assetIdAndVersion.first == displayids::missingassets) {
        hit = true;
        break;
      }
      if (!repository) continue;
      KELVO_ASSIGN_OR_RETURN(AssetDescription found,
                             repository->FindLatestAsset(dependency->assetTypeId, dependency->assetIdAndVersion.first,
                                                         Id(), LATEST));
      if (found) pending.push_back(found);
    }
  }
  if (!hit) {
    for (const InternedId& key : {keywordids::keywords, keywordids::userkeywords}) {
      KELVO_ASSIGN_OR_RETURN(std::optional<DataArray> keywords, ReadMeta<DataArray>(facts.asset, key));
      for (const Id& id : IdsOf(keywords)) hit = hit || id == displayids::missingassets;
    }
  }
  if (!hit) return FILTERASSETRESULT::SKIP;
  KELVO_ASSIGN_OR_RETURN(bool shown, IsNodeHidden(facts.asset, context.graphModel, context.lookupContext));
  return shown ? FILTERASSETRESULT::ADD : FILTERASSETRESULT::SKIP;
}

std::vector<std::string_view> SplitWords(std::string_view text) {
  std::vector<std::string_view> words;
  for (std::size_t i = 0; i < text.size();) {
    while (i < text.size() && IsFilterSpace(text[i])) ++i;
    const std::size_t start = i;
    while (i < text.size() && !IsFilterSpace(text[i])) ++i;
    if (i > start) words.push_back(text.substr(start, i - start));
  }
  return words;
}

// Whether every asset that filter text next passes also passed previous: both are plain words
// (no keys, quotes, alternatives or counts), previous has no word twice, and each of its words
// stands, in place, inside the word of next. Every word is tested by containment, in names,
// keywords and tags alike, so a longer word passes fewer assets.
bool IsNarrowing(std::string_view previous, std::string_view next) {
  const auto plain = [](std::string_view text) { return text.find_first_of(":\"|") == std::string_view::npos; };
  if (!plain(previous) || !plain(next)) return false;
  const std::vector<std::string_view> before = SplitWords(previous), after = SplitWords(next);
  if (after.size() < before.size()) return false;
  for (std::size_t i = 0; i < after.size(); ++i)
    if (after[i].find_first_of("=<>") == 0) return false;
  for (std::size_t i = 0; i < before.size(); ++i) {
    if (ToUpperText(after[i]).find(ToUpperText(before[i])) == std::string::npos) return false;
    for (std::size_t j = 0; j < i; ++j)
      if (ToUpperText(before[j]) == ToUpperText(before[i])) return false;
  }
  return true;
}

} // namespace

Result<void> AssetBrowserImpl::RunUpdateJob(const std::weak_ptr<AssetBrowserInterface>& weak) {
  const std::shared_ptr<AssetBrowserImpl> self = std::static_pointer_cast<AssetBrowserImpl>(weak.lock());
  if (!self) return {};
  return self->UpdateJob();
}

Result<void> AssetBrowserImpl::UpdateJob() {
  const bool clearState = GetAndResetClearState();
  BuildEntryDelegate delegate;
  InitDataDelegate initData;
  AssetRepositoryRef repository;
  {
    std::lock_guard guard(_lock);
    delegate = _builderDelegate;
    initData = _initDataDelegate;
    repository = _lookupRepository.lock();
  }
  if (!delegate) return {};
  const AssetBrowserRef browser = shared_from_this();
  Result<Data> root = delegate(browser, BUILDBROWSERENTRYCOMMAND::START, Data(clearState),
                               Data(static_cast<std::int32_t>(_mode)), BrowserEntry());
  if (root.HasError()) {
    LogJobError(root.GetError());
    return {};
  }
  if (!repository) repository = AssetInterface::GetUserPrefsRepository();

  Result<void> done;
  if (initData) done = initData(browser);
  if (done.HasValue() && _mode == ASSETBROWSERMODE::ASSETS)
    done = RunFilterPipeline(*root, repository, delegate);
  if (done.HasError()) LogJobError(done.GetError());

  const bool cancelled = IsCurrentJobCancelled();
  if (!cancelled) {
    const IdSet selection = GetAndClearSelectionOnNextUpdate();
    if (!selection.empty()) {
      DataArray ids;
      for (const Id& id : selection) ids.push_back(Data(id));
      Result<Data> selected = delegate(browser, BUILDBROWSERENTRYCOMMAND::SELECT, *root, Data(std::move(ids)), BrowserEntry());
      if (selected.HasError()) LogJobError(selected.GetError());
    }
  }
  Result<Data> end = delegate(browser, BUILDBROWSERENTRYCOMMAND::END, *root, Data(cancelled), BrowserEntry());
  if (end.HasError()) LogJobError(end.GetError());
  return {};
}

Result<void> AssetBrowserImpl::RunFilterPipeline(const Data& root, const AssetRepositoryRef& repository,
                                                 const BuildEntryDelegate& delegate) {
  const JobSettings settings = ReadJobSettings();
  const BrowserFilterStrings& strings = settings.strings;
  KELVO_ASSIGN_OR_RETURN(std::string smart, GetSmartSearchString());
  std::string text = BuildFilterText(FilterStrings{strings.groupFilter, strings.sortFilter, strings.masterFilter, smart,
                                                   strings.filterString, strings.localFilterMode});
  KELVO_ASSIGN_OR_RETURN(ControlSettings control, ReadControlTokens(text, ASSETGROUPBY::TYPE));
  const bool localNoSmart = strings.localFilterMode && smart.empty();
  {
    std::lock_guard guard(_lock);
    _searchStrings.clear();
  }
  IdSet selection = settings.parentSelection;
  if (localNoSmart && selection.empty()) return {};

  // One job at a time uses the kept walk; a cancelled one lets go at its next check.
  std::lock_guard walkGuard(_walkLock);
  KELVO_ASSIGN_OR_RETURN(BrowserWalk * walk, FreshWalk(repository, settings));
  SearchFilter filter(settings.lengthUnitSystem);
  if (!text.empty()) {
    // The keywords and subtypes that the walk met spare the filter a search of its own.
    if (walk->hasKeywordsAndSubtypes) {
      KELVO_RETURN_ON_ERROR(filter.Parse(repository, text, walk->keywordsAndSubtypes, walk->reader.GetTypeNameCache()));
    } else {
      KELVO_RETURN_ON_ERROR(filter.Parse(repository, text));
    }
    std::lock_guard guard(_lock);
    for (const SearchTerm& term : filter.GetTerms())
      _searchStrings.insert(_searchStrings.end(), term.values.begin(), term.values.end());
  }
  if (localNoSmart && control.showSubContent) {
    // The categories below a selected one count as selected.
    std::unordered_map<Id, Id> parents;
    KELVO_RETURN_ON_ERROR(repository->FindAssets(
        TypeArray{typeids::category}, Id(), Id(), LATEST | RANDOMIZED_ORDER | CHECK_CANCELLATION,
        [&](const AssetDescription& category) -> Result<bool> {
          KELVO_ASSIGN_OR_RETURN(Id parent, CategoryAssetInterface::GetParentCategory(category));
          parents.emplace(category->GetIdAndVersion().first, parent);
          return true;
        }));
    const IdSet selected = selection;
    for (const auto& [id, parent] : parents) {
      std::unordered_set<Id> seen{id};
      for (Id up = parent; !up.IsEmpty() && seen.insert(up).second;) {
        if (selected.count(up)) {
          selection.insert(id);
          break;
        }
        const auto next = parents.find(up);
        up = next == parents.end() ? Id() : next->second;
      }
    }
  }

  AssetFilterContext context;
  context.filter = filter.GetTerms().empty() ? nullptr : &filter;
  context.cache = &walk->reader.GetTypeNameCache();
  context.localNoSmart = localNoSmart;
  context.hasSmart = !smart.empty();
  context.showSubContent = control.showSubContent;
  context.skipCommandAssets = settings.skipCommandAssets;
  context.showHiddenFlaggedCommandAssets = settings.showHiddenFlaggedCommandAssets;
  context.selection = &selection;
  context.graphModel = settings.graphModel;
  context.lookupContext = settings.lookupContext;

  GroupingSettings grouping;
  grouping.groupBy = control.groupBy;
  grouping.config.sortBy = control.sortBy;
  grouping.config.sortOrder = control.sortOrder;
  grouping.config.sortFirst = control.sortFirst;
  grouping.config.relevantItems = control.relevantItems;
  grouping.config.context = control.relevanceContext;
  grouping.filterString = strings.filterString;
  grouping.relevance = settings.relevance;
  grouping.today = UniversalDateTime::GetNow();
  GroupingAdder adder(grouping, walk->reader);
  adder.ReuseRows(walk->spareRows);

  // Everything beside the words that decides which assets pass.
  const std::string passContext =
      std::to_string(control.missingAssets) + std::to_string(localNoSmart) + std::to_string(context.hasSmart) +
      std::to_string(control.showSubContent) + std::to_string(settings.skipCommandAssets) +
      std::to_string(settings.showHiddenFlaggedCommandAssets) + std::to_string(g_assetBuilderSettings.Get()) +
      std::to_string(g_showHiddenNodeAssets.Get()) +
      std::to_string(reinterpret_cast<std::uintptr_t>(settings.graphModel.get())) + "/" +
      std::to_string(reinterpret_cast<std::uintptr_t>(settings.lookupContext.get()));
  const bool narrowing = walk->passedValid && !localNoSmart && !control.missingAssets &&
                         walk->passedContext == passContext && IsNarrowing(walk->passedText, text);
  std::vector<std::uint32_t> passed;
  std::string reason;
  const auto test = [&](std::uint32_t index) {
    AssetFacts& facts = walk->assets[index];
    reason.clear();
    // An asset that can't be read is left out; the others go on.
    Result<FILTERASSETRESULT> decided = control.missingAssets ? FilterMissingAssets(facts, repository, context)
                                                              : FilterAsset(facts, reason, context);
    if (decided.HasError() || *decided == FILTERASSETRESULT::SKIP) return;
    passed.push_back(index);
    (void)adder.Add(facts, std::move(reason)).HasValue();
  };
  const std::size_t candidates = narrowing ? walk->passed.size() : walk->assets.size();
  adder.ExpectRows(candidates);
  for (std::size_t i = 0; i < candidates; ++i) {
    if ((i + 1) % kCancelCheckInterval == 0 && IsCurrentJobCancelled()) return OperationCancelledError();
    test(narrowing ? walk->passed[i] : static_cast<std::uint32_t>(i));
  }
  if (IsCurrentJobCancelled()) return OperationCancelledError();
  walk->passed = std::move(passed);
  walk->passedText = text;
  walk->passedContext = passContext;
  walk->passedValid = true;

  const AssetBrowserRef browser = shared_from_this();
  KELVO_ASSIGN_OR_RETURN(Data listParent,
                         delegate(browser, BUILDBROWSERENTRYCOMMAND::RESET, root, Data(), BrowserEntry()));
  // A row is not handed over once the job is cancelled: a newer job owns the list.
  const BuildEntryDelegate guarded = [&delegate](const AssetBrowserRef& b, BUILDBROWSERENTRYCOMMAND command,
                                                 const Data& parent, const Data& payload,
                                                 const BrowserEntry& entry) -> Result<Data> {
    if (IsCurrentJobCancelled()) return OperationCancelledError();
    return delegate(b, command, parent, payload, entry);
  };
  DeliveryContext delivery{browser, _mode, settings.skipWatchfolders, [] { return IsCurrentJobCancelled(); }};
  BrowserEntryList groups = adder.TakeGroups();
  KELVO_RETURN_ON_ERROR(DeliverEntries(delivery, groups, listParent, guarded, GetGroupListConfig(grouping), nullptr));
  return FillRecords(*walk, repository, settings.lengthUnitSystem);
}

Result<void> AssetBrowserImpl::FillRecords(BrowserWalk& walk, const AssetRepositoryRef& repository,
                                           LENGTHUNITSYSTEM lengthUnitSystem) {
  // Read now, before END, what the next filters would read at their first pass over all assets
  // (keywords, tags, subtypes, sizes), so that typing does not pay for it. A new setting stops
  // this at the next check; the next job goes on from there after its own rows.
  if (walk.filled >= walk.assets.size()) return {};
  SearchFilter filler(lengthUnitSystem);
  // Keyword names are looked up in the repository the filters search.
  KELVO_RETURN_ON_ERROR(filler.Parse(repository, ""));
  TypeNameCache& cache = walk.reader.GetTypeNameCache();
  for (std::size_t i = walk.filled; i < walk.assets.size(); ++i) {
    if ((i + 1) % kCancelCheckInterval == 0) {
      walk.filled = i;
      if (IsCurrentJobCancelled()) return OperationCancelledError();
    }
    // A value that can't be read stays unread; the evaluation that needs it meets the error.
    (void)filler.Fill(walk.assets[i].record, cache).HasValue();
  }
  walk.filled = walk.assets.size();
  return {};
}

Result<BrowserWalk*> AssetBrowserImpl::FreshWalk(const AssetRepositoryRef& repository, const JobSettings& settings) {
  BrowserWalk& walk = _walk;
  const std::uint64_t generation = _generation->value.load();
  const LanguageRef language = Language::GetCurrentLanguage();
  if (walk.complete && walk.generation == generation && walk.repository.lock() == repository &&
      walk.types == settings.types && walk.excluded == settings.excluded &&
      walk.showUnavailable == settings.showUnavailable && walk.builderSettings == g_assetBuilderSettings.Get() &&
      walk.language == language)
    return &walk;
  if (walk.repository.lock() != repository) ObserveRepository(repository);
  walk.complete = false;
  walk.passedValid = false;
  walk.filled = 0;
  walk.spareRows->clear();
  walk.assets.clear();
  walk.keywordsAndSubtypes.clear();
  walk.hasKeywordsAndSubtypes = false;
  walk.reader.Clear();
  walk.repository = repository;
  walk.types = settings.types;
  walk.excluded = settings.excluded;
  walk.showUnavailable = settings.showUnavailable;
  walk.builderSettings = g_assetBuilderSettings.Get();
  walk.language = language;
  // A change stored while the walk runs leaves it stale for the next job.
  walk.generation = _generation->value.load();
  KELVO_RETURN_ON_ERROR(Walk(walk, repository));
  walk.hasKeywordsAndSubtypes = walk.types.empty() && walk.excluded.empty();
  walk.complete = true;
  return &walk;
}

Result<void> AssetBrowserImpl::Walk(BrowserWalk& walk, const AssetRepositoryRef& repository) {
  // The columns that every row reads, loaded at once where a repository keeps them in batches.
  std::unordered_set<const AssetRepositoryInterface*> visited;
  const InternedId names = AssetInterface::GetLanguageMetaDataId(Id(walk.language->GetIdentifier()));
  for (const InternedId& column : {names, metaids::subtype, metaids::category, typenameids::sort}) {
    visited.clear();
    KELVO_RETURN_ON_ERROR(repository->PrivatePrefetchMetaData(column, AssetMetaData::PERSISTENT, LATEST, visited));
  }
  const IdSet& excluded = walk.excluded;
  std::size_t count = 0;
  const auto receiver = [&](const AssetDescription& found) -> Result<bool> {
    // A job cancelled for a new filter text finishes the walk for the job after it, which waits.
    if (++count % kCancelCheckInterval == 0 && IsCurrentJobCancelled() && !IsWalkStillWanted(walk))
      return OperationCancelledError();
    AssetDescription asset = found;
    const Id type = asset->GetTypeId();
    if (type == typeids::keyword || type == typeids::subtype) walk.keywordsAndSubtypes.push_back(asset);
    if (!excluded.empty() && excluded.count(asset->GetRepositoryId())) {
      // Listed from another repository that holds it, when one does.
      AssetDescription replacement;
      const Id own = asset->GetRepositoryId();
      Result<bool> searched = repository->FindAssets(
          TypeArray{asset->GetTypeId()}, asset->GetIdAndVersion().first, Id(), ALL | CHECK_CANCELLATION,
          [&](const AssetDescription& other) -> Result<bool> {
            if (other->GetRepositoryId() == own || excluded.count(other->GetRepositoryId())) return true;
            replacement = other;
            return false;
          });
      if (searched.HasError() || !replacement) return true;
      asset = std::move(replacement);
    }
    // An asset that can't be read is left out; the search goes on.
    if (!walk.builderSettings) {
      Result<bool> visible = AssetInterface::IsAssetVisible(asset);
      if (visible.HasError() || !*visible) return true;
    }
    if (!walk.showUnavailable) {
      Result<bool> valid = AssetInterface::IsAssetValid(asset);
      if (valid.HasError() || !*valid) return true;
    }
    Result<AssetFacts> facts = walk.reader.Read(asset, repository);
    if (facts.HasValue()) walk.assets.push_back(std::move(*facts));
    return true;
  };
  const auto visibility = [&](const AssetRepositoryRef& r) -> Result<bool> {
    if (IsCurrentJobCancelled() && !IsWalkStillWanted(walk)) return OperationCancelledError();
    return !excluded.count(r->GetId());
  };
  // The walk tests cancellation itself, per repository and per 500 assets, so that it can
  // outlive a cancellation that only changed the filter text.
  KELVO_RETURN_ON_ERROR(repository->FindAssets(
      walk.types, Id(), Id(), LATEST | RANDOMIZED_ORDER | PRIVATE_QUERY_REPOSITORY_VISIBILITY, receiver, visibility));
  return {};
}

bool AssetBrowserImpl::IsWalkStillWanted(const BrowserWalk& walk) {
  {
    // Only a restart of this browser lets a walk run on; the end of the queue does not.
    std::lock_guard guard(_jobRefLock);
    if (!(_cancelledByReset == GetCurrentJob())) return false;
  }
  std::lock_guard guard(_lock);
  if (!_updatesEnabled || !_builderDelegate || walk.showUnavailable != _showUnavailable ||
      walk.excluded != _databaseMasterfilter || walk.types.size() != _assetTypesFilter.size())
    return false;
  for (const Id& type : walk.types)
    if (!_assetTypesFilter.count(type)) return false;
  const AssetRepositoryRef lookup = _lookupRepository.lock();
  return !lookup || walk.repository.lock() == lookup;
}

void AssetBrowserImpl::ObserveRepository(const AssetRepositoryRef& repository) {
  StopObserving();
  if (!repository) return;
  auto observation = std::make_unique<BrowserObservation>();
  observation->repository = repository;
  const std::shared_ptr<ContentGeneration> generation = _generation;
  const auto bump = [generation](const AssetDescription&) { ++generation->value; };
  observation->stored = repository->ObservableAssetStored(true);
  observation->erased = repository->ObservableAssetErased(true);
  observation->updated = repository->ObservableAssetUpdated(true);
  observation->metaData = repository->ObservableMetaDataStored(true);
  observation->bases = repository->ObservableBaseChanged(true);
  if (observation->stored) observation->storedToken = observation->stored->AddObserver(bump);
  if (observation->erased) observation->erasedToken = observation->erased->AddObserver(bump);
  if (observation->updated) observation->updatedToken = observation->updated->AddObserver(bump);
  if (observation->metaData)
    observation->metaDataToken = observation->metaData->AddObserver(
        [generation](const AssetDescription&, const InternedId&, std::uint32_t kind, const Data&, const Data&) {
          // Derived values that searches cache (tag strings) change no row.
          if (!(kind & AssetMetaData::DERIVED)) ++generation->value;
        });
  if (observation->bases)
    observation->basesToken = observation->bases->AddObserver(
        [generation](const AssetRepositoryRef&, bool) { ++generation->value; });
  _observation = std::move(observation);
}

void AssetBrowserImpl::StopObserving() {
  if (!_observation) return;
  BrowserObservation& o = *_observation;
  if (o.stored) o.stored->RemoveObserver(o.storedToken);
  if (o.erased) o.erased->RemoveObserver(o.erasedToken);
  if (o.updated) o.updated->RemoveObserver(o.updatedToken);
  if (o.metaData) o.metaData->RemoveObserver(o.metaDataToken);
  if (o.bases) o.bases->RemoveObserver(o.basesToken);
  _observation.reset();
}

} // namespace kelvo
