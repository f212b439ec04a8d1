// The database registry: collecting folders, archives, link files and the user's list, mounting
// them off the caller's thread, chaining them under the user repository, remounting after list
// changes, bad databases, cancellation at module end, and the settings form of the list.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "asset/module/asset_module.h"
#include "asset/databases/asset_databases.h"
#include "asset_library_fixture.h"
#include "kelvo/job_queue.h"
#include "kelvo/log.h"
#include "kelvo/settings.h"
#include "nginx_server.h"
#include "temp_tree.h"

namespace kelvo::testing {
namespace {

namespace fs = std::filesystem;

class AssetDatabasesTest : public AssetLibraryTest {
protected:
  // Packs the tree of dir into archive (the repository root is the archive's root).
  static void Zip(const fs::path& dir, const fs::path& archive) {
    const std::string cmd = "cd '" + dir.string() + "' && zip -q -r '" + archive.string() + "' .";
    ASSERT_EQ(std::system(cmd.c_str()), 0);
  }

  static void StartAndWait() {
    ASSERT_TRUE(StartAssetModule().HasValue());
    Wait();
  }
  static void Wait() {
    auto done = AssetDataBases::WaitForDatabaseLoading();
    ASSERT_TRUE(done.HasValue()) << done.GetError().ToString();
  }
  static void SetList(const std::vector<AssetDatabaseStruct>& list) {
    auto r = AssetDataBases::SetDatabases(list);
    ASSERT_TRUE(r.HasValue()) << r.GetError().ToString();
    Wait();
  }

  // The repositories whose own content a search on the user repository reads, in walk order.
  static std::vector<std::string> SearchOrder() {
    std::vector<std::string> order;
    AssetRepositoryRef user = AssetInterface::GetUserPrefsRepository();
    auto r = user->FindAssets(
        TypeArray{kTextType}, Id(), Id(), ALL | PRIVATE_QUERY_REPOSITORY_VISIBILITY,
        [](const AssetDescription&) -> Result<bool> { return true; },
        [&](const AssetRepositoryRef& repo) -> Result<bool> {
          order.push_back(repo->GetId().ToString());
          return true;
        });
    EXPECT_TRUE(r.HasValue());
    return order;
  }
  // Asset Id to the text of the latest version a search on the user repository finds.
  static std::map<std::string, std::string> Latest() {
    std::map<std::string, std::string> found;
    auto r = AssetInterface::GetUserPrefsRepository()->FindAssets(
        TypeArray{kTextType}, Id(), Id(), LATEST, [&](const AssetDescription& d) -> Result<bool> {
          found[d->GetIdAndVersion().first.ToString()] = LoadText(d);
          return true;
        });
    EXPECT_TRUE(r.HasValue()) << r.GetError().ToString();
    return found;
  }
  static AssetRepositoryRef Mounted(const fs::path& p) {
    auto r = AssetDataBases::FindRepository(FileUrl(p));
    EXPECT_TRUE(r.HasValue());
    return r.HasValue() ? *r : nullptr;
  }
  static std::optional<AssetDatabaseState> StateOf(const fs::path& p) {
    for (const AssetDatabaseState& s : AssetDataBases::GetDatabaseStates())
      if (s.url == FileUrl(p)) return s;
    return std::nullopt;
  }
  static std::vector<std::string> Messages(BACKGROUNDPROGRESSSTATE state) {
    std::vector<std::string> texts;
    if (BackgroundEntryRef entry = AssetDataBases::GetLastProgressEntry())
      for (const auto& m : entry->GetMessages())
        if (m.state == state) texts.push_back(m.text);
    return texts;
  }
  static bool AnyContains(const std::vector<std::string>& texts, const std::string& part) {
    return std::any_of(texts.begin(), texts.end(), [&](const std::string& t) { return t.find(part) != std::string::npos; });
  }
};

TEST_F(AssetDatabasesTest, FolderZipLinkAndUserListAreChainedInOrder) {
  MakeDatabase(Assets() / "basics", "db.basics", {{"from_basics", "b"}, {"shared", "basics"}});
  MakeDatabase(Assets() / "zfolder", "db.folder", {{"from_folder", "f"}});
  MakeDatabase(Assets() / "unittests", "db.unittests", {{"from_unittests", "u"}});
  MakeDatabase(_root / "zipsrc", "db.zip", {{"from_zip", "z"}});
  Zip(_root / "zipsrc", Assets() / "pack.zip");
  MakeDatabase(_root / "linked", "db.link", {{"from_link", "l"}});
  WriteFile(Assets() / "link.dat", (_root / "linked").string() + "\n");
  WriteFile(Assets() / "kelvoorpheumassets.dat", (_root / "linked").string()); // reserved: skipped
  WriteFile(Assets() / "notes.txt", "ignored");
  MakeDatabase(_root / "mine", "db.user", {{"from_user", "m"}});
  const Url userDb = FileUrl(_root / "mine");
  ASSERT_TRUE(Settings::Set(assetdatabasekeys::userpaths, AssetDatabasesToSettingsData({AssetDatabaseStruct(userDb)})).HasValue());

  // The pass runs on the service I/O queue, not on the thread that starts the module.
  std::atomic<bool> onOtherThread{false};
  auto observable = AssetDataBases::ObservableQueryDatabases();
  const auto caller = std::this_thread::get_id();
  auto token = observable->AddObserver([&](const DatabaseUrlReceiver&) {
    onOtherThread = std::this_thread::get_id() != caller && JobQueue::GetServiceIoQueue()->IsWorkerThread();
  });
  StartAndWait();
  observable->RemoveObserver(token);
  EXPECT_TRUE(onOtherThread.load());

  // Last mounted first: user list, link file, archive, unittests, other folders, basics.
  EXPECT_EQ(SearchOrder(), (std::vector<std::string>{"net.kelvo.repository.userprefs", "db.user", "db.link", "db.zip",
                                                     "db.unittests", "db.folder", "db.basics",
                                                     "net.kelvo.repository.builtin"}));
  const auto latest = Latest();
  for (const char* aid : {"from_basics", "from_folder", "from_unittests", "from_zip", "from_link", "from_user", "shared"})
    EXPECT_TRUE(latest.count(aid)) << aid;

  // Priorities by source; the reserved link file is not listed.
  EXPECT_EQ(StateOf(Assets() / "basics")->priority, 0);
  EXPECT_EQ(StateOf(Assets() / "unittests")->priority, 5000);
  EXPECT_EQ(StateOf(Assets() / "zfolder")->priority, 1002);
  EXPECT_EQ(StateOf(Assets() / "pack.zip")->priority, 1001 + 10000);
  EXPECT_EQ(StateOf(_root / "linked")->priority, 1000 + 20000);
  EXPECT_EQ(StateOf(_root / "mine")->priority, 100000);
  EXPECT_EQ(AssetDataBases::GetDatabaseStates().size(), 6u);

  // Both directions of the lookup; the archive is opened read-only through a zip URL that names
  // its origin, databases in the assets directory are read-only, the user's own are writable.
  AssetRepositoryRef zipRepo = Mounted(Assets() / "pack.zip");
  ASSERT_NE(zipRepo, nullptr);
  EXPECT_EQ(zipRepo->GetId(), Id("db.zip"));
  EXPECT_FALSE(zipRepo->IsWritable());
  auto* urlRepo = dynamic_cast<UrlAssetRepositoryInterface*>(zipRepo.get());
  ASSERT_NE(urlRepo, nullptr);
  EXPECT_EQ(urlRepo->GetUrl(false).GetScheme(), "zip");
  EXPECT_EQ(urlRepo->GetUrl(true), FileUrl(Assets() / "pack.zip"));
  EXPECT_EQ(AssetDataBases::FindRepository(zipRepo).GetValueOr(Url()), FileUrl(Assets() / "pack.zip"));
  EXPECT_FALSE(Mounted(Assets() / "basics")->IsWritable());
  EXPECT_TRUE(Mounted(_root / "mine")->IsWritable());
  EXPECT_EQ(zipRepo->GetData(assetdatabasekeys::exportonsaveproject).Get<bool>(), std::optional<bool>(true));
  EXPECT_TRUE(AssetDataBases::FindRepository(AssetInterface::GetUserPrefsRepository()).HasError());
  EXPECT_EQ(AssetDataBases::FindRepository(FileUrl(_root / "unknown")).GetValueOr(nullptr), nullptr);

  BackgroundEntryRef progress = AssetDataBases::GetLastProgressEntry();
  ASSERT_NE(progress, nullptr);
  EXPECT_EQ(progress->GetState(), BACKGROUNDPROGRESSSTATE::SUCCEEDED);
  EXPECT_DOUBLE_EQ(progress->GetProgress(), 1.0);
}

TEST_F(AssetDatabasesTest, UnreadableListAtStartMountsNothingUntilAListIsSet) {
  MakeDatabase(Assets() / "basics", "db.basics", {{"from_basics", "b"}});
  ASSERT_TRUE(Settings::Set(assetdatabasekeys::userpaths, Data("not a list")).HasValue());
  // The module itself starts; only the databases wait for a list.
  StartAndWait();
  for (const AssetDatabaseState& state : AssetDataBases::GetDatabaseStates()) EXPECT_FALSE(state.mounted) << state.url.ToString();
  EXPECT_EQ(SearchOrder(), (std::vector<std::string>{"net.kelvo.repository.userprefs", "net.kelvo.repository.builtin"}));

  SetList({});
  EXPECT_EQ(SearchOrder(), (std::vector<std::string>{"net.kelvo.repository.userprefs", "db.basics",
                                                     "net.kelvo.repository.builtin"}));
}

TEST_F(AssetDatabasesTest, ListChangesRemountTheRightRepositories) {
  MakeDatabase(Assets() / "basics", "db.basics", {{"from_basics", "b"}});
  MakeDatabase(_root / "a", "db.a", {{"from_a", "a"}});
  MakeDatabase(_root / "b", "db.b", {{"from_b", "b"}});
  MakeDatabase(_root / "c", "db.c", {{"from_c", "c"}});
  StartAndWait();
  EXPECT_TRUE(AssetDataBases::WaitForDatabaseLoading().GetValueOr(false)); // nothing runs: true at once

  SetList({AssetDatabaseStruct(FileUrl(_root / "a")), AssetDatabaseStruct(FileUrl(_root / "b"))});
  EXPECT_EQ(SearchOrder(), (std::vector<std::string>{"net.kelvo.repository.userprefs", "db.b", "db.a", "db.basics",
                                                     "net.kelvo.repository.builtin"}));
  const AssetRepositoryRef basics = Mounted(Assets() / "basics");
  const AssetRepositoryRef a = Mounted(_root / "a");
  ASSERT_NE(a, nullptr);

  // a deactivated, b removed, c added.
  SetList({AssetDatabaseStruct(FileUrl(_root / "a"), false), AssetDatabaseStruct(FileUrl(_root / "c"))});
  EXPECT_EQ(SearchOrder(), (std::vector<std::string>{"net.kelvo.repository.userprefs", "db.c", "db.basics",
                                                     "net.kelvo.repository.builtin"}));
  auto latest = Latest();
  EXPECT_FALSE(latest.count("from_a"));
  EXPECT_FALSE(latest.count("from_b"));
  EXPECT_TRUE(latest.count("from_c"));
  EXPECT_EQ(Mounted(_root / "a"), nullptr);
  EXPECT_EQ(Mounted(_root / "b"), nullptr);
  EXPECT_EQ(Mounted(Assets() / "basics"), basics); // untouched databases keep their repository
  EXPECT_FALSE(StateOf(_root / "a")->active);
  EXPECT_FALSE(StateOf(_root / "b")->active);
  // The inactive database stays in the user's list.
  auto list = AssetDataBases::GetDatabaseList();
  ASSERT_TRUE(list.HasValue());
  ASSERT_EQ(list->size(), 2u);
  EXPECT_FALSE((*list)[0]._active);

  // Reactivated, it is opened anew.
  SetList({AssetDatabaseStruct(FileUrl(_root / "a")), AssetDatabaseStruct(FileUrl(_root / "c"))});
  const AssetRepositoryRef reopened = Mounted(_root / "a");
  ASSERT_NE(reopened, nullptr);
  EXPECT_NE(reopened, a);
  EXPECT_EQ(SearchOrder(), (std::vector<std::string>{"net.kelvo.repository.userprefs", "db.c", "db.a", "db.basics",
                                                     "net.kelvo.repository.builtin"}));

  // An unchanged list costs no pass; force reopens the user's databases and keeps the others.
  const BackgroundEntryRef before = AssetDataBases::GetLastProgressEntry();
  ASSERT_TRUE(AssetDataBases::ReloadAssetRepositories(false).HasValue());
  Wait();
  EXPECT_EQ(AssetDataBases::GetLastProgressEntry(), before);
  EXPECT_EQ(Mounted(_root / "a"), reopened);
  ASSERT_TRUE(AssetDataBases::ReloadAssetRepositories(true).HasValue());
  Wait();
  EXPECT_NE(AssetDataBases::GetLastProgressEntry(), before);
  EXPECT_NE(Mounted(_root / "a"), reopened);
  EXPECT_EQ(Mounted(Assets() / "basics"), basics);

  // An empty list leaves the user repository on the standard databases alone.
  SetList({});
  EXPECT_EQ(SearchOrder(), (std::vector<std::string>{"net.kelvo.repository.userprefs", "db.basics",
                                                     "net.kelvo.repository.builtin"}));
}

TEST_F(AssetDatabasesTest, LaterDatabaseWithTheSameIdHidesTheEarlier) {
  MakeDatabase(Assets() / "one", "db.same", {{"x", "from one"}});
  MakeDatabase(_root / "two", "db.same", {{"x", "from two"}});
  ASSERT_TRUE(StartAssetModule().HasValue());
  SetList({AssetDatabaseStruct(FileUrl(_root / "two"), true, false)});

  const AssetRepositoryRef one = Mounted(Assets() / "one");
  const AssetRepositoryRef two = Mounted(_root / "two");
  ASSERT_NE(one, nullptr);
  ASSERT_NE(two, nullptr);
  EXPECT_EQ(one->GetData(repositorykeys::skipinsearch).Get<bool>(), std::optional<bool>(true));
  EXPECT_EQ(two->GetData(repositorykeys::skipinsearch).Get<bool>(), std::optional<bool>(false));
  EXPECT_EQ(two->GetData(assetdatabasekeys::exportonsaveproject).Get<bool>(), std::optional<bool>(false));
  // Both stay chained, only the later one is searched.
  EXPECT_EQ(SearchOrder(), (std::vector<std::string>{"net.kelvo.repository.userprefs", "db.same",
                                                     "net.kelvo.repository.builtin"}));
  EXPECT_EQ(Latest()["x"], "from two");
  EXPECT_EQ(two->GetBases()->front(), one);
  EXPECT_TRUE(AnyContains(Messages(BACKGROUNDPROGRESSSTATE::WARNING), "overwrites"));
  EXPECT_EQ(AssetDataBases::GetLastProgressEntry()->GetState(), BACKGROUNDPROGRESSSTATE::WARNING);

  // Without the duplicate the first one is searched again.
  SetList({});
  EXPECT_EQ(one->GetData(repositorykeys::skipinsearch).Get<bool>(), std::optional<bool>(false));
  EXPECT_EQ(Latest()["x"], "from one");
}

TEST_F(AssetDatabasesTest, BadDatabasesAreReportedAndTheOthersMounted) {
  MakeDatabase(Assets() / "basics", "db.basics", {{"from_basics", "b"}});
  MakeDatabase(_root / "good", "db.good", {{"from_good", "g"}});
  // A corrupt archive, a truncated one, a link to nowhere and a link to itself.
  WriteFile(Assets() / "corrupt.zip", std::string(300, 'x'));
  MakeDatabase(_root / "zipsrc", "db.zip", {{"from_zip", "z"}});
  Zip(_root / "zipsrc", _root / "full.zip");
  const std::string bytes = ReadFile(_root / "full.zip");
  WriteFile(Assets() / "truncated.zip", bytes.substr(0, bytes.size() * 2 / 3));
  WriteFile(Assets() / "nowhere.dat", (_root / "does" / "not" / "exist").string());
  WriteFile(Assets() / "self.dat", (Assets() / "self.dat").string());
  WriteFile(Assets() / "empty.dat", "\n");
  ASSERT_TRUE(StartAssetModule().HasValue());

  // A missing folder, a remote database whose server is down (nothing listens on its port and
  // nothing is cached), and the good one listed twice.
  const Url missing = FileUrl(_root / "missing");
  auto port = test::FindFreeLoopbackPort();
  ASSERT_TRUE(port.HasValue());
  const std::string remoteText = "http://127.0.0.1:" + std::to_string(*port) + "/db";
  const Url remote(remoteText);
  SetList({AssetDatabaseStruct(missing), AssetDatabaseStruct(FileUrl(_root / "good")), AssetDatabaseStruct(remote),
           AssetDatabaseStruct(FileUrl(_root / "good"))});

  EXPECT_EQ(SearchOrder(), (std::vector<std::string>{"net.kelvo.repository.userprefs", "db.good", "db.basics",
                                                     "net.kelvo.repository.builtin"}));
  const auto errors = Messages(BACKGROUNDPROGRESSSTATE::ERROR);
  for (const fs::path& bad : {Assets() / "corrupt.zip", Assets() / "truncated.zip", _root / "does" / "not" / "exist",
                              Assets() / "self.dat", _root / "missing"}) {
    EXPECT_TRUE(AnyContains(errors, "Error mounting asset database " + FileUrl(bad).ToString())) << bad;
    auto state = StateOf(bad);
    ASSERT_TRUE(state) << bad;
    EXPECT_TRUE(state->active);
    EXPECT_FALSE(state->mounted);
    EXPECT_FALSE(state->error.empty());
    EXPECT_EQ(AssetDataBases::FindRepository(FileUrl(bad)).GetValueOr(nullptr), nullptr);
  }
  EXPECT_TRUE(AnyContains(errors, "Link file " + FileUrl(Assets() / "empty.dat").ToString() + " names no database."));
  EXPECT_TRUE(AnyContains(errors, remoteText + "/_index/modified.dat: ")) << ::testing::PrintToString(errors);
  EXPECT_EQ(AssetDataBases::FindRepository(remote).GetValueOr(nullptr), nullptr);
  EXPECT_NE(StateOf(Assets() / "corrupt.zip")->error.find("Can't open zip archive"), std::string::npos);
  EXPECT_EQ(AssetDataBases::GetLastProgressEntry()->GetState(), BACKGROUNDPROGRESSSTATE::ERROR);

  // The list keeps every entry, the broken and the remote ones too.
  auto list = AssetDataBases::GetDatabaseList();
  ASSERT_TRUE(list.HasValue());
  ASSERT_EQ(list->size(), 4u);
  EXPECT_EQ((*list)[0]._dbUrl, missing);
  EXPECT_EQ((*list)[2]._dbUrl, remote);

  // Once the folder exists it mounts on the next pass.
  MakeDatabase(_root / "missing", "db.late", {{"from_late", "l"}});
  ASSERT_TRUE(AssetDataBases::ReloadAssetRepositories(true).HasValue());
  Wait();
  EXPECT_NE(Mounted(_root / "missing"), nullptr);
  EXPECT_TRUE(Latest().count("from_late"));
}

TEST_F(AssetDatabasesTest, PlainFilesOpenAsArchivesAndDatabaseFoldersWinOverTheirType) {
  MakeDatabase(_root / "src", "db.archive", {{"from_archive", "a"}});
  Zip(_root / "src", _root / "archive.zip");
  fs::rename(_root / "archive.zip", _root / "archive.bin");
  MakeDatabase(_root / "folder", "db.folder", {{"from_folder", "f"}});
  Url asWatchFolder = FileUrl(_root / "folder");
  asWatchFolder.SetData(assetdatabasekeys::assetdatabasetype, Data(repositorytypes::watchfolder));
  fs::create_directories(_root / "plain");
  Url plainWatchFolder = FileUrl(_root / "plain");
  plainWatchFolder.SetData(assetdatabasekeys::assetdatabasetype, Data(repositorytypes::watchfolder));
  fs::create_directories(_root / "untyped");

  ASSERT_TRUE(StartAssetModule().HasValue());
  SetList({AssetDatabaseStruct(FileUrl(_root / "archive.bin")), AssetDatabaseStruct(asWatchFolder),
           AssetDatabaseStruct(plainWatchFolder), AssetDatabaseStruct(FileUrl(_root / "untyped"))});

  const AssetRepositoryRef archive = Mounted(_root / "archive.bin");
  ASSERT_NE(archive, nullptr);
  EXPECT_FALSE(archive->IsWritable());
  EXPECT_EQ(archive->GetId(), Id("db.archive"));
  // The folder with a databaseid file is a database although its URL names another type.
  const AssetRepositoryRef folder = Mounted(_root / "folder");
  ASSERT_NE(folder, nullptr);
  EXPECT_EQ(folder->GetId(), Id("db.folder"));
  // The repository factory decides about the watch folder; a folder with no type is skipped.
  EXPECT_EQ(Mounted(_root / "plain") != nullptr, StateOf(_root / "plain")->error.empty());
  EXPECT_EQ(Mounted(_root / "untyped"), nullptr);
  EXPECT_NE(StateOf(_root / "untyped")->error.find("Missing database type"), std::string::npos);
  EXPECT_TRUE(Latest().count("from_archive"));
}

TEST_F(AssetDatabasesTest, ModuleEndCancelsARunningPass) {
  MakeDatabase(_root / "first", "db.first", {{"a", "1"}});
  MakeDatabase(_root / "second", "db.second", {{"b", "2"}});
  ASSERT_TRUE(StartAssetModule().HasValue());
  Wait();

  // Holds the pass when it reaches the second database, until the pass is cancelled.
  std::atomic<bool> reached{false};
  const std::string second = "Mounting: " + FileUrl(_root / "second").ToString();
  auto token = BackgroundProgress::ObservableEntryChanged().AddObserver([&](const BackgroundEntryRef& entry) {
    if (entry->GetDetails() != second || !JobQueue::GetServiceIoQueue()->IsWorkerThread()) return;
    reached = true;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!IsCurrentJobCancelled() && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
  });
  ASSERT_TRUE(AssetDataBases::SetDatabases({AssetDatabaseStruct(FileUrl(_root / "first")),
                                            AssetDatabaseStruct(FileUrl(_root / "second"))})
                  .HasValue());
  while (!reached) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  const BackgroundEntryRef progress = AssetDataBases::GetLastProgressEntry();
  const auto start = std::chrono::steady_clock::now();
  EndAssetModule();
  BackgroundProgress::ObservableEntryChanged().RemoveObserver(token);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  EXPECT_FALSE(IsAssetModuleStarted());
  EXPECT_EQ(progress->GetState(), BACKGROUNDPROGRESSSTATE::CANCELED);
  EXPECT_TRUE(AssetDataBases::GetDatabaseStates().empty());
  EXPECT_TRUE(AssetDataBases::WaitForDatabaseLoading().GetValueOr(false));

  // A cancelled pass left no fingerprint behind: the next start mounts the whole list.
  StartAndWait();
  EXPECT_EQ(SearchOrder(), (std::vector<std::string>{"net.kelvo.repository.userprefs", "db.second", "db.first",
                                                     "net.kelvo.repository.builtin"}));
}

TEST_F(AssetDatabasesTest, CancelFromTheProgressEntryKeepsWhatWasMounted) {
  MakeDatabase(_root / "first", "db.first", {{"a", "1"}});
  MakeDatabase(_root / "second", "db.second", {{"b", "2"}});
  ASSERT_TRUE(StartAssetModule().HasValue());
  Wait();
  const std::string second = "Mounting: " + FileUrl(_root / "second").ToString();
  auto token = BackgroundProgress::ObservableEntryChanged().AddObserver([&](const BackgroundEntryRef& entry) {
    if (entry->GetDetails() == second && JobQueue::GetServiceIoQueue()->IsWorkerThread()) entry->Cancel();
  });
  ASSERT_TRUE(AssetDataBases::SetDatabases({AssetDatabaseStruct(FileUrl(_root / "first")),
                                            AssetDatabaseStruct(FileUrl(_root / "second"))})
                  .HasValue());
  auto waited = AssetDataBases::WaitForDatabaseLoading();
  BackgroundProgress::ObservableEntryChanged().RemoveObserver(token);
  // The wait may come after the pass has ended, so its answer is not asked here.
  ASSERT_TRUE(waited.HasValue());
  EXPECT_EQ(AssetDataBases::GetLastProgressEntry()->GetState(), BACKGROUNDPROGRESSSTATE::CANCELED);
  EXPECT_EQ(SearchOrder(), (std::vector<std::string>{"net.kelvo.repository.userprefs", "db.first",
                                                     "net.kelvo.repository.builtin"}));
  // The same list again is mounted to the end, since the cancelled pass stored no fingerprint.
  ASSERT_TRUE(AssetDataBases::ReloadAssetRepositories(false).HasValue());
  Wait();
  EXPECT_EQ(SearchOrder(), (std::vector<std::string>{"net.kelvo.repository.userprefs", "db.second", "db.first",
                                                     "net.kelvo.repository.builtin"}));
}

TEST_F(AssetDatabasesTest, ObserversAddDatabasesOnce) {
  MakeDatabase(_root / "extra", "db.extra", {{"from_extra", "e"}});
  auto token = AssetDataBases::ObservableQueryDatabases()->AddObserver([&](const DatabaseUrlReceiver& receiver) {
    receiver(FileUrl(_root / "extra"));
    receiver(FileUrl(_root / "extra"));
  });
  StartAndWait();
  AssetDataBases::ObservableQueryDatabases()->RemoveObserver(token);
  const auto state = StateOf(_root / "extra");
  ASSERT_TRUE(state);
  EXPECT_EQ(state->priority, 1000000);
  EXPECT_TRUE(state->mounted);
  EXPECT_FALSE(state->exportOnSaveProject);
  EXPECT_EQ(SearchOrder(), (std::vector<std::string>{"net.kelvo.repository.userprefs", "db.extra",
                                                     "net.kelvo.repository.builtin"}));
}

TEST_F(AssetDatabasesTest, SameUrlInTheLibraryAndTheUserListIsMountedOnce) {
  MakeDatabase(Assets() / "shared", "db.shared", {{"s", "1"}});
  MakeDatabase(_root / "mine", "db.mine", {{"m", "1"}});
  ASSERT_TRUE(StartAssetModule().HasValue());
  SetList({AssetDatabaseStruct(FileUrl(Assets() / "shared"), true, false), AssetDatabaseStruct(FileUrl(_root / "mine"))});
  EXPECT_EQ(SearchOrder(), (std::vector<std::string>{"net.kelvo.repository.userprefs", "db.mine", "db.shared",
                                                     "net.kelvo.repository.builtin"}));
  // The library's item comes first and gives the repository its flag; the entry keeps the last.
  EXPECT_EQ(Mounted(Assets() / "shared")->GetData(assetdatabasekeys::exportonsaveproject).Get<bool>(),
            std::optional<bool>(true));
  EXPECT_FALSE(StateOf(Assets() / "shared")->exportOnSaveProject);

  // Switched off in the user's list, the same URL can't be mounted for the library either: the
  // pass ends with an error and leaves the rest of the chain as it was.
  SetList({AssetDatabaseStruct(FileUrl(Assets() / "shared"), false), AssetDatabaseStruct(FileUrl(_root / "mine"))});
  EXPECT_TRUE(AnyContains(Messages(BACKGROUNDPROGRESSSTATE::ERROR),
                          "Error mounting asset databases: Illegal state: Condition e != nullptr && e->_isActive not "
                          "fulfilled."));
  EXPECT_EQ(AssetDataBases::GetLastProgressEntry()->GetState(), BACKGROUNDPROGRESSSTATE::ERROR);
  EXPECT_EQ(Mounted(Assets() / "shared"), nullptr);
  // A failed pass stores no fingerprint: the same list runs in full again.
  const BackgroundEntryRef failed = AssetDataBases::GetLastProgressEntry();
  ASSERT_TRUE(AssetDataBases::ReloadAssetRepositories(false).HasValue());
  Wait();
  EXPECT_NE(AssetDataBases::GetLastProgressEntry(), failed);
}

TEST_F(AssetDatabasesTest, TimingLinesOnlyWithDiagnostics) {
  MakeDatabase(_root / "one", "db.one", {{"a", "1"}});
  std::mutex lock;
  std::vector<std::string> lines;
  LogSink previous = SetLogSink([&](LOGLEVEL, const std::string& line) {
    std::lock_guard guard(lock);
    lines.push_back(line);
  });
  auto count = [&](const std::string& part) {
    std::lock_guard guard(lock);
    return std::count_if(lines.begin(), lines.end(), [&](const std::string& l) { return l.find(part) != std::string::npos; });
  };
  ASSERT_TRUE(StartAssetModule().HasValue());
  SetList({AssetDatabaseStruct(FileUrl(_root / "one"))});
  EXPECT_EQ(count("Async mounting asset databases"), 0);
  {
    ScopedConfig diagnostics(g_assetDiagnostic, true);
    ASSERT_TRUE(AssetDataBases::ReloadAssetRepositories(true).HasValue());
    Wait();
  }
  SetLogSink(previous);
  EXPECT_EQ(count("Async mounting asset databases started."), 1);
  EXPECT_EQ(count("Async mounting asset databases finished after: "), 1);
  EXPECT_EQ(count("AssetInterface::CreateRepositoryFromUrl(" + FileUrl(_root / "one").ToString() + ") "), 1);
}

TEST_F(AssetDatabasesTest, UserListRoundTripsThroughSettings) {
  Url typed = FileUrl(_root / "a?b");
  typed.SetData(assetdatabasekeys::assetdatabasetype, Data(repositorytypes::watchfolder));
  Url queried("https", "server/db");
  queried.SetQuery("k=1");
  const std::vector<AssetDatabaseStruct> list = {AssetDatabaseStruct(typed, false, true),
                                                 AssetDatabaseStruct(queried, true, false)};
  // Before the module starts the list is stored, nothing is mounted.
  ASSERT_TRUE(AssetDataBases::SetDatabases(list).HasValue());
  Settings::Reload();
  auto read = AssetDataBases::GetDatabaseList();
  ASSERT_TRUE(read.HasValue()) << read.GetError().ToString();
  EXPECT_EQ(*read, list);
  EXPECT_EQ((*read)[0]._dbUrl.GetPath(), (_root / "a?b").string());
  EXPECT_EQ((*read)[0]._dbUrl.GetData(assetdatabasekeys::assetdatabasetype).Get<Id>(),
            std::optional<Id>(repositorytypes::watchfolder));

  // The receiver sees the list in order and can stop.
  std::vector<Url> seen;
  auto stopped = AssetDataBases::GetDatabases([&](const AssetDatabaseStruct& db) -> Result<bool> {
    seen.push_back(db._dbUrl);
    return false;
  });
  ASSERT_TRUE(stopped.HasValue());
  EXPECT_FALSE(*stopped);
  EXPECT_EQ(seen, std::vector<Url>{typed});

  // The records themselves, as Data, read as a list too.
  EXPECT_EQ(AssetDatabasesFromSettingsData(Data(DataArray{Data(list[1])})).GetValueOr({}),
            std::vector<AssetDatabaseStruct>{list[1]});

  // A damaged list is an error for every reader and starts nothing.
  ASSERT_TRUE(Settings::Set(assetdatabasekeys::userpaths, Data("not a list")).HasValue());
  EXPECT_TRUE(AssetDataBases::GetDatabaseList().GetError().Is(errors::fileformat));
  ASSERT_TRUE(Settings::Set(assetdatabasekeys::userpaths, Data(DataArray{Data(DataDictionary())})).HasValue());
  EXPECT_TRUE(AssetDataBases::GetDatabases([](const AssetDatabaseStruct&) -> Result<bool> { return true; }).HasError());
  EXPECT_TRUE(AssetDataBases::ReloadAssetRepositories(false).HasError());
}

} // namespace
} // namespace kelvo::testing
