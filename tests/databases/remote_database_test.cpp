// Remote databases through a real nginx: mounting from the served index, reading through the
// RAM disk, remounting from the cache with the server gone, refreshing a stale index, and
// refusing damaged or hostile index files; the cache operations of AssetDataBases.

#include <gtest/gtest.h>

#include <filesystem>

#include "kelvo/ramdisk.h"
#include "kelvo/settings.h"
#include "remote_database_fixture.h"
#include "temp_tree.h"

namespace kelvo::testing {
namespace {

namespace fs = std::filesystem;

std::size_t CountFiles(const fs::path& dir) {
  std::size_t n = 0;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(dir, ec); !ec && it != fs::recursive_directory_iterator(); ++it)
    n += it->is_regular_file() ? 1 : 0;
  return n;
}

TEST_F(RemoteDatabaseTest, MountsFromTheServerAndAgainFromTheCacheWhenItIsGone) {
  Store("alpha", "first text");
  Store("beta", "second text");
  Compact();
  StartServer();
  Mount(RemoteUrl());

  AssetRepositoryRef repo = MountedRemote();
  ASSERT_NE(repo, nullptr) << ::testing::PrintToString(PassErrors());
  EXPECT_EQ(repo->GetId(), Id("db.remote"));
  EXPECT_FALSE(repo->IsWritable());
  // The mount reads the two index files once; contents are fetched when they are read.
  EXPECT_EQ(Requests("_index/modified.dat"), 1u);
  EXPECT_EQ(Requests("_index/index.dat"), 1u);
  const AssetDescription alpha = Find("alpha");
  ASSERT_NE(alpha, nullptr);
  EXPECT_EQ(alpha->GetUrl().GetValueOr(Url()).GetScheme(), "ramdisk");
  EXPECT_EQ(LoadText(alpha), "first text");
  EXPECT_TRUE(fs::is_regular_file(CacheDir() / "_index" / "index.dat"));
  EXPECT_TRUE(fs::is_regular_file(CacheDir() / "_index" / "modified.dat"));
  EXPECT_TRUE(PassErrors().empty()) << ::testing::PrintToString(PassErrors());
  const fs::path cacheDir = CacheDir();
  const Url url = RemoteUrl();

  // A new start with an unchanged server reads modified.dat only.
  Remount(url);
  EXPECT_EQ(Requests("_index/modified.dat"), 2u);
  EXPECT_EQ(Requests("_index/index.dat"), 1u);

  // Server gone: the database mounts from the cache, and what was read stays readable.
  _nginx->Stop();
  Remount(url);
  ASSERT_NE(AssetDataBases::FindRepository(url).GetValueOr(nullptr), nullptr);
  EXPECT_TRUE(AnyContains(PassErrors(), "_index/modified.dat: ")) << ::testing::PrintToString(PassErrors());
  EXPECT_EQ(AssetDataBases::GetLastProgressEntry()->GetState(), BACKGROUNDPROGRESSSTATE::ERROR);
  ASSERT_NE(Find("alpha"), nullptr);
  EXPECT_EQ(LoadText(Find("alpha")), "first text");
  ASSERT_NE(Find("beta"), nullptr); // listed from the cached index, content not here
  EXPECT_TRUE(fs::exists(cacheDir));
}

TEST_F(RemoteDatabaseTest, NewerModifiedTimeOnTheServerRefreshesTheIndex) {
  Store("alpha", "one");
  Compact();
  StartServer();
  Mount(RemoteUrl());
  ASSERT_NE(Find("alpha"), nullptr);
  EXPECT_EQ(Find("gamma"), nullptr);

  Store("gamma", "three");
  Compact(); // a later modified.dat
  Remount(RemoteUrl());
  EXPECT_EQ(Requests("_index/index.dat"), 2u);
  ASSERT_NE(Find("gamma"), nullptr) << ::testing::PrintToString(PassErrors());
  EXPECT_EQ(LoadText(Find("gamma")), "three");

  // A server time older than the cached one is not newer; an empty list names no time.
  WriteFile(ServerDir() / "_index" / "modified.dat", "{\"modified\": 5}");
  Remount(RemoteUrl());
  WriteFile(ServerDir() / "_index" / "modified.dat", "[]");
  Remount(RemoteUrl());
  EXPECT_EQ(Requests("_index/index.dat"), 2u);
  EXPECT_NE(Find("gamma"), nullptr);
}

TEST_F(RemoteDatabaseTest, UnreachableServerWithoutCacheIsSkipped) {
  Store("alpha", "one");
  Compact();
  StartServer();
  const Url url = RemoteUrl();
  _nginx->Stop();
  Mount(url);
  EXPECT_EQ(AssetDataBases::FindRepository(url).GetValueOr(nullptr), nullptr);
  EXPECT_TRUE(AnyContains(PassErrors(), "modified.dat")) << ::testing::PrintToString(PassErrors());
  EXPECT_EQ(Find("alpha"), nullptr);
}

TEST_F(RemoteDatabaseTest, DamagedAndHostileIndexFilesAreRefused) {
  Store("alpha", "one");
  Store("beta", "two");
  Compact();
  StartServer();
  const fs::path index = ServerDir() / "_index" / "index.dat";
  const std::string listing = ReadFile(index);
  // Names that would leave the cache: refused, the rest of the database mounts.
  WriteFile(index, listing + "f\t../../escaped\nf\t/tmp/absolute\nd\t_index/../..\nf\tok/./x\n");
  Mount(RemoteUrl());
  ASSERT_NE(MountedRemote(), nullptr) << ::testing::PrintToString(PassErrors());
  EXPECT_TRUE(AnyContains(PassErrors(), "4 entries of the index refused")) << ::testing::PrintToString(PassErrors());
  EXPECT_FALSE(fs::exists(_root / "gprefs" / "escaped"));
  EXPECT_FALSE(fs::exists(CacheDir().parent_path() / "escaped"));
  EXPECT_EQ(LoadText(Find("alpha")), "one");
  // A name that a reader might try anyway resolves to nothing.
  EXPECT_EQ(Url("ramdisk:///x/../escaped").IoDetect(), IODETECT::NONE);
  // A link planted in the cache in place of a directory is not followed: the read fails and
  // nothing lands where the link points.
  const fs::path outside = _root / "outside";
  fs::create_directories(outside);
  const AssetDescription beta = Find("beta");
  ASSERT_NE(beta, nullptr);
  const fs::path versionDir = CacheDir() / fs::path(ContentPath(beta)).parent_path();
  fs::create_directories(versionDir.parent_path());
  fs::create_directory_symlink(outside, versionDir);
  EXPECT_EQ(LoadText(beta).rfind("error: ", 0), 0u);
  EXPECT_TRUE(fs::is_empty(outside));
  fs::remove(versionDir);
  EXPECT_EQ(LoadText(beta), "two");

  // Garbage in index.dat: nothing is mounted from it, and the bad copy is not kept.
  EndAssetModule();
  fs::remove_all(CacheDir());
  WriteFile(index, "this is\nno listing\n");
  Mount(RemoteUrl());
  EXPECT_EQ(MountedRemote(), nullptr);
  EXPECT_TRUE(AnyContains(PassErrors(), "no directory tree listing")) << ::testing::PrintToString(PassErrors());
  EXPECT_FALSE(fs::exists(CacheDir() / "_index" / "index.dat"));

  // Garbage in modified.dat without a cache: skipped with the reason.
  EndAssetModule();
  fs::remove_all(CacheDir());
  WriteFile(index, listing);
  WriteFile(ServerDir() / "_index" / "modified.dat", "\x01garbage");
  Mount(RemoteUrl());
  EXPECT_EQ(MountedRemote(), nullptr);
  EXPECT_TRUE(AnyContains(PassErrors(), "holds no modification time")) << ::testing::PrintToString(PassErrors());
}

TEST_F(RemoteDatabaseTest, CacheSizeClearAndPath) {
  Store("alpha", std::string(3000, 'a'));
  Compact();
  StartServer();
  Mount(RemoteUrl());
  // The default is written at module start.
  const Url defaultPath = FileUrl(_root / "gprefs" / "_assetcache");
  EXPECT_EQ(Settings::Get(assetdatabasekeys::cachepath).Get<std::string>(), defaultPath.ToString());
  EXPECT_EQ(AssetDataBases::GetAssetDatabaseCachePath(), defaultPath);

  const std::uint64_t before = AssetDataBases::GetAssetDatabaseCacheSize();
  EXPECT_EQ(LoadText(Find("alpha")), std::string(3000, 'a'));
  const std::uint64_t after = AssetDataBases::GetAssetDatabaseCacheSize();
  EXPECT_GE(after, before + 3000);

  // Cleared: nothing left, and a read fetches the content again.
  const std::size_t contentRequests = _nginx->CountRequests({});
  ASSERT_TRUE(AssetDataBases::ClearAssetDatabaseCache().HasValue());
  EXPECT_EQ(AssetDataBases::GetAssetDatabaseCacheSize(), 0u);
  EXPECT_EQ(ReadContent("alpha"), std::string(3000, 'a'));
  EXPECT_GT(_nginx->CountRequests({}, contentRequests + 1), contentRequests);

  // Only a missing or empty directory or an existing cache can become the cache path.
  WriteFile(_root / "afile", "x");
  auto onFile = AssetDataBases::SetAssetDatabaseCachePath(FileUrl(_root / "afile"));
  ASSERT_TRUE(onFile.HasError());
  EXPECT_EQ(onFile.GetError().GetMessage(), "Not a valid cache path");
  WriteFile(_root / "userfiles" / "letter.txt", "mine");
  EXPECT_TRUE(AssetDataBases::SetAssetDatabaseCachePath(FileUrl(_root / "userfiles")).HasError());
  EXPECT_EQ(AssetDataBases::GetAssetDatabaseCachePath(), defaultPath);
  fs::create_directories(_root / "empty");
  ASSERT_TRUE(AssetDataBases::SetAssetDatabaseCachePath(FileUrl(_root / "empty")).HasValue());
  EXPECT_EQ(AssetDataBases::GetAssetDatabaseCachePath(), FileUrl(_root / "empty"));
  // The live disk now mirrors into the new place.
  EXPECT_EQ(ReadContent("alpha"), std::string(3000, 'a'));
  EXPECT_GT(CountFiles(_root / "empty"), 0u);
  // A cache whose index went with a clear is no cache any more; one that a mount filled again is.
  EXPECT_TRUE(AssetDataBases::SetAssetDatabaseCachePath(defaultPath).HasError());
  Remount(RemoteUrl());
  EXPECT_TRUE(fs::is_regular_file(_root / "empty" / GetRemoteDatabaseCacheName(RemoteUrl()) / "_index" / "index.dat"));
  ASSERT_TRUE(AssetDataBases::SetAssetDatabaseCachePath(FileUrl(_root / "missing")).HasValue());
  ASSERT_TRUE(AssetDataBases::SetAssetDatabaseCachePath(FileUrl(_root / "empty")).HasValue());
}

} // namespace
} // namespace kelvo::testing
