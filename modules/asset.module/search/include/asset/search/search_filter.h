#pragma once
// A parsed filter: a conjunction of terms, each a list of alternative values tested against one
// property of an asset (or against names and keywords for free text). Parsing never fails on any
// text: unknown keys become free text, unclosed quotes and malformed numbers are kept as they are
// and simply match nothing later. A filter parsed for a repository then decides for one asset at
// a time whether it passes, and why.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "asset/core/assetrepository.h"
#include "asset/search/filter_keys.h"
#include "asset/search/filter_record.h"
#include "asset/search/search_enums.h"
#include "asset/search/type_names.h"
#include "kelvo/id.h"
#include "kelvo/result.h"

namespace kelvo {

struct SearchTerm {
  std::vector<std::string> values; // alternatives, upper case; any one satisfies the term
  Id metaId;                       // what the term tests (filterids); empty for free text

  friend bool operator==(const SearchTerm&, const SearchTerm&) = default;
};

// A keyword or subtype asset that satisfied values of the filter when it was parsed: an asset
// that lists assetId under metaKey satisfies the same terms and values.
struct IndirectMatch {
  Id assetType;
  Id assetId;
  InternedId internedAssetId; // assetId, for the keyword test of FilterRecord
  InternedId metaKey; // net.kelvo.asset.keywords or net.kelvo.asset.subtype
  bool isKeyword = false;
  std::vector<const SearchTerm*> matchedTerms; // terms of the filter, each once
  std::vector<std::string> matchedValues;      // value strings, each once
  // The same as numbers (SearchFilter::GetTermNumber, GetValueNumber), merged per asset.
  std::vector<std::uint32_t> termNumbers;
  std::vector<std::uint32_t> valueNumbers;
  // A keyword's display name as the reason, looked up when the filter was parsed.
  std::optional<std::string> keywordName;
};

class SearchFilter {
public:
  explicit SearchFilter(LENGTHUNITSYSTEM lengthUnitSystem = LENGTHUNITSYSTEM::METRIC)
      : _lengthUnitSystem(lengthUnitSystem) {}

  // Parses text (control tokens already cut out) into terms, replacing what an earlier call left.
  // Fails only when memory runs out (net.kelvo.error.outofmemory). Not thread-safe on one filter;
  // a parsed filter is immutable and may be read from any thread.
  Result<void> Parse(std::string_view text);

  // Parses text for searches in repository and runs the indirect match pass over its keyword and
  // subtype assets. Errors of the repository search (cancellation included) are returned and
  // leave the filter without indirect matches. Not thread-safe on one filter.
  Result<void> Parse(const AssetRepositoryRef& repository, std::string_view text);

  // The same with the keyword and subtype assets that a search of repository would find (the
  // latest versions) given by the caller, who has them from an earlier walk; cache is the
  // caller's, as for Evaluate. Not thread-safe on one filter.
  Result<void> Parse(const AssetRepositoryRef& repository, std::string_view text,
                     const std::vector<AssetDescription>& keywordsAndSubtypes, TypeNameCache& cache);

  // Whether asset is rejected: true unless every term is satisfied. reasonText receives what
  // made it pass (keyword names, tags, counts), pieces joined by ", ". cache belongs to the
  // caller's job and may be reused for the next asset and the next filter. Errors of repository
  // and metadata reads stop the evaluation and are returned. One thread per filter at a time.
  // The record of asset is kept in cache.
  Result<bool> Evaluate(const AssetDescription& asset, std::string& reasonText, TypeNameCache& cache) const;
  // The same over a record the caller keeps (filter_record.h): what the record holds is not read
  // again, whichever filter reads it next.
  Result<bool> Evaluate(FilterRecord& record, std::string& reasonText, TypeNameCache& cache) const;

  // Reads into record, unless read already, every value that a name, free text, keyword, type or
  // size term of any filter in this filter's language reads, so that later evaluations read
  // nothing. A value that can't be read stays unread (the evaluation that needs it meets the
  // error) and the first such error is returned. One thread per record at a time.
  Result<void> Fill(FilterRecord& record, TypeNameCache& cache) const;

  // Remembers a category that holds a passing asset: the category itself then passes.
  void AddMatchedCategory(const Id& categoryId) { _matchedCategories.insert(categoryId); }
  const std::unordered_set<Id>& GetMatchedCategories() const { return _matchedCategories; }

  const AssetRepositoryRef& GetRepository() const { return _repository; }
  const std::vector<IndirectMatch>& GetIndirectMatches() const { return _indirectMatches; }
  // What each term tests, in term order.
  const std::vector<FILTERKEY>& GetTermKeys() const { return _termKeys; }

  // Evaluation counts terms and value strings by number: equal terms share a number, and so do
  // equal value strings. Numbers run from 0 below GetTermNumberCount and GetValueNumberCount.
  std::uint32_t GetTermNumber(std::size_t term) const { return _termNumbers[term]; }
  std::uint32_t GetValueNumber(std::size_t term, std::size_t value) const {
    return _valueNumbers[_valueNumberStart[term] + value];
  }
  std::size_t GetTermNumberCount() const { return _termNumberCount; }
  std::size_t GetValueNumberCount() const { return _valueNumberCount; }
  // The language that names and tags are read in: the current one when the filter was parsed.
  const LanguageRef& GetLanguage() const { return _language; }

  const std::string& GetFilterText() const { return _filterText; }
  const std::vector<SearchTerm>& GetTerms() const { return _terms; }
  LENGTHUNITSYSTEM GetLengthUnitSystem() const { return _lengthUnitSystem; }

  // Set while TYPE: values were read; they narrow the category view to matching categories.
  bool GetTypeFilterNode() const { return _typeFilterNode; }
  bool GetTypeFilterModel() const { return _typeFilterModel; }
  bool GetTypeFilterMaterial() const { return _typeFilterMaterial; }
  bool GetTypeFilterScene() const { return _typeFilterScene; }
  bool GetTypeFilterPreset() const { return _typeFilterPreset; }

private:
  void AddTerm(std::string_view key, std::string_view value, std::size_t& typeTerm);
  void RewriteTypeValue(std::string& value);
  void NumberTerms();
  Result<void> FindIndirectMatches();
  // Adds the indirect match of one keyword or subtype asset, when it satisfies values.
  Result<void> MatchIndirect(const AssetDescription& asset, TypeNameCache& cache);

  std::string _filterText;
  std::vector<SearchTerm> _terms;
  std::vector<FILTERKEY> _termKeys;
  std::vector<std::uint32_t> _termNumbers;
  std::vector<std::uint32_t> _valueNumbers;     // of every value, term after term
  std::vector<std::size_t> _valueNumberStart;   // index in _valueNumbers of each term's first value
  std::size_t _termNumberCount = 0;
  std::size_t _valueNumberCount = 0;
  LanguageRef _language;
  AssetRepositoryRef _repository;
  std::vector<IndirectMatch> _indirectMatches;
  std::unordered_set<Id> _matchedCategories;
  LENGTHUNITSYSTEM _lengthUnitSystem;
  bool _typeFilterNode = false;
  bool _typeFilterModel = false;
  bool _typeFilterMaterial = false;
  bool _typeFilterScene = false;
  bool _typeFilterPreset = false;
};

} // namespace kelvo

template <> struct std::hash<kelvo::SearchTerm> {
  std::size_t operator()(const kelvo::SearchTerm& term) const {
    std::size_t h = term.metaId.GetHashCode();
    for (const std::string& value : term.values) h = h * 0x100000001b3ull ^ std::hash<std::string>()(value);
    return h;
  }
};
