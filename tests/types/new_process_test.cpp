// Every typed asset written by this process is read back by a new process: the test program runs
// itself with the disabled reader test enabled, pointed at the same directories.

#include <spawn.h>
#include <sys/wait.h>

#include <cstdlib>

#include "asset/types/category_asset.h"
#include "asset/types/color_category_asset.h"
#include "asset/types/command_asset.h"
#include "asset/types/keyword_asset.h"
#include "asset/types/marker_assets.h"
#include "asset/types/smart_search_asset.h"
#include "preset_fixture.h"

extern char** environ;

namespace kelvo::testing {
namespace {

constexpr const char* kDirVariable = "KELVO_TYPES_NEW_PROCESS_DIR";

class NewProcessTest : public TypesTest {
protected:
  void SetUp() override {
    TypesTest::SetUp();
    RegisterTestPresetTypes();
  }
};

// Runs this program's reader test on dir; its exit status.
int RunReader(const std::filesystem::path& dir) {
  std::string filter = "--gtest_filter=NewProcessReader.DISABLED_ReadsWhatTheWriterStored";
  std::string also = "--gtest_also_run_disabled_tests";
  std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
  char* argv[] = {self.data(), filter.data(), also.data(), nullptr};
  std::string variable = std::string(kDirVariable) + "=" + dir.string();
  std::vector<char*> env;
  for (char** e = environ; *e; ++e) env.push_back(*e);
  env.push_back(variable.data());
  env.push_back(nullptr);
  pid_t pid = 0;
  if (posix_spawn(&pid, self.c_str(), nullptr, nullptr, argv, env.data()) != 0) return -1;
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(NewProcessTest, EveryTypeRoundTripsThroughTheDiskIntoANewProcess) {
  auto repo = Open();
  Store(repo, "wood", KeywordAssetInterface::Create(), "Wood");
  AssetDescription oak = Store(repo, "oak", MakeText("oak"), "Oak");
  ASSERT_TRUE(KeywordAssetInterface::AddKeyword(oak, Id("wood"), false, true).GetValue());
  ASSERT_TRUE(KeywordAssetInterface::AddKeyword(oak, keywordids::favourite, true, false).GetValue());
  Store(repo, "materials", CategoryAssetInterface::Create(), "Materials");
  AssetDescription timber = Store(repo, "timber", CategoryAssetInterface::Create(), "Timber");
  ASSERT_TRUE(CategoryAssetInterface::MoveToCategory(timber, Id("materials"), repo).HasValue());
  ASSERT_TRUE(CategoryAssetInterface::MoveToCategory(oak, Id("timber"), repo).HasValue());
  auto green = ColorCategoryAssetInterface::ProvideStandardColorCategory("green", repo);
  ASSERT_TRUE(green.HasValue());
  ASSERT_TRUE(ColorCategoryAssetInterface::SetColorCategory(oak, (*green)->GetIdAndVersion().first).HasValue());
  AssetDescription command = Store(repo, "bevel", CommandAssetInterface::Create(), "Bevel");
  ASSERT_TRUE(CommandAssetInterface::StoreCommandScopes(command, {Id("net.kelvo.asset.command.scope.mesh")}).HasValue());
  ASSERT_TRUE(SubTypeAssetInterface::SetSubType(command, Id("net.kelvo.asset.command.type.tool")).HasValue());
  Store(repo, "net.kelvo.asset.command.type.tool", SubTypeAssetInterface::Create(), "Tool");
  AssetDescription search = Store(repo, "woods", SmartSearchAssetInterface::Create(), "Woods");
  ASSERT_TRUE(SmartSearchAssetInterface::SetFilterString(search, "keyword:wood").HasValue());
  Store(repo, "space", NodeSpaceAssetInterface::Create(), "Space");
  Store(repo, "builtin_plugin_net.some.module", PluginAssetInterface::Create(), "Plugin");
  AssetDescription warm = StoreWithSubtype(repo, "warm", "exposure=1", "sub.swatch");
  ASSERT_TRUE(KeywordAssetInterface::SetDefaultAsset(warm, true).HasValue());
  repo.reset();

  EXPECT_EQ(RunReader(_dir), 0);
}

// Run only by the test above, in a new process.
TEST(NewProcessReader, DISABLED_ReadsWhatTheWriterStored) {
  const char* dir = std::getenv(kDirVariable);
  ASSERT_NE(dir, nullptr);
  const std::filesystem::path base(dir);
  RegisterTestPresetTypes();
  ASSERT_TRUE(RegisterTypedAssetTypes().HasValue());
  Application::SetUrl(APPLICATION_URLTYPE::PREFS_DIR, Url::FromFile((base / "prefs").string()));
  Application::SetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR, Url::FromFile((base / "globalprefs").string()));
  Settings::Reload();
  auto opened = CreateUrlAssetRepository(kMainRepo, {}, Url::FromFile((base / "main").string()), false, false, false);
  ASSERT_TRUE(opened.HasValue()) << opened.GetError().ToString();
  AssetRepositoryRef repo = *opened;
  auto latest = [&](const char* aid, const Id& type) {
    auto r = repo->FindLatestAsset(type, Id(aid), Id(), LATEST);
    EXPECT_TRUE(r.HasValue() && *r) << aid;
    return r.HasValue() ? *r : nullptr;
  };

  AssetDescription oak = latest("oak", Id());
  ASSERT_TRUE(oak);
  EXPECT_EQ(KeywordAssetInterface::HasKeyword(oak, Id("wood")).GetValue(), Id("net.kelvo.asset.keywords"));
  EXPECT_TRUE(KeywordAssetInterface::IsFavouriteAsset(oak));
  auto usage = latest("wood", KeywordAssetInterface::TypeId())->GetMetaData()->GetValue<DataDictionary>(keywordids::usage);
  ASSERT_TRUE(usage.HasValue() && *usage);
  EXPECT_EQ((*usage)->Get<std::int64_t>(keywordids::usageCount), 1);
  EXPECT_EQ(CategoryAssetInterface::GetAssetBreadcrumbString(oak, repo).GetValue(),
            (std::vector<std::string>{"Materials", "Timber"}));
  EXPECT_EQ(ColorCategoryAssetInterface::GetColorCategory(oak, repo).category, Id("net.kelvo.colorcategory.green"));
  AssetDescription bevel = latest("bevel", CommandAssetInterface::TypeId());
  EXPECT_EQ(CommandAssetInterface::GetCommandScopeNames(bevel).GetValue(), std::vector<std::string>{"Mesh"});
  EXPECT_EQ(CommandAssetInterface::GetCommandTypeName(CommandAssetInterface::GetCommandType(bevel).GetValue(), repo)
                .GetValue(),
            "Tool");
  auto search = latest("woods", SmartSearchAssetInterface::TypeId())->Load(false);
  ASSERT_TRUE(search.HasValue());
  EXPECT_EQ(dynamic_cast<SmartSearchAssetInterface&>(**search).GetFilterString(), "keyword:wood");
  EXPECT_TRUE(latest("space", NodeSpaceAssetInterface::TypeId()));
  EXPECT_TRUE(latest("builtin_plugin_net.some.module", PluginAssetInterface::TypeId()));
  AssetDescription warm = latest("warm", kSwatchPresetType);
  ASSERT_TRUE(warm);
  auto preset = warm->Load(false);
  ASSERT_TRUE(preset.HasValue());
  EXPECT_EQ(dynamic_cast<SwatchPreset&>(**preset).settings, "exposure=1");
  EXPECT_TRUE(KeywordAssetInterface::GetDefaultAssetState(warm)->isDefault);
}

} // namespace
} // namespace kelvo::testing
