#pragma once
// A parsed filter: a conjunction of terms, each a list of alternative values tested against one
// property of an asset (or against names and keywords for free text). Parsing never fails on any
// text: unknown keys become free text, unclosed quotes and malformed numbers are kept as they are
// and simply match nothing later. A filter parsed for a repository then decides for one asset at
// a time whether it passes, and why.

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "asset/core/assetrepository.h"
#include "asset/search/filter_keys.h"
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
  InternedId metaKey; // net.kelvo.asset.keywords or net.kelvo.asset.subtype
  bool isKeyword = false;
  std::vector<const SearchTerm*> matchedTerms; // terms of the filter, each once
  std::vector<std::string> matchedValues;      // value strings, each once
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
  Result<bool> Evaluate(const AssetDescription& asset, std::string& reasonText, TypeNameCache& cache) const;

  // Remembers a category that holds a passing asset: the category itself then passes.
  void AddMatchedCategory(const Id& categoryId) { _matchedCategories.insert(categoryId); }
  const std::unordered_set<Id>& GetMatchedCategories() const { return _matchedCategories; }

  const AssetRepositoryRef& GetRepository() const { return _repository; }
  const std::vector<IndirectMatch>& GetIndirectMatches() const { return _indirectMatches; }
  // What each term tests, in term order.
  const std::vector<FILTERKEY>& GetTermKeys() const { return _termKeys; }

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
  Result<void> FindIndirectMatches();
  // Adds the indirect match of one keyword or subtype asset, when it satisfies values.
  Result<void> MatchIndirect(const AssetDescription& asset, TypeNameCache& cache);

  std::string _filterText;
  std::vector<SearchTerm> _terms;
  std::vector<FILTERKEY> _termKeys;
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
