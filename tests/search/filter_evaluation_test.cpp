// Filter evaluation over a generated on-disk repository: every key of the term table, keywords
// from the base repository and the user's own, indirect matches, reasons, and the loop that ends
// at the first term that adds nothing.

#include "asset/search/display_strings.h"
#include "search_fixture.h"

namespace kelvo::testing {
namespace {

constexpr const char* kAny = "\x01"; // the reason is not checked

struct EvaluationCase {
  const char* filter;
  std::map<std::string, std::string> passing; // id -> reason
};

class FilterEvaluationTest : public SearchRepositoryTest {
protected:
  void Expect(const std::vector<EvaluationCase>& cases, LENGTHUNITSYSTEM units = LENGTHUNITSYSTEM::METRIC) {
    for (const EvaluationCase& c : cases) {
      std::map<std::string, std::string> got = Passing(c.filter, units);
      std::map<std::string, std::string> wanted = c.passing;
      for (auto& [id, reason] : wanted)
        if (reason == kAny && got.count(id)) reason = got[id];
      EXPECT_EQ(got, wanted) << "filter: " << c.filter;
    }
  }
};

const std::map<std::string, std::string> kAllButCategory{
    {"oak", ""}, {"pine", ""}, {"rock", ""}, {"cmd.extrude", ""}};

TEST_F(FilterEvaluationTest, FreeTextMatchesNamesKeywordsAndTagsWithTheirReasons) {
  Generate();
  Expect({
      {"oak", {{"oak", ""}}},
      {"OAK", {{"oak", ""}}},
      // The name matches, but the keyword "Steel beams" held when the filter was parsed.
      {"beam", {{"oak", "Steel beams"}}},
      // Keywords are tried before the name.
      {"oak beam", {{"oak", "Steel beams"}}},
      {"NAME:beam", {{"oak", ""}}},
      // A keyword of the base repository, found once when the filter is parsed.
      {"wood", {{"oak", "Wood"}}},
      // A user keyword is read through its name.
      {"mine", {{"oak", "Mine"}}},
      // Tags: a displayable synonym is the reason, another one matches silently.
      {"hardwood", {{"oak", "Hardwood"}}},
      {"lumber", {{"oak", ""}}},
      {"tree", {{"oak", ""}, {"cat.trees", ""}}},
      {"oak|pine", {{"oak", ""}, {"pine", ""}}},
      {"wood NAME:oak", {{"oak", "Wood"}}},
      {"zzz", {}},
      {"", {}},
      // Two terms with one text add one value string and so never both hold.
      {"wood wood", {}},
  });
}

TEST_F(FilterEvaluationTest, TheTermLoopEndsAtTheFirstTermThatAddsNothing) {
  Generate();
  // The keyword "Steel beams" satisfies the first two terms when the filter is parsed; the loop
  // then sees the first term already held, a count of two after it, and stops.
  Expect({{"steel beams NAME:oak", {}},
          {"NAME:oak steel beams", {{"oak", "Steel beams, Steel beams"}}},
          {"wood steel NAME:beam", {{"oak", "Wood, Steel beams"}}}});
}

TEST_F(FilterEvaluationTest, KeywordTypeCategoryAndIdKeys) {
  Generate();
  Expect({
      {"KEYWORD:steel", {{"oak", "Steel beams"}}},
      {"KEYWORD:>4", {{"oak", "5>4"}}},
      {"KEYWORD:3", {}},
      {"KEYWORD:=0", {{"pine", "0=0"}, {"rock", "0=0"}, {"cat.trees", "0=0"}, {"cmd.extrude", "0=0"}}},
      {"KEYWORDCOUNT:5", {{"oak", "keywordcount:5"}}},
      {"KEYWORDID:kw.mine", {{"oak", "kw.mine"}}},
      {"TYPE:png", {{"oak", ""}}},
      {"TYPE:category", {{"cat.trees", ""}}},
      {"TYPE:category TYPE:png", {{"oak", ""}}},
      {"NAME:beam", {{"oak", ""}}},
      {"NAME:", {}},
      {"ANNOTATIONS:art", {{"oak", ""}}},
      {"ASSETID:pine/", {{"pine", ""}}},
      {"DEPENDENCY:beam", {{"pine", "Oak Beam"}}},
      {"DEPENDENCY:oak", {{"pine", "Oak Beam"}}},
      {"DEPENDENCY:>0", {{"pine", "1>0"}}},
      {"DEPENDENCYCOUNT:1", {{"pine", "dependencycount:1"}}},
      {"CATEGORYID:nature", {{"oak", ""}}},
      {"CATEGORYID:cat.trees", {{"oak", ""}}},
      {"CATEGORYID:uncategorized", {{"pine", ""}, {"rock", ""}, {"cmd.extrude", ""}}},
      {"SCOPE:modeling", {{"cmd.extrude", ""}}},
      {"SCOPE:animation", {}},
      {"DATABASE:search.base", {{"cat.trees", ""}}},
      {"DATABASE:search.main", kAllButCategory},
      {"DATABASETYPE:database", {{"oak", ""}, {"pine", ""}, {"rock", ""}, {"cat.trees", ""}, {"cmd.extrude", ""}}},
      {"DATABASETYPE:watch", {}},
  });
}

TEST_F(FilterEvaluationTest, MetadataKeysCompareWithTheirValueForms) {
  Generate();
  Expect({
      {"LASTUSEDATE:>2024-02-27 LASTUSEDATE:<2024-03-05", {{"oak", kAny}}},
      {"LASTUSEDATE:>2024-02-27", {{"oak", kAny}}},
      {"LASTUSEDATE:<2024-02-27", {}},
      {"LASTUSEDATE:2024-02-30", {}},
      {"USECOUNT:>=7", {{"oak", "used 7 times"}}},
      {"USECOUNT:0", {{"pine", "used 0 times"}, {"rock", "used 0 times"}, {"cmd.extrude", "used 0 times"}}},
      {"CREATIONDATE:>2000-01-01", {{"oak", kAny}, {"pine", kAny}, {"rock", kAny}, {"cmd.extrude", kAny}}},
      {"CREATIONDATE:<2000-01-01", {}},
      {"SIZE:>2M", {{"oak", "3 MB"}}},
      {"SIZE:<=3M SIZE:>=3M", {{"oak", "3 MB, 3 MB"}}},
      {"SIZE:3X", {}},
      {"INSTALLED:yes", kAllButCategory},
      {"INSTALLED:MAYBE", {}},
      {"DOWNLOADING:no", kAllButCategory},
      {"PROTECTED:no", kAllButCategory},
      {"PROTECTED:yes", {}},
      {"FAVORITE:yes", {{"oak", ""}}},
      {"FAVOURITE:no", {{"pine", ""}, {"rock", ""}, {"cmd.extrude", ""}}},
      {"VERSION:draft", {{"pine", "draft"}}},
      {"VERSION:>1", {{"pine", "2>1"}}},
      {"VERSIONCOUNT:2", {{"pine", "versioncount:2"}}},
      {"PREVIEW:yes", {{"oak", ""}}},
      {"PREVIEWANIM:yes", {}},
      {"PREVIEWANIM:no", kAllButCategory},
      {"PROXY:1", {{"oak", ""}}},
      {"FPS:25", {{"oak", "25"}}},
      {"FPS:<100", {{"oak", "25"}}},
      {"ANIMATIONLENGTH:>2", {{"oak", "2.5"}}},
      {"BITDEPTH:16", {{"oak", "16"}}},
      {"BITDEPTH:x16", {}},
      {"PIXELFORMAT:rgba", {{"oak", ""}}},
      {"COLORPROFILE:srgb", {{"oak", "sRGB v10"}}},
      {"COLORPROFILE:=SRGB V10", {}},
      {"FILEFORMAT:=K3S", {{"oak", "K3S"}}},
      {"FILEFORMAT:>K2S", {{"oak", "K3S"}}},
      {"FILEFORMAT:>K10S", {}},
      {"FILEVERSION:v9", {{"oak", "v9"}}},
      {"RESOLUTION:>=4096", {{"oak", "4096"}}},
      {"RESOLUTION:>4096", {}},
      {"ALPHACHANNELS:1", {{"oak", "1"}}},
      {"POINTS:>999", {{"oak", "1000"}}},
      {"POINTS:-1", {}},
      {"POLYGONS:500", {{"oak", "500"}}},
      {"OBJECTS:3", {{"oak", "3"}}},
      {"MATERIALS:<3", {{"oak", "2"}}},
      {"DIMENSIONS:>2m", {{"oak", "3 m"}}},
      {"DIMENSIONS:<=3m", {{"oak", "3 m"}}},
      {"DIMENSIONS:>M", {}},
      {"DIMENSIONS:>4m", {}},
  });
  Expect({{"DIMENSIONS:>9ft", {{"oak", "3.28 yd"}}}}, LENGTHUNITSYSTEM::IMPERIAL);
}

TEST_F(FilterEvaluationTest, ACategoryFailsMetadataTermsUnlessItHoldsAPassingAsset) {
  Generate();
  SearchFilter filter;
  ASSERT_TRUE(filter.Parse(_main, "SIZE:>1").HasValue());
  auto trees = _main->FindLatestAsset(Id(), Id("cat.trees"), Id(), LATEST);
  ASSERT_TRUE(trees.HasValue() && *trees);
  TypeNameCache cache;
  std::string reason;
  EXPECT_TRUE(filter.Evaluate(*trees, reason, cache).GetValue());
  filter.AddMatchedCategory(Id("cat.trees"));
  EXPECT_FALSE(filter.Evaluate(*trees, reason, cache).GetValue());
}

TEST_F(FilterEvaluationTest, IndirectMatchesRecordTheKeywordsAndSubtypesThatHeld) {
  Generate();
  const auto indirect = [&](const char* text) {
    SearchFilter filter;
    EXPECT_TRUE(filter.Parse(_main, text).HasValue());
    std::map<std::string, std::vector<std::string>> found;
    for (const IndirectMatch& match : filter.GetIndirectMatches()) {
      EXPECT_EQ(match.isKeyword, match.metaKey == InternedId("net.kelvo.asset.keywords"));
      EXPECT_EQ(match.matchedTerms.size(), match.matchedValues.size());
      found[match.assetId.ToString()] = match.matchedValues;
    }
    return found;
  };
  using Found = std::map<std::string, std::vector<std::string>>;
  EXPECT_EQ(indirect("wood NAME:zzz"), (Found{{"kw.wood", {"WOOD"}}}));
  EXPECT_EQ(indirect("TYPE:png NAME:zzz"), (Found{{"net.kelvo.asset.subtype.file.png", {"PNG"}}}));
  EXPECT_EQ(indirect("steel beams"), (Found{{"kw.steel", {"STEEL", "BEAMS"}}}));
  // Only terms in front count: the keyword's pass ends at the first term it does not hold.
  EXPECT_EQ(indirect("TYPE:png wood"), (Found{{"net.kelvo.asset.subtype.file.png", {"PNG"}}}));
  // A count form is about the asset's own keywords, never about those of a keyword asset.
  EXPECT_EQ(indirect("KEYWORD:=0"), Found{});
}

TEST_F(FilterEvaluationTest, RecordsKeptAcrossFiltersGiveTheSameAnswersAsFreshOnes) {
  Generate();
  std::vector<std::string> filters{"oak",         "beam",         "wood NAME:oak", "hardwood",     "TYPE:png",
                                   "KEYWORD:=0",  "SIZE:>2M",     "steel beams",   "NAME:oak steel beams",
                                   "tree",        "FAVORITE:no",  "lumber|zzz",    "KEYWORDID:kw.mine"};
  // More value strings than fit the inline bits of an evaluation; the one that holds comes last.
  std::string many;
  for (int i = 0; i < 200; ++i) many += "x" + std::to_string(i) + "|";
  filters.push_back(many + "pine");
  // Records filled up front, before any filter, answer as those filled by the filters themselves.
  std::vector<FilterRecord> records, filled;
  TypeNameCache cache;
  SearchFilter filler;
  ASSERT_TRUE(filler.Parse(_main, "").HasValue());
  for (const char* aid : {"oak", "pine", "rock", "cat.trees", "cmd.extrude"}) {
    auto found = _main->FindLatestAsset(Id(), Id(aid), Id(), LATEST);
    ASSERT_TRUE(found.HasValue() && *found) << aid;
    records.emplace_back(*found);
    filled.emplace_back(*found);
    ASSERT_TRUE(filler.Fill(filled.back(), cache).HasValue()) << aid;
  }
  for (const std::string& text : filters) {
    SearchFilter filter;
    ASSERT_TRUE(filter.Parse(_main, text).HasValue());
    for (std::vector<FilterRecord>* set : {&records, &filled}) {
      std::map<std::string, std::string> kept;
      for (FilterRecord& record : *set) {
        std::string reason;
        auto rejected = filter.Evaluate(record, reason, cache);
        ASSERT_TRUE(rejected.HasValue()) << text;
        if (!*rejected) kept[record.GetAsset()->GetIdAndVersion().first.ToString()] = reason;
      }
      EXPECT_EQ(kept, Passing(text)) << "filter: " << text << (set == &filled ? " (filled first)" : "");
    }
  }
  EXPECT_EQ(Passing(many + "pine"), (std::map<std::string, std::string>{{"pine", ""}}));

  // A record keeps what it read until it is reset.
  FilterRecord& pine = records[1];
  ASSERT_TRUE(pine.GetAsset()->StoreMetaString(stringkeys::name, "Larch", nullptr).HasValue());
  SearchFilter larch;
  ASSERT_TRUE(larch.Parse(_main, "larch").HasValue());
  std::string reason;
  EXPECT_TRUE(larch.Evaluate(pine, reason, cache).GetValue());
  pine.Reset();
  EXPECT_FALSE(larch.Evaluate(pine, reason, cache).GetValue());
}

TEST_F(FilterEvaluationTest, TagStringsAreKeptAsDerivedDataPerLanguage) {
  Generate();
  auto oak = _main->FindLatestAsset(Id(), Id("oak"), Id(), LATEST);
  ASSERT_TRUE(oak.HasValue() && *oak);
  EXPECT_EQ(GetTagStrings(*oak).GetValue(), "timber,lumber;$%$Hardwood,Tree");
  const auto storedLanguage = [&] {
    auto again = _main->FindLatestAsset(Id(), Id("oak"), Id(), LATEST);
    auto value = (*again)->GetMetaData()->GetValue<DataDictionary>(InternedId(stringkeys::tags));
    return value.HasValue() && *value ? (*value)->Get<std::string>(Id("language")).value_or("") : std::string("none");
  };
  EXPECT_EQ(storedLanguage(), "en-US");
  const LanguageRef previous = Language::GetCurrentLanguage();
  Language::SetCurrentLanguage(Language::Get("de-DE"));
  EXPECT_EQ(GetTagStrings(*oak).GetValue(), "timber,lumber;$%$Hardwood,Tree");
  EXPECT_EQ(storedLanguage(), "de-DE");
  Language::SetCurrentLanguage(previous);
}

} // namespace
} // namespace kelvo::testing
