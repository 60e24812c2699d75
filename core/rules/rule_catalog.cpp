#include "core/rules/rule_catalog.h"

#include <array>

namespace linkwash {
namespace {

constexpr std::array<std::string_view, 3> kSourceRaw = {"ClearURLs", "Built-in", "Custom"};

template <typename T>
std::optional<T> member(const Json& json, const char* key) {
  const auto it = json.find(key);
  if (it == json.end()) return std::nullopt;
  if constexpr (std::is_same_v<T, std::string>) {
    if (!it->is_string()) return std::nullopt;
  } else if constexpr (std::is_same_v<T, bool>) {
    if (!it->is_boolean()) return std::nullopt;
  } else {
    if (!it->is_number_integer()) return std::nullopt;
  }
  return it->template get<T>();
}

}  // namespace

std::string_view rawValue(RuleEntry::RuleSource source) {
  return kSourceRaw[static_cast<std::size_t>(source)];
}

std::optional<RuleEntry::RuleSource> ruleSourceFromRaw(std::string_view raw) {
  for (std::size_t i = 0; i < kSourceRaw.size(); ++i) {
    if (kSourceRaw[i] == raw) return static_cast<RuleEntry::RuleSource>(i);
  }
  return std::nullopt;
}

std::int64_t RuleCategory::totalMatchCount() const {
  std::int64_t total = 0;
  for (const auto& entry : rules) total += entry->matchCount;
  return total;
}

std::size_t RuleCategory::enabledRuleCount() const {
  std::size_t count = 0;
  for (const auto& entry : rules) count += entry->isEnabled ? 1 : 0;
  return count;
}

Json encodeRuleEntry(const RuleEntry& entry) {
  Json json = Json::object();
  json["id"] = entry.id;
  json["pattern"] = entry.pattern;
  json["displayName"] = entry.displayName;
  json["category"] = std::string(rawValue(entry.category));
  json["source"] = std::string(rawValue(entry.source));
  json["isEnabled"] = entry.isEnabled;
  json["matchCount"] = entry.matchCount;
  return json;
}

std::optional<RuleEntry> decodeRuleEntry(const Json& json) {
  if (!json.is_object()) return std::nullopt;
  auto id = member<std::string>(json, "id");
  auto pattern = member<std::string>(json, "pattern");
  auto displayName = member<std::string>(json, "displayName");
  auto category = member<std::string>(json, "category");
  auto source = member<std::string>(json, "source");
  auto enabled = member<bool>(json, "isEnabled");
  auto count = member<std::int64_t>(json, "matchCount");
  if (!id || !pattern || !displayName || !category || !source || !enabled || !count) {
    return std::nullopt;
  }
  auto type = ruleCategoryTypeFromRaw(*category);
  auto from = ruleSourceFromRaw(*source);
  if (!type || !from) return std::nullopt;
  return RuleEntry{
      std::move(*id), std::move(*pattern), std::move(*displayName), *type, *from, *enabled, *count};
}

Json encodeRuleCategory(const RuleCategory& category) {
  Json json = Json::object();
  json["id"] = category.id;
  json["type"] = std::string(rawValue(category.type));
  json["isEnabled"] = category.isEnabled;
  json["matchCount"] = category.matchCount;
  Json rules = Json::array();
  for (const auto& entry : category.rules) rules.push_back(encodeRuleEntry(*entry));
  json["rules"] = std::move(rules);
  return json;
}

std::optional<std::vector<RuleCategory>> decodeRuleCategories(const Json& json) {
  if (!json.is_array()) return std::nullopt;
  std::vector<RuleCategory> out;
  out.reserve(json.size());
  for (const auto& item : json) {
    if (!item.is_object()) return std::nullopt;
    auto id = member<std::string>(item, "id");
    auto typeRaw = member<std::string>(item, "type");
    auto enabled = member<bool>(item, "isEnabled");
    auto count = member<std::int64_t>(item, "matchCount");
    const auto rulesIt = item.find("rules");
    if (!id || !typeRaw || !enabled || !count || rulesIt == item.end() || !rulesIt->is_array()) {
      return std::nullopt;
    }
    auto type = ruleCategoryTypeFromRaw(*typeRaw);
    if (!type) return std::nullopt;
    std::vector<std::shared_ptr<RuleEntry>> entries;
    for (const auto& rule : *rulesIt) {
      auto entry = decodeRuleEntry(rule);
      if (!entry) return std::nullopt;
      entries.push_back(std::make_shared<RuleEntry>(std::move(*entry)));
    }
    RuleCategory category(*type, *enabled, std::move(entries));
    category.id = std::move(*id);
    category.matchCount = *count;
    out.push_back(std::move(category));
  }
  return out;
}

}  // namespace linkwash
