// Provider files from bytes to compiled providers: what decodes, what an invalid regex drops,
// how providers are categorised, the built-in fallback rules, and validation of a rule pair.
#include "core/rules/provider_file.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/rules/rules_engine.h"
#include "tests/core/rules/rules_test_support.h"

namespace linkwash {
namespace {

using testing::DiagnosticCapture;
using testing::fallbackRuleID;
using testing::providerNames;
using testing::RulesHome;
using testing::stripRuleID;
using Names = std::vector<std::string>;

constexpr std::string_view kOneProvider = R"({"providers": {"site": {
  "urlPattern": "^https?://site\\.example/", "rules": ["tid"]}}})";

TEST(ProviderFileTest, MissingMembersTakeDefaultsAndUnknownOnesAreIgnored) {
  RulesHome home;
  auto engine = home.engine(R"({"providers": {"anything": {}, "full": {
    "urlPattern": "^u$", "completeProvider": true, "forceRedirection": true,
    "rules": ["r"], "referralMarketing": ["m"], "getRules": {"x": 1}}}, "version": 2})");
  ASSERT_EQ(providerNames(*engine), (Names{"anything", "full"}));
  const CompiledProvider& empty = engine->compiledProviders()[0];
  EXPECT_EQ(empty.provider.urlPattern, "");
  EXPECT_FALSE(empty.provider.completeProvider);
  EXPECT_TRUE(empty.paramRegexes.empty());
  EXPECT_EQ(empty.category, RuleCategoryType::analytics);
  // The empty URL pattern selects every link, whatever it looks like.
  for (std::string_view url : {"https://a.example/x?y=1", "http://b.example", "not a url", ""}) {
    EXPECT_EQ(providerNames(engine->matchingProviders(url)), Names{"anything"}) << url;
  }
  const Provider& full = engine->compiledProviders()[1].provider;
  EXPECT_TRUE(full.completeProvider && full.forceRedirection);
  EXPECT_EQ(full.allParamPatterns(), (Names{"r", "m"}));
}

TEST(ProviderFileTest, UndecodableFilesLeaveTheEngineAsItWasAndWarn) {
  const std::vector<std::pair<const char*, std::string_view>> cases = {
      {"not JSON", "{\"providers\": "},
      {"no providers key", R"({"provider": {}})"},
      {"providers is an array", R"({"providers": []})"},
      {"provider is not an object", R"({"providers": {"a": "x"}})"},
      {"rules is a string", R"({"providers": {"a": {"rules": "utm_source"}}})"},
      {"rule is a number", R"({"providers": {"a": {"rules": [1]}}})"},
      {"urlPattern is a number", R"({"providers": {"a": {"urlPattern": 3}}})"},
      {"completeProvider is text", R"({"providers": {"a": {"completeProvider": "yes"}}})"},
  };
  RulesHome home;
  auto engine = home.engine(kOneProvider);
  for (const auto& [name, bytes] : cases) {
    SCOPED_TRACE(name);
    EXPECT_FALSE(decodeProvidersFile(bytes).has_value());
    DiagnosticCapture capture;
    engine->load(bytes);
    EXPECT_EQ(providerNames(*engine), Names{"site"});
    EXPECT_EQ(engine->fallbackRules().size(), 16u);
    EXPECT_NE(engine->entry("Analytics:tid", RuleCategoryType::analytics), nullptr);
    EXPECT_EQ(capture.lines(), Names{"Warning: Could not decode rules JSON"});
  }
}

TEST(ProviderFileTest, InvalidRegexDropsOnlyWhatItBelongsTo) {
  RulesHome home;
  auto engine = home.engine(R"js({"providers": {
    "broken": {"urlPattern": "(", "rules": ["tid"]},
    "kept": {"rules": ["a(", "tid"], "referralMarketing": ["[", "ref"],
             "exceptions": ["?", "^https://kept\\.example/private"], "rawRules": ["*", "/x"],
             "redirections": ["(", "go=(.*)"]}}})js");
  ASSERT_EQ(providerNames(*engine), Names{"kept"});
  const CompiledProvider& kept = engine->compiledProviders()[0];
  EXPECT_EQ(kept.paramRegexes.size(), 1u);
  EXPECT_EQ(kept.referralParamRegexes.size(), 1u);
  EXPECT_EQ(kept.exceptionRegexes.size(), 1u);
  EXPECT_EQ(kept.rawRuleRegexes.size(), 1u);
  EXPECT_EQ(kept.redirectionRegexes.size(), 1u);
  // Rules take the provider's category, here decided by its redirection.
  EXPECT_EQ(stripRuleID(*engine, "tid", kept), "Redirect Unwrapping:tid");
  EXPECT_EQ(stripRuleID(*engine, "ref", kept), "Referral Marketing:ref");
  EXPECT_TRUE(engine->isException("https://kept.example/private/1", kept));
}

TEST(ProviderFileTest, ParameterRulesMatchWholeNamesWithoutRegardToCase) {
  RulesHome home;
  auto engine = home.engine(R"({"providers": {"site": {"rules": ["utm_source", "sid_[0-9]+"]}}})");
  const CompiledProvider& site = engine->compiledProviders()[0];
  const std::vector<std::pair<std::string_view, std::optional<std::string>>> cases = {
      {"utm_source", "Analytics:utm_source"}, {"UTM_SOURCE", "Analytics:utm_source"},
      {"xutm_source", std::nullopt},          {"utm_source2", std::nullopt},
      {"sid_42", "Analytics:sid_[0-9]+"},     {"sid_4x", std::nullopt},
  };
  for (const auto& [name, expected] : cases) {
    EXPECT_EQ(stripRuleID(*engine, name, site), expected) << name;
  }
}

TEST(ProviderFileTest, CategoriseByRedirectionsThenNameWordsThenReferrals) {
  struct Case {
    const char* name;
    bool redirections;
    bool referrals;
    RuleCategoryType expected;
  };
  const std::vector<Case> cases = {
      {"amazon", true, false, RuleCategoryType::redirectUnwrapping},
      {"amazon", false, false, RuleCategoryType::ecommerce},
      {"AliExpress Deals", false, true, RuleCategoryType::ecommerce},
      {"youtube-etsy", false, false, RuleCategoryType::ecommerce},
      {"reddit-analytics", false, false, RuleCategoryType::socialMedia},
      {"Google Ads", false, false, RuleCategoryType::advertising},
      {"google", false, false, RuleCategoryType::analytics},
      {"googleads", false, false, RuleCategoryType::analytics},
      {"hotjar-campaign", false, false, RuleCategoryType::analytics},
      {"shop-campaign", false, true, RuleCategoryType::emailMarketing},
      {"shop", false, true, RuleCategoryType::referralMarketing},
      {"shop", false, false, RuleCategoryType::analytics},
  };
  for (const Case& c : cases) {
    Provider provider;
    if (c.redirections) provider.redirections = {"to=(.*)"};
    if (c.referrals) provider.referralMarketing = {"ref"};
    EXPECT_EQ(categorize(c.name, provider), c.expected)
        << c.name << " redirections=" << c.redirections << " referrals=" << c.referrals;
  }
}

TEST(ProviderFileTest, FallbackRulesAreTheUtmRuleAndFifteenNames) {
  RulesHome home;
  auto engine = home.engine(R"({"providers": {}})");
  EXPECT_TRUE(engine->compiledProviders().empty());
  Names ids;
  for (const auto& rule : engine->fallbackRules()) ids.push_back(rule.ruleID);
  EXPECT_EQ(ids,
            (Names{"Analytics:utm_*", "Social Media:fbclid", "Advertising:gclid",
                   "Advertising:gclsrc", "Advertising:msclkid", "Social Media:ttclid",
                   "Social Media:twclid", "Email Marketing:mc_cid", "Email Marketing:mc_eid",
                   "Email Marketing:_hsenc", "Email Marketing:_hsmi", "Analytics:yclid",
                   "Social Media:igshid", "Analytics:si", "Analytics:feature", "Analytics:pp"}));
  const std::vector<std::pair<std::string_view, std::optional<std::string>>> cases = {
      {"UTM_Anything", "Analytics:utm_*"}, {"utm", std::nullopt},
      {"FBCLID", "Social Media:fbclid"},   {"fbclid2", std::nullopt},
      {"x_hsenc", std::nullopt},           {"p", std::nullopt},
  };
  for (const auto& [name, expected] : cases) {
    EXPECT_EQ(fallbackRuleID(*engine, name), expected) << name;
  }
  EXPECT_EQ(engine->shouldStripParamFallback("gclid")->category, RuleCategoryType::advertising);
}

TEST(ProviderFileTest, SupplementaryLoadsAppendAndAClearUrlsLoadStartsAfresh) {
  RulesHome home;
  auto engine = home.engine(kOneProvider);
  const std::string_view supplementary = R"({"providers": {"extra": {"rules": ["xid"]}}})";
  engine->loadSupplementary(supplementary);
  engine->loadSupplementary(supplementary);
  EXPECT_EQ(providerNames(*engine), (Names{"site", "extra", "extra"}));
  EXPECT_EQ(engine->matchingProviders("https://any.example/").size(), 2u);

  engine->loadSupplementary("{}");
  EXPECT_EQ(providerNames(*engine), (Names{"site", "extra", "extra"}));

  engine->load(kOneProvider);
  EXPECT_EQ(providerNames(*engine), Names{"site"});
  EXPECT_EQ(engine->entry("Analytics:xid", RuleCategoryType::analytics), nullptr);

  engine->loadRuleBundle(R"({"providers": {"other": {}}})", supplementary);
  EXPECT_EQ(providerNames(*engine), (Names{"other", "extra"}));
}

TEST(ProviderFileTest, ValidateRuleBundleNamesTheReason) {
  testing::TempHome home;  // the scratch engine uses the standard store
  const std::string_view good = kOneProvider;
  const std::string_view empty = R"({"providers": {}})";
  const std::string_view broken = R"({"providers": {"b": {"urlPattern": "("}}})";
  struct Case {
    std::string_view clearURLs;
    std::optional<std::string_view> supplementary;
    std::optional<std::string> error;
  };
  const std::vector<Case> cases = {
      {good, std::nullopt, std::nullopt},
      {empty, good, std::nullopt},
      {"{}", good, "ClearURLs JSON could not be decoded"},
      {good, "[1]", "Supplementary JSON could not be decoded"},
      {broken, empty, "No providers compiled"},
      {empty, std::nullopt, "No providers compiled"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.clearURLs) + " + " + std::string(c.supplementary.value_or("-")));
    auto result = RulesEngine::validateRuleBundle(c.clearURLs, c.supplementary);
    EXPECT_EQ(result.has_value(), !c.error);
    if (c.error && !result) {
      EXPECT_EQ(result.error().message, *c.error);
    }
  }
}

}  // namespace
}  // namespace linkwash
