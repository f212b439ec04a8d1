// Remote database benchmarks against a real nginx on a loopback port (data made once under /tmp
// and removed at the end):
//  - mounting a remote database of 100,000 assets: the requests it costs (every request for a
//    file of the database, counted in nginx's access log) from an empty and from a warm cache, and the time of a warm start beside the
//    mount of the same tree as a local folder;
//  - downloading 1,000 small assets, half of them reached as dependencies of the other half,
//    beside `curl --parallel` fetching the same files from the same nginx in the same run: as
//    downloads run (no sync per file, one sync of the mirrors at the end) and with every file
//    synced on its own.
// KELVO_BENCH_REMOTE_ASSETS and KELVO_BENCH_DOWNLOADS make the data smaller for a quick run;
// KELVO_BENCH_DIAG=1 prints the timing lines of each mount pass (declaring the tree, opening the
// repository).

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "asset/databases/asset_databases.h"
#include "asset/databases/remote_databases.h"
#include "asset/downloads/asset_downloads.h"
#include "asset/module/asset_module.h"
#include "asset/standard/assets.h"
#include "asset/storage/urlassetrepository.h"
#include "asset/core/asset_config.h"
#include "kelvo/application.h"
#include "kelvo/ramdisk.h"
#include "kelvo/settings.h"
#include "nginx_server.h"
#include "bench_util.h"
#include "text_asset.h"

using namespace kelvo;
namespace fs = std::filesystem;
using namespace kelvo::bench;

namespace {

std::shared_ptr<UrlAssetRepository> OpenServed(const fs::path& dir, const std::string& rid) {
  fs::create_directories(dir);
  auto repo = CreateUrlAssetRepository(Id(rid), {}, Url::FromFile(dir.string()), true, false, false);
  if (repo.HasError()) Die("open", repo.GetError());
  return *repo;
}

struct BenchData {
  fs::path root;
  std::size_t bigAssets = 0;
  std::size_t downloads = 0;
  double fillSeconds = 0;
  std::unique_ptr<test::NginxServer> nginx;
  std::vector<Id> requested; // the assets a download asks for; the others come as their dependencies

  fs::path Www() const { return root / "www"; }

  void Build() {
    testing::RegisterTextAssetType();
    bigAssets = EnvNumber("KELVO_BENCH_REMOTE_ASSETS", 100000);
    downloads = EnvNumber("KELVO_BENCH_DOWNLOADS", 1000) / 2 * 2;
    root = fs::path("/tmp") / ("kelvo_remote_bench_" + std::to_string(::getpid()));
    fs::remove_all(root);
    fs::create_directories(root / "library" / "assets");
    Application::SetUrl(APPLICATION_URLTYPE::PREFS_DIR, Url::FromFile((root / "prefs").string()));
    Application::SetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR, Url::FromFile((root / "gprefs").string()));
    Application::SetUrl(APPLICATION_URLTYPE::LIBRARY_DIR, Url::FromFile((root / "library").string()));
    UrlAssetRepository::SetCompactionDelayOverride(3600);
    const auto start = Clock::now();

    // The large database, written by two threads.
    auto big = OpenServed(Www() / "big", "bench.remote.big");
    std::atomic<std::size_t> next{0};
    auto fill = [&] {
      for (std::size_t i = next++; i < bigAssets; i = next++)
        if (auto r = big->StoreAsset(Id("big." + std::to_string(i)), testing::MakeText("content " + std::to_string(i)),
                                     nullptr);
            r.HasError())
          Die("store", r.GetError());
    };
    std::thread helper(fill);
    fill();
    helper.join();
    if (auto c = big->Compact(); c.HasError()) Die("compact", c.GetError());

    // The download database: asset i of the first half depends on asset i of the second half.
    auto small = OpenServed(Www() / "small", "bench.remote.small");
    const std::size_t half = downloads / 2;
    std::vector<AssetDescription> dependencies;
    for (std::size_t i = 0; i < half; ++i) {
      auto r = small->StoreAsset(Id("dep." + std::to_string(i)), testing::MakeText(std::string(600, 'd') + std::to_string(i)),
                                 nullptr);
      if (r.HasError()) Die("store", r.GetError());
      dependencies.push_back(*r);
    }
    for (std::size_t i = 0; i < half; ++i) {
      const Id aid("top." + std::to_string(i));
      auto r = small->StoreAsset(aid, testing::MakeText(std::string(900, 't') + std::to_string(i)), nullptr);
      if (r.HasError()) Die("store", r.GetError());
      const AssetDescription& d = dependencies[i];
      DataArray array{Data(AssetDependencyStruct{d->GetIdAndVersion(), d->GetTypeId(), UniversalDateTime(), aid.ToString(),
                                                 ASSET_UPDATE_POLICY::NEVER})};
      if (auto m = small->StoreMetaData(*r, metaids::dependencies, Data(std::move(array)), AssetMetaData::PERSISTENT);
          m.HasError())
        Die("meta", m.GetError());
      requested.push_back(aid);
    }
    if (auto c = small->Compact(); c.HasError()) Die("compact", c.GetError());
    fillSeconds = Seconds(start);
    // What the fill wrote is on the disk before anything is measured: the sync that ends a
    // download waits for all that its file system has still to write.
    ::sync();

    auto started = test::NginxServer::Start(Www().string());
    if (started.HasError()) Die("nginx", started.GetError());
    nginx = std::move(*started);
    if (auto r = StartAssetModule(); r.HasError()) Die("start", r.GetError());
  }

  void Cleanup() {
    AssetDownloads::FreeAssetDownloads();
    EndAssetModule();
    nginx.reset();
    std::error_code ec;
    fs::remove_all(root, ec);
  }

  Url Remote(const std::string& name) const { return nginx->GetUrl("/" + name); }
  fs::path CacheOf(const std::string& name) const {
    return root / "gprefs" / "_assetcache" / GetRemoteDatabaseCacheName(Remote(name));
  }
  // Every request for a file of the database, the two index files and any other.
  std::size_t Requests(const std::string& name) const {
    std::size_t n = 0;
    for (const std::string& line : nginx->GetAccessLog()) n += line.find(" /" + name + "/") != std::string::npos ? 1 : 0;
    return n;
  }
};

BenchData& Bench() {
  static BenchData data;
  return data;
}

// A start of the module with list as the user's databases, as a new process would do it.
double Start(const std::vector<Url>& list) {
  EndAssetModule();
  std::vector<AssetDatabaseStruct> dbs;
  for (const Url& url : list) dbs.emplace_back(url);
  if (auto r = Settings::Set(assetdatabasekeys::userpaths, AssetDatabasesToSettingsData(dbs)); r.HasError())
    Die("settings", r.GetError());
  const auto start = Clock::now();
  if (std::getenv("KELVO_BENCH_DIAG")) g_assetDiagnostic.Set(true);
  if (auto r = StartAssetModule(); r.HasError()) Die("start", r.GetError());
  if (auto r = AssetDataBases::WaitForDatabaseLoading(); r.HasError() || !*r) Die("wait", Error());
  if (std::getenv("KELVO_BENCH_DIAG")) std::fprintf(stderr, "start+wait %.3f s\n", Seconds(start));
  return Seconds(start);
}

void RequireMounted(const Url& url) {
  if (!AssetDataBases::FindRepository(url).GetValueOr(nullptr)) Die("mount of " + url.ToString(), Error());
}

void BM_MountRemoteFromAnEmptyCache(benchmark::State& state) {
  BenchData& data = Bench();
  std::size_t requests = 0;
  for (auto _ : state) {
    fs::remove_all(data.CacheOf("big"));
    const std::size_t before = data.Requests("big");
    state.SetIterationTime(Start({data.Remote("big")}));
    requests = data.Requests("big") - before;
    RequireMounted(data.Remote("big"));
  }
  state.counters["assets"] = static_cast<double>(data.bigAssets);
  state.counters["requests"] = static_cast<double>(requests);
}
BENCHMARK(BM_MountRemoteFromAnEmptyCache)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

// A warm start: one small request, and the tree declared from the cached index.
void BM_MountRemoteFromAWarmCache(benchmark::State& state) {
  BenchData& data = Bench();
  std::size_t requests = 0;
  double remote = 0, local = 0;
  for (auto _ : state) {
    const std::size_t before = data.Requests("big");
    const double t = Start({data.Remote("big")});
    requests = data.Requests("big") - before;
    RequireMounted(data.Remote("big"));
    state.SetIterationTime(t);
    remote += t;
    // The anchor: the same tree mounted as a local folder.
    local += Start({Url::FromFile((data.Www() / "big").string())});
  }
  state.counters["assets"] = static_cast<double>(data.bigAssets);
  state.counters["requests"] = static_cast<double>(requests);
  state.counters["local_folder_ms"] = 1000.0 * local / static_cast<double>(state.iterations());
  state.counters["ratio_to_local"] = local > 0 ? remote / local : 0.0;
}
BENCHMARK(BM_MountRemoteFromAWarmCache)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

// The descriptions of the requested assets and of all assets of the download database.
void FindDownloadAssets(std::vector<AssetDescription>& requested, std::vector<AssetDescription>& all) {
  const AssetRepositoryRef user = AssetInterface::GetUserPrefsRepository();
  IdAndVersionSet processed;
  for (const Id& aid : Bench().requested) {
    auto found = user->FindLatestAsset(testing::kTextType, aid, Id(), LATEST);
    if (found.HasError() || !*found) Die("find " + aid.ToString(), found.HasError() ? found.GetError() : Error());
    requested.push_back(*found);
    if (auto r = AssetDownloads::AddAssetWithDependencies(*found, user, all, processed); r.HasError())
      Die("closure", r.GetError());
  }
}

// Runs curl --parallel on the files that the first download fetched (read from the access log).
struct CurlAnchor {
  fs::path config;
  fs::path out;
  std::size_t files = 0;

  void Prepare(const std::vector<std::string>& logBefore) {
    BenchData& data = Bench();
    const std::vector<std::string> log = data.nginx->GetAccessLog();
    out = data.root / "curl";
    config = data.root / "curl.config";
    std::ofstream c(config);
    files = 0;
    for (std::size_t i = logBefore.size(); i < log.size(); ++i) {
      // "GET /small/<path> 200 <connection>"
      const std::size_t a = log[i].find(' '), b = log[i].find(' ', a + 1);
      const std::string uri = log[i].substr(a + 1, b - a - 1);
      if (!uri.starts_with("/small/") || uri.find("/_index/") != std::string::npos) continue;
      c << "url = \"" << data.nginx->GetUrlText(uri) << "\"\noutput = \"" << (out / uri.substr(1)).string() << "\"\n";
      ++files;
    }
  }
  double Run() const {
    fs::remove_all(out);
    const std::string cmd = "curl --silent --no-progress-meter --fail --parallel --create-dirs -K '" + config.string() + "' > /dev/null";
    const auto start = Clock::now();
    if (std::system(cmd.c_str()) != 0) Die("curl", Error());
    return Seconds(start);
  }
};

void DownloadBench(benchmark::State& state, bool syncEachFile) {
  BenchData& data = Bench();
  HttpOptions options;
  options.syncFiles = syncEachFile;
  SetRemoteDatabaseHttpOptions(options);
  Start({data.Remote("small")});
  RequireMounted(data.Remote("small"));
  std::vector<AssetDescription> requested, all;
  FindDownloadAssets(requested, all);
  CurlAnchor curl;
  double ours = 0, theirs = 0;
  for (auto _ : state) {
    for (const AssetDescription& d : all)
      if (auto r = RamDiskService::DropFromCache(d->GetUrl().GetValueOr(Url()).GetDirectory()); r.HasError())
        Die("drop", r.GetError());
    const std::vector<std::string> logBefore = data.nginx->GetAccessLog();
    const auto start = Clock::now();
    if (auto r = AssetDownloads::DownloadMultipleAssets(requested, AssetInterface::GetUserPrefsRepository()); r.HasError())
      Die("download", r.GetError());
    if (auto r = AssetDownloads::WaitForDownloads(); r.HasError()) Die("wait", r.GetError());
    const double t = Seconds(start);
    state.SetIterationTime(t);
    ours += t;
    for (const AssetDescription& d : all)
      if (!AssetDownloads::IsAssetCached(d)) Die("not downloaded: " + d->GetIdAndVersion().first.ToString(), Error());
    if (curl.files == 0) curl.Prepare(logBefore);
    theirs += curl.Run();
  }
  options.syncFiles = false;
  SetRemoteDatabaseHttpOptions(options);
  state.counters["assets"] = static_cast<double>(all.size());
  state.counters["files"] = static_cast<double>(curl.files);
  state.counters["curl_ms"] = 1000.0 * theirs / static_cast<double>(state.iterations());
  state.counters["ratio_to_curl"] = theirs > 0 ? ours / theirs : 0.0;
}

void BM_Download(benchmark::State& state) { DownloadBench(state, false); }
BENCHMARK(BM_Download)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

void BM_DownloadSyncingEachFile(benchmark::State& state) { DownloadBench(state, true); }
BENCHMARK(BM_DownloadSyncingEachFile)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  Bench().Build();
  std::fprintf(stderr, "served %zu + %zu assets, made in %.1f s\n", Bench().bigAssets, Bench().downloads,
               Bench().fillSeconds);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  Bench().Cleanup();
  return 0;
}
