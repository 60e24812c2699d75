// What one clean did to one link: the link before and after, what was removed, which rules and
// categories matched, and the ordered steps that produced it. The JSON form of CleanResult is a
// stored format (the clipboard keeps the last result in the preferences), so decoding accepts
// results written by older versions that knew only the first three fields.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "core/privacy/privacy_redirect_info.h"
#include "core/rules/rule_category.h"
#include "core/rules/tracking_impact.h"
#include "platform/json/json_writer.h"

namespace linkwash {

enum class CleanOperationKind {
  localParameterRemoval,
  offlineWrapperUnwrap,
  offlinePathRewrite,
  privacyRedirect,
  networkResolution,
  functionalTransformation,
};

inline constexpr std::array<CleanOperationKind, 6> kAllCleanOperationKinds = {
    CleanOperationKind::localParameterRemoval, CleanOperationKind::offlineWrapperUnwrap,
    CleanOperationKind::offlinePathRewrite,    CleanOperationKind::privacyRedirect,
    CleanOperationKind::networkResolution,     CleanOperationKind::functionalTransformation,
};

// "local_parameter_removal", "offline_wrapper_unwrap", ...
std::string_view rawValue(CleanOperationKind kind);
std::optional<CleanOperationKind> cleanOperationKindFromRaw(std::string_view raw);

// The fixed notes the library writes on its operations.
inline constexpr std::string_view kWrapperUnwrapNote = "Rule-based redirect wrapper removal";
inline constexpr std::string_view kPathRewriteNote = "Rule-based path cleanup";
inline constexpr std::string_view kPrivacyRedirectNote = "User-enabled privacy frontend rewrite";
inline constexpr std::string_view kNetworkResolutionNote =
    "User-authorized canonical link resolution";

struct CleanOperation {
  CleanOperationKind kind = CleanOperationKind::localParameterRemoval;
  std::string inputURL;
  std::string outputURL;
  std::vector<std::string> removedParameters;
  bool networkUsed = false;
  std::optional<std::string> contactedHost;
  std::optional<std::string> note;
  bool operator==(const CleanOperation&) const = default;
};

struct CleanResult {
  std::string originalURL;
  std::string cleanedURL;
  std::int64_t paramsRemoved = 0;
  std::vector<std::string> removedQueryParameters;
  std::vector<std::string> matchedRuleIDs;
  std::set<RuleCategoryType> matchedCategories;
  std::optional<std::string> cleanedOriginalURL;
  std::optional<PrivacyRedirectInfo> privacyRedirect;
  std::vector<CleanOperation> operations;

  bool operator==(const CleanResult&) const = default;

  // True exactly when the two links differ as strings.
  bool wasModified() const { return originalURL != cleanedURL; }
  // What the removed trackers were for and how much they mattered.
  TrackingImpactReport trackingImpactReport() const {
    return TrackingImpactAnalyzer::analyze(matchedCategories, paramsRemoved, wasModified());
  }
  // A copy with `operation` appended and, when given, `cleanedURL` replaced; nothing else changes.
  CleanResult appendingOperation(CleanOperation operation,
                                 std::optional<std::string> newCleanedURL = std::nullopt) const;
};

// A clean's outcome: changed, skipped because the site is switched off, unchanged, or not a web
// link the cleaner accepts.
struct CleanOutcome {
  enum class Kind { cleaned, skippedDisabled, unchanged, invalid };
  Kind kind = Kind::invalid;
  std::optional<CleanResult> result;  // with `cleaned`
  std::string host;                   // with `skippedDisabled`

  static CleanOutcome cleaned(CleanResult r) { return {Kind::cleaned, std::move(r), {}}; }
  static CleanOutcome skippedDisabled(std::string h) {
    return {Kind::skippedDisabled, std::nullopt, std::move(h)};
  }
  static CleanOutcome unchanged() { return {Kind::unchanged, std::nullopt, {}}; }
  static CleanOutcome invalid() { return {Kind::invalid, std::nullopt, {}}; }
  bool operator==(const CleanOutcome&) const = default;
};

Json encodeCleanOperation(const CleanOperation& operation);
std::optional<CleanOperation> decodeCleanOperation(const Json& json);
Json encodeCleanResult(const CleanResult& result);
std::optional<CleanResult> decodeCleanResult(const Json& json);

}  // namespace linkwash
