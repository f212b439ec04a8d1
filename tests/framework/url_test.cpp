#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "kelvo/data.h"
#include "kelvo/url.h"
#include "temp_tree.h"

using namespace kelvo;

TEST(Url, TextRoundTrip) {
  Url file("file:///tmp/a b/c.txt");
  EXPECT_EQ(file.GetScheme(), "file");
  EXPECT_EQ(file.GetPath(), "/tmp/a b/c.txt");
  EXPECT_EQ(file.ToString(), "file:///tmp/a b/c.txt");
  EXPECT_EQ(Url(file.ToString()), file);

  Url asset("asset:///x~.png?rev=1");
  EXPECT_EQ(asset.GetScheme(), "asset");
  EXPECT_EQ(asset.GetPath(), "x~.png");
  EXPECT_EQ(asset.GetQuery(), "rev=1");
  EXPECT_EQ(asset.GetData(urlkeys::query), Data("rev=1"));
  EXPECT_EQ(asset.ToString(), "asset:///x~.png?rev=1");
  EXPECT_EQ(Url(asset.ToString()), asset);

  // The query takes part in equality; a text without a scheme is a file path.
  EXPECT_NE(asset, Url("asset:///x~.png?rev=2"));
  EXPECT_NE(asset, Url("asset:///x~.png"));
  Url plain("/var/data/f.bin");
  EXPECT_EQ(plain.GetScheme(), "file");
  EXPECT_EQ(plain, Url::FromFile("/var/data/f.bin"));
  EXPECT_TRUE(Url("").IsEmpty());
  EXPECT_LT(Url("a:///x").Compare(Url("b:///x")), 0);
}

TEST(Url, NameSuffixDirectoryAndAppend) {
  Url u("file:///tmp/a b/c.txt");
  EXPECT_EQ(u.GetName(), "c.txt");
  EXPECT_EQ(u.GetSuffix(), "txt");
  EXPECT_EQ(u.GetDirectory().ToString(), "file:///tmp/a b");
  EXPECT_EQ(u.GetDirectory().GetDirectory().GetDirectory().GetPath(), "/");
  EXPECT_EQ(Url("file:///tmp/dir/").GetName(), "dir");

  u.SetSuffix("png");
  EXPECT_EQ(u.GetPath(), "/tmp/a b/c.png");
  u.SetSuffix("");
  EXPECT_EQ(u.GetName(), "c");
  EXPECT_EQ(u.GetSuffix(), "");
  u.SetName("d.tar.gz");
  EXPECT_EQ(u.GetSuffix(), "gz");
  EXPECT_EQ(u.GetPath(), "/tmp/a b/d.tar.gz");

  Url dir = Url::FromFile("/tmp");
  EXPECT_EQ(dir.Append("x/y.txt").GetPath(), "/tmp/x/y.txt");
  EXPECT_EQ(dir.Append("/x").GetPath(), "/tmp/x");
  EXPECT_EQ(Url::FromFile("/tmp/").Append("x").GetPath(), "/tmp/x");
  EXPECT_EQ(dir.Append("").GetPath(), "/tmp");

  // Attached data goes with copies but not with derived URLs, and copies don't share changes.
  Url tagged("asset:///x.png?rev=1");
  tagged.SetData("k", Data(std::int64_t(7)));
  Url copy = tagged;
  copy.SetData("k", Data(std::int64_t(8)));
  EXPECT_EQ(tagged.GetData("k"), Data(std::int64_t(7)));
  EXPECT_TRUE(tagged.Append("y").GetData("k").IsEmpty());
  tagged.EraseData("k");
  EXPECT_TRUE(tagged.GetData("k").IsEmpty());
  EXPECT_EQ(tagged.GetQuery(), "rev=1");
}

using UrlFileTest = kelvo::testing::TempTreeTest;

TEST_F(UrlFileTest, WriteReadBrowseRenameDelete) {
  const Url root = Url::FromFile(_dir.string());
  const Url dir = root.Append("sub dir/nested");
  ASSERT_TRUE(dir.IoCreateDirectory(true).HasValue());
  EXPECT_EQ(dir.IoDetect(), IODETECT::DIRECTORY);

  const Url a = dir.Append("a.txt");
  ASSERT_TRUE(a.WriteAll("first").HasValue());
  ASSERT_TRUE(a.WriteAll("second content").HasValue());
  EXPECT_EQ(a.IoDetect(), IODETECT::FILE);
  auto text = a.ReadAll();
  ASSERT_TRUE(text.HasValue());
  EXPECT_EQ(*text, "second content");

  auto in = a.OpenInputStream();
  ASSERT_TRUE(in.HasValue());
  EXPECT_EQ(*(*in)->GetSize(), 14u);

  const Url b = dir.Append("b.bin");
  const std::string binary("\0\x01\xff", 3);
  ASSERT_TRUE(b.WriteAll(binary).HasValue());
  EXPECT_EQ(*b.ReadAll(), binary);

  // No temporary files are left behind by WriteAll.
  auto children = dir.IoBrowse();
  ASSERT_TRUE(children.HasValue());
  std::vector<std::string> names;
  for (const Url& child : *children) names.push_back(child.GetName());
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"a.txt", "b.bin"}));

  const Url c = dir.Append("c.txt");
  ASSERT_TRUE(a.IoRename(c).HasValue());
  EXPECT_EQ(a.IoDetect(), IODETECT::NONE);
  EXPECT_EQ(*c.ReadAll(), "second content");

  ASSERT_TRUE(c.IoDelete().HasValue());
  EXPECT_EQ(c.IoDetect(), IODETECT::NONE);
  EXPECT_TRUE(c.IoDelete().HasValue());
  ASSERT_TRUE(root.Append("sub dir").IoDelete(true).HasValue());
  EXPECT_EQ(dir.IoDetect(), IODETECT::NONE);
}

TEST_F(UrlFileTest, Errors) {
  const Url root = Url::FromFile(_dir.string());
  const Url missing = root.Append("missing.txt");
  auto read = missing.ReadAll();
  ASSERT_TRUE(read.HasError());
  EXPECT_TRUE(read.GetError().Is(errors::io));
  EXPECT_NE(read.GetError().GetMessage().find("missing.txt"), std::string::npos);
  EXPECT_TRUE(missing.IoBrowse().GetError().Is(errors::io));
  EXPECT_TRUE(missing.IoRename(root.Append("other")).GetError().Is(errors::io));
  EXPECT_TRUE(root.Append("no/such/dir/f.txt").WriteAll("x").GetError().Is(errors::io));
  EXPECT_TRUE(root.ReadAll().GetError().Is(errors::io));

  // A file in the way of a directory.
  const Url file = root.Append("f");
  ASSERT_TRUE(file.WriteAll("x").HasValue());
  EXPECT_TRUE(file.IoCreateDirectory(false).HasError());
  EXPECT_TRUE(file.Append("child").IoCreateDirectory(true).HasError());

  // Schemes without a handler.
  const Url unknown("nosuchscheme:///a");
  EXPECT_EQ(unknown.IoDetect(), IODETECT::NONE);
  EXPECT_TRUE(unknown.ReadAll().GetError().Is(errors::unsupportedoperation));
  EXPECT_TRUE(unknown.WriteAll("x").GetError().Is(errors::unsupportedoperation));
  EXPECT_TRUE(file.IoRename(unknown).GetError().Is(errors::unsupportedargument));
}
