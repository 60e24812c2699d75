// Whole-pipeline cleaning on the real ClearURLs rules over the realistic link mix, with the
// number of heap allocations per link. Run on one core:
//   taskset -c 0 build/bin/linkwash_bench --benchmark_filter=Cleaner
// With LINKWASH_BENCH_CORPUS naming a file (one link per line, such as the shared one-million-link
// corpus), that file's links are cleaned instead of the built-in mix.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "bench/allocation_counter.h"
#include "bench/link_mix.h"
#include "core/cleaning/url_cleaner.h"

namespace {

using namespace linkwash;

void BM_CleanerPipeline(benchmark::State& state) {
  const auto home =
      std::filesystem::temp_directory_path() / ("linkwash-bench-clean-" + std::to_string(getpid()));
  std::filesystem::create_directories(home);
  setenv("LINKWASH_HOME", home.c_str(), 1);
  std::ifstream in(bench::sharedDir() / "fixtures/clearurls/data.min.json", std::ios::binary);
  std::ostringstream data;
  data << in.rdbuf();
  const auto links = bench::benchmarkLinks(20000);
  if (links.empty() || data.str().empty()) {
    state.SkipWithError("shared corpus or fixture missing");
    return;
  }
  auto store = PreferenceStore::open(home / "prefs.sqlite3");
  RulesEngine engine(store);
  engine.load(data.str());
  DomainExceptionStore exceptions(store);
  LastCleanRecorder recorder;
  URLCleaner cleaner(engine, &exceptions, &recorder, "benchmark", PrivacyRedirectSettings{});
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
