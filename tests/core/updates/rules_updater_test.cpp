// The rules updater against a real HTTPS server serving releases signed with a test key: check,
// install and engine reload, refusal of older releases, the failure texts of a misbehaving
// server, fallback from a tampered store, automatic updates, the schedule and legacy migration.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <memory>
#include <vector>

#include "core/base/diagnostics.h"
#include "core/rules/rules_engine.h"
#include "core/updates/rules_updater.h"
#include "core/updates/signature_verification.h"
#include "platform/fs/files.h"
#include "platform/fs/paths.h"
#include "platform/prefs/preference_store.h"
#include "tests/core/updates/release_fixture.h"
#include "tests/support/https_test_server.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

namespace fs = std::filesystem;
using Kind = RulesUpdateStatus::Kind;
using std::chrono::seconds;

constexpr std::string_view kFloor = "2026.01.01.1";
const Timestamp kNow = *parseISO8601("2027-03-14T15:05:00Z");

std::string version(int release) { return "2027.01.01." + std::to_string(release); }
// A parameter that only release `release` strips.
std::string parameter(int release) { return "lwonly" + std::to_string(release); }

std::string feedRejected() {
  return "Invalid rules manifest: " + std::string(kSignedRuleFeedRejected);
}

bool strips(const RulesEngine& engine, const std::string& name) {
  for (const CompiledProvider* provider :
       engine.matchingProviders("https://a.example/?" + name + "=1")) {
    if (engine.shouldStripParam(name, *provider)) return true;
  }
  return false;
}

class RulesUpdaterTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server_.ok()) << server_.error(); }

  // Serves release `release` (stripping parameter(release)) as the channel's current one.
  SignedRuleFeed::Record publish(int release,
                                 RuleUpdateChannel channel = RuleUpdateChannel::stable) {
    auto record = signer_.record(version(release), testing::providerFile("r", parameter(release)));
    const std::string dir = "/linkwash/rules/" + version(release) + "/";
    EXPECT_TRUE(server_.putFile(manifestPath(channel), record.proof.manifest));
    EXPECT_TRUE(server_.putFile(signaturePath(channel), record.proof.signature));
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

  // Checks and installs whatever the server offers; fails the test unless that works.
  void checkAndInstall(RulesUpdater& updater) {
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

  std::vector<std::string> requestedPaths() const {
    std::vector<std::string> paths;
    for (const auto& request : server_.requests()) paths.push_back(request.path);
    return paths;
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
  EXPECT_EQ(updater->updateStatus().displayText(), "");
  EXPECT_FALSE(strips(engine_, parameter(1)));
  std::vector<Kind> seen;
  updater->setStatusObserver([&](const RulesUpdateStatus& status) { seen.push_back(status.kind); });

  publish(1);
  updater->checkForUpdates();
  EXPECT_EQ(updater->updateStatus().displayText(), "Rules update available: 2027.01.01.1");
  ASSERT_TRUE(updater->availableManifest());
  EXPECT_EQ(updater->availableManifest()->currentVersion, version(1));
  EXPECT_FALSE(strips(engine_, parameter(1))) << "a check alone changes no rules";

  updater->installAvailableUpdate();
  EXPECT_EQ(updater->updateStatus().displayText(),
            "Installed rules 2027.01.01.1 at " + formatDisplayDate(kNow));
  EXPECT_EQ(seen,
            (std::vector<Kind>{Kind::checkingManifest, Kind::updateAvailable, Kind::downloading,
                               Kind::validating, Kind::installing, Kind::installed}));
  EXPECT_TRUE(strips(engine_, parameter(1)));
  EXPECT_EQ(updater->installedVersion(), version(1));
  EXPECT_EQ(updater->lastUpdateDate(), kNow);
  EXPECT_FALSE(updater->availableManifest());
  EXPECT_EQ(requestedPaths(), (std::vector<std::string>{
                                  "/linkwash/rules/manifest.json", "/linkwash/rules/manifest.sig",
                                  "/linkwash/rules/2027.01.01.1/data.min.json",
                                  "/linkwash/rules/2027.01.01.1/linkwash-supplementary.json"}));

  // Another program starting later loads the same release.
  RulesEngine other(PreferenceStore::standard());
  EXPECT_EQ(makeUpdater(other)->loadPreferringAppSupport(), version(1));
  EXPECT_TRUE(strips(other, parameter(1)));

  updater->checkForUpdates();
  EXPECT_EQ(updater->updateStatus().displayText(), "Rules are up to date: 2027.01.01.1");
}

TEST_F(RulesUpdaterTest, ChannelAndCadenceAreStoredSettings) {
  auto updater = makeUpdater(engine_);
  EXPECT_EQ(updater->selectedChannel(), RuleUpdateChannel::stable);
  EXPECT_EQ(updater->automaticUpdateCadence(), RuleUpdateCadence::never);
  defaults_->set(RulesUpdater::kAutomaticUpdateCadenceKey, PreferenceValue{std::string("hourly")});
  defaults_->set(RulesUpdater::kSelectedChannelKey, PreferenceValue{std::string("nightly")});
  EXPECT_EQ(updater->automaticUpdateCadence(), RuleUpdateCadence::never);
  EXPECT_EQ(updater->selectedChannel(), RuleUpdateChannel::stable);

  updater->setSelectedChannel(RuleUpdateChannel::beta);
  updater->setAutomaticUpdateCadence(RuleUpdateCadence::weekly);
  EXPECT_EQ(defaults_->stringForKey("rulesUpdater_selectedChannel"), "beta");
  EXPECT_EQ(defaults_->stringForKey("rulesUpdater_automaticUpdateCadence"), "weekly");

  publish(1, RuleUpdateChannel::stable);
  publish(2, RuleUpdateChannel::beta);
  updater->checkForUpdates();
  EXPECT_EQ(updater->updateStatus().displayText(), "Rules update available: 2027.01.01.2");
}

TEST_F(RulesUpdaterTest, OlderReleasesAreNeverInstalled) {
  auto updater = makeUpdater(engine_);
  publish(2);
  checkAndInstall(*updater);

  publish(1);
  updater->checkForUpdates();
  EXPECT_EQ(updater->updateStatus().displayText(), "Rules are up to date: 2027.01.01.2");
  EXPECT_FALSE(updater->availableManifest());

  // A release found by a check loses to a newer one another program installed meanwhile.
  publish(3);
  updater->checkForUpdates();
  ASSERT_EQ(updater->updateStatus().kind, Kind::updateAvailable);
  const SignedRuleFeed::Store store(rulesRoot(), signer_.trust());
  ASSERT_TRUE(store.install(signer_.record(version(4)), kFloor));
  const std::string before = stateBytes();
  updater->installAvailableUpdate();
  EXPECT_EQ(updater->updateStatus().displayText(), feedRejected());
  EXPECT_EQ(updater->installedVersion(), version(2));
  EXPECT_EQ(stateBytes(), before);
  EXPECT_TRUE(strips(engine_, parameter(2)));
  EXPECT_FALSE(strips(engine_, parameter(3)));
}

TEST_F(RulesUpdaterTest, AFailingCheckSaysWhyAndOffersNothing) {
  auto updater = makeUpdater(engine_);
  publish(1);
  const std::string manifest = "/linkwash/rules/manifest.json";
  const std::string signature = "/linkwash/rules/manifest.sig";
  const std::string prefix = "Could not check for rule updates: ";
  testing::ReleaseSigner stranger;
  stranger.key = testing::seededKey(7);
  const std::string foreignSignature =
      stranger.signBytes(*files::readFile(server_.root() / "linkwash/rules/manifest.json"))
          .signature;

  struct Case {
    std::string path;
    testing::HttpsRoute route;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {manifest, testing::HttpsRoute().withStatus(304), prefix + "HTTP 304"},
      {manifest, testing::HttpsRoute().withRedirect("/linkwash/rules/beta/manifest.json"),
       prefix + "HTTP 302"},
      {manifest, testing::HttpsRoute().withStatus(200), prefix + "empty manifest"},
      {manifest, testing::HttpsRoute().withStatus(500).withBody("oops"), prefix + "HTTP 500"},
      {signature, testing::HttpsRoute().withStatus(404), prefix + "HTTP 404"},
      {signature, testing::HttpsRoute().withBody(foreignSignature), feedRejected()},
  };
  updater->checkForUpdates();
  ASSERT_TRUE(updater->availableManifest());
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected);
    server_.setRoute(c.path, c.route);
    updater->checkForUpdates();
    EXPECT_EQ(updater->updateStatus().displayText(), c.expected);
    EXPECT_FALSE(updater->availableManifest());
    server_.removeRoute(c.path);
  }
  for (const auto& request : server_.requests()) {
    EXPECT_NE(request.path, "/linkwash/rules/beta/manifest.json") << "a redirect was followed";
  }
}

TEST_F(RulesUpdaterTest, AFailedInstallSaysWhyAndKeepsTheRulesInUse) {
  auto updater = makeUpdater(engine_);
  publish(1);
  checkAndInstall(*updater);
  const auto record = publish(2);
  updater->checkForUpdates();
  ASSERT_EQ(updater->updateStatus().kind, Kind::updateAvailable);
  const std::string before = stateBytes();

  const std::string dir = "/linkwash/rules/" + version(2) + "/";
  std::string alteredClear = record.clear;
  alteredClear[alteredClear.size() / 2] ^= 0x01;
  struct Case {
    std::string path;
    testing::HttpsRoute route;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {dir + "linkwash-supplementary.json",
       testing::HttpsRoute().withBody(record.supplementary.substr(1)),
       "Download failed: Unexpected byte count for linkwash-supplementary.json"},
      {dir + "data.min.json", testing::HttpsRoute().withBody(record.clear + " "),
       "Download failed: Unexpected byte count for data.min.json"},
      {dir + "data.min.json", testing::HttpsRoute().withRedirect(dir + "elsewhere.json"),
       "Download failed: HTTP 302"},
      {dir + "data.min.json", testing::HttpsRoute().withBody(alteredClear),
       "Downloaded rules failed integrity check: data.min.json."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected);
    server_.setRoute(c.path, c.route);
    updater->installAvailableUpdate();
    EXPECT_EQ(updater->updateStatus().displayText(), c.expected);
    EXPECT_EQ(updater->installedVersion(), version(1));
    EXPECT_EQ(stateBytes(), before);
    EXPECT_TRUE(strips(engine_, parameter(1)));
    EXPECT_FALSE(strips(engine_, parameter(2)));
    server_.removeRoute(c.path);
  }

  // The checked release is kept, so a retry against a healthy server succeeds.
  updater->installAvailableUpdate();
  EXPECT_EQ(updater->updateStatus().kind, Kind::installed) << updater->updateStatus().displayText();
  EXPECT_TRUE(strips(engine_, parameter(2)));
}

TEST_F(RulesUpdaterTest, ATamperedActiveReleaseFallsBackToThePreviousOne) {
  auto updater = makeUpdater(engine_);
  publish(1);
  checkAndInstall(*updater);
  publish(2);
  checkAndInstall(*updater);

  auto state = SignedRuleFeed::State::decode(stateBytes());
  ASSERT_TRUE(state);
  state->active.clear.back() ^= 0x20;
  ASSERT_TRUE(
      files::writeFileAtomically(rulesRoot() / SignedRuleFeed::kStateFileName, state->encode()));

  RulesEngine restarted(PreferenceStore::standard());
  auto later = makeUpdater(restarted);
  EXPECT_EQ(later->loadPreferringAppSupport(), version(1));
  EXPECT_EQ(later->installedVersion(), version(1));
  EXPECT_EQ(later->verifiedInstalledVersion(), version(1));
  EXPECT_TRUE(strips(restarted, parameter(1)));
  EXPECT_FALSE(strips(restarted, parameter(2)));
}

TEST_F(RulesUpdaterTest, AutomaticUpdatesRunOnlyWhenDue) {
  auto updater = makeUpdater(engine_);
  publish(1);
  EXPECT_EQ(updater->performAutomaticUpdateIfDueNow(kNow), AutomaticRuleUpdateResult::notDue);
  EXPECT_TRUE(server_.requests().empty());
  EXPECT_FALSE(updater->lastAutomaticCheckDate());

  updater->setAutomaticUpdateCadence(RuleUpdateCadence::daily);
  EXPECT_EQ(updater->performAutomaticUpdateIfDueNow(kNow), AutomaticRuleUpdateResult::succeeded);
  EXPECT_EQ(updater->updateStatus().kind, Kind::installed);
  EXPECT_EQ(updater->installedVersion(), version(1));
  EXPECT_EQ(updater->lastAutomaticCheckDate(), kNow);

  EXPECT_EQ(updater->performAutomaticUpdateIfDueNow(kNow + seconds(86399)),
            AutomaticRuleUpdateResult::notDue);
  EXPECT_EQ(updater->performAutomaticUpdateIfDueNow(kNow + seconds(86400)),
            AutomaticRuleUpdateResult::succeeded);
  EXPECT_EQ(updater->updateStatus().kind, Kind::upToDate);

  server_.setRoute("/linkwash/rules/manifest.json", testing::HttpsRoute().withStatus(503));
  const auto failed = updater->performAutomaticUpdateIfDueNow(kNow + seconds(2 * 86400));
  EXPECT_EQ(failed, AutomaticRuleUpdateResult::failed);
  EXPECT_FALSE(backgroundTaskSucceeded(failed));
  EXPECT_EQ(updater->lastAutomaticCheckDate(), kNow + seconds(2 * 86400));
}

TEST_F(RulesUpdaterTest, LegacyRulesFileIsMovedIntoPlaceOrTheSkipIsReported) {
  const fs::path legacy = paths::applicationSupport() / "com.brisel.linkwash" / "data.min.json";
  ASSERT_TRUE(files::writeFileAtomically(legacy, "legacy rules"));
  makeUpdater(engine_)->loadPreferringAppSupport();
  EXPECT_EQ(files::readFile(rulesRoot() / "active" / "data.min.json"), "legacy rules");
  EXPECT_FALSE(fs::exists(legacy));

  // A root whose "active" is a file cannot take it; the file stays and the start carries on.
  ASSERT_TRUE(files::writeFileAtomically(legacy, "legacy rules"));
  ASSERT_TRUE(files::writeFileAtomically(home_.path() / "blocked" / "active", "not a folder"));
  std::vector<std::string> lines;
  setDiagnosticSink([&](std::string_view line) { lines.emplace_back(line); });
  EXPECT_EQ(makeUpdater(engine_, home_.path() / "blocked")->loadPreferringAppSupport(),
            std::nullopt);
  setDiagnosticSink(standardErrorSink());
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(lines[0].starts_with("RulesUpdater: legacy rules migration skipped \u2014 "))
      << lines[0];
  EXPECT_TRUE(fs::exists(legacy));
}

TEST(RuleUpdateScheduleTest, DueRuleBeginDateAndPlan) {
  using C = RuleUpdateCadence;
  struct Case {
    C cadence;
    std::optional<long> lastCheckAgo;  // seconds before kNow
    bool due;
    std::optional<long> beginIn;  // seconds after kNow
  };
  const std::vector<Case> cases = {
      {C::never, std::nullopt, false, std::nullopt},
      {C::never, 10 * 86400L, false, std::nullopt},
      {C::daily, std::nullopt, true, 0},
      {C::daily, 86400, true, 0},
      {C::daily, 86399, false, 1},
      {C::daily, 5 * 86400L, true, 0},
      {C::daily, -3600, false, 86400 + 3600},  // a last check "in the future": the clock went back
      {C::weekly, 604799, false, 1},
      {C::weekly, 604800, true, 0},
      {C::monthly, 2591999, false, 1},
      {C::monthly, 2592000, true, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(rawValue(c.cadence)) + " " +
                 (c.lastCheckAgo ? std::to_string(*c.lastCheckAgo) : "none"));
    std::optional<Timestamp> last;
    if (c.lastCheckAgo) last = kNow - seconds(*c.lastCheckAgo);
    EXPECT_EQ(isDue(c.cadence, last, kNow), c.due);
    std::optional<Timestamp> begin;
    if (c.beginIn) begin = kNow + seconds(*c.beginIn);
    EXPECT_EQ(RuleUpdateBackgroundSchedule::earliestBeginDate(c.cadence, last, kNow), begin);
  }

  using A = AutomaticRuleUpdateAction;
  EXPECT_TRUE(AutomaticRuleUpdatePlan::actions(false, false).empty());
  EXPECT_TRUE(AutomaticRuleUpdatePlan::actions(false, true).empty());
  EXPECT_EQ(AutomaticRuleUpdatePlan::actions(true, false), std::vector<A>{A::check});
  EXPECT_EQ(AutomaticRuleUpdatePlan::actions(true, true), (std::vector<A>{A::check, A::install}));

  for (auto cadence : kAllRuleUpdateCadences) {
    EXPECT_EQ(ruleUpdateCadenceFromRawValue(rawValue(cadence)), cadence);
  }
  EXPECT_EQ(displayName(C::monthly), "Monthly");
}

TEST(RulesUpdateStatusTest, TextsAndBusyStates) {
  RuleUpdateManifest manifest;
  manifest.currentVersion = "2026.03.14.2";
  const std::vector<std::tuple<RulesUpdateStatus, std::string, bool>> cases = {
      {RulesUpdateStatus::updateAvailable(manifest), "Rules update available: 2026.03.14.2", false},
      {RulesUpdateStatus::upToDate("2026.03.14.2"), "Rules are up to date: 2026.03.14.2", false},
      {RulesUpdateStatus::failed("Download failed: HTTP 404"), "Download failed: HTTP 404", false},
      {RulesUpdateStatus::of(Kind::idle), "", false},
      {RulesUpdateStatus::of(Kind::checkingManifest), "Checking\u2026", true},
      {RulesUpdateStatus::of(Kind::downloading), "Downloading\u2026", true},
      {RulesUpdateStatus::of(Kind::validating), "Validating\u2026", true},
      {RulesUpdateStatus::of(Kind::installing), "Installing\u2026", true},
  };
  for (const auto& [status, text, busy] : cases) {
    EXPECT_EQ(status.displayText(), text);
    EXPECT_EQ(status.isBusy(), busy) << text;
  }

  // The installed text's date, in the local time zone.
  const char* oldTz = std::getenv("TZ");
  const std::optional<std::string> saved = oldTz ? std::optional<std::string>(oldTz) : std::nullopt;
  setenv("TZ", "UTC", 1);
  tzset();
  EXPECT_EQ(RulesUpdateStatus::installed("2026.03.14.2", *parseISO8601("2026-03-14T15:05:00Z"))
                .displayText(),
            "Installed rules 2026.03.14.2 at Mar 14, 2026 at 3:05 PM");
  EXPECT_EQ(formatDisplayDate(*parseISO8601("2026-01-02T00:09:00Z")), "Jan 2, 2026 at 12:09 AM");
  setenv("TZ", "America/New_York", 1);
  tzset();
  EXPECT_EQ(formatDisplayDate(*parseISO8601("2026-01-02T00:09:00Z")), "Jan 1, 2026 at 7:09 PM");
  if (saved) {
    setenv("TZ", saved->c_str(), 1);
  } else {
    unsetenv("TZ");
  }
  tzset();
}

}  // namespace
}  // namespace linkwash
