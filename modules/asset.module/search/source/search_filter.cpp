#include "asset/search/search_filter.h"

#include <algorithm>
#include <unordered_map>

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
    NumberTerms();
    _language = Language::GetCurrentLanguage();
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

void SearchFilter::NumberTerms() {
  std::unordered_map<SearchTerm, std::uint32_t> termNumbers;
  std::unordered_map<std::string_view, std::uint32_t> valueNumbers;
  _termNumbers.clear();
  _valueNumbers.clear();
  _valueNumberStart.clear();
  for (const SearchTerm& term : _terms) {
    _termNumbers.push_back(termNumbers.try_emplace(term, static_cast<std::uint32_t>(termNumbers.size())).first->second);
    _valueNumberStart.push_back(_valueNumbers.size());
    for (const std::string& value : term.values)
      _valueNumbers.push_back(valueNumbers.try_emplace(value, static_cast<std::uint32_t>(valueNumbers.size())).first->second);
  }
  _termNumberCount = termNumbers.size();
  _valueNumberCount = valueNumbers.size();
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
  FilterRecord record(asset);
  EvaluationState state(*this, record, reason, cache);
  KELVO_RETURN_ON_ERROR(EvaluateTerms(state, isKeyword ? METAID_KEYWORDS : METAID_SUBTYPE, true, nullptr));
  if (state.matchedValues.Count() == 0) return {};
  IndirectMatch match;
  match.assetType = asset->GetTypeId();
  match.assetId = asset->GetIdAndVersion().first;
  if (isKeyword) match.internedAssetId = InternedId(match.assetId);
  match.metaKey = isKeyword ? keywordids::keywords : InternedId(filterids::subtype);
  match.isKeyword = isKeyword;
  // Terms and values in filter order, each once.
  for (std::size_t i = 0; i < _terms.size(); ++i) {
    if (state.matchedTerms.Contains(_termNumbers[i]) &&
        std::find(match.termNumbers.begin(), match.termNumbers.end(), _termNumbers[i]) == match.termNumbers.end()) {
      match.termNumbers.push_back(_termNumbers[i]);
      match.matchedTerms.push_back(&_terms[i]);
    }
    for (std::size_t k = 0; k < _terms[i].values.size(); ++k) {
      const std::uint32_t n = GetValueNumber(i, k);
      if (!state.matchedValues.Contains(n) ||
          std::find(match.valueNumbers.begin(), match.valueNumbers.end(), n) != match.valueNumbers.end())
        continue;
      match.valueNumbers.push_back(n);
      match.matchedValues.push_back(_terms[i].values[k]);
    }
  }
  if (isKeyword) {
    // The reason an asset gets from the keyword; looked up again per asset if this fails.
    Result<TypeName> name = GetAssetTypeName(_repository, match.assetType, match.assetId, Id(), false, &cache);
    if (name.HasValue()) match.keywordName = std::move(name->name);
  }
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
  return GuardAllocation([&]() -> Result<bool> { return Evaluate(cache.Entry(asset), reasonText, cache); });
}

Result<bool> SearchFilter::Evaluate(FilterRecord& record, std::string& reasonText, TypeNameCache& cache) const {
  if (_terms.empty() || !record.asset) return true;
  if (!_matchedCategories.empty() && _matchedCategories.count(record.asset->GetIdAndVersion().first)) return false;
  return GuardAllocation([&]() -> Result<bool> {
    EvaluationState state(*this, record, reasonText, cache);
    for (const IndirectMatch& match : _indirectMatches) {
      // A value that can't be read only skips this record.
      bool listed = false;
      if (match.isKeyword) {
        if (ReadKeywordIds(state).HasError()) continue;
        listed = record.ListsRepositoryKeyword(match.internedAssetId);
      } else {
        if (ReadSubtype(state).HasError()) continue;
        listed = std::find(record.subtypeIds.begin(), record.subtypeIds.end(), match.assetId) != record.subtypeIds.end();
      }
      if (!listed) continue;
      if (match.keywordName) {
        reasonText = *match.keywordName;
      } else if (match.isKeyword) {
        KELVO_ASSIGN_OR_RETURN(TypeName name, GetAssetTypeName(state.LookupRepository(), match.assetType,
                                                               match.assetId, Id(), false, &cache));
        reasonText = name.name;
      }
      for (std::uint32_t n : match.termNumbers) state.matchedTerms.Insert(n);
      for (std::uint32_t n : match.valueNumbers) state.matchedValues.Insert(n);
    }
    if (state.matchedValues.Count() != _terms.size()) {
      const AssetDescription& asset = record.asset;
      const TagStringGetter tags = [&asset] { return GetTagStrings(asset); };
      KELVO_RETURN_ON_ERROR(EvaluateTerms(state, METAID_NAME | METAID_KEYWORDS | METAID_USERKEYWORDS, false, tags));
    }
    return state.matchedValues.Count() != _terms.size();
  });
}

Result<void> SearchFilter::Fill(FilterRecord& record, TypeNameCache& cache) const {
  if (!record.asset) return {};
  return GuardAllocation([&]() -> Result<void> {
    std::string reason;
    EvaluationState state(*this, record, reason, cache);
    const AssetDescription& asset = record.asset;
    return FillRecord(state, [&asset] { return GetTagStrings(asset); });
  });
}

} // namespace kelvo
