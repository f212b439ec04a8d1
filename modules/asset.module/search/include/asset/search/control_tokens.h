#pragma once
// The composite filter text of a browser and the control tokens in it (GROUPBY:, SORTBY:, ...),
// which choose grouping, sorting and relevance instead of filtering and are cut out before the
// rest is parsed into terms.

#include <string>
#include <string_view>

#include "asset/search/search_enums.h"
#include "kelvo/result.h"

namespace kelvo {

// The filter strings of a browser that make up its composite filter text.
struct FilterStrings {
  std::string groupFilter;
  std::string sortFilter;
  std::string masterFilter;
  std::string smartSearch;  // the rendered smart search selection
  std::string filterString; // what the user typed
  bool localFilterMode = false;
};

// Joins the non-empty pieces by one blank in the order group, sort, master, smart search, filter
// string, and trims the whole. The smart search takes part only when the filter string is empty
// or localFilterMode is set. Never fails.
std::string BuildFilterText(const FilterStrings& strings);

// The smart search piece of a smart search asset: its stored search text, followed by the
// relevant items token of relevantMasterFilter when the text asks for relevant items first
// (FIRSTITEMS:RELEVANT) and relevantMasterFilter is one of OBJECTS to PRESETS.
std::string SmartSearchPiece(std::string_view smartSearchText, MASTERFILTER relevantMasterFilter);

// The smart search piece of a keyword or category asset: "keywordid:<id>" or "categoryid:<id>".
std::string KeywordSearchPiece(std::string_view keywordId);
std::string CategorySearchPiece(std::string_view categoryId);

// What the control tokens of a filter text chose.
struct ControlSettings {
  ASSETGROUPBY groupBy = ASSETGROUPBY::UNDEFINED;
  ASSETSORTBY sortBy = ASSETSORTBY::UNDEFINED;
  ASSETSORTORDER sortOrder = ASSETSORTORDER::NONE;
  ASSETSORTFIRST sortFirst = ASSETSORTFIRST::UNDEFINED;
  ASSETRELEVANCECONTEXT relevanceContext = ASSETRELEVANCECONTEXT::UNDEFINED;
  MASTERFILTER relevantItems = MASTERFILTER::ALL;
  bool showSubContent = false;
  bool missingAssets = false;
};

// Reads and erases the control tokens of text (keys without case, anywhere, even inside a word)
// and trims it. A token whose value is unknown stays in the text and is searched as an unknown
// key. defaultGroupBy applies when no GROUPBY: token is present (TYPE for an asset list, CATEGORY
// otherwise). Fails only when memory runs out (net.kelvo.error.outofmemory); text is then unchanged.
Result<ControlSettings> ReadControlTokens(std::string& text, ASSETGROUPBY defaultGroupBy);

// The direction of the entries for a sort key, and REVERSEORDER: swapping it.
ASSETSORTORDER GetSortOrder(ASSETSORTBY sortBy, ASSETGROUPBY groupBy, bool reversed);

// The direction of the groups themselves in an asset list.
ASSETSORTORDER GetGroupOrder(ASSETGROUPBY groupBy);

} // namespace kelvo
