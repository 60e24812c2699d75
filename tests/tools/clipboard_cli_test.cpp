// `linkwash clipboard` without a display: settings, start-at-login files, and what happens when
// no daemon runs. The daemon itself is driven in tests/e2e.
#include <gtest/gtest.h>
#include <stdlib.h>

#include "platform/prefs/preference_store.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

namespace fs = std::filesystem;

testing::RunResult clipboard(const testing::TempHome& home, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "clipboard");
  return testing::runProgram(testing::binDir() / "linkwash", arguments, home.path());
}

TEST(ClipboardCliTest, SettingsAreStoredUnderTheirKeysAndCheckedFirst) {
  testing::TempHome home;
  struct Case {
    std::vector<std::string> args;
    int exitCode;
    std::string key;  // checked when the command succeeds
  };
  const std::vector<Case> cases = {
      {{"set", "guard", "off"}, 0, "commandGuard_enabled"},
      {{"set", "threshold", "danger"}, 0, "commandGuard_threshold"},
      {{"set", "neutralize", "on"}, 0, "commandGuard_neutralize"},
      {{"set", "resolve-share-links", "on"}, 0, "automaticShareLinkResolution_enabled"},
      {{"set", "notifications", "off"}, 0, "notifications_enabled"},
      {{"set", "command-warnings", "off"}, 0, "notifications_command_warnings_enabled"},
      {{"set", "threshold", "severe"}, 1, ""},
      {{"set", "guard", "yes"}, 1, ""},
      {{"set", "colour", "on"}, 1, ""},
  };
  for (const auto& c : cases) {
    auto run = clipboard(home, c.args);
    EXPECT_EQ(run.exitCode, c.exitCode) << c.args[1] << " " << c.args[2] << ": " << run.err;
  }
  auto store = PreferenceStore::standard();
  EXPECT_FALSE(store->boolForKey("commandGuard_enabled"));
  EXPECT_EQ(store->stringForKey("commandGuard_threshold"), "danger");
  EXPECT_TRUE(store->boolForKey("automaticShareLinkResolution_enabled"));
  EXPECT_FALSE(store->boolForKey("notifications_command_warnings_enabled"));

  for (const std::string command : {"status", "restore", "pause"}) {
    auto run = clipboard(home, {command});
    EXPECT_NE(run.exitCode, 0) << command;
    EXPECT_NE(run.err.find("no daemon running"), std::string::npos) << command;
  }
}

TEST(ClipboardCliTest, EnableInstallsTheUnitAndAutostartEntryAndDisableRemovesThem) {
  testing::TempHome home;
  setenv("XDG_CONFIG_HOME", (home.path() / "config").c_str(), 1);
  ASSERT_EQ(clipboard(home, {"enable"}).exitCode, 0);
  auto unit = home.path() / "config/systemd/user/linkwash-clipboard.service";
  auto wanted = home.path() /
                "config/systemd/user/graphical-session.target.wants/"
                "linkwash-clipboard.service";
  auto autostart = home.path() / "config/autostart/linkwash-clipboard.desktop";
  auto text = testing::readFixture(unit).value_or("");
  EXPECT_NE(text.find("ExecStart=" + (testing::binDir() / "linkwash").string() + " watch\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("WantedBy=graphical-session.target"), std::string::npos);
  EXPECT_EQ(fs::read_symlink(wanted), "../linkwash-clipboard.service");
  EXPECT_NE(testing::readFixture(autostart).value_or("").find("X-systemd-skip=true"),
            std::string::npos);

  ASSERT_EQ(clipboard(home, {"disable"}).exitCode, 0);
  EXPECT_FALSE(fs::exists(unit) || fs::is_symlink(wanted) || fs::exists(autostart));
  unsetenv("XDG_CONFIG_HOME");
}

}  // namespace
}  // namespace linkwash
