// Search and store throughput of the base asset repository over the in-memory back end.

#include <benchmark/benchmark.h>

#include <atomic>
#include <thread>

#include "asset/core/memoryassetrepository.h"
#include "text_asset.h"

using namespace kelvo;
using namespace kelvo::testing;

namespace {

constexpr int kAssets = 100000;
constexpr int kRepositories = 5;
constexpr int kVersions = 3;

// Five stacked repositories; asset i has its three versions in repositories i, i+1 and i+2 (mod 5)
// so that the latest version of most assets must be chosen across bases.
struct Stack {
  std::vector<std::shared_ptr<MemoryAssetRepositoryImpl>> repos;
  Stack() {
    RegisterTextAssetType();
    for (int r = 0; r < kRepositories; ++r) {
      repos.push_back(*MemoryAssetRepositoryImpl::Create(Id("bench.repo" + std::to_string(r)), true));
      if (r > 0) (void)repos[static_cast<std::size_t>(r - 1)]->AddBase(repos.back());
    }
    for (int i = 0; i < kAssets; ++i) {
      const Id aid("asset" + std::to_string(i));
      for (int v = 0; v < kVersions; ++v)
        (void)repos[static_cast<std::size_t>((i + v) % kRepositories)]->StoreAsset(aid, MakeText(std::to_string(v)), nullptr);
    }
  }
};

Stack& GetStack() {
  static Stack stack;
  return stack;
}

void BM_FindLatestAcrossFiveRepositories(benchmark::State& state) {
  Stack& stack = GetStack();
  for (auto _ : state) {
    std::size_t found = 0;
    auto r = stack.repos.front()->FindAssets({}, Id(), Id(), LATEST, [&](const AssetDescription&) -> Result<bool> {
      ++found;
      return true;
    });
    if (r.HasError() || found != static_cast<std::size_t>(kAssets)) state.SkipWithError("wrong result");
    benchmark::DoNotOptimize(found);
  }
  state.counters["assets/s"] = benchmark::Counter(static_cast<double>(kAssets), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_FindLatestAcrossFiveRepositories)->Unit(benchmark::kMillisecond);

void BM_FindLatestOneId(benchmark::State& state) {
  Stack& stack = GetStack();
  int i = 0;
  for (auto _ : state) {
    auto r = stack.repos.front()->FindLatestAsset(Id(), Id("asset" + std::to_string(i++ % kAssets)), Id(), NONE);
    benchmark::DoNotOptimize(r);
  }
}
BENCHMARK(BM_FindLatestOneId);

void BM_StoreSmallAssets(benchmark::State& state) {
  RegisterTextAssetType();
  auto repo = *MemoryAssetRepositoryImpl::Create(Id("bench.store"), true);
  std::int64_t i = 0;
  for (auto _ : state) {
    auto r = repo->StoreAsset(Id("a" + std::to_string(i % 1000)), MakeText("content " + std::to_string(i)), nullptr);
    if (r.HasError()) state.SkipWithError("store failed");
    ++i;
  }
  state.counters["stores/s"] = benchmark::Counter(static_cast<double>(i), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_StoreSmallAssets);

// A full LATEST search of 10,000 assets while another thread keeps storing into the same repository.
void BM_FindWhileStoring(benchmark::State& state) {
  RegisterTextAssetType();
  auto repo = *MemoryAssetRepositoryImpl::Create(Id("bench.mixed"), true);
  for (int i = 0; i < 10000; ++i) (void)repo->StoreAsset(Id("a" + std::to_string(i)), MakeText("x"), nullptr);
  std::atomic<bool> stop{false};
  std::atomic<std::int64_t> stores{0};
  std::thread writer([&] {
    for (std::int64_t i = 0; !stop; ++i) {
      (void)repo->StoreAsset(Id("a" + std::to_string(i % 10000)), MakeText(std::to_string(i)), nullptr);
      ++stores;
    }
  });
  for (auto _ : state) {
    std::size_t found = 0;
    (void)repo->FindAssets({}, Id(), Id(), LATEST, [&](const AssetDescription&) -> Result<bool> {
      ++found;
      return true;
    });
    benchmark::DoNotOptimize(found);
  }
  stop = true;
  writer.join();
  state.counters["concurrent stores/s"] = benchmark::Counter(static_cast<double>(stores.load()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_FindWhileStoring)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
