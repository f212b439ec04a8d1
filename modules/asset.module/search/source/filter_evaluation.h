#pragma once
// The term loop of filter evaluation and the state of one evaluation. Private to the search
// library: SearchFilter::Parse runs it over keyword and subtype assets (preMatching), and
// SearchFilter::Evaluate over each asset of a search. What the stages read of an asset is kept
// in its FilterRecord, so that the common terms (free text, names, keywords, type, size) cost no
// metadata read once the record holds them.

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

// A set of small numbers (terms or value strings of one filter) that counts its members. Up to
// 128 members live inline, so that an evaluation of a usual filter allocates nothing.
class NumberSet {
public:
  explicit NumberSet(std::size_t capacity) {
    if (capacity > kInline * 64) _more.assign((capacity + 63) / 64 - kInline, 0);
  }
  bool Contains(std::uint32_t n) const { return Word(n) & Bit(n); }
  // Whether n was new.
  bool Insert(std::uint32_t n) {
    std::uint64_t& word = Word(n);
    if (word & Bit(n)) return false;
    word |= Bit(n);
    ++_count;
    return true;
  }
  std::size_t Count() const { return _count; }

private:
  static constexpr std::size_t kInline = 2;
  static std::uint64_t Bit(std::uint32_t n) { return std::uint64_t(1) << (n % 64); }
  std::uint64_t& Word(std::uint32_t n) { return n / 64 < kInline ? _words[n / 64] : _more[n / 64 - kInline]; }
  const std::uint64_t& Word(std::uint32_t n) const {
    return n / 64 < kInline ? _words[n / 64] : _more[n / 64 - kInline];
  }
  std::uint64_t _words[kInline] = {};
  std::vector<std::uint64_t> _more;
  std::size_t _count = 0;
};

// The working state of one evaluation of one asset, over the asset's record.
struct EvaluationState {
  EvaluationState(const SearchFilter& f, FilterRecord& r, std::string& reason, TypeNameCache& c)
      : filter(f), record(r), asset(r.asset), reasonText(reason), cache(c),
        matchedValues(f.GetValueNumberCount()), matchedTerms(f.GetTermNumberCount()) {}

  const SearchFilter& filter;
  FilterRecord& record;
  const AssetDescription& asset;
  std::string& reasonText;
  TypeNameCache& cache;
  NumberSet matchedValues;
  NumberSet matchedTerms;

  // Read on first use and kept for the rest of the evaluation.
  std::optional<std::vector<AssetRepositoryRef>> repositorySet;
  std::vector<std::string_view> seenTagGroups; // views into record.tags

  bool HasTerm(const SearchTerm& term) const { return matchedTerms.Contains(TermNumber(term)); }
  // The number of term, which is one of the filter's terms.
  std::uint32_t TermNumber(const SearchTerm& term) const;
  // The number of value, which is one of term's values.
  std::uint32_t ValueNumber(const SearchTerm& term, const std::string& value) const;
  // The repository that lookups of names, categories and versions go to.
  AssetRepositoryRef LookupRepository() const;
};

// Read into the state's record, unless read already: the keyword ids of both arrays; the stored
// subtype (one Id or an array of Ids).
Result<void> ReadKeywordIds(EvaluationState& state);
Result<void> ReadSubtype(EvaluationState& state);

// Reads into the state's record, unless read already, every value that a name, free text,
// keyword, type or size term reads (names and tags in the filter's language). A value that can't
// be read stays unread and the first such error is returned; the others are read all the same.
Result<void> FillRecord(EvaluationState& state, const TagStringGetter& tagStringGetter);

// Inserts value (one of term's values) and term into the state and appends text, when not empty,
// to reasonText.
Result<void> MarkTerm(const SearchTerm& term, const std::string& value, std::string_view text, EvaluationState& state);

// Runs the stages for each term of the filter in order, until one term adds nothing or all are
// satisfied. Errors of reads stop it and are returned.
Result<void> EvaluateTerms(EvaluationState& state, std::uint32_t metaIdSet, bool preMatching,
                           const TagStringGetter& tagStringGetter);

// Whether candidate contains upperValue, ignoring case.
bool ContainsText(std::string_view candidate, std::string_view upperValue);

// The collection test: an operator form on the number of elements ("=", "<" or ">" first), or a
// text search in each candidate in order. Returns the display text of a hit.
std::optional<std::string> CollectionTest(std::string_view value, const std::vector<std::string_view>& candidates);
std::optional<std::string> CollectionTest(std::string_view value, const std::vector<std::string>& candidates);

} // namespace kelvo
