// Link updates of many loaded assets that all refer to one asset: after a new version of it,
// GetPendingUpdates(true) and Update of every dependent (each updated in place), next to the
// anchor: a plain loop loading the same dependents' descriptions from a fresh repository object
// on the same in-memory store (each load reads and parses the stored content). The counter
// update_per_load is the ratio of the two. KELVO_BENCH_LINKED_ASSETS sets the number of
// dependents (default 10,000).

#include <benchmark/benchmark.h>

#include "asset/core/memoryassetrepository.h"
#include "bench_util.h"
#include "linked_asset.h"

using namespace kelvo;
using namespace kelvo::testing;
using namespace kelvo::bench;

namespace {

struct Fixture {
  std::size_t dependents = EnvNumber("KELVO_BENCH_LINKED_ASSETS", 10000);
  std::shared_ptr<MemoryAssetRepositoryImpl> repo;
  Fixture() {
    RegisterLinkedAssetType();
    auto made = MemoryAssetRepositoryImpl::Create(Id("bench.links"), true);
    if (made.HasError()) Die("repository", made.GetError());
    repo = *made;
    auto target = repo->StoreAsset(Id("target"), MakeLinked("target 0"), nullptr);
    if (target.HasError()) Die("store", target.GetError());
    // A store records the links of the stored asset, as a load with link updates does.
    for (std::size_t i = 0; i < dependents; ++i) {
      auto d = repo->StoreAsset(Id("dependent" + std::to_string(i)), MakeLinked("d", {LinkTo(*target)}), nullptr);
      if (d.HasError()) Die("store", d.GetError());
    }
    if (auto r = repo->GetPendingUpdates(true); r.HasError()) Die("pending", r.GetError());
  }
};

// Seconds of one plain loop loading the latest description of every dependent.
double LoadAnchor(const Fixture& f) {
  auto fresh = MemoryAssetRepositoryImpl::Create(Id("bench.links"), true, f.repo->GetStore());
  if (fresh.HasError()) Die("reopen", fresh.GetError());
  std::vector<AssetDescription> descriptions;
  auto found = (*fresh)->FindAssets({kLinkedType}, Id(), Id(), LATEST, [&](const AssetDescription& d) -> Result<bool> {
    if (d->GetIdAndVersion().first != Id("target")) descriptions.push_back(d);
    return true;
  });
  if (found.HasError()) Die("listing", found.GetError());
  if (descriptions.size() != f.dependents) Die("listing count", Error());
  const auto start = Clock::now();
  for (const AssetDescription& d : descriptions) {
    auto asset = d->Load(false);
    if (asset.HasError()) Die("load", asset.GetError());
    benchmark::DoNotOptimize(asset);
  }
  return Seconds(start);
}

void BM_PendingUpdatesAndUpdateOfDependents(benchmark::State& state) {
  static Fixture f;
  double updateSeconds = 0;
  std::size_t runs = 0, version = 0;
  for (auto _ : state) {
    state.PauseTiming();
    if (auto r = f.repo->StoreAsset(Id("target"), MakeLinked("target " + std::to_string(++version)), nullptr);
        r.HasError())
      Die("store", r.GetError());
    state.ResumeTiming();
    const auto start = Clock::now();
    auto pending = f.repo->GetPendingUpdates(true);
    if (pending.HasError()) Die("pending", pending.GetError());
    if (pending->size() != f.dependents) Die("pending count " + std::to_string(pending->size()), Error());
    if (auto r = f.repo->Update(*pending); r.HasError()) Die("update", r.GetError());
    updateSeconds += Seconds(start);
    ++runs;
  }
  double loadSeconds = 0;
  for (int i = 0; i < 3; ++i) loadSeconds += LoadAnchor(f) / 3;
  const double update = runs ? updateSeconds / static_cast<double>(runs) : 0;
  state.counters["dependents"] = static_cast<double>(f.dependents);
  state.counters["update_ms"] = update * 1000;
  state.counters["load_ms"] = loadSeconds * 1000;
  state.counters["update_per_load"] = loadSeconds > 0 ? update / loadSeconds : 0;
}
BENCHMARK(BM_PendingUpdatesAndUpdateOfDependents)->Unit(benchmark::kMillisecond)->Iterations(5);

} // namespace

BENCHMARK_MAIN();
