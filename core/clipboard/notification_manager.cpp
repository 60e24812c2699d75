// Notification texts and switches.
#include "core/clipboard/notification_manager.h"

#include <algorithm>
#include <vector>

namespace linkwash {
namespace {

bool switchValue(const PreferenceStore& defaults, std::string_view key) {
  return !defaults.object(key).has_value() || defaults.boolForKey(key);
}

std::string lowered(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) {
    return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  });
  return out;
}

}  // namespace

NotificationManager::NotificationManager(std::shared_ptr<PreferenceStore> defaults,
                                         std::shared_ptr<NotificationCenter> center)
    : defaults_(std::move(defaults)), center_(std::move(center)) {
  reloadSettings();
}

void NotificationManager::reloadSettings() {
  isEnabled_ = switchValue(*defaults_, kEnabledKey);
  areCommandWarningsEnabled_ = switchValue(*defaults_, kCommandWarningsEnabledKey);
}

void NotificationManager::setEnabled(bool enabled) {
  isEnabled_ = enabled;
  defaults_->set(kEnabledKey, PreferenceValue{enabled});
}

void NotificationManager::setCommandWarningsEnabled(bool enabled) {
  areCommandWarningsEnabled_ = enabled;
  defaults_->set(kCommandWarningsEnabledKey, PreferenceValue{enabled});
}

void NotificationManager::requestPermission() {
  authorized_ = center_ && center_->requestAuthorization();
}

void NotificationManager::sendCleanNotification(const CleanResult& result) {
  if (!isEnabled_ || !center_) return;
  center_->post({makeNotificationIdentifier(), std::string(kCleanTitle), notificationBody(result)});
}

void NotificationManager::sendCommandWarningNotification(const CommandRiskResult& result,
                                                         bool neutralized) {
  if (!areCommandWarningsEnabled_ || !center_) return;
  center_->post({makeNotificationIdentifier(),
                 std::string(neutralized ? kNeutralizedTitle : kCopiedTitle),
                 commandWarningBody(result, neutralized)});
}

std::string NotificationManager::notificationBody(const CleanResult& result) {
  std::vector<std::string> pieces;
  if (result.privacyRedirect) {
    pieces.push_back("Rewritten for privacy: " + result.privacyRedirect->frontendHost);
  }
  const auto& removed = result.removedQueryParameters;
  if (!removed.empty()) {
    std::string piece = "Removed " + std::to_string(removed.size()) +
                        (removed.size() == 1 ? " tracker: " : " trackers: ") + removed[0];
    if (removed.size() >= 2) piece += ", " + removed[1];
    if (removed.size() > 2) piece += ", +" + std::to_string(removed.size() - 2) + " more";
    pieces.push_back(std::move(piece));
  }
  for (const auto& operation : result.operations) {
    if (operation.kind != CleanOperationKind::networkResolution) continue;
    std::string host = lowered(operation.contactedHost.value_or(""));
    if (host == kAmazonShortLinkHost) {
      pieces.emplace_back("Resolved direct Amazon product link");
    } else {
      if (host.starts_with("www.")) host.erase(0, 4);
      pieces.push_back(std::string("Resolved direct ") +
                       (host.starts_with("threads.") ? "Threads" : "Instagram") + " link");
    }
    break;
  }
  if (pieces.empty()) return "Link cleaned";
  std::string body = pieces.front();
  for (std::size_t i = 1; i < pieces.size(); ++i) body += "\n" + pieces[i];
  return body;
}

std::string NotificationManager::commandWarningBody(const CommandRiskResult& result,
                                                    bool neutralized) {
  const CommandRiskFinding* finding = result.primaryFinding();
  std::string body = finding ? finding->summary : std::string(kGenericWarningBody);
  if (neutralized) body += kNeutralizedSuffix;
  return body;
}

}  // namespace linkwash
