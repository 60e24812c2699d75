// The public ClearURLs rule file as shipped: providers fall into the categories their names and
// redirections promise, and real links get the exceptions and rule IDs a user would expect.
#include <gtest/gtest.h>

#include <string>

#include "core/rules/rules_engine.h"
#include "tests/core/rules/rules_test_support.h"

namespace linkwash {
namespace {

using testing::providerNamed;
using testing::stripRuleID;
using Cat = RuleCategoryType;

TEST(ClearUrlsFixtureTest, RealProvidersGetTheirCategoriesExceptionsAndRuleIds) {
  auto path = testing::clearUrlsFixture();
  if (!path) GTEST_SKIP() << "ClearURLs fixture not available";
  testing::RulesHome home;
  auto engine = home.engine(testing::readFixture(*path).value_or(""));
  for (const auto& compiled : engine->compiledProviders()) {
    if (!compiled.provider.redirections.empty()) {
      EXPECT_EQ(compiled.category, Cat::redirectUnwrapping) << compiled.name;
    }
  }
  // google carries redirections, which decide before any name test.
  const std::vector<std::pair<const char*, Cat>> categories = {
      {"google", Cat::redirectUnwrapping}, {"googlesyndication", Cat::analytics},
      {"amazon", Cat::ecommerce},          {"twitter", Cat::socialMedia},
      {"bing", Cat::advertising},          {"yandex", Cat::analytics},
  };
  for (const auto& [name, category] : categories) {
    ASSERT_NE(providerNamed(*engine, name), nullptr) << name;
    EXPECT_EQ(providerNamed(*engine, name)->category, category) << name;
  }

  const CompiledProvider& amazon = *providerNamed(*engine, "amazon");
  EXPECT_TRUE(engine->isException("https://www.amazon.de/gp/cart/ajax-update.html?x=1", amazon));
  EXPECT_FALSE(engine->isException("https://www.amazon.com/dp/B000123?tag=aff-20", amazon));
  EXPECT_EQ(stripRuleID(*engine, "qid", amazon), "E-commerce:qid");
  EXPECT_EQ(stripRuleID(*engine, "tag", amazon), "Referral Marketing:tag");
  EXPECT_FALSE(engine->shouldStripParamBool("node", amazon));

  const CompiledProvider& google = *providerNamed(*engine, "google");
  EXPECT_TRUE(engine->isException("https://mail.google.com/mail/u/0/#inbox", google));
  EXPECT_FALSE(engine->isException("https://www.google.com/search?q=cats", google));
  EXPECT_FALSE(engine->extractRedirection("https://www.google.com/search?q=cats", google));
  EXPECT_EQ(stripRuleID(*engine, "ved", google), "Redirect Unwrapping:ved");
}

}  // namespace
}  // namespace linkwash
