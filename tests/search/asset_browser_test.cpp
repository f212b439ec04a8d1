// The browser object: coalescing and cancellation of update jobs, every grouping and sort key in
// both orders, favourites and relevance first, and reuse of the kept walk after a store.

#include <ctime>
#include <future>
#include <thread>

#include "asset/search/result_model.h"
#include "browser_fixture.h"
#include "kelvo/job_queue.h"

namespace kelvo::testing {
namespace {

constexpr std::int64_t kDay = 24 * 3600;

class AssetBrowserTest : public BrowserTest {
protected:
  // Item9: material, 300 bytes, made 2 days ago, used once today, in category Xylo.
  // item10: object, 100 bytes, made today, used 50 times yesterday, a favourite.
  // Apple: no subtype, 200 bytes, made in 2020, never used, in the base repository.
  void Generate() {
    const std::int64_t now = UniversalDateTime::GetNow().ToUnixSeconds();
    Store(_main, "net.kelvo.asset.subtype.material", SubTypeAssetInterface::Create(), "Material");
    Store(_main, "net.kelvo.asset.subtype.object", SubTypeAssetInterface::Create(), "Object");
    Store(_main, "cat.x", CategoryAssetInterface::Create(), "Xylo");
    AssetDescription a = AddFile(_main, "a", "Item9", 300);
    AssetDescription b = AddFile(_main, "b", "item10", 100);
    AssetDescription c = AddFile(_base, "c", "Apple", 200);
    Meta(a, "net.kelvo.asset.subtype", Data(Id("net.kelvo.asset.subtype.material")));
    Meta(b, "net.kelvo.asset.subtype", Data(Id("net.kelvo.asset.subtype.object")));
    Meta(a, "net.kelvo.node.category", Data(Id("cat.x")));
    const auto stamp = [](const AssetDescription& d, std::int64_t seconds) {
      Meta(d, "net.kelvo.asset.timestamp", Data(UniversalDateTime::FromUnixSeconds(seconds)),
           AssetMetaData::READ_ONLY_VERSION | AssetMetaData::IGNORE_READ_ONLY);
    };
    stamp(a, now - 2 * kDay);
    stamp(b, now);
    stamp(c, 1577836800); // 2020-01-01
    const auto use = [](const AssetDescription& d, std::int64_t count, std::int64_t last) {
      DataDictionary usage;
      usage.SetData(Id("count"), Data(count));
      usage.SetData(Id("lastuse"), Data(UniversalDateTime::FromUnixSeconds(last)));
      Meta(d, "net.kelvo.asset.usage", Data(usage), AssetMetaData::PERSISTENT_USER);
    };
    use(a, 1, now);
    use(b, 50, now - kDay);
    Meta(b, "net.kelvo.asset.userkeywords", Ids({"net.kelvo.keyword.favourite"}), AssetMetaData::PERSISTENT_USER);
  }

  std::vector<std::string> Leaves(const std::string& sort) {
    std::vector<std::string> rows = Filter("GROUPBY:NONE", sort + " FIRSTITEMS:NONE", "");
    std::erase_if(rows, [](const std::string& row) { return row.starts_with("["); });
    return rows;
  }
};

using Rows = std::vector<std::string>;

TEST_F(AssetBrowserTest, EachSortKeyInBothOrders) {
  Generate();
  OpenBrowser();
  struct Case {
    const char* token;
    Rows ascending;
    bool naturallyAscending;
  };
  const Case cases[] = {
      {"SORTBY:NAME", {"Apple", "Item9", "item10"}, true},
      {"SORTBY:CREATIONDATE", {"Apple", "Item9", "item10"}, false},
      {"SORTBY:MODIFICATIONDATE", {"Apple", "Item9", "item10"}, false},
      {"SORTBY:USEDATE", {"Apple", "item10", "Item9"}, false},
      {"SORTBY:USECOUNT", {"Apple", "Item9", "item10"}, false},
      {"SORTBY:SIZE", {"item10", "Apple", "Item9"}, false},
  };
  for (const Case& c : cases) {
    const Rows descending(c.ascending.rbegin(), c.ascending.rend());
    EXPECT_EQ(Leaves(c.token), c.naturallyAscending ? c.ascending : descending) << c.token;
    EXPECT_EQ(Leaves(std::string(c.token) + " REVERSEORDER:YES"), c.naturallyAscending ? descending : c.ascending)
        << c.token;
  }
}

TEST_F(AssetBrowserTest, EachGroupingWithItsGroupOrder) {
  Generate();
  OpenBrowser();
  const std::pair<const char*, Rows> cases[] = {
      {"GROUPBY:TYPE", {"[File]", "Apple", "[Material]", "Item9", "[Object]", "item10"}},
      {"GROUPBY:CATEGORY", {"[Uncategorized]", "Apple", "item10", "[Xylo]", "Item9"}},
      {"GROUPBY:CREATIONDATE", {"[Today]", "item10", "[2 Days Ago]", "Item9", "[Long Ago]", "Apple"}},
      {"GROUPBY:USEDATE", {"[Today]", "Item9", "[Yesterday]", "item10", "[Never Used]", "Apple"}},
      {"GROUPBY:USECOUNT", {"[Used 21 ... 100 Times]", "item10", "[Used Once]", "Item9", "[Never Used]", "Apple"}},
      {"GROUPBY:NONE", {"[]", "Apple", "Item9", "item10"}},
  };
  for (const auto& [token, rows] : cases) EXPECT_EQ(Filter(token, "SORTBY:NAME FIRSTITEMS:NONE", ""), rows) << token;
  // One group per repository; the asset of the base is listed from there.
  const Rows byDatabase = Filter("GROUPBY:DATABASE", "SORTBY:NAME FIRSTITEMS:NONE", "");
  ASSERT_EQ(byDatabase.size(), 5u);
  const auto apple = std::find(byDatabase.begin(), byDatabase.end(), "Apple");
  ASSERT_NE(apple, byDatabase.end());
  EXPECT_TRUE((apple - 1)->starts_with("[") && (apple + 1 == byDatabase.end() || (apple + 1)->starts_with("[")));
}

TEST_F(AssetBrowserTest, FavouritesAndRelevantItemsFirstRelevancePerContext) {
  Generate();
  OpenBrowser();
  EXPECT_EQ(Filter("GROUPBY:NONE", "SORTBY:NAME", ""), (Rows{"[]", "item10", "Apple", "Item9"}));
  EXPECT_EQ(Filter("GROUPBY:NONE", "SORTBY:NAME FIRSTITEMS:RELEVANT RELEVANTITEMS:MATERIALS", ""),
            (Rows{"[]", "Item9", "Apple", "item10"}));
  // Materials score 3 for a material panel and 6 for a mesh, objects 7 and 4; no subtype 1000.
  EXPECT_EQ(Filter("GROUPBY:NONE", "SORTBY:RELEVANCE CONTEXT:MATERIAL", ""), (Rows{"[]", "Item9", "item10", "Apple"}));
  EXPECT_EQ(Filter("GROUPBY:NONE", "SORTBY:RELEVANCE CONTEXT:MESH", ""), (Rows{"[]", "item10", "Item9", "Apple"}));
  // Reversing a relevance list changes nothing; a word start beats the score.
  EXPECT_EQ(Filter("GROUPBY:NONE", "SORTBY:RELEVANCE CONTEXT:MESH REVERSEORDER:YES", ""),
            (Rows{"[]", "item10", "Item9", "Apple"}));
  EXPECT_EQ(Filter("GROUPBY:NONE", "SORTBY:RELEVANCE CONTEXT:MATERIAL", "e"), (Rows{"[]", "Item9", "item10", "Apple"}));
}

TEST_F(AssetBrowserTest, ABurstOfChangesDeliversOneResultForTheLastFilter) {
  Generate();
  auto created = AssetBrowserInterface::Create(ASSETBROWSERMODE::ASSETS);
  ASSERT_TRUE(created.HasValue());
  _browser = *created;
  _browser->SetGraphModel(std::make_shared<RepositoryGraphModelImpl>(_main));
  _browser->SetBuildEntryDelegate(_recorder.Delegate());
  // Without updates no setter starts a job.
  _browser->DoFiltering("", "GROUPBY:NONE", "", "item", false, false);
  ASSERT_TRUE(JobQueue::GetMainThreadQueue()->WaitAll().HasValue());
  ASSERT_TRUE(JobQueue::GetDefaultQueue()->WaitAll().HasValue());
  EXPECT_TRUE(_recorder.Calls().empty());

  // The main thread is busy while the changes arrive: each one replaces the trigger that waits.
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  ASSERT_TRUE(JobQueue::GetMainThreadQueue()->Enqueue([released]() -> Result<void> {
    released.wait();
    return {};
  }).HasValue());
  _browser->EnableUpdates(true);
  for (int i = 0; i < 50; ++i) _browser->DoFiltering("", "GROUPBY:NONE", "", i % 2 ? "apple" : "item" + std::to_string(i), false, false);
  release.set_value();
  ASSERT_TRUE(_recorder.WaitForFinished(1));
  ASSERT_TRUE(JobQueue::GetMainThreadQueue()->WaitAll().HasValue());
  ASSERT_TRUE(JobQueue::GetDefaultQueue()->WaitAll().HasValue());
  EXPECT_EQ(_recorder.Count(BUILDBROWSERENTRYCOMMAND::START), 1u);
  EXPECT_EQ(_recorder.Count(BUILDBROWSERENTRYCOMMAND::END), 1u);
  EXPECT_EQ(_recorder.LastRows(), (Rows{"[]", "Apple"}));
  // The same settings again start nothing.
  _browser->DoFiltering("", "GROUPBY:NONE", "", "apple", false, false);
  ASSERT_TRUE(JobQueue::GetMainThreadQueue()->WaitAll().HasValue());
  ASSERT_TRUE(JobQueue::GetDefaultQueue()->WaitAll().HasValue());
  EXPECT_EQ(_recorder.Count(BUILDBROWSERENTRYCOMMAND::START), 1u);
}

TEST_F(AssetBrowserTest, AChangeMidSearchDeliversNothingStale) {
  Generate();
  OpenBrowser();
  _browser->EnableUpdates(false);
  _browser->SetSelectionOnNextUpdate({Id("a")});
  _browser->DoFiltering("", "GROUPBY:NONE", "", "item", false, false);
  _recorder.Clear();
  std::atomic<int> starts{0};
  _recorder.hook = [&](const Recorder::Call& call) {
    if (call.command == BUILDBROWSERENTRYCOMMAND::START && starts++ == 0)
      _browser->DoFiltering("", "GROUPBY:NONE", "", "apple", false, false);
  };
  _browser->EnableUpdates(true);
  ASSERT_TRUE(_recorder.WaitForFinished(1));
  ASSERT_TRUE(JobQueue::GetDefaultQueue()->WaitAll().HasValue());
  // The first job saw its cancellation: no row, no SELECT, END true. The second lists Apple alone.
  std::vector<std::string> rows;
  std::size_t cancelledEnds = 0, selects = 0;
  for (const Recorder::Call& call : _recorder.Calls()) {
    if (call.command == BUILDBROWSERENTRYCOMMAND::ADD) rows.push_back(call.row);
    cancelledEnds += call.command == BUILDBROWSERENTRYCOMMAND::END && call.payload == Data(true);
    selects += call.command == BUILDBROWSERENTRYCOMMAND::SELECT;
  }
  EXPECT_EQ(rows, (Rows{"[]", "Apple"}));
  EXPECT_EQ(cancelledEnds, 1u);
  EXPECT_EQ(selects, 1u);
}

TEST_F(AssetBrowserTest, AnAssetStoredWhileASearchRunsShowsInTheNextResult) {
  Generate();
  OpenBrowser();
  EXPECT_EQ(Filter("GROUPBY:NONE", "FIRSTITEMS:NONE", "appl"), (Rows{"[]", "Apple"}));
  AddFile(_main, "d", "Alpha", 10);
  EXPECT_EQ(Filter("GROUPBY:NONE", "FIRSTITEMS:NONE", "alph"), (Rows{"[]", "Alpha"}));
  // Typing on tests only what passed before, unless a store came in between.
  AddFile(_main, "f", "Alphabet", 10);
  EXPECT_EQ(Filter("GROUPBY:NONE", "FIRSTITEMS:NONE", "alpha"), (Rows{"[]", "Alpha", "Alphabet"}));
  EXPECT_EQ(Filter("GROUPBY:NONE", "FIRSTITEMS:NONE", "alphab"), (Rows{"[]", "Alphabet"}));
  EXPECT_EQ(Filter("GROUPBY:NONE", "FIRSTITEMS:NONE", "alpha"), (Rows{"[]", "Alpha", "Alphabet"}));
  bool stored = false;
  _recorder.hook = [&](const Recorder::Call& call) {
    if (call.command == BUILDBROWSERENTRYCOMMAND::ADD && !stored) {
      stored = true;
      AddFile(_base, "e", "Alphorn", 10);
    }
  };
  EXPECT_EQ(Filter("GROUPBY:NONE", "FIRSTITEMS:NONE", "alp"), (Rows{"[]", "Alpha", "Alphabet"}));
  const std::size_t before = _recorder.FinishedCount();
  _browser->RequestAssetBrowserUpdate();
  ASSERT_TRUE(_recorder.WaitForFinished(before + 1));
  EXPECT_EQ(_recorder.LastRows(), (Rows{"[]", "Alpha", "Alphabet", "Alphorn"}));
}

TEST(ResultModel, BucketsNamesAndTheDeliveryWalk) {
  // Seen on a Monday, the Monday of last week is 7 days back: weeks 2.
  const auto local = [](int y, int m, int d) {
    std::tm t{};
    t.tm_year = y - 1900;
    t.tm_mon = m - 1;
    t.tm_mday = d;
    t.tm_hour = 12;
    t.tm_isdst = -1;
    return UniversalDateTime::FromUnixSeconds(std::mktime(&t));
  };
  EXPECT_EQ(GetDateBucket(local(2026, 11, 16), local(2026, 11, 23), "x").name, "2 Weeks Ago");
  EXPECT_EQ(GetDateBucket(local(2026, 11, 18), local(2026, 11, 23), "x").sortNumber, 14); // Wednesday: last week
  EXPECT_EQ(GetDateBucket(local(2026, 11, 24), local(2026, 11, 23), "x").sortNumber, -1);

  // A sort prefix is cut before delivery; a limit ends the list with "...".
  BrowserEntryList rows;
  const char* const names[] = {"#$05Word", "#$0", "#$x5Text", "b"};
  std::vector<std::string> keys;
  for (const char* name : names) keys.push_back(MakeCollationKey(name));
  for (std::size_t i = 0; i < 4; ++i) {
    BrowserEntry row;
    row.name = names[i];
    row.nameKey = keys[i];
    row.id = Id("r");
    rows.push_back(row);
  }
  std::vector<std::string> delivered;
  const BuildEntryDelegate record = [&](const AssetBrowserRef&, BUILDBROWSERENTRYCOMMAND, const Data&, const Data&,
                                        const BrowserEntry& entry) -> Result<Data> {
    delivered.push_back(entry.name);
    return Data();
  };
  std::int64_t limit = 3;
  ASSERT_TRUE(DeliverEntries(DeliveryContext{nullptr, ASSETBROWSERMODE::KEYWORDSAVAILABLE, false, nullptr}, rows,
                             Data(), record, ConfigSort(), &limit)
                  .HasValue());
  EXPECT_EQ(delivered, (Rows{"#$0", "Word", "#$x5Text", "..."}));
}

TEST(RelevanceRanking, WordHitsOfTheFirstSearchWord) {
  const std::vector<std::string> words{"CUBE", "X"};
  const std::pair<const char*, std::int64_t> cases[] = {
      {"CUBE ROUNDED", 0}, {"ROUNDED CUBE", 1}, {"ICECUBE TRAY", 1000}, {"ICE-CUBE", 0}, {"ICECUBE CUBES", 1}};
  for (const auto& [name, position] : cases) {
    std::int64_t noHit = 1, wordPosition = 0;
    ComputeWordHit(name, words, noHit, wordPosition);
    EXPECT_EQ(noHit, 0) << name;
    EXPECT_EQ(wordPosition, position) << name;
  }
  std::int64_t noHit = 0, wordPosition = 0;
  ComputeWordHit("CUBE", {}, noHit, wordPosition);
  EXPECT_EQ(noHit, 1);
  EXPECT_EQ(wordPosition, std::numeric_limits<std::int64_t>::max());
}

} // namespace
} // namespace kelvo::testing
