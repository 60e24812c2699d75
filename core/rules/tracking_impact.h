// What the trackers removed from a link were for, in plain words: the commercial purposes behind
// the matched rule categories, how many signals were removed, an impact level, a confidence and
// two sentences for the user. CleanResult::trackingImpactReport() is the usual way in.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "core/rules/rule_category.h"

namespace linkwash {

enum class TrackingCommercialCategory {
  directCommercialAttribution,
  adPlatformAttribution,
  campaignAnalytics,
  behavioralCorrelation,
  redirectTracking,
};

// Ordered as listed, so the built-in comparisons rank them.
enum class TrackingImpactLevel { negligible, low, medium, high, veryHigh };
enum class TrackingImpactConfidence { low, medium, high };

inline constexpr std::array<TrackingImpactLevel, 5> kAllTrackingImpactLevels = {
    TrackingImpactLevel::negligible, TrackingImpactLevel::low, TrackingImpactLevel::medium,
    TrackingImpactLevel::high, TrackingImpactLevel::veryHigh};
inline constexpr std::array<TrackingImpactConfidence, 3> kAllTrackingImpactConfidences = {
    TrackingImpactConfidence::low, TrackingImpactConfidence::medium,
    TrackingImpactConfidence::high};

// Display names, which are also the raw values: "Direct commercial attribution", ...; "Very
// High"; "Medium".
std::string_view rawValue(TrackingCommercialCategory category);
std::string_view rawValue(TrackingImpactLevel level);
std::string_view rawValue(TrackingImpactConfidence confidence);
std::optional<TrackingImpactLevel> trackingImpactLevelFromRaw(std::string_view raw);
std::optional<TrackingImpactConfidence> trackingImpactConfidenceFromRaw(std::string_view raw);

int weight(TrackingCommercialCategory category);
TrackingImpactConfidence defaultConfidence(TrackingCommercialCategory category);
std::string_view explanation(TrackingCommercialCategory category);
TrackingCommercialCategory commercialCategory(RuleCategoryType type);

struct TrackingImpactReport {
  std::int64_t totalSignals = 0;
  std::vector<TrackingCommercialCategory> categories;  // heaviest first, then by name
  TrackingImpactLevel impactLevel = TrackingImpactLevel::negligible;
  TrackingImpactConfidence confidence = TrackingImpactConfidence::low;
  std::string summary;
  std::string explanation;
  bool operator==(const TrackingImpactReport&) const = default;
};

struct TrackingImpactAnalyzer {
  // From what a clean did: its matched rule categories, its count of removed parameters and
  // whether the link changed at all. (CleanResult::trackingImpactReport() passes its own.)
  static TrackingImpactReport analyze(const std::set<RuleCategoryType>& matchedCategories,
                                      std::int64_t paramsRemoved, bool urlChanged);
};

}  // namespace linkwash
