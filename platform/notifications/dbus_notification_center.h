// Desktop notifications over org.freedesktop.Notifications on the session bus (sd-bus).
// Notifications are sent without waiting for an answer, so a slow or missing notification
// service never holds up the caller; failures are silent.
#pragma once

#include <memory>
#include <mutex>

#include "platform/notifications/notification_center.h"

struct sd_bus;

namespace linkwash {

class DBusNotificationCenter final : public NotificationCenter {
 public:
  // Connects to the session bus; without one, every call does nothing.
  DBusNotificationCenter();
  ~DBusNotificationCenter() override;
  DBusNotificationCenter(const DBusNotificationCenter&) = delete;
  DBusNotificationCenter& operator=(const DBusNotificationCenter&) = delete;

  // True when a notification service answers (starting it if the bus can).
  bool requestAuthorization() override;
  void post(const UserNotification& notification) override;

 private:
  std::mutex mutex_;
  sd_bus* bus_ = nullptr;
};

}  // namespace linkwash
