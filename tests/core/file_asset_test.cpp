// File assets: content hashing of files and directory trees, copying, and the type's slots.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "asset/core/asset_description.h"
#include "kelvo/hash.h"

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

// A fresh directory under the test temp dir, removed at the end of the test.
class FileAssetTest : public ::testing::Test {
protected:
  void SetUp() override {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    _root = fs::temp_directory_path() / ("kelvo_file_asset_" + std::string(info->name()) + "_" +
                                         std::to_string(::getpid()));
    fs::remove_all(_root);
    fs::create_directories(_root);
  }
  void TearDown() override { fs::remove_all(_root); }

  fs::path Path(const std::string& relative) const { return _root / relative; }
  Url UrlOf(const std::string& relative) const { return Url::FromFile(Path(relative).string()); }
  void Write(const std::string& relative, const std::string& content) const {
    fs::create_directories(Path(relative).parent_path());
    std::ofstream(Path(relative), std::ios::binary) << content;
  }
  static std::string Read(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  std::size_t CountEntries() const {
    std::size_t n = 0;
    for ([[maybe_unused]] const auto& e : fs::recursive_directory_iterator(_root)) ++n;
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

  fs::path _root;
};

TEST_F(FileAssetTest, HashesFilesAsBytesAndDirectoriesAsSortedListings) {
  Write("f.bin", "hello world");
  EXPECT_EQ(HexOf(HashOf("f.bin").GetValueOr(Digest{})), HexOf("hello world"));

  Write("dir/b", "bee");
  Write("dir/A", "ay");
  EXPECT_EQ(HexOf(HashOf("dir").GetValueOr(Digest{})), HexOf(HexOf("ay") + "  A\n" + HexOf("bee") + "  b\n"));

  // Names sort as letters: by bytes "B" would come before "a".
  Write("cases/B", "2");
  Write("cases/a", "1");
  Write("cases/A", "0");
  EXPECT_EQ(HexOf(HashOf("cases").GetValueOr(Digest{})),
            HexOf(HexOf("0") + "  A\n" + HexOf("1") + "  a\n" + HexOf("2") + "  B\n"));

  fs::create_directories(Path("empty"));
  EXPECT_EQ(HexOf(HashOf("empty").GetValueOr(Digest{})),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");

  // A subdirectory enters its parent's listing with the hash of its own listing.
  Write("tree/sub/x", "xx");
  Write("tree/top", "tt");
  fs::create_directories(Path("tree/empty"));
  const std::string sub = HexOf(HexOf("xx") + "  x\n");
  EXPECT_EQ(HexOf(HashOf("tree").GetValueOr(Digest{})),
            HexOf(HexOf("") + "  empty\n" + sub + "  sub\n" + HexOf("tt") + "  top\n"));

  // Hashing alone writes nothing anywhere.
  const std::size_t before = CountEntries();
  ASSERT_TRUE(HashOf("tree").HasValue());
  ASSERT_TRUE(HashOf("f.bin").HasValue());
  EXPECT_EQ(CountEntries(), before);
}

TEST_F(FileAssetTest, StoreCopiesTheTreeAndHashesAsTheSource) {
  Write("src/a.txt", "alpha");
  Write("src/sub/b.txt", "beta");
  Write("src/sub/deeper/c.txt", std::string(3 << 20, 'c')); // larger than one copy buffer
  fs::create_directories(Path("src/emptydir"));
  auto sourceHash = HashOf("src");
  auto copyHash = HashOf("src", UrlOf("dst"));
  ASSERT_TRUE(copyHash.HasValue()) << copyHash.GetError().ToString();
  EXPECT_EQ(*copyHash, *sourceHash);
  EXPECT_EQ(Read(Path("dst/a.txt")), "alpha");
  EXPECT_EQ(Read(Path("dst/sub/b.txt")), "beta");
  EXPECT_EQ(Read(Path("dst/sub/deeper/c.txt")), std::string(3 << 20, 'c'));
  EXPECT_TRUE(fs::is_directory(Path("dst/emptydir")));
  auto again = HashOf("dst");
  ASSERT_TRUE(again.HasValue());
  EXPECT_EQ(*again, *sourceHash);

  auto unhashed = Type()->Store(FileAssetInterface::Create(UrlOf("src")), UrlOf("plain"), nullptr);
  ASSERT_TRUE(unhashed.HasValue()) << unhashed.GetError().ToString();
  EXPECT_TRUE(unhashed->empty());
  EXPECT_EQ(Read(Path("plain/sub/b.txt")), "beta");
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

TEST(FileAssetType, RegisteredWithoutAModuleStartAndItsSlots) {
  AssetType type = FindAssetType(g_fileAssetTypeId);
  ASSERT_NE(type, nullptr);
  EXPECT_EQ(type->GetId(), g_fileAssetTypeId);
  EXPECT_EQ(FindAssetType(Id("net.kelvo.assettype.nosuchtype")), nullptr);
  EXPECT_EQ(GetAssetTypeRegistry()->GetId(), g_assetTypesRegistryId);

  EXPECT_EQ(type->GetUrlSuffix(FileAssetInterface::Create(Url::FromFile("/x/picture.tar.png"))), "png");
  EXPECT_EQ(type->GetUrlSuffix(FileAssetInterface::Create(Url::FromFile("/x/noext"))), "");
  EXPECT_EQ(type->GetUrlSuffix(nullptr), "");

  auto loaded = type->Load(nullptr, nullptr, Url::FromFile("/x/y.obj"), false);
  ASSERT_TRUE(loaded.HasValue());
  auto* file = dynamic_cast<FileAssetInterface*>(loaded->get());
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->GetUrl(), Url::FromFile("/x/y.obj"));
  EXPECT_EQ((*loaded)->GetTypeId(), g_fileAssetTypeId);

  EXPECT_EQ(type->GetDefaultIcon(nullptr, nullptr, nullptr).GetName(), "genericasset.svg");

  auto versions = type->GetData(assettypeproperties::supportVersions);
  ASSERT_TRUE(versions.HasValue());
  EXPECT_EQ(versions->Get<bool>(), true);
  EXPECT_TRUE(type->GetData(Id("net.kelvo.assettypeproperties.nosuchkey")).HasError());
}

TEST(FileAssetType, ComputesEmptyTagsAndCategoryAsFinal) {
  AssetType type = FindAssetType(g_fileAssetTypeId);
  ASSERT_NE(type, nullptr);
  auto tags = type->ComputeMetaData(nullptr, nullptr, nullptr, InternedId("net.kelvo.object.base.tags"));
  ASSERT_TRUE(tags.HasValue());
  ASSERT_TRUE(tags->value.has_value());
  EXPECT_EQ(tags->value->Get<std::string>(), std::string());
  EXPECT_TRUE(tags->final);

  auto category = type->ComputeMetaData(nullptr, nullptr, nullptr, InternedId("net.kelvo.node.base.category"));
  ASSERT_TRUE(category.HasValue());
  ASSERT_TRUE(category->value.has_value());
  EXPECT_EQ(category->value->GetType(), datatypes::id);
  EXPECT_TRUE(category->final);

  auto other = type->ComputeMetaData(nullptr, nullptr, nullptr, InternedId("net.kelvo.asset.size"));
  ASSERT_TRUE(other.HasValue());
  EXPECT_FALSE(other->value.has_value());
}


} // namespace
} // namespace kelvo
