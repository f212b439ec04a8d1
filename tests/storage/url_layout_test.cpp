// Names and files of the URL repository tree.

#include <gtest/gtest.h>

#include "asset/storage/url_layout.h"
#include "temp_tree.h"

using namespace kelvo;

namespace {

TEST(UrlLayoutTest, AssetDirectoryNames) {
  EXPECT_EQ(AssetIdToDirectoryName("My Asset/One"), "my_asset_one");
  EXPECT_EQ(AssetIdToDirectoryName("a$b-c.d_e09"), "a$b-c.d_e09");
  EXPECT_EQ(AssetIdToDirectoryName("\xc3\xa4/..\\"), "___.._");
  EXPECT_EQ(AssetIdToDirectoryName(std::string("a\0b", 3)), "a_b");
}

TEST(UrlLayoutTest, VersionDirectoryNames) {
  auto seven = ParseVersionDirectoryName("007");
  ASSERT_TRUE(seven);
  EXPECT_EQ(seven->number, 7u);
  EXPECT_TRUE(seven->versionId.empty());
  auto deleted = ParseVersionDirectoryName("12-deleted");
  ASSERT_TRUE(deleted);
  EXPECT_EQ(deleted->number, 12u);
  EXPECT_TRUE(deleted->deleted);
  EXPECT_EQ(deleted->versionId, "deleted");
  const std::string digest(40, 'A');
  auto old = ParseVersionDirectoryName("12-" + digest);
  ASSERT_TRUE(old);
  EXPECT_EQ(old->number, 12u);
  EXPECT_EQ(old->versionId, std::string(40, 'a'));
  for (const char* bad : {"abc", "12a", "", "-deleted", "1 2", "99999999999999999999999"})
    EXPECT_FALSE(ParseVersionDirectoryName(bad)) << bad;
  EXPECT_FALSE(ParseVersionDirectoryName("-" + digest));
}

TEST(UrlLayoutTest, MetadataFileNames) {
  auto meta = ClassifyMetaFileName("thumb.meta", 0);
  ASSERT_TRUE(meta);
  EXPECT_EQ(meta->metaId, "thumb");
  EXPECT_EQ(meta->kind, 2u);
  EXPECT_FALSE(meta->isUrl);
  auto url = ClassifyMetaFileName("thumb.meta.png", 0);
  ASSERT_TRUE(url);
  EXPECT_EQ(url->metaId, "thumb");
  EXPECT_TRUE(url->isUrl);
  EXPECT_EQ(ClassifyMetaFileName("a.b.version", 16)->kind, 16u + 6u);
  EXPECT_EQ(ClassifyMetaFileName("x.derived", 0)->kind, 10u);
  EXPECT_EQ(ClassifyMetaFileName("net.kelvo.asset.timestamp.version", 0)->metaId, "net.kelvo.asset.timestamp");
  for (const char* none : {"thumb.png", "x.y.png", "hash", "asset.txt", "meta"})
    EXPECT_FALSE(ClassifyMetaFileName(none, 0)) << none;
  EXPECT_STREQ(MetaFileSuffix(10), ".derived");
  EXPECT_STREQ(MetaFileSuffix(7), ".version");
  EXPECT_STREQ(MetaFileSuffix(18), ".meta");
}

TEST(UrlLayoutTest, LinesDropCarriageReturns) {
  LineReader reader("one\r\ntwo\n\nthree");
  std::vector<std::string> lines;
  std::string line;
  while (reader.Next(line)) lines.push_back(line);
  EXPECT_EQ(lines, (std::vector<std::string>{"one", "two", "", "three"}));
  LineReader empty("");
  EXPECT_FALSE(empty.Next(line));
  LineReader trailing("a\n");
  ASSERT_TRUE(trailing.Next(line));
  EXPECT_FALSE(trailing.Next(line));
}

using UrlLayoutFileTest = kelvo::testing::TempTreeTest;

TEST_F(UrlLayoutFileTest, ContentAndMetadataOfAVersionDirectory) {
  for (const char* name : {"asset.png", "hash", "thumb.meta", "thumb.meta.png", "other.png", ".incomplete"})
    kelvo::testing::WriteFile(_dir / "v" / name, name);
  auto found = FindContentUrl(Url::FromFile((_dir / "v").string()), 0);
  ASSERT_TRUE(found.HasValue());
  EXPECT_EQ(found->contentName, "asset.png");
  EXPECT_TRUE(found->incomplete);
  EXPECT_EQ(found->meta.size(), 2u);
  auto missing = FindContentUrl(Url::FromFile((_dir / "nothing").string()), 0);
  ASSERT_TRUE(missing.HasValue());
  EXPECT_TRUE(missing->content.IsEmpty());
  EXPECT_TRUE(missing->meta.empty());
}

TEST(UrlLayoutTest, SafePathComponents) {
  for (const char* ok : {"a", "asset.png", "...", "a..b"}) EXPECT_TRUE(IsSafePathComponent(ok)) << ok;
  for (const char* bad : {"", ".", "..", "a/b", "/", "../x"}) EXPECT_FALSE(IsSafePathComponent(bad)) << bad;
  EXPECT_FALSE(IsSafePathComponent(std::string("a\0b", 3)));
}

} // namespace
