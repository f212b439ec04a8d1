// The "asset", "meta", "metasq" and "assetdb" URL schemes over in-memory repositories.

#include <gtest/gtest.h>

#include "asset/standard/assets.h"
#include "kelvo/application.h"
#include "kelvo/memory_io.h"
#include "temp_tree.h"
#include "test_assets.h"

namespace kelvo::testing {
namespace {


class AssetSchemeTest : public TempTreeTest {
protected:
  void SetUp() override {
    TempTreeTest::SetUp();
    RegisterMemoryIoHandler();
    RegisterAssetIoHandlers();
    repo = MakeRepository("test.scheme");
  }
  void TearDown() override {
    Application::SetVersion(1.0);
    TempTreeTest::TearDown();
  }

  AssetDescription Store(const std::string& aid, const std::string& text) {
    auto d = repo->StoreAsset(Id(aid), MakeText(text), nullptr);
    EXPECT_TRUE(d.HasValue()) << d.GetError().ToString();
    return d.HasValue() ? *d : nullptr;
  }
  // Reads url through its scheme after scoping it to the test repository.
  Result<std::string> Read(const std::string& text) {
    KELVO_ASSIGN_OR_RETURN(Url scoped, AssetInterface::AddRepositoryScope(Url(text), repo));
    return scoped.ReadAll();
  }
  Id ResolvedId(const std::string& text) {
    auto d = AssetInterface::ResolveAsset(Url(text), repo);
    EXPECT_TRUE(d.HasValue()) << d.GetError().ToString();
    return d.HasValue() && *d ? (*d)->GetIdAndVersion().first : Id();
  }

  std::shared_ptr<MemoryAssetRepositoryImpl> repo;
};

TEST_F(AssetSchemeTest, PathFormsNameTheAssetId) {
  Store("abc", "one");
  Store("file_abc", "two");
  Store("a.b", "three");
  EXPECT_EQ(ResolvedId("asset:///abc~.png"), Id("abc"));
  EXPECT_EQ(ResolvedId("asset:///abc"), Id("abc"));
  EXPECT_EQ(ResolvedId("asset:///file_abc.png"), Id("file_abc"));
  EXPECT_EQ(ResolvedId("asset:///a.b"), Id("a.b"));
  EXPECT_EQ(ResolvedId("asset:///abc~.txt/inner/part"), Id("abc"));
  EXPECT_EQ(*Read("asset:///abc~.txt"), "one");
  EXPECT_EQ(*Read("asset:///file_abc.txt"), "two");
}

TEST_F(AssetSchemeTest, QueryPinsVersions) {
  AssetDescription first = Store("abc", "one");
  AssetDescription second = Store("abc", "two");
  const std::string v1 = first->GetIdAndVersion().second.ToString();
  EXPECT_EQ(*Read("asset:///abc"), "two");
  EXPECT_EQ(*Read("asset:///abc?rev=" + v1), "one");
  EXPECT_EQ(*Read("asset:///abc?name=x&db=y&rev=" + v1), "one");
  // A bare query is a version Id, compared in lower case.
  std::string upper = v1;
  for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  EXPECT_EQ(*Read("asset:///abc?" + upper), "one");
  // A key that only ends in "rev" selects nothing.
  EXPECT_EQ(*Read("asset:///abc?prev=" + v1), "two");

  auto latestUrl = AssetInterface::GetAssetUrl(first, true);
  ASSERT_TRUE(latestUrl.HasValue()) << latestUrl.GetError().ToString();
  EXPECT_EQ(latestUrl->GetQuery().find("rev="), std::string::npos);
  EXPECT_EQ(*AssetInterface::AddRepositoryScope(Url(latestUrl->ToString()), repo)->ReadAll(), "two");
  auto pinnedUrl = AssetInterface::GetAssetUrl(first, false);
  ASSERT_TRUE(pinnedUrl.HasValue());
  EXPECT_EQ(pinnedUrl->GetPath(), "abc~.txt");
  EXPECT_EQ(*AssetInterface::AddRepositoryScope(Url(pinnedUrl->ToString()), repo)->ReadAll(), "one");
}

TEST_F(AssetSchemeTest, NamesWithQueryCharactersAreEscaped) {
  AssetDescription first = Store("abc", "one");
  Store("abc", "two");
  ASSERT_TRUE(first->StoreMetaString(stringkeys::name, "a&rev=b=c", Language::GetDefaultLanguage()).HasValue());
  auto url = AssetInterface::GetAssetUrl(first, false);
  ASSERT_TRUE(url.HasValue()) << url.GetError().ToString();
  EXPECT_NE(url->GetQuery().find("name=a%26rev%3db%3dc&"), std::string::npos) << url->GetQuery();
  EXPECT_EQ(*AssetInterface::AddRepositoryScope(Url(url->ToString()), repo)->ReadAll(), "one");
  auto ui = ConvertAssetUrlToUiName(Url("asset:///missing?name=a%26b&db=My%3dDb&version=v2"), 0, repo);
  ASSERT_TRUE(ui.HasValue());
  EXPECT_EQ(*ui, "a&b (My=Db) v2");
}

TEST_F(AssetSchemeTest, MissingAssetsAndMalformedUrlsAreClearErrors) {
  Store("abc", "one");
  for (const char* text : {"asset:///nothing", "asset:///", "asset:///abc?rev=0000", "asset:///~.png"}) {
    auto r = Read(text);
    ASSERT_TRUE(r.HasError()) << text;
    EXPECT_TRUE(r.GetError().Is(errors::unknown)) << text;
    EXPECT_EQ(r.GetError().GetMessage(), FormatString("No asset found for Url @.", Url(text))) << text;
  }
  // A meta URL resolves only through the record that its repository attached.
  auto meta = Read("meta:///abc/thumb.meta.png?0123");
  ASSERT_TRUE(meta.HasError());
  EXPECT_NE(meta.GetError().GetMessage().find("No asset found for Url meta:///abc/thumb.meta.png"), std::string::npos);
  // Watch folder metadata and assetdb paths can't be opened.
  auto metasq = Url("metasq:///abc/x.meta").ReadAll();
  ASSERT_TRUE(metasq.HasError());
  EXPECT_NE(metasq.GetError().GetMessage().find("Watch folder"), std::string::npos);
  auto assetdb = Url("assetdb:///Textures/Wood").ReadAll();
  ASSERT_TRUE(assetdb.HasError());
  EXPECT_TRUE(assetdb.GetError().Is(errors::io));
  EXPECT_NE(assetdb.GetError().GetMessage().find("invalid asset"), std::string::npos);
  // Asset URLs are read-only, and say "file" without looking.
  EXPECT_TRUE(Url("asset:///abc").OpenOutputStream().HasError());
  EXPECT_EQ(Url("asset:///nothing").IoDetect(), IODETECT::FILE);
}

TEST_F(AssetSchemeTest, ScopeRecordIsUsedUntilItsRepositoryGoes) {
  Store("abc", "one");
  auto scoped = AssetInterface::AddRepositoryScope(Url("asset:///abc"), repo);
  ASSERT_TRUE(scoped.HasValue());
  // The record travels with copies and answers without a search.
  auto again = AssetInterface::AddRepositoryScope(*scoped, nullptr);
  ASSERT_TRUE(again.HasValue());
  auto resolved = ResolveUrl(*again, nullptr, ASSET_URL_MODE::ASSET);
  ASSERT_TRUE(resolved.HasValue());
  EXPECT_TRUE(resolved->usedRecord);
  // A URL whose text changed doesn't use the record.
  Url changed = *scoped;
  changed.SetPath("abcd");
  EXPECT_TRUE(ResolveUrl(changed, repo, ASSET_URL_MODE::ASSET).HasError());
  // Once the repository is gone the record is stale; with no module started there's nowhere to search.
  repo.reset();
  auto stale = ResolveUrl(*scoped, nullptr, ASSET_URL_MODE::ASSET);
  ASSERT_TRUE(stale.HasError());
}

TEST_F(AssetSchemeTest, RootStandsForTheEmptyPath) {
  const Url top = Url("asset:///abc").GetDirectory();
  EXPECT_EQ(top.ToString(), "asset:///root");
  EXPECT_EQ(top.GetDirectory().ToString(), "asset:///root");
  EXPECT_EQ(top.Append("x").ToString(), "asset:///x");
  EXPECT_EQ(Url("asset:///abc/x/y.tif").GetDirectory().ToString(), "asset:///abc/x");
  EXPECT_EQ(Url("meta:///abc").GetDirectory().Append("thumb.meta").ToString(), "meta:///thumb.meta");
  // Other schemes keep the plain rules.
  EXPECT_EQ(Url("file:///a").GetDirectory().Append("x").ToString(), "file:///x");
  Store("abc", "one");
  EXPECT_EQ(*Url("asset:///abc?name=Shown").ConvertToUiName(UINAME_NAME_ONLY), "Shown");
}

TEST_F(AssetSchemeTest, AssetDbPaths) {
  // One component or none names no category chain: the URL stands.
  auto single = ResolveAssetDbUrl(Url("assetdb:///Wood.png"), repo);
  ASSERT_TRUE(single.HasValue());
  EXPECT_EQ(single->ToString(), "assetdb:///Wood.png");
  WriteFile(_dir / "wood.png", "wood");
  auto r = repo->StoreAsset(Id("wood"), FileAssetInterface::Create(Url::FromFile((_dir / "wood.png").string())), nullptr);
  ASSERT_TRUE(r.HasValue()) << r.GetError().ToString();
  ASSERT_TRUE((*r)->StoreMetaString(stringkeys::name, "Wood.png", Language::GetDefaultLanguage()).HasValue());
  // The name matches, but the asset has no category "Textures".
  auto missing = ResolveAssetDbUrl(Url("assetdb:///Textures/wood.PNG"), repo);
  ASSERT_TRUE(missing.HasError());
  EXPECT_TRUE(missing.GetError().Is(errors::io));
  EXPECT_NE(missing.GetError().GetMessage().find("Asset not found"), std::string::npos);
  EXPECT_TRUE(ResolveAssetDbUrl(Url("asset:///wood"), repo).HasError());
}

TEST_F(AssetSchemeTest, DirectoryAssetsOpenPathsInside) {
  WriteFile(_dir / "x" / "y.tif", "inner");
  auto stored = repo->StoreAsset(Id("tree"), FileAssetInterface::Create(Url::FromFile(_dir.string())), nullptr);
  ASSERT_TRUE(stored.HasValue()) << stored.GetError().ToString();
  EXPECT_EQ(*Read("asset:///tree/x/y.tif"), "inner");
  EXPECT_TRUE(Read("asset:///tree/x/none.tif").HasError());
}

TEST_F(AssetSchemeTest, IdsWithSlashesRoundTripAndPathsNeverLeaveTheAsset) {
  Store("abc", "one");
  for (const std::string aid : {"dir/one", "abc/../../../../../../etc/passwd", "50%/2F"}) {
    SCOPED_TRACE(aid);
    AssetDescription d = Store(aid, "content of " + aid);
    ASSERT_TRUE(d);
    auto url = AssetInterface::GetAssetUrl(d, true);
    ASSERT_TRUE(url.HasValue()) << url.GetError().ToString();
    EXPECT_EQ(*Read(url->ToString()), "content of " + aid);
    EXPECT_EQ(ResolvedId(url->ToString()), Id(aid));
  }
  // A path inside an asset that climbs out of it is refused, not resolved beside the content.
  for (const char* text : {"asset:///abc/../../../../etc/passwd", "asset:///abc~.txt/..", "asset:///abc/./x",
                           "asset:///abc//x"}) {
    SCOPED_TRACE(text);
    auto read = Read(text);
    ASSERT_TRUE(read.HasError());
    EXPECT_NE(read.GetError().ToString().find("leaves its asset"), std::string::npos) << read.GetError().ToString();
  }
}

TEST_F(AssetSchemeTest, InvalidAssetsCantBeRead) {
  AssetDescription d = Store("abc", "one");
  ASSERT_TRUE(repo->StoreMetaData(d, metaids::validversion, Data(DataArray{Data(26.0), Data(0.0)}),
                                  AssetMetaData::PERSISTENT)
                  .HasValue());
  Application::SetVersion(25.5);
  auto r = Read("asset:///abc");
  ASSERT_TRUE(r.HasError());
  EXPECT_EQ(r.GetError().GetMessage(), "Asset not allowed in this app version.");
  Application::SetVersion(26.0);
  EXPECT_EQ(*Read("asset:///abc"), "one");
}

TEST_F(AssetSchemeTest, UiNames) {
  AssetDescription d = Store("abc", "one");
  ASSERT_TRUE(d->StoreMetaString(stringkeys::name, "Wood.png", Language::GetDefaultLanguage()).HasValue());
  auto name = [&](const std::string& text, std::uint32_t flags) {
    auto r = ConvertAssetUrlToUiName(Url(text), flags, repo);
    return r.HasValue() ? *r : "error: " + r.GetError().ToString();
  };
  EXPECT_EQ(name("asset:///abc", 0), "assetdb:///Wood.png");
  EXPECT_EQ(name("asset:///abc", UINAME_NAME_ONLY), "Wood.png");
  EXPECT_EQ(name("asset:///abc", UINAME_NAME_ONLY | UINAME_ID), "abc");
  EXPECT_EQ(name("asset:///abc", UINAME_NAME_ONLY | UINAME_NO_SUFFIX), "Wood");
  EXPECT_EQ(name("asset:///abc", UINAME_NAME_ONLY | UINAME_VERSION), "Wood (Latest).png");
  const std::string pinned = "asset:///abc?" + d->GetIdAndVersion().second.ToString();
  EXPECT_EQ(name(pinned, UINAME_NAME_ONLY | UINAME_VERSION), "Wood.png");
  EXPECT_EQ(name("asset:///gone?name=Old&db=Lib", UINAME_NO_DATABASE), "Old");
  EXPECT_EQ(name("asset:///gone", 0), "asset:///gone");
  EXPECT_EQ(name("file:///tmp/x.png", 0), "file:///tmp/x.png");
}

} // namespace
} // namespace kelvo::testing
