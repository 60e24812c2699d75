// org.freedesktop.Notifications client.
#include "platform/notifications/dbus_notification_center.h"

#include <systemd/sd-bus.h>

namespace linkwash {
namespace {

constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kPath = "/org/freedesktop/Notifications";
constexpr const char* kInterface = "org.freedesktop.Notifications";
constexpr std::uint64_t kAuthorizationTimeoutMicroseconds = 2'000'000;

}  // namespace

DBusNotificationCenter::DBusNotificationCenter() {
  if (sd_bus_open_user(&bus_) < 0) bus_ = nullptr;
}

DBusNotificationCenter::~DBusNotificationCenter() {
  if (bus_ != nullptr) sd_bus_flush_close_unref(bus_);
}

bool DBusNotificationCenter::requestAuthorization() {
  std::lock_guard lock(mutex_);
  if (bus_ == nullptr) return false;
  sd_bus_message* request = nullptr;
  sd_bus_message* reply = nullptr;
  sd_bus_error error = SD_BUS_ERROR_NULL;
  bool ok = sd_bus_message_new_method_call(bus_, &request, kService, kPath, kInterface,
                                           "GetCapabilities") >= 0 &&
            sd_bus_call(bus_, request, kAuthorizationTimeoutMicroseconds, &error, &reply) >= 0;
  sd_bus_error_free(&error);
  sd_bus_message_unref(reply);
  sd_bus_message_unref(request);
  return ok;
}

void DBusNotificationCenter::post(const UserNotification& notification) {
  std::lock_guard lock(mutex_);
  if (bus_ == nullptr) return;
  sd_bus_message* message = nullptr;
  // app name, replaces id, icon, summary, body, actions, hints, timeout (-1: the server's).
  bool built =
      sd_bus_message_new_method_call(bus_, &message, kService, kPath, kInterface, "Notify") >= 0 &&
      sd_bus_message_append(message, "susss", "Linkwash", 0u, "", notification.title.c_str(),
                            notification.body.c_str()) >= 0 &&
      sd_bus_message_append(message, "as", 0) >= 0 &&
      sd_bus_message_append(message, "a{sv}", 0) >= 0 &&
      sd_bus_message_append(message, "i", -1) >= 0 &&
      sd_bus_message_set_expect_reply(message, 0) >= 0;
  if (built && sd_bus_send(bus_, message, nullptr) >= 0) sd_bus_flush(bus_);
  sd_bus_message_unref(message);
  // Nothing is read otherwise, so drop whatever the bus sent us (name-acquired signals).
  while (sd_bus_process(bus_, nullptr) > 0) {
  }
}

}  // namespace linkwash
