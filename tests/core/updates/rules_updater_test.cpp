// The rules updater against a real HTTPS server serving releases signed with a test key: check,
// install and engine reload, refusal of older releases, the failure texts of a misbehaving
// server, fallback from a tampered store, automatic updates, the schedule and legacy migration.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <memory>
#include <vector>

#include "core/rules/rules_engine.h"
#include "core/signing/signature_verification.h"
#include "core/updates/rules_updater.h"
#include "platform/fs/files.h"
#include "platform/fs/paths.h"
#include "platform/prefs/preference_store.h"
#include "tests/core/updates/release_fixture.h"
#include "tests/support/https_test_server.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

namespace fs = std::filesystem;
using testing::kFloor;
using testing::version;
using Kind = RulesUpdateStatus::Kind;
using std::chrono::seconds;
using testing::HttpsRoute;

const Timestamp kNow = *parseISO8601("2027-03-14T15:05:00Z");
const std::string kFeedRejected = "Invalid rules manifest: " + std::string(kSignedRuleFeedRejected);

// A parameter that only release `release` strips.
std::string parameter(int release) { return "lwonly" + std::to_string(release); }

bool strips(const RulesEngine& engine, int release) {
  const std::string name = parameter(release);
  for (const CompiledProvider* provider :
       engine.matchingProviders("https://a.example/?" + name + "=1")) {
    if (engine.shouldStripParam(name, *provider)) return true;
  }
  return false;
}

class RulesUpdaterTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server_.ok()) << server_.error(); }

  // Serves release `release` (stripping parameter(release)) as the current stable one.
  SignedRuleFeed::Record publish(int release) {
    auto record = signer_.record(version(release), testing::providerFile("r", parameter(release)));
    const std::string dir = "/linkwash/rules/" + version(release) + "/";
    EXPECT_TRUE(server_.putFile("/linkwash/rules/manifest.json", record.proof.manifest));
    EXPECT_TRUE(server_.putFile("/linkwash/rules/manifest.sig", record.proof.signature));
    EXPECT_TRUE(server_.putFile(dir + "data.min.json", record.clear));
    EXPECT_TRUE(server_.putFile(dir + "linkwash-supplementary.json", record.supplementary));
    return record;
  }

  std::unique_ptr<RulesUpdater> makeUpdater(RulesEngine& engine, fs::path root = {}) {
    RulesUpdater::Options options;
    options.root = root.empty() ? rulesRoot() : std::move(root);
    options.trust = signer_.trust();
    options.shippedManifest = signer_.manifest(std::string(kFloor), "{}", "{}").encode();
    options.clock = [] { return kNow; };
    return std::make_unique<RulesUpdater>(engine, defaults_, std::move(options));
  }

  // Publishes `release`, then checks and installs it; fails the test unless that works.
  void installRelease(RulesUpdater& updater, int release) {
    publish(release);
    updater.checkForUpdates();
    ASSERT_EQ(updater.updateStatus().kind, Kind::updateAvailable)
        << updater.updateStatus().displayText();
    updater.installAvailableUpdate();
    ASSERT_EQ(updater.updateStatus().kind, Kind::installed) << updater.updateStatus().displayText();
  }

  fs::path rulesRoot() const { return home_.path() / "rules"; }
  std::string stateBytes() const {
    return files::readFile(rulesRoot() / SignedRuleFeed::kStateFileName).value_or("");
  }

  testing::TempHome home_;
  std::shared_ptr<PreferenceStore> defaults_ = PreferenceStore::standard();
  RulesEngine engine_{PreferenceStore::standard()};
  testing::HttpsTestServer server_;
  testing::ReleaseSigner signer_;
};

TEST_F(RulesUpdaterTest, CheckFindsANewerReleaseAndInstallLoadsItIntoTheEngine) {
  auto updater = makeUpdater(engine_);
  EXPECT_EQ(updater->loadPreferringAppSupport(), std::nullopt);
  std::vector<Kind> seen;
  updater->setStatusObserver([&](const RulesUpdateStatus& status) { seen.push_back(status.kind); });

  publish(1);
  updater->checkForUpdates();
  EXPECT_EQ(updater->updateStatus().displayText(), "Rules update available: 2027.01.01.1");
  EXPECT_FALSE(strips(engine_, 1)) << "a check alone changes no rules";
  updater->installAvailableUpdate();
  EXPECT_EQ(updater->updateStatus().displayText(),
            "Installed rules 2027.01.01.1 at " + formatDisplayDate(kNow));
  EXPECT_EQ(seen,
            (std::vector<Kind>{Kind::checkingManifest, Kind::updateAvailable, Kind::downloading,
                               Kind::validating, Kind::installing, Kind::installed}));
  EXPECT_TRUE(strips(engine_, 1));
  EXPECT_EQ(updater->installedVersion(), version(1));
  EXPECT_EQ(updater->lastUpdateDate(), kNow);
  std::vector<std::string> paths;
  for (const auto& request : server_.requests()) paths.push_back(request.path);
  EXPECT_EQ(paths, (std::vector<std::string>{
                       "/linkwash/rules/manifest.json", "/linkwash/rules/manifest.sig",
                       "/linkwash/rules/2027.01.01.1/data.min.json",
                       "/linkwash/rules/2027.01.01.1/linkwash-supplementary.json"}));
}

TEST_F(RulesUpdaterTest, OlderReleasesAreNeverInstalledAndATamperedOneFallsBack) {
  auto updater = makeUpdater(engine_);
  installRelease(*updater, 1);
  installRelease(*updater, 2);
  publish(1);
  updater->checkForUpdates();
  EXPECT_EQ(updater->updateStatus().displayText(), "Rules are up to date: 2027.01.01.2");
  EXPECT_FALSE(updater->availableManifest());

  // A release found by a check loses to a newer one another program installed meanwhile.
  publish(3);
  updater->checkForUpdates();
  ASSERT_EQ(updater->updateStatus().kind, Kind::updateAvailable);
  ASSERT_TRUE(SignedRuleFeed::Store(rulesRoot(), signer_.trust())
                  .install(signer_.record(version(4)), kFloor));
  const std::string before = stateBytes();
  updater->installAvailableUpdate();
  EXPECT_EQ(updater->updateStatus().displayText(), kFeedRejected);
  EXPECT_EQ(stateBytes(), before);
  EXPECT_TRUE(strips(engine_, 2));
  EXPECT_FALSE(strips(engine_, 3));

  // A tampered active release: a program starting later uses the previous one.
  auto state = *SignedRuleFeed::State::decode(before);
  state.active.proof.manifest.back() = ' ';
  ASSERT_TRUE(
      files::writeFileAtomically(rulesRoot() / SignedRuleFeed::kStateFileName, state.encode()));
  RulesEngine restarted(PreferenceStore::standard());
  auto later = makeUpdater(restarted);
  EXPECT_EQ(later->loadPreferringAppSupport(), version(2));
  EXPECT_EQ(later->verifiedInstalledVersion(), version(2));
  EXPECT_TRUE(strips(restarted, 2));
}

TEST_F(RulesUpdaterTest, AFailedCheckOrInstallSaysWhyAndKeepsTheRulesInUse) {
  auto updater = makeUpdater(engine_);
  installRelease(*updater, 1);
  const auto record = publish(2);
  const std::string before = stateBytes();
  const std::string manifest = "/linkwash/rules/manifest.json";
  const std::string signature = "/linkwash/rules/manifest.sig";
  const std::string dir = "/linkwash/rules/" + version(2) + "/";
  const std::string checkFailed = "Could not check for rule updates: ";
  testing::ReleaseSigner stranger;
  stranger.key = testing::seededKey(7);
  std::string alteredClear = record.clear;
  alteredClear[alteredClear.size() / 2] ^= 0x01;
  // Transport failures in general are the HTTP client's tests; these are the updater's answers.
  const std::vector<std::tuple<std::string, HttpsRoute, std::string>> cases = {
      {manifest, HttpsRoute().withStatus(304), checkFailed + "HTTP 304"},
      {manifest, HttpsRoute().withRedirect("/linkwash/rules/beta/manifest.json"),
       checkFailed + "HTTP 302"},
      {manifest, HttpsRoute().withStatus(200), checkFailed + "empty manifest"},
      {signature, HttpsRoute().withBody(stranger.signBytes(record.proof.manifest).signature),
       kFeedRejected},
      {dir + "data.min.json", HttpsRoute().withBody(record.clear + " "),
       "Download failed: Unexpected byte count for data.min.json"},
      {dir + "data.min.json", HttpsRoute().withBody(alteredClear),
       "Downloaded rules failed integrity check: data.min.json."},
  };
  for (const auto& [path, route, expected] : cases) {
    updater->checkForUpdates();
    ASSERT_TRUE(updater->availableManifest());
    server_.setRoute(path, route);
    const bool checking = path == manifest || path == signature;
    checking ? updater->checkForUpdates() : updater->installAvailableUpdate();
    EXPECT_EQ(updater->updateStatus().displayText(), expected);
    // A failed check offers nothing; a failed install keeps the checked release for a retry.
    EXPECT_EQ(updater->availableManifest().has_value(), !checking) << expected;
    EXPECT_EQ(stateBytes(), before) << expected;
    EXPECT_TRUE(strips(engine_, 1) && !strips(engine_, 2)) << expected;
    server_.removeRoute(path);
  }
  for (const auto& request : server_.requests()) {
    EXPECT_NE(request.path, "/linkwash/rules/beta/manifest.json") << "a redirect was followed";
  }
  updater->installAvailableUpdate();
  EXPECT_EQ(updater->updateStatus().kind, Kind::installed) << updater->updateStatus().displayText();
  EXPECT_TRUE(strips(engine_, 2));
}

TEST_F(RulesUpdaterTest, AutomaticUpdatesRunOnlyWhenDue) {
  auto updater = makeUpdater(engine_);
  publish(1);
  // Unknown stored values read as the defaults: no automatic updates, the stable channel.
  defaults_->set(RulesUpdater::kAutomaticUpdateCadenceKey, PreferenceValue{std::string("hourly")});
  defaults_->set(RulesUpdater::kSelectedChannelKey, PreferenceValue{std::string("nightly")});
  EXPECT_EQ(updater->selectedChannel(), RuleUpdateChannel::stable);
  EXPECT_EQ(updater->performAutomaticUpdateIfDueNow(kNow), AutomaticRuleUpdateResult::notDue);
  EXPECT_TRUE(server_.requests().empty());

  updater->setAutomaticUpdateCadence(RuleUpdateCadence::daily);
  EXPECT_EQ(defaults_->stringForKey("rulesUpdater_automaticUpdateCadence"), "daily");
  EXPECT_EQ(updater->performAutomaticUpdateIfDueNow(kNow), AutomaticRuleUpdateResult::succeeded);
  EXPECT_EQ(updater->installedVersion(), version(1));
  EXPECT_EQ(updater->performAutomaticUpdateIfDueNow(kNow + seconds(86399)),
            AutomaticRuleUpdateResult::notDue);
  EXPECT_EQ(updater->performAutomaticUpdateIfDueNow(kNow + seconds(86400)),
            AutomaticRuleUpdateResult::succeeded);
  EXPECT_EQ(updater->updateStatus().kind, Kind::upToDate);

  server_.setRoute("/linkwash/rules/manifest.json", HttpsRoute().withStatus(503));
  const auto failed = updater->performAutomaticUpdateIfDueNow(kNow + seconds(2 * 86400));
  EXPECT_FALSE(backgroundTaskSucceeded(failed));
  EXPECT_EQ(updater->lastAutomaticCheckDate(), kNow + seconds(2 * 86400));
}

TEST_F(RulesUpdaterTest, LegacyRulesFileIsMovedIntoPlaceOrLeftWhenItCannotBe) {
  const fs::path legacy = paths::applicationSupport() / "com.brisel.linkwash" / "data.min.json";
  ASSERT_TRUE(files::writeFileAtomically(legacy, "legacy rules"));
  makeUpdater(engine_)->loadPreferringAppSupport();
  EXPECT_EQ(files::readFile(rulesRoot() / "active" / "data.min.json"), "legacy rules");
  EXPECT_FALSE(fs::exists(legacy));

  // A root whose "active" is a file cannot take it: the file stays and the start carries on.
  ASSERT_TRUE(files::writeFileAtomically(legacy, "legacy rules"));
  ASSERT_TRUE(files::writeFileAtomically(home_.path() / "blocked" / "active", "not a folder"));
  EXPECT_EQ(makeUpdater(engine_, home_.path() / "blocked")->loadPreferringAppSupport(),
            std::nullopt);
  EXPECT_TRUE(fs::exists(legacy));
}

TEST(RuleUpdateScheduleTest, DueRuleAndBeginDate) {
  using C = RuleUpdateCadence;
  const std::tuple<C, std::optional<long>, std::optional<long>> cases[] = {
      // The cadence, the last check's seconds before now, the next check's seconds after now.
      {C::never, 10 * 86400L, std::nullopt},
      {C::daily, std::nullopt, 0},
      {C::daily, 86399, 1},
      {C::daily, -3600, 86400 + 3600},  // a last check "in the future": the clock went back
      {C::weekly, 604799, 1},
      {C::weekly, 604800, 0},
      {C::monthly, 2591999, 1},
      {C::monthly, 2592000, 0},
  };
  for (const auto& [cadence, ago, beginIn] : cases) {
    SCOPED_TRACE(std::string(rawValue(cadence)) + " " + std::to_string(ago.value_or(-1)));
    const auto last = ago ? std::optional(kNow - seconds(*ago)) : std::nullopt;
    EXPECT_EQ(isDue(cadence, last, kNow), beginIn == 0);
    EXPECT_EQ(RuleUpdateBackgroundSchedule::earliestBeginDate(cadence, last, kNow),
              beginIn ? std::optional(kNow + seconds(*beginIn)) : std::nullopt);
  }
}

TEST(RulesUpdateStatusTest, TheInstallDateIsShownInLocalTime) {
  std::optional<testing::ScopedEnvironment> tz(std::in_place, "TZ", "UTC");
  tzset();
  EXPECT_EQ(RulesUpdateStatus::installed("2026.03.14.2", *parseISO8601("2026-03-14T15:05:00Z"))
                .displayText(),
            "Installed rules 2026.03.14.2 at Mar 14, 2026 at 3:05 PM");
  tz.emplace("TZ", "America/New_York");
  tzset();
  EXPECT_EQ(formatDisplayDate(*parseISO8601("2026-01-02T00:09:00Z")), "Jan 1, 2026 at 7:09 PM");
  tz.reset();
  tzset();
}

}  // namespace
}  // namespace linkwash
