// kasset driven as a subprocess on temporary directories, as a person or a script would use it.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "kasset_runner.h"

namespace {

namespace fs = std::filesystem;
using kelvo::testing::KassetRun;
using kelvo::testing::ReadFile;

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::stringstream s(text);
  for (std::string line; std::getline(s, line);) lines.push_back(line);
  return lines;
}

class KassetTest : public kelvo::testing::KassetFixture {
protected:
  void SetUp() override {
    KassetFixture::SetUp();
    Write(root / "files/notes.txt", "first notes\n");
    Write(root / "files/photo.png", std::string("\x89PNG fake image", 15));
  }

  // Every path under root with its size and content, to tell whether a command changed anything.
  std::string Listing() {
    std::string listing;
    std::vector<fs::path> paths;
    for (const auto& entry : fs::recursive_directory_iterator(root)) paths.push_back(entry.path());
    std::sort(paths.begin(), paths.end());
    for (const fs::path& p : paths) {
      listing += p.lexically_relative(root).string();
      if (fs::is_regular_file(p)) listing += " " + std::to_string(fs::file_size(p)) + " " + ReadFile(p);
      listing += "\n";
    }
    return listing;
  }

  // A failed command: one "kasset: error:" line, the expected code, and nothing changed.
  void ExpectCleanFailure(const std::vector<std::string>& args, int code, const std::string& messagePart) {
    const std::string before = Listing();
    KassetRun run = Kasset(args);
    std::string joined;
    for (const auto& a : args) joined += a + " ";
    EXPECT_EQ(run.code, code) << joined << run.err;
    EXPECT_EQ(run.out, "") << joined;
    const auto lines = Lines(run.err);
    ASSERT_EQ(lines.size(), 1u) << joined << run.err;
    EXPECT_EQ(lines[0].rfind("kasset: error: ", 0), 0u) << lines[0];
    EXPECT_NE(lines[0].find(messagePart), std::string::npos) << lines[0];
    EXPECT_EQ(Listing(), before) << joined;
  }
};

TEST_F(KassetTest, FullSession) {
  KassetRun init = Kasset({"init", "repo"});
  ASSERT_EQ(init.code, 0) << init.err;
  EXPECT_EQ(init.out.rfind("Initialized asset repository ", 0), 0u) << init.out;
  EXPECT_TRUE(fs::is_regular_file(root / "repo" / "databaseid"));
  EXPECT_EQ(Kasset({"init", "repo"}).out.rfind("Asset repository ", 0), 0u);

  KassetRun add = Kasset({"--repo", "repo", "add", "files/notes.txt", "files/photo.png", "--keywords", "red, blue"});
  ASSERT_EQ(add.code, 0) << add.err;
  const auto ids = Lines(add.out);
  ASSERT_EQ(ids.size(), 2u) << add.out;
  const std::string notes = ids[0], photo = ids[1];
  EXPECT_EQ(notes.rfind("file@", 0), 0u);
  KassetRun named = Kasset({"--repo", "repo", "add", "--name", "Holiday", "files/photo.png"});
  ASSERT_EQ(named.code, 0) << named.err;
  const std::string holiday = Lines(named.out).at(0);

  KassetRun ls = Kasset({"--repo", "repo", "ls"});
  ASSERT_EQ(ls.code, 0) << ls.err;
  const auto rows = Lines(ls.out);
  ASSERT_EQ(rows.size(), 4u) << ls.out;
  EXPECT_EQ(rows[0].substr(0, 2), "ID");
  EXPECT_EQ(rows[1].rfind(holiday, 0), 0u) << ls.out; // sorted by name
  EXPECT_NE(rows[1].find("Holiday"), std::string::npos);
  EXPECT_NE(rows[2].find("notes.txt"), std::string::npos);
  EXPECT_NE(rows[3].find("photo.png"), std::string::npos);

  KassetRun prefix = Kasset({"--repo", "repo", "find", "--prefix", notes.substr(0, 12), "--ids"});
  EXPECT_EQ(prefix.code, 0);
  EXPECT_NE(prefix.out.find(notes), std::string::npos);
  EXPECT_EQ(Kasset({"--repo", "repo", "find", "--type", "file", "--ids"}).out.size(), 3 * (notes.size() + 1));
  EXPECT_EQ(Kasset({"--repo", "repo", "find", "--type", "database", "--ids"}).out.rfind("databaseinfo_", 0), 0u);

  // A second version of the notes keeps the name and the keywords.
  Write(root / "files/notes.txt", "second notes\n");
  ASSERT_EQ(Kasset({"--repo", "repo", "add", "--id", notes, "files/notes.txt"}).code, 0);
  KassetRun show = Kasset({"--repo", "repo", "show", notes});
  ASSERT_EQ(show.code, 0) << show.err;
  EXPECT_NE(show.out.find("name:        notes.txt"), std::string::npos) << show.out;
  EXPECT_NE(show.out.find("url:         asset:///" + notes + "~.txt?"), std::string::npos) << show.out;
  EXPECT_NE(show.out.find("net.kelvo.asset.keywords   [persistent]"), std::string::npos) << show.out;
  EXPECT_NE(show.out.find("[red, blue]"), std::string::npos) << show.out;
  EXPECT_NE(show.out.find("  1  "), std::string::npos);
  EXPECT_NE(show.out.find("  2  "), std::string::npos);
  EXPECT_NE(show.out.find("(latest)"), std::string::npos);

  EXPECT_EQ(Kasset({"--repo", "repo", "cat", notes}).out, "second notes\n");
  KassetRun versions = Kasset({"--repo", "repo", "ls", "--all-versions", "--id", notes});
  const auto versionRows = Lines(versions.out);
  ASSERT_EQ(versionRows.size(), 3u) << versions.out;
  std::istringstream firstRow(versionRows[1]);
  std::string id, shortVersion;
  firstRow >> id >> shortVersion;
  EXPECT_EQ(Kasset({"--repo", "repo", "cat", notes, "--version", shortVersion}).out, "first notes\n");

  KassetRun exported = Kasset({"--repo", "repo", "export", photo, "out"});
  ASSERT_EQ(exported.code, 0) << exported.err;
  EXPECT_EQ(exported.out, (root / "out" / "photo.png").string() + "\n");
  EXPECT_EQ(ReadFile(root / "out" / "photo.png"), ReadFile(root / "files" / "photo.png"));
  ExpectCleanFailure({"--repo", "repo", "export", photo, "out"}, 1, "exists");
  ASSERT_EQ(Kasset({"--repo", "repo", "export", photo, "out", "--force"}).code, 0);

  // Delete: the asset is gone for readers, its versions stay listed as history until erased.
  KassetRun rm = Kasset({"--repo", "repo", "rm", notes});
  ASSERT_EQ(rm.code, 0) << rm.err;
  EXPECT_EQ(Kasset({"--repo", "repo", "cat", notes}).code, 3);
  EXPECT_EQ(Kasset({"--repo", "repo", "ls", "--ids"}).out.find(notes), std::string::npos);
  KassetRun history = Kasset({"--repo", "repo", "ls", "--all-versions", "--deleted", "--id", notes});
  EXPECT_EQ(Lines(history.out).size(), 4u) << history.out;
  EXPECT_NE(history.out.find("deleted"), std::string::npos);
  EXPECT_EQ(Kasset({"--repo", "repo", "cat", notes, "--version", shortVersion}).out, "first notes\n");

  KassetRun erase = Kasset({"--repo", "repo", "erase", notes});
  ASSERT_EQ(erase.code, 0) << erase.err;
  EXPECT_EQ(Lines(erase.out).size(), 3u) << erase.out;
  EXPECT_EQ(Kasset({"--repo", "repo", "show", notes}).code, 3);
}

TEST_F(KassetTest, UserRepositoryAndMount) {
  ASSERT_EQ(Kasset({"init", "other"}).code, 0);
  KassetRun inOther = Kasset({"--repo", "other", "add", "files/notes.txt"});
  ASSERT_EQ(inOther.code, 0);
  const std::string notes = Lines(inOther.out).at(0);
  // Without --repo the user repository in the preferences is used.
  KassetRun add = Kasset({"add", "files/photo.png"});
  ASSERT_EQ(add.code, 0) << add.err;
  EXPECT_TRUE(fs::is_directory(root / "prefs" / "userrepository"));
  EXPECT_EQ(Kasset({"ls", "--ids"}).out, add.out);
  // A mounted repository is searched for this invocation only.
  KassetRun mounted = Kasset({"--mount", "other", "cat", notes});
  EXPECT_EQ(mounted.code, 0) << mounted.err;
  EXPECT_EQ(mounted.out, "first notes\n");
  EXPECT_EQ(Kasset({"cat", notes}).code, 3);
  KassetRun mount = Kasset({"mount", "other"});
  EXPECT_EQ(mount.code, 0) << mount.err;
  EXPECT_NE(mount.out.find("(1 assets)"), std::string::npos) << mount.out;
  // Assets of a mounted repository are read, never changed through the user repository.
  ExpectCleanFailure({"--mount", "other", "rm", notes}, 1, "belongs to the repository");
}

TEST_F(KassetTest, ErrorsAreOneLineAndChangeNothing) {
  ASSERT_EQ(Kasset({"init", "repo"}).code, 0);
  ASSERT_EQ(Kasset({"--repo", "repo", "add", "files/notes.txt"}).code, 0);
  ASSERT_EQ(Kasset({"ls"}).code, 0); // makes the user repository, so later runs find it in place

  // Usage errors.
  ExpectCleanFailure({}, 2, "no command");
  ExpectCleanFailure({"frobnicate"}, 2, "unknown command 'frobnicate'");
  ExpectCleanFailure({"--repo", "repo", "ls", "--colour"}, 2, "unknown option --colour");
  ExpectCleanFailure({"--repo", "repo", "show"}, 2, "'show' needs ID");
  ExpectCleanFailure({"--repo", "repo", "show", "a", "b"}, 2, "too many arguments");
  ExpectCleanFailure({"--repo", "repo", "add", "--id"}, 2, "needs a value");
  ExpectCleanFailure({"--repo", "repo", "add", "--id", "x", "files/notes.txt", "files/photo.png"}, 2, "exactly one");
  ExpectCleanFailure({"--repo", "repo", "find", "--id", "a", "--prefix", "b"}, 2, "exclude");
  // Missing things.
  ExpectCleanFailure({"--repo", "nowhere", "ls"}, 3, "no repository at");
  ExpectCleanFailure({"--repo", "files", "ls"}, 3, "kasset init");
  ExpectCleanFailure({"--repo", "repo", "show", "file@unknown"}, 3, "no asset file@unknown");
  ExpectCleanFailure({"--repo", "repo", "cat", "file@unknown"}, 3, "no asset");
  ExpectCleanFailure({"--repo", "repo", "export", "file@unknown", "out"}, 3, "no asset");
  ExpectCleanFailure({"--repo", "repo", "rm", "file@unknown"}, 3, "no asset");
  ExpectCleanFailure({"--repo", "repo", "erase", "file@unknown"}, 3, "no asset");
  ExpectCleanFailure({"--repo", "repo", "find", "--id", "file@unknown"}, 3, "no asset matches");
  ExpectCleanFailure({"--repo", "repo", "add", "files/notes.txt", "files/missing.txt"}, 3, "no such file: files/missing.txt");
  ExpectCleanFailure({"--mount", "nowhere", "ls"}, 3, "no repository at");
  const std::string notes = Lines(Kasset({"--repo", "repo", "ls", "--ids"}).out).at(0);
  ExpectCleanFailure({"--repo", "repo", "cat", notes, "--version", "ffffffff"}, 3, "has no version");
  ExpectCleanFailure({"init", "files/notes.txt"}, 1, "is no directory");
}

TEST_F(KassetTest, Help) {
  KassetRun help = Kasset({"--help"});
  EXPECT_EQ(help.code, 0);
  EXPECT_NE(help.out.find("Exit codes:"), std::string::npos);
  EXPECT_NE(help.out.find("3  not found"), std::string::npos);
  for (const char* command : {"init", "add", "ls", "find", "show", "cat", "export", "rm", "erase", "mount"}) {
    KassetRun one = Kasset({command, "--help"});
    EXPECT_EQ(one.code, 0) << command;
    EXPECT_EQ(one.out.rfind(std::string("usage: kasset [GLOBAL OPTIONS] ") + command, 0), 0u) << one.out;
  }
  EXPECT_NE(Kasset({"mount", "--help"}).out.find("per invocation"), std::string::npos);
  // Help never touches the directories.
  EXPECT_FALSE(fs::exists(root / "prefs"));
}

} // namespace
