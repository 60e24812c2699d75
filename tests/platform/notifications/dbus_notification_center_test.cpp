// Desktop notifications against python3-dbusmock's notification daemon. The test runs inside
// its own bus (dbus-run-session, see CMakeLists.txt) and starts and stops the mock itself.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "platform/notifications/dbus_notification_center.h"
#include "tests/support/desktop_servers.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

std::string readAll(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

TEST(DBusNotificationCenterTest, PostsToTheServiceAndIsSilentWithoutOne) {
  ASSERT_TRUE(std::getenv("DBUS_SESSION_BUS_ADDRESS")) << "run under dbus-run-session";
  DBusNotificationCenter center;
  auto started = std::chrono::steady_clock::now();
  EXPECT_FALSE(center.requestAuthorization());
  center.post({"id-0", "URL Cleaned", "nobody listens"});
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(3));

  testing::TempHome home;
  auto log = home.path() / "mock.log";
  std::ofstream(home.path() / "empty");
  int mock = testing::startProgram(
      "/usr/bin/python3",
      {"-m", "dbusmock", "--template", "notification_daemon", "-l", log.string()},
      home.path() / "empty", home.path());
  ASSERT_GT(mock, 0);
  EXPECT_TRUE(
      testing::waitUntil([&] { return center.requestAuthorization(); }, std::chrono::seconds(10)));
  center.post({"id-1", "Risky command copied", "Downloads and runs a script."});
  EXPECT_TRUE(testing::waitUntil([&] { return readAll(log).find("Notify") != std::string::npos; }));
  testing::stopProcess(mock);
  std::string calls = readAll(log);
  EXPECT_NE(calls.find("\"Risky command copied\" \"Downloads and runs a script.\""),
            std::string::npos)
      << calls;
  EXPECT_EQ(calls.find("nobody listens"), std::string::npos);
}

}  // namespace
}  // namespace linkwash
