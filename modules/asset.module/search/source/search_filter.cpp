#include "asset/search/search_filter.h"

#include <algorithm>

#include "allocation_guard.h"
#include "asset/search/display_strings.h"
#include "asset/search/filter_keys.h"
#include "asset/types/keyword_asset.h"
#include "asset/types/marker_assets.h"
#include "filter_evaluation.h"
#include "asset/search/length_formula.h"
#include "asset/search/text_case.h"

namespace kelvo {
namespace {

constexpr std::size_t kNoTerm = static_cast<std::size_t>(-1);

// Calls pair(key, value) for each key/value pair of upper-case filter text, in text order. A pair
// is "KEY:VALUE", "KEY:\"QUOTED VALUE\"", a bare value or a quoted value; pairs are separated by
// white space. A colon before the next white space makes a key even inside an opening quote.
template <typename F> void ForEachPair(std::string_view text, F&& pair) {
  const auto nextSpace = [&](std::size_t from) {
    while (from < text.size() && !IsFilterSpace(text[from])) ++from;
    return from;
  };
  std::size_t p = 0;
  while (p < text.size()) {
    std::size_t s = nextSpace(p);
    // Only the word up to the white space is searched, which keeps the scan linear.
    std::size_t c = text.substr(p, s - p).find(':');
    std::string_view key;
    if (c != std::string_view::npos) {
      c += p;
      key = text.substr(p, c - p);
      p = c + 1;
    }
    std::string_view value;
    const std::size_t close = p < text.size() && text[p] == '"' ? text.find('"', p + 1) : std::string_view::npos;
    if (close != std::string_view::npos) {
      value = text.substr(p + 1, close - p - 1);
      s = close;
    } else {
      // Also an unclosed quote: the value keeps its quote and ends at the white space.
      value = text.substr(p, s - p);
    }
    p = s + 1;
    if (!key.empty() || !value.empty()) pair(key, value);
    while (p < text.size() && IsFilterSpace(text[p])) ++p;
  }
}

} // namespace

Result<void> SearchFilter::Parse(std::string_view text) {
  return GuardAllocation([&]() -> Result<void> {
    _filterText.assign(text);
    _terms.clear();
    _indirectMatches.clear();
    _matchedCategories.clear();
    _typeFilterNode = _typeFilterModel = _typeFilterMaterial = _typeFilterScene = _typeFilterPreset = false;
    const std::string upper = ToUpperText(TrimText(text));
    std::size_t typeTerm = kNoTerm;
    ForEachPair(upper, [&](std::string_view key, std::string_view value) { AddTerm(key, value, typeTerm); });
    _termKeys.clear();
    for (const SearchTerm& term : _terms) _termKeys.push_back(GetFilterKey(term.metaId));
    return Result<void>();
  });
}

void SearchFilter::AddTerm(std::string_view key, std::string_view value, std::size_t& typeTerm) {
  SearchTerm term;
  if (const Id* metaId = FindFilterKey(key)) term.metaId = *metaId;
  // Alternatives are split at "|"; empty alternatives are dropped, as an empty value gives none.
  for (std::size_t begin = 0; begin <= value.size();) {
    std::size_t end = value.find('|', begin);
    if (end == std::string_view::npos) end = value.size();
    const std::string_view part = TrimText(value.substr(begin, end - begin));
    if (!part.empty()) term.values.emplace_back(part);
    begin = end + 1;
  }
  if (term.metaId == filterids::subtype) {
    for (std::string& v : term.values) RewriteTypeValue(v);
    // One TYPE term at most: a later one replaces the values of the first, in its place.
    if (typeTerm != kNoTerm) {
      _terms[typeTerm].values = std::move(term.values);
      return;
    }
    typeTerm = _terms.size();
  } else if (term.metaId == filterids::boundingbox) {
    for (std::string& v : term.values) v = RewriteDimensionsValue(v);
  }
  _terms.push_back(std::move(term));
}

void SearchFilter::RewriteTypeValue(std::string& value) {
  const std::string_view v = value;
  if (v.find("NODETEMPLATE") != std::string_view::npos || v.find("OPERATOR") != std::string_view::npos) {
    _typeFilterNode = true;
  } else if (v.starts_with("MATERIAL")) {
    _typeFilterMaterial = true;
  } else if (v.starts_with("OBJECT")) {
    value = "NET.KELVO.ASSET.COMMAND.TYPE.OBJECT";
  } else if (v.starts_with("MODEL")) {
    _typeFilterModel = true;
    value = "NET.KELVO.ASSET.SUBTYPE.OBJECT";
  } else if (v.starts_with("COMMAND")) {
    value = "NET.KELVO.ASSET.COMMAND.TYPE.COMMAND";
  } else if (v.starts_with("SCENE")) {
    _typeFilterScene = true;
  } else if (v.starts_with("NET.KELVO.ASSETTYPE.PRESET.")) {
    _typeFilterPreset = true;
  }
}

Result<void> SearchFilter::Parse(const AssetRepositoryRef& repository, std::string_view text) {
  KELVO_RETURN_ON_ERROR(Parse(text));
  _repository = repository;
  if (_terms.empty() || !repository) return {};
  Result<void> found = GuardAllocation([&] { return FindIndirectMatches(); });
  if (found.HasError()) _indirectMatches.clear();
  return found;
}

Result<void> SearchFilter::FindIndirectMatches() {
  const TypeArray types{KeywordAssetInterface::TypeId(), SubTypeAssetInterface::TypeId()};
  TypeNameCache cache;
  KELVO_RETURN_ON_ERROR(_repository->FindAssets(types, Id(), Id(), LATEST | RANDOMIZED_ORDER | CHECK_CANCELLATION,
                                                [&](const AssetDescription& asset) -> Result<bool> {
                                                  KELVO_RETURN_ON_ERROR(MatchIndirect(asset, cache));
                                                  return true;
                                                }));
  return {};
}

Result<void> SearchFilter::MatchIndirect(const AssetDescription& asset, TypeNameCache& cache) {
  const bool isKeyword = asset->GetTypeId() == KeywordAssetInterface::TypeId();
  std::string reason;
  EvaluationState state(*this, asset, reason, cache);
  KELVO_RETURN_ON_ERROR(EvaluateTerms(state, isKeyword ? METAID_KEYWORDS : METAID_SUBTYPE, true, nullptr));
  if (state.matchedValues.empty()) return {};
  IndirectMatch match;
  match.assetType = asset->GetTypeId();
  match.assetId = asset->GetIdAndVersion().first;
  match.metaKey = isKeyword ? keywordids::keywords : InternedId(filterids::subtype);
  match.isKeyword = isKeyword;
  match.matchedTerms = std::move(state.matchedTerms);
  match.matchedValues.assign(state.matchedValues.begin(), state.matchedValues.end());
  _indirectMatches.push_back(std::move(match));
  return {};
}

Result<void> SearchFilter::Parse(const AssetRepositoryRef& repository, std::string_view text,
                                 const std::vector<AssetDescription>& keywordsAndSubtypes, TypeNameCache& cache) {
  KELVO_RETURN_ON_ERROR(Parse(text));
  _repository = repository;
  if (_terms.empty()) return {};
  Result<void> found = GuardAllocation([&]() -> Result<void> {
    for (const AssetDescription& asset : keywordsAndSubtypes) KELVO_RETURN_ON_ERROR(MatchIndirect(asset, cache));
    return {};
  });
  if (found.HasError()) _indirectMatches.clear();
  return found;
}

Result<bool> SearchFilter::Evaluate(const AssetDescription& asset, std::string& reasonText, TypeNameCache& cache) const {
  if (_terms.empty() || !asset) return true;
  if (!_matchedCategories.empty() && _matchedCategories.count(asset->GetIdAndVersion().first)) return false;
  return GuardAllocation([&]() -> Result<bool> {
    EvaluationState state(*this, asset, reasonText, cache);
    const AssetMetaDataRef meta = asset->GetMetaData();
    const std::vector<Id>* repositoryKeywords = nullptr;
    for (const IndirectMatch& match : _indirectMatches) {
      // A value that can't be read only skips this record.
      bool listed = false;
      if (match.isKeyword) {
        if (!repositoryKeywords) {
          Result<EntryTexts*> texts = ReadKeywordIds(state);
          if (texts.HasError()) continue;
          repositoryKeywords = &(*texts)->repositoryKeywordIds;
        }
        listed = std::find(repositoryKeywords->begin(), repositoryKeywords->end(), match.assetId) !=
                 repositoryKeywords->end();
      } else {
        Result<std::optional<Data>> value = meta->Get(match.metaKey);
        if (value.HasError() || !*value) continue;
        if (const Id* id = (*value)->GetPtr<Id>()) {
          listed = *id == match.assetId;
        } else if (const DataArray* ids = (*value)->GetPtr<DataArray>()) {
          listed = std::any_of(ids->begin(), ids->end(), [&](const Data& d) {
            const Id* id = d.GetPtr<Id>();
            return id && *id == match.assetId;
          });
        }
      }
      if (!listed) continue;
      if (match.isKeyword) {
        KELVO_ASSIGN_OR_RETURN(TypeName name, GetAssetTypeName(state.LookupRepository(), match.assetType,
                                                               match.assetId, Id(), false, &cache));
        reasonText = name.name;
      }
      for (const SearchTerm* term : match.matchedTerms) state.AddTerm(*term);
      for (const std::string& value : match.matchedValues) state.AddValue(value);
    }
    if (state.matchedValues.size() != _terms.size()) {
      const TagStringGetter tags = [&asset] { return GetTagStrings(asset); };
      KELVO_RETURN_ON_ERROR(EvaluateTerms(state, METAID_NAME | METAID_KEYWORDS | METAID_USERKEYWORDS, false, tags));
    }
    return state.matchedValues.size() != _terms.size();
  });
}

} // namespace kelvo
