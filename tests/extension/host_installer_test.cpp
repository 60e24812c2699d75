// Registering linkwash-host with the browsers, and the store archives, on real files.
#include "extension/host_installer.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "platform/fs/files.h"
#include "platform/json/json_writer.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

namespace fs = std::filesystem;

const Browser& named(std::string_view name) { return *browsersNamed(name)->front(); }

TEST(HostInstallerTest, ManifestFoldersFollowEachBrowsersConvention) {
  testing::TempHome home;
  ::setenv("HOME", "/home/u", 1);
  ::setenv("XDG_CONFIG_HOME", "/home/u/.config", 1);
  struct Case {
    std::string_view browser;
    const char* userDataDir;  // none when null
    bool system;
    fs::path folder;
  };
  const Case cases[] = {
      {"chromium", nullptr, false, "/home/u/.config/chromium/NativeMessagingHosts"},
      {"brave", nullptr, false, "/home/u/.config/BraveSoftware/Brave-Browser/NativeMessagingHosts"},
      {"firefox", nullptr, false, "/home/u/.mozilla/native-messaging-hosts"},
      {"chromium", "/tmp/profile", false, "/tmp/profile/NativeMessagingHosts"},
      {"firefox", "/tmp/profile", false, "/tmp/profile/native-messaging-hosts"},
      {"chrome", nullptr, true, "/etc/opt/chrome/native-messaging-hosts"},
      {"firefox", nullptr, true, "/usr/lib/mozilla/native-messaging-hosts"},
  };
  for (const Case& c : cases) {
    ManifestPlace place;
    if (c.userDataDir != nullptr) place.userDataDir = c.userDataDir;
    place.system = c.system;
    EXPECT_EQ(manifestFolder(named(c.browser), place), c.folder) << c.browser;
  }
  EXPECT_EQ(browsersNamed("all")->size(), knownBrowsers().size());
  EXPECT_FALSE(browsersNamed("netscape"));
  ::unsetenv("XDG_CONFIG_HOME");
}

TEST(HostInstallerTest, InstallsInspectsAndRemovesEachFamilysManifest) {
  testing::TempHome home;
  const ManifestPlace place{home.path() / "profile", false};
  const fs::path host = testing::binDir() / "linkwash-host";
  for (std::string_view name : {"chromium", "firefox"}) {
    const Browser& browser = named(name);
    EXPECT_FALSE(inspectManifest(browser, place));
    EXPECT_FALSE(installManifest(browser, place, "relative/linkwash-host"));
    const auto file = installManifest(browser, place, host);
    ASSERT_TRUE(file) << file.error().message;

    const Json manifest = Json::parse(*files::readFile(*file));
    EXPECT_EQ(manifest["name"], "com.morvellabs.linkwash");
    EXPECT_EQ(manifest["path"], host.string());
    EXPECT_EQ(manifest["type"], "stdio");
    if (browser.firefox) {
      EXPECT_EQ(manifest["allowed_extensions"], Json::array({"linkwash@morvellabs.com"}));
    } else {
      EXPECT_EQ(manifest["allowed_origins"],
                Json::array({"chrome-extension://dldldimlamkgipjkanckoilidmncnoje/"}));
    }
    EXPECT_EQ(fs::status(*file).permissions() & fs::perms::others_read, fs::perms::others_read);
    const auto installed = inspectManifest(browser, place);
    ASSERT_TRUE(installed);
    EXPECT_TRUE(installed->allowsUs && installed->hostRuns);

    // Another program's manifest under our name, or ours pointing at a host that is gone.
    ASSERT_TRUE(files::writeFileAtomically(*file, R"({"path":"/nowhere","allowed_origins":[]})"));
    EXPECT_FALSE(inspectManifest(browser, place)->allowsUs);
    EXPECT_FALSE(inspectManifest(browser, place)->hostRuns);

    EXPECT_EQ(uninstallManifest(browser, place).value_or(false), true);
    EXPECT_EQ(uninstallManifest(browser, place).value_or(true), false);
  }
}

TEST(HostInstallerTest, PackWritesAnArchiveUnzipAcceptsWithoutTheKey) {
  testing::TempHome home;
  const fs::path extension = testing::sourceDir() / "browser/extension";
  const fs::path archive = home.path() / "out/linkwash.zip";
  ASSERT_TRUE(packExtension(extension, archive));
  const std::string unpacked = (home.path() / "unpacked").string();
  ASSERT_EQ(std::system(("unzip -qq -t '" + archive.string() + "' && unzip -qq '" +
                         archive.string() + "' -d '" + unpacked + "'")
                            .c_str()),
            0);
  Json expected = Json::parse(*files::readFile(extension / "manifest.json"));
  ASSERT_TRUE(expected.contains("key"));
  expected.erase("key");
  EXPECT_EQ(Json::parse(*files::readFile(fs::path(unpacked) / "manifest.json")), expected);
  EXPECT_EQ(files::readFile(fs::path(unpacked) / "icons/icon-16.png"),
            files::readFile(extension / "icons/icon-16.png"));
  EXPECT_FALSE(packExtension(home.path() / "missing", archive));
}

}  // namespace
}  // namespace linkwash
