// URLCleaner: turns one link into a cleaned link.
//
// In order: trim, accept only http(s) links, honour switched-off sites, unwrap redirect wrappers
// (at most 5 levels), apply path rules, strip query parameters (the pipeline's own special cases,
// provider rules, then fallback rules), drop Google's local-results fragment, and finally offer
// the link to the privacy redirector. Every step is recorded as a CleanOperation.
//
//   URLCleaner cleaner(engine, &exceptions, &recorder, "manualClean", settings);
//   CleanOutcome outcome = cleaner.cleanWithOutcome(" https://a.com/?utm_source=x&id=1 ");
//   // outcome.result->cleanedURL == "https://a.com/?id=1"
//
// The cleaner has no lock of its own; it is as thread-safe as the engine, store and recorder it
// is given (the engine has no lock, so one cleaner per thread or a guarded engine).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/cleaning/clean_result.h"
#include "core/cleaning/domain_exception_store.h"
#include "core/cleaning/last_clean_recorder.h"
#include "core/privacy/privacy_redirect_settings.h"
#include "core/rules/rules_engine.h"
#include "platform/url/url_components.h"

namespace linkwash {

// Asks the privacy stage for a redirect of a tracker-cleaned link.
using PrivacyRedirectStage = std::function<std::optional<PrivacyRedirectResult>(
    std::string_view link, const PrivacyRedirectSettings& settings)>;

class URLCleaner {
 public:
  // When match counts are written to the preferences.
  enum class MatchCountSaving {
    everyClean,  // after every clean that changed a link (what a single request wants)
    deferred,    // never by the cleaner: the owner saves (streams of millions of links)
  };

  URLCleaner(RulesEngine& rulesEngine, DomainExceptionStore* exceptionStore,
             LastCleanRecorder* lastCleanRecorder, std::string surface,
             PrivacyRedirectSettings privacyRedirectSettings);

  CleanOutcome cleanWithOutcome(std::string_view urlString);
  std::optional<CleanResult> clean(std::string_view urlString);
  CleanResult resultAfterNetworkResolution(std::string_view originalURL,
                                           std::string_view resolvedURL,
                                           std::string_view contactedHost,
                                           const std::optional<CleanResult>& priorResult);

  const PrivacyRedirectSettings& privacyRedirectSettings() const { return settings_; }
  void setPrivacyRedirectSettings(PrivacyRedirectSettings settings) {
    settings_ = std::move(settings);
  }
  void setMatchCountSaving(MatchCountSaving saving) { saving_ = saving; }
  // Replaces the privacy stage (by default: the redirector over the installed verified catalog).
  void setPrivacyRedirectStage(PrivacyRedirectStage stage) { privacyStage_ = std::move(stage); }

 private:
  // True when cleaning `link` (parsed as `components`) certainly leaves it as it is.
  bool nothingToClean(const URLComponents& components, std::string_view link);
  std::optional<CleanResult> cleaningPass(const std::string& link, int depth);

  RulesEngine& engine_;
  DomainExceptionStore* exceptions_;
  LastCleanRecorder* recorder_;
  std::string surface_;
  PrivacyRedirectSettings settings_;
  MatchCountSaving saving_ = MatchCountSaving::everyClean;
  PrivacyRedirectStage privacyStage_;
};

// The hosts whose remaining query is written back byte for byte, because re-encoding would
// change what they see (for example "q=a%2Bb" becoming "q=a+b").
bool isRawFormHost(std::string_view lowercasedHost);

}  // namespace linkwash
