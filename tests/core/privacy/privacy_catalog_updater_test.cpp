// The catalog updater against a real HTTPS server (a throw-away CA on 127.0.0.1): the check and
// install steps with their status texts, and every way a download is refused while the installed
// catalog stays.
#include "core/privacy/privacy_catalog_updater.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/core/privacy/catalog_release.h"
#include "tests/support/https_test_server.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

using testing::catalogOf;
using testing::CatalogRelease;
using testing::HttpsRoute;
using testing::kGenerated;
using testing::nitterService;
using testing::releaseOf;
using testing::versionPath;
using Updater = PrivacyCatalogUpdater;

constexpr std::uint64_t kNow = kGenerated + 60;

PrivacyServicesCatalog catalogVersion(std::uint64_t version) {
  return catalogOf({nitterService("alpha"), nitterService("beta")}, version);
}

class PrivacyCatalogUpdaterTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server_.ok()) << server_.error(); }

  // A fresh updater over the same store, as a newly started process has.
  std::unique_ptr<Updater> makeUpdater() {
    auto updater = std::make_unique<Updater>(store_, nullptr, [] { return kNow; });
    updater->setOnChange([this, raw = updater.get()] { statuses_.push_back(raw->status()); });
    return updater;
  }

  bool publish(std::uint64_t version) {
    return testing::serve(server_, releaseOf(catalogVersion(version)), version);
  }

  std::optional<std::uint64_t> installedVersion() const {
    const auto current = store_.current();
    if (!current) return std::nullopt;
    return current->catalog().version;
  }

  testing::TempHome home_;
  testing::HttpsTestServer server_{{std::string(testing::kUpdatesHost)}};
  PrivacyCatalogStore store_{home_.path() / "PrivacyServices", testing::catalogKeyFile(),
                             std::string(testing::kUpdatesHost)};
  std::vector<std::string> statuses_;
};

TEST_F(PrivacyCatalogUpdaterTest, ChecksDownloadsAndVerifiesThenInstallsOnRequest) {
  ASSERT_TRUE(publish(1));
  auto updater = makeUpdater();
  EXPECT_EQ(updater->status(), "Not checked");
  EXPECT_FALSE(updater->installed());

  updater->check();
  EXPECT_EQ(updater->status(), "Verified version 1 ready to install");
  EXPECT_FALSE(installedVersion()) << "a check never installs";
  ASSERT_FALSE(statuses_.empty());
  EXPECT_EQ(statuses_.front(), "Checking signed catalog");

  const auto asked = server_.requests();
  ASSERT_EQ(asked.size(), 3u);
  EXPECT_EQ(asked[0].path, "/privacy-services/current.json");
  EXPECT_EQ(asked[1].path, versionPath(1, "json"));
  EXPECT_EQ(asked[2].path, versionPath(1, "sig"));

  updater->install();
  EXPECT_EQ(updater->status(), "Verified catalog installed");
  ASSERT_TRUE(updater->installed());
  EXPECT_EQ(updater->catalogInUse(), updater->installed());
  EXPECT_FALSE(updater->pending());
  EXPECT_EQ(installedVersion(), 1u);

  // Nothing newer: only the manifest is fetched.
  updater->check();
  EXPECT_EQ(updater->status(), "Verified catalog is up to date");
  EXPECT_EQ(server_.requests().size(), 4u);

  ASSERT_TRUE(publish(2));
  updater->check();
  EXPECT_EQ(updater->status(), "Verified version 2 ready to install");
  updater->install();
  EXPECT_EQ(installedVersion(), 2u);

  // A manifest naming an older catalog than the installed one is not newer: nothing is fetched
  // and nothing changes.
  ASSERT_TRUE(publish(1));
  auto later = makeUpdater();
  EXPECT_EQ(later->installed()->catalog().version, 2u);
  later->check();
  EXPECT_EQ(later->status(), "Verified catalog is up to date");
  EXPECT_EQ(installedVersion(), 2u);
}

TEST_F(PrivacyCatalogUpdaterTest, RefusesEveryBrokenDownloadAndKeepsTheInstalledCatalog) {
  ASSERT_TRUE(publish(1));
  auto first = makeUpdater();
  first->check();
  first->install();
  ASSERT_EQ(installedVersion(), 1u);

  const CatalogRelease next = releaseOf(catalogVersion(2));
  std::string flipped = next.payload;
  flipped[flipped.size() / 2] ^= 0x01;
  const std::string moved = "/mirror/current.json";
  const std::string manifest = "/privacy-services/current.json";
  // Transport failures in general belong to the HTTP client's tests; these are the ones the
  // updater must turn into a refusal itself.
  const std::vector<std::pair<std::string, HttpsRoute>> cases = {
      {manifest,
       HttpsRoute().withStatus(302).withRedirect(server_.url(testing::kUpdatesHost, moved))},
      {manifest, HttpsRoute().withStatus(404)},
      {versionPath(2, "json"), HttpsRoute().withBody(flipped)},
      {versionPath(2, "sig"), HttpsRoute().withStatus(500)},
  };
  for (const auto& [path, route] : cases) {
    SCOPED_TRACE(path);
    ASSERT_TRUE(testing::serve(server_, next, 2));
    // The redirect target holds a valid manifest, so only the refusal to follow fails the check.
    ASSERT_TRUE(server_.putFile(moved, next.manifest));
    server_.setRoute(path, route);
    auto updater = makeUpdater();
    updater->check();
    EXPECT_EQ(updater->status(), "Update rejected or unavailable. Last verified catalog retained.");
    EXPECT_FALSE(updater->pending());
    updater->install();
    EXPECT_EQ(installedVersion(), 1u);
    for (const auto& request : server_.requests()) EXPECT_NE(request.path, moved);
    server_.removeRoute(path);
  }
  // The same files, served properly, install.
  auto updater = makeUpdater();
  updater->check();
  EXPECT_EQ(updater->availableVersion(), 2u);
  updater->install();
  EXPECT_EQ(updater->status(), "Verified catalog installed");
  EXPECT_EQ(installedVersion(), 2u);
}

TEST_F(PrivacyCatalogUpdaterTest, InstallFailsWhenAnotherProcessInstalledSomethingNewerMeanwhile) {
  ASSERT_TRUE(publish(2));
  auto updater = makeUpdater();
  updater->check();
  ASSERT_EQ(updater->availableVersion(), 2u);

  // Between check and install, another process installs version 3.
  const CatalogRelease newer = releaseOf(catalogVersion(3));
  ASSERT_TRUE(store_.install(newer.manifest, newer.payload, newer.signature, kNow));

  updater->install();
  EXPECT_EQ(updater->status(), "Install failed. Last verified catalog retained.");
  EXPECT_EQ(installedVersion(), 3u);
  EXPECT_EQ(updater->availableVersion(), 2u) << "the verified download stays pending";
  updater->reload();
  EXPECT_EQ(updater->installed()->catalog().version, 3u);
}

}  // namespace
}  // namespace linkwash
