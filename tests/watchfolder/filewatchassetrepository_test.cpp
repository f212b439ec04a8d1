// The watch folder repository on real directories: what a scan lists, what it leaves out, that
// the folder is never written to, and metadata in the store across restarts and rescans.

#include <sys/stat.h>
#include <unistd.h>

#include "asset/standard/assets.h"
#include "watch_entry.h"
#include "watchfolder_test_util.h"

namespace kelvo::test {
namespace {

const InternedId kKeywords{"net.kelvo.asset.keywords"};

// Every file below dir with its size and time: the folder must look the same after the tests.
std::map<std::string, std::pair<std::uintmax_t, fs::file_time_type>> Snapshot(const fs::path& dir) {
  std::map<std::string, std::pair<std::uintmax_t, fs::file_time_type>> files;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(dir, fs::directory_options::skip_permission_denied, ec);
       it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (it->is_symlink(ec)) {
      files[it->path().string()] = {0, {}};
      continue;
    }
    files[it->path().string()] = {it->is_regular_file(ec) ? it->file_size(ec) : 0, it->last_write_time(ec)};
  }
  return files;
}

TEST_F(WatchFolderTest, ScanListsFilesAsAssetsAndDirectoriesAsCategoriesAndSkipsWhatItMust) {
  Write(_folder / "a.txt", "a");
  Write(_folder / "Sub" / "b.png", "bb");
  Write(_folder / "Sub" / "Deep" / "c", "");
  Write(_folder / "sub" / "case.txt", "differs only in case");
  Write(_folder / ".hidden", "x");
  Write(_folder / "Db" / "databaseid", "a database inside is hidden with all it holds");
  Write(_folder / "Db" / "asset.txt", "x");
  fs::create_directory_symlink(_folder, _folder / "Sub" / "loop");
  fs::create_symlink(_folder / "a.txt", _folder / "link.txt");
  ASSERT_EQ(mkfifo((_folder / "fifo").c_str(), 0600), 0);
  const std::string notUtf8 = std::string("bad\xff\xfe") + ".bin";
  Write(_folder / notUtf8, "raw");
  const auto before = Snapshot(_folder);

  auto repo = Open();
  ASSERT_TRUE(repo);
  // A directory holding "databaseid" is an empty category: the database inside stays hidden.
  const std::map<std::string, std::string> expected{{"", "d"},          {"a.txt", "f"},         {"Sub", "d"}, {"Db", "d"},
                                                    {"Sub/b.png", "f"}, {"Sub/Deep", "d"},      {"Sub/Deep/c", "f"},
                                                    {"sub", "d"},       {"sub/case.txt", "f"}, {notUtf8, "f"}};
  EXPECT_EQ(Listing(*repo), expected);
  EXPECT_EQ(repo->GetData(Id("net.kelvo.assetrepository.assetcount")).Get<std::uint64_t>(), 5u);
  EXPECT_EQ(repo->GetData(Id("net.kelvo.assetrepository.assetsize")).Get<std::uint64_t>(), 1u + 2u + 20u + 3u);

  // Names, categories and ids: a file's category is its directory's asset.
  AssetDescription b = FindByPath(*repo, "Sub/b.png");
  AssetDescription sub = FindByPath(*repo, "Sub");
  ASSERT_TRUE(b && sub);
  EXPECT_EQ(b->GetMetaString(stringkeys::name, Language::GetDefaultLanguage(), "").GetValueOr(""), "b.png");
  EXPECT_EQ(b->GetMetaData()->GetValue<Id>(InternedId("net.kelvo.node.category")).GetValueOr({}),
            std::optional<Id>(sub->GetIdAndVersion().first));
  EXPECT_EQ(b->GetMetaData()->GetValue<std::uint64_t>(metaids::size).GetValueOr({}), std::optional<std::uint64_t>(2));
  EXPECT_NE(FindByPath(*repo, "sub")->GetIdAndVersion().first, sub->GetIdAndVersion().first);
  EXPECT_TRUE(sub->GetIdAndVersion().first.View().starts_with("watch."));

  // Read-only: writes are refused, and the folder is as it was (the store lives elsewhere).
  EXPECT_TRUE(repo->StoreAsset(Id("x"), nullptr, nullptr).GetError().Is(errors::unsupportedoperation));
  EXPECT_FALSE(repo->IsWritable());
  EXPECT_FALSE(repo->GetStoreUrl().GetPath().starts_with(_folder.string()));
  repo.reset();
  EXPECT_EQ(Snapshot(_folder), before);
}

// The keys of the store's rows are hashes of relative paths: the scanner hashes directory and
// name without joining them, and must reach the key that the joined path has.
TEST(WatchEntryHash, HashingDirectoryAndNameEqualsHashingTheJoinedPath) {
  for (const auto& [directory, name] : std::vector<std::pair<std::string, std::string>>{
           {"", ""}, {"", "a.png"}, {"a", ""}, {"a", "b.png"}, {"x/y z", "\xff\xfe.bin"}})
    EXPECT_EQ(RelativeUrlHash(directory, name), RelativeUrlHash(JoinRelative(directory, name))) << directory << "|" << name;
  EXPECT_NE(RelativeUrlHash("a", "b"), RelativeUrlHash("ab"));
}

TEST_F(WatchFolderTest, AnEmptyFolderHasOnlyItsRootAndAMissingOneFails) {
  auto repo = Open();
  ASSERT_TRUE(repo);
  EXPECT_EQ(Listing(*repo), (std::map<std::string, std::string>{{"", "d"}}));
  AssetDescription root = FindByPath(*repo, "");
  ASSERT_TRUE(root);
  EXPECT_EQ(root->GetMetaString(stringkeys::name, Language::GetDefaultLanguage(), "").GetValueOr(""), "Folder");
  auto missing = FileWatchAssetRepositoryImpl::Create(Url::FromFile((_root / "nothere").string()), {});
  ASSERT_TRUE(missing.HasError());
  EXPECT_NE(missing.GetError().ToString().find("is not a directory"), std::string::npos);
}

TEST_F(WatchFolderTest, UnreadableSubdirectoryIsLeftOutAndTheRestListed) {
  if (geteuid() == 0) GTEST_SKIP() << "root reads every directory";
  Write(_folder / "ok.txt", "1");
  Write(_folder / "Locked" / "secret.txt", "2");
  fs::permissions(_folder / "Locked", fs::perms::none);
  auto repo = Open();
  ASSERT_TRUE(repo);
  auto listing = Listing(*repo);
  EXPECT_EQ(listing.count("ok.txt"), 1u);
  EXPECT_EQ(listing.count("Locked"), 1u);
  EXPECT_EQ(listing.count("Locked/secret.txt"), 0u);
}

TEST_F(WatchFolderTest, UserMetadataSurvivesRestartAndRescanButGoesWithTheFile) {
  Write(_folder / "keep.txt", "1");
  Write(_folder / "drop.txt", "2");
  Write(_folder / "preview.png", "PNG");
  {
    auto repo = Open();
    ASSERT_TRUE(repo);
    for (const char* name : {"keep.txt", "drop.txt"}) {
      AssetDescription d = FindByPath(*repo, name);
      ASSERT_TRUE(d);
      ASSERT_TRUE(repo->StoreMetaData(d, kKeywords, Data(std::string("wood,oak")), AssetMetaData::PERSISTENT).HasValue());
    }
    AssetDescription keep = FindByPath(*repo, "keep.txt");
    ASSERT_TRUE(repo->StoreUrlMetaData(keep, metaids::previewimageurl, Url::FromFile((_folder / "preview.png").string()),
                                       AssetMetaData::PERSISTENT)
                    .HasValue());
    // Refused ids and kinds.
    EXPECT_TRUE(repo->StoreMetaData(keep, InternedId("bad id"), Data(1.0), AssetMetaData::PERSISTENT).HasError());
    EXPECT_TRUE(repo->StoreMetaData(keep, InternedId("x"), Data(1.0), AssetMetaData::PERSISTENT | AssetMetaData::READ_ONLY)
                    .HasError());
  }
  // A rescan of a touched file keeps its metadata; a deleted one takes its metadata along.
  Write(_folder / "keep.txt", "changed");
  fs::remove(_folder / "drop.txt");
  auto repo = Open();
  ASSERT_TRUE(repo);
  ASSERT_TRUE(repo->Rescan().HasValue());
  AssetDescription keep = FindByPath(*repo, "keep.txt");
  ASSERT_TRUE(keep);
  EXPECT_EQ(keep->GetMetaData()->GetValue<std::string>(kKeywords).GetValueOr({}), std::optional<std::string>("wood,oak"));
  auto preview = keep->GetMetaData()->GetValue<Url>(metaids::previewimageurl).GetValueOr({});
  ASSERT_TRUE(preview);
  EXPECT_EQ(preview->GetScheme(), "metasq");
  auto resolved = repo->ResolveMetasqUrl(*preview);
  ASSERT_TRUE(resolved.HasValue()) << resolved.GetError().ToString();
  EXPECT_EQ(resolved->ReadAll().GetValueOr(""), "PNG");

  Write(_folder / "drop.txt", "back again");
  ASSERT_TRUE(repo->Rescan().HasValue());
  AssetDescription drop = FindByPath(*repo, "drop.txt");
  ASSERT_TRUE(drop);
  EXPECT_EQ(drop->GetMetaData()->GetValue<std::string>(kKeywords).GetValueOr({}), std::optional<std::string>());

  // An empty value removes the stored one; storing it again on a missing row works.
  ASSERT_TRUE(repo->StoreMetaData(keep, kKeywords, Data(), AssetMetaData::PERSISTENT).HasValue());
  ASSERT_TRUE(repo->StoreMetaData(keep, kKeywords, Data(), AssetMetaData::PERSISTENT).HasValue());
  repo.reset();
  repo = Open();
  EXPECT_EQ(FindByPath(*repo, "keep.txt")->GetMetaData()->GetValue<std::string>(kKeywords).GetValueOr({}),
            std::optional<std::string>());
}

TEST_F(WatchFolderTest, RepositoryTypeRegistryOpensWatchFoldersThroughTheFactory) {
  Write(_folder / "a.txt", "a");
  ASSERT_TRUE(PrivateStartWatchFolders().HasValue());
  auto opened = AssetInterface::CreateRepositoryFromUrl(Id(), repositorytypes::watchfolder, {},
                                                        Url::FromFile(_folder.string()), false, true, false);
  ASSERT_TRUE(opened.HasValue()) << opened.GetError().ToString();
  ASSERT_TRUE(*opened);
  EXPECT_TRUE(opened.GetValue()->GetId().View().starts_with("watchfolder@"));
  {
    ScopedConfig off(g_enableAssetWatchFolders, false);
    auto none = AssetInterface::CreateRepositoryFromUrl(Id(), repositorytypes::watchfolder, {},
                                                        Url::FromFile(_folder.string()), false, true, false);
    ASSERT_TRUE(none.HasValue());
    EXPECT_FALSE(*none);
  }
  PrivateEndWatchFolders();
}

} // namespace
} // namespace kelvo::test
