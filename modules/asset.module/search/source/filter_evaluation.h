#pragma once
// The term loop of filter evaluation and the state of one evaluation. Private to the search
// library: SearchFilter::Parse runs it over keyword and subtype assets (preMatching), and
// SearchFilter::Evaluate over each asset of a search.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "asset/search/search_filter.h"

namespace kelvo {

// Which metadata a free text or keyword term may read (the metaIdSet of an evaluation).
enum METAIDSET : std::uint32_t {
  METAID_NAME = 1,
  METAID_KEYWORDS = 2,
  METAID_USERKEYWORDS = 4,
  METAID_SUBTYPE = 8,
};

using TagStringGetter = std::function<Result<std::string>()>;

// The working state of one evaluation of one asset. Value strings and terms are views into the
// filter, which outlives the evaluation.
struct EvaluationState {
  EvaluationState(const SearchFilter& f, const AssetDescription& a, std::string& reason, TypeNameCache& c)
      : filter(f), asset(a), reasonText(reason), cache(c) {}

  const SearchFilter& filter;
  const AssetDescription& asset;
  std::string& reasonText;
  TypeNameCache& cache;
  std::vector<std::string_view> matchedValues;
  std::vector<const SearchTerm*> matchedTerms;

  // Read on first use and kept for the rest of the evaluation.
  std::optional<std::vector<AssetRepositoryRef>> repositorySet;
  std::optional<std::string> fallbackName;
  std::vector<std::string> seenTagGroups;
  EntryTexts* texts = nullptr;

  // The cached texts of the asset, looked up once per evaluation.
  EntryTexts& Texts() {
    if (!texts) texts = &cache.Entry(asset);
    return *texts;
  }

  bool HasTerm(const SearchTerm& term) const;
  void AddTerm(const SearchTerm& term);
  void AddValue(std::string_view value);
  // The repository that lookups of names, categories and versions go to.
  AssetRepositoryRef LookupRepository() const;
};

// The keyword ids of the state's asset, read into the cache's texts of the asset on first use.
Result<EntryTexts*> ReadKeywordIds(EvaluationState& state);

// Inserts value and term into the state and appends text, when not empty, to reasonText.
Result<void> MarkTerm(const SearchTerm& term, std::string_view value, std::string_view text, EvaluationState& state);

// Runs the stages for each term of the filter in order, until one term adds nothing or all are
// satisfied. Errors of reads stop it and are returned.
Result<void> EvaluateTerms(EvaluationState& state, std::uint32_t metaIdSet, bool preMatching,
                           const TagStringGetter& tagStringGetter);

// Whether candidate contains upperValue, ignoring case.
bool ContainsText(std::string_view candidate, std::string_view upperValue);

// The collection test: an operator form on the number of elements ("=", "<" or ">" first), or a
// text search in each candidate in order. Returns the display text of a hit.
std::optional<std::string> CollectionTest(std::string_view value, const std::vector<std::string_view>& candidates);

} // namespace kelvo
