// Cleaning statistics: links cleaned, by rule category, by tracking impact level and confidence,
// and command-guard warnings by severity. Running totals and per-day buckets (local days, the
// last 35 kept) live in the shared preference store; every change is one transaction there, so
// the clipboard daemon and a command counting at the same moment never lose each other's count.
//
//   StatsTracker stats(PreferenceStore::standard());
//   stats.recordClean(result);
//   StatsSnapshot week = stats.snapshot(StatsWindow::sevenDays);
//   std::cout << stats.exportCSV();
//
// Days follow the local time zone (TZ). Not thread-safe; one tracker per thread.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "core/cleaning/clean_result.h"
#include "core/clipboard/command_guard.h"
#include "core/rules/rule_category.h"
#include "core/rules/tracking_impact.h"

namespace linkwash {

class PreferenceStore;

enum class StatsWindow { today, sevenDays, thirtyDays, allTime };
inline constexpr std::array<StatsWindow, 4> kAllStatsWindows = {
    StatsWindow::today, StatsWindow::sevenDays, StatsWindow::thirtyDays, StatsWindow::allTime};
// "Today", "7 Days", "30 Days", "All Time".
std::string_view rawValue(StatsWindow window);

struct StatsSnapshot {
  std::int64_t totalCleaned = 0;
  std::int64_t totalCommandWarnings = 0;
  std::int64_t neutralizedCommands = 0;
  std::map<RuleCategoryType, std::int64_t> categoryStats;
  std::map<CommandRiskSeverity, std::int64_t> commandSeverityStats;
  std::map<TrackingImpactLevel, std::int64_t> impactStats;
  std::map<TrackingImpactConfidence, std::int64_t> confidenceStats;
  bool operator==(const StatsSnapshot&) const = default;
};

// One local day's counts; the maps are keyed by raw value in the stored JSON.
struct DailyStatsBucket {
  std::string dateKey;  // "yyyy-MM-dd"
  StatsSnapshot counts;
  bool operator==(const DailyStatsBucket&) const = default;
};

class StatsTracker {
 public:
  static constexpr std::string_view kTotalCleanedKey = "stats_totalCleaned";
  static constexpr std::string_view kCommandWarningsKey = "stats_commandWarnings";
  static constexpr std::string_view kNeutralizedCommandsKey = "stats_neutralizedCommands";
  static constexpr std::string_view kCategoryKeyPrefix = "stats_category_";
  static constexpr std::string_view kCommandSeverityKeyPrefix = "stats_commandSeverity_";
  static constexpr std::string_view kImpactKeyPrefix = "stats_impact_";
  static constexpr std::string_view kConfidenceKeyPrefix = "stats_confidence_";
  static constexpr std::string_view kDailyBucketsKey = "stats_daily_buckets_v1";
  static constexpr std::string_view statsCollectionEnabledKey = "stats_collection_enabled";
  static constexpr int retentionDays = 35;

  using Clock = std::function<std::chrono::system_clock::time_point()>;

  // Binds to `defaults` and loads the totals and buckets. `clock` (default: the system clock)
  // decides which local day an event falls on.
  explicit StatsTracker(std::shared_ptr<PreferenceStore> defaults, Clock clock = {});

  // Reloads what this and other processes stored.
  void refresh();

  // Each returns at once when collection is off. Recording never throws; false means the store
  // could not be written (the in-memory totals then stay as they were).
  bool recordClean(const CleanResult& result);
  // Many cleans counted in one transaction (a text with many links, a counted stream).
  bool recordCleans(std::span<const CleanResult> results);
  bool recordCommandRisk(const CommandRiskResult& result, bool neutralized);

  StatsSnapshot snapshot(StatsWindow window) const;
  // "Window,Section,Label,Count" and one row per count of every window, zero counts included.
  std::string exportCSV() const;

  // Clears every count and bucket; the collection switch stays.
  bool resetStats();
  bool purgeStats() { return resetStats(); }

  bool isCollectionEnabled() const;
  bool setCollectionEnabled(bool enabled);
  // For other parts that share the store (the rules engine reads the same switch).
  static bool isCollectionEnabled(const PreferenceStore& defaults);

  // The all-time totals as loaded.
  const StatsSnapshot& totals() const { return totals_; }
  std::int64_t totalCleaned() const { return totals_.totalCleaned; }
  const std::map<std::string, DailyStatsBucket>& dailyBuckets() const { return dailyBuckets_; }

  // Called after every change this tracker makes (a screen re-reads its numbers).
  void setChangeObserver(std::function<void()> observer) { observer_ = std::move(observer); }

  // The local date key of `time`: "yyyy-MM-dd" in the current time zone.
  static std::string dateKey(std::chrono::system_clock::time_point time);

 private:
  bool record(const std::function<void(StatsSnapshot& delta)>& count);
  void notify() const;

  std::shared_ptr<PreferenceStore> defaults_;
  Clock clock_;
  StatsSnapshot totals_;
  std::map<std::string, DailyStatsBucket> dailyBuckets_;
  std::function<void()> observer_;
};

// The CSV field as RFC 4180 writes it: quoted (with quotes doubled) when it holds a comma, a
// quote or a line break.
std::string csvField(std::string_view field);

}  // namespace linkwash
