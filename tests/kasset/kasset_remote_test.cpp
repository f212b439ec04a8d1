// kasset with a remote database served by a real nginx: db add of the URL, get with the
// dependencies' closure, a forged content refused, the cache commands, and a mount from the cache
// once the server is gone.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "kasset_runner.h"
#include "nginx_server.h"

namespace {

namespace fs = std::filesystem;
using kelvo::testing::KassetRun;

class KassetRemoteTest : public kelvo::testing::KassetFixture {
protected:
  void SetUp() override {
    KassetFixture::SetUp();
    fs::create_directories(root / "library" / "assets");
  }
  void TearDown() override {
    nginx.reset();
    KassetFixture::TearDown();
  }
  // Adds a file holding text to the served repository under the Id aid.
  void Add(const std::string& aid, const std::string& text) {
    const fs::path file = root / (aid + ".txt");
    Write(file, text);
    KassetRun added = Kasset({"--repo", Served().string(), "add", "--id", aid, file.string()});
    ASSERT_EQ(added.code, 0) << added.err;
  }
  fs::path Served() const { return root / "www" / "lib"; }
  // The content file of aid's first version in the served tree.
  fs::path ContentOf(const std::string& aid) const { return Served() / aid / "1" / "asset.txt"; }

  std::unique_ptr<kelvo::test::NginxServer> nginx;
};

TEST_F(KassetRemoteTest, AddGetCacheAndMountFromTheCache) {
  ASSERT_EQ(Kasset({"init", Served().string()}).code, 0);
  Add("notes", "notes on a server\n");
  Add("forged", "the original\n");
  auto started = kelvo::test::NginxServer::Start((root / "www").string());
  ASSERT_TRUE(started.HasValue()) << started.GetError().ToString();
  nginx = std::move(*started);
  const std::string url = nginx->GetUrlText("/lib");

  KassetRun added = Kasset({"db", "add", url});
  ASSERT_EQ(added.code, 0) << added.err;
  EXPECT_NE(added.out.find("mounted as "), std::string::npos) << added.out << added.err;
  KassetRun ls = Kasset({"ls", "--ids"});
  EXPECT_NE(ls.out.find("notes"), std::string::npos) << ls.out << ls.err;

  // Not a terminal: one line per asset, then the counts.
  KassetRun got = Kasset({"get", "notes"});
  ASSERT_EQ(got.code, 0) << got.err;
  EXPECT_NE(got.out.find("downloaded notes"), std::string::npos) << got.out;
  EXPECT_NE(got.out.find("1 downloaded, 0 here already, 0 failed"), std::string::npos) << got.out;
  EXPECT_EQ(Kasset({"get", "notes"}).out, "0 downloaded, 1 here already, 0 failed\n");
  EXPECT_EQ(Kasset({"cat", "notes"}).out, "notes on a server\n");
  EXPECT_EQ(Kasset({"get", "nothing.here"}).code, 3);

  // A content that differs from its version Id is refused and not kept.
  ASSERT_TRUE(fs::is_regular_file(ContentOf("forged")));
  std::ofstream(ContentOf("forged"), std::ios::trunc) << "a forgery!!!\n";
  KassetRun forged = Kasset({"get", "forged"});
  EXPECT_EQ(forged.code, 1);
  EXPECT_NE(forged.out.find("0 downloaded, 0 here already, 1 failed"), std::string::npos) << forged.out;
  EXPECT_NE(forged.err.find("does not match its version Id"), std::string::npos) << forged.err;

  // The cache: its place, its size, and a server that is gone.
  const fs::path cache = root / "gprefs" / "_assetcache";
  EXPECT_EQ(Kasset({"cache", "path"}).out, cache.string() + "\n");
  KassetRun size = Kasset({"cache", "size"});
  ASSERT_EQ(size.code, 0);
  EXPECT_GT(std::stoull(size.out), 18u) << size.out;
  nginx->Stop();
  EXPECT_NE(Kasset({"ls", "--ids"}).out.find("notes"), std::string::npos);
  EXPECT_EQ(Kasset({"cat", "notes"}).out, "notes on a server\n");

  ASSERT_EQ(Kasset({"cache", "clear"}).code, 0);
  EXPECT_EQ(Kasset({"cache", "size"}).out.substr(0, 8), "0 bytes ");
  EXPECT_EQ(Kasset({"ls", "--ids"}).out.find("notes"), std::string::npos);
  // Out of the list, so that the commands below don't try the stopped server.
  ASSERT_EQ(Kasset({"db", "remove", url}).code, 0);

  // Only a missing or empty directory or a cache can be the cache path.
  std::ofstream(root / "afile") << "x";
  KassetRun onFile = Kasset({"cache", "path", (root / "afile").string()});
  EXPECT_EQ(onFile.code, 1);
  EXPECT_NE(onFile.err.find("Not a valid cache path"), std::string::npos) << onFile.err;
  ASSERT_EQ(Kasset({"cache", "path", (root / "newcache").string()}).code, 0);
  EXPECT_EQ(Kasset({"cache", "path"}).out, (root / "newcache").string() + "\n");
  EXPECT_EQ(Kasset({"cache", "frobnicate"}).code, 2);
}

} // namespace
