#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "asset/search/filter_keys.h"
#include "asset/search/search_filter.h"

using namespace kelvo;

namespace {

SearchTerm Term(const Id& metaId, std::vector<std::string> values) { return SearchTerm{std::move(values), metaId}; }
SearchTerm Text(std::vector<std::string> values) { return SearchTerm{std::move(values), Id()}; }

std::string Describe(const std::vector<SearchTerm>& terms) {
  std::string out;
  for (const SearchTerm& term : terms) {
    out += "[" + term.metaId.ToString() + ":";
    for (const std::string& v : term.values) out += " <" + v + ">";
    out += "]";
  }
  return out;
}

struct ParseCase {
  const char* text;
  std::vector<SearchTerm> terms;
};

void ExpectTerms(const std::vector<ParseCase>& cases) {
  for (const ParseCase& c : cases) {
    SearchFilter filter;
    ASSERT_TRUE(filter.Parse(c.text).HasValue()) << c.text;
    EXPECT_EQ(filter.GetTerms(), c.terms) << "text: " << c.text << "\nparsed: " << Describe(filter.GetTerms());
    EXPECT_EQ(filter.GetFilterText(), c.text);
  }
}

} // namespace

TEST(SearchFilterParse, TermsValuesAndKeys) {
  using namespace filterids;
  const std::vector<ParseCase> cases = {
      {"", {}},
      {"   \t\n ", {}},
      {"wood|metal", {Text({"WOOD", "METAL"})}},
      {"wood metal", {Text({"WOOD"}), Text({"METAL"})}},
      {"FOO:bar", {Text({"BAR"})}},
      {"FOO:", {Text({})}},
      {"NAME:\"steel beam\" SIZE:>2M", {Term(name, {"STEEL BEAM"}), Term(size, {">2M"})}},
      {"NAME:\"steel beam", {Term(name, {"\"STEEL"}), Text({"BEAM"})}},
      {"NAME:", {Term(name, {})}},
      {"NAME:  wood", {Term(name, {}), Text({"WOOD"})}},
      {"\"a b:c\"", {Text({"A B:C"})}},
      {"\"a:b c\"", {Text({"B"}), Text({"C\""})}},
      {"KEYWORD:>3 KEYWORD:3", {Term(keywords, {">3"}), Term(keywords, {"3"})}},
      {"name:Oak", {Term(name, {"OAK"})}},
      {"Name:oak|  Pine |", {Term(name, {"OAK"}), Text({"PINE"}), Text({})}},
      {"Name:\"oak|  Pine |\"", {Term(name, {"OAK", "PINE"})}},
      {"wood||metal|", {Text({"WOOD", "METAL"})}},
      {"|", {Text({})}},
      {":", {}},
      {"::", {Text({":"})}},
      {"\"\"", {}},
      {"NAME:\"\"", {Term(name, {})}},
      {"NAME:a:b", {Term(name, {"A:B"})}},
      {"FAVOURITE:yes favorite:NO", {Term(favorite, {"YES"}), Term(favorite, {"NO"})}},
      {"NAMES:oak", {Text({"OAK"})}},
      {" NAME:oak\t\tKEYWORD:wood\r\n", {Term(name, {"OAK"}), Term(keywords, {"WOOD"})}},
      {"wood\tmetal", {Text({"WOOD"}), Text({"METAL"})}},
      {"\"quoted\"next", {Text({"QUOTED"}), Text({"NEXT"})}},
      {"\"a \"b", {Text({"A"}), Text({"B"})}},
      {"eiche \xC3\xA4pfel", {Text({"EICHE"}), Text({"\xC3\x84PFEL"})}},
      {"NAME:stra\xC3\x9F" "e", {Term(name, {"STRA\xC3\x9F" "E"})}},
      {"\xCE\xB1\xCE\xB2:x", {Text({"X"})}},
      {"SCOPE:obj VERSION:>2 ASSETID:abc",
       {Term(scope, {"OBJ"}), Term(versiontag, {">2"}), Term(assetid, {"ABC"})}},
      {"INSTALLED:MAYBE", {Term(installed, {"MAYBE"})}},
      {"CREATIONDATE:>=2024-01-31", {Term(timestamp, {">=2024-01-31"})}},
  };
  ExpectTerms(cases);
}

TEST(SearchFilterParse, EveryKeyOfTheTableMapsToItsId) {
  using namespace filterids;
  const std::vector<std::pair<const char*, Id>> keys = {
      {"NAME", name},           {"ANNOTATIONS", annotations},     {"ASSETID", assetid},
      {"DEPENDENCY", dependencies}, {"DEPENDENCYCOUNT", dependencycount}, {"CATEGORYID", categoryid},
      {"KEYWORD", keywords},    {"KEYWORDID", keywordid},         {"KEYWORDCOUNT", keywordcount},
      {"LASTUSEDATE", lastusedate}, {"USECOUNT", usecount},       {"DATABASE", database},
      {"DATABASETYPE", databasetype}, {"SIZE", size},             {"INSTALLED", installed},
      {"DOWNLOADING", downloading}, {"PROTECTED", protected_},    {"FAVORITE", favorite},
      {"FAVOURITE", favorite},  {"VERSION", versiontag},          {"VERSIONCOUNT", versioncount},
      {"CREATIONDATE", timestamp}, {"PREVIEW", previewimageurl},  {"PREVIEWANIM", previewanimurl},
      {"FPS", fps},             {"ANIMATIONLENGTH", animlength},  {"BITDEPTH", bitdepth},
      {"PIXELFORMAT", pixelformat}, {"COLORPROFILE", colorprofile}, {"RESOLUTION", resolution},
      {"ALPHACHANNELS", alphachannels}, {"FILEVERSION", fileformatversion}, {"FILEFORMAT", fileformat},
      {"POINTS", pointcount},   {"POLYGONS", polygoncount},       {"OBJECTS", geometryobjectcount},
      {"MATERIALS", materialcount}, {"DIMENSIONS", boundingbox},  {"PROXY", proxygeometry},
      {"SCOPE", scope},         {"TYPE", subtype},
  };
  for (const auto& [key, id] : keys) {
    SearchFilter filter;
    ASSERT_TRUE(filter.Parse(std::string(key) + ":x").HasValue());
    ASSERT_EQ(filter.GetTerms().size(), 1u) << key;
    EXPECT_EQ(filter.GetTerms()[0].metaId, id) << key;
    ASSERT_NE(FindFilterKey(key), nullptr) << key;
    EXPECT_EQ(*FindFilterKey(key), id) << key;
  }
  EXPECT_EQ(FindFilterKey(""), nullptr);
  EXPECT_EQ(FindFilterKey("name"), nullptr); // keys are compared on the upper-cased text only
  EXPECT_EQ(FindFilterKey("ZZZ"), nullptr);
  EXPECT_EQ(FindFilterKey("A"), nullptr);
}

TEST(SearchFilterParse, TypeValuesAreRewrittenAndOneTypeTermRemains) {
  struct TypeCase {
    const char* text;
    std::vector<SearchTerm> terms;
    bool node, model, material, scene, preset;
  };
  const Id& type = filterids::subtype;
  const std::vector<TypeCase> cases = {
      {"TYPE:MATERIAL TYPE:SCENE", {Term(type, {"SCENE"})}, false, false, true, true, false},
      {"wood TYPE:a TYPE:b|c metal", {Text({"WOOD"}), Term(type, {"B", "C"}), Text({"METAL"})}, false, false, false,
       false, false},
      {"TYPE:xnodetemplate|operators", {Term(type, {"XNODETEMPLATE", "OPERATORS"})}, true, false, false, false, false},
      {"TYPE:objectmanager", {Term(type, {"NET.KELVO.ASSET.COMMAND.TYPE.OBJECT"})}, false, false, false, false, false},
      {"TYPE:model", {Term(type, {"NET.KELVO.ASSET.SUBTYPE.OBJECT"})}, false, true, false, false, false},
      {"TYPE:commands", {Term(type, {"NET.KELVO.ASSET.COMMAND.TYPE.COMMAND"})}, false, false, false, false, false},
      {"TYPE:net.kelvo.assettype.preset.x", {Term(type, {"NET.KELVO.ASSETTYPE.PRESET.X"})}, false, false, false, false,
       true},
      // NODETEMPLATE is tested before MATERIAL, so a value fits one rule only.
      {"TYPE:materialnodetemplate", {Term(type, {"MATERIALNODETEMPLATE"})}, true, false, false, false, false},
      {"TYPE:file", {Term(type, {"FILE"})}, false, false, false, false, false},
      {"TYPE:", {Term(type, {})}, false, false, false, false, false},
  };
  for (const TypeCase& c : cases) {
    SearchFilter filter;
    ASSERT_TRUE(filter.Parse(c.text).HasValue());
    EXPECT_EQ(filter.GetTerms(), c.terms) << c.text << "\nparsed: " << Describe(filter.GetTerms());
    EXPECT_EQ(filter.GetTypeFilterNode(), c.node) << c.text;
    EXPECT_EQ(filter.GetTypeFilterModel(), c.model) << c.text;
    EXPECT_EQ(filter.GetTypeFilterMaterial(), c.material) << c.text;
    EXPECT_EQ(filter.GetTypeFilterScene(), c.scene) << c.text;
    EXPECT_EQ(filter.GetTypeFilterPreset(), c.preset) << c.text;
  }
}

TEST(SearchFilterParse, DimensionsValuesBecomeCentimetres) {
  const Id& box = filterids::boundingbox;
  const std::vector<ParseCase> cases = {
      {"DIMENSIONS:>2m", {Term(box, {">200"})}},
      {"DIMENSIONS:>=15mm|<1.5km", {Term(box, {">=1.5", "<150000"})}},
      {"DIMENSIONS:2ft", {Term(box, {"60.96"})}},
      {"DIMENSIONS:<1in", {Term(box, {"<2.54"})}},
      {"DIMENSIONS:12", {Term(box, {"12"})}},
      {"DIMENSIONS:\"1m + 50cm\"", {Term(box, {"150"})}},
      {"DIMENSIONS:>M", {Term(box, {">M"})}},
      {"DIMENSIONS:>2parsecs", {Term(box, {">2PARSECS"})}},
      {"DIMENSIONS:>2m)", {Term(box, {">2M)"})}},
      {"DIMENSIONS:1e999", {Term(box, {"1E999"})}},
  };
  ExpectTerms(cases);
}

TEST(SearchFilterParse, ParsingAgainReplacesTermsAndFlags) {
  SearchFilter filter(LENGTHUNITSYSTEM::IMPERIAL);
  ASSERT_TRUE(filter.Parse("TYPE:scene wood").HasValue());
  ASSERT_TRUE(filter.Parse("metal").HasValue());
  EXPECT_EQ(filter.GetTerms(), std::vector<SearchTerm>{Text({"METAL"})});
  EXPECT_FALSE(filter.GetTypeFilterScene());
  EXPECT_EQ(filter.GetLengthUnitSystem(), LENGTHUNITSYSTEM::IMPERIAL);
}

TEST(SearchFilterParse, TermsCompareAndHashByValuesAndId) {
  const SearchTerm a = Term(filterids::name, {"A", "B"});
  EXPECT_EQ(a, Term(filterids::name, {"A", "B"}));
  EXPECT_EQ(std::hash<SearchTerm>()(a), std::hash<SearchTerm>()(Term(filterids::name, {"A", "B"})));
  EXPECT_NE(a, Term(filterids::name, {"B", "A"}));
  EXPECT_NE(a, Text({"A", "B"}));
  EXPECT_NE(std::hash<SearchTerm>()(a), std::hash<SearchTerm>()(Term(filterids::name, {"B", "A"})));
}

TEST(SearchFilterParse, LongTextStaysLinear) {
  // Many short words without colons: each word is scanned once.
  std::string text;
  for (int i = 0; i < 200000; ++i) text += "ab ";
  text += "\"unclosed";
  SearchFilter filter;
  ASSERT_TRUE(filter.Parse(text).HasValue());
  ASSERT_EQ(filter.GetTerms().size(), 200001u);
  EXPECT_EQ(filter.GetTerms().back(), Text({"\"UNCLOSED"}));
}
