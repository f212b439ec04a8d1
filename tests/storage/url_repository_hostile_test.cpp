// Hostile names and trees: Ids with control characters or reserved names, links and special
// files planted in a repository, oversized files. Each is refused with a clear error or passed
// over, never followed out of the root, never a hang.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kelvo/log.h"
#include "url_repository_fixture.h"

using namespace kelvo;
using namespace kelvo::testing;
namespace fs = std::filesystem;

namespace {

using HostileTreeTest = UrlRepositoryTest;

std::set<std::string> RootEntries(const fs::path& root) {
  std::set<std::string> names;
  for (const auto& e : fs::directory_iterator(root)) names.insert(e.path().filename().string());
  return names;
}

TEST_F(HostileTreeTest, ControlCharactersInIdsAreRefusedBeforeAnythingIsWritten) {
  auto repo = Open();
  ASSERT_TRUE(Store(repo, "plain", "p"));
  const auto before = RootEntries(Root());
  for (const std::string aid : {"a\tb", "a\nnet.kelvo.assettype.test.text", "a\rb", "a\x1b[0m", "a\x7f"}) {
    SCOPED_TRACE(static_cast<int>(aid[1]));
    auto stored = repo->StoreAsset(Id(aid), MakeText("x"), nullptr);
    ASSERT_TRUE(stored.HasError());
    EXPECT_NE(stored.GetError().ToString().find("control character"), std::string::npos) << stored.GetError().ToString();
  }
  EXPECT_EQ(RootEntries(Root()), before);
  EXPECT_EQ(Contents(Open()).size(), 1u);
}

TEST_F(HostileTreeTest, ReservedRootNamesAreNeverAssetDirectories) {
  const std::vector<std::string> ids{"_index", "#Index", " index", "databaseid", "version", "Version",
                                     "tmp-0-1-x", "tmpJson-0-1-x"};
  {
    auto repo = Open();
    for (const std::string& aid : ids) ASSERT_TRUE(Store(repo, aid, "content of " + aid)) << aid;
    // The repository's own files are as they were.
    EXPECT_TRUE(fs::is_regular_file(Root() / "databaseid"));
    EXPECT_TRUE(fs::is_regular_file(Root() / "version"));
    EXPECT_FALSE(fs::exists(Root() / "_index"));
    // Compacting, then storing again, removes the index: the assets survive both.
    ASSERT_TRUE(repo->Compact().HasValue());
    ASSERT_TRUE(Store(repo, "other", "o"));
  }
  auto repo = Open();
  const auto contents = Contents(repo);
  for (const std::string& aid : ids) {
    ASSERT_TRUE(contents.count(aid)) << aid;
    EXPECT_EQ(contents.at(aid).begin()->second, "content of " + aid);
  }
  ASSERT_TRUE(repo->Compact().HasValue());
  EXPECT_EQ(Contents(Open()), contents);
}

TEST_F(HostileTreeTest, EmptyOrDamagedIdentifierIsReplacedWithAWarning) {
  Open().reset();
  WriteFile(Root() / "databaseid", "");
  std::vector<std::string> warnings;
  auto previous = SetLogSink([&](LOGLEVEL level, const std::string& line) {
    if (level == LOGLEVEL::WARNING) warnings.push_back(line);
  });
  auto repo = CreateUrlAssetRepository(Id(), {}, RootUrl(), true, false, false);
  SetLogSink(previous);
  ASSERT_TRUE(repo.HasValue());
  ASSERT_EQ(warnings.size(), 1u);
  EXPECT_NE(warnings[0].find("databaseid"), std::string::npos) << warnings[0];
  EXPECT_FALSE(ReadFile(Root() / "databaseid").empty());
}

// Files of the tree replaced by FIFOs, links to devices or to files outside the root: every
// opening and listing ends promptly, nothing outside the root is read or written.
TEST_F(HostileTreeTest, SpecialFilesAndLinksInTheTreeNeitherHangNorEscape) {
  std::string version;
  {
    auto repo = Open();
    auto d = Store(repo, "victim", "inside");
    ASSERT_TRUE(d);
    version = d->GetIdAndVersion().second.ToString();
    ASSERT_TRUE(repo->StoreMetaData(d, kNote, Data(std::string("note")), 2).HasValue());
    ASSERT_TRUE(Store(repo, "bystander", "b"));
  }
  const fs::path outside = _dir / "outside.txt";
  WriteFile(outside, "secret outside the root");
  const fs::path versionDir = Root() / "victim" / "1";
  struct Plant {
    const char* what;
    fs::path at;
    int kind; // 0 FIFO, 1 link to /dev/zero, 2 link to a file outside
  };
  const std::vector<Plant> plants{
      {"asset.info as FIFO", Root() / "victim" / "asset.info", 0},
      {"hash as FIFO", versionDir / "hash", 0},
      {"meta as FIFO", versionDir / "net.kelvo.test.note.meta", 0},
      {"version as FIFO", Root() / "version", 0},
      {"asset.info to /dev/zero", Root() / "victim" / "asset.info", 1},
      {"meta to /dev/zero", versionDir / "net.kelvo.test.note.meta", 1},
      {"content to a file outside", versionDir / "asset.txt", 2},
      {"hash to a file outside", versionDir / "hash", 2},
  };
  for (const Plant& plant : plants) {
    SCOPED_TRACE(plant.what);
    const std::string saved = ReadFile(plant.at);
    fs::remove(plant.at);
    if (plant.kind == 0)
      ASSERT_EQ(::mkfifo(plant.at.c_str(), 0644), 0);
    else
      fs::create_symlink(plant.kind == 1 ? fs::path("/dev/zero") : outside, plant.at);
    ::alarm(20); // a hang ends the test binary instead of the suite
    {
      auto repo = Open();
      ASSERT_TRUE(repo);
      const auto contents = Contents(repo);
      EXPECT_EQ(contents.count("bystander"), 1u);
      if (contents.count("victim")) {
        for (const auto& [v, text] : contents.at("victim")) EXPECT_NE(text, "secret outside the root");
      }
      if (auto d = Latest(repo, "victim")) {
        auto note = d->GetMetaData()->Get(kNote);
        if (note.HasValue() && note->has_value()) {
          EXPECT_EQ(note->value().Get<std::string>().value_or(""), "note");
        }
        // A store over the planted tree writes inside the root only.
        (void)repo->StoreAsset(Id("victim"), MakeText("again"), nullptr);
      }
    }
    ::alarm(0);
    EXPECT_EQ(ReadFile(outside), "secret outside the root");
    fs::remove(plant.at);
    WriteFile(plant.at, saved);
  }
}

TEST_F(HostileTreeTest, OversizedMetadataIsAClearError) {
  auto repo = Open();
  auto d = Store(repo, "big", "b");
  ASSERT_TRUE(d);
  ASSERT_TRUE(repo->StoreMetaData(d, kNote, Data(std::string("small")), 2).HasValue());
  const fs::path file = Root() / "big" / "1" / "net.kelvo.test.note.meta";
  {
    // A sparse file over the limit: nothing is allocated for it.
    const int fd = ::open(file.c_str(), O_WRONLY | O_TRUNC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(kMetaDataFileLimit) + 1), 0);
    ::close(fd);
  }
  auto reopened = Open();
  auto latest = Latest(reopened, "big");
  ASSERT_TRUE(latest);
  auto note = latest->GetMetaData()->Get(kNote);
  ASSERT_TRUE(note.HasError());
  EXPECT_NE(note.GetError().ToString().find("larger than"), std::string::npos) << note.GetError().ToString();
}

// Asset and version directories replaced by links to copies outside the root, read by a scan and
// through an index that names them: what lies behind the links is passed over, never served.
TEST_F(HostileTreeTest, LinkedAssetOrVersionDirectoriesAreNotFollowedOutOfTheRoot) {
  {
    auto repo = Open();
    auto d = Store(repo, "victim", "inside");
    ASSERT_TRUE(d);
    ASSERT_TRUE(repo->StoreMetaData(d, kNote, Data(std::string("note")), 2).HasValue());
    ASSERT_TRUE(Store(repo, "bystander", "b"));
  }
  const fs::path outside = _dir / "outside";
  const fs::path saved = _dir / "saved";
  for (const bool indexed : {false, true}) {
    for (const bool wholeAsset : {true, false}) {
      SCOPED_TRACE(std::string(indexed ? "indexed, " : "scanned, ") + (wholeAsset ? "asset directory" : "version directory"));
      const fs::path original = wholeAsset ? Root() / "victim" : Root() / "victim" / "1";
      fs::remove_all(outside);
      fs::copy(original, outside, fs::copy_options::recursive);
      WriteFile((wholeAsset ? outside / "1" : outside) / "asset.txt", "secret outside the root");
      if (indexed) {
        ASSERT_TRUE(Open()->Compact().HasValue());
      }
      fs::rename(original, saved);
      fs::create_directory_symlink(outside, original);
      {
        auto repo = Open();
        ASSERT_EQ(repo->WasOpenedFromIndex(), indexed);
        const auto contents = Contents(repo);
        EXPECT_EQ(contents.count("bystander"), 1u);
        EXPECT_EQ(contents.count("victim"), 0u) << (contents.count("victim") ? contents.at("victim").begin()->first + " " + contents.at("victim").begin()->second : "");
        EXPECT_FALSE(Latest(repo, "victim"));
      }
      fs::remove(original);
      fs::rename(saved, original);
      EXPECT_EQ(Contents(Open()).at("victim").begin()->second, "inside");
    }
  }
}

// A version without a hash file whose content is a FIFO: its digest can't be taken (and taking it
// must not wait for a writer). That version is passed over with a warning naming it; the rest of
// the base, and every search that reaches it, still works.
TEST_F(HostileTreeTest, UnreadableVersionOfABaseIsPassedOverWithAWarning) {
  const Url baseUrl = Url::FromFile((_dir / "base").string());
  fs::create_directories(_dir / "base");
  {
    auto base = CreateUrlAssetRepository(Id("test.base"), {}, baseUrl, true, false, false);
    ASSERT_TRUE(base.HasValue());
    ASSERT_TRUE(Store(*base, "broken", "b"));
    ASSERT_TRUE(Store(*base, "fine", "f"));
  }
  const fs::path version = _dir / "base" / "broken" / "1";
  fs::remove(version / "hash");
  fs::remove(version / "asset.txt");
  ASSERT_EQ(::mkfifo((version / "asset.txt").c_str(), 0644), 0);

  std::vector<std::string> warnings;
  auto previous = SetLogSink([&](LOGLEVEL level, const std::string& line) {
    if (level == LOGLEVEL::WARNING) warnings.push_back(line);
  });
  ::alarm(20); // a hang ends the test binary instead of the suite
  auto base = CreateUrlAssetRepository(Id("test.base"), {}, baseUrl, false, false, false);
  ASSERT_TRUE(base.HasValue()) << base.GetError().ToString();
  auto top = CreateUrlAssetRepository(Id("test.repo"), {*base}, RootUrl(), true, false, false);
  ASSERT_TRUE(top.HasValue()) << top.GetError().ToString();
  ASSERT_TRUE(Store(*top, "own", "o"));
  std::set<std::string> found;
  auto r = (*top)->FindAssets(TypeArray{kTextType}, Id(), Id(), LATEST, [&](const AssetDescription& d) -> Result<bool> {
    found.insert(d->GetIdAndVersion().first.ToString() + "=" + LoadText(d));
    return true;
  });
  ::alarm(0);
  SetLogSink(previous);
  ASSERT_TRUE(r.HasValue()) << r.GetError().ToString();
  EXPECT_EQ(found, (std::set<std::string>{"fine=f", "own=o"}));
  ASSERT_FALSE(warnings.empty());
  EXPECT_NE(warnings[0].find("broken"), std::string::npos) << warnings[0];
}

} // namespace
