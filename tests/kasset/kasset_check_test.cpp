// kasset on damaged and hostile repositories: "check [--repair]", the index that a changing
// command leaves, exports over links and a repository added into itself.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "kasset_runner.h"

namespace {

namespace fs = std::filesystem;
using kelvo::testing::KassetRun;
using kelvo::testing::ReadFile;

class KassetCheckTest : public kelvo::testing::KassetFixture {
protected:
  void SetUp() override {
    KassetFixture::SetUp();
    Write(root / "files" / "a.txt", "alpha\n");
    Write(root / "files" / "b.txt", "beta\n");
    ASSERT_EQ(Kasset({"init", "repo"}).code, 0);
  }
  // The version directory holding a file whose content is text.
  fs::path VersionHolding(const std::string& text) {
    for (const auto& e : fs::recursive_directory_iterator(root / "repo"))
      if (e.is_regular_file() && e.path().filename().string().starts_with("asset") && ReadFile(e.path()) == text)
        return e.path().parent_path();
    return {};
  }
  static void MakeOld(const fs::path& path) {
    fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::hours(1));
  }
};

TEST_F(KassetCheckTest, CheckReportsDamageAndRepairRemovesLeftovers) {
  ASSERT_EQ(InRepo({"add", (root / "files" / "a.txt").string(), (root / "files" / "b.txt").string()}).code, 0);
  KassetRun clean = InRepo({"check"});
  EXPECT_EQ(clean.code, 0) << clean.out << clean.err;
  EXPECT_NE(clean.out.find("versions verified, 0 findings"), std::string::npos) << clean.out;

  // Damage: one content changed behind the repository's back; a second directory claiming an Id.
  const fs::path alpha = VersionHolding("alpha\n");
  ASSERT_FALSE(alpha.empty());
  Write(alpha / "asset.txt", "tampered\n");
  const fs::path assetDir = alpha.parent_path();
  fs::copy(assetDir, root / "repo" / "zz_copy", fs::copy_options::recursive);
  // Leftovers: a store killed before it finished, an erase and a compaction interrupted.
  const fs::path killed = VersionHolding("beta\n").parent_path() / "77";
  Write(killed / ".incomplete", "");
  Write(killed / "asset.txt", std::string(1000, 'x'));
  MakeOld(killed / ".incomplete");
  MakeOld(killed);
  const fs::path erased = assetDir / ".erased-3-abc";
  Write(erased / "asset.txt", "gone");
  MakeOld(erased);
  const fs::path compaction = root / "repo" / "tmp-0-5-abc";
  fs::create_directories(compaction);
  MakeOld(compaction);

  KassetRun found = InRepo({"check"});
  EXPECT_EQ(found.code, 1) << found.out << found.err;
  EXPECT_NE(found.out.find("damaged"), std::string::npos) << found.out;
  EXPECT_NE(found.out.find((alpha / "asset.txt").string()), std::string::npos) << found.out;
  EXPECT_NE(found.out.find("duplicate"), std::string::npos) << found.out;
  for (const fs::path& p : {killed, erased, compaction}) EXPECT_NE(found.out.find(p.string()), std::string::npos) << p;
  EXPECT_TRUE(fs::exists(killed)); // check alone changes nothing

  KassetRun repaired = InRepo({"check", "--repair"});
  EXPECT_EQ(repaired.code, 1) << repaired.out; // the damage stays, for the user to decide
  EXPECT_NE(repaired.out.find("(removed)"), std::string::npos) << repaired.out;
  for (const fs::path& p : {killed, erased, compaction}) EXPECT_FALSE(fs::exists(p)) << p;
  EXPECT_TRUE(fs::exists(alpha / "asset.txt"));
  EXPECT_TRUE(fs::is_directory(root / "repo" / "_index"));
}

TEST_F(KassetCheckTest, ChangingCommandsLeaveAnIndexThatLaterChangesInvalidate) {
  KassetRun added = InRepo({"add", "--id", "doc", (root / "files" / "a.txt").string()});
  ASSERT_EQ(added.code, 0) << added.err;
  ASSERT_TRUE(fs::is_directory(root / "repo" / "_index"));
  // The index records the change token it covers.
  fs::path part;
  for (const auto& e : fs::directory_iterator(root / "repo" / "_index"))
    if (e.is_directory() && e.path().extension() != ".json") part = e.path();
  ASSERT_FALSE(part.empty());
  EXPECT_EQ(ReadFile(part / ".covers"), ReadFile(root / "repo" / ".changes"));
  KassetRun ls = InRepo({"ls", "--ids"});
  EXPECT_NE(ls.out.find("doc"), std::string::npos) << ls.out;
  // A second version, by another kasset process: found, with the index written again.
  ASSERT_EQ(InRepo({"add", "--id", "doc", (root / "files" / "b.txt").string()}).code, 0);
  KassetRun cat = InRepo({"cat", "doc"});
  EXPECT_EQ(cat.out, "beta\n") << cat.err;
}

TEST_F(KassetCheckTest, ExportForceReplacesALinkNotItsTarget) {
  ASSERT_EQ(InRepo({"add", "--id", "doc", (root / "files" / "a.txt").string()}).code, 0);
  Write(root / "outside.txt", "keep me");
  fs::create_directories(root / "out");
  fs::create_symlink(root / "outside.txt", root / "out" / "doc.txt");
  KassetRun run = InRepo({"export", "doc", (root / "out").string(), "--as", "doc.txt", "--force"});
  EXPECT_EQ(run.code, 0) << run.err;
  EXPECT_EQ(ReadFile(root / "outside.txt"), "keep me");
  EXPECT_FALSE(fs::is_symlink(root / "out" / "doc.txt"));
  EXPECT_EQ(ReadFile(root / "out" / "doc.txt"), "alpha\n");
}

TEST_F(KassetCheckTest, ARepositoryIsNeverCopiedIntoItself) {
  fs::create_symlink(root / "files", root / "files" / "loop");
  KassetRun intoItself = InRepo({"add", (root / "repo").string()});
  EXPECT_NE(intoItself.code, 0);
  EXPECT_NE(intoItself.err.find("kasset: error: "), std::string::npos) << intoItself.err;
  // A tree with a link to itself is stored without the link.
  KassetRun loop = InRepo({"add", (root / "files").string()});
  EXPECT_EQ(loop.code, 0) << loop.err;
  std::size_t entries = 0;
  for (auto it = fs::recursive_directory_iterator(root / "repo"); it != fs::recursive_directory_iterator(); ++it) ++entries;
  EXPECT_LT(entries, 200u);
}

} // namespace
