// Dispatch of the web extension's actions and the process-wide objects they share.
#include "extension/extension_message_handler.h"

#include <chrono>
#include <cstdint>
#include <utility>
#include <vector>

#include "core/stats/missed_tracker_report.h"
#include "core/updates/signed_rule_feed.h"
#include "platform/resources/resource_bundle.h"

namespace linkwash {
namespace {

// Reported when the build carries no version.
constexpr std::string_view kFallbackAppVersion = "1.1";

const std::string* stringValue(const Json& message, const char* key) {
  const auto it = message.find(key);
  if (it == message.end() || !it->is_string()) return nullptr;
  return it->get_ptr<const std::string*>();
}

std::optional<bool> boolValue(const Json& message, const char* key) {
  const auto it = message.find(key);
  if (it == message.end() || !it->is_boolean()) return std::nullopt;
  return it->get<bool>();
}

Json object(std::initializer_list<std::pair<const char*, Json>> members) {
  Json reply = Json::object();
  for (const auto& [key, value] : members) reply[key] = value;
  return reply;
}

// The engine has no lock; every request that touches it goes through this one.
std::mutex& engineMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}

PrivacyRedirectSettings currentRedirectSettings() {
  const auto group = sharedGroupStore();
  return PrivacyRedirectSettings::fromStore(*sharedStandardStore(), group.get());
}

}  // namespace

std::shared_ptr<PreferenceStore> sharedStandardStore() {
  static const auto* store = new std::shared_ptr<PreferenceStore>(PreferenceStore::standard());
  return *store;
}

std::shared_ptr<PreferenceStore> sharedGroupStore() {
  static const auto* store =
      new std::shared_ptr<PreferenceStore>(PreferenceStore::suite(kAppGroupIdentifier));
  return *store;
}

RulesEngine& sharedRulesEngine() {
  static auto* engine = [] {
    auto* created = new RulesEngine(sharedStandardStore());
    loadVerifiedRules(*created);
    return created;
  }();
  return *engine;
}

DomainExceptionStore& sharedExceptionStore() {
  static auto* store = new DomainExceptionStore(sharedStandardStore());
  return *store;
}

LastCleanRecorder& sharedLastCleanRecorder() {
  static auto* recorder = new LastCleanRecorder;
  return *recorder;
}

ExtensionMessageHandler::ExtensionMessageHandler() : pasteboard_(generalPasteboard()) {}

ExtensionMessageHandler::ExtensionMessageHandler(std::shared_ptr<Pasteboard> pasteboard)
    : pasteboard_(pasteboard ? std::move(pasteboard) : generalPasteboard()) {}

// A fresh cleaner per request, so that switches, custom rules and redirect choices changed by
// another process count for this request.
CleanOutcome ExtensionMessageHandler::cleanWithFreshCleaner(std::string_view surface,
                                                            std::string_view link) const {
  RulesEngine& engine = sharedRulesEngine();
  std::lock_guard lock(engineMutex());
  engine.reloadPersistedState();
  DomainExceptionStore& exceptions = sharedExceptionStore();
  exceptions.refresh();
  URLCleaner cleaner(engine, &exceptions, &sharedLastCleanRecorder(), std::string(surface),
                     currentRedirectSettings());
  if (privacyStage_) cleaner.setPrivacyRedirectStage(privacyStage_);
  return cleaner.cleanWithOutcome(link);
}

std::optional<std::string> ExtensionMessageHandler::hostFromMessage(const Json& message) {
  if (!message.is_object()) return std::nullopt;
  if (const auto* host = stringValue(message, "host"); host && !host->empty()) {
    return DomainExceptionStore::normalize(*host);
  }
  if (const auto* url = stringValue(message, "url")) {
    return DomainExceptionStore::normalizedHost(*url);
  }
  return std::nullopt;
}

Json ExtensionMessageHandler::handle(const Json& message) const {
  static const Json kEmptyMessage = Json::object();
  const Json& request = message.is_object() ? message : kEmptyMessage;
  const std::string* actionValue = stringValue(request, "action");
  const std::string_view action = actionValue ? std::string_view(*actionValue) : "";

  if (action == "cleanURL") return cleanURL(request);
  if (action == "recordStat") return object({{"recorded", true}});
  if (action == "isDomainDisabled") return isDomainDisabled(request);
  if (action == "setDomainDisabled") return setDomainDisabled(request);
  if (action == "getLastClean") return getLastClean(request);
  if (action == "applyLastClean") return applyLastClean();
  if (action == "recordContentClean") return recordContentClean(request);
  if (action == "getXRedirectChoice") return getXRedirectChoice();
  if (action == "setXRedirectChoice") return setXRedirectChoice(request);
  // The legacy on/off flag is retired: the choice alone governs X redirects, so both actions
  // switch the flag off and report it off.
  if (action == "getXRedirectEnabled" || action == "setXRedirectEnabled") {
    return switchOffXRedirect();
  }
  if (action == "buildMissedReport") return buildMissedReport(request);
  if (action == "copyMissedReport") return copyMissedReport(request);
  return object({{"error", "Unknown action: " + std::string(action)}});
}

Json ExtensionMessageHandler::cleanURL(const Json& message) const {
  const std::string* url = stringValue(message, "url");
  if (url == nullptr) return object({{"cleaned", false}});

  CleanOutcome outcome = cleanWithFreshCleaner(kExtensionSurface, *url);
  switch (outcome.kind) {
    case CleanOutcome::Kind::cleaned: {
      if (!outcome.result) break;
      const CleanResult& result = *outcome.result;
      Json reply = object({{"cleaned", true},
                           {"cleanedURL", result.cleanedURL},
                           {"paramsRemoved", result.paramsRemoved},
                           {"removedQueryParameters", result.removedQueryParameters}});
      if (const auto& redirect = result.privacyRedirect) {
        reply["xRedirectVerified"] = redirect->service == PrivacyRedirectService::xTwitter;
        reply["xRedirectChoice"] = rawValue(currentRedirectSettings().xRedirectChoice);
        reply["privacyRedirect"] = object({{"service", rawValue(redirect->service)},
                                           {"originalHost", redirect->originalHost},
                                           {"frontendHost", redirect->frontendHost}});
      }
      return reply;
    }
    case CleanOutcome::Kind::skippedDisabled:
      return object({{"cleaned", false}, {"skippedDisabled", true}, {"host", outcome.host}});
    case CleanOutcome::Kind::unchanged:
    case CleanOutcome::Kind::invalid:
      break;
  }
  return object({{"cleaned", false}});
}

Json ExtensionMessageHandler::isDomainDisabled(const Json& message) const {
  const auto host = hostFromMessage(message);
  if (!host) return object({{"disabled", false}});
  DomainExceptionStore& exceptions = sharedExceptionStore();
  // Another executable (the CLI, a second host) may have changed the list since this one read it.
  exceptions.refresh();
  return object({{"host", *host}, {"disabled", exceptions.isDisabled(*host)}});
}

Json ExtensionMessageHandler::setDomainDisabled(const Json& message) const {
  const auto disabled = boolValue(message, "disabled");
  const auto host = disabled ? hostFromMessage(message) : std::nullopt;
  if (!disabled || !host) {
    return object({{"ok", false}, {"error", "Missing host or disabled flag"}});
  }
  DomainExceptionStore& exceptions = sharedExceptionStore();
  if (*disabled) {
    if (!exceptions.disable(*host)) return object({{"ok", false}, {"error", "Host name too long"}});
  } else {
    exceptions.enable(*host);
  }
  return object({{"ok", true}, {"host", *host}, {"disabled", *disabled}});
}

Json ExtensionMessageHandler::getLastClean(const Json& message) const {
  const auto record = sharedLastCleanRecorder().current();
  if (!record) return object({{"available", false}});
  if (const auto pageHost = hostFromMessage(message)) {
    // A record whose link has no host is offered on any page.
    const auto recordHost = DomainExceptionStore::normalizedHost(record->originalURL);
    if (recordHost && *recordHost != *pageHost) return object({{"available", false}});
  }
  return object({{"available", true},
                 {"originalURL", record->originalURL},
                 {"cleanedURL", record->cleanedURL}});
}

Json ExtensionMessageHandler::applyLastClean() const {
  const auto record = sharedLastCleanRecorder().takeAndClear();
  if (!record) return object({{"applied", false}});
  return object({{"applied", true}, {"originalURL", record->originalURL}});
}

Json ExtensionMessageHandler::recordContentClean(const Json& message) const {
  const std::string* original = stringValue(message, "originalURL");
  const std::string* cleaned = stringValue(message, "cleanedURL");
  if (original == nullptr || cleaned == nullptr) return object({{"recorded", false}});
  sharedLastCleanRecorder().record(*original, *cleaned, kContentScriptSurface);
  return object({{"recorded", true}});
}

Json ExtensionMessageHandler::getXRedirectChoice() const {
  return object({{"ok", true}, {"choice", rawValue(currentRedirectSettings().xRedirectChoice)}});
}

Json ExtensionMessageHandler::setXRedirectChoice(const Json& message) const {
  const std::string* raw = stringValue(message, "choice");
  const auto choice = raw ? xRedirectChoiceFromRaw(*raw) : std::nullopt;
  if (!choice) return object({{"ok", false}});
  const std::string stored(rawValue(*choice));
  sharedStandardStore()->set(PrivacyRedirectSettings::kXRedirectChoiceKey, PreferenceValue{stored});
  return object({{"ok", true}, {"choice", stored}});
}

Json ExtensionMessageHandler::switchOffXRedirect() const {
  sharedStandardStore()->set(PrivacyRedirectSettings::kXRedirectEnabledKey, PreferenceValue{false});
  return object({{"ok", true}, {"enabled", false}});
}

Json ExtensionMessageHandler::buildMissedReport(const Json& message) const {
  const std::string* original = stringValue(message, "originalURL");
  if (original == nullptr) return object({{"ok", false}, {"error", "Missing originalURL"}});
  std::optional<std::string> note;
  if (const auto* given = stringValue(message, "note")) note = *given;

  CleanOutcome outcome = cleanWithFreshCleaner(kExtensionReportSurface, *original);
  CleanResult result;
  if (outcome.kind == CleanOutcome::Kind::cleaned && outcome.result) {
    result = std::move(*outcome.result);
  } else {
    // Nothing was removed: the report describes the link as the page had it.
    const std::string* cleaned = stringValue(message, "cleanedURL");
    result.originalURL = *original;
    result.cleanedURL = cleaned ? *cleaned : *original;
  }

  std::string version = appVersion();
  if (version.empty()) version = kFallbackAppVersion;
  std::optional<std::string> build = appBuild();
  if (build->empty()) build.reset();
  const MissedTrackerReport report = MissedTrackerReportBuilder::build(
      result, MissedTrackerReport::Platform::linux, operatingSystemVersionString(),
      std::move(version), std::move(build), MissedTrackerReport::Surface::browserExtension,
      std::move(note), std::nullopt, std::nullopt, std::chrono::system_clock::now());

  Json reply = object({{"ok", true}, {"subject", report.subject()}, {"body", report.bodyText()}});
  if (auto mailto = report.mailtoURL();
      mailto && mailto->size() <= MissedTrackerReport::kMailtoLengthLimit) {
    reply["mailtoURL"] = std::move(*mailto);
  }
  return reply;
}

Json ExtensionMessageHandler::copyMissedReport(const Json& message) const {
  Json built = buildMissedReport(message);
  const auto ok = boolValue(built, "ok");
  const std::string* body = stringValue(built, "body");
  if (!ok || !*ok || body == nullptr) return built;
  pasteboard_->clearContents();
  pasteboard_->setString(*body, PasteboardType::string);
  return object({{"ok", true}});
}

}  // namespace linkwash
