#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "asset/search/control_tokens.h"

using namespace kelvo;

namespace {

struct TokenCase {
  const char* text;
  const char* rest; // the text after the tokens were cut out
  ASSETGROUPBY groupBy;
  ASSETSORTBY sortBy;
  ASSETSORTORDER sortOrder;
  ASSETSORTFIRST sortFirst = ASSETSORTFIRST::FAVORITES;
  ASSETRELEVANCECONTEXT context = ASSETRELEVANCECONTEXT::OTHER;
  MASTERFILTER relevantItems = MASTERFILTER::ALL;
  bool showSubContent = false;
  bool missingAssets = false;
};

} // namespace

TEST(ControlTokens, ReadAndCutOut) {
  using G = ASSETGROUPBY;
  using S = ASSETSORTBY;
  using O = ASSETSORTORDER;
  using F = ASSETSORTFIRST;
  using C = ASSETRELEVANCECONTEXT;
  using M = MASTERFILTER;
  const std::vector<TokenCase> cases = {
      {"", "", G::TYPE, S::NAME, O::ASCENDING},
      {"wood", "wood", G::TYPE, S::NAME, O::ASCENDING},
      {"groupby:type", "", G::TYPE, S::NAME, O::ASCENDING},
      {"GROUPBY:CATEGORY wood", "wood", G::CATEGORY, S::NAME, O::ASCENDING},
      {"GROUPBY:FOO wood", "GROUPBY:FOO wood", G::UNDEFINED, S::NAME, O::ASCENDING},
      // The last known value wins; an unknown one gives 0 and stops the reading.
      {"GROUPBY:usedate x GROUPBY:database", "x", G::DATABASE, S::NAME, O::ASCENDING},
      {"GROUPBY:usedate GROUPBY:foo GROUPBY:type", "GROUPBY:foo GROUPBY:type", G::UNDEFINED, S::NAME, O::ASCENDING},
      {"GROUPBY:none", "", G::NOTHING, S::NAME, O::ASCENDING},
      {"GROUPBY:creationdate SORTBY:foo", "SORTBY:foo", G::CREATIONDATE, S::UNDEFINED, O::DESCENDING},
      // A value is a prefix of what follows; the rest of the word stays.
      {"GROUPBY:TYPEWRITER", "WRITER", G::TYPE, S::NAME, O::ASCENDING},
      // A key is found inside a longer word too.
      {"xsortby:sizey", "xy", G::TYPE, S::SIZE, O::DESCENDING},
      {"SORTBY:modificationdate REVERSEORDER:yes", "", G::TYPE, S::MODIFICATION_DATE, O::ASCENDING},
      {"SORTBY:relevance", "", G::TYPE, S::RELEVANCE, O::NONE},
      {"SORTBY:relevance REVERSEORDER:1", "", G::TYPE, S::RELEVANCE, O::ASCENDING},
      {"REVERSEORDER:true REVERSEORDER:0", "", G::TYPE, S::NAME, O::ASCENDING},
      {"REVERSEORDER:true REVERSEORDER:maybe", "REVERSEORDER:maybe", G::TYPE, S::NAME, O::DESCENDING},
      {"SORTBY:usecount SORTBY:usedate", "", G::TYPE, S::USEDATE, O::DESCENDING},
      {"SORTBY:creationdate", "", G::TYPE, S::CREATION_DATE, O::DESCENDING},
      {"CONTEXT:uvvp", "", G::TYPE, S::NAME, O::ASCENDING, F::FAVORITES, C::UV_VP},
      {"CONTEXT:objectom CONTEXT:node", "", G::TYPE, S::NAME, O::ASCENDING, F::FAVORITES, C::NODE},
      {"CONTEXT:bad", "CONTEXT:bad", G::TYPE, S::NAME, O::ASCENDING, F::FAVORITES, C::UNDEFINED},
      {"FIRSTITEMS:relevant RELEVANTITEMS:scenenodes", "", G::TYPE, S::NAME, O::ASCENDING, F::RELEVANT, C::OTHER,
       M::SCENE_NODES},
      {"FIRSTITEMS:none", "", G::TYPE, S::NAME, O::ASCENDING, F::NONE},
      {"FIRSTITEMS:what", "FIRSTITEMS:what", G::TYPE, S::NAME, O::ASCENDING, F::UNDEFINED},
      // SCENES is tested after SCENENODES, MATERIALS before MEDIA.
      {"RELEVANTITEMS:scenes RELEVANTITEMS:media", "", G::TYPE, S::NAME, O::ASCENDING, F::FAVORITES, C::OTHER,
       M::MEDIA},
      {"RELEVANTITEMS:presets RELEVANTITEMS:x", "RELEVANTITEMS:x", G::TYPE, S::NAME, O::ASCENDING, F::FAVORITES,
       C::OTHER, M::PRESETS},
      {"SHOWSUBCONTENT:yes wood", "wood", G::TYPE, S::NAME, O::ASCENDING, F::FAVORITES, C::OTHER, M::ALL, true},
      {"SHOWSUBCONTENT:no SHOWSUBCONTENT:yes", "SHOWSUBCONTENT:yes", G::TYPE, S::NAME, O::ASCENDING, F::FAVORITES,
       C::OTHER, M::ALL, false},
      {"missingassets:yes  wood ", "wood", G::TYPE, S::NAME, O::ASCENDING, F::FAVORITES, C::OTHER, M::ALL, false,
       true},
      {"MISSINGASSETS:NO", "MISSINGASSETS:NO", G::TYPE, S::NAME, O::ASCENDING},
      {"  GROUPBY:usecount\tSORTBY:size  REVERSEORDER:FALSE  ", "", G::USECOUNT, S::SIZE, O::DESCENDING},
  };
  for (const TokenCase& c : cases) {
    std::string text = c.text;
    auto settings = ReadControlTokens(text, ASSETGROUPBY::TYPE);
    ASSERT_TRUE(settings.HasValue()) << c.text;
    EXPECT_EQ(text, c.rest) << c.text;
    EXPECT_EQ(settings->groupBy, c.groupBy) << c.text;
    EXPECT_EQ(settings->sortBy, c.sortBy) << c.text;
    EXPECT_EQ(settings->sortOrder, c.sortOrder) << c.text;
    EXPECT_EQ(settings->sortFirst, c.sortFirst) << c.text;
    EXPECT_EQ(settings->relevanceContext, c.context) << c.text;
    EXPECT_EQ(settings->relevantItems, c.relevantItems) << c.text;
    EXPECT_EQ(settings->showSubContent, c.showSubContent) << c.text;
    EXPECT_EQ(settings->missingAssets, c.missingAssets) << c.text;
  }
}

TEST(ControlTokens, DefaultGroupingComesFromTheCaller) {
  std::string text = "wood";
  auto settings = ReadControlTokens(text, ASSETGROUPBY::CATEGORY);
  ASSERT_TRUE(settings.HasValue());
  EXPECT_EQ(settings->groupBy, ASSETGROUPBY::CATEGORY);
}

TEST(ControlTokens, SortOrderByKeyAndReversal) {
  using S = ASSETSORTBY;
  using G = ASSETGROUPBY;
  using O = ASSETSORTORDER;
  struct OrderCase {
    S sortBy;
    G groupBy;
    O natural, reversed;
  };
  const std::vector<OrderCase> cases = {
      {S::NAME, G::TYPE, O::ASCENDING, O::DESCENDING},
      {S::SIZE, G::TYPE, O::DESCENDING, O::ASCENDING},
      {S::USE_COUNT, G::CATEGORY, O::DESCENDING, O::ASCENDING},
      {S::RELEVANCE, G::TYPE, O::NONE, O::ASCENDING},
      {S::UNDEFINED, G::USEDATE, O::DESCENDING, O::ASCENDING},
      {S::UNDEFINED, G::CREATIONDATE, O::DESCENDING, O::ASCENDING},
      {S::UNDEFINED, G::DATABASE, O::ASCENDING, O::DESCENDING},
  };
  for (const OrderCase& c : cases) {
    EXPECT_EQ(GetSortOrder(c.sortBy, c.groupBy, false), c.natural) << int(c.sortBy) << " " << int(c.groupBy);
    EXPECT_EQ(GetSortOrder(c.sortBy, c.groupBy, true), c.reversed) << int(c.sortBy) << " " << int(c.groupBy);
  }
  EXPECT_EQ(GetGroupOrder(G::CATEGORY), O::ASCENDING);
  EXPECT_EQ(GetGroupOrder(G::TYPE), O::ASCENDING);
  EXPECT_EQ(GetGroupOrder(G::USEDATE), O::DESCENDING);
  EXPECT_EQ(GetGroupOrder(G::DATABASE), O::DESCENDING);
}

TEST(CompositeFilterText, PiecesJoinedInOrder) {
  FilterStrings strings{"GROUPBY:type", "SORTBY:name", "TYPE:file", "keywordid:k1", "", false};
  EXPECT_EQ(BuildFilterText(strings), "GROUPBY:type SORTBY:name TYPE:file keywordid:k1");
  strings.filterString = " oak ";
  EXPECT_EQ(BuildFilterText(strings), "GROUPBY:type SORTBY:name TYPE:file  oak");
  strings.localFilterMode = true;
  EXPECT_EQ(BuildFilterText(strings), "GROUPBY:type SORTBY:name TYPE:file keywordid:k1  oak");
  EXPECT_EQ(BuildFilterText(FilterStrings{"", "", "", "", " \t", false}), "");
  EXPECT_EQ(BuildFilterText(FilterStrings{"", " x", "", "", "", false}), "x");
}

TEST(CompositeFilterText, TextOfOnlyControlTokensBecomesEmpty) {
  std::string text = BuildFilterText(FilterStrings{"GROUPBY:type", "SORTBY:size REVERSEORDER:yes", "", "", "", false});
  ASSERT_TRUE(ReadControlTokens(text, ASSETGROUPBY::TYPE).HasValue());
  EXPECT_EQ(text, "");
}

TEST(CompositeFilterText, SmartSearchPieces) {
  EXPECT_EQ(SmartSearchPiece("TYPE:file firstitems:relevant", MASTERFILTER::SCENE_NODES),
            "TYPE:file firstitems:relevant relevantitems:scenenodes");
  EXPECT_EQ(SmartSearchPiece("FIRSTITEMS:RELEVANT", MASTERFILTER::PRESETS), "FIRSTITEMS:RELEVANT relevantitems:presets");
  EXPECT_EQ(SmartSearchPiece("FIRSTITEMS:RELEVANT", MASTERFILTER::OBJECTS), "FIRSTITEMS:RELEVANT relevantitems:objects");
  EXPECT_EQ(SmartSearchPiece("FIRSTITEMS:RELEVANT", MASTERFILTER::ALL), "FIRSTITEMS:RELEVANT");
  EXPECT_EQ(SmartSearchPiece("FIRSTITEMS:RELEVANT", MASTERFILTER::TOOLCOMMANDS), "FIRSTITEMS:RELEVANT");
  EXPECT_EQ(SmartSearchPiece("FIRSTITEMS:NONE", MASTERFILTER::MEDIA), "FIRSTITEMS:NONE");
  EXPECT_EQ(KeywordSearchPiece("net.kelvo.keyword.wood"), "keywordid:net.kelvo.keyword.wood");
  EXPECT_EQ(CategorySearchPiece("net.kelvo.category.x"), "categoryid:net.kelvo.category.x");
  // The rendered relevant items token is read back as the same master filter.
  for (int m = 1; m <= 7; ++m) {
    std::string text = SmartSearchPiece("firstitems:relevant", MASTERFILTER(m));
    auto settings = ReadControlTokens(text, ASSETGROUPBY::TYPE);
    ASSERT_TRUE(settings.HasValue());
    EXPECT_EQ(settings->relevantItems, MASTERFILTER(m));
    EXPECT_EQ(settings->sortFirst, ASSETSORTFIRST::RELEVANT);
    EXPECT_EQ(text, "");
  }
}
