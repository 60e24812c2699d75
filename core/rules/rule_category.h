// The eight tracking categories. The raw value is the display name, the wire form and the
// prefix of every rule identifier ("Analytics:utm_source").
#pragma once

#include <array>
#include <optional>
#include <string_view>

namespace linkwash {

enum class RuleCategoryType {
  analytics,
  socialMedia,
  advertising,
  referralMarketing,
  redirectUnwrapping,
  ecommerce,
  emailMarketing,
  custom,
};

inline constexpr std::array<RuleCategoryType, 8> kAllRuleCategoryTypes = {
    RuleCategoryType::analytics,          RuleCategoryType::socialMedia,
    RuleCategoryType::advertising,        RuleCategoryType::referralMarketing,
    RuleCategoryType::redirectUnwrapping, RuleCategoryType::ecommerce,
    RuleCategoryType::emailMarketing,     RuleCategoryType::custom,
};

// "Analytics", "Social Media", ... (also the `id` of a category).
std::string_view rawValue(RuleCategoryType type);
std::string_view description(RuleCategoryType type);
// A system symbol name for user interfaces that show icons.
std::string_view icon(RuleCategoryType type);
std::optional<RuleCategoryType> ruleCategoryTypeFromRaw(std::string_view raw);

inline constexpr std::size_t index(RuleCategoryType type) { return static_cast<std::size_t>(type); }

}  // namespace linkwash
