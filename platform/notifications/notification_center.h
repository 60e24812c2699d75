// NotificationCenter: the desktop's user-notification service as the clipboard features see it.
// Posting is fire-and-forget: a refused permission or a failed delivery is silent.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace linkwash {

struct UserNotification {
  std::string identifier;  // fresh per notification (a UUID string)
  std::string title;
  std::string body;
  bool operator==(const UserNotification&) const = default;
};

class NotificationCenter {
 public:
  virtual ~NotificationCenter() = default;
  // Whether the service will show notifications; false when there is none.
  virtual bool requestAuthorization() = 0;
  // Shows the notification at once with the default sound. Never fails visibly.
  virtual void post(const UserNotification& notification) = 0;
};

// Keeps every posted notification, for tests and for embedders without a desktop.
class RecordingNotificationCenter final : public NotificationCenter {
 public:
  explicit RecordingNotificationCenter(bool authorized = true) : authorized_(authorized) {}
  bool requestAuthorization() override { return authorized_; }
  void post(const UserNotification& notification) override {
    std::lock_guard lock(mutex_);
    posted_.push_back(notification);
  }
  std::vector<UserNotification> posted() const {
    std::lock_guard lock(mutex_);
    return posted_;
  }

 private:
  bool authorized_;
  mutable std::mutex mutex_;
  std::vector<UserNotification> posted_;
};

// A random version-4 UUID in upper-case hex ("E621E1F8-C36C-495A-93FC-0C247A3E6E5F").
std::string makeNotificationIdentifier();

}  // namespace linkwash
