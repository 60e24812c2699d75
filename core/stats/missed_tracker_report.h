// A user's report of a tracker that a clean left in a link: built from the clean result and a
// few facts about the environment, and rendered as a mail subject, a readable body ending in a
// machine-readable JSON appendix, and a "mailto:" link carrying both. Nothing is ever sent; the
// user reviews the text and chooses how to share it.
//
//   auto report = MissedTrackerReportBuilder::build(result, MissedTrackerReport::Platform::linux,
//       "Debian 12", "1.1.0", "1", MissedTrackerReport::Surface::clipboard, note,
//       std::nullopt, std::nullopt, std::chrono::system_clock::now());
//   report.subject();  // "[Missed Tracker] example.com - Linux - v1.1.0"
//   if (report.mailtoIsSafeLength()) openInMailer(*report.mailtoURL());
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/cleaning/clean_result.h"
#include "core/rules/rule_category.h"

namespace linkwash {

struct MissedTrackerReport {
  // `linux` is a predefined macro in GNU dialects; the project builds with extensions off.
  enum class Platform { macOS, iOS, windows, linux };
  // browserExtension is what linkwash-host reports, so a report from Linux says where it came
  // from.
  enum class Surface { clipboard, manualClean, shareExtension, safariExtension, browserExtension };

  Platform platform = Platform::linux;
  std::string osVersion;
  std::string appVersion;
  std::optional<std::string> appBuild;
  Surface surface = Surface::clipboard;
  std::string originalURL;
  std::string cleanedURL;
  std::optional<std::string> host;
  bool wasModified = false;
  std::int64_t paramsRemoved = 0;
  std::vector<RuleCategoryType> matchedCategories;  // sorted by raw value
  std::vector<std::string> matchedRuleIDs;          // in matching order
  std::optional<std::int64_t> rulesProviderCount;
  std::optional<std::chrono::system_clock::time_point> rulesLastUpdate;
  std::string userNote;
  std::chrono::system_clock::time_point createdAt;

  bool operator==(const MissedTrackerReport&) const = default;

  static constexpr int kSchemaVersion = 1;
  // Longest "mailto:" address, in characters, that mail clients are trusted to accept.
  static constexpr std::size_t kMailtoLengthLimit = 8192;

  // The mailbox reports are addressed to (a build setting, LINKWASH_REPORT_RECIPIENT).
  static std::string_view recipientEmail();

  // "[Missed Tracker] <host> - <platform> - v<appVersion>"; "Unknown Host" when the host is
  // absent or empty, a host longer than 50 characters cut to its first 50.
  std::string subject() const;
  // The readable report, lines joined by "\n" with no final line feed, ending in jsonAppendix().
  std::string bodyText() const;
  // The text offered to share sheets and the clipboard: the same as bodyText().
  std::string shareText() const { return bodyText(); }
  // "```json\n" + the pretty, key-sorted JSON payload (slashes escaped) + "\n```".
  std::string jsonAppendix() const;
  // "mailto:<recipient>?subject=...&body=..." encoded by the URL query encoder; nothing when the
  // parts do not form a URL (only possible with a recipient that is not a plain address). The
  // text is ASCII, so its size is its length in characters.
  std::optional<std::string> mailtoURL() const;
  // True when mailtoURL() exists and is at most kMailtoLengthLimit characters long.
  bool mailtoIsSafeLength() const;

  // Fixed texts every surface that offers reporting shows.
  struct SharedCopy {
    static constexpr std::string_view reviewTitle = "Review Report";
    static constexpr std::string_view reviewHelperText =
        "Nothing is sent automatically. Review and choose how to share it.";
    static constexpr std::string_view notePrompt = "What should Linkwash have removed?";
    static constexpr std::string_view emptyStateMessage =
        "Clean a link first, then report anything we missed.";
    static constexpr std::string_view reportActionLabel = "Report Missed Tracker";
    static constexpr std::string_view emailButtonLabel = "Email Report";
    static constexpr std::string_view shareButtonLabel = "Share Report";
    static constexpr std::string_view copyButtonLabel = "Copy Report";
    static constexpr std::string_view cancelButtonLabel = "Cancel";
  };
};

inline constexpr std::array<MissedTrackerReport::Platform, 4> kAllReportPlatforms = {
    MissedTrackerReport::Platform::macOS, MissedTrackerReport::Platform::iOS,
    MissedTrackerReport::Platform::windows, MissedTrackerReport::Platform::linux};
inline constexpr std::array<MissedTrackerReport::Surface, 5> kAllReportSurfaces = {
    MissedTrackerReport::Surface::clipboard, MissedTrackerReport::Surface::manualClean,
    MissedTrackerReport::Surface::shareExtension, MissedTrackerReport::Surface::safariExtension,
    MissedTrackerReport::Surface::browserExtension};

// "macOS", "iOS", "Windows", "Linux".
std::string_view rawValue(MissedTrackerReport::Platform platform);
// "Clipboard", "Manual Clean", "Share Extension", "Safari Extension", "Browser Extension".
std::string_view rawValue(MissedTrackerReport::Surface surface);
std::optional<MissedTrackerReport::Platform> reportPlatformFromRaw(std::string_view raw);
std::optional<MissedTrackerReport::Surface> reportSurfaceFromRaw(std::string_view raw);

namespace MissedTrackerReportBuilder {

// Notes and hosts are measured in Unicode scalars (code points) and cut only between them; a
// user-perceived character made of several scalars (an emoji with modifiers) counts as several.
inline constexpr std::size_t kUserNoteMaxLength = 500;

// The report on `result`: the note (empty when none) cut to kUserNoteMaxLength; the host of the
// cleaned link, else of the original link, else none; categories sorted by raw value; the
// remaining facts as given, created at `now`.
MissedTrackerReport build(const CleanResult& result, MissedTrackerReport::Platform platform,
                          std::string osVersion, std::string appVersion,
                          std::optional<std::string> appBuild, MissedTrackerReport::Surface surface,
                          std::optional<std::string> userNote,
                          std::optional<std::int64_t> rulesProviderCount,
                          std::optional<std::chrono::system_clock::time_point> rulesLastUpdate,
                          std::chrono::system_clock::time_point now);

}  // namespace MissedTrackerReportBuilder

}  // namespace linkwash
