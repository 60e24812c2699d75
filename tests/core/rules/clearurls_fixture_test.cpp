// The public ClearURLs rule file as shipped: every provider compiles, categories come out as the
// categorisation promises, and a few real links get the answers a user would expect.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>

#include "core/rules/rules_engine.h"
#include "tests/core/rules/rules_test_support.h"

namespace linkwash {
namespace {

using testing::providerNamed;
using testing::providerNames;
using testing::RulesHome;
using testing::stripRuleID;

class ClearUrlsFixtureTest : public ::testing::Test {
 protected:
  // One load for the whole suite: compiling and indexing 205 providers is the slow part.
  static void SetUpTestSuite() {
    auto path = testing::clearUrlsFixture();
    if (!path) return;
    auto bytes = testing::readFixture(*path);
    if (!bytes) return;
    home_ = new RulesHome();
    engine_ = home_->engine(*bytes).release();
  }
  static void TearDownTestSuite() {
    delete engine_;
    delete home_;
    engine_ = nullptr;
    home_ = nullptr;
  }
  void SetUp() override {
    if (engine_ == nullptr) GTEST_SKIP() << "ClearURLs fixture not available";
  }

  static const CompiledProvider& provider(const char* name) {
    const CompiledProvider* found = providerNamed(*engine_, name);
    EXPECT_NE(found, nullptr) << name;
    return found != nullptr ? *found : engine_->compiledProviders()[0];
  }

  static RulesHome* home_;
  static RulesEngine* engine_;
};

RulesHome* ClearUrlsFixtureTest::home_ = nullptr;
RulesEngine* ClearUrlsFixtureTest::engine_ = nullptr;

TEST_F(ClearUrlsFixtureTest, EveryProviderCompilesIntoItsCategory) {
  EXPECT_EQ(engine_->compiledProviders().size(), 205u);
  const std::vector<std::pair<const char*, RuleCategoryType>> cases = {
      // google carries redirections, which decide before any name test.
      {"google", RuleCategoryType::redirectUnwrapping},
      {"googlesyndication", RuleCategoryType::analytics},
      {"amazon", RuleCategoryType::ecommerce},
      {"twitter", RuleCategoryType::socialMedia},
      {"bing", RuleCategoryType::advertising},
      {"yandex", RuleCategoryType::analytics},
  };
  for (const auto& [name, category] : cases) {
    EXPECT_EQ(provider(name).category, category) << name;
  }
  for (const auto& compiled : engine_->compiledProviders()) {
    if (!compiled.provider.redirections.empty()) {
      EXPECT_EQ(compiled.category, RuleCategoryType::redirectUnwrapping) << compiled.name;
    }
  }
  EXPECT_EQ(engine_->fallbackRules().size(), 16u);
}

TEST_F(ClearUrlsFixtureTest, AmazonLinkLosesItsTrackersButKeepsItsProduct) {
  const std::string url =
      "https://www.amazon.com/Some-Book/dp/B000123/ref=sr_1_1?tag=aff-20&qid=1700000000&th=1";
  auto selected = providerNames(engine_->matchingProviders(url));
  EXPECT_NE(std::find(selected.begin(), selected.end(), "amazon"), selected.end());
  const CompiledProvider& amazon = provider("amazon");
  EXPECT_FALSE(engine_->isException(url, amazon));
  EXPECT_EQ(engine_->applyRawRules(url, amazon),
            "https://www.amazon.com/Some-Book/dp/B000123?tag=aff-20&qid=1700000000&th=1");
  EXPECT_EQ(stripRuleID(*engine_, "qid", amazon), "E-commerce:qid");
  EXPECT_EQ(stripRuleID(*engine_, "tag", amazon), "Referral Marketing:tag");
  EXPECT_EQ(stripRuleID(*engine_, "th", amazon), "E-commerce:th");
  EXPECT_FALSE(engine_->shouldStripParamBool("node", amazon));
  EXPECT_TRUE(engine_->isException("https://www.amazon.de/gp/cart/ajax-update.html?x=1", amazon));
}

TEST_F(ClearUrlsFixtureTest, GoogleRedirectUnwrapsAndMailIsLeftAlone) {
  const std::string url =
      "https://www.google.com/url?q=https%3A%2F%2Fexample.com%2Fpage%3Fid%3D7&sa=D&ust=1";
  auto selected = providerNames(engine_->matchingProviders(url));
  EXPECT_NE(std::find(selected.begin(), selected.end(), "google"), selected.end());
  const CompiledProvider& google = provider("google");
  EXPECT_EQ(engine_->extractRedirection(url, google), "https://example.com/page?id=7");
  EXPECT_FALSE(engine_->extractRedirection("https://www.google.com/search?q=cats", google));
  EXPECT_TRUE(engine_->isException("https://mail.google.com/mail/u/0/#inbox", google));
  EXPECT_FALSE(engine_->isException("https://www.google.com/search?q=cats", google));
  EXPECT_EQ(stripRuleID(*engine_, "ved", google), "Redirect Unwrapping:ved");
}

}  // namespace
}  // namespace linkwash
