#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "kelvo/url.h"
#include "kelvo/zip_io.h"
#include "temp_tree.h"

using namespace kelvo;
using namespace kelvo::testing;
namespace fs = std::filesystem;

namespace {

class ZipIoTest : public TempTreeTest {
protected:
  void SetUp() override {
    RegisterZipIoHandler();
    TempTreeTest::SetUp();
  }
  void TearDown() override {
    FlushZipArchiveCache();
    TempTreeTest::TearDown();
  }

  // Packs the tree under dir into archive with the zip tool; extra options such as -D (no
  // directory entries) or -0 (stored) pass through.
  static void Pack(const fs::path& tree, const fs::path& archive, const std::string& options = "") {
    const std::string cmd = "cd '" + tree.string() + "' && zip -q -r " + options + " '" + archive.string() + "' .";
    ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
  }
  // A tree with nested directories, an empty directory and a large compressible file.
  fs::path MakeTree() {
    const fs::path tree = _dir / "tree";
    WriteFile(tree / "databaseid", "db.one\n");
    WriteFile(tree / "a" / "b" / "c.txt", "deep");
    WriteFile(tree / "a" / "x.txt", "shallow");
    fs::create_directories(tree / "empty");
    std::string big;
    for (int i = 0; i < 200000; ++i) big += static_cast<char>('a' + i % 7);
    WriteFile(tree / "big.bin", big);
    return tree;
  }

  static std::vector<std::string> Names(const Result<std::vector<Url>>& urls) {
    std::vector<std::string> names;
    if (urls.HasValue())
      for (const Url& u : *urls) names.push_back(u.GetName());
    std::sort(names.begin(), names.end());
    return names;
  }
};

} // namespace

TEST_F(ZipIoTest, UrlFormRoundTripsThroughText) {
  const Url archive = Url::FromFile("/data/my dbs/set?1.zip");
  const Url root = MakeZipUrl(archive);
  EXPECT_EQ(root.GetScheme(), "zip");
  const Url entry = root.Append("basics/databaseid");
  EXPECT_EQ(entry, MakeZipUrl(archive, "/basics//databaseid/"));

  // The text form parses back to the same archive and inner path.
  const Url reparsed(entry.ToString());
  auto parts = SplitZipUrl(reparsed);
  ASSERT_TRUE(parts.HasValue()) << parts.GetError().ToString();
  EXPECT_EQ(parts->archive, archive);
  EXPECT_EQ(parts->archive.GetPath(), "/data/my dbs/set?1.zip");
  EXPECT_EQ(parts->innerPath, "basics/databaseid");
  EXPECT_EQ(entry.GetName(), "databaseid");
  EXPECT_EQ(SplitZipUrl(root)->innerPath, "");
  // A query of the archive's URL is kept apart from its path.
  Url withQuery("http", "/server/db.zip");
  withQuery.SetQuery("v=2&x=!");
  auto queried = SplitZipUrl(Url(MakeZipUrl(withQuery, "a").ToString()));
  ASSERT_TRUE(queried.HasValue());
  EXPECT_EQ(queried->archive, withQuery);
  EXPECT_EQ(queried->archive.GetQuery(), "v=2&x=!");

  // Malformed zip URLs are errors, not crashes.
  EXPECT_TRUE(SplitZipUrl(Url("file:///x.zip")).HasError());
  EXPECT_TRUE(SplitZipUrl(Url("zip", "")).HasError());
  EXPECT_TRUE(SplitZipUrl(Url("zip", "file%3Zx")).HasError());
  EXPECT_TRUE(SplitZipUrl(Url("zip", "%4")).HasError());
  EXPECT_TRUE(SplitZipUrl(Url("zip", root.GetPath() + "/a/../../etc")).HasError());
}

TEST_F(ZipIoTest, DetectBrowseAndReadEntries) {
  const fs::path tree = MakeTree();
  for (const std::string options : {"", "-D", "-0"}) {
    SCOPED_TRACE("zip options: " + options);
    const fs::path archive = _dir / ("db" + options + ".zip");
    Pack(tree, archive, options);
    const Url root = MakeZipUrl(Url::FromFile(archive.string()));

    EXPECT_TRUE(CheckZipArchive(root).HasValue());
    EXPECT_EQ(root.IoDetect(), IODETECT::DIRECTORY);
    EXPECT_EQ(root.Append("a").IoDetect(), IODETECT::DIRECTORY);
    EXPECT_EQ(root.Append("a/b").IoDetect(), IODETECT::DIRECTORY); // implied by a file with -D
    EXPECT_EQ(root.Append("a/b/c.txt").IoDetect(), IODETECT::FILE);
    EXPECT_EQ(root.Append("a/missing").IoDetect(), IODETECT::NONE);
    if (options != "-D") {
      EXPECT_EQ(root.Append("empty").IoDetect(), IODETECT::DIRECTORY);
    }

    std::vector<std::string> top = Names(root.IoBrowse());
    std::vector<std::string> expected = {"a", "big.bin", "databaseid"};
    if (options != "-D") expected.push_back("empty");
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(top, expected);
    EXPECT_EQ(Names(root.Append("a").IoBrowse()), (std::vector<std::string>{"b", "x.txt"}));
    // Children are zip URLs that work in turn.
    auto children = root.Append("a/b").IoBrowse();
    ASSERT_TRUE(children.HasValue());
    ASSERT_EQ(children->size(), 1u);
    EXPECT_EQ(children->front().ReadAll().GetValueOr(""), "deep");

    EXPECT_EQ(root.Append("databaseid").ReadAll().GetValueOr(""), "db.one\n");
    EXPECT_EQ(root.Append("big.bin").ReadAll().GetValueOr(""), ReadFile(tree / "big.bin"));
    auto stream = root.Append("big.bin").OpenInputStream();
    ASSERT_TRUE(stream.HasValue());
    EXPECT_EQ((*stream)->GetSize().GetValueOr(0), fs::file_size(tree / "big.bin"));

    // Missing entries, directories and listing a file are io errors.
    EXPECT_TRUE(root.Append("nothing").ReadAll().GetError().Is(errors::io));
    EXPECT_TRUE(root.Append("a").OpenInputStream().GetError().Is(errors::io));
    EXPECT_TRUE(root.Append("a/x.txt").IoBrowse().GetError().Is(errors::io));
  }
}

TEST_F(ZipIoTest, ArchiveIsReadOnly) {
  const fs::path archive = _dir / "db.zip";
  Pack(MakeTree(), archive);
  const auto sizeBefore = fs::file_size(archive);
  const Url root = MakeZipUrl(Url::FromFile(archive.string()));
  EXPECT_TRUE(root.Append("new.txt").WriteAll("x").HasError());
  EXPECT_TRUE(root.Append("n").IoCreateDirectory(true).HasError());
  EXPECT_TRUE(root.Append("a/x.txt").IoDelete(false).HasError());
  EXPECT_TRUE(root.Append("a/x.txt").IoRename(root.Append("a/y.txt")).HasError());
  EXPECT_EQ(root.Append("a/x.txt").ReadAll().GetValueOr(""), "shallow");
  EXPECT_EQ(fs::file_size(archive), sizeBefore);
}

TEST_F(ZipIoTest, BadArchivesGiveErrorsNotCrashes) {
  const fs::path good = _dir / "good.zip";
  Pack(MakeTree(), good);
  const std::string bytes = ReadFile(good);

  // Missing archive: io error, nothing detected.
  const Url missing = MakeZipUrl(Url::FromFile((_dir / "missing.zip").string()));
  EXPECT_TRUE(CheckZipArchive(missing).GetError().Is(errors::io));
  EXPECT_EQ(missing.IoDetect(), IODETECT::NONE);
  EXPECT_TRUE(missing.IoBrowse().HasError());

  // Not a zip at all.
  WriteFile(_dir / "text.zip", "this is not an archive, just some text that is long enough to look at");
  const Url text = MakeZipUrl(Url::FromFile((_dir / "text.zip").string()));
  EXPECT_TRUE(CheckZipArchive(text).GetError().Is(errors::fileformat));
  EXPECT_EQ(text.IoDetect(), IODETECT::NONE);

  // Empty file.
  WriteFile(_dir / "empty.zip", "");
  EXPECT_TRUE(CheckZipArchive(MakeZipUrl(Url::FromFile((_dir / "empty.zip").string()))).HasError());

  // Truncated at several points: the end record is gone, so the archive is refused.
  for (std::size_t keep : {bytes.size() / 2, bytes.size() - 10, std::size_t(30)}) {
    const fs::path cut = _dir / ("cut" + std::to_string(keep) + ".zip");
    WriteFile(cut, bytes.substr(0, keep));
    const Url root = MakeZipUrl(Url::FromFile(cut.string()));
    auto check = CheckZipArchive(root);
    ASSERT_TRUE(check.HasError()) << keep;
    EXPECT_TRUE(check.GetError().Is(errors::fileformat)) << check.GetError().ToString();
    EXPECT_TRUE(root.Append("databaseid").ReadAll().HasError());
  }

  // Damaged content behind an intact directory: opening works, reading the entry fails.
  {
    const fs::path tree = _dir / "stored";
    WriteFile(tree / "payload.txt", std::string(4000, 'q'));
    const fs::path stored = _dir / "stored.zip";
    Pack(tree, stored, "-0");
    std::string raw = ReadFile(stored);
    const auto pos = raw.find(std::string(100, 'q'));
    ASSERT_NE(pos, std::string::npos);
    raw[pos + 50] = 'X'; // CRC mismatch
    WriteFile(stored, raw);
    FlushZipArchiveCache();
    const Url root = MakeZipUrl(Url::FromFile(stored.string()));
    EXPECT_TRUE(CheckZipArchive(root).HasValue());
    auto read = root.Append("payload.txt").ReadAll();
    ASSERT_TRUE(read.HasError());
    EXPECT_TRUE(read.GetError().Is(errors::fileformat)) << read.GetError().ToString();
  }
}

TEST_F(ZipIoTest, ReplacedArchiveIsReopened) {
  const fs::path tree = MakeTree();
  const fs::path archive = _dir / "db.zip";
  Pack(tree, archive);
  const Url root = MakeZipUrl(Url::FromFile(archive.string()));
  EXPECT_EQ(root.Append("a/x.txt").ReadAll().GetValueOr(""), "shallow");

  WriteFile(tree / "a" / "x.txt", "changed content of a different size");
  WriteFile(tree / "added.txt", "new");
  fs::remove(archive);
  Pack(tree, archive);
  EXPECT_EQ(root.Append("a/x.txt").ReadAll().GetValueOr(""), "changed content of a different size");
  EXPECT_EQ(root.Append("added.txt").IoDetect(), IODETECT::FILE);

  fs::remove(archive);
  EXPECT_EQ(root.IoDetect(), IODETECT::NONE);
}

TEST_F(ZipIoTest, ConcurrentReadsOfOneArchive) {
  const fs::path tree = _dir / "many";
  for (int i = 0; i < 40; ++i) WriteFile(tree / ("f" + std::to_string(i)), std::string(5000 + i, 'a' + i % 26));
  const fs::path archive = _dir / "many.zip";
  Pack(tree, archive);
  const Url root = MakeZipUrl(Url::FromFile(archive.string()));
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 5; ++round)
        for (int i = t; i < 40; i += 2) {
          auto content = root.Append("f" + std::to_string(i)).ReadAll();
          if (!content.HasValue() || *content != std::string(5000 + i, 'a' + i % 26)) ++failures;
        }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);
}

TEST_F(ZipIoTest, ArchiveBehindAnotherSchemeIsReadIntoMemory) {
  // A zip inside a zip: the outer entry is the inner archive's URL.
  const fs::path inner = _dir / "inner";
  WriteFile(inner / "databaseid", "nested\n");
  fs::create_directories(_dir / "outer_src");
  Pack(inner, _dir / "outer_src" / "inner.zip");
  Pack(_dir / "outer_src", _dir / "outer.zip");
  const Url innerArchive = MakeZipUrl(Url::FromFile((_dir / "outer.zip").string()), "inner.zip");
  const Url nested = MakeZipUrl(innerArchive, "databaseid");
  EXPECT_EQ(nested.ReadAll().GetValueOr(""), "nested\n");
  EXPECT_EQ(Url(nested.ToString()).ReadAll().GetValueOr(""), "nested\n");
}

TEST_F(ZipIoTest, StreamsOutliveEvictionFromTheCache) {
  const fs::path tree = _dir / "small";
  WriteFile(tree / "data.txt", std::string(100000, 'd'));
  Pack(tree, _dir / "a0.zip");
  for (int i = 1; i < 140; ++i) fs::copy_file(_dir / "a0.zip", _dir / ("a" + std::to_string(i) + ".zip"));

  auto first = MakeZipUrl(Url::FromFile((_dir / "a0.zip").string()), "data.txt").OpenInputStream();
  ASSERT_TRUE(first.HasValue());
  char head[10];
  ASSERT_EQ((*first)->Read(head, sizeof(head)).GetValueOr(0), sizeof(head));
  // Opening more archives than the cache keeps evicts the first one while its stream is open.
  for (int i = 1; i < 140; ++i)
    ASSERT_EQ(MakeZipUrl(Url::FromFile((_dir / ("a" + std::to_string(i) + ".zip")).string()), "data.txt").IoDetect(),
              IODETECT::FILE);
  std::string rest(100000, '\0');
  std::size_t total = sizeof(head);
  for (;;) {
    auto n = (*first)->Read(rest.data(), rest.size());
    ASSERT_TRUE(n.HasValue());
    if (*n == 0) break;
    total += *n;
  }
  EXPECT_EQ(total, 100000u);
  first->reset();
  EXPECT_EQ(MakeZipUrl(Url::FromFile((_dir / "a0.zip").string()), "data.txt").ReadAll().GetValueOr("").size(), 100000u);
}
