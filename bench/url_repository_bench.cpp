// URL repository benchmarks, each against a plain tool doing the same work in the same run:
//  - storing a 256 MiB file as a file asset vs. `openssl dgst -sha256` followed by `cp`;
//  - opening a repository of 100,000 assets from its index vs. by walking its tree;
//  - the walk vs. `find` over the same tree.
// Data lives under /tmp and is removed at the end. KELVO_BENCH_ASSETS and KELVO_BENCH_FILE_MIB
// make the data smaller for a quick run.

#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

#include "asset/core/asset_description.h"
#include "kelvo/application.h"
#include "text_asset.h"
#include "bench_util.h"
#include "asset/storage/urlassetrepository.h"

using namespace kelvo;
namespace fs = std::filesystem;
using namespace kelvo::bench;

namespace {

// Runs a shell command and returns its wall time; negative when it failed.
double TimeCommand(const std::string& command) {
  const auto start = Clock::now();
  const int status = std::system(command.c_str());
  const double t = Seconds(start);
  return status == 0 ? t : -1.0;
}

// KELVO_BENCH_DIR names a directory that is kept between runs, so that a large repository is filled
// once and then profiled on its own.
struct BenchDirectory {
  BenchDirectory() {
    const char* kept = std::getenv("KELVO_BENCH_DIR");
    keep = kept && *kept;
    root = keep ? fs::path(kept) : fs::path("/tmp") / ("kelvo_url_bench_" + std::to_string(::getpid()));
    if (!keep) fs::remove_all(root);
    fs::create_directories(root / "prefs");
    fs::create_directories(root / "globalprefs");
    Application::SetUrl(APPLICATION_URLTYPE::PREFS_DIR, Url::FromFile((root / "prefs").string()));
    Application::SetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR, Url::FromFile((root / "globalprefs").string()));
  }
  ~BenchDirectory() {
    if (!keep) fs::remove_all(root);
  }
  fs::path root;
  bool keep = false;
};

BenchDirectory& Directory() {
  static BenchDirectory dir;
  return dir;
}

std::shared_ptr<UrlAssetRepository> OpenRepository(const fs::path& path) {
  fs::create_directories(path);
  auto r = CreateUrlAssetRepository(Id("bench.repo"), {}, Url::FromFile(path.string()), true, false, false);
  if (r.HasError()) {
    std::fprintf(stderr, "open failed: %s\n", r.GetError().ToString().c_str());
    std::abort();
  }
  return *r;
}

// ---- storing a large file ------------------------------------------------------------------------

void BM_StoreLargeFile(benchmark::State& state) {
  const fs::path root = Directory().root / "large";
  fs::create_directories(root);
  const std::size_t mib = EnvNumber("KELVO_BENCH_FILE_MIB", 256);
  const fs::path source = root / "source.bin";
  {
    std::ofstream out(source, std::ios::binary);
    std::mt19937_64 random(42);
    std::vector<std::uint64_t> block(1 << 17);
    for (std::size_t i = 0; i < mib; ++i) {
      for (auto& w : block) w = random();
      out.write(reinterpret_cast<const char*>(block.data()), static_cast<std::streamsize>(block.size() * 8));
    }
  }
  auto repo = OpenRepository(root / "repo");
  double storeTotal = 0, toolTotal = 0, storeCpu = 0, toolCpu = 0;
  int runs = 0;
  for (auto _ : state) {
    (void)std::system("sync");
    const double cpuStart = CpuSeconds(RUSAGE_SELF);
    const auto start = Clock::now();
    auto stored = repo->StoreAsset(Id("large.file"), FileAssetInterface::Create(Url::FromFile(source.string())), nullptr);
    const double storeTime = Seconds(start);
    storeCpu += CpuSeconds(RUSAGE_SELF) - cpuStart;
    if (stored.HasError()) {
      state.SkipWithError(stored.GetError().ToString().c_str());
      break;
    }
    (void)std::system("sync");
    const double childCpuStart = CpuSeconds(RUSAGE_CHILDREN);
    const double toolTime = TimeCommand("openssl dgst -sha256 '" + source.string() + "' > /dev/null && cp '" +
                                        source.string() + "' '" + (root / "copy.bin").string() + "'");
    if (toolTime < 0) {
      state.SkipWithError("openssl or cp failed");
      break;
    }
    toolCpu += CpuSeconds(RUSAGE_CHILDREN) - childCpuStart;
    state.SetIterationTime(storeTime);
    storeTotal += storeTime;
    toolTotal += toolTime;
    ++runs;
    (void)repo->EraseAsset(*stored);
    fs::remove(root / "copy.bin");
  }
  if (runs > 0) {
    state.counters["store_s"] = storeTotal / runs;
    state.counters["hash_copy_s"] = toolTotal / runs;
    state.counters["store_per_hash_copy"] = storeTotal / toolTotal;
    state.counters["store_cpu_s"] = storeCpu / runs;
    state.counters["hash_copy_cpu_s"] = toolCpu / runs;
    state.counters["cpu_ratio"] = toolCpu > 0 ? storeCpu / toolCpu : 0;
    state.counters["MiB"] = static_cast<double>(mib);
  }
  repo.reset();
  fs::remove_all(root);
}
BENCHMARK(BM_StoreLargeFile)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

// ---- opening a large repository ----------------------------------------------------------------------

struct LargeRepository {
  LargeRepository() {
    testing::RegisterTextAssetType();
    path = Directory().root / "many";
    count = EnvNumber("KELVO_BENCH_ASSETS", 100000);
    if (Directory().keep && fs::exists(path / "_index")) return; // filled by an earlier run
    const auto start = Clock::now();
    auto repo = OpenRepository(path);
    for (std::size_t i = 0; i < count; ++i) {
      auto r = repo->StoreAsset(Id("asset." + std::to_string(i)), testing::MakeText("content " + std::to_string(i)),
                                nullptr);
      if (r.HasError()) {
        std::fprintf(stderr, "store failed: %s\n", r.GetError().ToString().c_str());
        std::abort();
      }
    }
    fillSeconds = Seconds(start);
    const auto compactStart = Clock::now();
    auto compacted = repo->Compact();
    if (compacted.HasError()) {
      std::fprintf(stderr, "compact failed: %s\n", compacted.GetError().ToString().c_str());
      std::abort();
    }
    compactSeconds = Seconds(compactStart);
  }
  fs::path path;
  std::size_t count = 0;
  double fillSeconds = 0;
  double compactSeconds = 0;
};

LargeRepository& Large() {
  static LargeRepository large;
  return large;
}

// Times of one open: reading the Ids, listing the latest version of each, releasing the repository.
struct OpenTimes {
  double open = 0;
  double list = 0;
  double close = 0;
};

// Opens the repository and reads the latest version (with its time) of every asset.
std::size_t OpenAndList(const fs::path& path, bool expectIndex, OpenTimes* times = nullptr) {
  auto start = Clock::now();
  auto repo = OpenRepository(path);
  if (times) times->open += Seconds(start);
  if (repo->WasOpenedFromIndex() != expectIndex) {
    std::fprintf(stderr, "opened %s the index\n", expectIndex ? "without" : "from");
    std::abort();
  }
  start = Clock::now();
  std::size_t n = 0;
  auto r = repo->FindAssets(TypeArray{}, Id(), Id(), LATEST | WITHOUT_BASES, [&n](const AssetDescription&) -> Result<bool> {
    ++n;
    return true;
  });
  if (r.HasError()) std::abort();
  if (times) times->list += Seconds(start);
  start = Clock::now();
  repo.reset();
  if (times) times->close += Seconds(start);
  return n;
}

void BM_OpenFromIndex(benchmark::State& state) {
  LargeRepository& large = Large();
  std::size_t n = 0;
  OpenTimes times;
  int runs = 0;
  for (auto _ : state) {
    n = OpenAndList(large.path, true, &times);
    ++runs;
  }
  state.counters["assets"] = static_cast<double>(n);
  state.counters["open_s"] = times.open / runs;
  state.counters["list_s"] = times.list / runs;
  state.counters["close_s"] = times.close / runs;
  state.counters["fill_s"] = large.fillSeconds;
  state.counters["compact_s"] = large.compactSeconds;
}
BENCHMARK(BM_OpenFromIndex)->Iterations(3)->Unit(benchmark::kMillisecond);

// Opening by walking the tree, against opening from the index in the same run. The ratio compares
// open + list; releasing the repository (close_s) is the same work either way and is shown apart.
void BM_OpenByScan(benchmark::State& state) {
  LargeRepository& large = Large();
  const fs::path index = large.path / "_index";
  const fs::path aside = large.path.parent_path() / "index_aside";
  fs::rename(index, aside);
  // Every figure is taken with the tree in the page cache: one untimed walk first.
  (void)TimeCommand("find '" + large.path.string() + "' > /dev/null");
  std::size_t n = 0;
  OpenTimes scan, indexed;
  double scanCpu = 0, indexCpu = 0;
  int runs = 0;
  for (auto _ : state) {
    const double cpuStart = CpuSeconds(RUSAGE_SELF);
    n = OpenAndList(large.path, false, &scan);
    scanCpu += CpuSeconds(RUSAGE_SELF) - cpuStart;
    ++runs;
  }
  fs::rename(aside, index);
  for (int i = 0; i < runs; ++i) {
    const double cpuStart = CpuSeconds(RUSAGE_SELF);
    (void)OpenAndList(large.path, true, &indexed);
    indexCpu += CpuSeconds(RUSAGE_SELF) - cpuStart;
  }
  const double findCpuStart = CpuSeconds(RUSAGE_CHILDREN);
  const double findTime = TimeCommand("find '" + large.path.string() + "' > /dev/null");
  const double scanSeconds = (scan.open + scan.list) / runs;
  const double indexSeconds = (indexed.open + indexed.list) / runs;
  state.counters["assets"] = static_cast<double>(n);
  state.counters["scan_s"] = scanSeconds;
  state.counters["scan_close_s"] = scan.close / runs;
  state.counters["scan_cpu_s"] = scanCpu / runs;
  state.counters["index_s"] = indexSeconds;
  state.counters["index_close_s"] = indexed.close / runs;
  state.counters["index_cpu_s"] = indexCpu / runs;
  state.counters["scan_per_index"] = scanSeconds / indexSeconds;
  state.counters["find_s"] = findTime;
  state.counters["find_cpu_s"] = CpuSeconds(RUSAGE_CHILDREN) - findCpuStart;
  state.counters["scan_per_find"] = findTime > 0 ? scanSeconds / findTime : 0;
}
BENCHMARK(BM_OpenByScan)->Iterations(2)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  Directory();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
