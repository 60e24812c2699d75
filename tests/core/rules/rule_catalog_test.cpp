// The rule catalog the engine builds after each load, and what it keeps in its preference store:
// switches, match counts and custom rules, across engines, resets, exports and imports.
#include "core/rules/rule_catalog.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/rules/rules_engine.h"
#include "tests/core/rules/rules_test_support.h"

namespace linkwash {
namespace {

using testing::fallbackRuleID;
using testing::providerNamed;
using testing::RulesHome;
using testing::stripRuleID;
using Source = RuleEntry::RuleSource;

constexpr std::string_view kProviders = R"js({"providers": {
  "stats analytics": {"urlPattern": "^https?://stats\\.example/", "rules": ["tid", "sid"],
                      "referralMarketing": ["ref"], "rawRules": ["/track/[0-9]+"]},
  "jump": {"urlPattern": "^https?://jump\\.example/", "redirections": ["to=([^&]+)"]},
  "facebook": {"rules": ["share_id", "fbclid"]},
  "twitter": {"rules": ["share_id"]}}})js";

std::size_t countEntries(const RulesEngine& engine, std::string_view id) {
  std::size_t count = 0;
  for (const auto& category : engine.categories()) {
    for (const auto& entry : category->rules) count += entry->id == id ? 1 : 0;
  }
  return count;
}

TEST(RuleCatalogTest, BuildsOneEntryPerRuleWithItsIdAndName) {
  RulesHome home;
  auto engine = home.engine(kProviders);
  ASSERT_EQ(engine->categories().size(), 8u);
  for (std::size_t i = 0; i < 8; ++i) {
    const RuleCategory& category = *engine->categories()[i];
    EXPECT_EQ(category.type, kAllRuleCategoryTypes[i]);
    EXPECT_EQ(category.id, rawValue(category.type));
    EXPECT_TRUE(category.isEnabled);
    EXPECT_EQ(category.matchCount, 0);
  }
  struct Expected {
    const char* id;
    RuleCategoryType category;
    const char* pattern;  // null: not checked
    const char* displayName;
    Source source;
  };
  const std::vector<Expected> cases = {
      {"Analytics:tid", RuleCategoryType::analytics, "tid", "stats analytics: tid",
       Source::clearURLs},
      {"Referral Marketing:ref", RuleCategoryType::referralMarketing, "ref", "stats analytics: ref",
       Source::clearURLs},
      {"Analytics:/track/[0-9]+", RuleCategoryType::analytics, "/track/[0-9]+",
       "stats analytics: path rule", Source::clearURLs},
      {"Redirect Unwrapping:to=([^&]+)", RuleCategoryType::redirectUnwrapping, "to=([^&]+)",
       "jump: redirect", Source::clearURLs},
      {"Analytics:utm_*", RuleCategoryType::analytics, nullptr, "utm_* (all UTM parameters)",
       Source::fallback},
      {"Advertising:gclid", RuleCategoryType::advertising, "gclid", nullptr, Source::fallback},
      {"Email Marketing:mc_eid", RuleCategoryType::emailMarketing, "mc_eid", nullptr,
       Source::fallback},
  };
  for (const Expected& e : cases) {
    SCOPED_TRACE(e.id);
    const RuleEntry* entry = engine->entry(e.id, e.category);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->category, e.category);
    if (e.pattern != nullptr) {
      EXPECT_EQ(entry->pattern, e.pattern);
    }
    if (e.displayName != nullptr) {
      EXPECT_EQ(entry->displayName, e.displayName);
    }
    EXPECT_EQ(entry->source, e.source);
    EXPECT_TRUE(entry->isEnabled);
    EXPECT_EQ(entry->matchCount, 0);
    EXPECT_EQ(countEntries(*engine, e.id), 1u);
  }
}

TEST(RuleCatalogTest, RuleSharedByTwoProvidersIsOneEntryThatSwitchesBoth) {
  RulesHome home;
  auto engine = home.engine(kProviders);
  EXPECT_EQ(countEntries(*engine, "Social Media:share_id"), 1u);
  const CompiledProvider* facebook = providerNamed(*engine, "facebook");
  const CompiledProvider* twitter = providerNamed(*engine, "twitter");
  ASSERT_TRUE(facebook && twitter);
  EXPECT_EQ(stripRuleID(*engine, "share_id", *facebook), "Social Media:share_id");
  EXPECT_EQ(stripRuleID(*engine, "share_id", *twitter), "Social Media:share_id");

  engine->entry("Social Media:share_id", RuleCategoryType::socialMedia)->isEnabled = false;
  EXPECT_FALSE(engine->shouldStripParamBool("share_id", *facebook));
  EXPECT_FALSE(engine->shouldStripParamBool("share_id", *twitter));
}

TEST(RuleCatalogTest, SwitchesAndCountsSurviveANewEngineOnTheSameStore) {
  RulesHome home;
  {
    auto engine = home.engine(kProviders);
    engine->category(RuleCategoryType::advertising)->isEnabled = false;
    engine->entry("Analytics:tid", RuleCategoryType::analytics)->isEnabled = false;
    engine->recordMatch("Analytics:sid", RuleCategoryType::analytics);
    engine->recordMatch("Analytics:sid", RuleCategoryType::analytics);
    engine->recordMatch("Analytics:not-in-catalog", RuleCategoryType::analytics);
    engine->saveEnabledStates();
    engine->saveMatchCounts();
  }
  auto states = home.storedJson(RulesEngine::kEnabledStateKey);
  ASSERT_TRUE(states.has_value());
  EXPECT_EQ((*states)["cat:Advertising"], false);
  EXPECT_EQ((*states)["cat:Analytics"], true);
  EXPECT_EQ((*states)["rule:Analytics:tid"], false);
  EXPECT_EQ((*states)["rule:Social Media:share_id"], true);
  auto counts = home.storedJson(RulesEngine::kMatchCountsKey);
  ASSERT_TRUE(counts.has_value());
  EXPECT_EQ((*counts)["cat:Analytics"], 3);
  EXPECT_EQ((*counts)["rule:Analytics:sid"], 2);

  auto engine = home.engine(kProviders);
  EXPECT_FALSE(engine->isCategoryEnabled(RuleCategoryType::advertising));
  EXPECT_FALSE(engine->entry("Analytics:tid", RuleCategoryType::analytics)->isEnabled);
  EXPECT_TRUE(engine->entry("Analytics:sid", RuleCategoryType::analytics)->isEnabled);
  EXPECT_EQ(engine->category(RuleCategoryType::analytics)->matchCount, 3);
  EXPECT_EQ(engine->entry("Analytics:sid", RuleCategoryType::analytics)->matchCount, 2);
  EXPECT_FALSE(fallbackRuleID(*engine, "gclid").has_value());
}

TEST(RuleCatalogTest, ResetToDefaultsKeepsCountsAndResetMatchCountsKeepsSwitches) {
  RulesHome home;
  auto engine = home.engine(kProviders);
  RuleEntry* sid = engine->entry("Analytics:sid", RuleCategoryType::analytics);
  engine->recordMatch("Analytics:sid", RuleCategoryType::analytics);
  engine->saveMatchCounts();
  sid->isEnabled = false;
  engine->category(RuleCategoryType::socialMedia)->isEnabled = false;
  engine->addCustomRule("ref", "ref", RuleCategoryType::custom);  // also saves the switches

  engine->resetToDefaults();
  for (const auto& category : engine->categories()) {
    EXPECT_TRUE(category->isEnabled) << category->id;
    EXPECT_EQ(category->enabledRuleCount(), category->rules.size()) << category->id;
  }
  EXPECT_TRUE(engine->category(RuleCategoryType::custom)->rules.empty());
  EXPECT_FALSE(fallbackRuleID(*engine, "ref").has_value());
  EXPECT_EQ(sid->matchCount, 1);
  EXPECT_EQ(engine->category(RuleCategoryType::analytics)->matchCount, 1);
  EXPECT_FALSE(home.store()->object(RulesEngine::kEnabledStateKey).has_value());
  EXPECT_FALSE(home.store()->object(RulesEngine::kCustomRulesKey).has_value());
  EXPECT_TRUE(home.store()->object(RulesEngine::kMatchCountsKey).has_value());

  sid->isEnabled = false;
  engine->recordMatch("Analytics:sid", RuleCategoryType::analytics);
  engine->resetMatchCounts();
  EXPECT_FALSE(sid->isEnabled);
  EXPECT_EQ(sid->matchCount, 0);
  EXPECT_EQ(engine->category(RuleCategoryType::analytics)->matchCount, 0);
  EXPECT_EQ(engine->category(RuleCategoryType::analytics)->totalMatchCount(), 0);
  EXPECT_FALSE(home.store()->object(RulesEngine::kMatchCountsKey).has_value());
}

TEST(RuleCatalogTest, StaleRuleKeyIsIgnoredAndStaysUntilTheNextSave) {
  RulesHome home;
  home.storeJson(RulesEngine::kEnabledStateKey,
                 R"({"rule:Analytics:gone": false, "rule:Analytics:sid": false})");
  auto engine = home.engine(kProviders);
  EXPECT_EQ(engine->findEntry("Analytics:gone"), nullptr);
  EXPECT_FALSE(engine->entry("Analytics:sid", RuleCategoryType::analytics)->isEnabled);
  EXPECT_TRUE(engine->isCategoryEnabled(RuleCategoryType::analytics));
  EXPECT_TRUE(home.storedJson(RulesEngine::kEnabledStateKey)->contains("rule:Analytics:gone"));

  engine->saveEnabledStates();
  auto states = home.storedJson(RulesEngine::kEnabledStateKey);
  EXPECT_FALSE(states->contains("rule:Analytics:gone"));
  EXPECT_EQ((*states)["rule:Analytics:sid"], false);
}

TEST(RuleCatalogTest, UndecodableStoredStateLeavesDefaults) {
  RulesHome home;
  home.storeJson(RulesEngine::kEnabledStateKey, "[not json");
  home.storeJson(RulesEngine::kMatchCountsKey, R"(["cat:Analytics", 4])");
  home.storeJson(RulesEngine::kCustomRulesKey, R"([{"id": "Custom:x", "pattern": "x"}])");
  auto engine = home.engine(kProviders);
  for (const auto& category : engine->categories()) {
    EXPECT_TRUE(category->isEnabled);
    EXPECT_EQ(category->matchCount, 0);
  }
  EXPECT_TRUE(engine->category(RuleCategoryType::custom)->rules.empty());
  EXPECT_EQ(engine->fallbackRules().size(), 16u);
}

TEST(RuleCatalogTest, CustomRuleMatchesOneNameExactlyAndPersists) {
  RulesHome home;
  auto engine = home.engine(kProviders);
  engine->addCustomRule("ref", "My ref", RuleCategoryType::custom);
  engine->addCustomRule("a.b", "dotted", RuleCategoryType::analytics);
  const RuleEntry* ref = engine->entry("Custom:ref", RuleCategoryType::custom);
  ASSERT_NE(ref, nullptr);
  EXPECT_EQ(ref->pattern, "ref");
  EXPECT_EQ(ref->displayName, "My ref");
  EXPECT_EQ(ref->source, Source::custom);
  ASSERT_NE(engine->entry("Analytics:a.b", RuleCategoryType::analytics), nullptr);

  const std::vector<std::pair<std::string_view, std::optional<std::string>>> cases = {
      {"ref", "Custom:ref"},  {"REF", "Custom:ref"},    {"ref2", std::nullopt},
      {"xref", std::nullopt}, {"A.B", "Analytics:a.b"}, {"axb", std::nullopt},
  };
  for (const auto& [name, expected] : cases) {
    EXPECT_EQ(fallbackRuleID(*engine, name), expected) << name;
  }
  EXPECT_EQ(engine->shouldStripParamFallback("REF")->category, RuleCategoryType::custom);
  EXPECT_TRUE(home.storedJson(RulesEngine::kEnabledStateKey)->contains("rule:Custom:ref"));

  // A later load, a reload and a new engine all keep each custom rule exactly once.
  engine->load(kProviders);
  engine->reloadPersistedState();
  EXPECT_EQ(countEntries(*engine, "Custom:ref"), 1u);
  EXPECT_EQ(engine->fallbackRules().size(), 18u);
  auto reloaded = home.engine(kProviders);
  EXPECT_EQ(fallbackRuleID(*reloaded, "Ref"), "Custom:ref");
  EXPECT_EQ(fallbackRuleID(*reloaded, "a.B"), "Analytics:a.b");

  reloaded->removeCustomRule("Custom:ref");
  EXPECT_EQ(reloaded->findEntry("Custom:ref"), nullptr);
  EXPECT_FALSE(fallbackRuleID(*reloaded, "ref").has_value());
  EXPECT_EQ(fallbackRuleID(*reloaded, "a.b"), "Analytics:a.b");
  auto stored = home.storedJson(RulesEngine::kCustomRulesKey);
  ASSERT_TRUE(stored && stored->is_array());
  ASSERT_EQ(stored->size(), 1u);
  EXPECT_EQ((*stored)[0]["id"], "Analytics:a.b");
  EXPECT_EQ(home.engine(kProviders)->findEntry("Custom:ref"), nullptr);
}

TEST(RuleCatalogTest, ExportThenImportCarriesSwitchesAndCustomRulesOnly) {
  RulesHome from;
  auto source = from.engine(kProviders);
  source->addCustomRule("ref", "ref", RuleCategoryType::custom);
  source->category(RuleCategoryType::socialMedia)->isEnabled = false;
  source->entry("Analytics:tid", RuleCategoryType::analytics)->isEnabled = false;
  source->recordMatch("Custom:ref", RuleCategoryType::custom);
  source->recordMatch("Custom:ref", RuleCategoryType::custom);
  auto exported = source->exportRules();
  ASSERT_TRUE(exported.has_value());

  RulesHome to;
  auto target = to.engine(kProviders);
  ASSERT_TRUE(target->importRules(*exported));
  ASSERT_TRUE(target->importRules(*exported));  // a second import adds nothing twice
  EXPECT_FALSE(target->isCategoryEnabled(RuleCategoryType::socialMedia));
  EXPECT_TRUE(target->isCategoryEnabled(RuleCategoryType::analytics));
  // Only category switches and custom rules travel; entry switches and counts stay local.
  EXPECT_TRUE(target->entry("Analytics:tid", RuleCategoryType::analytics)->isEnabled);
  EXPECT_EQ(countEntries(*target, "Custom:ref"), 1u);
  EXPECT_EQ(fallbackRuleID(*target, "REF"), "Custom:ref");
  EXPECT_EQ(target->category(RuleCategoryType::custom)->matchCount, 0);
  // Imported match counts are ignored, the imported custom entry's own count included.
  EXPECT_EQ(target->entry("Custom:ref", RuleCategoryType::custom)->matchCount, 0);

  auto later = to.engine(kProviders);
  EXPECT_FALSE(later->isCategoryEnabled(RuleCategoryType::socialMedia));
  EXPECT_EQ(fallbackRuleID(*later, "ref"), "Custom:ref");
}

TEST(RuleCatalogTest, ImportWithEveryCategoryOffSwitchesThemOffAndSaves) {
  RulesHome home;
  auto engine = home.engine(kProviders);
  Json list = Json::array();
  for (RuleCategoryType type : kAllRuleCategoryTypes) {
    list.push_back(encodeRuleCategory(RuleCategory(type, false, {})));
  }
  ASSERT_TRUE(engine->importRules(writeJson(list)));
  auto states = home.storedJson(RulesEngine::kEnabledStateKey);
  ASSERT_TRUE(states.has_value());
  for (RuleCategoryType type : kAllRuleCategoryTypes) {
    EXPECT_FALSE(engine->isCategoryEnabled(type)) << rawValue(type);
    EXPECT_EQ((*states)["cat:" + std::string(rawValue(type))], false) << rawValue(type);
  }
  EXPECT_TRUE(engine->matchingProviders("https://stats.example/").empty());
  EXPECT_FALSE(engine->shouldStripParamFallbackBool("utm_source"));
}

TEST(RuleCatalogTest, UndecodableImportChangesNothing) {
  const std::vector<std::string_view> cases = {
      "not json",
      R"([{"id": "X", "type": "Nope", "isEnabled": false, "matchCount": 0, "rules": []}])",
      R"([{"id": "Analytics", "type": "Analytics", "isEnabled": false, "matchCount": 0,
           "rules": []},
          {"id": "Custom", "type": "Custom", "isEnabled": true, "matchCount": 0,
           "rules": [{"id": "Custom:x", "pattern": "x"}]}])",
  };
  RulesHome home;
  auto engine = home.engine(kProviders);
  for (std::string_view data : cases) {
    SCOPED_TRACE(data);
    EXPECT_FALSE(engine->importRules(data));
    EXPECT_TRUE(engine->isCategoryEnabled(RuleCategoryType::analytics));
    EXPECT_TRUE(engine->category(RuleCategoryType::custom)->rules.empty());
    EXPECT_FALSE(home.store()->object(RulesEngine::kEnabledStateKey).has_value());
    EXPECT_FALSE(home.store()->object(RulesEngine::kCustomRulesKey).has_value());
  }
}

}  // namespace
}  // namespace linkwash
