// Tracking impact and the statistics kept from it: local days, windows, retention, the CSV, the
// collection switch and counts shared between trackers.
#include "core/stats/stats_tracker.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "platform/prefs/preference_store.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

using C = RuleCategoryType;
using L = TrackingImpactLevel;
using Conf = TrackingImpactConfidence;

TEST(TrackingImpactTest, ScoresLevelsAndWords) {
  struct Case {
    std::set<C> categories;
    std::int64_t removed;
    bool changed;
    L level;
    Conf confidence;
    std::string summary;
  };
  const Case cases[] = {
      {{C::referralMarketing},
       4,
       true,
       L::high,
       Conf::high,
       "Removed 4 tracking signals tied to Direct commercial attribution."},
      {{C::analytics, C::emailMarketing},
       2,
       true,
       L::medium,
       Conf::medium,
       "Removed 2 tracking signals tied to Behavioral correlation and Campaign analytics."},
      {{C::socialMedia, C::advertising},
       1,
       true,
       L::medium,
       Conf::high,
       "Removed 1 tracking signal tied to Ad and social attribution."},
      {{}, 0, false, L::negligible, Conf::low, "Removed 0 tracking signals."},
      {{}, 0, true, L::low, Conf::low, "Removed 1 tracking signal."},
      {{}, 7, true, L::medium, Conf::low, "Removed 7 tracking signals."},
      {{C::analytics},
       8,
       true,
       L::medium,
       Conf::high,
       "Removed 8 tracking signals tied to Campaign analytics."},
      {{C::analytics},
       -3,
       true,
       L::low,
       Conf::high,
       "Removed 0 tracking signals tied to Campaign analytics."},
      {{C::ecommerce, C::socialMedia, C::redirectUnwrapping, C::custom},
       9,
       true,
       L::veryHigh,
       Conf::medium,
       "Removed 9 tracking signals across Direct commercial attribution, Ad and social "
       "attribution, and other tracking categories."},
  };
  for (const auto& c : cases) {
    const auto r = TrackingImpactAnalyzer::analyze(c.categories, c.removed, c.changed);
    EXPECT_EQ(r.impactLevel, c.level) << c.summary;
    EXPECT_EQ(r.confidence, c.confidence) << c.summary;
    EXPECT_EQ(r.summary, c.summary);
  }
  const auto two = TrackingImpactAnalyzer::analyze({C::analytics, C::emailMarketing}, 2, true);
  EXPECT_EQ(two.categories, (std::vector{TrackingCommercialCategory::behavioralCorrelation,
                                         TrackingCommercialCategory::campaignAnalytics}));
  EXPECT_TRUE(
      two.explanation.starts_with(explanation(TrackingCommercialCategory::behavioralCorrelation)));
}

CleanResult cleanWith(std::set<C> categories, std::int64_t removed = 1) {
  CleanResult r;
  r.originalURL = "https://a.com/?x=1";
  r.cleanedURL = "https://a.com/";
  r.paramsRemoved = removed;
  r.matchedCategories = std::move(categories);
  return r;
}

// Local wall-clock time in the zone set for the test.
std::chrono::system_clock::time_point local(int year, int month, int day, int hour, int minute) {
  std::tm tm{};
  tm.tm_year = year - 1900;
  tm.tm_mon = month - 1;
  tm.tm_mday = day;
  tm.tm_hour = hour;
  tm.tm_min = minute;
  tm.tm_isdst = -1;
  return std::chrono::system_clock::from_time_t(std::mktime(&tm));
}

class StatsTrackerTest : public ::testing::Test {
 protected:
  StatsTrackerTest() {
    const char* tz = std::getenv("TZ");
    if (tz) savedTz_ = tz;
    // Far from UTC, so a day boundary taken in UTC would land in the wrong bucket.
    setenv("TZ", "TEST-12", 1);
    tzset();
    now_ = local(2026, 3, 14, 23, 59);
  }
  ~StatsTrackerTest() override {
    if (savedTz_)
      setenv("TZ", savedTz_->c_str(), 1);
    else
      unsetenv("TZ");
    tzset();
  }
  StatsTracker tracker() {
    return StatsTracker(PreferenceStore::standard(), [this] { return now_; });
  }

  testing::TempHome home_;
  std::optional<std::string> savedTz_;
  std::chrono::system_clock::time_point now_;
};

TEST_F(StatsTrackerTest, CountsIntoLocalDaysAcrossMidnightAndWindows) {
  auto stats = tracker();
  ASSERT_TRUE(stats.recordClean(cleanWith({C::analytics})));
  now_ = local(2026, 3, 15, 0, 1);
  ASSERT_TRUE(stats.recordClean(cleanWith({C::referralMarketing, C::socialMedia}, 3)));
  EXPECT_EQ(stats.dailyBuckets().size(), 2u);
  EXPECT_TRUE(stats.dailyBuckets().count("2026-03-14"));
  EXPECT_TRUE(stats.dailyBuckets().count("2026-03-15"));

  const auto today = stats.snapshot(StatsWindow::today);
  EXPECT_EQ(today.totalCleaned, 1);
  EXPECT_EQ(today.categoryStats,
            (std::map<C, std::int64_t>{{C::referralMarketing, 1}, {C::socialMedia, 1}}));
  EXPECT_EQ(stats.snapshot(StatsWindow::sevenDays).totalCleaned, 2);
  EXPECT_EQ(stats.snapshot(StatsWindow::allTime).impactStats,
            (std::map<L, std::int64_t>{{L::low, 1}, {L::veryHigh, 1}}));

  // A second tracker on the same store (another process) sees and adds to the same counts.
  auto other = tracker();
  ASSERT_TRUE(other.recordCommandRisk(
      CommandRiskResult{"rm -rf /", CommandRiskSeverity::danger, {}, "1"}, true));
  stats.refresh();
  const auto all = stats.snapshot(StatsWindow::allTime);
  EXPECT_EQ(all.totalCleaned, 2);
  EXPECT_EQ(all.totalCommandWarnings, 1);
  EXPECT_EQ(all.neutralizedCommands, 1);
  EXPECT_EQ(all.commandSeverityStats.at(CommandRiskSeverity::danger), 1);
  EXPECT_EQ(PreferenceStore::standard()->integerForKey("stats_category_Social Media"), 1);

  // 36 days on, the old buckets go at the next recording; All Time keeps counting them.
  now_ = local(2026, 4, 20, 12, 0);
  ASSERT_TRUE(stats.recordClean(cleanWith({})));
  EXPECT_EQ(stats.dailyBuckets().size(), 1u);
  EXPECT_EQ(stats.snapshot(StatsWindow::thirtyDays).totalCleaned, 1);
  EXPECT_EQ(stats.snapshot(StatsWindow::allTime).totalCleaned, 3);
}

TEST_F(StatsTrackerTest, CollectionSwitchCsvAndReset) {
  auto stats = tracker();
  const std::string fresh = stats.exportCSV();
  EXPECT_TRUE(
      fresh.starts_with("Window,Section,Label,Count\nToday,Overview,Total URLs Cleaned,0\n"
                        "Today,Command Guard,Warnings,0\nToday,Command Guard,Neutralized,0\n"));
  EXPECT_NE(fresh.find("\n7 Days,Category,Social Media,0\n"), std::string::npos);
  EXPECT_NE(fresh.find("\nAll Time,Impact,Very High,0\n"), std::string::npos);
  EXPECT_EQ(csvField("a,\"b\""), "\"a,\"\"b\"\"\"");

  ASSERT_TRUE(stats.setCollectionEnabled(false));
  EXPECT_FALSE(StatsTracker::isCollectionEnabled(*PreferenceStore::standard()));
  ASSERT_TRUE(stats.recordClean(cleanWith({C::analytics})));
  EXPECT_EQ(stats.totalCleaned(), 0);
  EXPECT_TRUE(stats.dailyBuckets().empty());

  ASSERT_TRUE(stats.setCollectionEnabled(true));
  const std::vector<CleanResult> batch(3, cleanWith({C::analytics}));
  ASSERT_TRUE(stats.recordCleans(batch));
  EXPECT_NE(stats.exportCSV().find("\nToday,Category,Analytics,3\n"), std::string::npos);
  ASSERT_TRUE(stats.resetStats());
  EXPECT_EQ(stats.exportCSV(), fresh);
  EXPECT_TRUE(stats.isCollectionEnabled());
  EXPECT_FALSE(PreferenceStore::standard()->object("stats_daily_buckets_v1"));
}

}  // namespace
}  // namespace linkwash
