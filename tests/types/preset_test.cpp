// Base presets: storage through Serialize, the type defaults, and the default assets of preset
// subtypes in the application settings, in the new and the older form.

#include "asset/types/base_preset_asset.h"
#include "asset/types/keyword_asset.h"
#include "preset_fixture.h"

namespace kelvo::testing {
namespace {

class PresetTest : public TypesTest {
protected:
  void SetUp() override {
    TypesTest::SetUp();
    RegisterTestPresetTypes();
  }
};

TEST_F(PresetTest, APresetIsStoredThroughSerializeAndLoadsInANewRepositoryObject) {
  auto repo = Open();
  AssetDescription stored = Store(repo, "warm", MakePreset("exposure=1.5"));
  ASSERT_TRUE(stored);
  repo.reset();
  repo = Open();
  auto found = repo->FindLatestAsset(kSwatchPresetType, Id("warm"), Id(), LATEST);
  ASSERT_TRUE(found.HasValue() && *found);
  EXPECT_EQ(ReadFileText((*found)->GetUrl().GetValue()), "exposure=1.5");
  auto loaded = (*found)->Load(false);
  ASSERT_TRUE(loaded.HasValue()) << loaded.GetError().ToString();
  auto* preset = dynamic_cast<SwatchPreset*>(loaded->get());
  ASSERT_NE(preset, nullptr);
  EXPECT_EQ(preset->settings, "exposure=1.5");
}

TEST_F(PresetTest, AForeignAssetOrAFailingSerializeStoresNothing) {
  const AssetType type = FindAssetType(kSwatchPresetType);
  const Url target = Url::FromFile((Dir("main") / "out.bin").string());
  auto refused = type->Store(MakeText("plain"), target, nullptr);
  ASSERT_TRUE(refused.HasError());
  EXPECT_EQ(refused.GetError().GetMessage(), "Illegal argument: Condition basePreset not fulfilled. ");
  EXPECT_FALSE(std::filesystem::exists(Dir("main") / "out.bin"));

  auto repo = Open();
  const auto before = Snapshot(Dir("main"));
  auto failed = repo->StoreAsset(Id("broken"), MakePreset("fail"), nullptr);
  ASSERT_TRUE(failed.HasError());
  EXPECT_NE(failed.GetError().GetMessage().find("can't serialize"), std::string::npos) << failed.GetError().ToString();
  EXPECT_FALSE(Latest(repo, "broken"));
}

// A preset of a type that doesn't support defaults can't be one, even with a subtype.
TEST_F(PresetTest, APresetTypeThatOverridesNothing) {
  auto repo = Open();
  AssetDescription d = Store(repo, "plain", std::make_shared<PlainPreset>());
  ASSERT_TRUE(d);
  ASSERT_TRUE(repo->StoreMetaData(d, metaids::subtype, Data(Id("sub.plain")), AssetMetaData::PERSISTENT).HasValue());
  auto state = KeywordAssetInterface::GetDefaultAssetState(d);
  ASSERT_TRUE(state.HasValue());
  EXPECT_FALSE(state->canBeDefault);
  EXPECT_FALSE(state->isDefault);
}

TEST_F(PresetTest, DefaultAssetsInTheNewAndTheOlderSettingsForm) {
  auto repo = Open();
  AssetDescription warm = StoreWithSubtype(repo, "warm", "exposure=1", "sub.swatch");
  AssetDescription cold = StoreWithSubtype(repo, "cold", "exposure=2", "sub.swatch");
  AssetDescription bare = Store(repo, "bare", MakePreset("exposure=3"));
  auto noSubtype = KeywordAssetInterface::GetDefaultAssetState(bare);
  ASSERT_TRUE(noSubtype.HasValue());
  EXPECT_FALSE(noSubtype->canBeDefault);

  ASSERT_TRUE(KeywordAssetInterface::SetDefaultAsset(warm, true).HasValue());
  EXPECT_TRUE(KeywordAssetInterface::GetDefaultAssetState(warm)->isDefault);
  EXPECT_FALSE(KeywordAssetInterface::GetDefaultAssetState(cold)->isDefault);
  EXPECT_TRUE(KeywordAssetInterface::GetDefaultAssetState(cold)->canBeDefault);
  // New form: asset and version Id, in the settings file read again from disk.
  Settings::Reload();
  auto found = KeywordAssetInterface::GetDefaultAsset(Id("sub.swatch"), repo);
  ASSERT_TRUE(found.HasValue() && *found);
  EXPECT_EQ((*found)->GetIdAndVersion(), warm->GetIdAndVersion());

  // Older settings: the plain asset Id.
  DataDictionary old;
  old.SetData(Id("sub.swatch"), Data(std::string("cold")));
  ASSERT_TRUE(Settings::Set(keywordids::defaultsSetting, Data(old)).HasValue());
  EXPECT_TRUE(KeywordAssetInterface::GetDefaultAssetState(cold)->isDefault);
  EXPECT_FALSE(KeywordAssetInterface::GetDefaultAssetState(warm)->isDefault);
  found = KeywordAssetInterface::GetDefaultAsset(Id("sub.swatch"), repo);
  ASSERT_TRUE(found.HasValue() && *found);
  EXPECT_EQ((*found)->GetIdAndVersion(), cold->GetIdAndVersion());

  // Set anew, the entry takes the new form.
  ASSERT_TRUE(KeywordAssetInterface::SetDefaultAsset(cold, true).HasValue());
  const DataArray* pair = Settings::Get(keywordids::defaultsSetting).GetPtr<DataDictionary>()->GetData(Id("sub.swatch")).GetPtr<DataArray>();
  ASSERT_NE(pair, nullptr);
  EXPECT_EQ((*pair)[1], Data(cold->GetIdAndVersion().second.ToString()));
  ASSERT_TRUE(KeywordAssetInterface::SetDefaultAsset(cold, false).HasValue());
  EXPECT_FALSE(KeywordAssetInterface::GetDefaultAssetState(cold)->isDefault);
  EXPECT_FALSE(KeywordAssetInterface::GetDefaultAsset(Id("sub.swatch"), repo).GetValue());
}

TEST_F(PresetTest, BadDefaultsAreRefusedAndTheSettingsStayAsTheyWere) {
  auto repo = Open();
  AssetDescription warm = StoreWithSubtype(repo, "warm", "exposure=1", "sub.swatch");
  ASSERT_TRUE(KeywordAssetInterface::SetDefaultAsset(warm, true).HasValue());
  const auto before = Snapshot(Dir("globalprefs"));

  AssetDescription bare = Store(repo, "bare", MakePreset("exposure=3"));
  auto noSubtype = KeywordAssetInterface::SetDefaultAsset(bare, true);
  ASSERT_TRUE(noSubtype.HasError());
  EXPECT_EQ(noSubtype.GetError().GetMessage(), "Illegal argument: Condition subType.IsPopulated() not fulfilled. ");

  AssetDescription text = Store(repo, "text", MakeText("t"));
  auto notPreset = KeywordAssetInterface::SetDefaultAsset(text, true);
  ASSERT_TRUE(notPreset.HasError());
  EXPECT_EQ(notPreset.GetError().GetMessage(),
            "Illegal argument: Condition presetType.GetPointer() not fulfilled. ");
  // A stored preset whose type this process doesn't know.
  auto unknown = std::make_shared<AssetDescriptionImpl>(IdAndVersion{Id("x"), Id("1")}, Id("net.kelvo.assettype.nope"),
                                                        VersionKey(), nullptr, false, repo, Url());
  auto unknownType = KeywordAssetInterface::SetDefaultAsset(unknown, true);
  ASSERT_TRUE(unknownType.HasError());
  EXPECT_EQ(unknownType.GetError().GetMessage(), "Illegal argument: Condition assetType not fulfilled. ");
  EXPECT_TRUE(KeywordAssetInterface::GetDefaultAssetState(nullptr).HasError());
  EXPECT_EQ(Snapshot(Dir("globalprefs")), before);
}

} // namespace
} // namespace kelvo::testing
