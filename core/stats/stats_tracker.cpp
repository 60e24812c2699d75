#include "core/stats/stats_tracker.h"

#include <ctime>

#include "platform/json/json_writer.h"
#include "platform/prefs/preference_store.h"
#include "platform/prefs/preference_transaction.h"

namespace linkwash {
namespace {

using TimePoint = std::chrono::system_clock::time_point;

void add(StatsSnapshot& into, const StatsSnapshot& from) {
  into.totalCleaned += from.totalCleaned;
  into.totalCommandWarnings += from.totalCommandWarnings;
  into.neutralizedCommands += from.neutralizedCommands;
  for (const auto& [k, n] : from.categoryStats) into.categoryStats[k] += n;
  for (const auto& [k, n] : from.commandSeverityStats) into.commandSeverityStats[k] += n;
  for (const auto& [k, n] : from.impactStats) into.impactStats[k] += n;
  for (const auto& [k, n] : from.confidenceStats) into.confidenceStats[k] += n;
}

// The stored key of every count, with a reader for the matching field of a snapshot.
template <typename F>
void forEachCountKey(F&& visit) {
  visit(std::string(StatsTracker::kTotalCleanedKey),
        [](StatsSnapshot& s) -> std::int64_t& { return s.totalCleaned; });
  visit(std::string(StatsTracker::kCommandWarningsKey),
        [](StatsSnapshot& s) -> std::int64_t& { return s.totalCommandWarnings; });
  visit(std::string(StatsTracker::kNeutralizedCommandsKey),
        [](StatsSnapshot& s) -> std::int64_t& { return s.neutralizedCommands; });
  for (auto c : kAllRuleCategoryTypes) {
    visit(std::string(StatsTracker::kCategoryKeyPrefix) + std::string(rawValue(c)),
          [c](StatsSnapshot& s) -> std::int64_t& { return s.categoryStats[c]; });
  }
  for (auto v : kAllCommandRiskSeverities) {
    visit(std::string(StatsTracker::kCommandSeverityKeyPrefix) + std::string(rawValue(v)),
          [v](StatsSnapshot& s) -> std::int64_t& { return s.commandSeverityStats[v]; });
  }
  for (auto l : kAllTrackingImpactLevels) {
    visit(std::string(StatsTracker::kImpactKeyPrefix) + std::string(rawValue(l)),
          [l](StatsSnapshot& s) -> std::int64_t& { return s.impactStats[l]; });
  }
  for (auto c : kAllTrackingImpactConfidences) {
    visit(std::string(StatsTracker::kConfidenceKeyPrefix) + std::string(rawValue(c)),
          [c](StatsSnapshot& s) -> std::int64_t& { return s.confidenceStats[c]; });
  }
}

// Zero counts are left out of maps, so that snapshots compare by what was counted.
void dropZeros(StatsSnapshot& s) {
  std::erase_if(s.categoryStats, [](const auto& e) { return e.second == 0; });
  std::erase_if(s.commandSeverityStats, [](const auto& e) { return e.second == 0; });
  std::erase_if(s.impactStats, [](const auto& e) { return e.second == 0; });
  std::erase_if(s.confidenceStats, [](const auto& e) { return e.second == 0; });
}

template <typename Enum, typename Container>
Json encodeCounts(const std::map<Enum, std::int64_t>& counts, const Container& order) {
  Json json = Json::object();
  for (auto key : order) {
    if (auto it = counts.find(key); it != counts.end() && it->second != 0) {
      json[std::string(rawValue(key))] = it->second;
    }
  }
  return json;
}

template <typename Enum, typename FromRaw>
void decodeCounts(const Json& json, const char* name, std::map<Enum, std::int64_t>& out,
                  FromRaw fromRaw) {
  const auto it = json.find(name);
  if (it == json.end() || !it->is_object()) return;
  for (const auto& [raw, count] : it->items()) {
    const auto key = fromRaw(raw);
    if (key && count.is_number_integer()) out[*key] += count.template get<std::int64_t>();
  }
}

std::int64_t integerMember(const Json& json, const char* name) {
  const auto it = json.find(name);
  return it != json.end() && it->is_number_integer() ? it->get<std::int64_t>() : 0;
}

Json encodeBucket(const DailyStatsBucket& bucket) {
  const StatsSnapshot& c = bucket.counts;
  Json json = Json::object();
  json["dateKey"] = bucket.dateKey;
  json["totalCleaned"] = c.totalCleaned;
  json["totalCommandWarnings"] = c.totalCommandWarnings;
  json["neutralizedCommands"] = c.neutralizedCommands;
  json["categoryStats"] = encodeCounts(c.categoryStats, kAllRuleCategoryTypes);
  json["commandSeverityStats"] = encodeCounts(c.commandSeverityStats, kAllCommandRiskSeverities);
  json["impactStats"] = encodeCounts(c.impactStats, kAllTrackingImpactLevels);
  json["confidenceStats"] = encodeCounts(c.confidenceStats, kAllTrackingImpactConfidences);
  return json;
}

// An undecodable value starts an empty map; a bucket that is not an object is skipped.
std::map<std::string, DailyStatsBucket> decodeBuckets(const std::optional<Bytes>& data) {
  std::map<std::string, DailyStatsBucket> buckets;
  if (!data) return buckets;
  const auto json = parseJson(toString(*data));
  if (!json || !json->is_object()) return buckets;
  for (const auto& [key, value] : json->items()) {
    if (!value.is_object()) continue;
    DailyStatsBucket bucket;
    bucket.dateKey = key;
    StatsSnapshot& c = bucket.counts;
    c.totalCleaned = integerMember(value, "totalCleaned");
    c.totalCommandWarnings = integerMember(value, "totalCommandWarnings");
    c.neutralizedCommands = integerMember(value, "neutralizedCommands");
    decodeCounts(value, "categoryStats", c.categoryStats, ruleCategoryTypeFromRaw);
    decodeCounts(value, "commandSeverityStats", c.commandSeverityStats, commandRiskSeverityFromRaw);
    decodeCounts(value, "impactStats", c.impactStats, trackingImpactLevelFromRaw);
    decodeCounts(value, "confidenceStats", c.confidenceStats, trackingImpactConfidenceFromRaw);
    dropZeros(c);
    buckets[key] = std::move(bucket);
  }
  return buckets;
}

Bytes encodeBuckets(const std::map<std::string, DailyStatsBucket>& buckets) {
  Json json = Json::object();
  for (const auto& [key, bucket] : buckets) json[key] = encodeBucket(bucket);
  JsonWriteOptions options;
  options.escapeSlashes = false;
  return toBytes(writeJson(json, options));
}

// The date key `daysBack` calendar days before the day of `now`. Counting from local noon keeps
// a daylight-saving change from skipping or repeating a day.
std::string dateKeyDaysBack(TimePoint now, int daysBack) {
  const std::time_t t = std::chrono::system_clock::to_time_t(now);
  std::tm local{};
  localtime_r(&t, &local);
  local.tm_mday -= daysBack;
  local.tm_hour = 12;
  local.tm_min = local.tm_sec = 0;
  local.tm_isdst = -1;
  const std::time_t back = std::mktime(&local);
  return StatsTracker::dateKey(std::chrono::system_clock::from_time_t(back));
}

}  // namespace

std::string_view rawValue(StatsWindow window) {
  switch (window) {
    case StatsWindow::today:
      return "Today";
    case StatsWindow::sevenDays:
      return "7 Days";
    case StatsWindow::thirtyDays:
      return "30 Days";
    case StatsWindow::allTime:
      return "All Time";
  }
  return "";
}

std::string StatsTracker::dateKey(TimePoint time) {
  const std::time_t t = std::chrono::system_clock::to_time_t(time);
  std::tm local{};
  localtime_r(&t, &local);
  char text[40];
  std::snprintf(text, sizeof text, "%04d-%02d-%02d", local.tm_year + 1900, local.tm_mon + 1,
                local.tm_mday);
  return text;
}

StatsTracker::StatsTracker(std::shared_ptr<PreferenceStore> defaults, Clock clock)
    : defaults_(std::move(defaults)), clock_(std::move(clock)) {
  if (!clock_) clock_ = [] { return std::chrono::system_clock::now(); };
  tzset();
  refresh();
}

void StatsTracker::refresh() {
  totals_ = {};
  forEachCountKey(
      [&](const std::string& key, auto field) { field(totals_) = defaults_->integerForKey(key); });
  dropZeros(totals_);
  dailyBuckets_ = decodeBuckets(defaults_->dataForKey(kDailyBucketsKey));
}

bool StatsTracker::isCollectionEnabled(const PreferenceStore& defaults) {
  return !defaults.object(statsCollectionEnabledKey) ||
         defaults.boolForKey(statsCollectionEnabledKey);
}

bool StatsTracker::isCollectionEnabled() const { return isCollectionEnabled(*defaults_); }

bool StatsTracker::setCollectionEnabled(bool enabled) {
  const bool ok = defaults_->set(statsCollectionEnabledKey, PreferenceValue{enabled});
  notify();
  return ok;
}

void StatsTracker::notify() const {
  if (observer_) observer_();
}

bool StatsTracker::record(const std::function<void(StatsSnapshot&)>& count) {
  if (!isCollectionEnabled()) return true;
  StatsSnapshot delta;
  count(delta);
  const TimePoint now = clock_();
  const std::string today = dateKey(now);
  const std::string oldestKept = dateKeyDaysBack(now, retentionDays - 1);
  const bool ok = updatePreferences(*defaults_, [&](PreferenceTransaction& t) {
    forEachCountKey([&](const std::string& key, auto field) {
      if (const std::int64_t n = field(delta); n != 0) {
        t.set(key, PreferenceValue{t.integerForKey(key) + n});
      }
    });
    auto buckets = decodeBuckets(t.dataForKey(kDailyBucketsKey));
    DailyStatsBucket& bucket = buckets[today];
    bucket.dateKey = today;
    add(bucket.counts, delta);
    dropZeros(bucket.counts);
    // Date keys sort as dates, so everything before the oldest kept day goes.
    buckets.erase(buckets.begin(), buckets.lower_bound(oldestKept));
    t.set(kDailyBucketsKey, PreferenceValue{encodeBuckets(buckets)});
  });
  refresh();
  notify();
  return ok;
}

bool StatsTracker::recordClean(const CleanResult& result) {
  return recordCleans(std::span<const CleanResult>(&result, 1));
}

bool StatsTracker::recordCleans(std::span<const CleanResult> results) {
  if (results.empty()) return true;
  return record([&](StatsSnapshot& delta) {
    for (const auto& result : results) {
      delta.totalCleaned += 1;
      for (auto category : result.matchedCategories) delta.categoryStats[category] += 1;
      const auto impact = result.trackingImpactReport();
      delta.impactStats[impact.impactLevel] += 1;
      delta.confidenceStats[impact.confidence] += 1;
    }
  });
}

bool StatsTracker::recordCommandRisk(const CommandRiskResult& result, bool neutralized) {
  return record([&](StatsSnapshot& delta) {
    delta.totalCommandWarnings = 1;
    delta.commandSeverityStats[result.severity] = 1;
    if (neutralized) delta.neutralizedCommands = 1;
  });
}

StatsSnapshot StatsTracker::snapshot(StatsWindow window) const {
  if (window == StatsWindow::allTime) return totals_;
  const int days = window == StatsWindow::today ? 1 : window == StatsWindow::sevenDays ? 7 : 30;
  const TimePoint now = clock_();
  StatsSnapshot sum;
  for (int back = 0; back < days; ++back) {
    if (auto it = dailyBuckets_.find(dateKeyDaysBack(now, back)); it != dailyBuckets_.end()) {
      add(sum, it->second.counts);
    }
  }
  return sum;
}

std::string csvField(std::string_view field) {
  if (field.find_first_of(",\"\r\n") == std::string_view::npos) return std::string(field);
  std::string quoted = "\"";
  for (char c : field) {
    if (c == '"') quoted += '"';
    quoted += c;
  }
  return quoted + "\"";
}

std::string StatsTracker::exportCSV() const {
  std::string csv = "Window,Section,Label,Count";
  for (auto window : kAllStatsWindows) {
    const StatsSnapshot s = snapshot(window);
    const std::string name = csvField(rawValue(window));
    auto row = [&](std::string_view section, std::string_view label, std::int64_t count) {
      csv += "\n" + name + "," + csvField(section) + "," + csvField(label) + "," +
             std::to_string(count);
    };
    auto countOf = [](const auto& map, auto key) {
      const auto it = map.find(key);
      return it == map.end() ? std::int64_t{0} : it->second;
    };
    row("Overview", "Total URLs Cleaned", s.totalCleaned);
    row("Command Guard", "Warnings", s.totalCommandWarnings);
    row("Command Guard", "Neutralized", s.neutralizedCommands);
    for (auto v : kAllCommandRiskSeverities)
      row("Command Guard", rawValue(v), countOf(s.commandSeverityStats, v));
    for (auto c : kAllRuleCategoryTypes) row("Category", rawValue(c), countOf(s.categoryStats, c));
    for (auto l : kAllTrackingImpactLevels) row("Impact", rawValue(l), countOf(s.impactStats, l));
    for (auto c : kAllTrackingImpactConfidences)
      row("Confidence", rawValue(c), countOf(s.confidenceStats, c));
  }
  return csv + "\n";
}

bool StatsTracker::resetStats() {
  const bool ok = updatePreferences(*defaults_, [](PreferenceTransaction& t) {
    forEachCountKey([&](const std::string& key, auto) { t.remove(key); });
    t.remove(kDailyBucketsKey);
  });
  refresh();
  notify();
  return ok;
}

}  // namespace linkwash
