// Descriptions and loaded assets without a repository: translated strings, loading with its two
// caches and the validity range, the language table and version strings.

#include <gtest/gtest.h>

#include <thread>

#include "asset/core/asset_description.h"
#include "asset/core/asset_version_validity.h"
#include "kelvo/application.h"

namespace kelvo {
namespace {

const IdAndVersion kAid{Id("net.kelvo.test.stone"), Id("v1")};
const Id kUnregistered{"net.kelvo.assettype.test.unregistered"};

// The strings_<language> value with one text per key.
Data Strings(std::initializer_list<std::pair<Id, std::string>> texts) {
  DataDictionary strings;
  for (const auto& [key, text] : texts) {
    DataDictionary entry;
    entry.SetData(stringkeys::translatedString, text);
    strings.SetData(key, Data(std::move(entry)));
  }
  return Data(std::move(strings));
}

InternedId StringsOf(const char* language) { return AssetInterface::GetLanguageMetaDataId(Id(language)); }

AssetDescription Describe(const AssetMetaDataRef& meta, const Id& type = g_fileAssetTypeId, bool deleted = false,
                          const Url& url = Url::FromFile("/tmp/stone.png")) {
  return std::make_shared<AssetDescriptionImpl>(kAid, type, VersionKey{10, 1, 7}, meta, deleted, nullptr, url);
}

// Restores the current language and the application version after each test.
class DescriptionTest : public ::testing::Test {
protected:
  void TearDown() override {
    Language::SetCurrentLanguage(nullptr);
    Application::SetVersion(_version);
  }
  std::shared_ptr<AssetMetaDataImpl> meta = std::make_shared<AssetMetaDataImpl>();
  double _version = Application::GetVersion();
};

TEST_F(DescriptionTest, NameFallsBackToTheAssetId) {
  for (const Id& type : {g_fileAssetTypeId, kUnregistered}) {
    auto description = Describe(meta, type);
    EXPECT_EQ(description->GetMetaString(stringkeys::name, nullptr, "").GetValueOr(""), "net.kelvo.test.stone");
    EXPECT_EQ(description->GetMetaString(stringkeys::name, nullptr, "Given").GetValueOr(""), "Given");
    EXPECT_EQ(description->GetMetaString(stringkeys::tags, nullptr, "").GetValueOr("x"), "");
  }
}

TEST_F(DescriptionTest, TranslatedStringsFollowTheFallbackLanguages) {
  meta->AddEntry(StringsOf("en-US"), AssetMetaData::PERSISTENT,
                 Strings({{stringkeys::name, "Stone"}, {stringkeys::tags, "rock"}}));
  meta->AddEntry(StringsOf("de-DE"), AssetMetaData::PERSISTENT, Strings({{stringkeys::name, "Stein"}}));
  DataDictionary noText; // an Italian entry without the text member
  noText.SetData(Id("net.kelvo.description.string.base.comment"), "no text here");
  DataDictionary italian;
  italian.SetData(stringkeys::name, Data(std::move(noText)));
  meta->AddEntry(StringsOf("it-IT"), AssetMetaData::PERSISTENT, Data(std::move(italian)));
  meta->AddEntry(StringsOf("fr-FR"), AssetMetaData::PERSISTENT, Data("not a dictionary"));
  auto description = Describe(meta);
  auto text = [&](const Id& key, const char* language) {
    return description->GetMetaString(key, language ? Language::Get(language) : nullptr, "fb").GetValueOr("");
  };
  EXPECT_EQ(text(stringkeys::name, "de-DE"), "Stein");
  EXPECT_EQ(text(stringkeys::tags, "de-DE"), "rock");
  EXPECT_EQ(text(stringkeys::name, "it-IT"), "Stone");
  EXPECT_EQ(text(stringkeys::name, "fr-FR"), "Stone");
  EXPECT_EQ(text(Id("net.kelvo.object.base.other"), "de-DE"), "fb");
  EXPECT_EQ(text(stringkeys::name, nullptr), "Stone"); // the current language
  Language::SetCurrentLanguage(Language::Get("de-DE"));
  EXPECT_EQ(text(stringkeys::name, nullptr), "Stein");
  // Storing needs the repository, which this description does not have.
  EXPECT_EQ(description->StoreMetaString(stringkeys::name, "x", nullptr).GetError().GetMessage(),
            "Repository doesn't exist any longer.");
}

TEST_F(DescriptionTest, LoadFailures) {
  auto failure = [](const AssetDescription& d) {
    auto r = d->Load(false);
    EXPECT_TRUE(r.HasError() && r.GetError().Is(errors::illegalstate));
    return r.HasError() ? r.GetError().GetMessage() : std::string();
  };
  EXPECT_EQ(failure(Describe(meta, g_fileAssetTypeId, true)), "Can't load deleted asset net.kelvo.test.stone/v1");
  EXPECT_EQ(failure(Describe(meta, kUnregistered)), "Unknown asset type net.kelvo.assettype.test.unregistered.");
  // Without a URL the description would ask its repository, which is gone.
  EXPECT_EQ(failure(Describe(meta, g_fileAssetTypeId, false, Url())), "Repository doesn't exist any longer.");
  EXPECT_EQ(failure(std::make_shared<AssetDescriptionImpl>(IdAndVersion{kAid.first, g_newVersion}, g_fileAssetTypeId,
                                                           VersionKey::NewVersion(), nullptr, false, nullptr, Url())),
            "Can't load asset for net.kelvo.test.stone/*.");

  Application::SetVersion(1.0);
  meta->AddEntry(metaids::validversion, AssetMetaData::PERSISTENT, Data(DataArray{Data(2.0), Data(3.0)}));
  EXPECT_EQ(failure(Describe(meta)), "Asset not valid for this app version.");
  Application::SetVersion(2.5);
  EXPECT_TRUE(Describe(meta)->Load(false).HasValue());
}

TEST_F(DescriptionTest, LoadCachesOneAssetPerLinkMode) {
  auto description = Describe(meta);
  auto plain = description->Load(false);
  auto updated = description->Load(true);
  ASSERT_TRUE(plain.HasValue() && updated.HasValue());
  EXPECT_NE(*plain, *updated);
  EXPECT_EQ(description->Load(false).GetValueOr(nullptr), *plain);
  EXPECT_EQ(description->Load(true).GetValueOr(nullptr), *updated);
  EXPECT_EQ((*plain)->GetIdAndVersion(), kAid);
  EXPECT_EQ((*plain)->GetUpdate(), 0u);
  EXPECT_EQ((*updated)->GetUpdate(), 1u);
  EXPECT_EQ((*plain)->GetMetaData(), meta);
  EXPECT_EQ(dynamic_cast<FileAssetInterface&>(**plain).GetUrl(), Url::FromFile("/tmp/stone.png"));
}


TEST(LanguageMetaDataId, ConcurrentFirstUseAgrees) {
  EXPECT_EQ(StringsOf("de-DE").View(), "strings_de-DE");
  EXPECT_NE(StringsOf("de-DE"), StringsOf("de-AT"));
  // Many more languages than buckets, asked for by several threads at once in different orders.
  constexpr int kLanguages = 200, kThreads = 6;
  std::vector<std::vector<InternedId>> seen(kThreads, std::vector<InternedId>(kLanguages));
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([t, &seen] {
      for (int i = 0; i < kLanguages; ++i) {
        const int n = (t % 2 == 0) ? i : kLanguages - 1 - i;
        seen[t][n] = AssetInterface::GetLanguageMetaDataId(Id("xx-concurrent" + std::to_string(n)));
      }
    });
  for (auto& th : threads) th.join();
  for (int i = 0; i < kLanguages; ++i) {
    EXPECT_EQ(seen[0][i].View(), "strings_xx-concurrent" + std::to_string(i));
    for (int t = 1; t < kThreads; ++t) EXPECT_EQ(seen[t][i], seen[0][i]);
  }
}

TEST_F(DescriptionTest, VersionStringAndMetaDataOfAssets) {
  const auto time = UniversalDateTime::FromUnixSeconds(1700000000);
  const std::string local = time.FormatLocal("%Y-%m-%d %H:%M");
  EXPECT_EQ(AssetInterface::GetVersionString(Describe(meta)).GetValueOr(""), "v1");
  meta->AddEntry(metaids::timestamp, 7, Data(time));
  EXPECT_EQ(AssetInterface::GetVersionString(Describe(meta)).GetValueOr(""), local);
  meta->AddEntry(metaids::versiontag, AssetMetaData::PERSISTENT, Data("Final"));
  EXPECT_EQ(AssetInterface::GetVersionString(Describe(meta)->Load(false).GetValueOr(nullptr)).GetValueOr(""),
            "Final - " + local);
  EXPECT_TRUE(AssetInterface::GetVersionString(AssetDescription()).HasError());

  // An asset holds its metadata weakly, and without a description it sees the shared empty one.
  EXPECT_EQ(Describe(nullptr)->GetMetaData(), AssetMetaData::DefaultValuePtr());
  Asset asset = FileAssetInterface::Create(Url::FromFile("/tmp/x"));
  EXPECT_EQ(asset->GetMetaData(), AssetMetaData::DefaultValuePtr());
  asset->SetMetaData(meta);
  EXPECT_EQ(asset->GetMetaData(), meta);
  meta.reset();
  EXPECT_EQ(asset->GetMetaData(), AssetMetaData::DefaultValuePtr());
}

} // namespace
} // namespace kelvo
