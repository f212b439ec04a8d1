// Typed asset benchmarks on an on-disk repository, each beside the plain operation it is built on,
// run on the same data in the same process:
//  - tagging 10,000 assets with one keyword vs. storing one plain metadata value on each;
//  - the category tree of 100,000 assets in 1,000 categories vs. the plain search over them, in a
//    repository opened from its index (as a new process finds it after kasset wrote the index) and,
//    once, in one opened by walking its tree, where each asset's category is read from its file.
// Data lives under /tmp and is removed at the end. KELVO_BENCH_TAG_ASSETS and
// KELVO_BENCH_TREE_ASSETS make the data smaller for a quick run.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>

#include "asset/storage/urlassetrepository.h"
#include "asset/types/category_asset.h"
#include "asset/types/category_tree.h"
#include "asset/types/keyword_asset.h"
#include "bench_util.h"
#include "kelvo/application.h"
#include "text_asset.h"

using namespace kelvo;
namespace fs = std::filesystem;

namespace {

using namespace kelvo::bench;

struct BenchDirectory {
  BenchDirectory() : root(fs::path("/tmp") / ("kelvo_types_bench_" + std::to_string(::getpid()))) {
    fs::remove_all(root);
    fs::create_directories(root / "prefs");
    fs::create_directories(root / "globalprefs");
    Application::SetUrl(APPLICATION_URLTYPE::PREFS_DIR, Url::FromFile((root / "prefs").string()));
    Application::SetUrl(APPLICATION_URLTYPE::GLOBALPREFS_DIR, Url::FromFile((root / "globalprefs").string()));
    testing::RegisterTextAssetType();
    (void)RegisterTypedAssetTypes();
  }
  ~BenchDirectory() { fs::remove_all(root); }
  fs::path root;
};

BenchDirectory& Directory() {
  static BenchDirectory dir;
  return dir;
}

std::shared_ptr<UrlAssetRepository> OpenRepository(const fs::path& path) {
  fs::create_directories(path);
  auto r = CreateUrlAssetRepository(Id("bench.types"), {}, Url::FromFile(path.string()), true, false, false);
  if (r.HasError()) {
    std::fprintf(stderr, "open failed: %s\n", r.GetError().ToString().c_str());
    std::abort();
  }
  return *r;
}

std::vector<AssetDescription> StoreTexts(const AssetRepositoryRef& repo, std::size_t count) {
  std::vector<AssetDescription> stored;
  stored.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    auto r = repo->StoreAsset(Id("asset" + std::to_string(i)), testing::MakeText(std::to_string(i)), nullptr);
    if (r.HasError()) {
      std::fprintf(stderr, "store failed: %s\n", r.GetError().ToString().c_str());
      std::abort();
    }
    stored.push_back(*r);
  }
  return stored;
}

// ---- tagging -------------------------------------------------------------------------------------

void BM_TagAssets(benchmark::State& state) {
  const std::size_t count = EnvNumber("KELVO_BENCH_TAG_ASSETS", 10000);
  auto repo = OpenRepository(Directory().root / "tag");
  const std::vector<AssetDescription> assets = StoreTexts(repo, count);
  (void)repo->StoreAsset(Id("wood"), KeywordAssetInterface::Create(), nullptr);
  const InternedId plainId{"net.kelvo.bench.plain"};
  double tagTotal = 0, plainTotal = 0, tagNoUsageTotal = 0;
  int runs = 0;
  for (auto _ : state) {
    // Tags every asset; its time, negative when a tag failed.
    const auto tagAll = [&](bool updateUsage) {
      const auto start = Clock::now();
      for (const AssetDescription& d : assets) {
        auto tagged = KeywordAssetInterface::AddKeyword(d, Id("wood"), false, updateUsage);
        if (tagged.HasError() || !*tagged) return -1.0;
      }
      return Seconds(start);
    };
    const double tagTime = tagAll(true);
    for (const AssetDescription& d : assets) (void)KeywordAssetInterface::RemoveKeyword(d, Id("wood"), false);
    const double tagNoUsageTime = tagAll(false);
    if (tagTime < 0 || tagNoUsageTime < 0) {
      state.SkipWithError("tagging failed");
      return;
    }
    auto start = Clock::now();
    for (const AssetDescription& d : assets) {
      if (repo->StoreMetaData(d, plainId, Data(DataArray{Data(Id("wood"))}), AssetMetaData::PERSISTENT).HasError()) {
        state.SkipWithError("plain store failed");
        return;
      }
    }
    const double plainTime = Seconds(start);
    state.SetIterationTime(tagTime);
    tagTotal += tagTime;
    tagNoUsageTotal += tagNoUsageTime;
    plainTotal += plainTime;
    ++runs;
    // Untag for the next run, outside the measured parts.
    for (const AssetDescription& d : assets) {
      (void)KeywordAssetInterface::RemoveKeyword(d, Id("wood"), false);
      (void)repo->StoreMetaData(d, plainId, Data(), AssetMetaData::PERSISTENT);
    }
  }
  if (runs > 0) {
    state.counters["assets"] = static_cast<double>(count);
    state.counters["tag_s"] = tagTotal / runs;
    state.counters["plain_store_s"] = plainTotal / runs;
    state.counters["tag_per_plain_store"] = tagTotal / plainTotal;
    // Without the keyword's usage count, which is a second metadata store per tag.
    state.counters["tag_no_usage_per_plain_store"] = tagNoUsageTotal / plainTotal;
  }
}
BENCHMARK(BM_TagAssets)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

// ---- the category tree ---------------------------------------------------------------------------

// The times of the category tree and of the plain search it is built on, after one unmeasured
// search (so that neither side pays for opening the tree); negative when either failed.
std::pair<double, double> TimeTreeAndSearch(const AssetRepositoryRef& repo, std::size_t count,
                                            std::size_t categories) {
  (void)repo->FindAssets(TypeArray{}, Id(), Id(), LATEST, [](const AssetDescription&) -> Result<bool> { return true; });
  auto start = Clock::now();
  std::size_t found = 0;
  auto searched = repo->FindAssets(TypeArray{}, Id(), Id(), LATEST, [&](const AssetDescription&) -> Result<bool> {
    ++found;
    return true;
  });
  const double searchTime = Seconds(start);
  start = Clock::now();
  auto tree = BuildCategoryTree(repo, nullptr);
  const double treeTime = Seconds(start);
  if (searched.HasError() || tree.HasError() || found < count || tree->nodes.size() != categories) return {-1.0, -1.0};
  return {treeTime, searchTime};
}

void BM_CategoryTree(benchmark::State& state) {
  const std::size_t count = EnvNumber("KELVO_BENCH_TREE_ASSETS", 100000);
  const std::size_t categories = std::max<std::size_t>(1, count / 100);
  auto repo = OpenRepository(Directory().root / "tree");
  // Ten top categories, the rest spread below them; each asset in one category.
  for (std::size_t c = 0; c < categories; ++c) {
    auto meta = std::make_shared<AssetMetaDataImpl>();
    if (c >= 10) meta->AddEntry(categoryids::parent, AssetMetaData::PERSISTENT, Data(Id("cat" + std::to_string(c % 10))));
    auto r = repo->StoreAsset(Id("cat" + std::to_string(c)), CategoryAssetInterface::Create(), meta);
    if (r.HasError()) std::abort();
  }
  for (std::size_t i = 0; i < count; ++i) {
    auto meta = std::make_shared<AssetMetaDataImpl>();
    meta->AddEntry(categoryids::parent, AssetMetaData::PERSISTENT, Data(Id("cat" + std::to_string(i % categories))));
    if (repo->StoreAsset(Id("asset" + std::to_string(i)), testing::MakeText(std::to_string(i)), meta).HasError())
      std::abort();
  }
  // A fresh repository object, as a new process would see the tree: first without an index.
  repo.reset();
  repo = OpenRepository(Directory().root / "tree");
  std::pair<double, double> walked = TimeTreeAndSearch(repo, count, categories);
  if (walked.first < 0) {
    state.SkipWithError("search or tree failed");
    return;
  }
  if (repo->Compact().HasError()) {
    state.SkipWithError("compaction failed");
    return;
  }
  repo.reset();
  repo = OpenRepository(Directory().root / "tree");
  if (!repo->WasOpenedFromIndex()) {
    state.SkipWithError("the repository was not opened from its index");
    return;
  }
  double treeTotal = 0, searchTotal = 0;
  int runs = 0;
  for (auto _ : state) {
    auto [treeTime, searchTime] = TimeTreeAndSearch(repo, count, categories);
    if (treeTime < 0) {
      state.SkipWithError("search or tree failed");
      return;
    }
    state.SetIterationTime(treeTime);
    treeTotal += treeTime;
    searchTotal += searchTime;
    ++runs;
  }
  if (runs > 0) {
    state.counters["assets"] = static_cast<double>(count);
    state.counters["categories"] = static_cast<double>(categories);
    state.counters["tree_s"] = treeTotal / runs;
    state.counters["plain_search_s"] = searchTotal / runs;
    state.counters["tree_per_plain_search"] = treeTotal / searchTotal;
    state.counters["walked_tree_s"] = walked.first;
    state.counters["walked_plain_search_s"] = walked.second;
    state.counters["walked_tree_per_plain_search"] = walked.first / walked.second;
  }
}
BENCHMARK(BM_CategoryTree)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
