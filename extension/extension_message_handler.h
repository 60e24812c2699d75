// The browser host's request handling: each message from the web extension (an "action" and its
// arguments) becomes exactly one reply object. Failures are replies too ("ok": false with an
// "error" text, or "cleaned", "available", "applied" or "recorded" false); nothing is thrown.
//
//   auto session = Session::open();
//   ExtensionMessageHandler handler(**session);  // copies reports to the general pasteboard
//   handler.handle({{"action", "cleanURL"}, {"url", "https://a.com/?utm_source=x"}});
//   // {"cleaned": true, "cleanedURL": "https://a.com/", "paramsRemoved": 1, ...}
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "core/cleaning/clean_result.h"
#include "core/session/session.h"
#include "platform/json/json_writer.h"
#include "platform/pasteboard/pasteboard.h"

namespace linkwash {

// Where a clean came from, as recorded with the last clean and in match statistics. The names are
// a wire format shared with the other surfaces, kept whatever browser the host serves.
inline constexpr std::string_view kExtensionSurface = "macOSSafariExtension";
inline constexpr std::string_view kContentScriptSurface = "macOSSafariContentScript";
inline constexpr std::string_view kExtensionReportSurface = "macOSSafariExtensionReport";

// Works on one session, which the process opens once and keeps (its engine is loaded on the first
// request that cleans). Thread safety: handle() may be called from several threads at once; uses
// of the engine (which has no lock of its own) are serialized on the session's engine mutex.
class ExtensionMessageHandler {
 public:
  // Copies reports to `pasteboard`, by default the process's general pasteboard.
  explicit ExtensionMessageHandler(Session& session,
                                   std::shared_ptr<Pasteboard> pasteboard = nullptr);

  // The reply to `message`. Anything that is not a JSON object is handled as the empty message
  // (which answers {"error": "Unknown action: "}); a key whose value has the wrong type counts as
  // missing.
  Json handle(const Json& message) const;

  // The normalized host a site action is about: a non-empty "host", else the host of "url".
  static std::optional<std::string> hostFromMessage(const Json& message);

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

  Session& session_;
  std::shared_ptr<Pasteboard> pasteboard_;
};

}  // namespace linkwash
