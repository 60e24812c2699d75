// Tests for Regex: ICU semantics on UTF-8 subjects, byte offsets, templates, escaping, the time
// limit and shared use across threads.
#include "platform/regex/regex.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace linkwash {
namespace {

Regex mustCompile(std::string_view pattern, RegexOptions options = RegexOptions::none) {
  auto re = Regex::compile(pattern, options);
  EXPECT_TRUE(re.has_value()) << pattern;
  return std::move(*re);
}

std::vector<RegexRange> wholeRanges(const std::vector<RegexMatch>& matches) {
  std::vector<RegexRange> ranges;
  for (const auto& m : matches) ranges.push_back(*m.ranges[0]);
  return ranges;
}

TEST(RegexTest, CaseInsensitiveOnlyWhenAskedAndFoldsUnicode) {
  const std::string kelvin = "\xE2\x84\xAA";  // U+212A KELVIN SIGN folds to "k"
  const std::string longS = "\xC5\xBF";       // U+017F LATIN SMALL LETTER LONG S folds to "s"

  EXPECT_FALSE(mustCompile("UTM_SOURCE").search("utm_source"));
  EXPECT_TRUE(mustCompile("UTM_SOURCE", RegexOptions::caseInsensitive).search("utm_source"));

  EXPECT_FALSE(mustCompile("k").search(kelvin));
  auto k = mustCompile("k", RegexOptions::caseInsensitive);
  auto match = k.firstMatch("x" + kelvin + "y");
  ASSERT_TRUE(match);
  EXPECT_EQ(match->ranges[0], (RegexRange{1, 4}));

  EXPECT_FALSE(mustCompile("^s$").search(longS));
  EXPECT_TRUE(mustCompile("^s$", RegexOptions::caseInsensitive).search(longS));
  EXPECT_TRUE(mustCompile("^" + longS + "$", RegexOptions::caseInsensitive).search("S"));
}

TEST(RegexTest, CaptureGroupsAreAbsentWhenTheyDidNotTakePart) {
  auto re = mustCompile("^(?:(x)|(y))(z)?=([^&]*)");
  EXPECT_EQ(re.captureGroupCount(), 4u);
  const std::string subject = "y=v%C3%A9&rest";
  auto match = re.firstMatch(subject);
  ASSERT_TRUE(match);
  std::vector<std::optional<std::string_view>> groups;
  for (std::size_t i = 0; i <= 5; ++i) groups.push_back(match->group(subject, i));
  // Group 5 is beyond the pattern's groups.
  EXPECT_EQ(groups, (std::vector<std::optional<std::string_view>>{
                        "y=v%C3%A9", std::nullopt, "y", std::nullopt, "v%C3%A9", std::nullopt}));

  // A group that matched the empty string is present, not absent.
  auto empty = mustCompile("a()b").firstMatch("ab");
  ASSERT_TRUE(empty);
  EXPECT_EQ(empty->ranges[1], (RegexRange{1, 1}));
  EXPECT_FALSE(mustCompile("^a$").firstMatch("b"));
}

TEST(RegexTest, AllMatchesUseByteOffsetsAndStepPastEmptyMatches) {
  // "grüße" is 7 bytes, "straße" 7 bytes; the space is at byte 7.
  EXPECT_EQ(wholeRanges(mustCompile("\\w+").allMatches("grüße straße")),
            (std::vector<RegexRange>{{0, 7}, {8, 15}}));
  EXPECT_EQ(wholeRanges(mustCompile("é").allMatches("aéé b€é")),
            (std::vector<RegexRange>{{1, 3}, {3, 5}, {10, 12}}));
  // An empty match advances by one whole character, never into the middle of "é".
  EXPECT_EQ(wholeRanges(mustCompile("x*").allMatches("aéxx")),
            (std::vector<RegexRange>{{0, 0}, {1, 1}, {3, 5}, {5, 5}}));
  EXPECT_EQ(wholeRanges(mustCompile("a*").allMatches("")), (std::vector<RegexRange>{{0, 0}}));
  EXPECT_TRUE(mustCompile("q").allMatches("none here").empty());
}

TEST(RegexTest, AsciiAndUtf8SubjectsMatchAlike) {
  // Pure ASCII subjects take a different route into ICU than other text; a leading "é" forces
  // the UTF-8 route and must shift every range by exactly its two bytes.
  const std::string subject =
      "https://www.example.com/p?utm_source=news&UTM_medium=x&id=42&fbclid=&q=a+b#frag";
  for (const char* pattern : {"[a-z]+", "utm_([a-z]+)=([^&]*)", "(x)|(=)", "&[^=]*=(?=&|$)",
                              "[?&]fbclid=[^&#]*", "(?i)UTM_[A-Z]+", "\\d+", "#.*$"}) {
    auto shifted = mustCompile(pattern).allMatches("é" + subject);
    for (auto& match : shifted) {
      for (auto& range : match.ranges) {
        if (range) range = RegexRange{range->begin - 2, range->end - 2};
      }
    }
    const auto ascii = mustCompile(pattern).allMatches(subject);
    ASSERT_FALSE(ascii.empty()) << pattern;
    ASSERT_EQ(shifted.size(), ascii.size()) << pattern;
    for (std::size_t i = 0; i < ascii.size(); ++i) {
      EXPECT_EQ(shifted[i].ranges, ascii[i].ranges) << pattern << " match " << i;
    }
  }
}

TEST(RegexTest, InvalidUtf8SubjectsMatchAroundReplacementCharacters) {
  // Each broken byte reads as one U+FFFD, and offsets still count bytes of the original.
  const std::string subject = "a\xFF\xFE\x62\xE2\x82";  // "b" between the broken bytes
  auto match = mustCompile("a..b").firstMatch(subject);
  ASSERT_TRUE(match);
  EXPECT_EQ(match->ranges[0], (RegexRange{0, 4}));
  EXPECT_TRUE(mustCompile("b.$").search(subject));
  EXPECT_EQ(mustCompile("b").replaceAll(subject, "X"), "a\xFF\xFEX\xE2\x82");
}

TEST(RegexTest, ReplaceAllExpandsTemplates) {
  auto pair = mustCompile("(\\w+)=(\\d*)");
  EXPECT_EQ(pair.replaceAll("a=1&b=&c=22", "$2:$1"), "1:a&:b&22:c");
  EXPECT_EQ(pair.replaceAll("a=1", "[$0]"), "[a=1]");
  EXPECT_EQ(pair.replaceAll("a=1", "\\$1\\\\"), "$1\\");
  EXPECT_EQ(pair.replaceAll("a=1", "\\u00e9\\U0001F600"), "é😀");
  // Digits are taken only while they still name a group: "$10" is group 1, then "0".
  EXPECT_EQ(pair.replaceAll("a=1", "$10"), "a0");
  EXPECT_EQ(mustCompile("(?<key>\\w+)=").replaceAll("a=1", "${key}:"), "a:1");
  // A group that did not take part contributes nothing.
  EXPECT_EQ(mustCompile("(x)|(y)").replaceAll("xy", "<$1$2>"), "<x><y>");
  // Removal, as rules use it; text outside matches is untouched, multibyte included.
  EXPECT_EQ(mustCompile("[?&]utm_[a-z]+=[^&]*").replaceAll("/é?utm_a=1&x=2&utm_b=ü", ""), "/é&x=2");

  // Templates ICU refuses leave the subject as it was.
  for (const char* bad : {"$", "$x", "$3", "${nope}", "${key"}) {
    EXPECT_EQ(pair.replaceAll("a=1", bad), "a=1") << bad;
  }
}

TEST(RegexTest, EscapedPatternMatchesExactlyTheLiteral) {
  EXPECT_EQ(Regex::escapedPattern("a.b/c?d=(e)"), "a\\.b\\/c\\?d=\\(e\\)");
  for (std::string literal :
       {"https://www.example.com/path?q=1&r=[2]", "a+b*c", "\\d\\", "{1,2}", "x|y", "^$", "(?i)",
        "[^]", "é.ü", "a]b-c", "#not a comment", "\\Q\\E", " "}) {
    auto re = Regex::compile(Regex::escapedPattern(literal));
    ASSERT_TRUE(re) << literal;
    auto match = re->firstMatch("pre" + literal + "post");
    ASSERT_TRUE(match) << literal;
    EXPECT_EQ(match->ranges[0], (RegexRange{3, 3 + literal.size()})) << literal;
  }
}

TEST(RegexTest, RefusesPatternsIcuRefuses) {
  for (const char* bad : {"(", "a)", "[a-", "*a", "a{2,1}", "(?<name", "\\", "(?<1a>x)", "a**",
                          "[z-a]", "\\p{NoSuchProperty}", "a{,2}"}) {
    EXPECT_FALSE(Regex::compile(bad)) << bad;
    EXPECT_FALSE(Regex::compile(bad, RegexOptions::caseInsensitive)) << bad;
  }
  // ICU-specific syntax that other engines may refuse must compile untouched.
  for (const char* good : {"[[a-z]--[aeiou]]", "\\p{L}+", "a++", "(?<name>x)\\k<name>", "\\/",
                           "(?:&amp;)?utm_source", ""}) {
    EXPECT_TRUE(Regex::compile(good)) << good;
  }
}

TEST(RegexTest, CatastrophicPatternsGiveUpQuickly) {
  using Clock = std::chrono::steady_clock;
  auto re = mustCompile("(a+)+$");
  const std::string shortSubject = std::string(30, 'a') + "b";
  const std::string longSubject = std::string(64 * 1024, 'a') + "b";

  for (const std::string* subject : {&shortSubject, &longSubject}) {
    const auto start = Clock::now();
    EXPECT_FALSE(re.search(*subject));
    EXPECT_FALSE(re.firstMatch(*subject));
    EXPECT_TRUE(re.allMatches(*subject).empty());
    EXPECT_EQ(re.replaceAll(*subject, "x"), *subject);
    // Four bounded calls; generous for sanitizer builds, hopeless without the limit.
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(2)) << subject->size();
  }
  const auto start = Clock::now();
  EXPECT_FALSE(mustCompile("(x+x+)+y").search(std::string(64 * 1024, 'x')));
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(1));

  // The same Regex still works after running out of budget.
  EXPECT_TRUE(re.search("aaa"));
}

TEST(RegexTest, AWorkBudgetCapsEveryMatchOfTheThread) {
  auto catastrophic = mustCompile("(?=a)(a+)+b1");
  auto simple = mustCompile("a");
  const std::string subject(30, 'a');
  {
    RegexWorkBudget budget(50);
    EXPECT_FALSE(catastrophic.search(subject));
    EXPECT_TRUE(budget.exhausted());
    EXPECT_EQ(budget.used(), 50);
    // Spent: even trivial matches now answer "no match" without doing any work.
    EXPECT_FALSE(simple.search("a"));
    EXPECT_EQ(simple.replaceAll("a", "b"), "a");
    {
      RegexWorkBudget inner(1000);
      EXPECT_FALSE(simple.search("a")) << "the budget around it is spent";
    }
    // Another thread has its own (absent) budget.
    bool otherThread = false;
    std::thread([&] { otherThread = simple.search("a"); }).join();
    EXPECT_TRUE(otherThread);
  }
  EXPECT_TRUE(simple.search("a"));
  RegexWorkBudget outer(1000);
  {
    RegexWorkBudget inner(10);
    EXPECT_FALSE(catastrophic.search(subject));
    EXPECT_TRUE(inner.exhausted());
  }
  EXPECT_EQ(outer.used(), 10);
  EXPECT_FALSE(outer.exhausted());
  EXPECT_TRUE(simple.search("a"));
}

TEST(RegexTest, LongOrdinaryWorkStaysWithinTheLimits) {
  std::string subject;
  for (int i = 0; i < 13000; ++i) subject += "word ";
  EXPECT_EQ(mustCompile("[a-z]+").allMatches(subject).size(), 13000u);
  EXPECT_TRUE(mustCompile("^(?:[a-z]+ )+$").search(subject));
  EXPECT_TRUE(mustCompile("(.)*$").search(subject));
  EXPECT_EQ(mustCompile("o").replaceAll(subject, "0").find('o'), std::string::npos);
}

TEST(RegexTest, SharedAcrossThreads) {
  auto re = mustCompile("^https?://(?:[a-z0-9-]+\\.)*?(example)\\.([a-z]{2,})/",
                        RegexOptions::caseInsensitive);
  std::vector<int> failures(4, 0);
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < failures.size(); ++t) {
    threads.emplace_back([&, t] {
      const std::string tld(t + 2, 'c');
      const std::string hit = "https://a.b.EXAMPLE." + tld + "/x";
      for (int i = 0; i < 2000; ++i) {
        auto match = re.firstMatch(hit);
        failures[t] += !match || match->group(hit, 2) != tld || re.allMatches(hit).size() != 1 ||
                       re.search("https://a.b.elpmaxe." + tld + "/x");
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures, (std::vector<int>{0, 0, 0, 0}));
}

}  // namespace
}  // namespace linkwash
