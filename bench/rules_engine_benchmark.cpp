// Rules engine speed on the real public ClearURLs rule file: provider selection, per-parameter
// decisions, and loading with a cold and a warm index cache. Run on one core:
//   taskset -c 0 build/bin/linkwash_bench --benchmark_filter=Rules
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "bench/link_mix.h"
#include "core/rules/rules_engine.h"

namespace {

using namespace linkwash;

std::string readFixture() {
  std::ifstream in(bench::sharedDir() / "fixtures/clearurls/data.min.json", std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

// A scratch LINKWASH_HOME so benchmarks never touch real preferences or caches.
struct ScratchHome {
  std::filesystem::path path;
  ScratchHome() {
    path = std::filesystem::temp_directory_path() / ("linkwash-bench-" + std::to_string(getpid()));
    std::filesystem::create_directories(path);
    setenv("LINKWASH_HOME", path.c_str(), 1);
  }
  ~ScratchHome() { std::filesystem::remove_all(path); }
};

ScratchHome& home() {
  static ScratchHome scratch;
  return scratch;
}

RulesEngine& engine(MatchStrategy strategy = MatchStrategy::indexed) {
  home();
  static auto store = PreferenceStore::open(home().path / "bench.sqlite3");
  static RulesEngine indexed(store, MatchStrategy::indexed);
  static RulesEngine plain(store, MatchStrategy::plain);
  static bool loaded = [] {
    const std::string data = readFixture();
    indexed.load(data);
    plain.load(data);
    return true;
  }();
  (void)loaded;
  return strategy == MatchStrategy::indexed ? indexed : plain;
}

// Typical links: shops, search, news, video, social, a mail-marketing link and a plain page.
const std::vector<std::string> kLinks = {
    "https://www.amazon.com/Some-Product-Name/dp/B08N5WRWNW/ref=sr_1_3?crid=2M0&keywords=usb+c"
    "&qid=1700000000&sprefix=usb%2Caps%2C150&sr=8-3",
    "https://www.google.com/"
    "search?q=weather+berlin&client=firefox-b-d&ei=abc&oq=weather&gs_lcp=xyz",
    "https://www.nytimes.com/2024/05/01/world/europe/some-article.html?utm_source=newsletter"
    "&utm_medium=email&smid=nytcore-ios-share",
    "https://www.youtube.com/watch?v=dQw4w9WgXcQ&feature=share&si=AbCdEf123",
    "https://twitter.com/someone/status/1234567890123456789?s=20&t=abcdefghijk",
    "https://example.com/landing?mc_cid=12345&mc_eid=abcde&id=7",
    "https://en.wikipedia.org/wiki/Uniform_Resource_Locator",
    "https://www.reddit.com/r/cpp/comments/abc123/some_title/?utm_source=share&utm_medium=web2x",
};

void BM_RulesMatchingProviders(benchmark::State& state) {
  RulesEngine& e = engine(static_cast<MatchStrategy>(state.range(0)));
  std::vector<const CompiledProvider*> out;
  std::size_t i = 0;
  for (auto _ : state) {
    // Distinct strings each time so the per-link memo never short-cuts the work.
    const std::string& link = kLinks[i++ % kLinks.size()];
    e.matchingProviders(link, out);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_RulesMatchingProviders)->ArgNames({"plain"})->Arg(0)->Arg(1);

// Every parameter of a 6-parameter query decided against every selected provider, then the
// fallback rules, as the cleaning pipeline asks.
void BM_RulesDecideSixParams(benchmark::State& state) {
  RulesEngine& e = engine(static_cast<MatchStrategy>(state.range(0)));
  const std::string link =
      "https://www.example-shop.com/item/42?utm_source=news&utm_medium=email&color=red&fbclid=IwAR0"
      "&size=m&_ga=2.1234.5678";
  const std::vector<std::string> names = {"utm_source", "utm_medium", "color",
                                          "fbclid",     "size",       "_ga"};
  std::vector<const CompiledProvider*> providers;
  e.matchingProviders(link, providers);
  std::erase_if(providers, [&](const CompiledProvider* p) { return e.isException(link, *p); });
  for (auto _ : state) {
    int stripped = 0;
    for (const auto& name : names) {
      bool claimed = false;
      for (const CompiledProvider* p : providers) {
        if (e.shouldStripParam(name, *p)) {
          claimed = true;
          break;
        }
      }
      if (!claimed && e.shouldStripParamFallback(name)) claimed = true;
      stripped += claimed ? 1 : 0;
    }
    benchmark::DoNotOptimize(stripped);
  }
  state.counters["providers"] = static_cast<double>(providers.size());
}
BENCHMARK(BM_RulesDecideSixParams)->ArgNames({"plain"})->Arg(0)->Arg(1);

void BM_RulesLoadFixture(benchmark::State& state) {
  const bool warm = state.range(0) == 1;
  const std::string data = readFixture();
  auto store = PreferenceStore::open(home().path / "load.sqlite3");
  {
    RulesEngine primer(store);
    primer.load(data);  // fills the cache for the warm runs
  }
  for (auto _ : state) {
    if (!warm) {
      state.PauseTiming();
      std::filesystem::remove_all(home().path / "cache");
      state.ResumeTiming();
    }
    RulesEngine e(store);
    e.load(data);
    benchmark::DoNotOptimize(e.compiledProviders().size());
    if (warm && !e.indexStats().fromCache) state.SkipWithError("cache was not used");
  }
}
BENCHMARK(BM_RulesLoadFixture)->ArgNames({"warm"})->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace
