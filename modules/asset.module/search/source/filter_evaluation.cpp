#include "filter_evaluation.h"

#include <algorithm>
#include <unordered_set>

#include "asset/search/display_strings.h"
#include "asset/search/text_case.h"
#include "asset/search/value_forms.h"
#include "asset/types/category_asset.h"
#include "asset/types/command_asset.h"
#include "asset/types/keyword_asset.h"
#include "asset/types/marker_assets.h"
#include "asset/types/metadata_asset_type.h"
#include "asset/watchfolder/filewatchassetrepository.h"
#include "metadata_terms.h"

namespace kelvo {
namespace {

const Id kUncategorized{"net.kelvo.assetcategory.uncategorized"};
constexpr std::string_view kScopePrefix = "net.kelvo.asset.command.scope.";
constexpr std::string_view kDisplayablePrefix = "$%$";

bool IsAscii(std::string_view text) {
  for (char c : text)
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  return true;
}

std::string IdUpper(const Id& id) { return ToUpperText(id.View()); }

} // namespace

Result<void> ReadKeywordIds(EvaluationState& state) {
  FilterRecord& record = state.record;
  if (record.read & FilterRecord::KEYWORDS) return {};
  // Each array is read once: user keywords first, then the shared ones not among them.
  KELVO_ASSIGN_OR_RETURN(std::optional<DataArray> user, ReadMeta<DataArray>(state.asset, keywordids::userkeywords));
  KELVO_ASSIGN_OR_RETURN(std::optional<DataArray> shared, ReadMeta<DataArray>(state.asset, keywordids::keywords));
  std::vector<Id> all = IdsOf(user);
  record.repositoryKeywords.clear();
  record.repositoryKeywordBits = 0;
  for (Id& id : IdsOf(shared)) {
    const InternedId interned(id);
    record.repositoryKeywordBits |= std::uint64_t(1) << (interned.GetHashCode() % 64);
    record.repositoryKeywords.push_back(interned);
    if (std::find(all.begin(), all.end(), id) == all.end()) all.push_back(std::move(id));
  }
  record.keywordIds = std::move(all);
  record.read |= FilterRecord::KEYWORDS;
  return {};
}

Result<void> ReadSubtype(EvaluationState& state) {
  FilterRecord& record = state.record;
  if (record.read & FilterRecord::SUBTYPE) return {};
  KELVO_ASSIGN_OR_RETURN(std::optional<Data> value, state.asset->GetMetaData()->Get(metaids::subtype));
  record.subtype = Id();
  record.subtypeIds.clear();
  if (value) {
    if (const Id* id = value->GetPtr<Id>()) {
      record.subtype = *id;
      record.subtypeIds.push_back(*id);
    } else if (const DataArray* ids = value->GetPtr<DataArray>()) {
      for (const Data& entry : *ids)
        if (const Id* id = entry.GetPtr<Id>()) record.subtypeIds.push_back(*id);
    }
  }
  record.read |= FilterRecord::SUBTYPE;
  return {};
}

namespace {

// The keyword ids of the asset: both arrays as one set, user keywords first.
Result<const std::vector<Id>*> KeywordIds(EvaluationState& state) {
  KELVO_RETURN_ON_ERROR(ReadKeywordIds(state));
  return &state.record.keywordIds;
}

// The repositories that hold a version of the asset, found once per evaluation.
Result<const std::vector<AssetRepositoryRef>*> RepositorySet(EvaluationState& state) {
  if (!state.repositorySet) {
    std::vector<AssetRepositoryRef> repositories;
    const AssetRepositoryRef lookup = state.LookupRepository();
    if (lookup) {
      const IdAndVersion aid = state.asset->GetIdAndVersion();
      KELVO_RETURN_ON_ERROR(lookup->FindAssets(
          TypeArray{state.asset->GetTypeId()}, aid.first, aid.second, ALL,
          [&](const AssetDescription& found) -> Result<bool> {
            AssetRepositoryRef repository = found->GetRepository();
            if (repository && std::find(repositories.begin(), repositories.end(), repository) == repositories.end())
              repositories.push_back(std::move(repository));
            return true;
          }));
    }
    state.repositorySet = std::move(repositories);
  }
  return &*state.repositorySet;
}

bool IsInSet(FILTERKEY key, std::uint32_t metaIdSet) {
  switch (key) {
  case FILTERKEY::NAME: return metaIdSet & METAID_NAME;
  case FILTERKEY::KEYWORD: return metaIdSet & METAID_KEYWORDS;
  case FILTERKEY::TYPE: return metaIdSet & METAID_SUBTYPE;
  default: return false;
  }
}

Result<void> TypeStage(const SearchTerm& term, bool preMatching, EvaluationState& state) {
  const Id& typeId = state.record.typeId;
  if (preMatching) {
    if (typeId != SubTypeAssetInterface::TypeId()) return {};
    const std::string id = IdUpper(state.asset->GetIdAndVersion().first);
    for (const std::string& v : term.values)
      if (id.find(v) != std::string::npos) return MarkTerm(term, v, {}, state);
    return {};
  }
  KELVO_RETURN_ON_ERROR(ReadSubtype(state));
  const Id& subtype = state.record.subtype;
  for (const std::string& v : term.values) {
    if (ContainsText(typeId.View(), v) || (!subtype.IsEmpty() && ContainsText(subtype.View(), v)) ||
        (v == "NODE_OM" && typeId == displayids::nodetemplate))
      return MarkTerm(term, v, {}, state);
  }
  return {};
}

Result<void> TextStage(const SearchTerm& term, std::string_view candidate, EvaluationState& state) {
  for (const std::string& v : term.values)
    if (ContainsText(candidate, v)) return MarkTerm(term, v, {}, state);
  return {};
}

Result<void> AssetIdStage(const SearchTerm& term, EvaluationState& state) {
  const IdAndVersion aid = state.asset->GetIdAndVersion();
  const std::string text = aid.first.ToString() + "/" + aid.second.ToString();
  return TextStage(term, text, state);
}

// The display name of a dependency or keyword. With keywordName: a keyword without a name of its
// own gives no candidate, and one without a keyword asset (tagged by id alone) is named by its id.
Result<std::string_view> DisplayName(EvaluationState& state, const IdAndVersion& id, const Id& type,
                                     bool keywordName) {
  KELVO_ASSIGN_OR_RETURN(const TypeName* name,
                         GetCachedAssetTypeName(state.LookupRepository(), type, id.first, id.second, state.cache));
  if (keywordName) {
    // An unnamed keyword asset is named after its type.
    static const std::string kKeywordTypeName = GetAssetTypeName(KeywordAssetInterface::TypeId()).name;
    if (!name->found) return id.first.View();
    if (name->name == kKeywordTypeName) return std::string_view();
  }
  return std::string_view(name->name);
}

Result<std::vector<std::string_view>> DisplayNames(EvaluationState& state, const std::vector<IdAndVersion>& ids,
                                                   const std::vector<Id>& types) {
  std::vector<std::string_view> names;
  for (std::size_t i = 0; i < ids.size(); ++i) {
    KELVO_ASSIGN_OR_RETURN(std::string_view name, DisplayName(state, ids[i], types[i], false));
    names.push_back(name);
  }
  return names;
}

// Marks term with the first value for which test gives a display text.
template <typename Test> Result<void> MarkFirst(const SearchTerm& term, EvaluationState& state, Test&& test) {
  for (const std::string& v : term.values) {
    KELVO_ASSIGN_OR_RETURN(std::optional<std::string> text, test(v));
    if (text) return MarkTerm(term, v, *text, state);
  }
  return {};
}

// "<id>:<count>" when a value compares true with count as a number.
Result<void> CountStage(const SearchTerm& term, std::size_t count, EvaluationState& state) {
  return MarkFirst(term, state, [&](const std::string& v) -> Result<std::optional<std::string>> {
    const std::optional<ValueComparison> comparison = SplitNumericComparison(v);
    if (!comparison) return std::optional<std::string>();
    const std::optional<std::int64_t> operand = ParseNumber(comparison->operand);
    if (!operand || !Compare(comparison->op, static_cast<std::int64_t>(count), *operand))
      return std::optional<std::string>();
    return std::optional<std::string>(term.metaId.ToString() + ":" + std::to_string(count));
  });
}

bool IsCountForm(std::string_view value) {
  return value.starts_with('=') || value.starts_with('<') || value.starts_with('>');
}

Result<void> ReadKeywordNames(EvaluationState& state) {
  KELVO_ASSIGN_OR_RETURN(const std::vector<Id>* ids, KeywordIds(state));
  FilterRecord& record = state.record;
  if (record.read & FilterRecord::KEYWORD_NAMES) return {};
  std::vector<std::string> names;
  for (const Id& id : *ids) {
    KELVO_ASSIGN_OR_RETURN(std::string_view name,
                           DisplayName(state, IdAndVersion{id, Id()}, KeywordAssetInterface::TypeId(), true));
    names.emplace_back(name);
  }
  record.keywordNames = std::move(names);
  record.read |= FilterRecord::KEYWORD_NAMES;
  return {};
}

Result<void> KeywordsStage(const SearchTerm& term, FILTERKEY key, bool preMatching, EvaluationState& state) {
  KELVO_ASSIGN_OR_RETURN(const std::vector<Id>* ids, KeywordIds(state));
  if (key == FILTERKEY::KEYWORDCOUNT) return CountStage(term, ids->size(), state);
  // While keyword assets are matched, a count form would count the keywords of the keyword asset
  // and so pass every asset tagged with it: counts are only taken of the evaluated asset.
  const bool counts = !preMatching && std::any_of(term.values.begin(), term.values.end(), IsCountForm);
  if (ids->empty() && !counts) return {};
  KELVO_RETURN_ON_ERROR(ReadKeywordNames(state));
  const std::vector<std::string>& names = state.record.keywordNames;
  return MarkFirst(term, state, [&](const std::string& v) -> Result<std::optional<std::string>> {
    if (preMatching && IsCountForm(v)) return std::optional<std::string>();
    return CollectionTest(v, names);
  });
}

Result<void> KeywordIdStage(const SearchTerm& term, EvaluationState& state) {
  KELVO_ASSIGN_OR_RETURN(const std::vector<Id>* ids, KeywordIds(state));
  std::vector<std::string_view> candidates;
  for (const Id& id : *ids) candidates.push_back(id.View());
  return MarkFirst(term, state, [&](const std::string& v) -> Result<std::optional<std::string>> {
    return CollectionTest(v, candidates);
  });
}

Result<void> DependenciesStage(const SearchTerm& term, FILTERKEY key, EvaluationState& state) {
  KELVO_ASSIGN_OR_RETURN(std::optional<DataArray> array, ReadMeta<DataArray>(state.asset, metaids::dependencies));
  std::vector<IdAndVersion> ids;
  std::vector<Id> types;
  if (array)
    for (const Data& entry : *array)
      if (const auto* dependency = entry.GetPtr<AssetDependencyStruct>()) {
        ids.push_back(dependency->assetIdAndVersion);
        types.push_back(dependency->assetTypeId);
      }
  if (ids.empty()) return {};
  if (key == FILTERKEY::DEPENDENCYCOUNT) return CountStage(term, ids.size(), state);
  KELVO_ASSIGN_OR_RETURN(std::vector<std::string_view> names, DisplayNames(state, ids, types));
  std::vector<std::string_view> idTexts;
  for (const IdAndVersion& id : ids) idTexts.push_back(id.first.View());
  return MarkFirst(term, state, [&](const std::string& v) -> Result<std::optional<std::string>> {
    if (std::optional<std::string> hit = CollectionTest(v, names)) return hit;
    return CollectionTest(v, idTexts);
  });
}

Result<void> CategoryIdStage(const SearchTerm& term, EvaluationState& state) {
  if (state.record.isCategory) return {};
  const AssetRepositoryRef repository = state.LookupRepository();
  AssetDescription current = state.asset;
  // Stored parent links may form a cycle; the walk ends at a category met before.
  std::unordered_set<Id> seen;
  while (current) {
    KELVO_ASSIGN_OR_RETURN(Id category, CategoryAssetInterface::GetParentCategory(current));
    // Only the asset itself is uncategorized without a category; a top category ends the walk.
    if (category.IsEmpty()) {
      if (current != state.asset) break;
      category = kUncategorized;
    }
    const std::string upper = IdUpper(category);
    for (const std::string& v : term.values)
      if (upper.find(v) != std::string::npos) return MarkTerm(term, v, {}, state);
    if (category == kUncategorized || !repository || !seen.insert(category).second) break;
    KELVO_ASSIGN_OR_RETURN(current, repository->FindLatestAsset(CategoryAssetInterface::TypeId(), category, Id(),
                                                                LATEST | CHECK_CANCELLATION));
  }
  return {};
}

Result<void> DatabaseStage(const SearchTerm& term, bool byType, EvaluationState& state) {
  const LanguageRef language = Language::GetCurrentLanguage();
  for (const std::string& v : term.values) {
    if (v.empty()) continue;
    KELVO_ASSIGN_OR_RETURN(const std::vector<AssetRepositoryRef>* repositories, RepositorySet(state));
    for (const AssetRepositoryRef& repository : *repositories) {
      std::string name;
      if (byType) {
        name = dynamic_cast<const FileWatchAssetRepositoryImpl*>(repository.get()) ? "WATCHFOLDER" : "DATABASE";
      } else {
        KELVO_ASSIGN_OR_RETURN(std::string shown, repository->GetRepositoryName(language, false));
        name = ToUpperText(shown);
      }
      if (name.find(v) != std::string::npos || IdUpper(repository->GetId()).find(v) != std::string::npos)
        return MarkTerm(term, v, {}, state);
    }
  }
  return {};
}

Result<void> ScopeStage(const SearchTerm& term, EvaluationState& state) {
  KELVO_ASSIGN_OR_RETURN(std::vector<Id> scopes, CommandAssetInterface::GetCommandScopes(state.asset));
  std::vector<std::string> candidates;
  for (const Id& scope : scopes) {
    candidates.push_back(IdUpper(scope));
    if (scope.View().starts_with(kScopePrefix)) candidates.push_back(ToUpperText(scope.View().substr(kScopePrefix.size())));
  }
  if (scopes.empty()) {
    KELVO_ASSIGN_OR_RETURN(std::optional<std::string> legacy, ReadMeta<std::string>(state.asset, commandids::legacyscope));
    candidates.push_back(ToUpperText(legacy.value_or(std::string())));
  }
  for (const std::string& v : term.values)
    for (const std::string& candidate : candidates)
      if (candidate.find(v) != std::string::npos) return MarkTerm(term, v, {}, state);
  return {};
}

// The tag match of one value: the shortest synonym of each group that contains it wins.
Result<bool> TagMatch(const SearchTerm& term, const std::string& v, std::string_view tags, EvaluationState& state) {
  for (std::size_t groupStart = 0; groupStart <= tags.size();) {
    std::size_t groupEnd = tags.find(';', groupStart);
    if (groupEnd == std::string_view::npos) groupEnd = tags.size();
    const std::string_view group = TrimText(tags.substr(groupStart, groupEnd - groupStart));
    groupStart = groupEnd + 1;
    std::string_view winner;
    for (std::size_t start = 0; start <= group.size();) {
      std::size_t end = group.find(',', start);
      if (end == std::string_view::npos) end = group.size();
      const std::string_view synonym = TrimText(group.substr(start, end - start));
      start = end + 1;
      if (!synonym.empty() && ContainsText(synonym, v) && (winner.empty() || synonym.size() < winner.size()))
        winner = synonym;
    }
    if (winner.empty()) continue;
    const bool displayable = winner.starts_with(kDisplayablePrefix);
    if (displayable) winner.remove_prefix(kDisplayablePrefix.size());
    state.matchedValues.Insert(state.ValueNumber(term, v));
    if (std::find(state.seenTagGroups.begin(), state.seenTagGroups.end(), group) != state.seenTagGroups.end())
      return true;
    state.seenTagGroups.push_back(group);
    KELVO_RETURN_ON_ERROR(MarkTerm(term, v, displayable ? winner : std::string_view(), state));
    return true;
  }
  return false;
}

// The language of the filter, else the current one.
LanguageRef FilterLanguage(const EvaluationState& state) {
  if (const LanguageRef& language = state.filter.GetLanguage()) return language;
  return Language::GetCurrentLanguage();
}

// The name in the filter's language (else the current one). Names and tags are kept for one
// language; the fallback name and tags are read again after a change.
Result<void> ReadName(EvaluationState& state) {
  FilterRecord& record = state.record;
  const LanguageRef& filterLanguage = state.filter.GetLanguage();
  if (filterLanguage && record.language == filterLanguage && (record.read & FilterRecord::NAME)) return {};
  const LanguageRef language = FilterLanguage(state);
  if (record.language != language) record.read &= ~(FilterRecord::FALLBACK_NAME | FilterRecord::TAGS);
  record.language = language;
  if (record.read & FilterRecord::NAME) return {};
  KELVO_ASSIGN_OR_RETURN(std::string name, state.asset->GetMetaString(stringkeys::name, language, std::string()));
  record.upperName = ToUpperText(name);
  record.read |= FilterRecord::NAME;
  return {};
}

// The name in the fallback language of the record's language; needs ReadName first.
Result<void> ReadFallbackName(EvaluationState& state) {
  FilterRecord& record = state.record;
  if (record.read & FilterRecord::FALLBACK_NAME) return {};
  record.upperFallbackName.clear();
  if (const LanguageRef fallback = record.language->GetFallbackLanguage()) {
    KELVO_ASSIGN_OR_RETURN(std::string name, GetStoredName(state.asset, fallback));
    record.upperFallbackName = ToUpperText(name);
  }
  record.read |= FilterRecord::FALLBACK_NAME;
  return {};
}

Result<void> ReadTags(EvaluationState& state, const TagStringGetter& tagStringGetter) {
  FilterRecord& record = state.record;
  if (record.read & FilterRecord::TAGS) return {};
  KELVO_ASSIGN_OR_RETURN(record.tags, tagStringGetter());
  record.read |= FilterRecord::TAGS;
  return {};
}

Result<void> NameAndTagsStage(const SearchTerm& term, const TagStringGetter& tagStringGetter,
                              EvaluationState& state) {
  FilterRecord& record = state.record;
  KELVO_RETURN_ON_ERROR(ReadName(state));
  for (const std::string& v : term.values) {
    if (record.upperName.find(v) != std::string::npos) return MarkTerm(term, v, {}, state);
    KELVO_RETURN_ON_ERROR(ReadFallbackName(state));
    if (!record.upperFallbackName.empty() && record.upperFallbackName.find(v) != std::string::npos)
      return MarkTerm(term, v, {}, state);
    if (!tagStringGetter) continue;
    KELVO_RETURN_ON_ERROR(ReadTags(state, tagStringGetter));
    if (record.tags.empty()) continue;
    // One value per term: a later alternative that matched too would count as a second value.
    KELVO_ASSIGN_OR_RETURN(bool matched, TagMatch(term, v, record.tags, state));
    if (matched) return {};
  }
  return {};
}

// Runs the stages for one term until one satisfies it.
Result<void> EvaluateTerm(const SearchTerm& term, FILTERKEY key, EvaluationState& state, std::uint32_t metaIdSet,
                          bool preMatching, const TagStringGetter& tagStringGetter) {
  const bool isCategory = state.record.isCategory;
  const auto done = [&] { return state.HasTerm(term); };
  if (key == FILTERKEY::TYPE) {
    KELVO_RETURN_ON_ERROR(TypeStage(term, preMatching, state));
    if (done()) return {};
  }
  if (!preMatching) {
    if (key == FILTERKEY::ANNOTATIONS) {
      KELVO_ASSIGN_OR_RETURN(std::string annotations,
                             state.asset->GetMetaString(Id(filterids::annotations), FilterLanguage(state),
                                                        std::string()));
      return TextStage(term, annotations, state);
    }
    if (key == FILTERKEY::ASSETID) return AssetIdStage(term, state);
    if (!isCategory && (key == FILTERKEY::DEPENDENCY || key == FILTERKEY::DEPENDENCYCOUNT))
      return DependenciesStage(term, key, state);
  }
  if ((key == FILTERKEY::TEXT || key == FILTERKEY::KEYWORD || (!preMatching && key == FILTERKEY::KEYWORDCOUNT)) &&
      (metaIdSet & METAID_KEYWORDS)) {
    KELVO_RETURN_ON_ERROR(KeywordsStage(term, key, preMatching, state));
    if (done()) return {};
  }
  if (!preMatching && key == FILTERKEY::CATEGORYID) return CategoryIdStage(term, state);
  if (key == FILTERKEY::KEYWORDID) return KeywordIdStage(term, state);
  if (!preMatching) {
    if (!isCategory && IsMetadataTerm(key)) return EvaluateMetadataTerm(term, key, state);
    if (key == FILTERKEY::DATABASETYPE) return DatabaseStage(term, true, state);
    if (key == FILTERKEY::SCOPE) {
      if (state.record.isCommand) return ScopeStage(term, state);
      return {};
    }
    if (key == FILTERKEY::DATABASE) return DatabaseStage(term, false, state);
  }
  if (key == FILTERKEY::TEXT || (!preMatching && key == FILTERKEY::NAME) || (preMatching && IsInSet(key, metaIdSet)))
    return NameAndTagsStage(term, tagStringGetter, state);
  return {};
}

} // namespace

bool ContainsText(std::string_view candidate, std::string_view upperValue) {
  if (IsAscii(candidate)) return FindIgnoringCase(candidate, upperValue) != std::string_view::npos;
  return ToUpperText(candidate).find(upperValue) != std::string::npos;
}

namespace {

template <typename Candidates>
std::optional<std::string> CollectionTestOf(std::string_view value, const Candidates& candidates) {
  if (value.starts_with('=') || value.starts_with('<') || value.starts_with('>')) {
    const ValueComparison comparison = SplitComparison(value);
    const std::optional<std::int64_t> operand = ParseNumber(comparison.operand);
    const auto count = static_cast<std::int64_t>(candidates.size());
    if (operand && Compare(comparison.op, count, *operand)) return std::to_string(count) + std::string(value);
    return std::nullopt;
  }
  for (std::string_view candidate : candidates)
    if (!candidate.empty() && ContainsText(candidate, value)) return std::string(candidate);
  return std::nullopt;
}

} // namespace

std::optional<std::string> CollectionTest(std::string_view value, const std::vector<std::string_view>& candidates) {
  return CollectionTestOf(value, candidates);
}

std::optional<std::string> CollectionTest(std::string_view value, const std::vector<std::string>& candidates) {
  return CollectionTestOf(value, candidates);
}

std::uint32_t EvaluationState::TermNumber(const SearchTerm& term) const {
  const std::vector<SearchTerm>& terms = filter.GetTerms();
  return filter.GetTermNumber(static_cast<std::size_t>(&term - terms.data()));
}

std::uint32_t EvaluationState::ValueNumber(const SearchTerm& term, const std::string& value) const {
  const std::vector<SearchTerm>& terms = filter.GetTerms();
  const auto termIndex = static_cast<std::size_t>(&term - terms.data());
  return filter.GetValueNumber(termIndex, static_cast<std::size_t>(&value - term.values.data()));
}

AssetRepositoryRef EvaluationState::LookupRepository() const {
  if (const AssetRepositoryRef& repository = filter.GetRepository()) return repository;
  return asset->GetRepository();
}

Result<void> MarkTerm(const SearchTerm& term, const std::string& value, std::string_view text, EvaluationState& state) {
  state.matchedValues.Insert(state.ValueNumber(term, value));
  state.matchedTerms.Insert(state.TermNumber(term));
  if (!text.empty()) {
    if (!state.reasonText.empty()) state.reasonText += ", ";
    state.reasonText += text;
  }
  return {};
}

Result<void> EvaluateTerms(EvaluationState& state, std::uint32_t metaIdSet, bool preMatching,
                           const TagStringGetter& tagStringGetter) {
  const std::vector<SearchTerm>& terms = state.filter.GetTerms();
  const std::vector<FILTERKEY>& keys = state.filter.GetTermKeys();
  std::size_t previous = 0;
  for (std::size_t i = 0; i < terms.size(); ++i) {
    if (!state.HasTerm(terms[i]))
      KELVO_RETURN_ON_ERROR(EvaluateTerm(terms[i], keys[i], state, metaIdSet, preMatching, tagStringGetter));
    const std::size_t count = state.matchedValues.Count();
    // The loop ends at the first term that adds nothing.
    if (count == terms.size() || previous + 1 != count) break;
    previous = count;
  }
  return {};
}

Result<void> FillRecord(EvaluationState& state, const TagStringGetter& tagStringGetter) {
  // Each value on its own: one that can't be read stays unread for the evaluation that needs it.
  Result<void> failed;
  const auto keep = [&failed](Result<void> read) {
    if (read.HasError() && failed.HasValue()) failed = std::move(read);
  };
  keep(ReadName(state));
  if (state.record.read & FilterRecord::NAME) {
    keep(ReadFallbackName(state));
    keep(ReadTags(state, tagStringGetter));
  }
  keep(ReadKeywordNames(state));
  keep(ReadSubtype(state));
  keep(ReadSize(state));
  return failed;
}

} // namespace kelvo
