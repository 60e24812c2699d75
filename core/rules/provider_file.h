// Provider rule files in the public ClearURLs format and their compiled form.
//
// A file is {"providers": {name: provider, ...}}. Every provider key is optional; "rules" and
// "referralMarketing" are parameter-name regex fragments (anchored when compiled), the other
// lists are regexes matched anywhere. Every regex is compiled case-insensitively with ICU, and an
// invalid one drops only itself, or the whole provider when it is the URL pattern.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/rules/rule_category.h"
#include "platform/regex/regex.h"

namespace linkwash {

struct Provider {
  std::string urlPattern;
  bool completeProvider = false;
  std::vector<std::string> rules;
  std::vector<std::string> rawRules;
  std::vector<std::string> referralMarketing;
  std::vector<std::string> exceptions;
  std::vector<std::string> redirections;
  bool forceRedirection = false;

  // `rules` followed by `referralMarketing`.
  std::vector<std::string> allParamPatterns() const;
};

struct NamedProvider {
  std::string name;
  Provider provider;
};

// Decodes a provider file; nothing when it is not JSON, has no "providers" object, or a provider
// member has the wrong type. Providers keep the file's order.
std::optional<std::vector<NamedProvider>> decodeProvidersFile(std::string_view bytes);

// A compiled regex with the rule text it came from and its rule identifier (empty for kinds that
// have none, such as exceptions).
struct PatternRegex {
  Regex regex;
  std::string pattern;
  std::string ruleID;
};

struct CompiledProvider {
  std::string name;
  Provider provider;
  Regex urlRegex;
  std::vector<Regex> exceptionRegexes;
  std::vector<PatternRegex> paramRegexes;
  std::vector<PatternRegex> rawRuleRegexes;
  std::vector<PatternRegex> redirectionRegexes;
  std::vector<PatternRegex> referralParamRegexes;
  RuleCategoryType category = RuleCategoryType::analytics;
};

// Compiles one provider; nothing when its URL pattern is not a valid regex.
std::optional<CompiledProvider> compileProvider(std::string name, Provider provider);

// What a rule file's maker must hear before publishing it, one line per pattern naming the
// provider, the field and the pattern: patterns ICU refuses (silently dropped at load, or the
// whole provider for its URL pattern) and patterns shaped to backtrack catastrophically.
struct PatternReview {
  std::vector<std::string> dropped;
  std::vector<std::string> risky;
};
PatternReview reviewPatterns(const std::vector<NamedProvider>& providers);

// True when the pattern repeats a group that itself holds an unbounded repetition, such as
// "(a+)+" or "(\w+\s?)*": on text that almost matches, the work doubles with every character.
// A heuristic: it may miss some shapes, and it does not run the pattern.
bool mayBacktrackCatastrophically(std::string_view pattern);

// The category a provider belongs to, from its redirections and the words in its name.
RuleCategoryType categorize(std::string_view providerName, const Provider& provider);

// The built-in parameter names that are stripped everywhere.
inline constexpr std::array<std::string_view, 24> kFallbackParams = {"utm_source",
                                                                     "utm_medium",
                                                                     "utm_campaign",
                                                                     "utm_term",
                                                                     "utm_content",
                                                                     "utm_id",
                                                                     "utm_source_platform",
                                                                     "utm_creative_format",
                                                                     "utm_marketing_tactic",
                                                                     "fbclid",
                                                                     "gclid",
                                                                     "gclsrc",
                                                                     "msclkid",
                                                                     "ttclid",
                                                                     "twclid",
                                                                     "mc_cid",
                                                                     "mc_eid",
                                                                     "_hsenc",
                                                                     "_hsmi",
                                                                     "yclid",
                                                                     "igshid",
                                                                     "si",
                                                                     "feature",
                                                                     "pp"};

RuleCategoryType fallbackCategory(std::string_view name);

// "Analytics:utm_source" and friends.
std::string makeRuleID(RuleCategoryType category, std::string_view pattern);

}  // namespace linkwash
