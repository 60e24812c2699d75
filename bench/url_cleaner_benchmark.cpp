// Whole-pipeline cleaning on the real ClearURLs rules over the realistic link mix, with the
// number of heap allocations per link. Run on one core:
//   taskset -c 0 build/bin/linkwash_bench --benchmark_filter=Cleaner
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>

#include "bench/allocation_counter.h"
#include "bench/link_mix.h"
#include "core/session/session.h"

namespace {

using namespace linkwash;

void BM_CleanerPipeline(benchmark::State& state) {
  const auto home =
      std::filesystem::temp_directory_path() / ("linkwash-bench-clean-" + std::to_string(getpid()));
  std::filesystem::create_directories(home);
  setenv("LINKWASH_HOME", home.c_str(), 1);
  // Wired as every program wires it, with the public rule file in place of the shipped rules.
  auto session = Session::open(
      {(bench::sharedDir() / "fixtures/clearurls/data.min.json").string(), std::nullopt});
  const auto links = bench::makeLinkMix(20000);
  if (links.empty() || !session) {
    state.SkipWithError("shared corpus or fixture missing");
    return;
  }
  URLCleaner cleaner = (*session)->makeCleaner("benchmark");
  cleaner.setMatchCountSaving(URLCleaner::MatchCountSaving::deferred);
  std::size_t i = 0, changed = 0;
  const auto allocationsBefore = bench::allocationCount();
  for (auto _ : state) {
    auto outcome = cleaner.cleanWithOutcome(links[i++ % links.size()]);
    changed += outcome.kind == CleanOutcome::Kind::cleaned ? 1 : 0;
    benchmark::DoNotOptimize(outcome);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
  state.counters["allocs/link"] =
      benchmark::Counter(static_cast<double>(bench::allocationCount() - allocationsBefore) /
                         static_cast<double>(state.iterations()));
  state.counters["changed%"] =
      100.0 * static_cast<double>(changed) / static_cast<double>(state.iterations());
  std::filesystem::remove_all(home);
}
BENCHMARK(BM_CleanerPipeline)->MinTime(2.0);

}  // namespace
