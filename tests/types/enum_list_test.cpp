// The "assettype" enum list: the assets of each registered type offered as choices, labelled by
// repository, narrowed by a filter.

#include <functional>
#include <map>

#include "asset/storage/database_asset.h"
#include "asset/types/asset_type_enum_list.h"
#include "asset/types/keyword_asset.h"
#include "preset_fixture.h"

namespace kelvo::testing {
namespace {

class EnumListTest : public TypesTest {
protected:
  void SetUp() override {
    TypesTest::SetUp();
    RegisterTestPresetTypes();
    RegisterDataBaseAssetType();
  }

  // The choices of the registered "assettype" delegate, value text to label.
  static std::map<std::string, std::string> Choices(const Id& type, const AssetRepositoryRef& repo,
                                                    const Data& filter = Data()) {
    auto registry = GetProcessEnumListRegistry();
    EXPECT_TRUE(registry.HasValue());
    auto delegate = (*registry)->FindEntryValue(g_assetTypeEnumListId);
    EXPECT_TRUE(delegate.has_value());
    std::map<std::string, std::string> choices;
    if (!delegate) return choices;
    auto r = (*delegate)(type, DataDictionary(), repo, filter, [&](const Data& value, const std::string& label) {
      choices[value.Get<Id>().value_or(Id("?")).ToString()] = label;
      return Result<void>();
    });
    EXPECT_TRUE(r.HasValue()) << r.GetError().ToString();
    return choices;
  }
};

TEST_F(EnumListTest, EveryRegisteredTypeOffersItsAssets) {
  const std::filesystem::path file = Dir("prefs") / "photo.png";
  std::ofstream(file) << "png";
  std::map<Id, std::function<Asset()>> makers{
      {g_fileAssetTypeId, [&] { return FileAssetInterface::Create(Url::FromFile(file.string())); }},
      {g_databaseAssetTypeId, &DataBaseAssetInterface::Create},
      {kTextType, [] { return MakeText("text"); }},
      {kSwatchPresetType, [] { return MakePreset("swatch"); }},
      {kPlainPresetType, [] { return Asset(std::make_shared<PlainPreset>()); }},
  };
  makers.insert(kMetadataTypes.begin(), kMetadataTypes.end());
  auto repo = Open();
  // A type registered without a case here would go unchecked: that fails.
  for (const auto& [type, assetType] : GetAssetTypeRegistry()->GetEntries()) {
    SCOPED_TRACE(type.ToString());
    auto maker = makers.find(type);
    if (maker == makers.end()) {
      ADD_FAILURE() << "registered type " << type.ToString() << " is not offered by the enum list test";
      continue;
    }
    const std::string aid = "one." + type.ToString();
    Store(repo, aid, maker->second(), "Name of " + type.ToString());
    // The repository's own database asset is offered beside the one stored here.
    const auto choices = Choices(type, repo);
    auto choice = choices.find(aid);
    ASSERT_NE(choice, choices.end());
    EXPECT_EQ(choice->second, "Name of " + type.ToString() + " (" + kMainRepo.ToString() + ")");
  }
}

TEST_F(EnumListTest, ChoicesComeFromBasesWithTheirRepositoryAndAFilterKeepsOne) {
  auto base = Open("base", kBaseRepo);
  Store(base, "wood", KeywordAssetInterface::Create(), "Wood");
  auto repo = Open("main", kMainRepo, {base});
  Store(repo, "metal", KeywordAssetInterface::Create(), "Wood");
  Store(repo, "plain", KeywordAssetInterface::Create());
  Store(repo, "cat", CategoryAssetInterface::Create(), "Cat");
  // One name in two repositories: the labels differ by the repository; an unnamed asset shows its Id.
  EXPECT_EQ(Choices(KeywordAssetInterface::TypeId(), repo),
            (std::map<std::string, std::string>{{"wood", "Wood (test.types.base)"},
                                                {"metal", "Wood (test.types.main)"},
                                                {"plain", "plain (test.types.main)"}}));
  EXPECT_EQ(Choices(KeywordAssetInterface::TypeId(), repo, Data(Id("wood"))),
            (std::map<std::string, std::string>{{"wood", "Wood (test.types.base)"}}));
  EXPECT_TRUE(Choices(KeywordAssetInterface::TypeId(), repo, Data(Id("cat"))).empty());
  EXPECT_TRUE(Choices(Id("net.kelvo.assettype.unknown"), repo).empty());

  // A receiver's error ends the list and comes back.
  int calls = 0;
  auto failed = ProcessAssetTypeEnumList(KeywordAssetInterface::TypeId(), DataDictionary(), repo, Data(),
                                         [&](const Data&, const std::string&) -> Result<void> {
                                           ++calls;
                                           return IoError("receiver full");
                                         });
  ASSERT_TRUE(failed.HasError());
  EXPECT_NE(failed.GetError().ToString().find("receiver full"), std::string::npos);
  EXPECT_EQ(calls, 1);
}

} // namespace
} // namespace kelvo::testing
