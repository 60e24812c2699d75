#include "core/rules/provider_file.h"

#include "base/strings.h"
#include "platform/json/json_members.h"
#include "platform/json/json_writer.h"

namespace linkwash {
namespace {

// A key holding null reads as absent; a present key of another type fails the whole file.
bool readString(const Json& object, const char* key, std::string& out) {
  const auto it = object.find(key);
  if (it == object.end() || it->is_null()) return true;
  if (!it->is_string()) return false;
  out = it->get<std::string>();
  return true;
}

bool readBool(const Json& object, const char* key, bool& out) {
  const auto it = object.find(key);
  if (it == object.end() || it->is_null()) return true;
  if (!it->is_boolean()) return false;
  out = it->get<bool>();
  return true;
}

std::vector<PatternRegex> compileList(const std::vector<std::string>& patterns, bool anchored,
                                      std::optional<RuleCategoryType> idCategory) {
  std::vector<PatternRegex> out;
  out.reserve(patterns.size());
  for (const auto& pattern : patterns) {
    auto regex =
        Regex::compile(anchored ? "^" + pattern + "$" : pattern, RegexOptions::caseInsensitive);
    if (!regex) continue;
    out.push_back(PatternRegex{std::move(*regex), pattern,
                               idCategory ? makeRuleID(*idCategory, pattern) : std::string()});
  }
  return out;
}

bool containsAny(std::string_view name, std::initializer_list<std::string_view> words) {
  for (auto word : words) {
    if (name.find(word) != std::string_view::npos) return true;
  }
  return false;
}

}  // namespace

std::vector<std::string> Provider::allParamPatterns() const {
  std::vector<std::string> all = rules;
  all.insert(all.end(), referralMarketing.begin(), referralMarketing.end());
  return all;
}

std::optional<std::vector<NamedProvider>> decodeProvidersFile(std::string_view bytes) {
  auto json = parseJson(bytes);
  if (!json || !json->is_object()) return std::nullopt;
  const auto providers = json->find("providers");
  if (providers == json->end() || !providers->is_object()) return std::nullopt;
  std::vector<NamedProvider> out;
  out.reserve(providers->size());
  for (const auto& [name, object] : providers->items()) {
    if (!object.is_object()) return std::nullopt;
    Provider p;
    if (!readString(object, "urlPattern", p.urlPattern) ||
        !readBool(object, "completeProvider", p.completeProvider) ||
        !readJsonStrings(object, "rules", p.rules, JsonPresence::optional) ||
        !readJsonStrings(object, "rawRules", p.rawRules, JsonPresence::optional) ||
        !readJsonStrings(object, "referralMarketing", p.referralMarketing,
                         JsonPresence::optional) ||
        !readJsonStrings(object, "exceptions", p.exceptions, JsonPresence::optional) ||
        !readJsonStrings(object, "redirections", p.redirections, JsonPresence::optional) ||
        !readBool(object, "forceRedirection", p.forceRedirection)) {
      return std::nullopt;
    }
    out.push_back(NamedProvider{name, std::move(p)});
  }
  return out;
}

std::optional<CompiledProvider> compileProvider(std::string name, Provider provider) {
  auto urlRegex = Regex::compile(provider.urlPattern, RegexOptions::caseInsensitive);
  if (!urlRegex) return std::nullopt;
  const RuleCategoryType category = categorize(name, provider);
  std::vector<Regex> exceptions;
  exceptions.reserve(provider.exceptions.size());
  for (const auto& pattern : provider.exceptions) {
    if (auto regex = Regex::compile(pattern, RegexOptions::caseInsensitive)) {
      exceptions.push_back(std::move(*regex));
    }
  }
  CompiledProvider out{
      std::move(name),
      {},
      std::move(*urlRegex),
      std::move(exceptions),
      compileList(provider.rules, true, category),
      compileList(provider.rawRules, false, category),
      compileList(provider.redirections, false, RuleCategoryType::redirectUnwrapping),
      compileList(provider.referralMarketing, true, RuleCategoryType::referralMarketing),
      category,
  };
  out.provider = std::move(provider);
  return out;
}

RuleCategoryType categorize(std::string_view providerName, const Provider& provider) {
  if (!provider.redirections.empty()) return RuleCategoryType::redirectUnwrapping;
  const std::string name = asciiLower(providerName);
  if (containsAny(name, {"amazon", "aliexpress", "ebay", "shopify", "etsy", "walmart"})) {
    return RuleCategoryType::ecommerce;
  }
  if (containsAny(name, {"facebook", "twitter", "instagram", "tiktok", "linkedin", "reddit",
                         "youtube", "snapchat", "pinterest"})) {
    return RuleCategoryType::socialMedia;
  }
  if (containsAny(name, {"google ad", "doubleclick", "bing", "adform", "adservice", "criteo"})) {
    return RuleCategoryType::advertising;
  }
  if (containsAny(name, {"google", "analytics", "adobe", "yandex", "matomo", "piwik", "segment",
                         "hotjar", "mixpanel"})) {
    return RuleCategoryType::analytics;
  }
  if (containsAny(name, {"mailchimp", "hubspot", "sendgrid", "constantcontact", "campaign"})) {
    return RuleCategoryType::emailMarketing;
  }
  return provider.referralMarketing.empty() ? RuleCategoryType::analytics
                                            : RuleCategoryType::referralMarketing;
}

RuleCategoryType fallbackCategory(std::string_view name) {
  if (startsWith(name, "utm_")) return RuleCategoryType::analytics;
  if (name == "fbclid" || name == "twclid" || name == "igshid" || name == "ttclid") {
    return RuleCategoryType::socialMedia;
  }
  if (name == "gclid" || name == "gclsrc" || name == "msclkid") {
    return RuleCategoryType::advertising;
  }
  if (name == "mc_cid" || name == "mc_eid" || name == "_hsenc" || name == "_hsmi") {
    return RuleCategoryType::emailMarketing;
  }
  return RuleCategoryType::analytics;
}

std::string makeRuleID(RuleCategoryType category, std::string_view pattern) {
  std::string id(rawValue(category));
  id += ':';
  id += pattern;
  return id;
}

}  // namespace linkwash
