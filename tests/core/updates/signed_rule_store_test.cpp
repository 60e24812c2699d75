// The signed rule store on real files: anti-rollback installs, re-verification with fallback to
// the previous release, installs from several processes, installers killed half-way, and the
// loader that falls back to the shipped rules.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "core/rules/rules_engine.h"
#include "core/updates/signed_rule_feed.h"
#include "platform/fs/files.h"
#include "platform/prefs/preference_store.h"
#include "platform/resources/resource_bundle.h"
#include "tests/core/updates/release_fixture.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

namespace fs = std::filesystem;
using testing::kFloor;
using testing::version;
using State = SignedRuleFeed::State;

// Runs `body` in a child process and returns its pid.
template <typename Body>
pid_t spawn(Body body) {
  const pid_t pid = fork();
  if (pid == 0) _exit(body());
  return pid;
}

int exitStatus(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

class SignedRuleStoreTest : public ::testing::Test {
 protected:
  SignedRuleFeed::Store store() const { return {home_.path() / "rules", signer_.trust()}; }

  std::optional<std::string> currentVersion(std::string_view floor = kFloor) const {
    const auto found = store().current(floor);
    return found ? std::optional(found->manifest.currentVersion) : std::nullopt;
  }

  std::string stateBytes() const { return files::readFile(store().stateFile()).value_or(""); }
  void writeState(std::string_view bytes) const {
    ASSERT_TRUE(files::writeFileAtomically(store().stateFile(), bytes));
  }

  void installOrFail(int release) {
    const auto installed = store().install(signer_.record(version(release)), kFloor);
    ASSERT_TRUE(installed) << installed.error().errorDescription();
  }

  testing::TempHome home_;
  testing::ReleaseSigner signer_;
};

TEST_F(SignedRuleStoreTest, InstallsOnlyForwardAndKeepsThePreviousRelease) {
  EXPECT_EQ(currentVersion(), std::nullopt);
  installOrFail(1);
  installOrFail(3);
  EXPECT_EQ(State::decode(stateBytes()),
            (State{signer_.record(version(3)), signer_.record(version(1))}));
  const std::string before = stateBytes();

  auto otherBytes = signer_.record(version(3));  // the version in use, other manifest bytes
  auto manifest = *RuleUpdateManifest::decode(otherBytes.proof.manifest);
  manifest.notes = {"re-signed"};
  otherBytes.proof = signer_.sign(manifest);
  auto badSignature = signer_.record(version(4));
  badSignature.proof.signature = before.substr(0, 10);
  auto shortFile = signer_.record(version(4));
  shortFile.clear.pop_back();
  const std::pair<SignedRuleFeed::Record, std::string_view> refused[] = {
      {signer_.record(version(2)), kFloor},  // older than the release in use
      {otherBytes, kFloor},
      {signer_.record(version(4)), "2027.01.01.5"},  // below the floor
      {signer_.record(version(4)), "not a version"},
      {badSignature, kFloor},
      {shortFile, kFloor}};
  for (const auto& [record, floor] : refused) {
    const auto result = store().install(record, floor);
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error(),
              RuleUpdateError::invalidManifest(std::string(kSignedRuleFeedRejected)));
    EXPECT_EQ(stateBytes(), before) << "a refused install must not touch the state file";
  }
  // The same release again is fine, and keeps the real fallback.
  installOrFail(3);
  EXPECT_EQ(State::decode(stateBytes())->previous, signer_.record(version(1)));
}

TEST_F(SignedRuleStoreTest, EveryReadReverifiesAndFallsBackToThePreviousRelease) {
  installOrFail(1);
  installOrFail(2);
  const std::string good = stateBytes();
  const State state = *State::decode(good);
  auto tampered = [&](auto change) {
    State copy = state;
    change(copy);
    return copy.encode();
  };
  testing::ReleaseSigner retired;
  retired.key = testing::seededKey(99);
  std::string garbled = good;
  garbled[garbled.size() / 2] = '\x01';
  const std::pair<std::string, std::optional<std::string>> cases[] = {
      {tampered([](State& s) { s.active.clear[3] ^= 0x20; }), version(1)},
      {tampered([](State& s) { s.previous->supplementary += " "; }), version(2)},
      // Both broken, the previous signed by a key no longer trusted.
      {tampered([&](State& s) {
         s.active.proof.manifest.back() = ' ';
         s.previous = retired.record(version(1));
       }),
       std::nullopt},
      {garbled, std::nullopt}};
  for (const auto& [bytes, expected] : cases) {
    writeState(bytes);
    EXPECT_EQ(currentVersion(), expected) << bytes;
  }
  // A floor above a release hides it.
  writeState(good);
  EXPECT_EQ(currentVersion(version(2)), version(2));
  EXPECT_EQ(currentVersion(version(3)), std::nullopt);

  // An install over a tampered active release compares against the release really in use.
  writeState(std::get<0>(cases[0]));
  installOrFail(2);
  EXPECT_EQ(State::decode(stateBytes()), state);
}

TEST_F(SignedRuleStoreTest, ConcurrentInstallersLeaveOneConsistentStore) {
  constexpr int kProcesses = 4, kPerProcess = 5;
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
  for (pid_t child : children) ASSERT_LE(exitStatus(child), kPerProcess) << "child died";
  const auto state = State::decode(stateBytes());
  ASSERT_TRUE(state && state->previous);
  EXPECT_EQ(state->active, signer_.record(version(kProcesses * kPerProcess)));
  EXPECT_EQ(currentVersion(), version(kProcesses * kPerProcess));
  for (const auto& entry : fs::directory_iterator(store().root())) {
    const auto name = entry.path().filename().string();
    EXPECT_TRUE(name == SignedRuleFeed::kStateFileName || name == SignedRuleFeed::kLockFileName)
        << "left behind: " << name;
  }
}

TEST_F(SignedRuleStoreTest, AnInstallerKilledHalfWayLeavesTheStoreUsable) {
  installOrFail(1);
  const std::string before = stateBytes();
  // The child does what an installer does up to its rename, and is killed there.
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const auto partial = store().root() / ".signed-rules-v1.json.Xk3Lq9";
  const pid_t child = spawn([&] {
    auto lock = files::ExclusiveLock::acquire(store().lockFile());
    const int fd = ::open(partial.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
    if (!lock || fd < 0 || ::write(fd, before.data(), before.size() / 2) < 0) return 1;
    if (::write(ready[1], "x", 1) != 1) return 2;
    pause();
    return 0;
  });
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  EXPECT_EQ(currentVersion(), version(1)) << "readers take no lock";
  kill(child, SIGKILL);
  EXPECT_EQ(exitStatus(child), 128 + SIGKILL);
  close(ready[0]);
  close(ready[1]);
  EXPECT_EQ(stateBytes(), before);
  installOrFail(2);  // the lock died with its holder
  EXPECT_EQ(currentVersion(), version(2));
  EXPECT_FALSE(fs::exists(partial)) << "the next install clears what the killed one left";

  // Kills at random moments of a stream of installs: the file is always a whole state whose
  // active release verifies.
  int next = 3;
  for (int round = 0; round < 5; ++round, next += 1000) {
    const pid_t installer = spawn([&] {
      for (int release = next; release < next + 1000; ++release) {
        (void)store().install(signer_.record(version(release)), kFloor);
      }
      return 0;
    });
    std::this_thread::sleep_for(std::chrono::microseconds(2000 + 6007 * round % 30000));
    kill(installer, SIGKILL);
    exitStatus(installer);
    const auto state = State::decode(stateBytes());
    ASSERT_TRUE(state) << "round " << round;
    const auto found = store().current(kFloor);
    ASSERT_TRUE(found) << "round " << round;
    EXPECT_EQ(found->record, state->active);
  }
}

TEST_F(SignedRuleStoreTest, TheLoaderPrefersAVerifiedInstalledReleaseElseTheShippedRules) {
  const auto shipped = ResourceBundle::cleanLinkResources().read("manifest", "json");
  ASSERT_TRUE(shipped);
  auto load = [&](const std::optional<std::string>& shippedManifest) {
    RulesEngine engine(PreferenceStore::standard());
    const auto loaded =
        VerifiedRuleBundleLoader::load(engine, store().root(), shippedManifest, signer_.trust());
    std::string names;
    for (const auto& provider : engine.compiledProviders()) names += provider.name + " ";
    return std::pair(loaded, names == "release extra " ? "installed" : names);
  };
  const std::string shippedNames = load(shipped).second;
  EXPECT_EQ(load(shipped).first, std::nullopt);
  EXPECT_NE(shippedNames, "");

  installOrFail(7);
  EXPECT_EQ(load(shipped), std::pair(std::optional(version(7)), std::string("installed")));
  // Without a shipped manifest there is no floor, so the store is not used at all; a shipped
  // release newer than the installed one wins.
  auto newerShipped = *RuleUpdateManifest::decode(*shipped);
  newerShipped.currentVersion = "2027.02.01.1";
  for (const auto& manifest : {std::optional<std::string>(), std::optional<std::string>("{}"),
                               std::optional(newerShipped.encode())}) {
    EXPECT_EQ(load(manifest), std::pair(std::optional<std::string>(), shippedNames));
  }
  // A store that no longer verifies is ignored.
  auto state = *State::decode(stateBytes());
  state.active.supplementary[0] = '[';
  writeState(state.encode());
  EXPECT_EQ(load(shipped), std::pair(std::optional<std::string>(), shippedNames));

  // The shipped key file parses, and the executables' entry point loads the shipped rules.
  const auto keys = parseKeyset(VerifiedRuleBundleLoader::trustedKeys());
  EXPECT_TRUE(keys && !keys->empty()) << "the shipped rule-feed-keys.json must parse";
  EXPECT_EQ(VerifiedRuleBundleLoader::rulesVersionFloor(),
            RuleUpdateManifest::decode(*shipped)->currentVersion);
  RulesEngine engine(PreferenceStore::standard());
  EXPECT_EQ(loadVerifiedRules(engine), std::nullopt);
  EXPECT_FALSE(engine.compiledProviders().empty());
}

}  // namespace
}  // namespace linkwash
