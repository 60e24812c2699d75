// The engine's answers to the cleaning pipeline: provider selection on the normal form of a
// link, exceptions, unwrapping, raw rules, parameter rules, and how switches and the statistics
// preference gate them.
#include "core/rules/rules_engine.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/core/rules/rules_test_support.h"

namespace linkwash {
namespace {

using testing::fallbackRuleID;
using testing::providerNamed;
using testing::providerNames;
using testing::RulesHome;
using testing::stripRuleID;

constexpr std::string_view kProviders = R"js({"providers": {
  "shop-analytics": {"urlPattern": "^https://shop\\.example/",
           "exceptions": ["^https://shop\\.example/private"],
           "rawRules": ["user:pw@", "/track/[0-9]+", "/tr"],
           "rules": ["sid.*", "sid"], "referralMarketing": ["sid", "aff"]},
  "jump": {"urlPattern": "^https://jump\\.example/",
           "redirections": ["^https://jump\\.example/nogroup\\?to=https",
                            "[?&]to=([^&]+)", "[?&]next=([^&]+)",
                            "(?:[?&]dest=(https[^&]*)|[?&]none=)"]}}})js";

TEST(RulesEngineMatchingTest, EmptyCatalogEnablesEverythingAndRecordsNothing) {
  RulesHome home;
  RulesEngine engine(home.store());
  for (RuleCategoryType type : kAllRuleCategoryTypes) {
    EXPECT_TRUE(engine.isCategoryEnabled(type));
    EXPECT_TRUE(engine.isRuleEnabled("Analytics:utm_source", type));
    engine.recordMatch("Analytics:utm_source", type);
  }
  EXPECT_TRUE(engine.categories().empty());
  // Before the first load nothing is stripped, not even by the built-in names.
  EXPECT_FALSE(engine.shouldStripParamFallbackBool("utm_source"));
  EXPECT_TRUE(engine.matchingProviders("https://a.example/").empty());
  engine.saveMatchCounts();
  auto counts = home.storedJson(RulesEngine::kMatchCountsKey);
  EXPECT_TRUE(!counts || counts->empty());
}

TEST(RulesEngineMatchingTest, SelectionAndExceptionsSeeTheNormalForm) {
  RulesHome home;
  auto engine = home.engine(kProviders);
  const CompiledProvider* shop = providerNamed(*engine, "shop-analytics");
  ASSERT_NE(shop, nullptr);
  struct Case {
    std::string_view url;
    bool selected;
    bool excepted;
  };
  const std::vector<Case> cases = {
      {"https://shop.example/item", true, false},
      {"https://user:pw@SHOP.Example/item", true, false},
      {"https://user@shop.example/item", true, false},
      {"https://user:pw@SHOP.EXAMPLE/private/1", true, true},
      {"https://shop.example/private", true, true},
      {"https://other.example/?u=https://shop.example/", false, false},
      {"shop.example/item", false, false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(providerNames(engine->matchingProviders(c.url)),
              c.selected ? std::vector<std::string>{"shop-analytics"} : std::vector<std::string>{})
        << c.url;
    EXPECT_EQ(engine->isException(c.url, *shop), c.excepted) << c.url;
  }
}

TEST(RulesEngineMatchingTest, RawRulesAndRedirectionsSeeTheTextAsGiven) {
  RulesHome home;
  auto engine = home.engine(kProviders);
  const CompiledProvider* shop = providerNamed(*engine, "shop-analytics");
  const CompiledProvider* jump = providerNamed(*engine, "jump");
  ASSERT_TRUE(shop && jump);
  // Each raw rule works on what the rules before it left.
  EXPECT_EQ(engine->applyRawRules("https://user:pw@SHOP.example/a/track/42/tram", *shop),
            "https://SHOP.example/aam");
  EXPECT_EQ(engine->applyRawRules("https://shop.example/TR/TR/x", *shop), "https://shop.example/x");
  EXPECT_EQ(engine->applyRawRules("https://shop.example/", *shop), "https://shop.example/");

  const std::vector<std::pair<std::string_view, std::optional<std::string>>> cases = {
      {"https://jump.example/?to=https%3A%2F%2Fdest.example%2Fa%3Fb%3D1",
       "https://dest.example/a?b=1"},
      {"https://jump.example/?to=HTTP://Dest.Example/A", "HTTP://Dest.Example/A"},
      // A relative target is passed over and the next redirection answers.
      {"https://jump.example/?to=%2Flocal&next=https%3A%2F%2Fnext.example%2F",
       "https://next.example/"},
      {"https://jump.example/?to=/local", std::nullopt},
      // A capture that does not decode is used as captured.
      {"https://jump.example/?to=https://dest.example/100%", "https://dest.example/100%"},
      // The rule without a capture group never answers.
      {"https://jump.example/nogroup?to=https://dest.example/", "https://dest.example/"},
      {"https://jump.example/nogroup?x=https://dest.example/", std::nullopt},
      // Group 1 did not take part in the match.
      {"https://jump.example/?none=https://dest.example/", std::nullopt},
      {"https://jump.example/?dest=https://d.example/", "https://d.example/"},
  };
  for (const auto& [url, expected] : cases) {
    EXPECT_EQ(engine->extractRedirection(url, *jump), expected) << url;
  }

  engine->category(RuleCategoryType::redirectUnwrapping)->isEnabled = false;
  EXPECT_FALSE(engine->extractRedirection("https://jump.example/?to=https://d.example/", *jump));
  EXPECT_TRUE(engine->matchingProviders("https://jump.example/?to=https://d.example/").empty());
}

TEST(RulesEngineMatchingTest, DisabledRulesArePassedOverForLaterOnes) {
  RulesHome home;
  auto engine = home.engine(kProviders);
  const CompiledProvider* shop = providerNamed(*engine, "shop-analytics");
  ASSERT_NE(shop, nullptr);
  auto entry = [&](const char* id, RuleCategoryType type) {
    RuleEntry* found = engine->entry(id, type);
    EXPECT_NE(found, nullptr) << id;
    return found;
  };
  EXPECT_EQ(stripRuleID(*engine, "SID", *shop), "Analytics:sid.*");
  EXPECT_EQ(stripRuleID(*engine, "aff", *shop), "Referral Marketing:aff");
  EXPECT_FALSE(engine->shouldStripParamBool("xsid", *shop));

  entry("Analytics:sid.*", RuleCategoryType::analytics)->isEnabled = false;
  EXPECT_EQ(stripRuleID(*engine, "sid", *shop), "Analytics:sid");
  EXPECT_FALSE(engine->shouldStripParamBool("sid2", *shop));

  entry("Analytics:sid", RuleCategoryType::analytics)->isEnabled = false;
  EXPECT_EQ(stripRuleID(*engine, "sid", *shop), "Referral Marketing:sid");

  entry("Analytics:sid.*", RuleCategoryType::analytics)->isEnabled = true;
  engine->category(RuleCategoryType::analytics)->isEnabled = false;
  EXPECT_EQ(stripRuleID(*engine, "sid", *shop), "Referral Marketing:sid");
  EXPECT_TRUE(engine->matchingProviders("https://shop.example/").empty());

  engine->category(RuleCategoryType::referralMarketing)->isEnabled = false;
  EXPECT_FALSE(engine->shouldStripParamBool("sid", *shop));
  EXPECT_FALSE(engine->shouldStripParamBool("aff", *shop));
}

TEST(RulesEngineMatchingTest, FallbackRulesFollowTheirSwitches) {
  RulesHome home;
  auto engine = home.engine(kProviders);
  engine->addCustomRule("utm_source", "own utm", RuleCategoryType::custom);
  EXPECT_EQ(fallbackRuleID(*engine, "utm_source"), "Analytics:utm_*");

  engine->entry("Analytics:utm_*", RuleCategoryType::analytics)->isEnabled = false;
  EXPECT_EQ(fallbackRuleID(*engine, "utm_source"), "Custom:utm_source");
  EXPECT_FALSE(fallbackRuleID(*engine, "utm_medium").has_value());
  EXPECT_EQ(fallbackRuleID(*engine, "yclid"), "Analytics:yclid");

  engine->category(RuleCategoryType::custom)->isEnabled = false;
  EXPECT_FALSE(fallbackRuleID(*engine, "utm_source").has_value());

  engine->category(RuleCategoryType::socialMedia)->isEnabled = false;
  EXPECT_FALSE(fallbackRuleID(*engine, "fbclid").has_value());
  EXPECT_EQ(fallbackRuleID(*engine, "gclid"), "Advertising:gclid");
}

TEST(RulesEngineMatchingTest, RecordMatchCountsOnCategoryAndEntry) {
  RulesHome home;
  auto engine = home.engine(kProviders);
  engine->recordMatch("Analytics:sid", RuleCategoryType::analytics);
  engine->recordMatch("Analytics:unknown", RuleCategoryType::analytics);
  engine->recordMatch("Analytics:sid", RuleCategoryType::socialMedia);  // no such entry there
  EXPECT_EQ(engine->category(RuleCategoryType::analytics)->matchCount, 2);
  EXPECT_EQ(engine->entry("Analytics:sid", RuleCategoryType::analytics)->matchCount, 1);
  EXPECT_EQ(engine->category(RuleCategoryType::socialMedia)->matchCount, 1);
  EXPECT_EQ(engine->category(RuleCategoryType::analytics)->totalMatchCount(), 1);
}

TEST(RulesEngineMatchingTest, StatisticsSwitchOffStopsEveryCount) {
  RulesHome home;
  ASSERT_TRUE(home.store()->set(RulesEngine::kStatsCollectionKey, PreferenceValue{false}));
  auto engine = home.engine(kProviders);
  engine->recordMatch("Analytics:sid", RuleCategoryType::analytics);
  EXPECT_EQ(engine->category(RuleCategoryType::analytics)->matchCount, 0);
  EXPECT_EQ(engine->entry("Analytics:sid", RuleCategoryType::analytics)->matchCount, 0);

  ASSERT_TRUE(home.store()->set(RulesEngine::kStatsCollectionKey, PreferenceValue{true}));
  engine->reloadPersistedState();
  engine->recordMatch("Analytics:sid", RuleCategoryType::analytics);
  EXPECT_EQ(engine->entry("Analytics:sid", RuleCategoryType::analytics)->matchCount, 1);

  ASSERT_TRUE(home.store()->set(RulesEngine::kStatsCollectionKey, PreferenceValue{false}));
  engine->reloadPersistedState();
  engine->recordMatch("Analytics:sid", RuleCategoryType::analytics);
  engine->recordMatch("Social Media:fbclid", RuleCategoryType::socialMedia);
  EXPECT_EQ(engine->category(RuleCategoryType::analytics)->matchCount, 1);
  EXPECT_EQ(engine->category(RuleCategoryType::socialMedia)->matchCount, 0);
}

}  // namespace
}  // namespace linkwash
