#include "kelvo/ramdisk.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "nginx_server.h"
#include "temp_tree.h"

using namespace kelvo;
using kelvo::test::NginxServer;
namespace fs = std::filesystem;

namespace {

class RamDiskTest : public kelvo::testing::TempTreeTest {
protected:
  void SetUp() override {
    TempTreeTest::SetUp();
    _www = _dir / "www" / "db";
    _mirror = _dir / "mirror";
    Write(_www / "a" / "b" / "c.txt", "deep file");
    Write(_www / "a" / "d.txt", "second");
    Write(_www / "top name.txt", "top");
    Write(_www / "nocache" / "x.txt", "fresh");
    _big = std::string(3 << 20, 'q');
    Write(_www / "big" / "big.bin", _big);
    Write(_www / "big" / "small.txt", "0123456789");
    auto server = NginxServer::Start((_dir / "www").string(),
                                     "location /db/busy/ { return 503; }\n"
                                     "location /db/nocache/ { if ($http_cache_control != \"no-cache\") { return 403; } }");
    ASSERT_TRUE(server.HasValue()) << server.GetError().ToString();
    _nginx = std::move(*server);
    auto disk = RamDiskService::Create("");
    ASSERT_TRUE(disk.HasValue()) << disk.GetError().ToString();
    _disk = *disk;
    HttpOptions fast;
    fast.connectTimeout = std::chrono::milliseconds(1000);
    fast.lowSpeedTime = std::chrono::seconds(2);
    fast.maxAttempts = 3;
    fast.firstBackoff = std::chrono::milliseconds(5);
    fast.maxBackoff = std::chrono::milliseconds(20);
    _disk->SetHttpOptions(fast);
    auto declare = _disk->Mount(_nginx->GetUrl("/db"), Url::FromFile(_mirror.string()));
    ASSERT_TRUE(declare.HasValue()) << declare.GetError().ToString();
    _declare = *declare;
    DataDictionary noCache;
    noCache.SetData(urlkeys::http_no_proxy_caching, true);
    for (const auto& [path, flags] : std::vector<std::pair<std::vector<std::string>, DataDictionary>>{
             {{"a", "b", "c.txt"}, {}},
             {{"a", "d.txt"}, {}},
             {{"top name.txt"}, {}},
             {{"nocache", "x.txt"}, noCache},
             {{"nocache", "plain.txt"}, {}},
             {{"big", "big.bin"}, {}},
             {{"big", "small.txt"}, {}},
             {{"gone", "missing.txt"}, {}},
             {{"busy", "x.txt"}, {}}})
      ASSERT_TRUE(_declare(path, flags).HasValue());
  }
  void TearDown() override {
    if (_disk) RamDiskService::Remove(_disk->GetName());
    _nginx.reset();
    TempTreeTest::TearDown();
  }
  static void Write(const fs::path& p, const std::string& content) { kelvo::testing::WriteFile(p, content); }
  Url At(const std::string& rel) const { return _disk->GetRoot().Append(rel); }
  std::string ReadOrError(const std::string& rel) const {
    auto r = At(rel).ReadAll();
    return r.HasValue() ? *r : "ERROR: " + r.GetError().ToString();
  }
  static std::vector<std::string> Names(const Url& dir) {
    std::vector<std::string> names;
    auto r = dir.IoBrowse();
    if (r.HasValue())
      for (const Url& u : *r) names.push_back(u.GetName());
    std::sort(names.begin(), names.end());
    return names;
  }
  // Every file below the test directory outside the server's tree and the mirror.
  std::vector<std::string> StrayFiles() const {
    std::vector<std::string> stray;
    for (const auto& e : fs::recursive_directory_iterator(_dir)) {
      const std::string p = e.path().string();
      if (!p.starts_with((_dir / "www").string()) && !p.starts_with(_mirror.string())) stray.push_back(p);
    }
    return stray;
  }

  fs::path _www, _mirror;
  std::string _big;
  std::unique_ptr<NginxServer> _nginx;
  RamDiskRef _disk;
  RamDisk::DeclareFileDelegate _declare;
};

} // namespace

TEST_F(RamDiskTest, FirstReadFetchesThenTheMirrorServesWithoutNetwork) {
  std::vector<std::pair<std::string, bool>> events;
  _disk->ObservableLoadIntoCacheChange().AddObserver(
      [&](const Url& u, const bool& cached) { events.emplace_back(u.ToString(), cached); });
  // Browsing and detection need no request.
  EXPECT_EQ(Names(_disk->GetRoot()), (std::vector<std::string>{"a", "big", "busy", "gone", "nocache", "top name.txt"}));
  EXPECT_EQ(Names(At("a")), (std::vector<std::string>{"b", "d.txt"}));
  EXPECT_EQ(_disk->GetRoot().IoDetect(), IODETECT::DIRECTORY);
  EXPECT_EQ(At("a/b").IoDetect(), IODETECT::DIRECTORY);
  EXPECT_EQ(At("a/b/c.txt").IoDetect(), IODETECT::FILE);
  EXPECT_EQ(At("a/nothing").IoDetect(), IODETECT::NONE);
  EXPECT_TRUE(At("a/d.txt").IoBrowse().HasError());
  EXPECT_TRUE(At("a").ReadAll().HasError());
  EXPECT_TRUE(_nginx->GetAccessLog().empty());
  EXPECT_FALSE(fs::exists(_mirror / "a"));

  EXPECT_EQ(ReadOrError("a/b/c.txt"), "deep file");
  EXPECT_EQ(ReadOrError("top name.txt"), "top");
  EXPECT_EQ(_nginx->CountRequests("/db/a/b/c.txt", 1), 1u);
  EXPECT_EQ(_nginx->CountRequests("/db/top%20name.txt", 1), 1u);
  EXPECT_TRUE(fs::is_regular_file(_mirror / "a" / "b" / "c.txt"));
  EXPECT_EQ(events, (std::vector<std::pair<std::string, bool>>{{At("a/b/c.txt").ToString(), true},
                                                               {At("top name.txt").ToString(), true}}));
  _nginx->Stop();
  EXPECT_EQ(ReadOrError("a/b/c.txt"), "deep file");
  EXPECT_EQ(events.size(), 2u);
  // A file never read is not there without the server.
  EXPECT_TRUE(At("a/d.txt").ReadAll().HasError());

  // A mirroring disk is read-only.
  auto write = At("a/new.txt").WriteAll("x");
  ASSERT_TRUE(write.HasError());
  EXPECT_NE(write.GetError().ToString().find("read-only"), std::string::npos);
  EXPECT_TRUE(At("a/b/c.txt").IoDelete().HasError());
  EXPECT_TRUE(At("a/z").IoCreateDirectory().HasError());
  EXPECT_TRUE(At("a/d.txt").IoRename(At("a/e.txt")).HasError());
}

TEST_F(RamDiskTest, FailedFetchesReportTheUrlAndLeaveNothing) {
  const std::string missing = ReadOrError("gone/missing.txt");
  EXPECT_NE(missing.find("404"), std::string::npos) << missing;
  EXPECT_NE(missing.find(_nginx->GetUrlText("/db/gone/missing.txt")), std::string::npos) << missing;
  EXPECT_EQ(_nginx->CountRequests("/db/gone/missing.txt", 1), 1u);

  const std::string busy = ReadOrError("busy/x.txt");
  EXPECT_NE(busy.find("503"), std::string::npos) << busy;
  EXPECT_NE(busy.find("3 tries"), std::string::npos) << busy;
  EXPECT_EQ(_nginx->CountRequests("/db/busy/x.txt", 3), 3u) << "retries stop after the configured tries";

  // The flags of a declared file go with its request.
  EXPECT_EQ(ReadOrError("nocache/x.txt"), "fresh");
  EXPECT_NE(ReadOrError("nocache/plain.txt").find("403"), std::string::npos);

  EXPECT_NE(ReadOrError("a/undeclared.txt").find("no such file"), std::string::npos);
  _nginx->Stop();
  EXPECT_NE(ReadOrError("a/d.txt").find("ERROR"), std::string::npos);
  for (const auto& e : fs::recursive_directory_iterator(_mirror))
    EXPECT_TRUE(e.is_directory() || e.path().filename() == "x.txt") << e.path();
}

TEST_F(RamDiskTest, NamesThatLeaveTheMirrorAreRefused) {
  for (const std::vector<std::string>& bad : std::vector<std::vector<std::string>>{
           {}, {".."}, {"..", "x"}, {"a", "..", "..", "x"}, {"/etc", "passwd"}, {"a/../../x"}, {""}, {"a", ""},
           {"."}, {std::string("a\0b", 3)}, {std::string(300, 'n')}})
    EXPECT_TRUE(_declare(bad, {}).HasError()) << (bad.empty() ? "(none)" : bad[0]);
  // A name that is a file can't become a directory, nor the reverse.
  DataDictionary directory;
  directory.SetData(urlkeys::ramdisk_directory, true);
  EXPECT_TRUE(_declare({"a", "d.txt", "x"}, {}).HasError());
  EXPECT_TRUE(_declare({"a", "d.txt"}, directory).HasError());
  EXPECT_TRUE(_declare({"a", "b"}, {}).HasError());
  EXPECT_EQ(Names(At("a")), (std::vector<std::string>{"b", "d.txt"}));
  EXPECT_EQ(At("a/d.txt").IoDetect(), IODETECT::FILE);
  // A declared directory exists while empty, and has nothing to fetch.
  ASSERT_TRUE(_declare({"a", "empty"}, directory).HasValue());
  ASSERT_TRUE(_declare({"a", "b"}, directory).HasValue());
  EXPECT_EQ(At("a/empty").IoDetect(), IODETECT::DIRECTORY);
  EXPECT_TRUE(Names(At("a/empty")).empty());
  EXPECT_EQ(Names(At("a/b")), (std::vector<std::string>{"c.txt"}));
  EXPECT_TRUE(*RamDiskService::IsInCache(At("a/empty")));

  EXPECT_EQ(Url("ramdisk:///" + _disk->GetName() + "/a/../../x").IoDetect(), IODETECT::NONE);
  EXPECT_TRUE(Url("ramdisk:///" + _disk->GetName() + "/../x").ReadAll().HasError());

  // A symlink planted in the mirror does not divert the fetch.
  fs::create_directories(_mirror);
  fs::create_directories(_dir / "outside");
  fs::create_directory_symlink(_dir / "outside", _mirror / "a");
  const std::string r = ReadOrError("a/d.txt");
  EXPECT_NE(r.find("not a directory"), std::string::npos) << r;
  EXPECT_TRUE(fs::is_empty(_dir / "outside"));
  fs::create_directories(_mirror / "big");
  fs::create_symlink(_www / "a" / "d.txt", _mirror / "big" / "small.txt");
  EXPECT_NE(ReadOrError("big/small.txt").find("not a regular file"), std::string::npos);
}

TEST_F(RamDiskTest, ConcurrentFirstReadsFetchOnce) {
  constexpr int kReaders = 8;
  std::atomic<int> good{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kReaders; ++i)
    threads.emplace_back([&] {
      auto r = At("big/big.bin").ReadAll();
      if (r.HasValue() && *r == _big) ++good;
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(good.load(), kReaders);
  EXPECT_EQ(_nginx->CountRequests("/db/big/big.bin", 1), 1u);
}

TEST_F(RamDiskTest, AReaderWaitingOnACancelledLoadFetchesItself) {
  std::thread reader;
  std::string read;
  auto cancelled = RamDiskService::LoadIntoCache(At("big/big.bin"), [&](std::uint64_t done, std::uint64_t) -> Result<void> {
    if (done == 0) return {};
    if (!reader.joinable()) {
      reader = std::thread([&] { read = ReadOrError("big/big.bin"); });
      // Long enough for the reader to find this fetch under way and wait for it.
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return OperationCancelledError();
  });
  ASSERT_TRUE(reader.joinable());
  reader.join();
  EXPECT_TRUE(cancelled.GetError().Is(errors::OperationCancelledError));
  EXPECT_TRUE(read == _big) << read.substr(0, 200);
  EXPECT_EQ(_nginx->CountRequests("/db/big/big.bin", 2), 2u);
}

TEST_F(RamDiskTest, LoadIntoCacheReportsBytesAndStopsOnTheDelegatesError) {
  auto before = RamDiskService::IsInCache(At("big"));
  ASSERT_TRUE(before.HasValue());
  EXPECT_FALSE(*before);
  EXPECT_TRUE(RamDiskService::IsInCache(At("nowhere")).HasError());

  // A failing delegate stops the transfer: its error is the result and nothing is kept.
  auto cancelled = RamDiskService::LoadIntoCache(At("big"), [](std::uint64_t done, std::uint64_t) -> Result<void> {
    if (done > 0) return OperationCancelledError();
    return {};
  });
  ASSERT_TRUE(cancelled.HasError());
  EXPECT_TRUE(cancelled.GetError().Is(errors::OperationCancelledError));
  EXPECT_FALSE(*RamDiskService::IsInCache(At("big")));
  EXPECT_FALSE(fs::exists(_mirror / "big" / "big.bin"));
  EXPECT_TRUE(!fs::exists(_mirror / "big") || fs::is_empty(_mirror / "big")) << "no temporary file stays";

  // One file already mirrored counts as done from the start.
  EXPECT_EQ(ReadOrError("big/small.txt"), "0123456789");
  std::vector<std::pair<std::uint64_t, std::uint64_t>> calls;
  auto loaded = RamDiskService::LoadIntoCache(At("big"), [&](std::uint64_t done, std::uint64_t total) -> Result<void> {
    calls.emplace_back(done, total);
    return {};
  });
  ASSERT_TRUE(loaded.HasValue()) << loaded.GetError().ToString();
  ASSERT_FALSE(calls.empty());
  EXPECT_EQ(calls.front(), std::make_pair(std::uint64_t(10), std::uint64_t(10)));
  EXPECT_EQ(calls.back(), std::make_pair(std::uint64_t(_big.size() + 10), std::uint64_t(_big.size() + 10)));
  for (std::size_t i = 1; i < calls.size(); ++i) {
    EXPECT_GE(calls[i].first, calls[i - 1].first);
    EXPECT_LE(calls[i].first, calls[i].second);
  }
  EXPECT_TRUE(*RamDiskService::IsInCache(At("big")));
  EXPECT_TRUE(*RamDiskService::IsInCache(At("big/big.bin")));
  EXPECT_FALSE(*RamDiskService::IsInCache(_disk->GetRoot()));
}

TEST_F(RamDiskTest, MirrorsMoveAndDrop) {
  std::vector<std::pair<std::string, bool>> events;
  _disk->ObservableLoadIntoCacheChange().AddObserver(
      [&](const Url& u, const bool& cached) { events.emplace_back(u.GetName(), cached); });
  EXPECT_EQ(ReadOrError("a/d.txt"), "second");
  const fs::path moved = _dir / "moved";
  ASSERT_TRUE(RamDiskService::ChangeRamDiskMirrorPath(Url::FromFile(_dir.string()), Url::FromFile(moved.string())).HasValue());
  EXPECT_FALSE(*RamDiskService::IsInCache(At("a/d.txt")));
  EXPECT_EQ(ReadOrError("a/d.txt"), "second");
  EXPECT_TRUE(fs::is_regular_file(moved / "mirror" / "a" / "d.txt"));
  EXPECT_EQ(_nginx->CountRequests("/db/a/d.txt", 2), 2u);

  // Equal paths drop the mirrors, after their files were deleted.
  fs::remove_all(moved);
  ASSERT_TRUE(RamDiskService::ChangeRamDiskMirrorPath(Url::FromFile(moved.string()), Url::FromFile(moved.string())).HasValue());
  EXPECT_EQ(ReadOrError("a/d.txt"), "second");
  EXPECT_EQ(_nginx->CountRequests("/db/a/d.txt", 3), 3u);
  EXPECT_EQ(events, (std::vector<std::pair<std::string, bool>>{
                        {"d.txt", true}, {"d.txt", false}, {"d.txt", true}, {"d.txt", false}, {"d.txt", true}}));
}

TEST(RamDiskServiceTest, UnmountedDiskIsAWritableMemoryTree) {
  auto created = RamDiskService::Create("memory-disk-test");
  ASSERT_TRUE(created.HasValue());
  RamDiskRef disk = *created;
  EXPECT_EQ(RamDiskService::FindExisting("memory-disk-test"), disk);
  EXPECT_TRUE(RamDiskService::Create("memory-disk-test").HasError());
  EXPECT_TRUE(RamDiskService::Create("a/b").HasError());
  const Url root = disk->GetRoot();
  EXPECT_EQ(root.IoDetect(), IODETECT::DIRECTORY);
  ASSERT_TRUE(root.Append("x/y.txt").WriteAll("content").HasValue());
  ASSERT_TRUE(root.Append("z.txt").WriteAll("zz").HasValue());
  EXPECT_EQ(*root.Append("x/y.txt").ReadAll(), "content");
  EXPECT_EQ(root.Append("x").IoDetect(), IODETECT::DIRECTORY);
  auto children = root.IoBrowse();
  ASSERT_TRUE(children.HasValue());
  ASSERT_EQ(children->size(), 2u);
  EXPECT_EQ((*children)[0], root.Append("x"));
  EXPECT_TRUE(*RamDiskService::IsInCache(root.Append("x")));
  ASSERT_TRUE(root.Append("z.txt").IoRename(root.Append("w.txt")).HasValue());
  EXPECT_EQ(*root.Append("w.txt").ReadAll(), "zz");
  ASSERT_TRUE(root.Append("x").IoDelete(true).HasValue());
  EXPECT_EQ(root.Append("x/y.txt").IoDetect(), IODETECT::NONE);
  // Disks are separate trees.
  auto other = RamDiskService::Create("");
  ASSERT_TRUE(other.HasValue());
  EXPECT_EQ((*other)->GetRoot().Append("w.txt").IoDetect(), IODETECT::NONE);
  RamDiskService::Remove((*other)->GetName());
  RamDiskService::Remove("memory-disk-test");
  EXPECT_EQ(RamDiskService::FindExisting("memory-disk-test"), nullptr);
  EXPECT_EQ(root.Append("w.txt").IoDetect(), IODETECT::NONE);
}
