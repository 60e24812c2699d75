#include "core/rules/rule_category.h"

namespace linkwash {
namespace {

struct CategoryText {
  std::string_view raw;
  std::string_view description;
  std::string_view icon;
};

constexpr std::array<CategoryText, 8> kTexts = {{
    {"Analytics", "UTM parameters, Google Analytics, Adobe, Yandex", "chart.bar"},
    {"Social Media", "Facebook, Twitter, Instagram, TikTok tracking",
     "bubble.left.and.bubble.right"},
    {"Advertising", "Google Ads, Microsoft Ads, ad tracking", "megaphone"},
    {"Referral Marketing", "Affiliate tags, referrer parameters", "arrow.triangle.branch"},
    {"Redirect Unwrapping", "Google/Facebook URL redirect wrappers", "arrow.uturn.right"},
    {"E-commerce", "Amazon ref tags, product tracking", "cart"},
    {"Email Marketing", "Mailchimp, HubSpot parameters", "envelope"},
    {"Custom", "User-defined rules", "wrench"},
}};

}  // namespace

std::string_view rawValue(RuleCategoryType type) { return kTexts[index(type)].raw; }
std::string_view description(RuleCategoryType type) { return kTexts[index(type)].description; }
std::string_view icon(RuleCategoryType type) { return kTexts[index(type)].icon; }

std::optional<RuleCategoryType> ruleCategoryTypeFromRaw(std::string_view raw) {
  for (RuleCategoryType type : kAllRuleCategoryTypes) {
    if (kTexts[index(type)].raw == raw) return type;
  }
  return std::nullopt;
}

}  // namespace linkwash
