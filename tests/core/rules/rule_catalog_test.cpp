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

using testing::entry;
using testing::fallbackRuleID;
using testing::providerNamed;
using testing::RulesHome;
using testing::stripRuleID;
using Cat = RuleCategoryType;
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

class RuleCatalogTest : public ::testing::Test {
 protected:
  RulesHome home_;
  std::unique_ptr<RulesEngine> engine_ = home_.engine(kProviders);
};

TEST_F(RuleCatalogTest, BuildsOneEntryPerRuleWithItsIdAndName) {
  // One category of each type, in display order.
  std::vector<Cat> types;
  for (const auto& category : engine_->categories()) types.push_back(category->type);
  EXPECT_EQ(types, std::vector<Cat>(kAllRuleCategoryTypes.begin(), kAllRuleCategoryTypes.end()));
  // Id, pattern, display name and source.
  const std::vector<std::tuple<const char*, const char*, const char*, Source>> cases = {
      {"Analytics:tid", "tid", "stats analytics: tid", Source::clearURLs},
      {"Referral Marketing:ref", "ref", "stats analytics: ref", Source::clearURLs},
      {"Analytics:/track/[0-9]+", "/track/[0-9]+", "stats analytics: path rule", Source::clearURLs},
      {"Redirect Unwrapping:to=([^&]+)", "to=([^&]+)", "jump: redirect", Source::clearURLs},
      {"Analytics:utm_*", "utm_*", "utm_* (all UTM parameters)", Source::fallback},
  };
  for (const auto& [id, pattern, displayName, source] : cases) {
    SCOPED_TRACE(id);
    const RuleEntry& found = entry(*engine_, id);
    EXPECT_EQ(rawValue(found.category), std::string_view(id).substr(0, found.id.find(':')));
    EXPECT_EQ(found.pattern, pattern);
    EXPECT_EQ(found.displayName, displayName);
    EXPECT_EQ(found.source, source);
  }
  // A rule two providers share is one entry, and its switch stops both.
  EXPECT_EQ(countEntries(*engine_, "Social Media:share_id"), 1u);
  entry(*engine_, "Social Media:share_id").isEnabled = false;
  for (const char* name : {"facebook", "twitter"}) {
    EXPECT_FALSE(engine_->shouldStripParamBool("share_id", *providerNamed(*engine_, name)));
  }
  EXPECT_EQ(stripRuleID(*engine_, "fbclid", *providerNamed(*engine_, "facebook")),
            "Social Media:fbclid");
}

TEST_F(RuleCatalogTest, SwitchesAndCountsSurviveANewEngineOnTheSameStore) {
  engine_->category(Cat::advertising)->isEnabled = false;
  entry(*engine_, "Analytics:tid").isEnabled = false;
  engine_->recordMatch("Analytics:sid", Cat::analytics);
  engine_->recordMatch("Analytics:sid", Cat::analytics);
  engine_->recordMatch("Analytics:not-in-catalog", Cat::analytics);
  engine_->saveEnabledStates();
  engine_->saveMatchCounts();
  auto states = home_.storedJson(RulesEngine::kEnabledStateKey);
  auto counts = home_.storedJson(RulesEngine::kMatchCountsKey);
  ASSERT_TRUE(states && counts);
  EXPECT_EQ((*states)["cat:Advertising"], false);
  EXPECT_EQ((*states)["cat:Analytics"], true);
  EXPECT_EQ((*states)["rule:Analytics:tid"], false);
  EXPECT_EQ((*states)["rule:Social Media:share_id"], true);
  EXPECT_EQ((*counts)["cat:Analytics"], 3);
  EXPECT_EQ((*counts)["rule:Analytics:sid"], 2);

  auto engine = home_.engine(kProviders);
  EXPECT_FALSE(engine->isCategoryEnabled(Cat::advertising));
  EXPECT_FALSE(entry(*engine, "Analytics:tid").isEnabled);
  EXPECT_EQ(engine->category(Cat::analytics)->matchCount, 3);
  EXPECT_EQ(entry(*engine, "Analytics:sid").matchCount, 2);
  EXPECT_FALSE(fallbackRuleID(*engine, "gclid").has_value());
}

TEST_F(RuleCatalogTest, ResetToDefaultsKeepsCountsAndResetMatchCountsKeepsSwitches) {
  RuleEntry& sid = entry(*engine_, "Analytics:sid");
  engine_->recordMatch("Analytics:sid", Cat::analytics);
  engine_->saveMatchCounts();
  sid.isEnabled = false;
  engine_->category(Cat::socialMedia)->isEnabled = false;
  engine_->addCustomRule("ref", "ref", Cat::custom);  // also saves the switches

  engine_->resetToDefaults();
  for (const auto& category : engine_->categories()) {
    EXPECT_TRUE(category->isEnabled) << category->id;
    EXPECT_EQ(category->enabledRuleCount(), category->rules.size()) << category->id;
  }
  EXPECT_TRUE(engine_->category(Cat::custom)->rules.empty());
  EXPECT_FALSE(fallbackRuleID(*engine_, "ref").has_value());
  EXPECT_EQ(sid.matchCount, 1);
  EXPECT_EQ(engine_->category(Cat::analytics)->matchCount, 1);
  EXPECT_FALSE(home_.store()->object(RulesEngine::kEnabledStateKey).has_value());
  EXPECT_FALSE(home_.store()->object(RulesEngine::kCustomRulesKey).has_value());
  EXPECT_TRUE(home_.store()->object(RulesEngine::kMatchCountsKey).has_value());

  sid.isEnabled = false;
  engine_->recordMatch("Analytics:sid", Cat::analytics);
  engine_->resetMatchCounts();
  EXPECT_FALSE(sid.isEnabled);
  EXPECT_EQ(sid.matchCount, 0);
  EXPECT_EQ(engine_->category(Cat::analytics)->totalMatchCount(), 0);
  EXPECT_FALSE(home_.store()->object(RulesEngine::kMatchCountsKey).has_value());
}

TEST_F(RuleCatalogTest, StaleRuleKeyIsIgnoredAndStaysUntilTheNextSave) {
  home_.storeJson(RulesEngine::kEnabledStateKey,
                  R"({"rule:Analytics:gone": false, "rule:Analytics:sid": false})");
  auto engine = home_.engine(kProviders);
  EXPECT_EQ(engine->findEntry("Analytics:gone"), nullptr);
  EXPECT_FALSE(entry(*engine, "Analytics:sid").isEnabled);
  EXPECT_TRUE(home_.storedJson(RulesEngine::kEnabledStateKey)->contains("rule:Analytics:gone"));

  engine->saveEnabledStates();
  auto states = home_.storedJson(RulesEngine::kEnabledStateKey);
  EXPECT_FALSE(states->contains("rule:Analytics:gone"));
  EXPECT_EQ((*states)["rule:Analytics:sid"], false);
}

TEST_F(RuleCatalogTest, UndecodableStoredStateLeavesDefaults) {
  home_.storeJson(RulesEngine::kEnabledStateKey, "[not json");
  home_.storeJson(RulesEngine::kMatchCountsKey, R"(["cat:Analytics", 4])");
  home_.storeJson(RulesEngine::kCustomRulesKey, R"([{"id": "Custom:x", "pattern": "x"}])");
  auto engine = home_.engine(kProviders);
  for (const auto& category : engine->categories()) {
    EXPECT_TRUE(category->isEnabled);
    EXPECT_EQ(category->matchCount, 0);
  }
  EXPECT_TRUE(engine->category(Cat::custom)->rules.empty());
  EXPECT_EQ(engine->fallbackRules().size(), 16u);
}

TEST_F(RuleCatalogTest, CustomRuleMatchesOneNameExactlyAndPersists) {
  engine_->addCustomRule("ref", "My ref", Cat::custom);
  engine_->addCustomRule("a.b", "dotted", Cat::analytics);
  const RuleEntry& ref = entry(*engine_, "Custom:ref");
  EXPECT_EQ(std::tie(ref.category, ref.displayName, ref.source),
            std::make_tuple(Cat::custom, "My ref", Source::custom));
  const std::vector<std::pair<std::string_view, std::optional<std::string>>> cases = {
      {"ref", "Custom:ref"},  {"REF", "Custom:ref"},    {"ref2", std::nullopt},
      {"xref", std::nullopt}, {"A.B", "Analytics:a.b"}, {"axb", std::nullopt},
  };
  for (const auto& [name, expected] : cases) {
    EXPECT_EQ(fallbackRuleID(*engine_, name), expected) << name;
  }
  EXPECT_TRUE(home_.storedJson(RulesEngine::kEnabledStateKey)->contains("rule:Custom:ref"));

  // A later load, a reload and a new engine all keep each custom rule exactly once.
  engine_->load(kProviders);
  engine_->reloadPersistedState();
  EXPECT_EQ(countEntries(*engine_, "Custom:ref"), 1u);
  EXPECT_EQ(engine_->fallbackRules().size(), 18u);
  auto reloaded = home_.engine(kProviders);
  EXPECT_EQ(fallbackRuleID(*reloaded, "Ref"), "Custom:ref");

  reloaded->removeCustomRule("Custom:ref");
  EXPECT_EQ(reloaded->findEntry("Custom:ref"), nullptr);
  EXPECT_FALSE(fallbackRuleID(*reloaded, "ref").has_value());
  EXPECT_EQ(fallbackRuleID(*reloaded, "a.B"), "Analytics:a.b");
  auto stored = home_.storedJson(RulesEngine::kCustomRulesKey);
  ASSERT_TRUE(stored && stored->is_array() && stored->size() == 1u);
  EXPECT_EQ((*stored)[0]["id"], "Analytics:a.b");
  EXPECT_EQ(home_.engine(kProviders)->findEntry("Custom:ref"), nullptr);
}

TEST_F(RuleCatalogTest, ExportThenImportCarriesCategorySwitchesAndCustomRulesOnly) {
  RulesHome from;
  auto source = from.engine(kProviders);
  source->addCustomRule("ref", "ref", Cat::custom);
  source->category(Cat::socialMedia)->isEnabled = false;
  entry(*source, "Analytics:tid").isEnabled = false;
  source->recordMatch("Custom:ref", Cat::custom);
  auto exported = source->exportRules();
  ASSERT_TRUE(exported.has_value());

  ASSERT_TRUE(engine_->importRules(*exported));
  ASSERT_TRUE(engine_->importRules(*exported));  // a second import adds nothing twice
  EXPECT_FALSE(engine_->isCategoryEnabled(Cat::socialMedia));
  EXPECT_TRUE(engine_->isCategoryEnabled(Cat::analytics));
  EXPECT_TRUE(entry(*engine_, "Analytics:tid").isEnabled);
  EXPECT_EQ(countEntries(*engine_, "Custom:ref"), 1u);
  EXPECT_EQ(fallbackRuleID(*engine_, "REF"), "Custom:ref");
  EXPECT_EQ(engine_->category(Cat::custom)->matchCount, 0);
  EXPECT_EQ(entry(*engine_, "Custom:ref").matchCount, 0);

  auto later = home_.engine(kProviders);
  EXPECT_FALSE(later->isCategoryEnabled(Cat::socialMedia));
  EXPECT_EQ(fallbackRuleID(*later, "ref"), "Custom:ref");
}

TEST_F(RuleCatalogTest, ImportWithEveryCategoryOffSwitchesThemOffAndSaves) {
  Json list = Json::array();
  for (Cat type : kAllRuleCategoryTypes) {
    list.push_back(encodeRuleCategory(RuleCategory(type, false, {})));
  }
  ASSERT_TRUE(engine_->importRules(writeJson(list)));
  auto states = home_.storedJson(RulesEngine::kEnabledStateKey);
  ASSERT_TRUE(states);
  for (Cat type : kAllRuleCategoryTypes) {
    EXPECT_FALSE(engine_->isCategoryEnabled(type)) << rawValue(type);
    EXPECT_EQ((*states)["cat:" + std::string(rawValue(type))], false) << rawValue(type);
  }
  EXPECT_TRUE(engine_->matchingProviders("https://stats.example/").empty());
  EXPECT_FALSE(engine_->shouldStripParamFallbackBool("utm_source"));
}

TEST_F(RuleCatalogTest, UndecodableImportChangesNothing) {
  for (std::string_view data : {
           "not json",
           R"([{"id": "X", "type": "Nope", "isEnabled": false, "matchCount": 0, "rules": []}])",
           R"([{"id": "Analytics", "type": "Analytics", "isEnabled": false, "matchCount": 0,
                "rules": []},
               {"id": "Custom", "type": "Custom", "isEnabled": true, "matchCount": 0,
                "rules": [{"id": "Custom:x", "pattern": "x"}]}])",
       }) {
    EXPECT_FALSE(engine_->importRules(data)) << data;
    EXPECT_TRUE(engine_->isCategoryEnabled(Cat::analytics));
    EXPECT_TRUE(engine_->category(Cat::custom)->rules.empty());
    EXPECT_FALSE(home_.store()->object(RulesEngine::kEnabledStateKey).has_value());
    EXPECT_FALSE(home_.store()->object(RulesEngine::kCustomRulesKey).has_value());
  }
}

}  // namespace
}  // namespace linkwash
