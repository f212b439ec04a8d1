// Storing many small files and listing many assets with the kasset binary, each beside a plain
// tool on the same data in the same run:
//  - one `kasset add` of 20,000 small files vs. `git add -A && git commit` of the same tree
//    (counter add_per_git; the goal is at most 2);
//  - `kasset ls` (the table) and `kasset ls --ids` of a repository of 100,000 assets made by
//    `kasset add`, each beside `find DIR -name asset.info | sort` over the same repository tree
//    (counters ls_s and ids_s, ratios ls_per_find and ids_per_find; the goal is under one second).
// Data lives under /tmp and is removed at the end. KELVO_BENCH_STORE_FILES and
// KELVO_BENCH_LIST_ASSETS make the data smaller for a quick run.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "bench_util.h"

namespace fs = std::filesystem;
using namespace kelvo::bench;

namespace {

const fs::path& Work() {
  static const fs::path dir = fs::path("/tmp") / ("kelvo_store_bench_" + std::to_string(::getpid()));
  return dir;
}

// The wall and CPU (user and system) seconds of a run; negative when it failed.
struct Times {
  double wall = 0;
  double cpu = 0;
  bool Failed() const { return wall < 0; }
  Times& operator+=(const Times& t) {
    wall += t.wall;
    cpu += t.cpu;
    return *this;
  }
};

// Runs argv in cwd with kasset's directories under Work(), output to /dev/null.
Times Run(const fs::path& cwd, const std::vector<std::string>& argv) {
  const auto start = Clock::now();
  const pid_t pid = ::fork();
  if (pid == 0) {
    if (::chdir(cwd.c_str()) != 0) ::_exit(127);
    ::setenv("KELVO_PREFS_DIR", (Work() / "prefs").c_str(), 1);
    ::setenv("KELVO_GLOBALPREFS_DIR", (Work() / "gprefs").c_str(), 1);
    ::setenv("KELVO_LIBRARY_DIR", (Work() / "library").c_str(), 1);
    const int null = ::open("/dev/null", O_WRONLY);
    ::dup2(null, 1);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    ::execvp(args[0], args.data());
    ::_exit(127);
  }
  int status = 0;
  rusage usage{};
  ::wait4(pid, &status, 0, &usage);
  const double wall = Seconds(start);
  const double cpu = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                     static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? Times{wall, cpu} : Times{-1.0, cpu};
}

// count files of 64 to 512 random bytes named f<k> in dir; their names.
std::vector<std::string> MakeFiles(const fs::path& dir, std::size_t count) {
  fs::create_directories(dir);
  std::mt19937_64 random(42);
  std::vector<std::string> names;
  std::string bytes;
  for (std::size_t i = 0; i < count; ++i) {
    names.push_back("f" + std::to_string(i));
    bytes.resize(64 + random() % 449);
    for (char& c : bytes) c = static_cast<char>('a' + random() % 26);
    std::ofstream(dir / names.back(), std::ios::binary) << bytes;
  }
  return names;
}

// kasset init repo (not timed), then kasset --repo repo add names... in batches that fit the
// argument limit; the total times of the adds.
Times KassetAdd(const fs::path& repo, const fs::path& files, const std::vector<std::string>& names) {
  if (Run(Work(), {KASSET_BINARY, "init", repo.string()}).Failed()) return Times{-1.0, 0};
  Times total;
  constexpr std::size_t kBatch = 25000;
  for (std::size_t at = 0; at < names.size(); at += kBatch) {
    std::vector<std::string> argv{KASSET_BINARY, "--repo", repo.string(), "add"};
    argv.insert(argv.end(), names.begin() + static_cast<std::ptrdiff_t>(at),
                names.begin() + static_cast<std::ptrdiff_t>(std::min(names.size(), at + kBatch)));
    const Times t = Run(files, argv);
    if (t.Failed()) return t;
    total += t;
  }
  return total;
}

void BM_AddSmallFilesVersusGit(benchmark::State& state) {
  const std::size_t count = EnvNumber("KELVO_BENCH_STORE_FILES", 20000);
  const fs::path files = Work() / "files";
  const std::vector<std::string> names = MakeFiles(files, count);
  Times addTotal, gitTotal;
  int runs = 0;
  for (auto _ : state) {
    const fs::path repo = Work() / ("repo" + std::to_string(runs));
    const Times add = KassetAdd(repo, files, names);
    if (add.Failed()) {
      state.SkipWithError("kasset add failed");
      break;
    }
    fs::remove_all(files / ".git");
    (void)Run(files, {"git", "init", "-q"});
    Times git = Run(files, {"git", "add", "-A"});
    if (!git.Failed())
      git += Run(files, {"git", "-c", "user.name=bench", "-c", "user.email=bench@example.invalid", "commit", "-q",
                         "-m", "files"});
    if (git.Failed()) {
      state.SkipWithError("git failed");
      break;
    }
    fs::remove_all(repo);
    state.SetIterationTime(add.wall);
    addTotal += add;
    gitTotal += git;
    ++runs;
  }
  if (runs > 0) {
    state.counters["files"] = static_cast<double>(count);
    state.counters["add_s"] = addTotal.wall / runs;
    state.counters["git_s"] = gitTotal.wall / runs;
    state.counters["add_per_git"] = addTotal.wall / gitTotal.wall;
    state.counters["add_cpu_s"] = addTotal.cpu / runs;
    state.counters["git_cpu_s"] = gitTotal.cpu / runs;
    state.counters["cpu_add_per_git"] = addTotal.cpu / gitTotal.cpu;
  }
  fs::remove_all(files);
}
BENCHMARK(BM_AddSmallFilesVersusGit)->UseManualTime()->Iterations(2)->Unit(benchmark::kMillisecond);

void BM_ListAfterAdd(benchmark::State& state) {
  const std::size_t count = EnvNumber("KELVO_BENCH_LIST_ASSETS", 100000);
  const fs::path files = Work() / "listfiles";
  const fs::path repo = Work() / "listrepo";
  const Times add = KassetAdd(repo, files, MakeFiles(files, count));
  fs::remove_all(files);
  if (add.Failed()) {
    state.SkipWithError("kasset add failed");
    return;
  }
  Times lsTotal, idsTotal, findTotal;
  int runs = 0;
  const std::string anchor = "find '" + repo.string() + "' -name asset.info | sort";
  for (auto _ : state) {
    const Times ls = Run(Work(), {KASSET_BINARY, "--repo", repo.string(), "ls"});
    const Times ids = Run(Work(), {KASSET_BINARY, "--repo", repo.string(), "ls", "--ids"});
    const Times find = Run(Work(), {"sh", "-c", anchor});
    if (ls.Failed() || ids.Failed() || find.Failed()) {
      state.SkipWithError("kasset ls or find failed");
      break;
    }
    state.SetIterationTime(ls.wall);
    lsTotal += ls;
    idsTotal += ids;
    findTotal += find;
    ++runs;
  }
  if (runs > 0) {
    state.counters["assets"] = static_cast<double>(count);
    state.counters["add_s"] = add.wall;
    state.counters["ls_s"] = lsTotal.wall / runs;
    state.counters["ls_cpu_s"] = lsTotal.cpu / runs;
    state.counters["ids_s"] = idsTotal.wall / runs;
    state.counters["find_s"] = findTotal.wall / runs;
    state.counters["find_cpu_s"] = findTotal.cpu / runs;
    state.counters["ls_per_find"] = lsTotal.wall / findTotal.wall;
    state.counters["ids_per_find"] = idsTotal.wall / findTotal.wall;
    std::printf("kasset ls of %zu assets: %.3f s (CPU %.3f s), ls --ids %.3f s; %s: %.3f s (CPU %.3f s); "
                "ratio ls/find %.2f\n",
                count, lsTotal.wall / runs, lsTotal.cpu / runs, idsTotal.wall / runs, "find -name asset.info | sort",
                findTotal.wall / runs, findTotal.cpu / runs, lsTotal.wall / findTotal.wall);
  }
  fs::remove_all(repo);
}
BENCHMARK(BM_ListAfterAdd)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::error_code ec;
  fs::remove_all(Work(), ec);
  return 0;
}
