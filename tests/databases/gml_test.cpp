// The repository graph file: written only with its variable set, one node per repository of the
// chain and of the repositories derived from the user repository, one edge per base, and the
// node texts and colours of skipped and read-only repositories.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include "asset/module/asset_module.h"
#include "asset/databases/asset_databases.h"
#include "asset_databases_gml.h"
#include "asset_library_fixture.h"
#include "temp_tree.h"

namespace kelvo::testing {
namespace {

namespace fs = std::filesystem;

class GmlDependenciesTest : public AssetLibraryTest {
protected:
  fs::path GmlFile() const { return _root / "prefs" / "assetrepository_deps.gml"; }
  std::string ReadGml() const { return ReadFile(GmlFile()); }
  static std::size_t Count(const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (auto pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + 1)) ++n;
    return n;
  }
};


TEST_F(GmlDependenciesTest, WrittenAfterEachPassOnlyWhenSwitchedOn) {
  MakeDatabase(Assets() / "basics", "db.same", {{"a", "basics"}});
  MakeDatabase(_root / "other", "db.same", {{"a", "other"}});
  {
    ScopedConfig off(g_generateAssetRepositoryGml, false);
    ASSERT_TRUE(StartAssetModule().HasValue());
    ASSERT_TRUE(AssetDataBases::WaitForDatabaseLoading().HasValue());
    EXPECT_TRUE(AssetDataBases::WriteGmlDependencies().HasValue());
    EXPECT_FALSE(fs::exists(GmlFile()));
  }

  ScopedConfig on(g_generateAssetRepositoryGml, true);
  ASSERT_TRUE(AssetDataBases::SetDatabases({AssetDatabaseStruct(Url::FromFile((_root / "other").string()))}).HasValue());
  ASSERT_TRUE(AssetDataBases::WaitForDatabaseLoading().HasValue());
  ASSERT_TRUE(fs::exists(GmlFile()));
  const std::string text = ReadGml();

  // user -> other -> basics -> built-in.
  EXPECT_EQ(Count(text, "  node [\n"), 4u);
  EXPECT_EQ(Count(text, "  edge [\n"), 3u);
  EXPECT_NE(text.find("Id: net.kelvo.repository.userprefs\r\nWritable: true"), std::string::npos);
  EXPECT_NE(text.find("Id: net.kelvo.repository.builtin"), std::string::npos);
  // The database in the assets directory is read-only and hidden behind the later one with the
  // same Id: red and a shade darker.
  EXPECT_NE(text.find("Writable: false"), std::string::npos);
  EXPECT_NE(text.find("SkipOnSearch: true\r\nPointer: "), std::string::npos);
  EXPECT_NE(text.find("fill \"#EE6E6E\""), std::string::npos);
  EXPECT_NE(text.find("fill \"#FFFFFF\""), std::string::npos);
  EXPECT_EQ(Count(text, "label \"standard\""), 3u);

  // Derived repositories of the user repository are part of the graph.
  auto scene = MakeRepository("scene.repo");
  ASSERT_TRUE(scene->InitBases({AssetInterface::GetUserPrefsRepository()}).HasValue());
  fs::remove(GmlFile());
  ASSERT_TRUE(AssetDataBases::WriteGmlDependencies().HasValue());
  const std::string again = ReadGml();
  EXPECT_EQ(Count(again, "  node [\n"), 5u);
  EXPECT_NE(again.find("Id: scene.repo"), std::string::npos);

  // A second call overwrites the file.
  { std::ofstream(GmlFile()) << "stale"; }
  ASSERT_TRUE(AssetDataBases::WriteGmlDependencies().HasValue());
  EXPECT_EQ(ReadGml().rfind("graph [", 0), 0u);
}

TEST_F(GmlDependenciesTest, FailureIsReturned) {
  ScopedConfig on(g_generateAssetRepositoryGml, true);
  // Not started: there is no user repository to start from.
  EXPECT_TRUE(AssetDataBases::WriteGmlDependencies().HasError());
  ASSERT_TRUE(StartAssetModule().HasValue());
  ASSERT_TRUE(AssetDataBases::WaitForDatabaseLoading().HasValue());
  // The preferences directory is blocked by a file.
  const fs::path blocked = _root / "blocked";
  { std::ofstream(blocked) << "x"; }
  Application::SetUrl(APPLICATION_URLTYPE::PREFS_DIR, Url::FromFile((blocked / "prefs").string()));
  EXPECT_TRUE(AssetDataBases::WriteGmlDependencies().HasError());
}

} // namespace
} // namespace kelvo::testing
