// kasset ls and find with a filter text, as a subprocess: the same filter over the target
// repository and a mounted one, reasons with --why, and the selection options beside a filter.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "kasset_runner.h"

namespace {

namespace fs = std::filesystem;
using kelvo::testing::KassetRun;

class KassetFindTest : public kelvo::testing::KassetFixture {
protected:
  void SetUp() override {
    KassetFixture::SetUp();
    Write(root / "oak.txt", "oak\n");
    Write(root / "pine.txt", std::string(3000, 'p'));
    ASSERT_EQ(Kasset({"init", Repo()}).code, 0);
    ASSERT_EQ(Kasset({"init", (root / "db").string()}).code, 0);
    ASSERT_EQ(InRepo({"add", "--id", "oak", "--name", "Oak beam", (root / "oak.txt").string()}).code, 0);
    ASSERT_EQ(InRepo({"add", "--id", "pine", "--name", "Pine", "--keywords", "conifer", (root / "pine.txt").string()}).code,
              0);
    ASSERT_EQ(InRepo({"tag", "oak", "wood", "--new"}).code, 0);
    ASSERT_EQ(Kasset({"--repo", (root / "db").string(), "add", "--id", "moak", "--name", "Mounted oak",
                      (root / "oak.txt").string()})
                  .code,
              0);
  }

  // kasset with the repository and the database mounted under it.
  KassetRun InRepo(std::vector<std::string> args) {
    args.insert(args.begin(), {"--mount", (root / "db").string()});
    return KassetFixture::InRepo(std::move(args));
  }
  static bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }
};

TEST_F(KassetFindTest, AFilterRunsOverTheRepositoryAndWhatIsMounted) {
  for (const char* command : {"find", "ls"}) {
    KassetRun r = InRepo({command, "--ids", "oak"});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "moak\noak\n") << command;
  }
  // Several words must all hold; arguments are joined into one filter.
  KassetRun r = InRepo({"find", "--ids", "oak", "beam"});
  EXPECT_EQ(r.out, "oak\n") << r.err;
  r = InRepo({"find", "--ids", "oak|pine"});
  EXPECT_EQ(r.out, "moak\noak\npine\n") << r.err;
  // Keywords by a keyword asset's name and by a bare id, sizes, types.
  EXPECT_EQ(InRepo({"find", "--ids", "KEYWORD:wood"}).out, "oak\n");
  EXPECT_EQ(InRepo({"find", "--ids", "conifer"}).out, "pine\n");
  EXPECT_EQ(InRepo({"find", "--ids", "TYPE:FILE SIZE:>2K"}).out, "pine\n");
  EXPECT_EQ(InRepo({"find", "--ids", "TYPE:category"}).out, "");
  // Control tokens of a browser are cut out rather than searched.
  EXPECT_EQ(InRepo({"find", "--ids", "SORTBY:NAME pine"}).out, "pine\n");
  // Without a filter every asset is listed, as before.
  EXPECT_EQ(InRepo({"ls", "--ids"}).out, "moak\noak\npine\nwood\n");
}

TEST_F(KassetFindTest, WhyPrintsTheReasonOfEachEntry) {
  KassetRun r = InRepo({"find", "--why", "TYPE:FILE KEYWORD:wood \"oak beam\""});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(Has(r.out, "WHY")) << r.out;
  EXPECT_TRUE(Has(r.out, "Oak beam  wood")) << r.out;
  r = InRepo({"ls", "--why", "--ids", "SIZE:>1K"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out, "pine\t2.93 KB\n");
  r = InRepo({"find", "--why"});
  EXPECT_EQ(r.code, 2);
  EXPECT_TRUE(Has(r.err, "--why needs a FILTER")) << r.err;
}

TEST_F(KassetFindTest, SelectionOptionsNarrowWhatTheFilterSees) {
  EXPECT_EQ(InRepo({"find", "--ids", "--prefix", "m", "oak"}).out, "moak\n");
  KassetRun r = InRepo({"find", "--id", "pine", "oak"});
  EXPECT_EQ(r.code, 3);
  EXPECT_TRUE(Has(r.err, "no asset matches pine")) << r.err;
  r = InRepo({"find", "zzz"});
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_TRUE(Has(r.err, "no assets match the filter")) << r.err;
  ASSERT_EQ(InRepo({"rm", "pine"}).code, 0);
  EXPECT_EQ(InRepo({"find", "--ids", "pine"}).out, "");
  // With --deleted the deletion mark is evaluated like any version.
  r = InRepo({"find", "--deleted", "--all-versions", "ASSETID:pine"});
  EXPECT_TRUE(Has(r.out, "deleted")) << r.out;
  EXPECT_TRUE(Has(r.out, "Pine")) << r.out;
}

} // namespace
