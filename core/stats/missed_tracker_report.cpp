// Building a missed-tracker report and rendering its subject, body, JSON appendix and mail link.
#include "core/stats/missed_tracker_report.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "platform/json/json_writer.h"
#include "platform/url/url_components.h"

#ifndef LINKWASH_REPORT_RECIPIENT
#error "LINKWASH_REPORT_RECIPIENT must name the mailbox reports go to"
#endif

namespace linkwash {
namespace {

using Clock = std::chrono::system_clock;

constexpr std::size_t kSubjectHostMaxLength = 50;

constexpr std::array<std::string_view, 4> kPlatformRaw = {"macOS", "iOS", "Windows", "Linux"};
constexpr std::array<std::string_view, 5> kSurfaceRaw = {
    "Clipboard", "Manual Clean", "Share Extension", "Safari Extension", "Browser Extension"};

bool isContinuationByte(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

// The first `count` Unicode scalars of `text`. A scalar starts at every byte that is not a UTF-8
// continuation byte, so the cut never splits a sequence (a stray continuation byte stays with
// the scalar before it).
std::string_view prefixScalars(std::string_view text, std::size_t count) {
  std::size_t seen = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (isContinuationByte(text[i])) continue;
    if (seen == count) return text.substr(0, i);
    ++seen;
  }
  return text;
}

struct CivilTime {
  int year;
  unsigned month, day;
  long long hours, minutes, seconds;
};

// Whole seconds in UTC: fractions are dropped towards the past, as date formatters do.
CivilTime civilTime(Clock::time_point time) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
  const auto days = std::chrono::floor<std::chrono::days>(seconds);
  const std::chrono::year_month_day date{days};
  const std::chrono::hh_mm_ss clock{seconds - days};
  return {static_cast<int>(date.year()),
          static_cast<unsigned>(date.month()),
          static_cast<unsigned>(date.day()),
          static_cast<long long>(clock.hours().count()),
          static_cast<long long>(clock.minutes().count()),
          static_cast<long long>(clock.seconds().count())};
}

// "yyyy-MM-dd" in UTC.
std::string utcDay(Clock::time_point time) {
  const CivilTime t = civilTime(time);
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02u", t.year, t.month, t.day);
  return buffer;
}

// ISO 8601 internet date-time in UTC without fractions: "2026-03-14T12:00:00Z".
std::string iso8601(Clock::time_point time) {
  const CivilTime t = civilTime(time);
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02uT%02lld:%02lld:%02lldZ", t.year, t.month,
                t.day, t.hours, t.minutes, t.seconds);
  return buffer;
}

template <typename Range, typename Text>
std::string joinedOrNone(const Range& items, Text text) {
  if (items.empty()) return "[none]";
  std::string out;
  for (const auto& item : items) {
    if (!out.empty()) out += ", ";
    out += text(item);
  }
  return out;
}

std::string rulesSummary(const MissedTrackerReport& report) {
  std::string out;
  if (report.rulesProviderCount)
    out = "provider_count=" + std::to_string(*report.rulesProviderCount);
  if (report.rulesLastUpdate) {
    if (!out.empty()) out += ", ";
    out += "last_update=" + utcDay(*report.rulesLastUpdate);
  }
  return out.empty() ? "[not available]" : out;
}

Json jsonPayload(const MissedTrackerReport& report) {
  Json payload = Json::object();
  payload["schemaVersion"] = MissedTrackerReport::kSchemaVersion;
  payload["platform"] = rawValue(report.platform);
  payload["osVersion"] = report.osVersion;
  payload["appVersion"] = report.appVersion;
  if (report.appBuild) payload["appBuild"] = *report.appBuild;
  payload["surface"] = rawValue(report.surface);
  payload["originalURL"] = report.originalURL;
  payload["cleanedURL"] = report.cleanedURL;
  if (report.host) payload["host"] = *report.host;
  payload["wasModified"] = report.wasModified;
  payload["paramsRemoved"] = report.paramsRemoved;
  Json categories = Json::array();
  for (RuleCategoryType category : report.matchedCategories)
    categories.push_back(rawValue(category));
  payload["matchedCategories"] = std::move(categories);
  payload["matchedRuleIDs"] = report.matchedRuleIDs;
  if (report.rulesProviderCount) payload["rulesProviderCount"] = *report.rulesProviderCount;
  if (report.rulesLastUpdate) payload["rulesLastUpdate"] = iso8601(*report.rulesLastUpdate);
  payload["userNote"] = report.userNote;
  payload["createdAt"] = iso8601(report.createdAt);
  return payload;
}

std::optional<std::string> hostOf(const std::string& link) {
  auto components = URLComponents::parse(link);
  if (!components) return std::nullopt;
  return components->host();
}

}  // namespace

std::string_view rawValue(MissedTrackerReport::Platform platform) {
  return kPlatformRaw[static_cast<std::size_t>(platform)];
}

std::string_view rawValue(MissedTrackerReport::Surface surface) {
  return kSurfaceRaw[static_cast<std::size_t>(surface)];
}

std::optional<MissedTrackerReport::Platform> reportPlatformFromRaw(std::string_view raw) {
  for (auto platform : kAllReportPlatforms) {
    if (rawValue(platform) == raw) return platform;
  }
  return std::nullopt;
}

std::optional<MissedTrackerReport::Surface> reportSurfaceFromRaw(std::string_view raw) {
  for (auto surface : kAllReportSurfaces) {
    if (rawValue(surface) == raw) return surface;
  }
  return std::nullopt;
}

std::string_view MissedTrackerReport::recipientEmail() { return LINKWASH_REPORT_RECIPIENT; }

std::string MissedTrackerReport::subject() const {
  std::string_view hostPart = "Unknown Host";
  if (host && !host->empty()) hostPart = prefixScalars(*host, kSubjectHostMaxLength);
  std::string out = "[Missed Tracker] ";
  out += hostPart;
  out += " - ";
  out += rawValue(platform);
  out += " - v";
  out += appVersion;
  return out;
}

std::string MissedTrackerReport::bodyText() const {
  std::string appLine = appVersion;
  if (appBuild) appLine += " (" + *appBuild + ")";
  const std::string lines[] = {
      "Linkwash Missed Tracker Report",
      "",
      "User note:",
      userNote.empty() ? "[none]" : userNote,
      "",
      "Original URL:",
      originalURL,
      "",
      "Cleaned URL:",
      cleanedURL,
      "",
      "Platform:",
      std::string(rawValue(platform)) + " " + osVersion,
      "",
      "App version:",
      appLine,
      "",
      "Surface:",
      std::string(rawValue(surface)),
      "",
      "Params removed:",
      std::to_string(paramsRemoved),
      "",
      "Matched categories:",
      joinedOrNone(matchedCategories, [](RuleCategoryType c) { return rawValue(c); }),
      "",
      "Matched rule IDs:",
      joinedOrNone(matchedRuleIDs, [](const std::string& id) -> const std::string& { return id; }),
      "",
      "Rules summary:",
      rulesSummary(*this),
      "",
      "Created at:",
      iso8601(createdAt),
      "",
      "--- machine-readable (do not edit) ---",
      jsonAppendix(),
  };
  std::string out;
  for (const std::string& line : lines) {
    if (&line != &lines[0]) out += '\n';
    out += line;
  }
  return out;
}

std::string MissedTrackerReport::jsonAppendix() const {
  // Our writer cannot fail on a payload of strings, numbers and booleans, so the "{}" fallback
  // for an encoding failure is never needed.
  const JsonWriteOptions options{.sortedKeys = true, .escapeSlashes = true, .pretty = true};
  return "```json\n" + writeJson(jsonPayload(*this), options) + "\n```";
}

std::optional<std::string> MissedTrackerReport::mailtoURL() const {
  URLComponents components;
  components.setScheme("mailto");
  // The recipient is a configured plain address and needs no escaping; one that cannot stand as
  // a path makes string() answer nothing.
  components.setPercentEncodedPath(std::string(recipientEmail()));
  components.setQueryItems(std::vector<URLQueryItem>{{"subject", subject()}, {"body", bodyText()}});
  return components.string();
}

bool MissedTrackerReport::mailtoIsSafeLength() const {
  const auto url = mailtoURL();
  return url && url->size() <= kMailtoLengthLimit;
}

namespace MissedTrackerReportBuilder {

MissedTrackerReport build(const CleanResult& result, MissedTrackerReport::Platform platform,
                          std::string osVersion, std::string appVersion,
                          std::optional<std::string> appBuild, MissedTrackerReport::Surface surface,
                          std::optional<std::string> userNote,
                          std::optional<std::int64_t> rulesProviderCount,
                          std::optional<Clock::time_point> rulesLastUpdate, Clock::time_point now) {
  MissedTrackerReport report;
  report.platform = platform;
  report.osVersion = std::move(osVersion);
  report.appVersion = std::move(appVersion);
  report.appBuild = std::move(appBuild);
  report.surface = surface;
  report.originalURL = result.originalURL;
  report.cleanedURL = result.cleanedURL;
  report.host = hostOf(result.cleanedURL);
  if (!report.host) report.host = hostOf(result.originalURL);
  report.wasModified = result.wasModified();
  report.paramsRemoved = result.paramsRemoved;
  report.matchedCategories.assign(result.matchedCategories.begin(), result.matchedCategories.end());
  std::sort(report.matchedCategories.begin(), report.matchedCategories.end(),
            [](RuleCategoryType a, RuleCategoryType b) { return rawValue(a) < rawValue(b); });
  report.matchedRuleIDs = result.matchedRuleIDs;
  report.rulesProviderCount = rulesProviderCount;
  report.rulesLastUpdate = rulesLastUpdate;
  if (userNote) report.userNote = prefixScalars(*userNote, kUserNoteMaxLength);
  report.createdAt = now;
  return report;
}

}  // namespace MissedTrackerReportBuilder

}  // namespace linkwash
