// kasset deps, rdeps and update as a subprocess, over assets whose dependencies were recorded with
// add --depends, a cycle among them included.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "kasset_runner.h"

namespace {

namespace fs = std::filesystem;
using kelvo::testing::KassetRun;

class KassetLinksTest : public kelvo::testing::KassetFixture {
protected:
  void SetUp() override {
    KassetFixture::SetUp();
    for (const char* name : {"a", "b", "c", "a2"}) std::ofstream(root / (std::string(name) + ".txt")) << name << "\n";
    ASSERT_EQ(Kasset({"init", Repo()}).code, 0);
    // c depends on b and a, b on a; then a new version of a depends on c: a cycle.
    ASSERT_EQ(Add("a", "a.txt", ""), 0);
    ASSERT_EQ(Add("b", "b.txt", "a"), 0);
    ASSERT_EQ(Add("c", "c.txt", "b,a"), 0);
    ASSERT_EQ(Add("a", "a2.txt", "c"), 0);
  }
  int Add(const std::string& id, const std::string& file, const std::string& depends) {
    std::vector<std::string> args{"add", "--id", id, (root / file).string()};
    if (!depends.empty()) args.insert(args.end(), {"--depends", depends});
    return InRepo(args).code;
  }
  // The asset Ids of a tree, each line's indent kept, the columns after the Id dropped but marks.
  static std::string Shape(const std::string& tree) {
    std::string shape, line;
    std::istringstream in(tree);
    while (std::getline(in, line)) {
      const std::size_t idEnd = line.find("  ", line.find_first_not_of(" -"));
      shape += line.substr(0, idEnd);
      for (const char* mark : {"(cycle)", "(see above)", "(depends on"})
        if (line.find(mark) != std::string::npos) shape += std::string(" ") + mark;
      shape += "\n";
    }
    return shape;
  }

};

TEST_F(KassetLinksTest, TreesBothWaysEndAtCyclesAndRepeats) {
  KassetRun deps = InRepo({"deps", "c"});
  ASSERT_EQ(deps.code, 0) << deps.err;
  EXPECT_EQ(Shape(deps.out), "c\n"
                             "  - b\n"
                             "    - a (depends on\n" // b depends on the first version of a
                             "      - c (cycle)\n"
                             "  - a (see above) (depends on\n");
  EXPECT_NE(deps.out.find("[explicit]"), std::string::npos);
  EXPECT_EQ(Shape(InRepo({"deps", "c", "--depth", "1"}).out), "c\n  - b\n  - a (depends on\n");

  KassetRun rdeps = InRepo({"rdeps", "a"});
  ASSERT_EQ(rdeps.code, 0) << rdeps.err;
  EXPECT_EQ(Shape(rdeps.out), "a\n"
                              "  - b (depends on\n"
                              "    - c\n"
                              "      - a (cycle)\n"
                              "  - c (see above) (depends on\n");
  EXPECT_EQ(Shape(InRepo({"rdeps", "b", "--depth", "1"}).out), "b\n  - c\n");
}

TEST_F(KassetLinksTest, UpdateAndBadArguments) {
  // File assets don't follow their links: their records stay as they are.
  KassetRun update = InRepo({"update"});
  EXPECT_EQ(update.code, 0) << update.err;
  EXPECT_EQ(update.out, "nothing to update\n");
  EXPECT_EQ(InRepo({"update", "a"}).out, "nothing to update\n");
  EXPECT_NE(InRepo({"deps", "b"}).out.find("(depends on"), std::string::npos);

  EXPECT_EQ(InRepo({"update", "nothing"}).code, 3);
  EXPECT_EQ(InRepo({"deps", "nothing"}).code, 3);
  EXPECT_EQ(InRepo({"rdeps", "a", "--depth", "0"}).code, 2);
  // A dependency on an unknown asset stores nothing.
  EXPECT_EQ(Add("d", "c.txt", "b,nothing"), 3);
  EXPECT_EQ(InRepo({"show", "d"}).code, 3);
}

} // namespace
