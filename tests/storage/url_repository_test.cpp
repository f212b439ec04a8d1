// The URL repository on a real directory: opening, storing and reading back in a new object,
// metadata files by kind, erasing, two objects on one tree and bad trees.


#include <set>

#include "asset/storage/database_asset.h"
#include "kelvo/hash.h"
#include "kelvo/log.h"
#include "asset/storage/url_layout.h"
#include "url_repository_fixture.h"

using namespace kelvo;
using namespace kelvo::testing;
namespace fs = std::filesystem;

namespace {

const InternedId kVersionNote{"net.kelvo.test.versionnote"};
const InternedId kDerived{"net.kelvo.test.derived"};
const InternedId kUserNote{"net.kelvo.test.usernote"};

// Captures warnings while alive.
struct WarningCapture {
  WarningCapture() {
    previous = SetLogSink([this](LOGLEVEL level, const std::string& line) {
      if (level != LOGLEVEL::DIAGNOSTIC) lines.push_back(line);
    });
  }
  ~WarningCapture() { SetLogSink(previous); }
  LogSink previous;
  std::vector<std::string> lines;
};

std::optional<Data> MetaValue(const AssetDescription& d, const InternedId& metaId) {
  auto r = d->GetMetaData()->Get(metaId);
  EXPECT_TRUE(r.HasValue()) << r.GetError().ToString();
  return r.HasValue() ? *r : std::nullopt;
}

TEST_F(UrlRepositoryTest, NewFolderGetsIdVersionFileAndDatabaseAsset) {
  auto r = CreateUrlAssetRepository(Id(), {}, RootUrl(), true, false, false);
  ASSERT_TRUE(r.HasValue()) << r.GetError().ToString();
  auto repo = *r;
  const std::string id = ReadFile(Root() / "databaseid");
  EXPECT_TRUE(id.starts_with("database@")) << id;
  EXPECT_EQ(repo->GetId().ToString(), id);
  EXPECT_EQ(ReadFile(Root() / "version"), "1\n");
  EXPECT_TRUE(repo->IsWritable());
  auto info = repo->FindLatestAsset(g_databaseAssetTypeId, DataBaseAssetInterface::GetDatabaseAssetId(repo->GetId()),
                                    Id(), WITHOUT_BASES);
  ASSERT_TRUE(info.HasValue() && *info);
  // The database asset has empty content, hashed as nothing.
  EXPECT_EQ((*info)->GetIdAndVersion().second.ToString(),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  // Opening again reads the same Id.
  repo.reset();
  auto again = CreateUrlAssetRepository(Id(), {}, RootUrl(), false, false, false);
  ASSERT_TRUE(again.HasValue());
  EXPECT_EQ((*again)->GetId().ToString(), id);
}

TEST_F(UrlRepositoryTest, OpeningChecksDirectoryAndIdentifier) {
  auto notDir = CreateUrlAssetRepository(Id("x"), {}, Url::FromFile((Root() / "missing").string()), true, false, false);
  ASSERT_TRUE(notDir.HasError());
  EXPECT_TRUE(notDir.GetError().Is(errors::illegalargument));
  // Read-only without a databaseid is no repository.
  auto readOnly = CreateUrlAssetRepository(Id("x"), {}, RootUrl(), false, false, false);
  ASSERT_TRUE(readOnly.HasError());
  EXPECT_NE(readOnly.GetError().GetMessage().find("has no identifier"), std::string::npos);
  // A databaseid naming another repository: writable takes the asked-for Id, read-only fails.
  WriteFile(Root() / "databaseid", "other.repo");
  auto otherReadOnly = CreateUrlAssetRepository(Id("my.repo"), {}, RootUrl(), false, false, false);
  EXPECT_TRUE(otherReadOnly.HasError());
  auto writable = CreateUrlAssetRepository(Id("my.repo"), {}, RootUrl(), true, false, false);
  ASSERT_TRUE(writable.HasValue());
  EXPECT_EQ(ReadFile(Root() / "databaseid"), "my.repo");
}

TEST_F(UrlRepositoryTest, ReadOnlyDatabaseIdMakesRepositoryReadOnly) {
  Open().reset();
  // The mode bits are asked, so this holds for a privileged user too.
  fs::permissions(Root() / "databaseid", fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
  auto repo = Open();
  ASSERT_TRUE(repo);
  EXPECT_FALSE(repo->IsWritable());
  auto stored = repo->StoreAsset(Id("a"), MakeText("x"), nullptr);
  EXPECT_TRUE(stored.HasError());
  EXPECT_FALSE(fs::exists(Root() / "a"));
}

TEST_F(UrlRepositoryTest, StoreCloseReopenFindsAssetsVersionsAndMetadata) {
  std::string v1, v2, other;
  {
    auto repo = Open();
    ASSERT_TRUE(repo);
    auto d1 = Store(repo, "My Asset/One", "first");
    auto d2 = Store(repo, "My Asset/One", "second");
    auto d3 = Store(repo, "other", "other text");
    ASSERT_TRUE(d1 && d2 && d3);
    v1 = d1->GetIdAndVersion().second.ToString();
    v2 = d2->GetIdAndVersion().second.ToString();
    other = d3->GetIdAndVersion().second.ToString();
    ASSERT_TRUE(repo->StoreMetaData(d2, kNote, Data(std::string("a note")), AssetMetaData::PERSISTENT).HasValue());
    ASSERT_TRUE(repo->StoreMetaData(d2, kVersionNote, Data(std::int64_t(42)), 6).HasValue());
    ASSERT_TRUE(repo->StoreMetaData(d2, kUserNote, Data(Id("mine")), 18).HasValue());
    WriteFile(_dir / "preview.png", "png bytes");
    ASSERT_TRUE(repo->StoreUrlMetaData(d2, kPreview, Url::FromFile((_dir / "preview.png").string()), 2).HasValue());
    // Last: a persistent value written after it would make it stale.
    ASSERT_TRUE(repo->StoreMetaData(d2, kDerived, Data(1.5), 10).HasValue());
  }
  // The layout on disk.
  EXPECT_EQ(ReadFile(Root() / "my_asset_one" / "asset.info"), "My Asset/One\nnet.kelvo.assettype.test.text\n");
  EXPECT_EQ(ReadFile(Root() / "my_asset_one" / "2" / "hash"), v2 + "\n");
  EXPECT_EQ(ReadFile(Root() / "my_asset_one" / "2" / "asset.txt"), "second");
  EXPECT_TRUE(fs::exists(Root() / "my_asset_one" / "2" / "net.kelvo.test.note.meta"));
  EXPECT_TRUE(fs::exists(Root() / "my_asset_one" / "2" / "net.kelvo.test.versionnote.version"));
  EXPECT_TRUE(fs::exists(Root() / "my_asset_one" / "2" / "net.kelvo.test.derived.derived"));
  EXPECT_TRUE(fs::exists(Root() / "my_asset_one" / "2" / "net.kelvo.test.preview.meta.png"));
  EXPECT_TRUE(fs::exists(Root() / "my_asset_one" / "2" / "net.kelvo.asset.timestamp.version"));
  EXPECT_FALSE(fs::exists(Root() / "my_asset_one" / "2" / kIncompleteMarker));
  EXPECT_TRUE(fs::exists(_dir / "globalprefs" / "_assets" / "user.db" / "my_asset_one" / "2" / "net.kelvo.test.usernote.meta"));
  EXPECT_FALSE(fs::exists(Root() / "my_asset_one" / "2" / "net.kelvo.test.usernote.meta"));

  auto repo = Open();
  ASSERT_TRUE(repo);
  EXPECT_FALSE(repo->WasOpenedFromIndex());
  const auto contents = Contents(repo);
  ASSERT_EQ(contents.size(), 2u);
  EXPECT_EQ(contents.at("My Asset/One"), (std::map<std::string, std::string>{{v1, "first"}, {v2, "second"}}));
  EXPECT_EQ(contents.at("other"), (std::map<std::string, std::string>{{other, "other text"}}));
  auto latest = Latest(repo, "My Asset/One");
  ASSERT_TRUE(latest);
  EXPECT_EQ(latest->GetIdAndVersion().second.ToString(), v2);
  EXPECT_EQ(MetaValue(latest, kNote), Data(std::string("a note")));
  EXPECT_EQ(MetaValue(latest, kVersionNote), Data(std::int64_t(42)));
  EXPECT_EQ(MetaValue(latest, kDerived), Data(1.5));
  EXPECT_EQ(MetaValue(latest, kUserNote), Data(Id("mine")));
  auto preview = MetaValue(latest, kPreview);
  ASSERT_TRUE(preview && preview->GetPtr<Url>());
  // The "/" of the Id is escaped, so that the URL names the Id and then the file.
  EXPECT_EQ(preview->GetPtr<Url>()->ToString(), "meta:///My Asset%2FOne/net.kelvo.test.preview.meta.png?" + v2);
  // The time of each version survives, and orders the versions.
  auto times = std::map<std::string, std::uint64_t>();
  ASSERT_TRUE(repo->FindAssets(TypeArray{kTextType}, Id("My Asset/One"), Id(), ALL | WITHOUT_BASES,
                               [&](const AssetDescription& d) -> Result<bool> {
                                 times[d->GetIdAndVersion().second.ToString()] = d->GetKey().time;
                                 return true;
                               }).HasValue());
  EXPECT_GT(times[v1], 0u);
  EXPECT_LT(times[v1], times[v2]);
  // Numbers go on from the highest one seen.
  auto d3 = Store(repo, "My Asset/One", "third");
  ASSERT_TRUE(d3);
  EXPECT_TRUE(fs::exists(Root() / "my_asset_one" / "3" / "asset.txt"));
}

TEST_F(UrlRepositoryTest, MetadataFilesFollowKindRules) {
  auto repo = Open();
  auto d = Store(repo, "a", "text");
  ASSERT_TRUE(d);
  const fs::path dir = Root() / "a" / "1";
  ASSERT_TRUE(repo->StoreMetaData(d, kNote, Data(std::string("one")), 2).HasValue());
  ASSERT_TRUE(repo->StoreMetaData(d, kNote, Data(std::string("two")), 2).HasValue());
  EXPECT_NE(ReadFile(dir / "net.kelvo.test.note.meta").find("two"), std::string::npos);
  // Derived values kept in the root stay when a persistent value changes.
  ASSERT_TRUE(repo->StoreMetaData(d, kDerived, Data(std::int32_t(7)), 10).HasValue());
  EXPECT_TRUE(fs::exists(dir / "net.kelvo.test.derived.derived"));
  ASSERT_TRUE(repo->StoreMetaData(d, kNote, Data(std::string("three")), 2).HasValue());
  EXPECT_TRUE(fs::exists(dir / "net.kelvo.test.derived.derived"));
  // No value removes the file; removing a missing one is no error.
  ASSERT_TRUE(repo->StoreMetaData(d, kNote, Data(), 2).HasValue());
  EXPECT_FALSE(fs::exists(dir / "net.kelvo.test.note.meta"));
  ASSERT_TRUE(repo->StoreMetaData(d, kNote, Data(), 2).HasValue());
  // An attached PNG replaces an attached JPEG of the same Id.
  WriteFile(_dir / "p.jpg", "jpeg");
  WriteFile(_dir / "p.png", "png");
  ASSERT_TRUE(repo->StoreUrlMetaData(d, kPreview, Url::FromFile((_dir / "p.jpg").string()), 2).HasValue());
  ASSERT_TRUE(repo->StoreUrlMetaData(d, kPreview, Url::FromFile((_dir / "p.png").string()), 2).HasValue());
  EXPECT_FALSE(fs::exists(dir / "net.kelvo.test.preview.meta.jpg"));
  EXPECT_EQ(ReadFile(dir / "net.kelvo.test.preview.meta.png"), "png");
  // Kinds that can't hold a file are refused.
  EXPECT_TRUE(repo->StoreUrlMetaData(d, kPreview, Url::FromFile((_dir / "p.png").string()), 10).HasError());
}

TEST_F(UrlRepositoryTest, PersistentChangeClearsASeparateDerivedTree) {
  // Derived values in the preferences: a changed persistent value makes them stale.
  auto r = CreateUrlAssetRepository(Id("test.repo"), {}, RootUrl(), true, true, false);
  ASSERT_TRUE(r.HasValue()) << r.GetError().ToString();
  auto repo = *r;
  auto d = Store(repo, "a", "text");
  ASSERT_TRUE(d);
  const Data vdata = std::dynamic_pointer_cast<const AssetMetaDataImpl>(d->GetMetaData())->GetVersionData();
  ASSERT_TRUE(repo->StoreMetaData(d, kDerived, Data(std::int32_t(7)), 10).HasValue());
  EXPECT_FALSE(fs::exists(Root() / "a" / "1" / "net.kelvo.test.derived.derived"));
  EXPECT_EQ(repo->LoadMetaDataImpl(vdata, kDerived, 10).GetValueOr(std::nullopt), std::optional<Data>(Data(std::int32_t(7))));
  // A value that isn't persistent changes nothing; a persistent one clears the derived tree.
  ASSERT_TRUE(repo->StoreMetaData(d, kNote, Data(std::string("temporary")), 0).HasValue());
  EXPECT_TRUE(repo->LoadMetaDataImpl(vdata, kDerived, 10).GetValueOr(std::nullopt).has_value());
  ASSERT_TRUE(repo->StoreMetaData(d, kNote, Data(std::string("changed")), 2).HasValue());
  auto loaded = repo->LoadMetaDataImpl(vdata, kDerived, 10);
  ASSERT_TRUE(loaded.HasValue());
  EXPECT_FALSE(loaded->has_value());
}

TEST_F(UrlRepositoryTest, DerivedValuesOfAnotherStampReadAsAbsent) {
  auto repo = Open();
  auto d = Store(repo, "a", "text");
  ASSERT_TRUE(d);
  ASSERT_TRUE(repo->StoreMetaData(d, kDerived, Data(std::int32_t(7)), 10).HasValue());
  const Data vdata = std::dynamic_pointer_cast<const AssetMetaDataImpl>(d->GetMetaData())->GetVersionData();
  auto loaded = repo->LoadMetaDataImpl(vdata, kDerived, 10);
  ASSERT_TRUE(loaded.HasValue());
  EXPECT_EQ(*loaded, std::optional<Data>(Data(std::int32_t(7))));
  // A file from another build: same value, another stamp.
  const fs::path file = Root() / "a" / "1" / "net.kelvo.test.derived.derived";
  ASSERT_TRUE(WriteMetaDataFile(Url::FromFile(file.string()), Data(std::int32_t(7)), false).HasValue());
  loaded = repo->LoadMetaDataImpl(vdata, kDerived, 10);
  ASSERT_TRUE(loaded.HasValue());
  EXPECT_FALSE(loaded->has_value());
}

TEST_F(UrlRepositoryTest, EraseRemovesFiles) {
  auto repo = Open();
  auto d1 = Store(repo, "gone", "one");
  auto d2 = Store(repo, "gone", "two");
  ASSERT_TRUE(d1 && d2);
  ASSERT_TRUE(repo->EraseAsset(d1).HasValue());
  EXPECT_FALSE(fs::exists(Root() / "gone" / "1"));
  EXPECT_TRUE(fs::exists(Root() / "gone" / "2"));
  ASSERT_TRUE(repo->EraseAsset(d2).HasValue());
  EXPECT_FALSE(fs::exists(Root() / "gone"));
  auto reopened = Open();
  EXPECT_EQ(Contents(reopened).count("gone"), 0u);
}

TEST_F(UrlRepositoryTest, DeletionMarkSurvivesReopen) {
  auto repo = Open();
  ASSERT_TRUE(Store(repo, "del", "one"));
  auto marked = repo->DeleteAsset(Id("del"));
  ASSERT_TRUE(marked.HasValue()) << marked.GetError().ToString();
  EXPECT_EQ(Contents(repo).count("del"), 0u);
  repo.reset();
  auto reopened = Open();
  EXPECT_EQ(Contents(reopened).count("del"), 0u);
  std::set<std::string> versions;
  ASSERT_TRUE(reopened->FindAssets(TypeArray{}, Id("del"), Id(), ALL | WITH_DELETED | WITHOUT_BASES,
                                   [&](const AssetDescription& d) -> Result<bool> {
                                     versions.insert(d->GetIdAndVersion().second.ToString() +
                                                     (d->IsDeleted() ? " deleted" : ""));
                                     return true;
                                   }).HasValue());
  ASSERT_EQ(versions.size(), 2u);
  EXPECT_EQ(versions.count("deleted deleted"), 1u);
}

TEST_F(UrlRepositoryTest, TwoObjectsSeeEachOthersStoresAfterRescan) {
  auto a = Open();
  auto b = Open();
  ASSERT_TRUE(a && b);
  ASSERT_TRUE(Store(a, "from.a", "A"));
  ASSERT_TRUE(Store(b, "from.b", "B"));
  EXPECT_EQ(Contents(a).count("from.b"), 0u);
  ASSERT_TRUE(a->Rescan().HasValue());
  ASSERT_TRUE(b->Rescan().HasValue());
  EXPECT_EQ(Contents(a).at("from.b").begin()->second, "B");
  EXPECT_EQ(Contents(b).at("from.a").begin()->second, "A");
  // A version stored by b after a's rescan keeps its own number.
  ASSERT_TRUE(Store(b, "from.a", "A2"));
  ASSERT_TRUE(a->Rescan().HasValue());
  EXPECT_EQ(Contents(a).at("from.a").size(), 2u);
}

TEST_F(UrlRepositoryTest, IdsSharingADirectoryNameKeepTheirOwn) {
  auto repo = Open();
  ASSERT_TRUE(Store(repo, "Case", "upper"));
  ASSERT_TRUE(Store(repo, "case", "lower"));
  auto reopened = Open();
  const auto contents = Contents(reopened);
  EXPECT_EQ(contents.at("Case").begin()->second, "upper");
  EXPECT_EQ(contents.at("case").begin()->second, "lower");
}

TEST_F(UrlRepositoryTest, RescanOfAFolderAssetGivesTheVersionIdOfItsStore) {
  namespace fs = std::filesystem;
  const fs::path folder = _dir / "folder";
  fs::create_directories(folder / "Sub");
  std::ofstream(folder / "Zeta.TXT") << "z";
  std::ofstream(folder / "alpha") << "a";
  std::ofstream(folder / ".hidden") << "h";
  std::ofstream(folder / "Sub" / "B") << "b";
  fs::create_symlink("/etc/passwd", folder / "link");
  auto repo = Open();
  auto stored = repo->StoreAsset(Id("folder"), FileAssetInterface::Create(Url::FromFile(folder.string())), nullptr);
  ASSERT_TRUE(stored.HasValue()) << stored.GetError().ToString();
  const Id versionId = (*stored)->GetIdAndVersion().second;
  repo.reset();
  // Without its hash file, the version Id is computed again from the stored content.
  const fs::path versionDir = Root() / "folder" / "1";
  ASSERT_TRUE(fs::remove(versionDir / "hash"));
  auto reopened = Open();
  auto found = reopened->FindLatestAsset(g_fileAssetTypeId, Id("folder"), Id(), NONE);
  ASSERT_TRUE(found.HasValue() && *found);
  EXPECT_EQ((*found)->GetIdAndVersion().second, versionId);
}

TEST(DataBaseAssetTypeTest, IsAStandardTypeWithoutVersionsAndEmptyContent) {
  AssetType type = RegisterDataBaseAssetType();
  ASSERT_TRUE(type);
  EXPECT_EQ(FindAssetType(g_databaseAssetTypeId), type);
  EXPECT_EQ(type->GetData(assettypeproperties::supportVersions).GetValueOr(Data(true)), Data(false));
  EXPECT_EQ(type->GetUrlSuffix(nullptr), "");
  Digest digest{};
  ASSERT_TRUE(type->Store(DataBaseAssetInterface::Create(), Url(), &digest).HasValue());
  EXPECT_EQ(ToHex(digest.data(), digest.size()), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  auto wrong = type->Store(MakeText("x"), Url(), &digest);
  ASSERT_TRUE(wrong.HasError());
  EXPECT_EQ(wrong.GetError().GetMessage(), "Given asset is not a valid database.");
}

TEST_F(UrlRepositoryTest, RepositoryNameIsKeptByTheDatabaseAsset) {
  auto repo = Open();
  auto name = repo->GetRepositoryName(nullptr, false);
  ASSERT_TRUE(name.HasValue());
  EXPECT_EQ(*name, "test.repo");
  ASSERT_TRUE(repo->SetRepositoryName("My Library", nullptr).HasValue());
  ASSERT_TRUE(repo->SetRepositoryName("My Library 2", nullptr).HasValue());
  EXPECT_EQ(Contents(repo, g_databaseAssetTypeId).size(), 1u);
  repo.reset();
  auto reopened = Open();
  name = reopened->GetRepositoryName(nullptr, false);
  ASSERT_TRUE(name.HasValue());
  EXPECT_EQ(*name, "My Library 2");
  reopened.reset();
  // Opened as a custom (user-mounted) database, it refuses the change and keeps the stored name.
  auto custom = CreateUrlAssetRepository(Id("test.repo"), {}, RootUrl(), RepositoryOptions{.writable = true, .custom = true});
  ASSERT_TRUE(custom.HasValue()) << custom.GetError().ToString();
  EXPECT_TRUE((*custom)->SetRepositoryName("x", nullptr).HasError());
  name = (*custom)->GetRepositoryName(nullptr, false);
  ASSERT_TRUE(name.HasValue());
  EXPECT_EQ(*name, "My Library 2");
}

// ---- bad trees -------------------------------------------------------------------------------------

TEST_F(UrlRepositoryTest, BadEntriesAreSkippedWithoutLosingOthers) {
  {
    auto repo = Open();
    ASSERT_TRUE(Store(repo, "good", "fine"));
    ASSERT_TRUE(Store(repo, "nometa", "no metadata"));
    ASSERT_TRUE(Store(repo, "badmeta", "bad metadata"));
    ASSERT_TRUE(Store(repo, "nohash", "no hash"));
  }
  // A version without any metadata file is still a version, with time 0.
  fs::remove(Root() / "nometa" / "1" / "net.kelvo.asset.timestamp.version");
  // A metadata file that can't be parsed.
  WriteFile(Root() / "badmeta" / "1" / "net.kelvo.test.note.meta", "{not json");
  // Content without a hash file: the digest is computed and kept.
  fs::remove(Root() / "nohash" / "1" / "hash");
  // A file where a directory belongs, a version directory that is a file, a directory with a
  // name that isn't UTF-8 holding a valid asset, asset.info without a second line or with a
  // control character, a version directory without content, and a name that is no number.
  WriteFile(Root() / "plainfile", "x");
  WriteFile(Root() / "good" / "7", "not a directory");
  fs::create_directories(Root() / "good" / "8");
  fs::create_directories(Root() / "good" / "12a");
  const fs::path odd = Root() / std::string("\xff\xfe name");
  WriteFile(odd / "asset.info", "odd.asset\nnet.kelvo.assettype.test.text\n");
  WriteFile(odd / "1" / "asset.txt", "odd");
  WriteFile(Root() / "short" / "asset.info", "only.id");
  WriteFile(Root() / "ctl" / "asset.info", "bad\x01id\nnet.kelvo.assettype.test.text\n");
  WriteFile(Root() / "ctl" / "1" / "asset.txt", "x");

  WarningCapture warnings;
  auto repo = Open();
  ASSERT_TRUE(repo);
  const auto contents = Contents(repo);
  EXPECT_EQ(contents.at("good").size(), 1u);
  EXPECT_EQ(contents.at("nometa").begin()->second, "no metadata");
  EXPECT_EQ(contents.at("nohash").begin()->second, "no hash");
  EXPECT_EQ(contents.at("odd.asset").begin()->second, "odd");
  EXPECT_EQ(contents.count("only.id"), 0u);
  EXPECT_EQ(contents.size(), 5u);
  EXPECT_EQ(Latest(repo, "nometa")->GetKey().time, 0u);
  EXPECT_EQ(ReadFile(Root() / "nohash" / "1" / "hash"), contents.at("nohash").begin()->first + "\n");
  // The damaged value is a file format error; the asset and its other values are fine.
  auto bad = Latest(repo, "badmeta");
  ASSERT_TRUE(bad);
  auto value = bad->GetMetaData()->Get(kNote);
  ASSERT_TRUE(value.HasError());
  EXPECT_TRUE(value.GetError().Is(errors::fileformat)) << value.GetError().ToString();
  EXPECT_EQ(LoadText(bad), "bad metadata");
  EXPECT_FALSE(warnings.lines.empty());
}

TEST_F(UrlRepositoryTest, NamesFromTheTreeCantLeaveTheRoot) {
  {
    auto repo = Open();
    ASSERT_TRUE(Store(repo, "victim", "v"));
  }
  // An asset.info naming a path, and a hash file naming one: both are just names.
  WriteFile(Root() / "evil" / "asset.info", "../../outside\nnet.kelvo.assettype.test.text\n");
  WriteFile(Root() / "evil" / "1" / "asset.txt", "evil");
  WriteFile(Root() / "evil" / "1" / "hash", "../../../etc/passwd\n");
  auto repo = Open();
  const auto contents = Contents(repo);
  ASSERT_EQ(contents.count("../../outside"), 1u);
  // The malformed hash is replaced by the digest of the content.
  EXPECT_EQ(contents.at("../../outside").begin()->first.size(), HASH_LEN);
  // Storing and erasing under such an Id stays inside the root.
  ASSERT_TRUE(Store(repo, "../../outside", "again"));
  auto latest = Latest(repo, "../../outside");
  ASSERT_TRUE(repo->EraseAsset(latest).HasValue());
  EXPECT_FALSE(fs::exists(_dir / "outside"));
  EXPECT_TRUE(fs::exists(Root() / "victim" / "1" / "asset.txt"));
  // Ids whose directory name would be "..", "." or hidden.
  for (const char* aid : {"..", ".", ".hidden"}) ASSERT_TRUE(Store(repo, aid, aid));
  EXPECT_FALSE(fs::exists(_dir / "1"));
  auto reread = Open();
  const auto all = Contents(reread);
  for (const char* aid : {"..", ".", ".hidden"}) EXPECT_EQ(all.at(aid).begin()->second, aid);
  // A metadata Id with a path separator is refused by the back end itself.
  const Data vdata = std::dynamic_pointer_cast<const AssetMetaDataImpl>(latest->GetMetaData())->GetVersionData();
  EXPECT_TRUE(repo->StoreMetaDataImpl(vdata, InternedId("a/../../b"), Data(std::int32_t(1)), IdAndVersion{}, Url(), 2,
                                      false)
                  .HasError());
  EXPECT_TRUE(repo->EraseImpl(latest, Data(Url::FromFile((Root() / "..").string()))).HasError());
  EXPECT_TRUE(fs::exists(Root()));
}

TEST_F(UrlRepositoryTest, ReadOnlyRepositoryReadsButNeverWrites) {
  {
    auto repo = Open();
    ASSERT_TRUE(Store(repo, "a", "text"));
  }
  fs::remove(Root() / "a" / "1" / "hash");
  auto repo = Open(false);
  ASSERT_TRUE(repo);
  EXPECT_FALSE(repo->IsWritable());
  EXPECT_EQ(Contents(repo).at("a").begin()->second, "text");
  EXPECT_FALSE(fs::exists(Root() / "a" / "1" / "hash"));
  EXPECT_TRUE(repo->StoreAsset(Id("b"), MakeText("x"), nullptr).HasError());
  // User metadata may still be written: it lives outside the repository.
  auto d = Latest(repo, "a");
  EXPECT_TRUE(repo->StoreMetaData(d, kUserNote, Data(std::string("u")), 18).HasValue());
  EXPECT_TRUE(repo->StoreMetaData(d, kNote, Data(std::string("p")), 2).HasError());
  // A temporary read-only repository has no derived tree: derived values are neither read nor kept.
  auto temp = CreateUrlAssetRepository(Id("test.repo"), {}, RootUrl(), false, false, true);
  ASSERT_TRUE(temp.HasValue());
  const Data vdata = Data(Url::FromFile((Root() / "a" / "1").string()));
  auto loaded = (*temp)->LoadMetaDataImpl(vdata, kDerived, 10);
  ASSERT_TRUE(loaded.HasValue());
  EXPECT_FALSE(loaded->has_value());
  EXPECT_TRUE((*temp)->StoreMetaDataImpl(vdata, kDerived, Data(1), IdAndVersion{}, Url(), 10, false).HasError());
}

} // namespace
