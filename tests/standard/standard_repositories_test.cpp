// Module start and end, the built-in repository with its loader registries, the validity rules
// and the resolution of dependencies with missing versions.

#include <gtest/gtest.h>

#include <filesystem>

#include "asset/module/asset_module.h"
#include "asset/standard/assets.h"
#include "builtin_repository.h"
#include "kelvo/application.h"
#include "temp_tree.h"
#include "test_assets.h"
#include "asset/storage/urlassetrepository.h"

namespace kelvo::testing {
namespace {

namespace fs = std::filesystem;

// The application directories in the test's temporary tree.
class StandardRepositoriesTest : public TempTreeTest {
protected:
  void SetUp() override {
    TempTreeTest::SetUp();
    Application::SetUrl(APPLICATION_URLTYPE::PREFS_DIR, Url::FromFile((_dir / "prefs").string()));
    Application::SetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR, Url::FromFile((_dir / "gprefs").string()));
    Application::SetUrl(APPLICATION_URLTYPE::LIBRARY_DIR, Url::FromFile((_dir / "library").string()));
  }
  void TearDown() override {
    EndAssetModule();
    Application::SetVersion(1.0);
    if (auto loaders = GetBuiltinAssetLoaders2(); loaders.HasValue())
      for (const auto& [key, value] : (*loaders)->GetEntries()) (*loaders)->EraseEntry(key);
    for (auto kind : {APPLICATION_URLTYPE::PREFS_DIR, APPLICATION_URLTYPE::GLOBALPREFS_DIR, APPLICATION_URLTYPE::LIBRARY_DIR})
      Application::SetUrl(kind, Url());
    TempTreeTest::TearDown();
  }
};

TEST_F(StandardRepositoriesTest, StartWithoutApplicationDirectory) {
  ASSERT_TRUE(StartAssetModule().HasValue());
  EXPECT_TRUE(IsAssetModuleStarted());
  EXPECT_EQ(AssetInterface::GetApplicationRepository(), nullptr);
  AssetRepositoryRef user = AssetInterface::GetUserPrefsRepository();
  ASSERT_NE(user, nullptr);
  EXPECT_EQ(user->GetId(), repositoryids::userprefs);
  EXPECT_TRUE(user->IsWritable());
  EXPECT_EQ(user->FindRepository(repositoryids::builtin), AssetInterface::GetBuiltinRepository());
  EXPECT_TRUE(fs::is_regular_file(_dir / "prefs" / "userrepository" / "databaseid"));
  EXPECT_FALSE(GetDerivedStamp().empty());
  // A second start changes nothing; the end runs twice without harm.
  ASSERT_TRUE(StartAssetModule().HasValue());
  EXPECT_EQ(AssetInterface::GetUserPrefsRepository(), user);
  EndAssetModule();
  EndAssetModule();
  EXPECT_EQ(AssetInterface::GetUserPrefsRepository(), nullptr);
  EXPECT_EQ(AssetInterface::GetBuiltinRepository(), nullptr);
  EXPECT_TRUE(GetDerivedStamp().empty());
  EXPECT_EQ(FindIoHandler("asset"), nullptr);
}

TEST_F(StandardRepositoriesTest, StackWithApplicationRepository) {
  const fs::path appDir = _dir / "library" / "assets" / "application";
  fs::create_directories(appDir);
  {
    // The application repository is opened read-only: it must exist as a repository already.
    auto made = CreateUrlAssetRepository(repositoryids::application, {}, Url::FromFile(appDir.string()), true, false, true);
    ASSERT_TRUE(made.HasValue()) << made.GetError().ToString();
  }
  ASSERT_TRUE(StartAssetModule().HasValue());
  AssetRepositoryRef app = AssetInterface::GetApplicationRepository();
  ASSERT_NE(app, nullptr);
  EXPECT_FALSE(app->IsWritable());
  AssetRepositoryRef user = AssetInterface::GetUserPrefsRepository();
  ASSERT_EQ(user->GetBases()->size(), 1u);
  EXPECT_EQ(user->GetBases()->front(), app);
  ASSERT_EQ(app->GetBases()->size(), 1u);
  EXPECT_EQ(app->GetBases()->front(), AssetInterface::GetBuiltinRepository());
}

TEST_F(StandardRepositoriesTest, BrokenApplicationRepositoryFailsTheStart) {
  // A directory without a repository identifier can't be opened read-only.
  fs::create_directories(_dir / "library" / "assets" / "application");
  auto r = StartAssetModule();
  ASSERT_TRUE(r.HasError());
  EXPECT_FALSE(IsAssetModuleStarted());
  EXPECT_EQ(AssetInterface::GetBuiltinRepository(), nullptr);
}

TEST_F(StandardRepositoriesTest, RepositoryTypes) {
  ASSERT_TRUE(StartAssetModule().HasValue());
  EXPECT_EQ((*GetBuiltinAssetLoaders())->GetCount(), 0u);

  const Url dir = Url::FromFile((_dir / "other").string());
  ASSERT_TRUE(dir.IoCreateDirectory(true).HasValue());
  // Watch folders come through the factory that their subsystem enters at module start.
  auto watch = AssetInterface::CreateRepositoryFromUrl(Id("x"), repositorytypes::watchfolder, {}, dir, true, false, false);
  ASSERT_TRUE(watch.HasValue()) << watch.GetError().ToString();
  auto unknown = AssetInterface::CreateRepositoryFromUrl(Id("x"), Id("some.type"), {}, dir, true, false, false);
  ASSERT_TRUE(unknown.HasError());
  EXPECT_TRUE(unknown.GetError().Is(errors::illegalargument));
  EXPECT_EQ(unknown.GetError().GetMessage(), FormatString("Undefined repository type for url: @", dir));
  auto db = AssetInterface::CreateRepositoryFromUrl(Id("x"), repositorytypes::database,
                                                    {AssetInterface::GetBuiltinRepository()}, dir, true, false, false);
  ASSERT_TRUE(db.HasValue()) << db.GetError().ToString();
  EXPECT_EQ((*db)->GetId(), Id("x"));
}

TEST_F(StandardRepositoriesTest, AssetUrlsReadFromTheUserRepository) {
  ASSERT_TRUE(StartAssetModule().HasValue());
  const fs::path file = _dir / "hello.txt";
  WriteFile(file, "hello from a file");
  AssetRepositoryRef user = AssetInterface::GetUserPrefsRepository();
  auto stored = user->StoreAsset(Id("greeting"), FileAssetInterface::Create(Url::FromFile(file.string())), nullptr);
  ASSERT_TRUE(stored.HasValue()) << stored.GetError().ToString();
  EXPECT_EQ(*Url("asset:///greeting").ReadAll(), "hello from a file");
  EXPECT_EQ(*Url("asset:///greeting~.txt").ReadAll(), "hello from a file");
  auto normalized = Url("asset:///greeting").Normalize();
  ASSERT_TRUE(normalized.HasValue());
  EXPECT_EQ(normalized->GetScheme(), "file");
  auto url = AssetInterface::GetAssetUrl(*stored, true);
  ASSERT_TRUE(url.HasValue());
  EXPECT_EQ(*Url(url->ToString()).ReadAll(), "hello from a file");
}

// ---- the built-in repository -------------------------------------------------------------------

struct LoaderCalls {
  int first = 0;
  int second = 0;
};

// Two loaders that both offer "builtin.one", with different metadata.
void RegisterTwoLoaders(LoaderCalls& calls, const Url& folder) {
  auto loaders = *GetBuiltinAssetLoaders2();
  auto offer = [](const std::string& tag, const Url& url) {
    return [tag, url](const TypeArray&, const Id& aid, ASSET_FIND_MODE, const BuiltinAssetReceiver2& receiver) -> Result<bool> {
      if (!aid.IsEmpty() && aid != Id("builtin.one")) return true;
      Asset asset = MakeText("built in " + tag);
      asset->SetId(IdAndVersion{Id("builtin.one"), Id()}, 0, nullptr, Url());
      DataDictionary meta;
      meta.SetData(Id("test.origin"), Data(tag));
      return receiver(asset, meta, url);
    };
  };
  auto first = offer("first", folder);
  auto second = offer("second", Url());
  loaders->InsertEntry(Id("test.loader.first"), [&calls, first](const TypeArray& t, const Id& a, ASSET_FIND_MODE m,
                                                                const BuiltinAssetReceiver2& r) {
    ++calls.first;
    return first(t, a, m, r);
  });
  loaders->InsertEntry(Id("test.loader.second"), [&calls, second](const TypeArray& t, const Id& a, ASSET_FIND_MODE m,
                                                                  const BuiltinAssetReceiver2& r) {
    ++calls.second;
    return second(t, a, m, r);
  });
}

class BuiltinRepositoryTest : public StandardRepositoriesTest {
protected:
  void SetUp() override {
    StandardRepositoriesTest::SetUp();
    RegisterTextAssetType();
    ASSERT_TRUE(StartAssetModule().HasValue());
    builtin = std::dynamic_pointer_cast<BuiltinRepository>(AssetInterface::GetBuiltinRepository());
    ASSERT_NE(builtin, nullptr);
  }
  AssetDescription FindOne(const AssetRepositoryRef& repo) {
    auto d = repo->FindLatestAsset(Id(), Id("builtin.one"), Id(), NONE);
    EXPECT_TRUE(d.HasValue()) << d.GetError().ToString();
    return d.HasValue() ? *d : nullptr;
  }
  std::string Origin(const AssetDescription& d) {
    auto v = d->GetMetaData()->GetValue<std::string>(InternedId("test.origin"));
    return v.HasValue() && *v ? **v : "none";
  }
  std::shared_ptr<BuiltinRepository> builtin;
};

TEST_F(BuiltinRepositoryTest, FirstLoaderWinsAndIsAskedOnce) {
  LoaderCalls calls;
  RegisterTwoLoaders(calls, Url());
  AssetDescription d = FindOne(builtin);
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(Origin(d), "first");
  EXPECT_EQ(LoadText(d), "built in first");
  EXPECT_EQ(calls.first, 1);
  EXPECT_EQ(calls.second, 0); // a loader that found the asked Id ends the walk
  // Known now: found through the user repository without asking any loader.
  AssetDescription again = FindOne(AssetInterface::GetUserPrefsRepository());
  EXPECT_EQ(again, d);
  EXPECT_EQ(calls.first, 1);
  // A search of all assets asks both loaders; the Id still counts once, for the first.
  int seen = 0;
  ASSERT_TRUE(builtin->FindAssets(TypeArray{}, Id(), Id(), LATEST, [&](const AssetDescription& x) -> Result<bool> {
    ++seen;
    EXPECT_EQ(x, d);
    return true;
  }).HasValue());
  EXPECT_EQ(seen, 1);
  EXPECT_EQ(calls.second, 1);
  // No writer but metadata: built-in assets come from code.
  EXPECT_TRUE(builtin->DeleteAsset(Id("builtin.one")).GetError().Is(errors::unsupportedoperation));
  EXPECT_EQ(builtin->CompareVersions(d, d), EQUAL);
}

TEST_F(BuiltinRepositoryTest, AKnownBuiltInAssetNeverHidesANewerUserVersion) {
  LoaderCalls calls;
  RegisterTwoLoaders(calls, Url());
  AssetRepositoryRef user = AssetInterface::GetUserPrefsRepository();
  // The first search makes the built-in repository know the asset.
  AssetDescription builtinOne = FindOne(user);
  ASSERT_TRUE(builtinOne);
  EXPECT_EQ(builtinOne->GetRepository(), AssetInterface::GetBuiltinRepository());
  auto mine = user->StoreAsset(Id("builtin.one"), MakeText("the user's own"), nullptr);
  ASSERT_TRUE(mine.HasValue()) << mine.GetError().ToString();
  for (int search = 0; search < 2; ++search) {
    AssetDescription latest = FindOne(user);
    ASSERT_TRUE(latest);
    EXPECT_EQ(LoadText(latest), "the user's own");
  }
}

TEST_F(BuiltinRepositoryTest, MetaDataStoreRules) {
  LoaderCalls calls;
  RegisterTwoLoaders(calls, Url());
  AssetDescription d = FindOne(builtin);
  ASSERT_NE(d, nullptr);
  const InternedId note("test.note");
  ASSERT_FALSE(g_builtinRepositoryWritable.Get());
  // USER values go to the user tree even though the repository isn't writable.
  auto user = builtin->StoreMetaData(d, note, Data(std::string("mine")), AssetMetaData::PERSISTENT | AssetMetaData::USER);
  ASSERT_TRUE(user.HasValue()) << user.GetError().ToString();
  EXPECT_TRUE(fs::is_regular_file(_dir / "gprefs" / "_assets" / "user.db" / "builtin.one" / "test.note.meta"));
  EXPECT_EQ(*d->GetMetaData()->GetValue<std::string>(note), "mine");
  // A plain persistent value needs g_builtinRepositoryWritable, and then a folder from the loader.
  auto plain = builtin->StoreMetaData(d, note, Data(std::string("x")), AssetMetaData::PERSISTENT);
  ASSERT_TRUE(plain.HasError());
  EXPECT_EQ(plain.GetError().GetMessage(), "Meta data for built-in asset builtin.one isn't writable");
  {
    ScopedConfig writable(g_builtinRepositoryWritable, true);
    auto noFolder = builtin->StoreMetaData(d, note, Data(std::string("x")), AssetMetaData::PERSISTENT);
    ASSERT_TRUE(noFolder.HasError());
    EXPECT_TRUE(noFolder.GetError().Is(errors::unsupportedargument));
  }
  // An asset that no loader has offered.
  auto missing = std::make_shared<AssetDescriptionImpl>(IdAndVersion{Id("builtin.none"), Id()}, kTextType, VersionKey(),
                                                        nullptr, false, builtin, Url());
  auto r = builtin->StoreMetaData(missing, note, Data(std::string("x")), AssetMetaData::USER);
  ASSERT_TRUE(r.HasError());
  EXPECT_EQ(r.GetError().GetMessage(), "Asset builtin.none not found.");
}

TEST_F(BuiltinRepositoryTest, MetaDataFilesOfEarlierRunsAndTheLoaderFolder) {
  // A folder of the loader with one metadata file, and a derived value from an earlier run.
  const fs::path folder = _dir / "loaderfolder";
  LoaderCalls calls;
  RegisterTwoLoaders(calls, Url::FromFile(folder.string()));
  {
    auto other = BuiltinRepository::Create();
    AssetDescription d = FindOne(other);
    ASSERT_NE(d, nullptr);
    ASSERT_TRUE(other->StoreMetaData(d, InternedId("test.derived"), Data(std::int64_t(7)),
                                     AssetMetaData::PERSISTENT | AssetMetaData::DERIVED)
                    .HasValue());
    ScopedConfig writable(g_builtinRepositoryWritable, true);
    ASSERT_TRUE(other->StoreMetaData(d, InternedId("test.plain"), Data(std::string("in folder")), AssetMetaData::PERSISTENT)
                    .HasValue());
  }
  EXPECT_TRUE(fs::is_regular_file(_dir / "prefs" / "dc" / "builtinrepository" / "builtin.one" / "test.derived.derived"));
  EXPECT_TRUE(fs::is_regular_file(folder / "test.plain.meta"));
  {
    auto fresh = BuiltinRepository::Create();
    AssetDescription d = FindOne(fresh);
    EXPECT_EQ(*d->GetMetaData()->GetValue<std::int64_t>(InternedId("test.derived")), 7);
    EXPECT_EQ(*d->GetMetaData()->GetValue<std::string>(InternedId("test.plain")), "in folder");
  }
  {
    ScopedConfig disabled(g_disableDerivedCache, true);
    auto fresh = BuiltinRepository::Create();
    AssetDescription d = FindOne(fresh);
    auto entries = *d->GetMetaData()->GetExistingEntries();
    for (const auto& [metaId, kind] : entries) EXPECT_NE(metaId, InternedId("test.derived"));
  }
}

// ---- validity ------------------------------------------------------------------------------------

class ValidityTest : public ::testing::Test {
protected:
  void TearDown() override { Application::SetVersion(1.0); }
  AssetDescription WithRange(double min, double max) {
    auto d = repo->StoreAsset(Id("ranged"), MakeText("x"), nullptr);
    EXPECT_TRUE(d.HasValue());
    EXPECT_TRUE(repo->StoreMetaData(*d, metaids::validversion, Data(DataArray{Data(min), Data(max)}), AssetMetaData::PERSISTENT)
                    .HasValue());
    return *d;
  }
  std::shared_ptr<MemoryAssetRepositoryImpl> repo = MakeRepository("test.validity");
};

TEST_F(ValidityTest, Ranges) {
  Application::SetVersion(25.5);
  auto check = [](const AssetDescription& d) { return *AssetInterface::IsAssetVersionValid(d); };
  EXPECT_EQ(check(nullptr).validity, ASSET_VERSION_VALIDITY::VALID);
  EXPECT_TRUE(*AssetInterface::IsAssetValid(nullptr));

  AssetVersionValidity open = check(WithRange(0, 0));
  EXPECT_EQ(open.validity, ASSET_VERSION_VALIDITY::VALID);
  EXPECT_EQ(open.minVersion, 0.0);

  AssetVersionValidity higher = check(WithRange(26.0, 0));
  EXPECT_EQ(higher.validity, ASSET_VERSION_VALIDITY::INVALID_HIGHER_VERSION_REQUIRED);
  EXPECT_EQ(higher.minVersion, 26.0);
  EXPECT_EQ(higher.maxVersion, 0.0);
  EXPECT_EQ(higher.currentVersion, 25.5);

  AssetDescription old = WithRange(20.0, 25.0);
  EXPECT_EQ(check(old).validity, ASSET_VERSION_VALIDITY::INVALID_LOWER_VERSION_REQUIRED);
  EXPECT_FALSE(*AssetInterface::IsAssetValid(old));
  EXPECT_FALSE(*AssetInterface::IsAssetVisible(old));

  AssetDescription inside = WithRange(25.5, 25.5);
  EXPECT_EQ(check(inside).validity, ASSET_VERSION_VALIDITY::VALID);
  EXPECT_EQ(check(inside).currentVersion, 0.0);
  EXPECT_TRUE(*AssetInterface::IsAssetVisible(inside));
}

// ---- dependencies with missing versions ------------------------------------------------------------

class MissingAssetsTest : public ::testing::Test {
protected:
  struct Outcome {
    int found = 0;
    int missing = 0;
    bool olderExists = false;
    Id foundVersion;
  };
  Result<void> Resolve(const IdAndVersion& wanted, UniversalDateTime created, IdAndVersionSet& checked, Outcome& out) {
    return AssetInterface::ResolveAssetsWithMissingAssets(
        repo, Id(), wanted, created, checked,
        [&](const AssetDescription& d, const IdAndVersion& asked) -> Result<void> {
          EXPECT_EQ(asked, wanted);
          ++out.found;
          out.foundVersion = d->GetIdAndVersion().second;
          return {};
        },
        [&](bool olderExists) -> Result<void> {
          ++out.missing;
          out.olderExists = olderExists;
          return {};
        });
  }
  std::shared_ptr<MemoryAssetRepositoryImpl> repo = MakeRepository("test.missing");
};

TEST_F(MissingAssetsTest, EachDependencyOnceAndFallbackByTime) {
  auto stored = repo->StoreAsset(Id("dep"), MakeText("x"), nullptr);
  ASSERT_TRUE(stored.HasValue());
  const Id version = (*stored)->GetIdAndVersion().second;
  const UniversalDateTime storedAt = *(*stored)->GetMetaData()->GetValue<UniversalDateTime>(metaids::timestamp).GetValue();

  IdAndVersionSet checked;
  Outcome exact;
  ASSERT_TRUE(Resolve({Id("dep"), version}, UniversalDateTime(), checked, exact).HasValue());
  EXPECT_EQ(exact.found, 1);
  Outcome twice;
  ASSERT_TRUE(Resolve({Id("dep"), version}, UniversalDateTime(), checked, twice).HasValue());
  EXPECT_EQ(twice.found + twice.missing, 0);

  // Another version that isn't older than the one wanted serves.
  Outcome other;
  ASSERT_TRUE(Resolve({Id("dep"), Id("feed")}, storedAt, checked, other).HasValue());
  EXPECT_EQ(other.found, 1);
  EXPECT_EQ(other.foundVersion, version);
  // One made before the dependency's creation date doesn't.
  Outcome older;
  ASSERT_TRUE(Resolve({Id("dep"), Id("beef")}, UniversalDateTime::FromValue(storedAt.GetValue() + 1), checked, older)
                  .HasValue());
  EXPECT_EQ(older.missing, 1);
  EXPECT_TRUE(older.olderExists);
  // Nothing at all.
  Outcome none;
  ASSERT_TRUE(Resolve({Id("nothing"), Id("beef")}, UniversalDateTime(), checked, none).HasValue());
  EXPECT_EQ(none.missing, 1);
  EXPECT_FALSE(none.olderExists);
  // Null delegates count as success; a delegate's error is returned.
  IdAndVersionSet fresh;
  EXPECT_TRUE(AssetInterface::ResolveAssetsWithMissingAssets(repo, Id(), {Id("dep"), Id()}, UniversalDateTime(), fresh,
                                                              nullptr, nullptr)
                  .HasValue());
  auto failing = AssetInterface::ResolveAssetsWithMissingAssets(
      repo, Id(), {Id("nothing"), Id()}, UniversalDateTime(), fresh, nullptr,
      [](bool) -> Result<void> { return IllegalStateError("stop"); });
  ASSERT_TRUE(failing.HasError());
  EXPECT_EQ(failing.GetError().GetMessage(), "stop");
}

} // namespace
} // namespace kelvo::testing
