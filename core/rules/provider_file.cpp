#include "core/rules/provider_file.h"

#include <algorithm>

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

bool mayBacktrackCatastrophically(std::string_view pattern) {
  // Per open group: whether it can end in an unbounded repetition followed only by optional
  // items (`tail`, or `anyTail` for an earlier alternative). Repeating such a group without
  // bound lets the same text be split between the two repetitions in exponentially many ways.
  // "([a-z]+\.)*" is safe: every round must end with the dot.
  struct Group {
    bool tail = false;
    bool anyTail = false;
    bool tailBeforeAtom = false;
  };
  std::vector<Group> groups(1);
  bool lastAtomIsAmbiguousGroup = false;
  bool afterQuantifier = false;
  const auto atom = [&](bool ambiguousGroup) {
    Group& group = groups.back();
    group.tailBeforeAtom = group.tail;
    group.tail = false;
    lastAtomIsAmbiguousGroup = ambiguousGroup;
    afterQuantifier = false;
  };
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    const char c = pattern[i];
    if (afterQuantifier && (c == '?' || c == '+')) {  // lazy or possessive form
      afterQuantifier = false;
      continue;
    }
    if (c == '\\') {
      ++i;
      atom(false);
    } else if (c == '[') {
      // Skip the class; a "]" right after "[" or "[^" is a member.
      std::size_t j = i + 1;
      if (j < pattern.size() && pattern[j] == '^') ++j;
      if (j < pattern.size() && pattern[j] == ']') ++j;
      for (; j < pattern.size() && pattern[j] != ']'; ++j) {
        if (pattern[j] == '\\') ++j;
      }
      i = j;
      atom(false);
    } else if (c == '(') {
      groups.emplace_back();
      if (i + 1 < pattern.size() && pattern[i + 1] == '?') {
        // "(?:", "(?=", "(?!", "(?<=", "(?<!", "(?<name>": skip the group's kind.
        std::size_t j = i + 2;
        if (j < pattern.size() && pattern[j] == '<' && j + 1 < pattern.size() &&
            pattern[j + 1] != '=' && pattern[j + 1] != '!') {
          j = std::min(pattern.find('>', j), pattern.size() - 1);
        } else if (j < pattern.size() && pattern[j] == '<') {
          ++j;
        }
        i = j;
      }
      afterQuantifier = false;
      lastAtomIsAmbiguousGroup = false;
    } else if (c == '|') {
      groups.back().anyTail = groups.back().anyTail || groups.back().tail;
      groups.back().tail = false;
      lastAtomIsAmbiguousGroup = false;
      afterQuantifier = false;
    } else if (c == ')') {
      const Group closed = groups.back();
      if (groups.size() > 1) groups.pop_back();
      atom(closed.tail || closed.anyTail);
    } else if (c == '*' || c == '+' || c == '?' || c == '{') {
      bool optional = c != '+';
      bool unbounded = c != '?';
      if (c == '{') {
        const std::size_t close = pattern.find('}', i);
        if (close == std::string_view::npos) {
          atom(false);
          continue;
        }
        const std::string_view bounds = pattern.substr(i + 1, close - i - 1);
        const std::size_t comma = bounds.find(',');
        optional = !bounds.empty() && bounds[0] == '0' && (bounds.size() == 1 || bounds[1] == ',');
        // "{n,}" is unbounded, and "{n,m}" with a large m is as bad in practice.
        unbounded = comma != std::string_view::npos &&
                    (comma + 1 == bounds.size() || bounds.size() - comma - 1 > 2);
        i = close;
      }
      if (unbounded && lastAtomIsAmbiguousGroup) return true;
      Group& group = groups.back();
      if (unbounded) {
        group.tail = true;
      } else if (optional) {
        group.tail = group.tailBeforeAtom;
      }
      lastAtomIsAmbiguousGroup = false;
      afterQuantifier = true;
    } else {
      atom(false);
    }
  }
  return false;
}

PatternReview reviewPatterns(const std::vector<NamedProvider>& providers) {
  PatternReview review;
  const auto check = [&](const std::string& provider, std::string_view field,
                         const std::string& pattern, bool anchored) {
    const std::string line =
        "provider \"" + provider + "\", " + std::string(field) + " \"" + pattern + "\"";
    if (!Regex::compile(anchored ? "^" + pattern + "$" : pattern, RegexOptions::caseInsensitive)) {
      review.dropped.push_back(line + (field == "urlPattern" ? " does not compile (the provider "
                                                               "is dropped)"
                                                             : " does not compile"));
    } else if (mayBacktrackCatastrophically(pattern)) {
      review.risky.push_back(line + " can backtrack catastrophically");
    }
  };
  for (const auto& [name, p] : providers) {
    check(name, "urlPattern", p.urlPattern, false);
    for (const auto& rule : p.rules) check(name, "rules", rule, true);
    for (const auto& rule : p.rawRules) check(name, "rawRules", rule, false);
    for (const auto& rule : p.referralMarketing) check(name, "referralMarketing", rule, true);
    for (const auto& rule : p.exceptions) check(name, "exceptions", rule, false);
    for (const auto& rule : p.redirections) check(name, "redirections", rule, false);
  }
  return review;
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
