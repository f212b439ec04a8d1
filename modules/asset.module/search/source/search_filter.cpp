#include "asset/search/search_filter.h"

#include "allocation_guard.h"
#include "asset/search/filter_keys.h"
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
    _typeFilterNode = _typeFilterModel = _typeFilterMaterial = _typeFilterScene = _typeFilterPreset = false;
    const std::string upper = ToUpperText(TrimText(text));
    std::size_t typeTerm = kNoTerm;
    ForEachPair(upper, [&](std::string_view key, std::string_view value) { AddTerm(key, value, typeTerm); });
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

} // namespace kelvo
