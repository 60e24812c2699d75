// The browser host's request handling: each message from the web extension (an "action" and its
// arguments) becomes exactly one reply object. Failures are replies too ("ok": false with an
// "error" text, or "cleaned", "available", "applied" or "recorded" false); nothing is thrown.
//
//   ExtensionMessageHandler handler;  // copies reports to the general pasteboard
//   handler.handle({{"action", "cleanURL"}, {"url", "https://a.com/?utm_source=x"}});
//   // {"cleaned": true, "cleanedURL": "https://a.com/", "paramsRemoved": 1, ...}
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "core/cleaning/domain_exception_store.h"
#include "core/cleaning/last_clean_recorder.h"
#include "core/cleaning/url_cleaner.h"
#include "core/privacy/privacy_redirect_settings.h"
#include "core/rules/rules_engine.h"
#include "platform/json/json_writer.h"
#include "platform/pasteboard/pasteboard.h"
#include "platform/prefs/preference_store.h"

namespace linkwash {

// The suite shared with the other surfaces of the tool (the Nitter instance choice lives there).
inline constexpr std::string_view kAppGroupIdentifier = "group.com.morvellabs.linkwash";

// Where a clean came from, as recorded with the last clean and in match statistics. The names are
// a wire format shared with the other surfaces, kept whatever browser the host serves.
inline constexpr std::string_view kExtensionSurface = "macOSSafariExtension";
inline constexpr std::string_view kContentScriptSurface = "macOSSafariContentScript";
inline constexpr std::string_view kExtensionReportSurface = "macOSSafariExtensionReport";

// Process-wide objects, each created on first use exactly once (even when first used from several
// threads at once) and kept until the process ends. The standard store is the one every
// executable of the tool shares; the engine is loaded with the shipped rules when created.
std::shared_ptr<PreferenceStore> sharedStandardStore();
std::shared_ptr<PreferenceStore> sharedGroupStore();
RulesEngine& sharedRulesEngine();
DomainExceptionStore& sharedExceptionStore();
LastCleanRecorder& sharedLastCleanRecorder();

// Thread safety: handle() may be called from several threads at once; uses of the shared engine
// (which has no lock of its own) are serialized on a process-wide mutex.
class ExtensionMessageHandler {
 public:
  // Copies reports to the process's general pasteboard.
  ExtensionMessageHandler();
  explicit ExtensionMessageHandler(std::shared_ptr<Pasteboard> pasteboard);

  // The reply to `message`. Anything that is not a JSON object is handled as the empty message
  // (which answers {"error": "Unknown action: "}); a key whose value has the wrong type counts as
  // missing.
  Json handle(const Json& message) const;

  // The normalized host a site action is about: a non-empty "host", else the host of "url".
  static std::optional<std::string> hostFromMessage(const Json& message);

  // Replaces the privacy-frontend stage of every cleaner this handler builds (by default the
  // cleaner's own redirector over the installed catalog).
  void setPrivacyRedirectStage(PrivacyRedirectStage stage) { privacyStage_ = std::move(stage); }

 private:
  Json cleanURL(const Json& message) const;
  Json isDomainDisabled(const Json& message) const;
  Json setDomainDisabled(const Json& message) const;
  Json getLastClean(const Json& message) const;
  Json applyLastClean() const;
  Json recordContentClean(const Json& message) const;
  Json getXRedirectChoice() const;
  Json setXRedirectChoice(const Json& message) const;
  Json switchOffXRedirect() const;
  Json buildMissedReport(const Json& message) const;
  Json copyMissedReport(const Json& message) const;

  CleanOutcome cleanWithFreshCleaner(std::string_view surface, std::string_view link) const;

  std::shared_ptr<Pasteboard> pasteboard_;
  PrivacyRedirectStage privacyStage_;
};

}  // namespace linkwash
