// The provider-file loader on arbitrary bytes: decoding, compiling every pattern and matching a
// few links must neither crash nor disagree between the indexed and the plain engine.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "core/rules/provider_file.h"
#include "core/rules/rules_engine.h"
#include "fuzz/fuzz_support.h"

using namespace linkwash;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // The engine keeps a compiled-index cache under the home folder; keep it off the real one.
  static const std::string home = "/tmp/linkwash-fuzz-home-" + std::to_string(::getpid());
  ::setenv("LINKWASH_HOME", home.c_str(), 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (!decodeProvidersFile(text)) return 0;
  RulesEngine plain(PreferenceStore::open(":memory:"), MatchStrategy::plain);
  RulesEngine indexed(PreferenceStore::open(":memory:"), MatchStrategy::indexed);
  plain.load(text);
  indexed.load(text);
  if (plain.compiledProviders().size() != indexed.compiledProviders().size()) {
    fuzz::broken("engines compiled different providers", text);
  }
  for (std::string_view link : {"https://example.com/?utm_source=a&id=1",
                                "https://www.google.com/url?q=https://a.org/&sa=D", "http://a/"}) {
    if (plain.matchingProviders(link).size() != indexed.matchingProviders(link).size()) {
      fuzz::broken("indexed and plain matching differ", text);
    }
  }
  return 0;
}
