// The rules updater: checks the selected channel's signed manifest, tells whether a newer
// verified release exists, downloads and verifies its files, installs them through the signed
// rule store and reloads the rules engine. It keeps its settings and results in a preference
// store, and decides when automatic checks are due.
//
//   RulesEngine engine(PreferenceStore::standard());
//   RulesUpdater updater(engine, PreferenceStore::standard());
//   updater.loadPreferringAppSupport();           // the installed release, else shipped rules
//   updater.checkForUpdates();                    // updateStatus(): upToDate / updateAvailable
//   if (updater.availableManifest()) updater.installAvailableUpdate();
//   std::cout << updater.updateStatus().displayText();
//
// Every call is synchronous and reports through updateStatus(); nothing throws and a failure
// leaves the rules in use as they were. Not thread-safe, except cancel().
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/updates/rule_update_manifest.h"
#include "core/updates/signed_rule_feed.h"
#include "platform/http/http_client.h"

namespace linkwash {

class PreferenceStore;
class RulesEngine;

// --- Cadence and schedule -------------------------------------------------------------------

enum class RuleUpdateCadence { never, daily, weekly, monthly };

inline constexpr std::array<RuleUpdateCadence, 4> kAllRuleUpdateCadences = {
    RuleUpdateCadence::never, RuleUpdateCadence::daily, RuleUpdateCadence::weekly,
    RuleUpdateCadence::monthly};

// "never", "daily", "weekly", "monthly": the stored and command-line form.
std::string_view rawValue(RuleUpdateCadence cadence);
std::optional<RuleUpdateCadence> ruleUpdateCadenceFromRawValue(std::string_view raw);
// "Never", "Daily", "Weekly", "Monthly".
std::string_view displayName(RuleUpdateCadence cadence);
// Nothing for never; one day, seven days or thirty days.
std::optional<std::chrono::seconds> interval(RuleUpdateCadence cadence);
// Never due for never; otherwise due without a last check or once a whole interval has passed.
bool isDue(RuleUpdateCadence cadence, std::optional<Timestamp> lastCheck, Timestamp now);

// When a background scheduler should next run the automatic update.
struct RuleUpdateBackgroundSchedule {
  // Nothing for never; `now` without a last check or when the next check is overdue; otherwise
  // the last check plus the interval.
  static std::optional<Timestamp> earliestBeginDate(RuleUpdateCadence cadence,
                                                    std::optional<Timestamp> lastAutomaticCheck,
                                                    Timestamp now);
};

enum class AutomaticRuleUpdateResult { notDue, busy, succeeded, failed, cancelled };

// What a background task reports to its scheduler: only failed and cancelled runs are failures.
bool backgroundTaskSucceeded(AutomaticRuleUpdateResult result);

// --- Status ---------------------------------------------------------------------------------

// "Mar 14, 2026 at 3:05 PM" in the local time zone (TZ).
std::string formatDisplayDate(Timestamp time);

struct RulesUpdateStatus {
  enum class Kind {
    updateAvailable,
    upToDate,
    installed,
    failed,
    idle,
    checkingManifest,
    downloading,
    validating,
    installing,
  };

  Kind kind = Kind::idle;
  std::optional<RuleUpdateManifest> manifest;  // updateAvailable
  std::string text;                            // the version (upToDate, installed) or message
  std::optional<Timestamp> date;               // installed

  static RulesUpdateStatus updateAvailable(RuleUpdateManifest manifest);
  static RulesUpdateStatus upToDate(std::string version);
  static RulesUpdateStatus installed(std::string version, Timestamp date);
  static RulesUpdateStatus failed(std::string message);
  static RulesUpdateStatus of(Kind kind) { return {kind, std::nullopt, {}, std::nullopt}; }

  // "Rules update available: 2026.03.14.2", "Rules are up to date: ...", "Installed rules ...
  // at <date>", the failure's message, "" when idle, "Checking…", "Downloading…",
  // "Validating…", "Installing…".
  std::string displayText() const;
  // True while a check or an install is under way.
  bool isBusy() const;

  bool operator==(const RulesUpdateStatus&) const = default;
};

// --- The updater ----------------------------------------------------------------------------

class RulesUpdater {
 public:
  static constexpr std::string_view kLastUpdateDateKey = "rulesUpdater_lastUpdateDate";
  static constexpr std::string_view kInstalledVersionKey = "rulesUpdater_installedVersion";
  static constexpr std::string_view kLastAutomaticCheckDateKey =
      "rulesUpdater_lastAutomaticCheckDate";
  static constexpr std::string_view kAutomaticUpdateCadenceKey =
      "rulesUpdater_automaticUpdateCadence";
  static constexpr std::string_view kSelectedChannelKey = "rulesUpdater_selectedChannel";

  // The application-support folder an older installation kept its rules file in.
  static constexpr std::string_view kLegacyApplicationIdentifier = "com.brisel.linkwash";

  // The bytes of one release as fetched (or read from a local release folder).
  struct DownloadedRuleFiles {
    std::string clearURLsData;
    std::string supplementaryData;
    std::string manifestData;
    std::string signatureData;
  };

  struct DownloadProgress {
    std::string_view path;  // the file's name, e.g. "data.min.json"
    std::size_t received = 0;
    std::optional<std::size_t> total;
  };

  struct Options {
    // Fetch this manifest instead of the selected channel's (it must still be a feed URL).
    std::optional<std::string> manifestURLOverride;
    // Where the signed store lives; empty: SignedRuleFeed::Store::defaultRoot().
    std::filesystem::path root;
    // The trusted key file's bytes; nothing: the shipped "rule-feed-keys.json".
    std::optional<std::string> trust;
    // The shipped manifest whose version is the rollback floor; nothing: the shipped
    // "manifest.json".
    std::optional<std::string> shippedManifest;
    // The clock for stored dates; empty: the system clock.
    std::function<Timestamp()> clock;
  };

  // `engine` and `defaults` must outlive the updater. Reads the shipped files named by unset
  // options at construction.
  RulesUpdater(RulesEngine& engine, std::shared_ptr<PreferenceStore> defaults,
               Options options = {});

  // --- Observed state ---------------------------------------------------------------------
  const RulesUpdateStatus& updateStatus() const { return status_; }
  // The newer verified manifest found by the last check, until it is installed.
  const std::optional<RuleUpdateManifest>& availableManifest() const { return availableManifest_; }
  std::optional<std::string> installedVersion() const;
  std::optional<Timestamp> lastUpdateDate() const;
  std::optional<Timestamp> lastAutomaticCheckDate() const;
  // Unknown stored values read as the defaults (never, stable).
  RuleUpdateCadence automaticUpdateCadence() const;
  RuleUpdateChannel selectedChannel() const;
  // Both are written to the preference store at once.
  void setAutomaticUpdateCadence(RuleUpdateCadence cadence);
  void setSelectedChannel(RuleUpdateChannel channel);

  // Called after every change of updateStatus(), and while a file downloads.
  void setStatusObserver(std::function<void(const RulesUpdateStatus&)> observer) {
    statusObserver_ = std::move(observer);
  }
  void setProgressObserver(std::function<void(const DownloadProgress&)> observer) {
    progressObserver_ = std::move(observer);
  }

  const std::filesystem::path& root() const { return root_; }
  // The override, else the selected channel's manifest URL.
  std::string effectiveManifestURL() const;
  // The version of the newest stored release that verifies and is not below the floor; what
  // the next load would use. Nothing: the shipped rules are in use.
  std::optional<std::string> verifiedInstalledVersion() const;
  // The manifest of "active/manifest.json" under the root, when present and decodable.
  std::optional<RuleUpdateManifest> activeManifest() const;
  // The rollback floor: the shipped manifest's version, else kHighestRulesVersion.
  const std::string& floor() const { return floor_; }

  // --- Operations -------------------------------------------------------------------------
  // Fetches and verifies the manifest and signature; ends in updateAvailable, upToDate or
  // failed. Does nothing while busy.
  void checkForUpdates();
  // Downloads, verifies and installs availableManifest(); ends in installed or failed. Does
  // nothing without a checked update or while busy.
  void installAvailableUpdate();
  // The same verification and locked install for a release already at hand.
  void installRelease(const DownloadedRuleFiles& files);

  // Runs a check (and an install when it finds an update) when the cadence is due for the last
  // automatic check; stores `now` as that check's time.
  AutomaticRuleUpdateResult performAutomaticUpdateIfDueNow(Timestamp now);
  void performAutomaticUpdateIfDue(Timestamp now) { (void)performAutomaticUpdateIfDueNow(now); }
  // Asks a running automatic update to stop before its next step. Safe from any thread.
  void cancel() { cancelRequested_ = true; }

  // Start-up: moves a legacy rules file into place, loads the engine from the verified store
  // (else the shipped rules) and records the version in use. Returns that version.
  std::optional<std::string> loadPreferringAppSupport();
  // Moves "data.min.json" of the older application's folder to "active/" under the root.
  // Prints a diagnostic line and carries on when that is impossible.
  void migrateLegacyRules();

  // Reads a release folder as `linkwash-publish sign-rules` writes it: manifest.json and
  // manifest.sig in `dir`, the rule files in `dir`, in `dir`/<version>/ or (for a channel
  // folder such as beta/) in `dir`/../<version>/. A missing file is missingFile.
  [[nodiscard]] static RuleUpdateResult<DownloadedRuleFiles> readReleaseDirectory(
      const std::filesystem::path& dir);

 private:
  void setStatus(RulesUpdateStatus status);
  // Tells the update-awareness state what a check found or an install put in place.
  void reportToAwareness(const std::optional<std::string>& newest,
                         const std::optional<std::string>& installed);
  void fail(const RuleUpdateError& error) {
    setStatus(RulesUpdateStatus::failed(error.errorDescription()));
  }
  RuleUpdateResult<std::string> download(const RuleUpdateManifest::File& file);
  // Validates the files of a verified release, installs it and reloads the engine.
  void installVerified(const RuleUpdateManifest& manifest, const DownloadedRuleFiles& files);
  SignedRuleFeed::Store store() const { return {root_, trust_}; }
  Timestamp now() const;
  void setDate(std::string_view key, Timestamp date);
  std::optional<Timestamp> date(std::string_view key) const;

  RulesEngine& engine_;
  std::shared_ptr<PreferenceStore> defaults_;
  std::optional<std::string> manifestURLOverride_;
  std::filesystem::path root_;
  std::string trust_;
  std::optional<std::string> shippedManifest_;
  std::string floor_;
  std::function<Timestamp()> clock_;
  HttpClient http_;

  RulesUpdateStatus status_;
  std::optional<RuleUpdateManifest> availableManifest_;
  std::optional<SignedRuleFeed::Proof> pendingProof_;
  std::function<void(const RulesUpdateStatus&)> statusObserver_;
  std::function<void(const DownloadProgress&)> progressObserver_;
  std::atomic<bool> cancelRequested_ = false;
};

}  // namespace linkwash
