// The signed rule store on real files: anti-rollback installs, re-verification with fallback to
// the previous release, installs from several processes, installers killed half-way, and the
// loader that falls back to the shipped rules.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <thread>

#include "core/rules/rules_engine.h"
#include "core/updates/signed_rule_feed.h"
#include "platform/crypto/base64.h"
#include "platform/fs/files.h"
#include "platform/prefs/preference_store.h"
#include "platform/resources/resource_bundle.h"
#include "tests/core/updates/release_fixture.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kFloor = "2026.01.01.1";

std::string version(int release) { return "2027.01.01." + std::to_string(release); }

class SignedRuleStoreTest : public ::testing::Test {
 protected:
  SignedRuleFeed::Store store() const { return {home_.path() / "rules", signer_.trust()}; }

  std::optional<std::string> currentVersion(std::string_view floor = kFloor) const {
    const auto found = store().current(floor);
    if (!found) return std::nullopt;
    return found->manifest.currentVersion;
  }

  std::string stateBytes() const { return files::readFile(store().stateFile()).value_or(""); }

  void installOrFail(int release) {
    const auto installed = store().install(signer_.record(version(release)), kFloor);
    ASSERT_TRUE(installed) << installed.error().errorDescription();
  }

  // Runs `body` in a child process and returns its pid.
  template <typename Body>
  static pid_t spawn(Body body) {
    const pid_t pid = fork();
    if (pid == 0) _exit(body());
    return pid;
  }

  static int exitStatus(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  testing::TempHome home_;
  testing::ReleaseSigner signer_;
};

TEST_F(SignedRuleStoreTest, InstallsOnlyForwardAndKeepsThePreviousRelease) {
  EXPECT_EQ(currentVersion(), std::nullopt);
  installOrFail(1);
  EXPECT_EQ(currentVersion(), version(1));
  installOrFail(3);
  const auto state = SignedRuleFeed::State::decode(stateBytes());
  ASSERT_TRUE(state && state->previous);
  EXPECT_EQ(state->active, signer_.record(version(3)));
  EXPECT_EQ(*state->previous, signer_.record(version(1)));

  const std::string before = stateBytes();
  const SignedRuleFeed::Record older = signer_.record(version(2));
  auto refused = store().install(older, kFloor);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error(),
            RuleUpdateError::invalidManifest(std::string(kSignedRuleFeedRejected)));
  EXPECT_EQ(stateBytes(), before) << "a refused install must not touch the state file";

  // The same version again: only with the very same manifest bytes.
  auto sameVersionOtherNotes = signer_.manifest(version(3), older.clear, older.supplementary);
  sameVersionOtherNotes.notes = {"re-signed"};
  EXPECT_FALSE(store().install(
      {signer_.sign(sameVersionOtherNotes), older.clear, older.supplementary}, kFloor));
  EXPECT_TRUE(store().install(signer_.record(version(3)), kFloor));
  EXPECT_EQ(SignedRuleFeed::State::decode(stateBytes())->previous, signer_.record(version(1)))
      << "re-installing the release in use keeps the real fallback";

  // Nothing below the floor, and nothing that fails the signed-release check.
  EXPECT_FALSE(store().install(signer_.record(version(4)), "2027.01.01.5"));
  auto unsigned4 = signer_.record(version(4));
  unsigned4.proof.signature = before.substr(0, 10);
  EXPECT_FALSE(store().install(unsigned4, kFloor));
  auto shortFile = signer_.record(version(4));
  shortFile.clear.pop_back();
  EXPECT_FALSE(store().install(shortFile, kFloor));
  EXPECT_FALSE(store().install(signer_.record(version(4)), "not a version"));
  EXPECT_EQ(stateBytes(), before);
  EXPECT_EQ(currentVersion(), version(3));
}

TEST_F(SignedRuleStoreTest, EveryReadReverifiesAndFallsBackToThePreviousRelease) {
  installOrFail(1);
  installOrFail(2);
  const std::string good = stateBytes();
  auto state = *SignedRuleFeed::State::decode(good);

  // One byte of the active provider file changed on disk: the previous release is used.
  auto tampered = state;
  tampered.active.clear[3] ^= 0x20;
  ASSERT_TRUE(files::writeFileAtomically(store().stateFile(), tampered.encode()));
  EXPECT_EQ(currentVersion(), version(1));

  // A tampered previous release does not matter while the active one verifies.
  tampered = state;
  tampered.previous->supplementary += " ";
  ASSERT_TRUE(files::writeFileAtomically(store().stateFile(), tampered.encode()));
  EXPECT_EQ(currentVersion(), version(2));

  // Both broken, the previous signed by a key no longer trusted: nothing.
  tampered = state;
  tampered.active.proof.manifest.back() = ' ';
  testing::ReleaseSigner retired;
  retired.key = testing::seededKey(99);
  tampered.previous = retired.record(version(1));
  ASSERT_TRUE(files::writeFileAtomically(store().stateFile(), tampered.encode()));
  EXPECT_EQ(currentVersion(), std::nullopt);

  // A floor above a release hides it; a state file that is not ours hides everything.
  ASSERT_TRUE(files::writeFileAtomically(store().stateFile(), good));
  EXPECT_EQ(currentVersion(version(2)), version(2));
  EXPECT_EQ(currentVersion(version(3)), std::nullopt);
  EXPECT_EQ(currentVersion("9999.12.31.999999"), std::nullopt);
  std::string garbled = good;
  garbled[garbled.size() / 2] = '\x01';
  ASSERT_TRUE(files::writeFileAtomically(store().stateFile(), garbled));
  EXPECT_EQ(currentVersion(), std::nullopt);

  // An install over a tampered active release compares against the release really in use.
  tampered = state;
  tampered.active.clear[3] ^= 0x20;
  ASSERT_TRUE(files::writeFileAtomically(store().stateFile(), tampered.encode()));
  installOrFail(2);
  EXPECT_EQ(SignedRuleFeed::State::decode(stateBytes()),
            (SignedRuleFeed::State{state.active, state.previous}));
}

TEST_F(SignedRuleStoreTest, ConcurrentInstallersLeaveOneConsistentStore) {
  constexpr int kProcesses = 4;
  constexpr int kPerProcess = 5;
  std::vector<pid_t> children;
  for (int p = 0; p < kProcesses; ++p) {
    children.push_back(spawn([&, p] {
      int installed = 0;
      // Interleaved versions, so every process both wins and loses races against the others.
      for (int i = 0; i < kPerProcess; ++i) {
        if (store().install(signer_.record(version(1 + p + kProcesses * i)), kFloor)) ++installed;
      }
      return installed;
    }));
  }
  int installed = 0;
  for (pid_t child : children) {
    const int status = exitStatus(child);
    ASSERT_LE(status, kPerProcess) << "child died";
    installed += status;
  }
  EXPECT_GE(installed, 1);

  const auto state = SignedRuleFeed::State::decode(stateBytes());
  ASSERT_TRUE(state);
  const std::string highest = version(kProcesses * kPerProcess);
  EXPECT_EQ(state->active, signer_.record(highest));
  EXPECT_EQ(currentVersion(), highest);
  if (installed > 1) {
    ASSERT_TRUE(state->previous);
    const auto previous = SignedRuleFeed::verifyRelease(state->previous->proof, signer_.trust());
    ASSERT_TRUE(previous);
    EXPECT_LT(*RulesVersion::parse(previous->currentVersion), *RulesVersion::parse(highest));
  }
  for (const auto& entry : fs::directory_iterator(store().root())) {
    const auto name = entry.path().filename().string();
    EXPECT_TRUE(name == SignedRuleFeed::kStateFileName || name == SignedRuleFeed::kLockFileName)
        << "left behind: " << name;
  }
}

TEST_F(SignedRuleStoreTest, AnInstallerKilledWhileHoldingTheLockLeavesTheStoreUsable) {
  installOrFail(1);
  const std::string before = stateBytes();

  // The child does what an installer does up to its rename, and is killed there.
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = spawn([&] {
    auto lock = files::ExclusiveLock::acquire(store().lockFile());
    if (!lock) return 1;
    const auto partial = store().root() / ".signed-rules-v1.json.Xk3Lq9";
    const int fd = ::open(partial.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
    const std::string half = signer_.record(version(2)).clear;
    if (fd < 0 || ::write(fd, half.data(), half.size() / 2) < 0) return 2;
    if (::write(ready[1], "x", 1) != 1) return 3;
    pause();
    return 0;
  });
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  // While the child holds the lock, readers still see the old release and an install waits.
  EXPECT_EQ(currentVersion(), version(1));
  kill(child, SIGKILL);
  EXPECT_EQ(exitStatus(child), 128 + SIGKILL);
  close(ready[0]);
  close(ready[1]);

  EXPECT_EQ(stateBytes(), before);
  EXPECT_EQ(currentVersion(), version(1));
  installOrFail(2);  // the lock died with its holder
  EXPECT_EQ(currentVersion(), version(2));
  EXPECT_FALSE(fs::exists(store().root() / ".signed-rules-v1.json.Xk3Lq9"))
      << "the next install clears what the killed one left";
}

TEST_F(SignedRuleStoreTest, InstallsKilledAtRandomMomentsNeverBreakTheStore) {
  installOrFail(1);
  std::mt19937 random(20270101);
  int next = 2;
  for (int round = 0; round < 6; ++round) {
    const int first = next;
    next += 1000;
    const pid_t child = spawn([&] {
      for (int release = first; release < first + 1000; ++release) {
        (void)store().install(signer_.record(version(release)), kFloor);
      }
      return 0;
    });
    std::this_thread::sleep_for(std::chrono::microseconds(2000 + random() % 30000));
    kill(child, SIGKILL);
    exitStatus(child);

    // Whatever moment the kill hit, the file is a whole state whose active release verifies.
    const auto state = SignedRuleFeed::State::decode(stateBytes());
    ASSERT_TRUE(state) << "round " << round;
    const auto found = store().current(kFloor);
    ASSERT_TRUE(found) << "round " << round;
    EXPECT_EQ(found->record, state->active);
  }
  installOrFail(next);
  EXPECT_EQ(currentVersion(), version(next));
}

class VerifiedLoaderTest : public SignedRuleStoreTest {
 protected:
  std::vector<std::string> providerNames(const RulesEngine& engine) const {
    std::vector<std::string> names;
    for (const auto& provider : engine.compiledProviders()) names.push_back(provider.name);
    return names;
  }

  std::optional<std::string> load(RulesEngine& engine,
                                  const std::optional<std::string>& shippedManifest) {
    return VerifiedRuleBundleLoader::load(engine, store().root(), shippedManifest, signer_.trust());
  }

  std::optional<std::string> shippedManifest_ =
      ResourceBundle::cleanLinkResources().read("manifest", "json");
};

TEST_F(VerifiedLoaderTest, LoadsTheInstalledReleaseElseTheShippedRules) {
  ASSERT_TRUE(shippedManifest_);
  RulesEngine shipped(PreferenceStore::standard());
  shipped.loadBundledRules();
  const auto shippedNames = providerNames(shipped);
  ASSERT_FALSE(shippedNames.empty());

  RulesEngine empty(PreferenceStore::standard());
  EXPECT_EQ(load(empty, shippedManifest_), std::nullopt);
  EXPECT_EQ(providerNames(empty), shippedNames);

  installOrFail(7);
  RulesEngine installed(PreferenceStore::standard());
  EXPECT_EQ(load(installed, shippedManifest_), version(7));
  EXPECT_EQ(providerNames(installed), (std::vector<std::string>{"release", "extra"}));

  // Without the shipped manifest there is no floor, so the store is not used at all.
  RulesEngine noManifest(PreferenceStore::standard());
  EXPECT_EQ(load(noManifest, std::nullopt), std::nullopt);
  EXPECT_EQ(providerNames(noManifest), shippedNames);
  RulesEngine brokenManifest(PreferenceStore::standard());
  EXPECT_EQ(load(brokenManifest, std::string("{}")), std::nullopt);

  // A shipped release newer than the installed one wins.
  auto newerShipped = *RuleUpdateManifest::decode(*shippedManifest_);
  newerShipped.currentVersion = "2027.02.01.1";
  RulesEngine floorAbove(PreferenceStore::standard());
  EXPECT_EQ(load(floorAbove, newerShipped.encode()), std::nullopt);
  EXPECT_EQ(providerNames(floorAbove), shippedNames);

  // A store that no longer verifies is ignored.
  auto state = *SignedRuleFeed::State::decode(stateBytes());
  state.active.supplementary[0] = '[';
  ASSERT_TRUE(files::writeFileAtomically(store().stateFile(), state.encode()));
  RulesEngine tampered(PreferenceStore::standard());
  EXPECT_EQ(load(tampered, shippedManifest_), std::nullopt);
  EXPECT_EQ(providerNames(tampered), shippedNames);
}

TEST_F(VerifiedLoaderTest, ShippedFilesGiveTheFloorAndTheRealKeys) {
  const auto floor = VerifiedRuleBundleLoader::shippedRulesVersion();
  ASSERT_TRUE(floor);
  EXPECT_EQ(VerifiedRuleBundleLoader::rulesVersionFloor(), *floor);
  EXPECT_EQ(RuleUpdateManifest::decode(*shippedManifest_)->currentVersion, *floor);
  const auto keys = parseKeyset(VerifiedRuleBundleLoader::trustedKeys());
  ASSERT_TRUE(keys) << "the shipped rule-feed-keys.json must be in the exact key-file form";
  EXPECT_FALSE(keys->empty());
  EXPECT_EQ(SignedRuleFeed::Store::defaultRoot(),
            home_.path() / "data" / "com.morvellabs.linkwash" / "rules");

  // The executables' entry point: with nothing installed, the shipped rules.
  RulesEngine engine(PreferenceStore::standard());
  EXPECT_EQ(loadVerifiedRules(engine), std::nullopt);
  EXPECT_FALSE(engine.compiledProviders().empty());
}

}  // namespace
}  // namespace linkwash
