// Provider files from bytes to compiled providers: what decodes, what an invalid regex drops,
// how providers are categorised, the built-in fallback rules, and validation of a rule pair.
#include "core/rules/provider_file.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/diagnostics.h"
#include "core/rules/rules_engine.h"
#include "tests/core/rules/rules_test_support.h"

namespace linkwash {
namespace {

using testing::fallbackRuleID;
using testing::providerNames;
using testing::RulesHome;
using testing::stripRuleID;
using Names = std::vector<std::string>;
using Cat = RuleCategoryType;

constexpr std::string_view kOneProvider = R"({"providers": {"site": {
  "urlPattern": "^https?://site\\.example/", "rules": ["tid"]}}})";

TEST(ProviderFileTest, MissingMembersTakeDefaultsAndUnknownOnesAreIgnored) {
  RulesHome home;
  auto engine = home.engine(R"({"providers": {"anything": {}, "full": {
    "urlPattern": "^u$", "completeProvider": true, "forceRedirection": true,
    "rules": ["r"], "referralMarketing": ["m"], "getRules": {"x": 1}}}, "version": 2})");
  ASSERT_EQ(providerNames(*engine), (Names{"anything", "full"}));
  const CompiledProvider& empty = engine->compiledProviders()[0];
  EXPECT_TRUE(empty.provider.urlPattern.empty() && empty.paramRegexes.empty());
  EXPECT_FALSE(empty.provider.completeProvider);
  // The empty URL pattern selects every link, whatever it looks like.
  for (std::string_view url : {"https://a.example/x?y=1", "http://b.example", "not a url", ""}) {
    EXPECT_EQ(engine->matchingProviders(url).size(), 1u) << url;
  }
  const Provider& full = engine->compiledProviders()[1].provider;
  EXPECT_TRUE(full.completeProvider && full.forceRedirection);
  EXPECT_EQ(full.allParamPatterns(), (Names{"r", "m"}));
}

TEST(ProviderFileTest, UndecodableFilesLeaveTheEngineAsItWasAndWarn) {
  RulesHome home;
  auto engine = home.engine(kOneProvider);
  for (std::string_view bytes :
       {R"({"providers": )", R"({"provider": {}})", R"({"providers": []})",
        R"({"providers": {"a": "x"}})", R"({"providers": {"a": {"rules": "utm_source"}}})",
        R"({"providers": {"a": {"rules": [1]}}})", R"({"providers": {"a": {"urlPattern": 3}}})",
        R"({"providers": {"a": {"completeProvider": "yes"}}})"}) {
    SCOPED_TRACE(bytes);
    EXPECT_FALSE(decodeProvidersFile(bytes).has_value());
    Names warnings;
    setDiagnosticSink([&](std::string_view line) { warnings.emplace_back(line); });
    engine->load(bytes);
    setDiagnosticSink(standardErrorSink());
    EXPECT_EQ(warnings, Names{"Warning: Could not decode rules JSON"});
    EXPECT_EQ(providerNames(*engine), Names{"site"});
    EXPECT_NE(engine->findEntry("Analytics:tid"), nullptr);
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
  const std::vector<std::pair<std::string_view, std::optional<std::string>>> cases = {
      {"utm_source", "Analytics:utm_source"}, {"UTM_SOURCE", "Analytics:utm_source"},
      {"xutm_source", std::nullopt},          {"utm_source2", std::nullopt},
      {"sid_42", "Analytics:sid_[0-9]+"},     {"sid_4x", std::nullopt},
  };
  for (const auto& [name, expected] : cases) {
    EXPECT_EQ(stripRuleID(*engine, name, engine->compiledProviders()[0]), expected) << name;
  }
}

TEST(ProviderFileTest, CategoriseByRedirectionsThenNameWordsThenReferrals) {
  // Name, whether the provider has redirections and referral rules, and the category.
  const std::vector<std::tuple<const char*, bool, bool, Cat>> cases = {
      {"amazon", true, false, Cat::redirectUnwrapping},
      {"amazon", false, false, Cat::ecommerce},
      {"AliExpress Deals", false, true, Cat::ecommerce},
      {"youtube-etsy", false, false, Cat::ecommerce},
      {"reddit-analytics", false, false, Cat::socialMedia},
      {"Google Ads", false, false, Cat::advertising},
      {"google", false, false, Cat::analytics},
      {"googleads", false, false, Cat::analytics},
      {"hotjar-campaign", false, false, Cat::analytics},
      {"shop-campaign", false, true, Cat::emailMarketing},
      {"shop", false, true, Cat::referralMarketing},
      {"shop", false, false, Cat::analytics},
  };
  for (const auto& [name, redirections, referrals, expected] : cases) {
    Provider provider;
    if (redirections) provider.redirections = {"to=(.*)"};
    if (referrals) provider.referralMarketing = {"ref"};
    EXPECT_EQ(categorize(name, provider), expected) << name << redirections << referrals;
  }
}

TEST(ProviderFileTest, FallbackRulesMatchWholeNamesAndTheUtmPrefix) {
  RulesHome home;
  auto engine = home.engine(R"({"providers": {}})");
  EXPECT_TRUE(engine->compiledProviders().empty());
  const std::vector<std::pair<std::string_view, std::optional<std::string>>> cases = {
      {"UTM_Anything", "Analytics:utm_*"}, {"utm", std::nullopt},
      {"FBCLID", "Social Media:fbclid"},   {"fbclid2", std::nullopt},
      {"x_hsenc", std::nullopt},           {"p", std::nullopt},
  };
  for (const auto& [name, expected] : cases) {
    EXPECT_EQ(fallbackRuleID(*engine, name), expected) << name;
  }
  EXPECT_EQ(engine->shouldStripParamFallback("gclid")->category, Cat::advertising);
}

TEST(ProviderFileTest, SupplementaryLoadsAppendAndAClearUrlsLoadStartsAfresh) {
  RulesHome home;
  auto engine = home.engine(kOneProvider);
  const std::string_view supplementary = R"({"providers": {"extra": {"rules": ["xid"]}}})";
  engine->loadSupplementary(supplementary);
  engine->loadSupplementary(supplementary);
  engine->loadSupplementary("{}");
  EXPECT_EQ(providerNames(*engine), (Names{"site", "extra", "extra"}));
  EXPECT_EQ(engine->matchingProviders("https://any.example/").size(), 2u);

  engine->load(kOneProvider);
  EXPECT_EQ(providerNames(*engine), Names{"site"});
  EXPECT_EQ(engine->entry("Analytics:xid", Cat::analytics), nullptr);

  engine->loadRuleBundle(R"({"providers": {"other": {}}})", supplementary);
  EXPECT_EQ(providerNames(*engine), (Names{"other", "extra"}));
}

TEST(ProviderFileTest, ValidateRuleBundleNamesTheReason) {
  testing::TempHome home;  // the scratch engine uses the standard store
  const std::string_view good = kOneProvider;
  const std::string_view empty = R"({"providers": {}})";
  const std::vector<std::tuple<std::string_view, std::optional<std::string_view>, std::string>>
      cases = {
          {good, std::nullopt, ""},
          {empty, good, ""},
          {"{}", good, "ClearURLs JSON could not be decoded"},
          {good, "[1]", "Supplementary JSON could not be decoded"},
          {R"({"providers": {"b": {"urlPattern": "("}}})", empty, "No providers compiled"},
          {empty, std::nullopt, "No providers compiled"},
      };
  for (const auto& [clearURLs, supplementary, error] : cases) {
    auto result = RulesEngine::validateRuleBundle(clearURLs, supplementary);
    EXPECT_EQ(result ? "" : result.error().message, error) << clearURLs;
  }
}

}  // namespace
}  // namespace linkwash
