#include "tools/cli/engine_setup.h"

#include "base/diagnostics.h"
#include "core/updates/signed_rule_feed.h"
#include "platform/fs/files.h"

namespace linkwash::cli {

std::unique_ptr<RulesEngine> openRulesEngine() {
  // Commands print data on stdout; warnings must not mix with it.
  setDiagnosticSink(standardErrorSink());
  auto engine = std::make_unique<RulesEngine>(PreferenceStore::standard());
  loadVerifiedRules(*engine);
  return engine;
}

Result<std::unique_ptr<RulesEngine>> openRulesEngineFrom(
    const std::string& rulesFile, const std::optional<std::string>& supplementaryFile) {
  setDiagnosticSink(standardErrorSink());
  auto data = files::readFile(rulesFile);
  if (!data) return fail("cannot read " + rulesFile);
  if (!decodeProvidersFile(*data))
    return fail(rulesFile + " is not a provider file (expected {\"providers\": {...}})");
  std::optional<std::string> supplementary;
  if (supplementaryFile) {
    supplementary = files::readFile(*supplementaryFile);
    if (!supplementary) return fail("cannot read " + *supplementaryFile);
    if (!decodeProvidersFile(*supplementary)) {
      return fail(*supplementaryFile + " is not a provider file (expected {\"providers\": {...}})");
    }
  }
  auto engine = std::make_unique<RulesEngine>(PreferenceStore::standard());
  engine->loadRuleBundle(
      *data, supplementary ? std::optional<std::string_view>(*supplementary) : std::nullopt);
  return engine;
}

}  // namespace linkwash::cli
