// File assets: content hashing of files and directory trees, copying, and the type's slots.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "asset/core/asset_description.h"
#include "asset/core/content_digest.h"
#include "kelvo/hash.h"
#include "temp_tree.h"

namespace kelvo {
namespace {

namespace fs = std::filesystem;

std::string HexOf(const std::string& bytes) {
  Sha256 h;
  h.Update(bytes.data(), bytes.size());
  const auto d = h.Finish();
  return ToHex(d.data(), d.size());
}

std::string HexOf(const Digest& d) { return ToHex(d.data(), d.size()); }

class FileAssetTest : public kelvo::testing::TempTreeTest {
protected:
  fs::path Path(const std::string& relative) const { return _dir / relative; }
  Url UrlOf(const std::string& relative) const { return Url::FromFile(Path(relative).string()); }
  void Write(const std::string& relative, const std::string& content) const {
    kelvo::testing::WriteFile(Path(relative), content);
  }
  static std::string Read(const fs::path& p) { return kelvo::testing::ReadFile(p); }
  std::size_t CountEntries() const {
    std::size_t n = 0;
    for ([[maybe_unused]] const auto& e : fs::recursive_directory_iterator(_dir)) ++n;
    return n;
  }
  AssetType Type() const {
    AssetType type = FindAssetType(g_fileAssetTypeId);
    EXPECT_NE(type, nullptr);
    return type;
  }
  Result<Digest> HashOf(const std::string& relative, const Url& to = Url()) const {
    Digest d{};
    auto r = Type()->Store(FileAssetInterface::Create(UrlOf(relative)), to, &d);
    if (r.HasError()) return r.GetError();
    return d;
  }
};

TEST_F(FileAssetTest, HashesFilesAsBytesAndDirectoriesAsListingsInLetterOrder) {
  Write("f.bin", "hello world");
  EXPECT_EQ(HexOf(HashOf("f.bin").GetValueOr(Digest{})), HexOf("hello world"));

  // Names as they are, in letter order before case (by bytes "B" would come before "a"), hidden
  // entries counted, a subdirectory with the digest of its own listing, links left out.
  Write("d/.hidden", "h");
  Write("d/a", "1");
  Write("d/A.TXT", "");
  Write("d/B", "2");
  Write("d/b", "x");
  Write("d/sub/c", std::string(3 << 20, 'c')); // larger than one copy buffer
  fs::create_directories(Path("d/empty"));
  fs::create_symlink("/etc/passwd", Path("d/link"));
  const std::string expected =
      HexOf(HexOf("h") + "  .hidden\n" + HexOf("1") + "  a\n" + HexOf("") + "  A.TXT\n" + HexOf("2") + "  B\n" +
            HexOf("x") + "  b\n" + HexOf("") + "  empty\n" + HexOf(HexOf(std::string(3 << 20, 'c')) + "  c\n") +
            "  sub\n");
  // Hashing alone writes nothing anywhere.
  const std::size_t before = CountEntries();
  EXPECT_EQ(HexOf(HashContent(UrlOf("d"), Url()).GetValueOr(Digest{})), expected);
  EXPECT_EQ(CountEntries(), before);

  // Storing copies the tree without the link and hashes as the source; so does the copy.
  EXPECT_EQ(HexOf(HashOf("d", UrlOf("copy")).GetValueOr(Digest{})), expected);
  EXPECT_EQ(Read(Path("copy/sub/c")), std::string(3 << 20, 'c'));
  EXPECT_TRUE(fs::exists(Path("copy/.hidden")));
  EXPECT_TRUE(fs::is_directory(Path("copy/empty")));
  EXPECT_FALSE(fs::exists(fs::symlink_status(Path("copy/link"))));
  EXPECT_EQ(HexOf(HashOf("copy").GetValueOr(Digest{})), expected);
  EXPECT_EQ(HexOf(HashOf("d/empty").GetValueOr(Digest{})), HexOf(""));

  auto unhashed = Type()->Store(FileAssetInterface::Create(UrlOf("d")), UrlOf("plain"), nullptr);
  ASSERT_TRUE(unhashed.HasValue()) << unhashed.GetError().ToString();
  EXPECT_TRUE(unhashed->empty());
  EXPECT_EQ(Read(Path("plain/B")), "2");
  // A tree is never copied into itself.
  EXPECT_TRUE(CopyContent(UrlOf("d"), UrlOf("d/sub/again")).HasError());
  EXPECT_FALSE(fs::exists(Path("d/sub/again")));
}

// An asset of another class than file assets.
class OtherAsset final : public AssetBaseImpl {
public:
  AssetType GetType() const override { return nullptr; }
  Asset Clone() const override { return std::make_shared<OtherAsset>(*this); }
};

TEST_F(FileAssetTest, StoreFailuresAreErrors) {
  auto missing = HashOf("does-not-exist");
  ASSERT_TRUE(missing.HasError());
  EXPECT_TRUE(missing.GetError().Is(errors::io));

  Write("f", "x");
  // The target's directory does not exist.
  auto unwritable = HashOf("f", UrlOf("no/such/dir/f"));
  ASSERT_TRUE(unwritable.HasError());
  EXPECT_TRUE(unwritable.GetError().Is(errors::io));

  Digest d{};
  EXPECT_TRUE(Type()->Store(nullptr, Url(), &d).HasError());
  auto foreign = Type()->Store(std::make_shared<OtherAsset>(), Url(), &d);
  ASSERT_TRUE(foreign.HasError());
  EXPECT_TRUE(foreign.GetError().Is(errors::illegalargument));
  EXPECT_EQ(foreign.GetError().GetMessage().rfind("Asset is of unsupported class ", 0), 0u);
  EXPECT_NE(foreign.GetError().GetMessage().find("OtherAsset."), std::string::npos);
}

// Found without a module start; the suffix comes from the file's name; tags and category are
// computed as final, so that they are never cached in a back end.
TEST(FileAssetType, SuffixLoadAndComputedValues) {
  AssetType type = FindAssetType(g_fileAssetTypeId);
  ASSERT_NE(type, nullptr);
  EXPECT_EQ(type->GetUrlSuffix(FileAssetInterface::Create(Url::FromFile("/x/picture.tar.png"))), "png");
  EXPECT_EQ(type->GetUrlSuffix(FileAssetInterface::Create(Url::FromFile("/x/noext"))), "");
  EXPECT_EQ(type->GetUrlSuffix(nullptr), "");

  auto loaded = type->Load(nullptr, nullptr, Url::FromFile("/x/y.obj"), false);
  ASSERT_TRUE(loaded.HasValue());
  auto* file = dynamic_cast<FileAssetInterface*>(loaded->get());
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->GetUrl(), Url::FromFile("/x/y.obj"));
  EXPECT_TRUE(type->GetData(Id("net.kelvo.assettypeproperties.nosuchkey")).HasError());

  for (const char* id : {"net.kelvo.object.base.tags", "net.kelvo.node.base.category"}) {
    auto computed = type->ComputeMetaData(nullptr, nullptr, nullptr, InternedId(id));
    ASSERT_TRUE(computed.HasValue() && computed->value.has_value()) << id;
    EXPECT_TRUE(computed->final) << id;
  }
  auto other = type->ComputeMetaData(nullptr, nullptr, nullptr, InternedId("net.kelvo.asset.size"));
  ASSERT_TRUE(other.HasValue());
  EXPECT_FALSE(other->value.has_value());
}

} // namespace
} // namespace kelvo
