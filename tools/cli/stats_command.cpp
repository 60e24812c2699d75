// `linkwash stats` (counts, CSV export, reset, the collection switch) and `linkwash status` (one
// screen: rules, catalog, update awareness, statistics).
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <memory>
#include <string>

#include "core/awareness/update_awareness.h"
#include "core/privacy/privacy_catalog_store.h"
#include "core/privacy/privacy_catalog_updater.h"
#include "core/rules/rules_engine.h"
#include "core/stats/stats_tracker.h"
#include "core/updates/signed_rule_feed.h"
#include "platform/json/json_writer.h"
#include "platform/resources/resource_bundle.h"
#include "tools/cli/commands.h"

namespace linkwash::cli {
namespace {

// The statistics of the standard store; one place to switch when the stores come from elsewhere.
StatsTracker openStats() { return StatsTracker(PreferenceStore::standard()); }

std::optional<StatsWindow> windowFromOption(const std::string& option) {
  if (option == "today") return StatsWindow::today;
  if (option == "7d") return StatsWindow::sevenDays;
  if (option == "30d") return StatsWindow::thirtyDays;
  if (option == "all") return StatsWindow::allTime;
  return std::nullopt;
}

template <typename Enum, typename Container>
Json countsJson(const std::map<Enum, std::int64_t>& counts, const Container& order) {
  Json json = Json::object();
  for (auto key : order) {
    const auto it = counts.find(key);
    json[std::string(rawValue(key))] = it == counts.end() ? 0 : it->second;
  }
  return json;
}

template <typename Enum, typename Container>
void printCounts(const char* heading, const std::map<Enum, std::int64_t>& counts,
                 const Container& order) {
  std::cout << heading << '\n';
  for (auto key : order) {
    const auto it = counts.find(key);
    std::cout << "  " << rawValue(key) << ": " << (it == counts.end() ? 0 : it->second) << '\n';
  }
}

int runStats(const std::string& windowOption, bool json) {
  const StatsWindow window = *windowFromOption(windowOption);
  const StatsTracker stats = openStats();
  const StatsSnapshot s = stats.snapshot(window);
  if (json) {
    Json out = Json::object();
    out["window"] = std::string(rawValue(window));
    out["collectionEnabled"] = stats.isCollectionEnabled();
    out["totalCleaned"] = s.totalCleaned;
    out["totalCommandWarnings"] = s.totalCommandWarnings;
    out["neutralizedCommands"] = s.neutralizedCommands;
    out["categoryStats"] = countsJson(s.categoryStats, kAllRuleCategoryTypes);
    out["commandSeverityStats"] = countsJson(s.commandSeverityStats, kAllCommandRiskSeverities);
    out["impactStats"] = countsJson(s.impactStats, kAllTrackingImpactLevels);
    out["confidenceStats"] = countsJson(s.confidenceStats, kAllTrackingImpactConfidences);
    JsonWriteOptions options;
    options.escapeSlashes = false;
    std::cout << writeJson(out, options) << '\n';
    return 0;
  }
  std::cout << "Statistics: " << rawValue(window)
            << (stats.isCollectionEnabled() ? "" : " (collection is off)") << '\n'
            << "Links cleaned: " << s.totalCleaned << '\n'
            << "Command Guard warnings: " << s.totalCommandWarnings << " (neutralized "
            << s.neutralizedCommands << ")\n";
  printCounts("By category:", s.categoryStats, kAllRuleCategoryTypes);
  printCounts("By tracking impact:", s.impactStats, kAllTrackingImpactLevels);
  printCounts("By confidence:", s.confidenceStats, kAllTrackingImpactConfidences);
  printCounts("Command Guard by severity:", s.commandSeverityStats, kAllCommandRiskSeverities);
  return 0;
}

std::string iso(std::uint64_t seconds) {
  return formatISO8601(Timestamp(std::chrono::seconds(static_cast<std::int64_t>(seconds))));
}

int runStatus() {
  auto defaults = PreferenceStore::standard();
  UpdateAwareness awareness(defaults);
  (void)awareness.reconcileRunningApp(appVersion(), std::nullopt);

  RulesEngine engine(defaults);
  const auto installed = loadVerifiedRules(engine);
  const auto rulesVersion = installed ? installed : VerifiedRuleBundleLoader::shippedRulesVersion();
  std::cout << "Linkwash " << appVersion() << " (build " << appBuild() << ")\n"
            << "Rules: " << rulesVersion.value_or("unknown version") << ", "
            << (installed ? "installed release" : "shipped rules") << ", "
            << engine.compiledProviders().size() << " providers\n";

  PrivacyCatalogUpdater catalogUpdater(PrivacyCatalogStore::shared());
  const auto catalog = catalogUpdater.catalogInUse();
  if (!catalog) {
    std::cout << "Privacy Services catalog: none verifies\n";
  } else {
    const auto& record = catalog->catalog();
    std::uint64_t oldestReview = UINT64_MAX;
    for (const auto& service : record.services)
      oldestReview = std::min(oldestReview, service.reviewed);
    const std::uint64_t until = oldestReview + PrivacyServicesCatalog::kMaximumReviewAge;
    std::cout << "Privacy Services catalog: version " << record.version << ", "
              << (catalogUpdater.installed() ? "installed" : "shipped") << ", "
              << (catalog->fresh(catalogUpdater.now()) ? "fresh until " : "out of date since ")
              << iso(until) << '\n';
  }

  const auto& state = awareness.state();
  std::cout << "Updates:";
  for (auto updateClass : kAllUpdateClasses) std::cout << ' ' << state.label(updateClass) << ';';
  std::cout << (state.available().empty() ? " nothing new known" : "") << '\n';
  std::cout << "Statistics: "
            << (StatsTracker::isCollectionEnabled(*defaults) ? "collected" : "not collected")
            << '\n';
  return 0;
}

}  // namespace

void addStatsCommands(CLI::App& app, int& exitCode) {
  struct Options {
    std::string window = "all";
    bool json = false;
    std::string collection;
  };
  auto o = std::make_shared<Options>();
  CLI::App* stats = app.add_subcommand("stats", "Show, export or reset the cleaning statistics");
  stats->require_subcommand(0, 1);
  stats->add_option("--window", o->window, "today, 7d, 30d or all (default)")
      ->check(CLI::IsMember({"today", "7d", "30d", "all"}));
  stats->add_flag("--json", o->json, "Print the counts as one JSON object");
  stats->footer(
      "Counted: links cleaned with `linkwash clean URL...`, `clean --text`, `resolve` and the "
      "clipboard daemon; a standard-input stream of links only with `clean --count`. Days are "
      "local days (TZ); the last 35 are kept for the windows, the all-time totals forever.");
  stats->callback([o, stats, &exitCode] {
    if (stats->get_subcommands().empty()) exitCode = runStats(o->window, o->json);
  });

  stats->add_subcommand("export", "Print the statistics as CSV (Window,Section,Label,Count)")
      ->callback([] { std::cout << openStats().exportCSV(); });
  stats->add_subcommand("reset", "Clear every count (the collection switch stays)")
      ->callback([&exitCode] {
        if (!openStats().resetStats()) {
          std::cerr << "linkwash stats reset: the preference store could not be written\n";
          exitCode = 1;
          return;
        }
        std::cout << "Statistics cleared\n";
      });
  CLI::App* collection =
      stats->add_subcommand("collection", "Switch statistics (and rule match counts) on or off");
  collection->add_option("STATE", o->collection, "on or off")
      ->required()
      ->check(CLI::IsMember({"on", "off"}));
  collection->callback([o, &exitCode] {
    const bool on = o->collection == "on";
    if (!openStats().setCollectionEnabled(on)) {
      std::cerr << "linkwash stats collection: the preference store could not be written\n";
      exitCode = 1;
      return;
    }
    std::cout << "Statistics collection: " << o->collection << '\n';
  });

  app.add_subcommand("status",
                     "Show the rules and catalog in use, known updates and whether statistics "
                     "are collected")
      ->callback([&exitCode] { exitCode = runStatus(); });
}

}  // namespace linkwash::cli
