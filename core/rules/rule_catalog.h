// The user-facing rule catalog: one RuleCategory per tracking category, each holding the
// RuleEntry items that name a rule, switch it and count its matches. Entries and categories are
// shared objects: the engine keeps them, a user interface flips `isEnabled` on them directly and
// the next match sees the change.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/rules/rule_category.h"
#include "platform/json/json_writer.h"

namespace linkwash {

struct RuleEntry {
  enum class RuleSource { clearURLs, fallback, custom };

  std::string id;
  std::string pattern;
  std::string displayName;
  RuleCategoryType category = RuleCategoryType::custom;
  RuleSource source = RuleSource::clearURLs;
  bool isEnabled = true;
  std::int64_t matchCount = 0;
};

// "ClearURLs", "Built-in", "Custom".
std::string_view rawValue(RuleEntry::RuleSource source);
std::optional<RuleEntry::RuleSource> ruleSourceFromRaw(std::string_view raw);

struct RuleCategory {
  RuleCategory(RuleCategoryType categoryType, bool enabled,
               std::vector<std::shared_ptr<RuleEntry>> entries)
      : id(rawValue(categoryType)),
        type(categoryType),
        isEnabled(enabled),
        rules(std::move(entries)) {}

  std::string id;
  RuleCategoryType type;
  bool isEnabled = true;
  std::int64_t matchCount = 0;
  // Change the list itself only through the engine's operations: the engine indexes it.
  std::vector<std::shared_ptr<RuleEntry>> rules;

  std::int64_t totalMatchCount() const;
  std::size_t enabledRuleCount() const;
};

using RuleCatalog = std::vector<std::shared_ptr<RuleCategory>>;

// JSON forms: keys "id", "pattern", "displayName", "category", "source", "isEnabled",
// "matchCount" for entries and "id", "type", "isEnabled", "matchCount", "rules" for categories.
Json encodeRuleEntry(const RuleEntry& entry);
std::optional<RuleEntry> decodeRuleEntry(const Json& json);
Json encodeRuleCategory(const RuleCategory& category);
// Decodes the export format (an array of categories); nothing when any part does not decode.
std::optional<std::vector<RuleCategory>> decodeRuleCategories(const Json& json);

}  // namespace linkwash
