// kasset browse as a subprocess: group headers and rows with reasons, the grouping, sort and
// order options, JSON lines, and the refusal of --interactive without a terminal.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "kasset_runner.h"

namespace {

namespace fs = std::filesystem;
using kelvo::testing::KassetRun;

class KassetBrowseTest : public kelvo::testing::KassetFixture {
protected:
  void SetUp() override {
    KassetFixture::SetUp();
    std::ofstream(root / "a.txt") << "a\n";
    std::ofstream(root / "b.txt") << std::string(3000, 'b');
    ASSERT_EQ(Kasset({"init", Repo()}).code, 0);
    ASSERT_EQ(InRepo({"add", "--id", "oak", "--name", "Oak beam", (root / "a.txt").string()}).code, 0);
    ASSERT_EQ(InRepo({"add", "--id", "pine", "--name", "Pine beam", (root / "b.txt").string()}).code, 0);
    ASSERT_EQ(InRepo({"tag", "pine", "wood", "--new"}).code, 0);
  }

};

TEST_F(KassetBrowseTest, GroupsRowsReasonsAndOptions) {
  KassetRun r = InRepo({"browse", "beam"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out.substr(0, 5), "File\n") << r.out;
  EXPECT_LT(r.out.find("Oak beam"), r.out.find("Pine beam")) << r.out;
  // A keyword match shows its keyword as the reason.
  r = InRepo({"browse", "wood"});
  EXPECT_NE(r.out.find("(wood)"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("Oak beam"), std::string::npos) << r.out;

  r = InRepo({"browse", "--group", "none", "--sort", "size", "--order", "asc", "--json"});
  ASSERT_EQ(r.code, 0) << r.err;
  const std::size_t oak = r.out.find("\"id\":\"oak\""), pine = r.out.find("\"id\":\"pine\"");
  ASSERT_NE(oak, std::string::npos) << r.out;
  EXPECT_LT(oak, pine) << r.out;
  EXPECT_EQ(r.out.substr(0, 11), "{\"group\":\"\"") << r.out;
  r = InRepo({"browse", "--group", "none", "--sort", "size", "--order", "desc", "--json"});
  EXPECT_GT(r.out.find("\"id\":\"oak\""), r.out.find("\"id\":\"pine\"")) << r.out;

  EXPECT_EQ(InRepo({"browse", "--sort", "colour"}).code, 2);
  r = InRepo({"browse", "--interactive"});
  EXPECT_EQ(r.code, 2);
  EXPECT_NE(r.err.find("terminal"), std::string::npos) << r.err;
}

} // namespace
