// kasset's typed asset commands driven as a subprocess: each call is a new process reading what
// the last one stored; bad keywords, categories and colors fail with nothing changed on disk.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "kasset_runner.h"

namespace {

namespace fs = std::filesystem;
using kelvo::testing::KassetRun;
using kelvo::testing::ReadFile;

class KassetTypesTest : public kelvo::testing::KassetFixture {
protected:
  void SetUp() override {
    KassetFixture::SetUp();
    Write(root / "oak.txt", "oak\n");
    Write(root / "pine.txt", "pine\n");
    ASSERT_EQ(Kasset({"init", Repo()}).code, 0);
    oak = Add("oak.txt", "oak");
    pine = Add("pine.txt", "pine");
  }

  std::string Add(const std::string& file, const std::string& id) {
    KassetRun r = InRepo({"add", "--id", id, (root / file).string()});
    EXPECT_EQ(r.code, 0) << r.err;
    return id;
  }
  // The first line of the output.
  static std::string Line(const KassetRun& r) { return r.out.substr(0, r.out.find('\n')); }
  std::map<std::string, std::string> Files(const fs::path& dir) const {
    std::map<std::string, std::string> files;
    for (const auto& e : fs::recursive_directory_iterator(dir))
      if (e.is_regular_file()) files[e.path().string()] = ReadFile(e.path());
    return files;
  }

  std::string oak, pine;
};

TEST_F(KassetTypesTest, TaggingFavouritesAndTheKeywordList) {
  KassetRun r = InRepo({"tag", oak, "wood"});
  EXPECT_EQ(r.code, 3) << r.err;
  EXPECT_NE(r.err.find("no keyword 'wood' (give --new to make it)"), std::string::npos);
  ASSERT_EQ(InRepo({"tag", oak, "wood", "--new"}).code, 0);
  ASSERT_EQ(InRepo({"tag", pine, "wood"}).code, 0);
  ASSERT_EQ(InRepo({"tag", pine, "wood", "--user"}).code, 0);  // already in the repository's scope
  ASSERT_EQ(InRepo({"tag", pine, "mine", "--new", "--user"}).code, 0);
  ASSERT_EQ(InRepo({"favorite", oak}).code, 0);

  r = InRepo({"keywords"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("(favourites)  net.kelvo.keyword.favourite  1"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("mine          mine                         1"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("wood          wood                         2"), std::string::npos) << r.out;

  r = InRepo({"show", pine});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("keywords:    mine (user), wood"), std::string::npos) << r.out;
  // The user's keyword is not in the repository.
  bool userInRepo = false;
  for (const auto& [path, content] : Files(root / "repo"))
    if (path.find("userkeywords") != std::string::npos) userInRepo = true;
  EXPECT_FALSE(userInRepo);

  ASSERT_EQ(InRepo({"untag", pine, "mine", "--user"}).code, 0);
  ASSERT_EQ(InRepo({"unfavorite", oak}).code, 0);
  r = InRepo({"show", pine});
  EXPECT_NE(r.out.find("keywords:    wood\n"), std::string::npos) << r.out;
  EXPECT_EQ(InRepo({"tag", "nosuchasset", "wood"}).code, 3);
}

TEST_F(KassetTypesTest, CategoryTreeBreadcrumbAndRefusedMoves) {
  KassetRun made = InRepo({"category", "new", "Materials"});
  ASSERT_EQ(made.code, 0) << made.err;
  const std::string materials = Line(made);
  made = InRepo({"category", "new", "Wood", "--parent", "Materials"});
  ASSERT_EQ(made.code, 0) << made.err;
  const std::string wood = Line(made);
  made = InRepo({"category", "new", "Oak wood", "--parent", wood});
  ASSERT_EQ(made.code, 0) << made.err;
  ASSERT_EQ(InRepo({"category", "move", oak, "Oak wood"}).code, 0);
  ASSERT_EQ(InRepo({"category", "move", pine, "Wood"}).code, 0);

  KassetRun tree = InRepo({"category", "tree"});
  ASSERT_EQ(tree.code, 0) << tree.err;
  EXPECT_EQ(tree.out, "Materials  (0, 2 in all)\n  Wood  (1, 2 in all)\n    Oak wood  (1)\n");
  KassetRun shown = InRepo({"show", oak});
  EXPECT_NE(shown.out.find("category:    Materials > Wood > Oak wood\n"), std::string::npos) << shown.out;

  const auto before = Files(root / "repo");
  KassetRun refused = InRepo({"category", "move", materials, "Oak wood"});
  EXPECT_EQ(refused.code, 1);
  EXPECT_NE(refused.err.find("lies inside it"), std::string::npos) << refused.err;
  refused = InRepo({"category", "move", wood, wood});
  EXPECT_EQ(refused.code, 1);
  EXPECT_NE(refused.err.find("can't be its own parent"), std::string::npos) << refused.err;
  refused = InRepo({"category", "move", oak, "Nowhere"});
  EXPECT_EQ(refused.code, 3);
  EXPECT_NE(refused.err.find("no category 'Nowhere'"), std::string::npos);
  EXPECT_EQ(InRepo({"category", "new", "Stray", "--parent", "Nowhere"}).code, 3);
  EXPECT_EQ(InRepo({"category", "sideways"}).code, 2);
  EXPECT_EQ(Files(root / "repo"), before);

  ASSERT_EQ(InRepo({"category", "move", oak, "-"}).code, 0);
  tree = InRepo({"category", "tree"});
  EXPECT_EQ(tree.out, "Materials  (0, 1 in all)\n  Wood  (1)\n    Oak wood  (0)\n(no category)  (1)\n");
}

TEST_F(KassetTypesTest, ColorTags) {
  ASSERT_EQ(InRepo({"color", oak, "green"}).code, 0);
  KassetRun shown = InRepo({"show", oak});
  EXPECT_NE(shown.out.find("color:       Green (0.051 0.527 0.051)"), std::string::npos) << shown.out;
  const auto before = Files(root / "repo");
  KassetRun bad = InRepo({"color", pine, "chartreuse"});
  EXPECT_EQ(bad.code, 2);
  EXPECT_NE(bad.err.find("No color chartreuse; the colors are red, orange"), std::string::npos) << bad.err;
  EXPECT_EQ(Files(root / "repo"), before);
  ASSERT_EQ(InRepo({"color", oak, "none"}).code, 0);
  shown = InRepo({"show", oak});
  EXPECT_EQ(shown.out.find("color:"), std::string::npos);
}

} // namespace
