// The cleaning pipeline end to end: the shipped rules on a table of real-looking links, the real
// ClearURLs file on its wrappers and path rules, and the pipeline's own special cases on small
// inline rule files.
#include <gtest/gtest.h>

#include "base/strings.h"
#include "core/cleaning/url_cleaner.h"
#include "platform/url/url_components.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

class URLCleanerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    store_ = PreferenceStore::open(home_.path() / "prefs.sqlite3");
    engine_ = std::make_unique<RulesEngine>(store_);
    exceptions_ = std::make_unique<DomainExceptionStore>(store_);
  }

  URLCleaner cleaner() {
    URLCleaner c(*engine_, exceptions_.get(), &recorder_, "test", PrivacyRedirectSettings{});
    return c;
  }

  std::string cleaned(std::string_view url) {
    auto outcome = cleaner().cleanWithOutcome(url);
    return outcome.kind == CleanOutcome::Kind::cleaned ? outcome.result->cleanedURL
                                                       : std::string(url);
  }

  testing::TempHome home_;
  std::shared_ptr<PreferenceStore> store_;
  std::unique_ptr<RulesEngine> engine_;
  std::unique_ptr<DomainExceptionStore> exceptions_;
  LastCleanRecorder recorder_;
};

// Small rules that exercise each phase: a wrapper, a path rule, parameters and a referral rule.
constexpr std::string_view kRules = R"json({"providers": {
  "wrapper": {"urlPattern": "^https?://wrap\\.example/", "redirections": ["^https?://wrap\\.example/go\\?to=([^&]+)"]},
  "amazon": {"urlPattern": "^https?://(?:www\\.)?amazon\\.com", "rules": ["crid", "qid"],
             "rawRules": ["/ref=[^/?]*"], "referralMarketing": ["tag"]},
  "everywhere": {"urlPattern": ".*", "rules": ["trk"], "exceptions": ["^https?://spared\\.example/"]}
}})json";

TEST_F(URLCleanerTest, RefusesWhatIsNotAWebLinkAndTrimsTheRest) {
  engine_->load(kRules);
  EXPECT_EQ(cleaner().cleanWithOutcome("HTTPS://a.com/?utm_source=x").kind,
            CleanOutcome::Kind::invalid);
  EXPECT_EQ(cleaner().cleanWithOutcome("ftp://a.com/?utm_source=x").kind,
            CleanOutcome::Kind::invalid);
  EXPECT_EQ(cleaner().cleanWithOutcome("a.com/?utm_source=x").kind, CleanOutcome::Kind::invalid);
  EXPECT_EQ(cleaner().cleanWithOutcome("https://a b.com/").kind, CleanOutcome::Kind::invalid);

  auto outcome = cleaner().cleanWithOutcome(" \n https://a.com/?utm_source=x&id=1\xE2\x80\xA8 ");
  ASSERT_EQ(outcome.kind, CleanOutcome::Kind::cleaned);
  EXPECT_EQ(outcome.result->originalURL, "https://a.com/?utm_source=x&id=1");
  EXPECT_EQ(outcome.result->cleanedURL, "https://a.com/?id=1");
}

TEST_F(URLCleanerTest, UnchangedAndSkippedLinksRecordNothing) {
  engine_->load(kRules);
  EXPECT_EQ(cleaner().cleanWithOutcome("https://a.com/page?id=1").kind,
            CleanOutcome::Kind::unchanged);
  EXPECT_FALSE(recorder_.current());
  EXPECT_FALSE(store_->object(RulesEngine::kMatchCountsKey));

  exceptions_->disable("www.a.com");
  auto outcome = cleaner().cleanWithOutcome("https://WWW.A.com/?utm_source=x");
  EXPECT_EQ(outcome, CleanOutcome::skippedDisabled("a.com"));
  EXPECT_FALSE(recorder_.current());

  auto cleanedOutcome = cleaner().cleanWithOutcome("https://b.com/?utm_source=x");
  ASSERT_EQ(cleanedOutcome.kind, CleanOutcome::Kind::cleaned);
  EXPECT_EQ(recorder_.current()->cleanedURL, "https://b.com/");
  EXPECT_EQ(recorder_.current()->surface, "test");
  EXPECT_TRUE(store_->object(RulesEngine::kMatchCountsKey));
}

TEST_F(URLCleanerTest, UnwrapsNestedWrappersOuterFirst) {
  engine_->load(kRules);
  const std::string inner = "https://a.com/x?utm_source=s&trk=1&keep=1";
  const std::string middle = "https://wrap.example/go?to=" + percentEncodeQueryComponent(inner);
  const std::string outer = "https://wrap.example/go?to=" + percentEncodeQueryComponent(middle);
  auto result = cleaner().clean(outer);
  ASSERT_TRUE(result);
  EXPECT_EQ(result->cleanedURL, "https://a.com/x?keep=1");
  EXPECT_EQ(result->paramsRemoved, 4);  // two unwraps, two parameters
  EXPECT_EQ(result->removedQueryParameters, (std::vector<std::string>{"utm_source", "trk"}));
  ASSERT_EQ(result->operations.size(), 3u);
  EXPECT_EQ(result->operations[0].kind, CleanOperationKind::offlineWrapperUnwrap);
  EXPECT_EQ(result->operations[0].inputURL, outer);
  EXPECT_EQ(result->operations[0].outputURL, middle);
  EXPECT_EQ(result->operations[1].outputURL, inner);
  EXPECT_EQ(result->operations[2].kind, CleanOperationKind::localParameterRemoval);
  EXPECT_EQ(result->matchedRuleIDs[0],
            "Redirect Unwrapping:^https?://wrap\\.example/go\\?to=([^&]+)");
  EXPECT_TRUE(result->matchedCategories.count(RuleCategoryType::redirectUnwrapping));
}

TEST_F(URLCleanerTest, StopsUnwrappingAfterFiveLevels) {
  engine_->load(kRules);
  std::string link = "https://a.com/?trk=1";
  std::vector<std::string> levels = {link};
  for (int i = 0; i < 7; ++i) {
    link = "https://wrap.example/go?to=" + percentEncodeQueryComponent(link);
    levels.push_back(link);
  }
  auto result = cleaner().clean(link);
  ASSERT_TRUE(result);
  // Depths 0..5 unwrap; the sixth destination is returned as found, not cleaned further.
  EXPECT_EQ(result->cleanedURL, levels[1]);
  EXPECT_EQ(result->paramsRemoved, 6);
  EXPECT_EQ(result->operations.size(), 6u);
}

TEST_F(URLCleanerTest, PathRulesParametersAndReferralRulesWithTheirCategories) {
  engine_->load(kRules);
  auto result = cleaner().clean(
      "https://www.amazon.com/Widget/dp/B0123/ref=sr_1_3?crid=X&keywords=usb&tag=aff-20&qid=9");
  ASSERT_TRUE(result);
  EXPECT_EQ(result->cleanedURL, "https://www.amazon.com/Widget/dp/B0123?keywords=usb");
  EXPECT_EQ(result->paramsRemoved, 3);  // a path change counts only when no parameter went
  EXPECT_EQ(result->matchedRuleIDs,
            (std::vector<std::string>{"E-commerce:/ref=[^/?]*", "E-commerce:crid",
                                      "Referral Marketing:tag", "E-commerce:qid"}));
  EXPECT_EQ(result->matchedCategories,
            (std::set<RuleCategoryType>{RuleCategoryType::ecommerce,
                                        RuleCategoryType::referralMarketing}));
  ASSERT_EQ(result->operations.size(), 2u);
  EXPECT_EQ(result->operations[0].kind, CleanOperationKind::offlinePathRewrite);
  EXPECT_EQ(result->operations[0].note, "Rule-based path cleanup");
  EXPECT_EQ(result->operations[1].inputURL,
            "https://www.amazon.com/Widget/dp/B0123?crid=X&keywords=usb&tag=aff-20&qid=9");

  auto pathOnly = cleaner().clean("https://www.amazon.com/Widget/dp/B0123/ref=sr_1_3");
  ASSERT_TRUE(pathOnly);
  EXPECT_EQ(pathOnly->paramsRemoved, 1);
  EXPECT_EQ(engine_->category(RuleCategoryType::ecommerce)->matchCount, 4);
}

TEST_F(URLCleanerTest, ExceptedProvidersTakeNoPartButFallbacksStillApply) {
  engine_->load(kRules);
  EXPECT_EQ(cleaned("https://spared.example/?trk=1&utm_source=x"), "https://spared.example/?trk=1");
  EXPECT_EQ(cleaned("https://other.example/?trk=1&utm_source=x"), "https://other.example/");
}

TEST_F(URLCleanerTest, RawFormHostsKeepTheirQueryByteForByte) {
  engine_->load(kRules);
  EXPECT_EQ(cleaned("https://x.com/search?q=a%2Bb&utm_source=x&f=live"),
            "https://x.com/search?q=a%2Bb&f=live");
  EXPECT_EQ(cleaned("https://www.instagram.com/p/abc/?q=a%2Bb&igshid=1"),
            "https://www.instagram.com/p/abc/?q=a%2Bb");
  // Elsewhere the remaining items are written back by the query encoder.
  EXPECT_EQ(cleaned("https://twitter.com/search?q=a%2Bb&utm_source=x"),
            "https://twitter.com/search?q=a+b");
  EXPECT_EQ(cleaned("https://x.com/home?utm_source=x"), "https://x.com/home");
  EXPECT_TRUE(isRawFormHost("a.co") && isRawFormHost("threads.net") &&
              isRawFormHost("www.threads.com") && !isRawFormHost("www.x.com") &&
              !isRawFormHost("notinstagram.com"));
}

TEST_F(URLCleanerTest, RedditChallengeParametersGoOnlyOnChallengeLinks) {
  engine_->load(kRules);
  auto result = cleaner().clean("https://www.reddit.com/r/cpp/?js_challenge=1&token=abc&sort=new");
  ASSERT_TRUE(result);
  EXPECT_EQ(result->cleanedURL, "https://www.reddit.com/r/cpp/?sort=new");
  EXPECT_EQ(result->matchedRuleIDs,
            (std::vector<std::string>{"Social Media:reddit_js_challenge:js_challenge",
                                      "Social Media:reddit_js_challenge:token"}));
  EXPECT_EQ(cleaned("https://www.reddit.com/r/cpp/?js_challenge=0&token=abc&sort=new"),
            "https://www.reddit.com/r/cpp/?js_challenge=0&token=abc&sort=new");
  EXPECT_EQ(cleaned("https://old.reddit.com/?solution=1&token=2&x=3"),
            "https://old.reddit.com/?x=3");
  EXPECT_EQ(cleaned("https://reddit.com.evil/?jsc_orig_r=1&token=2"),
            "https://reddit.com.evil/?jsc_orig_r=1&token=2");
}

TEST_F(URLCleanerTest, GoogleSearchLosesClientAndLocalStateOnlyWhileAnalyticsIsOn) {
  engine_->load(kRules);
  const std::string link = "https://www.google.com/search?q=a&client=safari#lkt=1";
  auto result = cleaner().clean(link);
  ASSERT_TRUE(result);
  EXPECT_EQ(result->cleanedURL, "https://www.google.com/search?q=a");
  EXPECT_EQ(result->paramsRemoved, 2);
  EXPECT_EQ(result->removedQueryParameters,
            (std::vector<std::string>{"client", "#google-local-state"}));
  EXPECT_EQ(result->matchedRuleIDs,
            (std::vector<std::string>{"Analytics:google_search:client",
                                      "Analytics:google_search:local_fragment"}));
  ASSERT_EQ(result->operations.size(), 2u);
  EXPECT_EQ(result->operations[1].removedParameters,
            (std::vector<std::string>{"#google-local-state"}));
  // Not a search page, or another Google domain: left to the ordinary rules.
  EXPECT_EQ(cleaned("https://www.google.com/maps?q=a&client=safari#lkt=1"),
            "https://www.google.com/maps?q=a&client=safari#lkt=1");
  EXPECT_EQ(cleaned("https://www.google.de/search?q=a&client=safari"),
            "https://www.google.de/search?q=a&client=safari");

  engine_->category(RuleCategoryType::analytics)->isEnabled = false;
  EXPECT_EQ(cleaned(link), link);
}

TEST_F(URLCleanerTest, PrivacyStageMovesTheFinalLinkAndKeepsTheCleanedOriginal) {
  engine_->load(kRules);
  URLCleaner c = cleaner();
  c.setPrivacyRedirectStage([](std::string_view link, const PrivacyRedirectSettings&) {
    PrivacyRedirectResult r;
    r.originalURL = std::string(link);
    r.redirectedURL = "https://frontend.example/user";
    r.service = PrivacyRedirectService::xTwitter;
    r.originalHost = "x.com";
    r.frontendHost = "frontend.example";
    return std::optional<PrivacyRedirectResult>(r);
  });
  auto result = c.clean("https://x.com/user?utm_source=x");
  ASSERT_TRUE(result);
  EXPECT_EQ(result->cleanedURL, "https://frontend.example/user");
  EXPECT_EQ(result->cleanedOriginalURL, "https://x.com/user");
  ASSERT_TRUE(result->privacyRedirect);
  EXPECT_EQ(result->privacyRedirect->frontendHost, "frontend.example");
  EXPECT_EQ(result->operations.back().kind, CleanOperationKind::privacyRedirect);
  EXPECT_EQ(result->operations.back().inputURL, "https://x.com/user");
  // A redirect alone is a change too.
  auto redirectOnly = c.clean("https://x.com/user");
  ASSERT_TRUE(redirectOnly);
  EXPECT_EQ(redirectOnly->paramsRemoved, 0);
}

TEST_F(URLCleanerTest, NetworkResolutionMergesOnlyAPriorResultOfTheSameLink) {
  engine_->load(kRules);
  URLCleaner c = cleaner();
  auto prior = c.clean("https://share.example/s/abc?utm_source=x");
  ASSERT_TRUE(prior);
  auto merged =
      c.resultAfterNetworkResolution("https://share.example/s/abc?utm_source=x",
                                     "https://target.example/p?trk=1&id=2", "share.example", prior);
  EXPECT_EQ(merged.cleanedURL, "https://target.example/p?id=2");
  EXPECT_EQ(merged.paramsRemoved, 2);
  EXPECT_EQ(merged.removedQueryParameters, (std::vector<std::string>{"utm_source", "trk"}));
  ASSERT_EQ(merged.operations.size(), 3u);
  EXPECT_EQ(merged.operations[1].kind, CleanOperationKind::networkResolution);
  EXPECT_EQ(merged.operations[1].inputURL, "https://share.example/s/abc");
  EXPECT_TRUE(merged.operations[1].networkUsed);
  EXPECT_EQ(merged.operations[1].contactedHost, "share.example");

  auto other = c.resultAfterNetworkResolution("https://share.example/s/zzz",
                                              "https://target.example/p", "share.example", prior);
  EXPECT_EQ(other.paramsRemoved, 0);
  ASSERT_EQ(other.operations.size(), 1u);
  EXPECT_EQ(other.operations[0].inputURL, "https://share.example/s/zzz");
  EXPECT_EQ(other.cleanedURL, "https://target.example/p");
}

TEST_F(URLCleanerTest, CatastrophicRulesStopTheCleanWithinItsBudget) {
  // Forty lookaround rules skip every prefilter; at ICU's per-match limit alone one clean of a
  // link with fifty parameters took minutes.
  std::string rules = R"({"providers": {"slow": {"urlPattern": ".*", "rules": ["utm_source")";
  for (int i = 0; i < 40; ++i) rules += ",\"(?=a)(a+)+b" + std::to_string(i) + "\"";
  engine_->load(rules + "]}}}");
  std::string link = "https://a.example/?utm_source=x";
  for (int i = 0; i < 50; ++i) link += "&" + std::string(25 + i % 5, 'a') + "=1";
  RegexWorkBudget outer(1000000);  // counts the work the clean's own budget let through
  EXPECT_EQ(cleaner().cleanWithOutcome(link).kind, CleanOutcome::Kind::unchanged);
  EXPECT_LE(outer.used(), kCleanRegexWorkBudget);
  EXPECT_EQ(cleaned("https://a.example/?utm_source=x&b=1"), "https://a.example/?b=1");
}

TEST_F(URLCleanerTest, ShippedRulesCleanTheReferenceTable) {
  const auto resources = testing::sourceDir() / "resources";
  auto data = testing::readFixture(resources / "data.min.json");
  auto supplementary = testing::readFixture(resources / "linkwash-supplementary.json");
  auto table =
      testing::readFixture(testing::sourceDir() / "tests/fixtures/shipped_rules_cases.tsv");
  ASSERT_TRUE(data && supplementary && table);
  engine_->loadRuleBundle(*data, *supplementary);
  int cases = 0;
  for (auto line : split(*table, '\n')) {
    if (line.empty() || line.front() == '#') continue;
    const auto tab = line.find('\t');
    ASSERT_NE(tab, std::string_view::npos) << line;
    EXPECT_EQ(cleaned(line.substr(0, tab)), line.substr(tab + 1))
        << "input: " << line.substr(0, tab);
    ++cases;
  }
  EXPECT_GT(cases, 100);
}

TEST_F(URLCleanerTest, RealClearUrlsRulesUnwrapAndStrip) {
  auto fixture = testing::clearUrlsFixture();
  if (!fixture) GTEST_SKIP() << "ClearURLs fixture not present";
  engine_->load(*testing::readFixture(*fixture));
  EXPECT_EQ(cleaned("https://www.google.com/"
                    "url?q=https%3A%2F%2Fexample.com%2F%3Futm_source%3Dx%26id%3D1&sa=D"),
            "https://example.com/?id=1");
  EXPECT_EQ(
      cleaned("https://www.amazon.com/dp/B08N5WRWNW/ref=sr_1_3?crid=2M0&keywords=usb&qid=1&sr=8-3"),
      "https://www.amazon.com/dp/B08N5WRWNW");
  EXPECT_EQ(cleaned("https://www.facebook.com/some.page?fbclid=IwAR0&__tn__=abc&id=5"),
            "https://www.facebook.com/some.page?id=5");
}

}  // namespace
}  // namespace linkwash
