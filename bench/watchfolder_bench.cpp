// Watch folder benchmarks on a generated folder of 100,000 files in 10,000 directories, each
// printed beside what it is measured against, in the same run:
//  - the first scan (store empty: watches set, walk, listing published) vs.
//    `find DIR -printf '%s %T@\n'` over the same folder, in wall and CPU time, and the scan with the
//    listing written to the store, which follows the publication in the same job;
//  - a restart from the store: opening the folder again until its listing is published;
//  - memory per watched file: the growth of the resident set over the first scan, divided by the
//    files, beside the repository's own estimate of its listing.
// Data lives under /tmp and is removed at the end. KELVO_BENCH_WATCH_FILES makes the folder smaller
// (ten files per directory); KELVO_BENCH_DIR keeps the generated folder between runs.

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "asset/watchfolder/filewatchassetrepository.h"
#include "bench_util.h"
#include "kelvo/application.h"

using namespace kelvo;
namespace fs = std::filesystem;

namespace {

using namespace kelvo::bench;

// The resident set of this process in bytes, after handing freed heap back to the system.
double ResidentBytes() {
  ::malloc_trim(0);
  std::ifstream statm("/proc/self/statm");
  std::size_t size = 0, resident = 0;
  statm >> size >> resident;
  return static_cast<double>(resident) * static_cast<double>(::sysconf(_SC_PAGESIZE));
}

struct BenchFolder {
  BenchFolder() : files(EnvNumber("KELVO_BENCH_WATCH_FILES", 100000)) {
    const char* kept = std::getenv("KELVO_BENCH_DIR");
    keep = kept && *kept;
    root = keep ? fs::path(kept) : fs::path("/tmp") / ("kelvo_watch_bench_" + std::to_string(::getpid()));
    folder = root / "folder";
    // 100 top directories, each holding the rest as sub-directories; ten files in every one.
    const std::size_t directories = std::max<std::size_t>(1, files / 10);
    const std::size_t tops = std::max<std::size_t>(1, directories / 100);
    const fs::path marker = root / ("generated_" + std::to_string(files));
    if (!fs::exists(marker)) {
      fs::remove_all(folder);
      std::size_t made = 0;
      for (std::size_t d = 0; d < directories; ++d) {
        const fs::path top = folder / ("dir" + std::to_string(d % tops));
        const fs::path dir = d < tops ? top : top / ("sub" + std::to_string(d));
        fs::create_directories(dir);
        for (std::size_t f = 0; f < 10 && made < files; ++f, ++made)
          std::ofstream(dir / ("file" + std::to_string(f) + ".png"), std::ios::binary) << std::string(d % 97 + f, 'x');
      }
      std::ofstream(marker) << files;
    }
    globalprefs = root / "globalprefs";
    Application::SetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR, Url::FromFile(globalprefs.string()));
  }
  ~BenchFolder() { fs::remove_all(keep ? globalprefs : root); }

  std::shared_ptr<FileWatchAssetRepositoryImpl> Open() const {
    auto r = FileWatchAssetRepositoryImpl::Create(Url::FromFile(folder.string()), {});
    if (r.HasError()) {
      std::fprintf(stderr, "open failed: %s\n", r.GetError().ToString().c_str());
      std::abort();
    }
    return *r;
  }
  // The store goes, so that the next open walks the folder as the first time.
  void ForgetStore() const { fs::remove_all(globalprefs); }

  std::size_t files;
  fs::path root, folder, globalprefs;
  bool keep = false;
};

BenchFolder& Folder() {
  static BenchFolder folder;
  return folder;
}

double TimeFind(const fs::path& folder) {
  const auto start = Clock::now();
  const int status = std::system(("find '" + folder.string() + "' -printf '%s %T@\\n' >/dev/null").c_str());
  return status == 0 ? Seconds(start) : -1.0;
}

void BM_FirstScan(benchmark::State& state) {
  BenchFolder& folder = Folder();
  (void)TimeFind(folder.folder); // both sides start with the folder in the page cache
  double scanTotal = 0, storedTotal = 0, findTotal = 0, scanCpuTotal = 0, findCpuTotal = 0;
  double rssPerFile = 0, estimatePerFile = 0;
  int runs = 0;
  for (auto _ : state) {
    folder.ForgetStore();
    const double before = ResidentBytes();
    const double cpuStart = CpuSeconds(RUSAGE_SELF);
    const auto start = Clock::now();
    auto repo = folder.Open(); // returns once the listing of the walk is published
    const double scanTime = Seconds(start);
    const double scanCpu = CpuSeconds(RUSAGE_SELF) - cpuStart;
    if (repo->WaitForScan().HasError() || repo->GetNodeCount() < folder.files) {
      state.SkipWithError("the first scan failed");
      return;
    }
    const double storedTime = Seconds(start);
    if (runs == 0) {
      rssPerFile = (ResidentBytes() - before) / static_cast<double>(folder.files);
      estimatePerFile = static_cast<double>(repo->EstimateMemoryPerNode());
    }
    repo.reset();
    const double findCpuStart = CpuSeconds(RUSAGE_CHILDREN);
    const double findTime = TimeFind(folder.folder);
    findCpuTotal += CpuSeconds(RUSAGE_CHILDREN) - findCpuStart;
    if (findTime < 0) {
      state.SkipWithError("find failed");
      return;
    }
    state.SetIterationTime(scanTime);
    scanTotal += scanTime;
    storedTotal += storedTime;
    scanCpuTotal += scanCpu;
    findTotal += findTime;
    ++runs;
  }
  state.counters["files"] = static_cast<double>(folder.files);
  state.counters["scan_s"] = scanTotal / runs;
  state.counters["find_s"] = findTotal / runs;
  state.counters["scan_per_find"] = scanTotal / findTotal;
  state.counters["scan_cpu_per_find_cpu"] = scanCpuTotal / findCpuTotal;
  state.counters["scan_and_store_s"] = storedTotal / runs;
  state.counters["scan_and_store_per_find"] = storedTotal / findTotal;
  state.counters["rss_bytes_per_file"] = rssPerFile;
  state.counters["listing_bytes_per_file"] = estimatePerFile;
}
BENCHMARK(BM_FirstScan)->UseManualTime()->Iterations(2)->Unit(benchmark::kMillisecond);

void BM_RestartFromStore(benchmark::State& state) {
  BenchFolder& folder = Folder();
  folder.ForgetStore();
  {
    auto repo = folder.Open();
    if (repo->WaitForScan().HasError()) {
      state.SkipWithError("the first scan failed");
      return;
    }
  }
  double total = 0;
  int runs = 0;
  for (auto _ : state) {
    const auto start = Clock::now();
    auto repo = folder.Open(); // returns once the listing from the store is published
    const double restart = Seconds(start);
    if (repo->GetNodeCount() < folder.files) {
      state.SkipWithError("the restart did not show the folder");
      return;
    }
    state.SetIterationTime(restart);
    total += restart;
    ++runs;
    // The walk that follows the restart isn't part of it.
    (void)repo->WaitForScan();
  }
  state.counters["files"] = static_cast<double>(folder.files);
  state.counters["restart_s"] = total / runs;
  state.counters["target_s"] = 1.0;
}
BENCHMARK(BM_RestartFromStore)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
