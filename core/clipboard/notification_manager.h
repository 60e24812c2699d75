// NotificationManager: tells the user that a copied link was cleaned or that a risky terminal
// command was copied (and maybe neutralised). Each kind has its own switch, kept in the
// preferences so that a change by another process is picked up on reloadSettings().
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "core/cleaning/clean_result.h"
#include "core/clipboard/command_guard.h"
#include "platform/notifications/notification_center.h"
#include "platform/prefs/preference_store.h"

namespace linkwash {

class NotificationManager {
 public:
  static constexpr std::string_view kEnabledKey = "notifications_enabled";
  static constexpr std::string_view kCommandWarningsEnabledKey =
      "notifications_command_warnings_enabled";
  static constexpr std::string_view kCleanTitle = "URL Cleaned";
  static constexpr std::string_view kNeutralizedTitle = "Risky command neutralized";
  static constexpr std::string_view kCopiedTitle = "Risky command copied";
  static constexpr std::string_view kGenericWarningBody =
      "Linkwash found a risky terminal command pattern.";
  static constexpr std::string_view kNeutralizedSuffix = " Clipboard replaced with commented text.";
  static constexpr std::string_view kAmazonShortLinkHost = "a.co";

  // Both switches read from `defaults` (a missing key is on).
  NotificationManager(std::shared_ptr<PreferenceStore> defaults,
                      std::shared_ptr<NotificationCenter> center);

  bool isEnabled() const { return isEnabled_; }
  bool areCommandWarningsEnabled() const { return areCommandWarningsEnabled_; }
  bool authorized() const { return authorized_; }
  // Each setter stores the switch at once.
  void setEnabled(bool enabled);
  void setCommandWarningsEnabled(bool enabled);
  void reloadSettings();

  void requestPermission();
  void sendCleanNotification(const CleanResult& result);
  void sendCommandWarningNotification(const CommandRiskResult& result, bool neutralized);

  // The pieces that apply, joined by "\n": the privacy rewrite, the removed trackers, the network
  // resolution. "Link cleaned" when none applies.
  static std::string notificationBody(const CleanResult& result);
  static std::string commandWarningBody(const CommandRiskResult& result, bool neutralized);

 private:
  std::shared_ptr<PreferenceStore> defaults_;
  std::shared_ptr<NotificationCenter> center_;
  bool isEnabled_ = true;
  bool areCommandWarningsEnabled_ = true;
  bool authorized_ = false;
};

}  // namespace linkwash
