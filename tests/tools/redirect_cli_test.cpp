// `linkwash redirect` and `linkwash catalog` end to end: a catalog signed now with the test key is
// installed from files, the settings screen shows and changes what the browser host reads, and
// `linkwash clean` redirects with the installed catalog, falls back when it stops verifying, and
// keeps cleaning when no catalog is fresh.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "core/privacy/privacy_catalog_store.h"
#include "core/privacy/privacy_redirect_settings.h"
#include "platform/prefs/preference_store.h"
#include "tests/core/privacy/catalog_release.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

namespace fs = std::filesystem;
using testing::RunResult;
using Settings = PrivacyRedirectSettings;

constexpr const char* kStatusLink = "https://x.com/jack/status/123?utm_source=feed";

bool contains(const std::string& text, std::string_view part) {
  return text.find(part) != std::string::npos;
}

// Two instances reviewed a minute ago by the real clock, so the program, which runs on the real
// clock, finds them fresh.
PrivacyServicesCatalog freshCatalog(std::uint64_t version) {
  const std::uint64_t now = currentUnixSeconds();
  auto catalog = testing::catalogOf(
      {testing::nitterService("alpha"), testing::nitterService("beta")}, version);
  catalog.generated = now - 60;
  for (auto& service : catalog.services) service.reviewed = now - 60;
  return catalog;
}

class RedirectCliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto copy = testing::bundleTrustingTestKey(home_.path() / "resources");
    ASSERT_TRUE(copy);
    resources_.emplace("LINKWASH_RESOURCES", copy->string());
  }

  RunResult linkwash(const std::vector<std::string>& arguments) {
    return testing::runProgram(testing::binDir() / "linkwash", arguments, home_.path());
  }

  // Writes a release's three files and installs them with `linkwash catalog install-files`.
  RunResult installFiles(const testing::CatalogRelease& release) {
    const fs::path dir = home_.path() / "download";
    fs::create_directories(dir);
    std::ofstream(dir / "current.json", std::ios::binary | std::ios::trunc) << release.manifest;
    std::ofstream(dir / "privacy-services.json", std::ios::binary | std::ios::trunc)
        << release.payload;
    std::ofstream(dir / "privacy-services.sig", std::ios::binary | std::ios::trunc)
        << release.signature;
    return linkwash({"catalog", "install-files", (dir / "current.json").string(),
                     (dir / "privacy-services.json").string(),
                     (dir / "privacy-services.sig").string()});
  }

  testing::TempHome home_;
  std::optional<testing::ScopedEnvironment> resources_;
};

TEST_F(RedirectCliTest, CleansOntoTheInstalledCatalogsInstanceAndNeverSubstitutesAnother) {
  // Older settings name Nitter only through the legacy boolean in the app group's store.
  PreferenceStore::suite(PrivacyCatalogStore::kAppGroupIdentifier)
      ->set(Settings::kNitterEnabledKey, PreferenceValue{true});
  RunResult shown = linkwash({"redirect"});
  ASSERT_EQ(shown.exitCode, 0) << shown.err;
  EXPECT_TRUE(contains(shown.out, "(*) XCancel / Nitter / custom instance")) << shown.out;
  EXPECT_EQ(PreferenceStore::standard()->stringForKey(Settings::kXRedirectChoiceKey), "nitter");

  const RunResult installed = installFiles(testing::releaseOf(freshCatalog(1), updatesHost()));
  EXPECT_EQ(installed.exitCode, 0) << installed.err;
  EXPECT_EQ(installed.out, "Verified catalog installed\n");
  const RunResult status = linkwash({"catalog", "status"});
  EXPECT_TRUE(contains(status.out, "Catalog in use: installed version 1")) << status.out;
  EXPECT_TRUE(contains(status.out, "Services: 2 listed, 2 eligible now")) << status.out;

  EXPECT_EQ(linkwash({"redirect", "set-instance", "gamma"}).exitCode, 1) << "not in the catalog";
  shown = linkwash({"redirect", "set-instance", "beta"});
  ASSERT_EQ(shown.exitCode, 0) << shown.err;
  EXPECT_TRUE(contains(shown.out, "(*) beta")) << shown.out;
  EXPECT_TRUE(contains(shown.out,
                       "Selected instance: beta. Only supported public paths are "
                       "redirected. Availability is not checked."))
      << shown.out;

  EXPECT_EQ(linkwash({"clean", kStatusLink}).out, "https://beta.example/jack/status/123\n");
}

}  // namespace
}  // namespace linkwash
