#pragma once
// A parsed filter: a conjunction of terms, each a list of alternative values tested against one
// property of an asset (or against names and keywords for free text). Parsing never fails on any
// text: unknown keys become free text, unclosed quotes and malformed numbers are kept as they are
// and simply match nothing later.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "asset/search/search_enums.h"
#include "kelvo/id.h"
#include "kelvo/result.h"

namespace kelvo {

struct SearchTerm {
  std::vector<std::string> values; // alternatives, upper case; any one satisfies the term
  Id metaId;                       // what the term tests (filterids); empty for free text

  friend bool operator==(const SearchTerm&, const SearchTerm&) = default;
};

class SearchFilter {
public:
  explicit SearchFilter(LENGTHUNITSYSTEM lengthUnitSystem = LENGTHUNITSYSTEM::METRIC)
      : _lengthUnitSystem(lengthUnitSystem) {}

  // Parses text (control tokens already cut out) into terms, replacing what an earlier call left.
  // Fails only when memory runs out (net.kelvo.error.outofmemory). Not thread-safe on one filter;
  // a parsed filter is immutable and may be read from any thread.
  Result<void> Parse(std::string_view text);

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

  std::string _filterText;
  std::vector<SearchTerm> _terms;
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
