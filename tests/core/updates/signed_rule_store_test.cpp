// The signed rule store on real files: anti-rollback installs, re-verification with fallback to
// the previous release, damage to one release file, and the loader that falls back to the
// shipped rules.
#include <gtest/gtest.h>

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

class SignedRuleStoreTest : public ::testing::Test {
 protected:
  SignedRuleFeed::Store store() const { return {home_.path() / "rules", signer_.trust()}; }

  std::optional<std::string> currentVersion(std::string_view floor = kFloor) const {
    const auto found = store().current(floor);
    return found ? std::optional(found->manifest.currentVersion) : std::nullopt;
  }

  std::string stateBytes() const { return files::readFile(store().stateFile()).value_or(""); }
  // The state file's active release with the previous release from its own file.
  std::optional<State> storedState() const {
    auto state = State::decode(stateBytes());
    const auto previous = files::readFile(store().previousFile());
    if (state && previous)
      state->previous = State::decode("{\"active\":" + *previous + "}")->active;
    return state;
  }
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
  EXPECT_EQ(storedState(), (State{signer_.record(version(3)), signer_.record(version(1))}));
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
  EXPECT_EQ(storedState()->previous, signer_.record(version(1)));
}

TEST_F(SignedRuleStoreTest, EveryReadReverifiesAndFallsBackToThePreviousRelease) {
  installOrFail(1);
  installOrFail(2);
  // Both releases in the state file, as an older layout stored them.
  const State state = *storedState();
  const std::string good = state.encode();
  fs::remove(store().previousFile());
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
  EXPECT_EQ(storedState(), state);
}

TEST_F(SignedRuleStoreTest, DamageCostsAtMostOneReleaseAndNeverReopensARollback) {
  installOrFail(2);
  installOrFail(5);
  const std::string active = stateBytes();
  const std::string previous = *files::readFile(store().previousFile());
  for (std::size_t i = 0; i < previous.size(); i += 97) {
    std::string flipped = previous;
    flipped[i] ^= 0x04;
    ASSERT_TRUE(files::writeFileAtomically(store().previousFile(), flipped));
    EXPECT_EQ(currentVersion(), version(5)) << "flip at " << i << " of the previous release";
  }
  ASSERT_TRUE(files::writeFileAtomically(store().previousFile(), previous));
  for (std::size_t i = 0; i < active.size(); i += 97) {
    std::string flipped = active;
    flipped[i] ^= 0x04;
    writeState(flipped);
    EXPECT_NE(currentVersion(), std::nullopt) << "flip at " << i << " of the active release";
  }
  // Both releases gone: the highest version ever installed still holds the floor.
  writeState("{");
  ASSERT_TRUE(files::writeFileAtomically(store().previousFile(), "{"));
  EXPECT_EQ(currentVersion(), std::nullopt);
  for (int older : {2, 4}) EXPECT_FALSE(store().install(signer_.record(version(older)), kFloor));
  installOrFail(5);
  installOrFail(6);
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
