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

using testing::entry;
using testing::fallbackRuleID;
using testing::providerNamed;
using testing::RulesHome;
using testing::stripRuleID;
using Cat = RuleCategoryType;

constexpr std::string_view kProviders = R"js({"providers": {
  "shop-analytics": {"urlPattern": "^https://shop\\.example/",
           "exceptions": ["^https://shop\\.example/private"],
           "rawRules": ["user:pw@", "/track/[0-9]+", "/tr"],
           "rules": ["sid.*", "sid"], "referralMarketing": ["sid", "aff"]},
  "jump": {"urlPattern": "^https://jump\\.example/",
           "redirections": ["^https://jump\\.example/nogroup\\?to=https",
                            "[?&]to=([^&]+)", "[?&]next=([^&]+)",
                            "(?:[?&]dest=(https[^&]*)|[?&]none=)"]}}})js";

class RulesEngineMatchingTest : public ::testing::Test {
 protected:
  RulesHome home_;
  std::unique_ptr<RulesEngine> engine_ = home_.engine(kProviders);
  const CompiledProvider& shop_ = *providerNamed(*engine_, "shop-analytics");
  const CompiledProvider& jump_ = *providerNamed(*engine_, "jump");
};

TEST_F(RulesEngineMatchingTest, EmptyCatalogEnablesEverythingAndRecordsNothing) {
  RulesEngine engine(home_.store());
  for (Cat type : kAllRuleCategoryTypes) {
    EXPECT_TRUE(engine.isCategoryEnabled(type));
    EXPECT_TRUE(engine.isRuleEnabled("Analytics:utm_source", type));
    engine.recordMatch("Analytics:utm_source", type);
  }
  EXPECT_TRUE(engine.categories().empty());
  // Before the first load nothing is stripped, not even by the built-in names.
  EXPECT_FALSE(engine.shouldStripParamFallbackBool("utm_source"));
  EXPECT_TRUE(engine.matchingProviders("https://a.example/").empty());
  engine.saveMatchCounts();
  auto counts = home_.storedJson(RulesEngine::kMatchCountsKey);
  EXPECT_TRUE(!counts || counts->empty());
}

TEST_F(RulesEngineMatchingTest, SelectionAndExceptionsSeeTheNormalForm) {
  // The link, whether the shop is selected for it, and whether it is an exception.
  const std::vector<std::tuple<std::string_view, bool, bool>> cases = {
      {"https://shop.example/item", true, false},
      {"https://user:pw@SHOP.Example/item", true, false},
      {"https://user@shop.example/item", true, false},
      {"https://user:pw@SHOP.EXAMPLE/private/1", true, true},
      {"https://shop.example/private", true, true},
      {"https://other.example/?u=https://shop.example/", false, false},
      {"shop.example/item", false, false},
  };
  for (const auto& [url, selected, excepted] : cases) {
    EXPECT_EQ(engine_->matchingProviders(url).size(), selected ? 1u : 0u) << url;
    EXPECT_EQ(engine_->isException(url, shop_), excepted) << url;
  }
}

TEST_F(RulesEngineMatchingTest, RawRulesAndRedirectionsSeeTheTextAsGiven) {
  // Each raw rule works on what the rules before it left.
  EXPECT_EQ(engine_->applyRawRules("https://user:pw@SHOP.example/a/track/42/tram", shop_),
            "https://SHOP.example/aam");
  EXPECT_EQ(engine_->applyRawRules("https://shop.example/TR/TR/x", shop_),
            "https://shop.example/x");
  EXPECT_EQ(engine_->applyRawRules("https://shop.example/", shop_), "https://shop.example/");

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
    EXPECT_EQ(engine_->extractRedirection(url, jump_), expected) << url;
  }

  engine_->category(Cat::redirectUnwrapping)->isEnabled = false;
  EXPECT_FALSE(engine_->extractRedirection("https://jump.example/?to=https://d.example/", jump_));
  EXPECT_TRUE(engine_->matchingProviders("https://jump.example/?to=https://d.example/").empty());
}

TEST_F(RulesEngineMatchingTest, DisabledRulesArePassedOverForLaterOnes) {
  EXPECT_EQ(stripRuleID(*engine_, "SID", shop_), "Analytics:sid.*");
  EXPECT_EQ(stripRuleID(*engine_, "aff", shop_), "Referral Marketing:aff");
  EXPECT_FALSE(engine_->shouldStripParamBool("xsid", shop_));

  entry(*engine_, "Analytics:sid.*").isEnabled = false;
  EXPECT_EQ(stripRuleID(*engine_, "sid", shop_), "Analytics:sid");
  EXPECT_FALSE(engine_->shouldStripParamBool("sid2", shop_));

  entry(*engine_, "Analytics:sid").isEnabled = false;
  EXPECT_EQ(stripRuleID(*engine_, "sid", shop_), "Referral Marketing:sid");

  entry(*engine_, "Analytics:sid.*").isEnabled = true;
  engine_->category(Cat::analytics)->isEnabled = false;
  EXPECT_EQ(stripRuleID(*engine_, "sid", shop_), "Referral Marketing:sid");
  EXPECT_TRUE(engine_->matchingProviders("https://shop.example/").empty());

  engine_->category(Cat::referralMarketing)->isEnabled = false;
  EXPECT_FALSE(engine_->shouldStripParamBool("sid", shop_));
  EXPECT_FALSE(engine_->shouldStripParamBool("aff", shop_));
}

TEST_F(RulesEngineMatchingTest, FallbackRulesFollowTheirSwitches) {
  engine_->addCustomRule("utm_source", "own utm", Cat::custom);
  EXPECT_EQ(fallbackRuleID(*engine_, "utm_source"), "Analytics:utm_*");

  entry(*engine_, "Analytics:utm_*").isEnabled = false;
  EXPECT_EQ(fallbackRuleID(*engine_, "utm_source"), "Custom:utm_source");
  EXPECT_FALSE(fallbackRuleID(*engine_, "utm_medium").has_value());
  EXPECT_EQ(fallbackRuleID(*engine_, "yclid"), "Analytics:yclid");

  engine_->category(Cat::custom)->isEnabled = false;
  EXPECT_FALSE(fallbackRuleID(*engine_, "utm_source").has_value());

  engine_->category(Cat::socialMedia)->isEnabled = false;
  EXPECT_FALSE(fallbackRuleID(*engine_, "fbclid").has_value());
  EXPECT_EQ(fallbackRuleID(*engine_, "gclid"), "Advertising:gclid");
}

TEST_F(RulesEngineMatchingTest, StatisticsSwitchOffStopsEveryCount) {
  engine_->recordMatch("Analytics:sid", Cat::analytics);
  engine_->recordMatch("Analytics:sid", Cat::socialMedia);  // no such entry there
  EXPECT_EQ(engine_->category(Cat::analytics)->totalMatchCount(), 1);
  EXPECT_EQ(engine_->category(Cat::socialMedia)->matchCount, 1);

  ASSERT_TRUE(home_.store()->set(RulesEngine::kStatsCollectionKey, PreferenceValue{false}));
  engine_->reloadPersistedState();
  engine_->recordMatch("Analytics:sid", Cat::analytics);
  engine_->recordMatch("Social Media:fbclid", Cat::socialMedia);
  EXPECT_EQ(engine_->category(Cat::analytics)->matchCount, 1);
  EXPECT_EQ(entry(*engine_, "Analytics:sid").matchCount, 1);
  EXPECT_EQ(engine_->category(Cat::socialMedia)->matchCount, 1);
  // A new engine reads the switch at once.
  auto quiet = home_.engine(kProviders);
  quiet->recordMatch("Analytics:sid", Cat::analytics);
  EXPECT_EQ(entry(*quiet, "Analytics:sid").matchCount, 0);
}

}  // namespace
}  // namespace linkwash
