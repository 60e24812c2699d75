// A cleaner on an indexed engine answers most links without running the full pass; every answer
// must still be the one the plain engine's full pass gives, on the real rules and real links.
#include <gtest/gtest.h>

#include "base/strings.h"
#include "core/cleaning/url_cleaner.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

struct Side {
  explicit Side(const std::string& rules, MatchStrategy strategy)
      : store(PreferenceStore::open(home.path() / "prefs.sqlite3")),
        engine(store, strategy),
        exceptions(store),
        cleaner(engine, &exceptions, nullptr, "test", PrivacyRedirectSettings{}) {
    engine.load(rules);
    cleaner.setMatchCountSaving(URLCleaner::MatchCountSaving::deferred);
  }
  testing::TempHome home;
  std::shared_ptr<PreferenceStore> store;
  RulesEngine engine;
  DomainExceptionStore exceptions;
  URLCleaner cleaner;
};

void expectSameOutcome(URLCleaner& fast, URLCleaner& plain, const std::string& link) {
  const CleanOutcome a = fast.cleanWithOutcome(link);
  const CleanOutcome b = plain.cleanWithOutcome(link);
  ASSERT_EQ(a.kind, b.kind) << link;
  if (a.kind != CleanOutcome::Kind::cleaned) return;
  EXPECT_EQ(a.result->cleanedURL, b.result->cleanedURL) << link;
  EXPECT_EQ(a.result->matchedRuleIDs, b.result->matchedRuleIDs) << link;
  EXPECT_EQ(a.result->paramsRemoved, b.result->paramsRemoved) << link;
}

TEST(IndexedCleaningTest, AnswersAsThePlainPassOnRealRulesAndLinks) {
  auto fixture = testing::clearUrlsFixture();
  auto corpus = testing::readFixture(testing::sharedDir() / "corpus/real_urls_kasztp.txt");
  if (!fixture || !corpus) GTEST_SKIP() << "shared rules or corpus not present";
  const std::string rules = *testing::readFixture(*fixture);
  Side indexed(rules, MatchStrategy::indexed);
  Side plain(rules, MatchStrategy::plain);

  // Links the quick answer must not mistake for untouched: specials, odd authorities, names
  // that only decode or case-fold into a rule, wrappers and path rules.
  std::vector<std::string> links = {
      "https://www.reddit.com/r/x?js_challenge=1&token=abc&sort=new",
      "https://www.google.com/search?q=a&client=safari#lkt=1",
      "https://WWW.Amazon.com/dp/B0/ref=sr_1?th=1",
      "https://user:pw@Facebook.COM/x?fbclid=1",
      "https://a.com:0443/?x=1",
      "https://example.com/?%75tm_source=x",
      "https://example.com/?UTM_SOURCE=x",
      "https://example.com/?utm_\xE2\x84\xAA=x",
      "https://example.com/?\xC5\xBFpm=1",
      "https://www.google.com/url?q=https%3A%2F%2Fexample.com%2F%3Futm_source%3Dx",
      "https://l.facebook.com/l.php?u=https%3A%2F%2Fexample.com%2F",
      "https://example.com/?ref",
      "https://example.com/?=&&",
      "https://example.com/#utm_source=x",
  };
  std::size_t seen = 0;
  for (auto line : split(*corpus, '\n')) {
    if (++seen % 5 != 0) continue;  // a spread-out fifth keeps the test quick
    std::string link(trimWhitespaceAndNewlines(line));
    links.push_back(link);
    links.push_back(link + (link.find('?') == std::string::npos ? "?" : "&") + "gclid=1&x=2");
  }
  for (const auto& link : links) expectSameOutcome(indexed.cleaner, plain.cleaner, link);

  // Both recorded the same matches, so both walked the same rules.
  for (RuleCategoryType type : kAllRuleCategoryTypes) {
    EXPECT_EQ(indexed.engine.category(type)->matchCount, plain.engine.category(type)->matchCount);
  }
}

}  // namespace
}  // namespace linkwash
