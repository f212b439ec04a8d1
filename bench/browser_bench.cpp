// The asset browser over 100,000 assets in 5 stacked on-disk repositories (metadata on disk, index
// present), beside `fzf --filter` over the same 100,000 names in the same run. For each filter
// change of a user typing a word it measures, from the call that changes the filter: the time to
// the first ADD, the time to END, and how long the calling thread was blocked in the call. The
// first job, which searches the repositories and reads every asset's metadata, is reported apart;
// later changes reuse what it kept. The caller's context switches within the calls tell a wait
// (voluntary) from the scheduler's preemption. KELVO_BENCH_BROWSER_ASSETS makes the set smaller;
// KELVO_BENCH_BROWSER_DIR puts the repositories elsewhere than /tmp (a tmpfs fills faster).

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "asset/search/asset_browser.h"
#include "asset/storage/urlassetrepository.h"
#include "asset/types/keyword_asset.h"
#include "asset/types/typed_assets.h"
#include "bench_util.h"
#include "kelvo/application.h"
#include "text_asset.h"

using namespace kelvo;
using namespace kelvo::bench;
namespace fs = std::filesystem;

namespace {

constexpr std::size_t kRepositories = 5;
const char* const kWords[] = {"Oak", "Pine", "Beam", "Board", "Plank", "Column", "Tile", "Slab"};
// What a user types, one key at a time, with the word changed once.
const char* const kTyped[] = {"b", "be", "bea", "beam", "beam p", "beam pl", "oak"};

std::string NameOf(std::size_t i) {
  return std::string(kWords[i % 8]) + " " + kWords[(i / 8) % 8] + " " + std::to_string(i);
}

AssetMetaDataRef NameMeta(const std::string& name, const Id& keyword) {
  DataDictionary text;
  text.SetData(stringkeys::translatedString, Data(name));
  DataDictionary strings;
  strings.SetData(stringkeys::name, Data(text));
  MetaEntryMap entries;
  entries[AssetInterface::GetLanguageMetaDataId(Id(Language::GetDefaultLanguage()->GetIdentifier()))] =
      MetaEntry{Data(strings), AssetMetaData::PERSISTENT, true, 0};
  entries[keywordids::keywords] = MetaEntry{Data(DataArray{Data(keyword)}), AssetMetaData::PERSISTENT, true, 0};
  return std::make_shared<AssetMetaDataImpl>(std::weak_ptr<AssetRepositoryInterface>(), testing::kTextType,
                                             IdAndVersion(), VersionKey{}, Data(), std::move(entries));
}

struct BenchData {
  fs::path root;
  std::size_t count = 0;
  std::vector<AssetRepositoryRef> repositories; // the top one first
  double fillSeconds = 0;

  BenchData() {
    testing::RegisterTextAssetType();
    (void)RegisterTypedAssetTypes();
    const char* dir = std::getenv("KELVO_BENCH_BROWSER_DIR");
    root = fs::path(dir && *dir ? dir : "/tmp") / ("kelvo_browser_bench_" + std::to_string(::getpid()));
    fs::remove_all(root);
    fs::create_directories(root / "prefs");
    fs::create_directories(root / "globalprefs");
    Application::SetUrl(APPLICATION_URLTYPE::PREFS_DIR, Url::FromFile((root / "prefs").string()));
    Application::SetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR, Url::FromFile((root / "globalprefs").string()));
    count = EnvNumber("KELVO_BENCH_BROWSER_ASSETS", 100000);
    // The benchmark compacts each repository itself once it is filled.
    UrlAssetRepository::SetCompactionDelayOverride(3600);
    const auto start = Clock::now();
    std::ofstream names(root / "names.txt");
    for (std::size_t r = 0; r < kRepositories; ++r) {
      auto repo = Open(r, true);
      const Id keyword("kw.x" + std::to_string(r));
      for (std::size_t i = r; i < count; i += kRepositories) {
        const std::string name = NameOf(i);
        auto stored = repo->StoreAsset(Id("asset" + std::to_string(i)), testing::MakeText(name), NameMeta(name, keyword));
        if (stored.HasError()) Die("store", stored.GetError());
        names << name << "\n";
      }
      if (auto compacted = dynamic_cast<UrlAssetRepository&>(*repo).Compact(); compacted.HasError())
        Die("compact", compacted.GetError());
    }
    fillSeconds = Seconds(start);
    // Opened again, from their indexes, and stacked: a search of the top one walks all five.
    for (std::size_t r = kRepositories; r-- > 0;) {
      RepositoryArray bases;
      if (!repositories.empty()) bases.push_back(repositories.front());
      repositories.insert(repositories.begin(), Open(r, false, bases));
    }
  }
  ~BenchData() { fs::remove_all(root); }

  AssetRepositoryRef Open(std::size_t r, bool writable, const RepositoryArray& bases = {}) {
    const fs::path path = root / ("repo" + std::to_string(r));
    fs::create_directories(path);
    auto repo = CreateUrlAssetRepository(Id("bench.browser" + std::to_string(r)), bases, Url::FromFile(path.string()),
                                         writable, false, false);
    if (repo.HasError()) Die("open", repo.GetError());
    return *repo;
  }
};

BenchData& Data100k() {
  static BenchData data;
  return data;
}

// Times of the delegate's commands, from the moment the filter changed.
class Timing {
public:
  BuildEntryDelegate Delegate() {
    return [this](const AssetBrowserRef&, BUILDBROWSERENTRYCOMMAND command, const Data&, const Data& payload,
                  const BrowserEntry& entry) -> Result<Data> {
      std::lock_guard guard(_lock);
      if (command == BUILDBROWSERENTRYCOMMAND::START) _rows = 0;
      if (command == BUILDBROWSERENTRYCOMMAND::ADD && !entry.isGroup && _rows++ == 0) _firstAdd = Clock::now();
      if (command == BUILDBROWSERENTRYCOMMAND::END && payload == Data(false)) {
        _end = Clock::now();
        _lastRows = _rows;
        ++_finished;
        _changed.notify_all();
      }
      return Data();
    };
  }
  std::size_t Finished() {
    std::lock_guard guard(_lock);
    return _finished;
  }
  // Waits for a job after finished to end; the first ADD and END in seconds after since.
  void Wait(std::size_t finished, Clock::time_point since, double& firstAdd, double& end, std::size_t& rows) {
    std::unique_lock locked(_lock);
    _changed.wait(locked, [&] { return _finished > finished; });
    firstAdd = _lastRows ? std::chrono::duration<double>(_firstAdd - since).count() : 0.0;
    end = std::chrono::duration<double>(_end - since).count();
    rows = _lastRows;
  }

private:
  std::mutex _lock;
  std::condition_variable _changed;
  Clock::time_point _firstAdd, _end;
  std::size_t _rows = 0, _lastRows = 0, _finished = 0;
};

struct Results {
  double coldEnd = 0;
  double worstFirstAdd = 0, worstEnd = 0, worstBlocked = 0;
  double sumEnd = 0;
  std::size_t callWaits = 0, callPreemptions = 0; // context switches of the caller within the calls
  double worstCpu = 0; // processor time of the whole process from the change to END
  std::size_t changes = 0;
  double fzf = 0;    // the slowest typed text
  double sumFzf = 0; // over all typed texts, as sumEnd
  std::size_t fzfRows = 0;
} g_results;
double g_loadAverage = 0;

void BM_BrowserFilterChanges(benchmark::State& state) {
  BenchData& data = Data100k();
  for (auto _ : state) {
    Timing timing;
    AssetBrowserRef browser = *AssetBrowserInterface::Create(ASSETBROWSERMODE::ASSETS);
    browser->SetGraphModel(std::make_shared<RepositoryGraphModelImpl>(data.repositories.front()));
    browser->SetBuildEntryDelegate(timing.Delegate());
    double firstAdd = 0, end = 0;
    std::size_t rows = 0;
    auto since = Clock::now();
    browser->DoFiltering("", "GROUPBY:NONE", "FIRSTITEMS:NONE", "a", false, false);
    browser->EnableUpdates(true);
    timing.Wait(0, since, firstAdd, end, rows);
    g_results.coldEnd = end;
    for (const char* typed : kTyped) {
      const std::size_t finished = timing.Finished();
      const double cpuStart = CpuSeconds(RUSAGE_SELF);
      rusage before{}, after{};
      ::getrusage(RUSAGE_THREAD, &before);
      since = Clock::now();
      browser->DoFiltering("", "GROUPBY:NONE", "FIRSTITEMS:NONE", typed, false, false);
      const double blocked = Seconds(since);
      ::getrusage(RUSAGE_THREAD, &after);
      // A voluntary switch is a wait on a lock or a job; an involuntary one is the scheduler's.
      g_results.callWaits += static_cast<std::size_t>(after.ru_nvcsw - before.ru_nvcsw);
      g_results.callPreemptions += static_cast<std::size_t>(after.ru_nivcsw - before.ru_nivcsw);
      timing.Wait(finished, since, firstAdd, end, rows);
      const double cpu = CpuSeconds(RUSAGE_SELF) - cpuStart;
      g_results.worstCpu = std::max(g_results.worstCpu, cpu);
      state.counters[std::string("cpu_ms \"") + typed + "\""] = cpu * 1e3;
      g_results.worstBlocked = std::max(g_results.worstBlocked, blocked);
      g_results.worstFirstAdd = std::max(g_results.worstFirstAdd, firstAdd);
      g_results.worstEnd = std::max(g_results.worstEnd, end);
      g_results.sumEnd += end;
      ++g_results.changes;
      state.counters[std::string("end_ms \"") + typed + "\""] = end * 1e3;
      state.counters[std::string("rows \"") + typed + "\""] = static_cast<double>(rows);
      state.counters[std::string("blocked_us \"") + typed + "\""] = blocked * 1e6;
    }
    browser->JobRefReset(true);
    double load[1] = {0};
    if (::getloadavg(load, 1) == 1) g_loadAverage = load[0];
  }
}
BENCHMARK(BM_BrowserFilterChanges)->Iterations(1)->Unit(benchmark::kMillisecond);

// fzf over the same names, for each typed text; the slowest is kept.
void BM_FzfFilter(benchmark::State& state) {
  BenchData& data = Data100k();
  for (auto _ : state) {
    for (const char* typed : kTyped) {
      const auto start = Clock::now();
      const std::string command = "fzf --filter '" + std::string(typed) + "' < '" + (data.root / "names.txt").string() +
                                  "' > '" + (data.root / "fzf.txt").string() + "'";
      if (std::system(command.c_str()) != 0) {
        state.SkipWithError("fzf failed");
        return;
      }
      const double seconds = Seconds(start);
      g_results.fzf = std::max(g_results.fzf, seconds);
      g_results.sumFzf += seconds;
    }
    std::ifstream out(data.root / "fzf.txt");
    g_results.fzfRows = static_cast<std::size_t>(std::count(std::istreambuf_iterator<char>(out), {}, '\n'));
  }
}
BENCHMARK(BM_FzfFilter)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  const Results& r = g_results;
  std::printf("%zu assets in %zu repositories (filled and compacted in %.1f s); first job, searching and reading "
              "all: %.1f ms\n",
              Data100k().count, kRepositories, Data100k().fillSeconds, r.coldEnd * 1e3);
  std::printf("%zu filter changes: first ADD at most %.1f ms (target 50), END at most %.1f ms (target 150), mean END "
              "%.1f ms; caller blocked at most %.3f ms (target 1), in the calls %zu waits and %zu preemptions\n",
              r.changes, r.worstFirstAdd * 1e3, r.worstEnd * 1e3, r.changes ? r.sumEnd / r.changes * 1e3 : 0.0,
              r.worstBlocked * 1e3, r.callWaits, r.callPreemptions);
  std::printf("processor time from a change to END at most %.1f ms; load average during the run %.1f\n",
              r.worstCpu * 1e3, g_loadAverage);
  std::printf("fzf --filter over the same names: slowest %.1f ms, mean %.1f ms; ratio browser END / fzf: slowest "
              "%.2f, mean %.2f\n",
              r.fzf * 1e3, r.sumFzf / std::size(kTyped) * 1e3, r.fzf > 0 ? r.worstEnd / r.fzf : 0.0,
              r.sumFzf > 0 ? (r.sumEnd / static_cast<double>(r.changes)) / (r.sumFzf / std::size(kTyped)) : 0.0);
  benchmark::Shutdown();
  return 0;
}
