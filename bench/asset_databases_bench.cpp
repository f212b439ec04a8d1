// Asset database benchmarks on 50 databases of 2,000 text assets each (made once under /tmp and
// removed at the end):
//  - a mount pass that opens all of them from their index, by walking their trees, and from zip
//    archives of the same trees;
//  - one FindAssets(LATEST) on the user repository across all of them, for folders and archives.
// KELVO_BENCH_DBS and KELVO_BENCH_DB_ASSETS make the data smaller for a quick run.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "asset/module/asset_module.h"
#include "asset/databases/asset_databases.h"
#include "asset/standard/assets.h"
#include "kelvo/application.h"
#include "kelvo/settings.h"
#include "kelvo/zip_io.h"
#include "text_asset.h"
#include "bench_util.h"
#include "asset/storage/urlassetrepository.h"

using namespace kelvo;
namespace fs = std::filesystem;
using namespace kelvo::bench;

namespace {

struct BenchData {
  fs::path root;
  std::size_t databases = 0;
  std::size_t assetsPerDatabase = 0;
  std::vector<fs::path> folders;
  std::vector<fs::path> archives;
  double fillSeconds = 0;
  double compactSeconds = 0;
  double zipSeconds = 0;

  void Build() {
    testing::RegisterTextAssetType();
    databases = EnvNumber("KELVO_BENCH_DBS", 50);
    assetsPerDatabase = EnvNumber("KELVO_BENCH_DB_ASSETS", 2000);
    root = fs::path("/tmp") / ("kelvo_db_bench_" + std::to_string(::getpid()));
    fs::remove_all(root);
    fs::create_directories(root / "library" / "assets");
    Application::SetUrl(APPLICATION_URLTYPE::PREFS_DIR, Url::FromFile((root / "prefs").string()));
    Application::SetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR, Url::FromFile((root / "gprefs").string()));
    Application::SetUrl(APPLICATION_URLTYPE::LIBRARY_DIR, Url::FromFile((root / "library").string()));
    for (std::size_t d = 0; d < databases; ++d) {
      folders.push_back(root / "dbs" / ("db" + std::to_string(d)));
      archives.push_back(root / "zips" / ("db" + std::to_string(d) + ".zip"));
    }

    // The databases are written by the URL repository directly, two at a time.
    std::atomic<std::size_t> next{0};
    std::atomic<double> compactTotal{0};
    auto fill = [&] {
      for (std::size_t d = next++; d < databases; d = next++) {
        fs::create_directories(folders[d]);
        auto repo = CreateUrlAssetRepository(Id("bench.db." + std::to_string(d)), {},
                                             Url::FromFile(folders[d].string()), true, false, false);
        if (repo.HasError()) Die("open", repo.GetError());
        for (std::size_t i = 0; i < assetsPerDatabase; ++i) {
          auto r = (*repo)->StoreAsset(Id("db" + std::to_string(d) + ".asset." + std::to_string(i)),
                                       testing::MakeText("content " + std::to_string(d) + "/" + std::to_string(i)),
                                       nullptr);
          if (r.HasError()) Die("store", r.GetError());
        }
        const auto compactStart = Clock::now();
        if (auto c = (*repo)->Compact(); c.HasError()) Die("compact", c.GetError());
        compactTotal.fetch_add(Seconds(compactStart));
      }
    };
    const auto start = Clock::now();
    std::thread helper(fill);
    fill();
    helper.join();
    fillSeconds = Seconds(start);
    compactSeconds = compactTotal;

    fs::create_directories(root / "zips");
    const auto zipStart = Clock::now();
    for (std::size_t d = 0; d < databases; ++d) {
      const std::string cmd = "cd '" + folders[d].string() + "' && zip -q -r '" + archives[d].string() + "' .";
      if (std::system(cmd.c_str()) != 0) {
        std::fprintf(stderr, "zip failed\n");
        std::exit(1);
      }
    }
    zipSeconds = Seconds(zipStart);

    if (auto r = StartAssetModule(); r.HasError()) Die("start", r.GetError());
  }

  void Cleanup() {
    EndAssetModule();
    FlushZipArchiveCache();
    std::error_code ec;
    fs::remove_all(root, ec);
  }

  std::vector<AssetDatabaseStruct> List(bool zipped) const {
    std::vector<AssetDatabaseStruct> list;
    for (std::size_t d = 0; d < databases; ++d)
      list.emplace_back(Url::FromFile((zipped ? archives[d] : folders[d]).string()));
    return list;
  }
};

BenchData& Bench() {
  static BenchData data;
  return data;
}

// Makes list the user's list and waits for its pass.
void Use(const std::vector<AssetDatabaseStruct>& list) {
  if (auto r = AssetDataBases::SetDatabases(list); r.HasError()) Die("set", r.GetError());
  if (auto r = AssetDataBases::WaitForDatabaseLoading(); r.HasError() || !*r) Die("wait", Error());
}

std::size_t MountedCount() {
  std::size_t n = 0;
  for (const AssetDatabaseState& s : AssetDataBases::GetDatabaseStates()) n += s.mounted ? 1 : 0;
  return n;
}

// One forced pass: every database of the user's list is opened anew.
double RemountAll() {
  const auto start = Clock::now();
  if (auto r = AssetDataBases::ReloadAssetRepositories(true); r.HasError()) Die("reload", r.GetError());
  if (auto r = AssetDataBases::WaitForDatabaseLoading(); r.HasError() || !*r) Die("wait", Error());
  return Seconds(start);
}

void MountBench(benchmark::State& state, bool zipped) {
  BenchData& data = Bench();
  Use(data.List(zipped));
  for (auto _ : state) state.SetIterationTime(RemountAll());
  state.counters["databases"] = static_cast<double>(MountedCount());
  state.counters["assets_per_db"] = static_cast<double>(data.assetsPerDatabase);
}

void BM_MountFoldersFromIndex(benchmark::State& state) {
  MountBench(state, false);
  state.counters["fill_s"] = Bench().fillSeconds;
  state.counters["compact_s"] = Bench().compactSeconds;
}
BENCHMARK(BM_MountFoldersFromIndex)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

void BM_MountFoldersByScan(benchmark::State& state) {
  BenchData& data = Bench();
  for (const fs::path& f : data.folders) fs::rename(f / "_index", f.parent_path() / (f.filename().string() + "_index"));
  MountBench(state, false);
  for (const fs::path& f : data.folders) fs::rename(f.parent_path() / (f.filename().string() + "_index"), f / "_index");
}
BENCHMARK(BM_MountFoldersByScan)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

void BM_MountZipArchives(benchmark::State& state) {
  MountBench(state, true);
  state.counters["zip_s"] = Bench().zipSeconds;
}
BENCHMARK(BM_MountZipArchives)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

void FindLatestBench(benchmark::State& state, bool zipped) {
  BenchData& data = Bench();
  Use(data.List(zipped));
  RemountAll();
  const AssetRepositoryRef user = AssetInterface::GetUserPrefsRepository();
  std::size_t found = 0;
  double first = -1;
  for (auto _ : state) {
    found = 0;
    const auto start = Clock::now();
    auto r = user->FindAssets(TypeArray{testing::kTextType}, Id(), Id(), LATEST,
                              [&found](const AssetDescription&) -> Result<bool> {
                                ++found;
                                return true;
                              });
    const double t = Seconds(start);
    if (r.HasError()) Die("find", r.GetError());
    if (first < 0) first = t;
    state.SetIterationTime(t);
  }
  state.counters["assets_found"] = static_cast<double>(found);
  state.counters["first_search_s"] = first;
}

void BM_FindLatestAcrossFolders(benchmark::State& state) { FindLatestBench(state, false); }
BENCHMARK(BM_FindLatestAcrossFolders)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

void BM_FindLatestAcrossArchives(benchmark::State& state) { FindLatestBench(state, true); }
BENCHMARK(BM_FindLatestAcrossArchives)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  Bench().Build();
  std::fprintf(stderr, "made %zu databases of %zu assets in %.1f s (compaction %.1f s, zip %.1f s)\n",
               Bench().databases, Bench().assetsPerDatabase, Bench().fillSeconds, Bench().compactSeconds,
               Bench().zipSeconds);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  Bench().Cleanup();
  return 0;
}
