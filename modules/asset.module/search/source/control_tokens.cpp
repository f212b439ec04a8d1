#include "asset/search/control_tokens.h"

#include <span>

#include "allocation_guard.h"
#include "asset/search/text_case.h"

namespace kelvo {
namespace {

struct TokenWord {
  std::string_view word; // upper case, tested as a prefix of what follows the key
  int value;
};

enum class TOKENHIT { NONE, UNKNOWN, FOUND };

// Finds the first occurrence of key (without case). When one of words, tested in order, begins
// the text after it, key and word are erased and value receives the word's value.
TOKENHIT ReadToken(std::string& text, std::string_view key, std::span<const TokenWord> words, int& value) {
  const std::size_t at = FindIgnoringCase(text, key);
  if (at == std::string::npos) return TOKENHIT::NONE;
  const std::string_view rest = std::string_view(text).substr(at + key.size());
  for (const TokenWord& word : words) {
    if (!StartsWithIgnoringCase(rest, word.word)) continue;
    text.erase(at, key.size() + word.word.size());
    value = word.value;
    return TOKENHIT::FOUND;
  }
  return TOKENHIT::UNKNOWN;
}

// A token read until none is left: the last value wins, and an unknown value gives 0 and ends
// the reading (that token and any later one stay in the text).
template <typename E> E ReadRepeatedToken(std::string& text, std::string_view key, std::span<const TokenWord> words,
                                          E defaultValue) {
  E result = defaultValue;
  for (;;) {
    int value = 0;
    const TOKENHIT hit = ReadToken(text, key, words, value);
    if (hit == TOKENHIT::NONE) return result;
    if (hit == TOKENHIT::UNKNOWN) return E(0);
    result = E(value);
  }
}

// A token read while one with a known value is found; the last value wins, an unknown value
// leaves the one before.
template <typename E> E ReadWhileFound(std::string& text, std::string_view key, std::span<const TokenWord> words,
                                       E defaultValue) {
  E result = defaultValue;
  int value = 0;
  while (ReadToken(text, key, words, value) == TOKENHIT::FOUND) result = E(value);
  return result;
}

void TrimInPlace(std::string& text) {
  const std::string_view trimmed = TrimText(text);
  const std::size_t begin = static_cast<std::size_t>(trimmed.data() - text.data());
  text.erase(begin + trimmed.size());
  text.erase(0, begin);
}

constexpr TokenWord kGroupWords[] = {{"CATEGORY", 1}, {"USEDATE", 3}, {"USECOUNT", 4}, {"CREATIONDATE", 2},
                                     {"TYPE", 5},     {"DATABASE", 6}, {"NONE", 7}};
constexpr TokenWord kSortWords[] = {{"NAME", 1},    {"MODIFICATIONDATE", 2}, {"CREATIONDATE", 3}, {"USEDATE", 4},
                                    {"USECOUNT", 5}, {"SIZE", 6},             {"RELEVANCE", 7}};
constexpr TokenWord kContextWords[] = {{"OTHER", 9},    {"OBJECTOM", 1}, {"OBJECTVP", 2},
                                       {"MESH", 3},     {"SPLINE", 4},   {"MATERIAL", 5},
                                       {"UVEDITOR", 6}, {"UVVP", 7},     {"NODE", 8}};
constexpr TokenWord kBooleanWords[] = {{"YES", 1}, {"TRUE", 1}, {"1", 1}, {"NO", 0}, {"FALSE", 0}, {"0", 0}};
constexpr TokenWord kFirstWords[] = {{"NONE", 1}, {"FAVORITES", 2}, {"RELEVANT", 3}};
constexpr TokenWord kRelevantWords[] = {{"OBJECTS", 1},    {"MATERIALS", 2}, {"MEDIA", 3},  {"NODES", 4},
                                        {"SCENENODES", 5}, {"SCENES", 6},    {"PRESETS", 7}};
// Lower-case names of the relevant items, as the smart search piece writes them.
constexpr std::string_view kRelevantNames[] = {"objects", "materials", "media", "nodes", "scenenodes", "scenes", "presets"};

constexpr std::string_view kMissingAssets = "MISSINGASSETS:YES";

} // namespace

std::string BuildFilterText(const FilterStrings& strings) {
  std::string text;
  const auto add = [&](const std::string& piece) {
    if (piece.empty()) return;
    if (!text.empty()) text += ' ';
    text += piece;
  };
  add(strings.groupFilter);
  add(strings.sortFilter);
  add(strings.masterFilter);
  if (strings.filterString.empty() || strings.localFilterMode) add(strings.smartSearch);
  add(strings.filterString);
  TrimInPlace(text);
  return text;
}

std::string SmartSearchPiece(std::string_view smartSearchText, MASTERFILTER relevantMasterFilter) {
  std::string piece(smartSearchText);
  const auto index = static_cast<int>(relevantMasterFilter);
  if (FindIgnoringCase(smartSearchText, "FIRSTITEMS:RELEVANT") != std::string_view::npos && index >= 1 && index <= 7) {
    piece += " relevantitems:";
    piece += kRelevantNames[index - 1];
  }
  return piece;
}

std::string KeywordSearchPiece(std::string_view keywordId) { return "keywordid:" + std::string(keywordId); }
std::string CategorySearchPiece(std::string_view categoryId) { return "categoryid:" + std::string(categoryId); }

Result<ControlSettings> ReadControlTokens(std::string& text, ASSETGROUPBY defaultGroupBy) {
  return GuardAllocation([&]() -> Result<ControlSettings> {
    ControlSettings settings;
    if (const std::size_t at = FindIgnoringCase(text, kMissingAssets); at != std::string::npos) {
      text.erase(at, kMissingAssets.size());
      settings.missingAssets = true;
    }
    settings.groupBy = ReadRepeatedToken(text, "GROUPBY:", kGroupWords, defaultGroupBy);
    settings.sortBy = ReadRepeatedToken(text, "SORTBY:", kSortWords, ASSETSORTBY::NAME);
    settings.relevanceContext = ReadRepeatedToken(text, "CONTEXT:", kContextWords, ASSETRELEVANCECONTEXT::OTHER);
    int showSubContent = 0;
    if (ReadToken(text, "SHOWSUBCONTENT:", kBooleanWords, showSubContent) == TOKENHIT::FOUND)
      settings.showSubContent = showSubContent != 0;
    TrimInPlace(text);
    const bool reversed = ReadWhileFound(text, "REVERSEORDER:", kBooleanWords, 0) != 0;
    TrimInPlace(text);
    settings.sortFirst = ReadRepeatedToken(text, "FIRSTITEMS:", kFirstWords, ASSETSORTFIRST::FAVORITES);
    settings.relevantItems = ReadWhileFound(text, "RELEVANTITEMS:", kRelevantWords, MASTERFILTER::ALL);
    TrimInPlace(text);
    settings.sortOrder = GetSortOrder(settings.sortBy, settings.groupBy, reversed);
    return settings;
  });
}

ASSETSORTORDER GetSortOrder(ASSETSORTBY sortBy, ASSETGROUPBY groupBy, bool reversed) {
  ASSETSORTORDER natural = ASSETSORTORDER::ASCENDING;
  switch (sortBy) {
  case ASSETSORTBY::NAME: natural = ASSETSORTORDER::ASCENDING; break;
  case ASSETSORTBY::MODIFICATION_DATE:
  case ASSETSORTBY::CREATION_DATE:
  case ASSETSORTBY::USEDATE:
  case ASSETSORTBY::USE_COUNT:
  case ASSETSORTBY::SIZE: natural = ASSETSORTORDER::DESCENDING; break;
  case ASSETSORTBY::RELEVANCE: return reversed ? ASSETSORTORDER::ASCENDING : ASSETSORTORDER::NONE;
  case ASSETSORTBY::UNDEFINED:
    natural = groupBy == ASSETGROUPBY::CREATIONDATE || groupBy == ASSETGROUPBY::USEDATE ||
                      groupBy == ASSETGROUPBY::USECOUNT
                  ? ASSETSORTORDER::DESCENDING
                  : ASSETSORTORDER::ASCENDING;
    break;
  }
  if (!reversed) return natural;
  return natural == ASSETSORTORDER::ASCENDING ? ASSETSORTORDER::DESCENDING : ASSETSORTORDER::ASCENDING;
}

ASSETSORTORDER GetGroupOrder(ASSETGROUPBY groupBy) {
  return groupBy == ASSETGROUPBY::CATEGORY || groupBy == ASSETGROUPBY::TYPE ? ASSETSORTORDER::ASCENDING
                                                                            : ASSETSORTORDER::DESCENDING;
}

} // namespace kelvo
