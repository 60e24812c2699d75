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

  // Another catalog under the installed version is refused and the installed one stays.
  auto rewritten = freshCatalog(1);
  rewritten.services[1].destination = "https://elsewhere.example";
  const RunResult refused = installFiles(testing::releaseOf(rewritten, updatesHost()));
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_EQ(refused.out, "Install failed. Last verified catalog retained.\n");
  EXPECT_EQ(linkwash({"clean", kStatusLink}).out, "https://beta.example/jack/status/123\n");

  // A tampered store gives way to the shipped catalog, which does not list beta: the link is
  // only cleaned, and the screen keeps the selection on its own row.
  const fs::path stored = PrivacyCatalogStore::sharedRoot() / "installed.json";
  std::ofstream(stored, std::ios::binary | std::ios::trunc) << "{}";
  EXPECT_EQ(linkwash({"clean", kStatusLink}).out, "https://x.com/jack/status/123\n");
  shown = linkwash({"redirect"});
  EXPECT_TRUE(contains(shown.out, "(*) Selected instance unavailable")) << shown.out;
  EXPECT_TRUE(contains(linkwash({"catalog", "status"}).out, "Catalog in use: shipped"));
}

TEST_F(RedirectCliTest, WithoutAFreshCatalogRedirectsAreVisiblyOffAndCleaningGoesOn) {
  // The bundle's catalog is signed but generated tomorrow, so it is not fresh today.
  auto future = freshCatalog(1);
  future.generated = currentUnixSeconds() + 86400;
  const testing::CatalogRelease release = testing::releaseOf(future);
  const fs::path bundle = home_.path() / "resources" / "Linkwash_LinkwashCore.bundle";
  std::ofstream(bundle / "privacy-services.json", std::ios::binary | std::ios::trunc)
      << release.payload;
  std::ofstream(bundle / "privacy-services.sig", std::ios::binary | std::ios::trunc)
      << release.signature;

  ASSERT_EQ(linkwash({"redirect", "set-choice", "nitter"}).exitCode, 0);
  ASSERT_EQ(linkwash({"redirect", "automatic", "on"}).exitCode, 0);
  const RunResult shown = linkwash({"redirect"});
  EXPECT_TRUE(contains(shown.out, PrivacyServicesArchive::kUnavailable)) << shown.out;
  EXPECT_TRUE(contains(shown.out,
                       "No verified eligible instances. Redirects are unavailable; "
                       "ordinary tracker cleaning still works."))
      << shown.out;
  EXPECT_TRUE(contains(linkwash({"catalog", "status"}).out, "Review: out of date"));

  EXPECT_EQ(linkwash({"clean", kStatusLink}).out, "https://x.com/jack/status/123\n");
  // Redirects that need no catalog still work.
  ASSERT_EQ(linkwash({"redirect", "reddit", "on", "--frontend", "redlib.example/"}).exitCode, 0);
  EXPECT_EQ(linkwash({"clean", "https://old.reddit.com/r/linux"}).out,
            "https://redlib.example/r/linux\n");
  EXPECT_EQ(linkwash({"redirect", "reddit", "on", "--frontend", "https://a.example/?q"}).exitCode,
            1);
}

}  // namespace
}  // namespace linkwash
