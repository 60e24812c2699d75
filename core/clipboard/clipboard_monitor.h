// ClipboardMonitor: watches the desktop clipboard. When the user copies something new it first
// lets the command guard look for a risky terminal command and otherwise, while enabled, cleans
// the copied link (or every link of a copied text) and writes the result back. It remembers the
// last clean so that the user can restore the original, switch cleaning off for that site, or
// resolve a share link over the network, and it never reacts to its own writes.
//
//   ClipboardMonitor monitor(cleaner, stats, notifications, CommandGuard(), prefs, board,
//                            recorder, exceptions);
//   monitor.start();
//   for (;;) { monitor.tick(); sleep(ClipboardMonitor::kPollInterval); }
//
// Everything runs on the thread that calls tick() (the loop thread); only share-link requests run
// on a worker thread, and their results are applied by the next tick().
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "core/cleaning/clean_result.h"
#include "core/cleaning/domain_exception_store.h"
#include "core/cleaning/last_clean_recorder.h"
#include "core/cleaning/url_cleaner.h"
#include "core/clipboard/clipboard_links.h"
#include "core/clipboard/command_guard.h"
#include "core/clipboard/notification_manager.h"
#include "platform/pasteboard/pasteboard.h"
#include "platform/prefs/preference_store.h"

namespace linkwash {

// Where cleans and command risks are counted.
struct ClipboardStatsHooks {
  std::function<void(const CleanResult& result)> recordClean;
  std::function<void(const CommandRiskResult& result, bool neutralized)> recordCommandRisk;
};

struct ClipboardMonitorOptions {
  ClipboardLinkFinder linkFinder = basicClipboardLinkFinder();
  ShareLinkSupport shareLinks = noShareLinkSupport();
  std::function<std::chrono::system_clock::time_point()> clock = [] {
    return std::chrono::system_clock::now();
  };
  // Runs `work` away from the loop thread. Unset: a worker thread the monitor joins on
  // destruction.
  std::function<void(std::function<void()> work)> runInBackground;
};

class ClipboardMonitor {
 public:
  static constexpr std::chrono::milliseconds kPollInterval{500};
  static constexpr std::size_t kMaximumPasteboardBytes = 65536;
  static constexpr std::string_view kNetworkResolutionSurface = "macOSNetworkResolution";

  static constexpr std::string_view kGuardEnabledKey = "commandGuard_enabled";
  static constexpr std::string_view kGuardThresholdKey = "commandGuard_threshold";
  static constexpr std::string_view kGuardNeutralizeKey = "commandGuard_neutralize";
  static constexpr std::string_view kGuardLastRiskKey = "commandGuard_lastRisk";
  static constexpr std::string_view kShareLinkResolutionKey =
      "automaticShareLinkResolution_enabled";
  static constexpr std::string_view kLastCleanedResultKey = "clipboardMonitor_lastCleanedResult";
  static constexpr std::string_view kCleanedCountKeyPrefix = "cleanedCount_";

  static constexpr std::string_view kClipboardChangedCopyAgainMessage =
      "The clipboard changed. Copy the share link again to resolve it.";
  static constexpr std::string_view kClipboardChangedKeptMessage =
      "The clipboard changed. Its newer contents were kept.";
  static constexpr std::string_view kResolutionFailedMessage =
      "The share link could not be resolved. The current locally processed link remains "
      "available.";
  static constexpr std::string_view kSomeUnresolvedMessage =
      "Some shared links could not be resolved and were left unchanged.";

  // Whatever is on the pasteboard now is left alone until it changes. `urlCleaner` must record
  // into `lastCleanRecorder`; every reference must outlive the monitor.
  ClipboardMonitor(URLCleaner& urlCleaner, ClipboardStatsHooks statsTracker,
                   NotificationManager& notificationManager, CommandGuard commandGuard,
                   std::shared_ptr<PreferenceStore> defaults,
                   std::shared_ptr<Pasteboard> pasteboard, LastCleanRecorder& lastCleanRecorder,
                   DomainExceptionStore& exceptions, ClipboardMonitorOptions options = {});
  ~ClipboardMonitor();
  ClipboardMonitor(const ClipboardMonitor&) = delete;
  ClipboardMonitor& operator=(const ClipboardMonitor&) = delete;

  void start() { running_ = true; }
  void stop() { running_ = false; }
  bool isRunning() const { return running_; }
  // One poll; does nothing but compare the change count unless the pasteboard changed. Also
  // applies share-link resolutions that finished since the last call. Nothing while stopped.
  void tick();
  // Applies finished share-link resolutions (tick() does this too).
  void runFinishedWork();
  // Processes the current contents whatever isEnabled and the change counts say.
  void cleanNow();

  bool hasPendingShareLinkResolution() const;
  void resolvePendingShareLink();
  // Puts the original of the last clean back; false (and nothing changes) without one.
  bool restoreLastOriginal();
  // Switches cleaning off for the host of the last clean and returns it.
  std::optional<std::string> disableLastDomain();
  void clearLastCommandRisk();
  // Puts `text` on the clipboard as the monitor's own write, which is not processed (a report the
  // user asked to copy, for example).
  void copyText(const std::string& text);
  void recordFunctionalTransformation(const CleanOperation& operation);
  void reloadCommandGuard(CommandGuard commandGuard);
  // Rereads the four settings and the notification switches (another process may have changed
  // them).
  void reloadSettings();

  bool isEnabled() const { return isEnabled_; }
  void setEnabled(bool enabled) { isEnabled_ = enabled; }
  const std::optional<CleanResult>& lastCleanedResult() const { return lastCleanedResult_; }
  const std::optional<std::string>& lastSkippedDomain() const { return lastSkippedDomain_; }
  const std::optional<CommandRiskResult>& lastCommandRisk() const { return lastCommandRisk_; }
  std::int64_t cleanedCountToday() const { return cleanedCountToday_; }
  bool isCommandGuardEnabled() const { return isCommandGuardEnabled_; }
  CommandRiskSeverity commandGuardThreshold() const { return commandGuardThreshold_; }
  bool shouldNeutralizeRiskyCommands() const { return shouldNeutralizeRiskyCommands_; }
  bool automaticShareLinkResolutionEnabled() const { return automaticShareLinkResolution_; }
  bool isResolvingShareLink() const { return isResolvingShareLink_; }
  const std::optional<std::string>& shareLinkResolutionError() const {
    return shareLinkResolutionError_;
  }
  // Each setter stores the setting at once.
  void setCommandGuardEnabled(bool enabled);
  void setCommandGuardThreshold(CommandRiskSeverity threshold);
  void setShouldNeutralizeRiskyCommands(bool neutralize);
  void setAutomaticShareLinkResolutionEnabled(bool enabled);

  // "cleanedCount_" + the local date as "yyyy-MM-dd".
  static std::string cleanedCountKey(std::chrono::system_clock::time_point time);

 private:
  struct TextBlockState {
    std::string text;
    std::vector<TextLink> links;
    std::vector<std::optional<CleanResult>> results;
    std::string output;
  };
  struct Recovery {
    std::string url;   // the original link of the last clean
    std::string text;  // the whole text it was copied in
  };

  std::optional<std::string> readPasteboardText() const;
  bool commandGuardStep(const std::string& text);
  void linkStep(const std::string& text);
  void singleLinkStep(const std::string& text);
  void multiLinkStep(const std::string& text, std::vector<TextLink> links);
  void resolveBlockShareLinks(const std::vector<std::size_t>& indices);
  void writePasteboard(const std::string& text);
  void recordClean(const CleanResult& result, bool notify = true);
  void publishLastCleanedResult(const CleanResult& result);
  void removeStoredRisk();
  void postToLoop(std::function<void()> apply);
  void runInBackground(std::function<void()> work);

  URLCleaner& urlCleaner_;
  ClipboardStatsHooks stats_;
  NotificationManager& notifications_;
  CommandGuard commandGuard_;
  std::shared_ptr<PreferenceStore> defaults_;
  std::shared_ptr<Pasteboard> pasteboard_;
  LastCleanRecorder& recorder_;
  DomainExceptionStore& exceptions_;
  ClipboardMonitorOptions options_;

  bool running_ = false;
  bool isEnabled_ = true;
  std::optional<CleanResult> lastCleanedResult_;
  std::optional<std::string> lastSkippedDomain_;
  std::optional<CommandRiskResult> lastCommandRisk_;
  std::int64_t cleanedCountToday_ = 0;
  bool isCommandGuardEnabled_ = true;
  CommandRiskSeverity commandGuardThreshold_ = CommandRiskSeverity::warning;
  bool shouldNeutralizeRiskyCommands_ = false;
  bool automaticShareLinkResolution_ = false;
  bool isResolvingShareLink_ = false;
  std::optional<std::string> shareLinkResolutionError_;

  std::int64_t lastChangeCount_ = 0;
  std::int64_t ownWriteChangeCount_ = -1;
  std::optional<Recovery> clipboardRecovery_;
  std::optional<TextBlockState> textBlockState_;

  std::mutex finishedMutex_;
  std::vector<std::function<void()>> finished_;
  std::vector<std::thread> workers_;
};

}  // namespace linkwash
