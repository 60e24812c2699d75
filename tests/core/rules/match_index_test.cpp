// The index may only narrow the candidates: every answer of an indexed engine must equal the
// answer of the plain engine, on real rules and on links built to stress case folding.
#include <gtest/gtest.h>

#include <fstream>
#include <random>

#include "core/rules/internal/match_index.h"
#include "core/rules/rules_engine.h"
#include "platform/url/url_components.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

using internal::requiredLiterals;

TEST(RequiredLiteralsTest, FindsLiteralsEveryMatchMustContain) {
  using Literals = std::vector<std::string>;  // empty: none may be proven
  const std::vector<std::pair<const char*, Literals>> cases = {
      {R"(^https?:\/\/(?:[a-z0-9-]+\.)*?amazon(?:\.[a-z]{2,}){1,})", {"amazon"}},
      {R"(^https?:\/\/(?:[a-z0-9-]+\.)*?(youtube\.com|youtu\.be))", {"youtube.com", "youtu.be"}},
      {R"(^https?:\/\/)", {}},  // the scheme is on every link, so it is never chosen
      {"^colii?d$", {"coli"}},  // a quantified character may be missing
      {"^(?:abcd|.*)$", {}},    // one alternative without a literal
      {"(?:abc)?defg", {"defg"}},
      {"(?:abcdef)+x", {"abcdef"}},
      {"[abc]xyz[^q]", {"xyz"}},
      {R"(\/ref=[^/?]*)", {"/ref="}},
      // Syntax the two engines read differently is never indexed.
      {"(?i)tracking", {}},
      {"[[a-z]&&[^q]]word", {}},
  };
  for (const auto& [pattern, expected] : cases) {
    auto literals = requiredLiterals(pattern);
    EXPECT_EQ(literals.value_or(Literals{}), expected) << pattern;
    EXPECT_EQ(literals.has_value(), !expected.empty()) << pattern;
  }
}

TEST(RequiredLiteralsTest, EverySetOfASequenceIsRequiredAlternativesGiveOne) {
  using Sets = std::vector<std::vector<std::string>>;
  EXPECT_EQ(
      internal::requiredLiteralSets(
          R"(^https?:\/\/(?:[a-z0-9-]+\.)*?google(?:\.[a-z]{2,}){1,}\/url\?.*?(?:url|q)=(h))"),
      (Sets{{"google"}, {"/url?"}}));
  EXPECT_EQ(internal::requiredLiteralSets("abcd|wxyz"), (Sets{{"abcd", "wxyz"}}));
  EXPECT_EQ(internal::requiredLiteralSets(".*"), Sets{});
}

TEST(PrefilterSetTest, RestoreRefusesDataForOtherPatterns) {
  const std::vector<std::string> patterns = {"amazon", "^utm_.*$", "^fbclid$"};
  auto set = internal::PrefilterSet::build(patterns, true);
  ASSERT_TRUE(set);
  const std::string data = set->serialize();
  EXPECT_TRUE(internal::PrefilterSet::restore(patterns, true, data));
  EXPECT_FALSE(internal::PrefilterSet::restore({"amazon", "^utm_.*$"}, true, data));
  EXPECT_FALSE(internal::PrefilterSet::restore(patterns, true, data.substr(0, data.size() / 2)));
  EXPECT_FALSE(internal::PrefilterSet::restore(patterns, true, "garbage"));
}

// Links that exercise the rules: hosts named in URL patterns, parameters named in rules, and
// spellings that case-fold oddly in ICU.
std::vector<std::string> generatedLinks(const RulesEngine& engine, std::size_t count) {
  std::mt19937 rng(20261123);
  std::vector<std::string> hosts = {
      "www.google.com",     "amazon.de",          "www.amazon.co.uk",
      "m.facebook.com",     "l.facebook.com",     "youtube.com",
      "youtu.be",           "twitter.com",        "x.com",
      "www.reddit.com",     "example.com",        "news.ycombinator.com",
      "bing.com",           "ebay.com",           "AMAZON.COM",
      "user:pw@Google.COM", "www.aliexpress.com", "linkedin.com",
      "www.yandex.ru"};
  // One host per literal a URL pattern requires, so every provider is selected somewhere, with
  // and without a subdomain and a country suffix.
  for (const auto& provider : engine.compiledProviders()) {
    for (const auto& literal :
         requiredLiterals(provider.urlRegex.pattern()).value_or(std::vector<std::string>{})) {
      if (literal.find_first_of("/?") != std::string::npos) continue;
      hosts.push_back(literal);
      hosts.push_back("sub." + literal + ".co.uk");
    }
  }
  std::vector<std::string> names = {"utm_source", "fbclid", "gclid",      "q",    "id",
                                    "ref",        "tag",    "UTM_Medium", "ref_", "pd_rd_w",
                                    "_ga",        "si",     "feature",    "spm",  "%3Futm_source",
                                    "colid",      "coliid", "mc_eid"};
  for (const auto& provider : engine.compiledProviders()) {
    for (const auto& rule : provider.paramRegexes) {
      if (rule.pattern.find_first_of("\\^$.|?*+()[]{}") == std::string::npos) {
        names.push_back(rule.pattern);
      }
    }
  }
  // Kelvin sign, long s, dotted I, sharp s, a fullwidth letter and a stray line break.
  const std::vector<std::string> oddities = {"\xE2\x84\xAA", "\xC5\xBF", "\xC4\xB0", "\xC3\x9F",
                                             "\xEF\xBD\x81", "\r",       "%0A",      "\xC3\xA9"};
  auto pick = [&](const auto& list) -> const auto& { return list[rng() % list.size()]; };
  std::vector<std::string> links;
  for (std::size_t i = 0; i < count; ++i) {
    std::string host = pick(hosts);
    std::string name = pick(names);
    if (rng() % 4 == 0) {
      // Replace one letter with a look-alike that ICU folds to it.
      const std::string odd = pick(oddities);
      const std::size_t at = rng() % name.size();
      name = name.substr(0, at) + odd + name.substr(at + 1);
    }
    if (rng() % 3 == 0) {
      for (char& c : name) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    std::string link = (rng() % 5 == 0 ? "http://" : "https://") + host + "/path/" +
                       std::to_string(rng() % 100) + "?" + name + "=1&" + pick(names) + "=x";
    if (rng() % 6 == 0) link += "#" + pick(names) + "=frag";
    if (rng() % 8 == 0) link = "https://www.google.com/url?q=" + link;
    links.push_back(std::move(link));
  }
  return links;
}

std::vector<std::string> names(const std::vector<const CompiledProvider*>& providers) {
  std::vector<std::string> out;
  for (const auto* p : providers) out.push_back(p->name);
  return out;
}

void expectSameAnswers(const RulesEngine& indexed, const RulesEngine& plain,
                       const std::string& link, std::vector<std::string> paramNames) {
  const auto a = indexed.matchingProviders(link);
  const auto b = plain.matchingProviders(link);
  ASSERT_EQ(names(a), names(b)) << link;
  if (auto components = URLComponents::parse(link)) {
    if (auto items = components->queryItems()) {
      for (const auto& item : *items) paramNames.push_back(item.name);
    }
  }
  for (std::size_t k = 0; k < a.size(); ++k) {
    EXPECT_EQ(indexed.isException(link, *a[k]), plain.isException(link, *b[k])) << link;
    EXPECT_EQ(indexed.extractRedirection(link, *a[k]), plain.extractRedirection(link, *b[k]));
    EXPECT_EQ(indexed.applyRawRules(link, *a[k]), plain.applyRawRules(link, *b[k])) << link;
    for (const auto& name : paramNames) {
      EXPECT_EQ(indexed.shouldStripParam(name, *a[k]), plain.shouldStripParam(name, *b[k]))
          << link << " param " << name << " provider " << a[k]->name;
    }
  }
  for (const auto& name : paramNames) {
    // The batched lookup over all selected providers answers as the per-provider walk does.
    auto first = indexed.firstStrippingRule(name, a);
    auto expected = plain.firstStrippingRule(name, b);
    ASSERT_EQ(first.has_value(), expected.has_value()) << link << " param " << name;
    if (first) {
      EXPECT_EQ(first->ruleID, expected->ruleID) << link << " param " << name;
      EXPECT_EQ(first->provider->name, expected->provider->name);
    }
    auto x = indexed.shouldStripParamFallback(name);
    auto y = plain.shouldStripParamFallback(name);
    ASSERT_EQ(x.has_value(), y.has_value()) << name;
    if (x) {
      EXPECT_EQ(x->ruleID, y->ruleID) << name;
    }
  }
}

// The real rule file loaded twice on one store: through the index and the plain way.
class IndexedMatchingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto fixture = testing::clearUrlsFixture();
    if (!fixture) GTEST_SKIP() << "ClearURLs fixture not present";
    data_ = *testing::readFixture(*fixture);
    store_ = PreferenceStore::open(home_.path() / "prefs.sqlite3");
    indexed_ = std::make_unique<RulesEngine>(store_, MatchStrategy::indexed);
    plain_ = std::make_unique<RulesEngine>(store_, MatchStrategy::plain);
    indexed_->load(data_);
    plain_->load(data_);
  }

  testing::TempHome home_;
  std::string data_;
  std::shared_ptr<PreferenceStore> store_;
  std::unique_ptr<RulesEngine> indexed_, plain_;
};

TEST_F(IndexedMatchingTest, EqualsPlainMatchingOnRealRulesAndGeneratedLinks) {
  RulesEngine& indexed = *indexed_;
  RulesEngine& plain = *plain_;
  indexed.addCustomRule("my_tracker", "mine", RuleCategoryType::custom);
  plain.reloadPersistedState();
  ASSERT_EQ(indexed.compiledProviders().size(), 205u);

  const std::vector<std::string> extraNames = {"my_tracker", "MY_TRACKER", "utm_\xE2\x84\xAA",
                                               "\xC5\xBFi",  "ref\r",      "fbclid\n"};
  for (const auto& link : generatedLinks(plain, 3000)) {
    expectSameAnswers(indexed, plain, link, extraNames);
  }
  // Authorities whose normal form differs from the text, or seems to.
  for (const char* link :
       {"//WWW.Amazon.com/x?u=https://a.b", "https://a.com:0443/?fbclid=1", "https://amazon.com:/x",
        "https://[::1]/?gclid=1", "a1+b://Google.com/url?q=https://x.y", "1a://Google.com/x"}) {
    expectSameAnswers(indexed, plain, link, {});
  }
  // Real links from the corpus, when it is there.
  if (auto corpus = testing::readFixture(testing::sharedDir() / "corpus/real_urls_kasztp.txt")) {
    std::size_t seen = 0;
    for (auto line : split(*corpus, '\n')) {
      if (line.find('?') == std::string_view::npos || ++seen > 1500) continue;
      expectSameAnswers(indexed, plain, std::string(line), {});
    }
  }
}

TEST_F(IndexedMatchingTest, FollowsSwitchesWithoutRebuilding) {
  RulesEngine& indexed = *indexed_;
  RulesEngine& plain = *plain_;
  for (RulesEngine* e : {&indexed, &plain}) {
    e->category(RuleCategoryType::ecommerce)->isEnabled = false;
    if (RuleEntry* entry = e->findEntry("Analytics:utm_*")) entry->isEnabled = false;
  }
  for (const auto& link : generatedLinks(plain, 500)) {
    expectSameAnswers(indexed, plain, link, {"utm_source", "tag"});
  }
}

TEST_F(IndexedMatchingTest, WarmCacheGivesTheSameIndex) {
  // SetUp's indexed load was the cold one and filled the cache.
  EXPECT_FALSE(indexed_->indexStats().fromCache);
  RulesEngine warm(store_);
  warm.load(data_);
  EXPECT_TRUE(warm.indexStats().fromCache);
  for (const auto& link : generatedLinks(*plain_, 300)) expectSameAnswers(warm, *plain_, link, {});

  // A cache file with one flipped byte is refused and rebuilt, never trusted.
  for (const auto& file : std::filesystem::recursive_directory_iterator(home_.path() / "cache")) {
    if (!file.is_regular_file()) continue;
    std::string bytes = *testing::readFixture(file.path());
    bytes[bytes.size() - 10] ^= 0x01;
    std::ofstream(file.path(), std::ios::binary | std::ios::trunc) << bytes;
  }
  RulesEngine tampered(store_);
  tampered.load(data_);
  EXPECT_FALSE(tampered.indexStats().fromCache);
}

}  // namespace
}  // namespace linkwash
