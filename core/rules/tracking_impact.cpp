#include "core/rules/tracking_impact.h"

#include <algorithm>

namespace linkwash {

std::string_view rawValue(TrackingCommercialCategory category) {
  switch (category) {
    case TrackingCommercialCategory::directCommercialAttribution:
      return "Direct commercial attribution";
    case TrackingCommercialCategory::adPlatformAttribution:
      return "Ad and social attribution";
    case TrackingCommercialCategory::campaignAnalytics:
      return "Campaign analytics";
    case TrackingCommercialCategory::behavioralCorrelation:
      return "Behavioral correlation";
    case TrackingCommercialCategory::redirectTracking:
      return "Redirect tracking";
  }
  return "";
}

std::string_view rawValue(TrackingImpactLevel level) {
  static constexpr std::array<std::string_view, 5> kNames = {"Negligible", "Low", "Medium", "High",
                                                             "Very High"};
  return kNames[static_cast<std::size_t>(level)];
}

std::string_view rawValue(TrackingImpactConfidence confidence) {
  static constexpr std::array<std::string_view, 3> kNames = {"Low", "Medium", "High"};
  return kNames[static_cast<std::size_t>(confidence)];
}

std::optional<TrackingImpactLevel> trackingImpactLevelFromRaw(std::string_view raw) {
  for (auto level : kAllTrackingImpactLevels) {
    if (rawValue(level) == raw) return level;
  }
  return std::nullopt;
}

std::optional<TrackingImpactConfidence> trackingImpactConfidenceFromRaw(std::string_view raw) {
  for (auto confidence : kAllTrackingImpactConfidences) {
    if (rawValue(confidence) == raw) return confidence;
  }
  return std::nullopt;
}

int weight(TrackingCommercialCategory category) {
  switch (category) {
    case TrackingCommercialCategory::directCommercialAttribution:
      return 5;
    case TrackingCommercialCategory::adPlatformAttribution:
      return 4;
    case TrackingCommercialCategory::redirectTracking:
      return 3;
    case TrackingCommercialCategory::campaignAnalytics:
    case TrackingCommercialCategory::behavioralCorrelation:
      return 2;
  }
  return 0;
}

TrackingImpactConfidence defaultConfidence(TrackingCommercialCategory category) {
  switch (category) {
    case TrackingCommercialCategory::behavioralCorrelation:
    case TrackingCommercialCategory::redirectTracking:
      return TrackingImpactConfidence::medium;
    default:
      return TrackingImpactConfidence::high;
  }
}

std::string_view explanation(TrackingCommercialCategory category) {
  switch (category) {
    case TrackingCommercialCategory::directCommercialAttribution:
      return "Helps a merchant, affiliate, or partner claim credit for your click or purchase.";
    case TrackingCommercialCategory::adPlatformAttribution:
      return "Helps ad and social platforms connect a click to later behavior or conversions.";
    case TrackingCommercialCategory::campaignAnalytics:
      return "Helps marketers measure which campaign, source, or creative drove the click.";
    case TrackingCommercialCategory::behavioralCorrelation:
      return "Helps companies connect this click to a broader profile across emails, campaigns, "
             "or sessions.";
    case TrackingCommercialCategory::redirectTracking:
      return "Routes the click through tracking infrastructure before reaching the destination.";
  }
  return "";
}

TrackingCommercialCategory commercialCategory(RuleCategoryType type) {
  switch (type) {
    case RuleCategoryType::analytics:
      return TrackingCommercialCategory::campaignAnalytics;
    case RuleCategoryType::socialMedia:
    case RuleCategoryType::advertising:
      return TrackingCommercialCategory::adPlatformAttribution;
    case RuleCategoryType::referralMarketing:
    case RuleCategoryType::ecommerce:
      return TrackingCommercialCategory::directCommercialAttribution;
    case RuleCategoryType::redirectUnwrapping:
      return TrackingCommercialCategory::redirectTracking;
    case RuleCategoryType::emailMarketing:
    case RuleCategoryType::custom:
      return TrackingCommercialCategory::behavioralCorrelation;
  }
  return TrackingCommercialCategory::behavioralCorrelation;
}

TrackingImpactReport TrackingImpactAnalyzer::analyze(
    const std::set<RuleCategoryType>& matchedCategories, std::int64_t paramsRemoved,
    bool urlChanged) {
  TrackingImpactReport report;
  for (auto type : matchedCategories) {
    const auto category = commercialCategory(type);
    if (std::find(report.categories.begin(), report.categories.end(), category) ==
        report.categories.end()) {
      report.categories.push_back(category);
    }
  }
  std::sort(report.categories.begin(), report.categories.end(), [](auto a, auto b) {
    if (weight(a) != weight(b)) return weight(a) > weight(b);
    return rawValue(a) < rawValue(b);
  });

  std::int64_t signals = std::max<std::int64_t>(paramsRemoved, 0);
  std::int64_t score = 0;
  if (!report.categories.empty()) {
    std::int64_t weightSum = 0;
    for (auto category : report.categories) weightSum += weight(category);
    const auto extra = std::clamp<std::int64_t>(
        signals - static_cast<std::int64_t>(report.categories.size()), 0, 3);
    score = weightSum + extra;
  } else {
    // A link that changed without a named rule (a rewritten path) still lost something.
    if (urlChanged && signals < 2) signals = 1;
    score = std::min<std::int64_t>(signals, 3);
  }
  report.totalSignals = signals;
  report.impactLevel = score <= 0   ? TrackingImpactLevel::negligible
                       : score <= 2 ? TrackingImpactLevel::low
                       : score <= 5 ? TrackingImpactLevel::medium
                       : score <= 8 ? TrackingImpactLevel::high
                                    : TrackingImpactLevel::veryHigh;

  if (report.categories.empty()) {
    report.confidence = TrackingImpactConfidence::low;
  } else {
    report.confidence = TrackingImpactConfidence::high;
    for (auto category : report.categories) {
      report.confidence = std::min(report.confidence, defaultConfidence(category));
    }
  }

  const std::string removed = "Removed " + std::to_string(signals) +
                              (signals == 1 ? " tracking signal" : " tracking signals");
  const auto& c = report.categories;
  switch (c.size()) {
    case 0:
      report.summary = removed + ".";
      break;
    case 1:
      report.summary = removed + " tied to " + std::string(rawValue(c[0])) + ".";
      break;
    case 2:
      report.summary = removed + " tied to " + std::string(rawValue(c[0])) + " and " +
                       std::string(rawValue(c[1])) + ".";
      break;
    default:
      report.summary = removed + " across " + std::string(rawValue(c[0])) + ", " +
                       std::string(rawValue(c[1])) + ", and other tracking categories.";
  }

  if (c.empty()) {
    report.explanation =
        "These parameters can help companies measure, route, or correlate your click.";
  } else {
    // The leading purpose first; a second one adds its own sentence, more would be noise.
    report.explanation = std::string(explanation(c[0]));
    if (c.size() >= 2) report.explanation += " " + std::string(explanation(c[1]));
  }
  return report;
}

}  // namespace linkwash
