// Tests of the missed-tracker report: what the builder keeps, and the exact subject, body,
// appendix and mail link it renders.
#include "core/stats/missed_tracker_report.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "platform/url/url_components.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

using namespace std::chrono_literals;
using std::chrono::March;
using Clock = std::chrono::system_clock;
using Platform = MissedTrackerReport::Platform;
using Surface = MissedTrackerReport::Surface;

const Clock::time_point kNow = std::chrono::sys_days{2026y / March / 14} + 12h;

CleanResult resultFor(std::string original, std::string cleaned) {
  CleanResult result;
  result.originalURL = std::move(original);
  result.cleanedURL = std::move(cleaned);
  return result;
}

MissedTrackerReport buildSimple(const CleanResult& result, std::optional<std::string> note = {},
                                Platform platform = Platform::linux,
                                std::optional<std::int64_t> providerCount = {},
                                std::optional<Clock::time_point> lastUpdate = {}) {
  return MissedTrackerReportBuilder::build(result, platform, "12", "1.1", std::nullopt,
                                           Surface::clipboard, std::move(note), providerCount,
                                           lastUpdate, kNow);
}

std::string repeated(std::string_view piece, std::size_t count) {
  std::string out;
  for (std::size_t i = 0; i < count; ++i) out += piece;
  return out;
}

// The line after `heading` in the body.
std::string lineAfter(const std::string& body, const std::string& heading) {
  const std::size_t at = body.find("\n" + heading + "\n");
  if (at == std::string::npos) return "<missing " + heading + ">";
  const std::size_t start = at + heading.size() + 2;
  return body.substr(start, body.find('\n', start) - start);
}

TEST(MissedTrackerReportTest, NoteIsCutAtFiveHundredScalarsWithoutSplittingOne) {
  const CleanResult result = resultFor("https://a.example/?x=1", "https://a.example/");
  EXPECT_EQ(buildSimple(result).userNote, "");
  EXPECT_EQ(buildSimple(result, repeated("a", 500)).userNote, repeated("a", 500));
  EXPECT_EQ(buildSimple(result, repeated("a", 501)).userNote, repeated("a", 500));
  // Two-byte and four-byte scalars count once each and are never cut in half.
  EXPECT_EQ(buildSimple(result, repeated("\xC3\xA9", 501)).userNote, repeated("\xC3\xA9", 500));
  EXPECT_EQ(buildSimple(result, repeated("a", 499) + "\xF0\x9F\x98\x80" + "b").userNote,
            repeated("a", 499) + "\xF0\x9F\x98\x80");
}

TEST(MissedTrackerReportTest, BuilderTakesHostCategoriesAndCountsFromResult) {
  CleanResult result = resultFor("https://Shop.example.com/p?utm_source=x", "https://b.example/p");
  result.paramsRemoved = 4;
  result.matchedRuleIDs = {"Social Media:fbclid", "Analytics:utm_source", "E-commerce:tag"};
  result.matchedCategories = {RuleCategoryType::socialMedia, RuleCategoryType::analytics,
                              RuleCategoryType::ecommerce, RuleCategoryType::advertising};
  MissedTrackerReport report = buildSimple(result);
  EXPECT_EQ(report.host, "b.example");
  EXPECT_TRUE(report.wasModified);
  EXPECT_EQ(report.paramsRemoved, 4);
  EXPECT_EQ(report.matchedRuleIDs, result.matchedRuleIDs);  // matching order, not sorted
  // Sorted by raw string, which differs from the enumeration's order.
  EXPECT_EQ(report.matchedCategories,
            (std::vector{RuleCategoryType::advertising, RuleCategoryType::analytics,
                         RuleCategoryType::ecommerce, RuleCategoryType::socialMedia}));
  EXPECT_EQ(report.createdAt, kNow);

  // A cleaned text that is not a URL falls back to the original link's host, kept as written.
  EXPECT_EQ(buildSimple(resultFor("https://Shop.example.com/p", "not a url")).host,
            "Shop.example.com");
  EXPECT_EQ(buildSimple(resultFor("no host here", "still none")).host, std::nullopt);
  EXPECT_FALSE(buildSimple(resultFor("https://a.example/", "https://a.example/")).wasModified);
}

TEST(MissedTrackerReportTest, SubjectNamesHostPlatformAndVersionWithTheHostCutAt50Scalars) {
  MissedTrackerReport report = buildSimple(resultFor("x", "x"), {}, Platform::windows);
  EXPECT_EQ(report.subject(), "[Missed Tracker] Unknown Host - Windows - v1.1");
  const std::string host50 = repeated("h", 46) + ".com";
  report.host = host50 + "x";
  EXPECT_EQ(report.subject(), "[Missed Tracker] " + host50 + " - Windows - v1.1");
  report.host = repeated("\xC3\xBC", 51);
  EXPECT_EQ(report.subject(), "[Missed Tracker] " + repeated("\xC3\xBC", 50) + " - Windows - v1.1");
}

TEST(MissedTrackerReportTest, CompleteReportBody) {
  CleanResult result = resultFor("https://shop.example.com/item/42?utm_source=news&ref=abc&id=7",
                                 "https://shop.example.com/item/42?id=7");
  result.paramsRemoved = 2;
  result.matchedRuleIDs = {"Analytics:utm_source", "Referral Marketing:ref"};
  result.matchedCategories = {RuleCategoryType::referralMarketing, RuleCategoryType::analytics};
  const auto lastUpdate = std::chrono::sys_days{2026y / March / 1} + 23h + 59min + 59s;
  // Fractions of a second are dropped, not rounded.
  const MissedTrackerReport report = MissedTrackerReportBuilder::build(
      result, Platform::linux, "Debian GNU/Linux 12 (bookworm)", "1.1.0", "7", Surface::manualClean,
      "Still has \"ref\" in it", 3, lastUpdate, kNow + 750ms);

  const auto expected =
      testing::readFixture(testing::sourceDir() / "tests/fixtures/missed_tracker_report.txt");
  ASSERT_TRUE(expected);
  EXPECT_EQ(report.bodyText(), *expected);
  EXPECT_EQ(report.shareText(), *expected);
}

TEST(MissedTrackerReportTest, MinimalReportShowsPlaceholdersAndOmitsAbsentFields) {
  const MissedTrackerReport report = buildSimple(resultFor("about:blank", "about:blank"));
  const std::string body = report.bodyText();
  EXPECT_EQ(lineAfter(body, "User note:"), "[none]");
  EXPECT_EQ(lineAfter(body, "App version:"), "1.1");
  EXPECT_EQ(lineAfter(body, "Matched categories:"), "[none]");
  EXPECT_EQ(lineAfter(body, "Matched rule IDs:"), "[none]");
  EXPECT_EQ(lineAfter(body, "Rules summary:"), "[not available]");
  EXPECT_EQ(report.jsonAppendix(),
            testing::readFixture(testing::sourceDir() /
                                 "tests/fixtures/missed_tracker_minimal_appendix.txt"));
}

TEST(MissedTrackerReportTest, RulesSummaryListsWhatIsKnownInUtc) {
  const CleanResult result = resultFor("https://a.example/", "https://a.example/");
  // Late in the UTC day: a formatter using local time would give the next day here.
  std::optional<testing::ScopedEnvironment> tz(std::in_place, "TZ", "UTC-14");
  tzset();
  const auto late = std::chrono::sys_days{2026y / March / 14} + 23h + 30min;
  const auto summary = [&](std::optional<std::int64_t> count, std::optional<Clock::time_point> at) {
    return lineAfter(buildSimple(result, {}, Platform::linux, count, at).bodyText(),
                     "Rules summary:");
  };
  EXPECT_EQ(summary(3, std::nullopt), "provider_count=3");
  EXPECT_EQ(summary(std::nullopt, late), "last_update=2026-03-14");
  EXPECT_EQ(summary(0, late), "provider_count=0, last_update=2026-03-14");
  EXPECT_EQ(summary(std::nullopt, std::nullopt), "[not available]");
  tz.reset();
  tzset();
}

TEST(MissedTrackerReportTest, MailtoCarriesEncodedSubjectAndBody) {
  const MissedTrackerReport report = buildSimple(
      resultFor("https://a.example/p?x=1&y=2", "https://a.example/p"), "100% sure & ok");
  const auto url = report.mailtoURL();
  ASSERT_TRUE(url);
  const std::string prefix = "mailto:" + std::string(MissedTrackerReport::recipientEmail()) +
                             "?subject=%5BMissed%20Tracker%5D%20a.example%20-%20Linux%20-%20v1.1"
                             "&body=Linkwash%20Missed%20Tracker%20Report%0A%0AUser%20note:%0A"
                             "100%25%20sure%20%26%20ok%0A";
  EXPECT_EQ(url->substr(0, prefix.size()), prefix);

  // The link parses back to exactly the subject and body.
  const auto components = URLComponents::parse(*url);
  ASSERT_TRUE(components);
  const auto items = components->queryItems();
  ASSERT_TRUE(items);
  EXPECT_EQ(*items, (std::vector<URLQueryItem>{{"subject", report.subject()},
                                               {"body", report.bodyText()}}));
}

// A modified report whose original link's path has `as` letters "a" and `slashes` "/" added.
// Each letter adds 2 characters to the mail link (body line and appendix) and each slash 5 ("/"
// in the body, "\/" escaped as "%5C/" in the appendix), so the test can reach any length exactly.
MissedTrackerReport paddedReport(std::size_t as, std::size_t slashes) {
  return buildSimple(resultFor("https://a.example/x" + repeated("a", as) + repeated("/", slashes),
                               "https://a.example/"),
                     repeated("n", 500));
}

MissedTrackerReport reportWithMailtoLength(std::size_t target) {
  const std::size_t base = paddedReport(0, 0).mailtoURL()->size();
  const std::size_t extra = target - base;
  const std::size_t slashes = extra % 2;
  return paddedReport((extra - 5 * slashes) / 2, slashes);
}

TEST(MissedTrackerReportTest, MailtoIsSafeUpToExactlyTheLimit) {
  static_assert(MissedTrackerReport::kMailtoLengthLimit == 8192);
  for (std::size_t length : {8191u, 8192u}) {
    const MissedTrackerReport report = reportWithMailtoLength(length);
    ASSERT_EQ(report.mailtoURL()->size(), length);
    EXPECT_TRUE(report.mailtoIsSafeLength()) << length;
  }
  for (std::size_t length : {8193u, 8194u}) {
    const MissedTrackerReport report = reportWithMailtoLength(length);
    ASSERT_EQ(report.mailtoURL()->size(), length);
    EXPECT_FALSE(report.mailtoIsSafeLength()) << length;
  }
}

}  // namespace
}  // namespace linkwash
