// `linkwash rules update|install-release|status|auto`: signed rule releases from the shell. The
// library does the checking, verifying and installing; this file parses arguments and prints the
// updater's status texts.
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <memory>
#include <string>

#include "base/diagnostics.h"
#include "core/rules/rules_engine.h"
#include "core/updates/rules_updater.h"
#include "platform/prefs/preference_store.h"
#include "tools/cli/commands.h"

namespace linkwash::cli {
namespace {

int failWith(std::string_view subcommand, std::string_view message) {
  std::cerr << "linkwash rules " << subcommand << ": " << message << '\n';
  return 1;
}

Timestamp currentTime() {
  return std::chrono::time_point_cast<std::chrono::seconds>(std::chrono::system_clock::now());
}

std::string dateOrNever(std::optional<Timestamp> date) {
  return date ? formatDisplayDate(*date) : "never";
}

// One line on standard error, rewritten in place while a file downloads; only on a terminal,
// so that logs and scripts see just the outcome.
class ProgressLine {
 public:
  explicit ProgressLine(RulesUpdater& updater) : shown_(::isatty(STDERR_FILENO) == 1) {
    if (!shown_) return;
    updater.setStatusObserver([this](const RulesUpdateStatus& status) {
      if (status.isBusy()) {
        show(status.displayText());
      } else {
        clear();
      }
    });
    updater.setProgressObserver([this](const RulesUpdater::DownloadProgress& progress) {
      std::string line = "Downloading " + std::string(progress.path) + ": " +
                         std::to_string(progress.received / 1024) + " KiB";
      if (progress.total) line += " of " + std::to_string(*progress.total / 1024) + " KiB";
      show(line);
    });
  }
  ~ProgressLine() { clear(); }
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

 private:
  void show(const std::string& line) {
    std::cerr << "\r\033[K" << line << std::flush;
    dirty_ = true;
  }
  void clear() {
    if (!dirty_) return;
    std::cerr << "\r\033[K" << std::flush;
    dirty_ = false;
  }

  bool shown_;
  bool dirty_ = false;
};

// Prints a finished status: outcomes on standard output, a failure on standard error. Returns
// the exit code.
int report(const RulesUpdateStatus& status) {
  if (status.kind == RulesUpdateStatus::Kind::failed) {
    std::cerr << status.displayText() << '\n';
    return 1;
  }
  std::cout << status.displayText() << '\n';
  if (status.kind == RulesUpdateStatus::Kind::updateAvailable && status.manifest) {
    for (const auto& note : status.manifest->notes) std::cout << "  " << note << '\n';
  }
  return 0;
}

void printNextCheck(const RulesUpdater& updater) {
  const auto next = RuleUpdateBackgroundSchedule::earliestBeginDate(
      updater.automaticUpdateCadence(), updater.lastAutomaticCheckDate(), currentTime());
  if (!next) return;
  std::cout << "Next automatic check: "
            << (*next <= currentTime() ? "due now" : formatDisplayDate(*next)) << '\n';
}

int runUpdate(bool checkOnly, bool ifDue, const std::string& channel) {
  auto session = openSession();
  RulesUpdater& updater = session->rulesUpdater();
  if (!channel.empty()) updater.setSelectedChannel(*ruleUpdateChannelFromRawValue(channel));
  updater.loadPreferringAppSupport();
  ProgressLine progress(updater);

  if (ifDue) {
    const auto result = updater.performAutomaticUpdateIfDueNow(currentTime());
    if (result == AutomaticRuleUpdateResult::notDue) {
      if (updater.automaticUpdateCadence() == RuleUpdateCadence::never) {
        std::cout << "Automatic rule updates are off (see `linkwash rules auto`)\n";
      } else {
        std::cout << "No automatic rule update is due\n";
        printNextCheck(updater);
      }
      return 0;
    }
    report(updater.updateStatus());
    return backgroundTaskSucceeded(result) ? 0 : 1;
  }

  updater.checkForUpdates();
  if (checkOnly || updater.updateStatus().kind != RulesUpdateStatus::Kind::updateAvailable) {
    return report(updater.updateStatus());
  }
  report(updater.updateStatus());
  updater.installAvailableUpdate();
  return report(updater.updateStatus());
}

int runInstallRelease(const std::string& dir) {
  auto release = RulesUpdater::readReleaseDirectory(dir);
  if (!release) return failWith("install-release", release.error().errorDescription());
  auto session = openSession();
  session->rulesUpdater().installRelease(*release);
  return report(session->rulesUpdater().updateStatus());
}

int runStatus() {
  auto session = openSession();
  const RulesUpdater& updater = session->rulesUpdater();
  if (const auto installed = updater.verifiedInstalledVersion()) {
    std::cout << "Rules in use: " << *installed << " (installed release)\n";
  } else {
    const auto shipped = VerifiedRuleBundleLoader::shippedRulesVersion();
    std::cout << "Rules in use: shipped rules" << (shipped ? " " + *shipped : std::string())
              << '\n';
  }
  std::cout << "Channel: " << displayName(updater.selectedChannel()) << '\n'
            << "Automatic updates: " << displayName(updater.automaticUpdateCadence()) << '\n'
            << "Last automatic check: " << dateOrNever(updater.lastAutomaticCheckDate()) << '\n'
            << "Last install: " << dateOrNever(updater.lastUpdateDate()) << '\n';
  printNextCheck(updater);
  return 0;
}

int runAuto(const std::string& raw) {
  auto session = openSession();
  RulesUpdater& updater = session->rulesUpdater();
  updater.setAutomaticUpdateCadence(*ruleUpdateCadenceFromRawValue(raw));
  std::cout << "Automatic updates: " << displayName(updater.automaticUpdateCadence()) << '\n';
  printNextCheck(updater);
  return 0;
}

}  // namespace

void addRulesUpdateCommands(CLI::App& rules, int& exitCode) {
  struct Options {
    bool checkOnly = false;
    bool ifDue = false;
    std::string channel, dir, cadence;
  };
  auto o = std::make_shared<Options>();

  CLI::App* update = rules.add_subcommand(
      "update", "Check the rules server for a newer signed rule release and install it");
  update->add_flag("--check-only", o->checkOnly, "Only say whether a newer release exists");
  update
      ->add_option("--channel", o->channel,
                   "Switch to this channel (kept for later updates): stable or beta")
      ->check(CLI::IsMember({"stable", "beta"}));
  update->add_flag("--if-due", o->ifDue,
                   "Do nothing unless an automatic update is due (for timers and cron)");
  update->footer(
      "Only releases signed with a trusted key and not older than the rules in use are "
      "installed; anything else leaves the rules in use unchanged.\n\nExamples:\n"
      "  linkwash rules update --check-only\n"
      "  linkwash rules update --channel beta");
  update->callback([o, &exitCode] { exitCode = runUpdate(o->checkOnly, o->ifDue, o->channel); });

  CLI::App* installRelease =
      rules.add_subcommand("install-release", "Install a signed rule release from a local folder");
  installRelease
      ->add_option("DIR", o->dir,
                   "A folder holding manifest.json, manifest.sig and the rule files, as "
                   "`linkwash-publish sign-rules` writes them")
      ->required();
  installRelease->footer(
      "The release goes through the same signature, integrity and version checks as a "
      "download.\n\nExample:\n  linkwash rules install-release ./www/linkwash/rules");
  installRelease->callback([o, &exitCode] { exitCode = runInstallRelease(o->dir); });

  CLI::App* status = rules.add_subcommand(
      "status", "Show the rules in use, the update channel and automatic update settings");
  status->callback([&exitCode] { exitCode = runStatus(); });

  CLI::App* automatic =
      rules.add_subcommand("auto", "Set how often rule updates are checked automatically");
  automatic->add_option("CADENCE", o->cadence, "never, daily, weekly or monthly")
      ->required()
      ->check(CLI::IsMember({"never", "daily", "weekly", "monthly"}));
  automatic->footer(
      "A timer or cron job running `linkwash rules update --if-due` then checks when due.\n\n"
      "Example:\n  linkwash rules auto weekly");
  automatic->callback([o, &exitCode] { exitCode = runAuto(o->cadence); });
}

}  // namespace linkwash::cli
