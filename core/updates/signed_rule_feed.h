// The signed rule feed: the only way downloaded rules reach the rules engine. It holds the strict
// checks a signed release must pass, the store that keeps the active and the previous verified
// release (re-verified on every read), the locked install that never goes back to an older
// release, and the loader that starts an engine from the store or from the shipped rules.
//
//   SignedRuleFeed::Store store(SignedRuleFeed::Store::defaultRoot(), trustedKeys);
//   auto manifest = SignedRuleFeed::verifyRelease(proof, trustedKeys);     // after download
//   if (manifest && SignedRuleFeed::checkFiles(*manifest, clear, supplementary))
//     store.install({proof, clear, supplementary}, floor);
//
//   RulesEngine engine(PreferenceStore::standard());
//   loadVerifiedRules(engine);  // the installed release, else the shipped rules
//
// Every rejection is RuleUpdateError::invalidManifest with kSignedRuleFeedRejected, and nothing
// in use changes. Byte fields hold raw bytes in std::string.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "core/updates/rule_update_manifest.h"

namespace linkwash {

class RulesEngine;

class SignedRuleFeed {
 public:
  // The signed evidence of a release, exactly as downloaded.
  struct Proof {
    std::string manifest;
    std::string signature;
    bool operator==(const Proof&) const = default;
  };

  // One release: its proof and the two rule files the manifest names.
  struct Record {
    Proof proof;
    std::string clear;          // the provider file, "data.min.json"
    std::string supplementary;  // "linkwash-supplementary.json"
    bool operator==(const Record&) const = default;
  };

  // The store's content; byte fields are base64 strings in its JSON form.
  struct State {
    Record active;
    std::optional<Record> previous;
    bool operator==(const State&) const = default;

    std::string encode() const;
    // The state file's content: the active record only (the previous one has its own file).
    std::string encodeActive() const;
    // Nothing unless every required member is there with its type and every byte field is
    // base64. Says nothing about signatures.
    static std::optional<State> decode(std::string_view json);
  };

  // A record that passed every check, with its decoded manifest.
  struct Verified {
    Record record;
    RuleUpdateManifest manifest;
  };

  static constexpr std::string_view kStateFileName = "signed-rules-v1.json";
  static constexpr std::string_view kLockFileName = "signed-install.lock";
  // The previous release, in a file of its own so that damage to one release never costs both.
  static constexpr std::string_view kPreviousFileName = "signed-rules-v1-previous.json";
  // The highest version ever installed (see encodeHighestVersionRecord).
  static constexpr std::string_view kHighestFileName = "signed-rules-highest.json";
  static constexpr std::string_view kClearURLsFileName = "data.min.json";
  static constexpr std::string_view kSupplementaryFileName = "linkwash-supplementary.json";
  static constexpr std::int64_t kMaxRuleFileBytes = 0x3FFFFF;
  // An encoded state must stay below 24 MiB plus one byte.
  static constexpr std::size_t kStateSizeLimit = 0x1800001;

  // The signed-release check: the signature over the manifest (with the rule-manifest prefix)
  // against the trusted key file, then the manifest rules a signed release must meet: schema 1,
  // a valid rules version, an app at least minAppVersion, exactly the two rule files under
  // their fixed names and URLs on `host`, lower-case digests, sizes of at most 4194303 bytes.
  [[nodiscard]] static RuleUpdateResult<RuleUpdateManifest> verifyRelease(const Proof& proof,
                                                                          std::string_view trust);
  // The same with the running app's version and the feed's host given (tests, the publisher).
  [[nodiscard]] static RuleUpdateResult<RuleUpdateManifest> verifyRelease(
      const Proof& proof, std::string_view trust, std::string_view runningAppVersion,
      std::string_view host);

  // The file check: each file's length equals the manifest's `bytes` and its lower-case SHA-256
  // equals `sha256`.
  [[nodiscard]] static RuleUpdateResult<void> checkFiles(const RuleUpdateManifest& manifest,
                                                         std::string_view clear,
                                                         std::string_view supplementary);

  // "https://" + host + "/linkwash/rules/".
  static std::string rulesBaseURL(std::string_view host = rulesHost());
  // True only for the four manifest and signature URLs of both channels and for rule files at
  // the base URL + a valid version + "/" + "data.min.json" or "linkwash-supplementary.json".
  // Downloads of the feed go nowhere else, and never follow redirects.
  static bool isAllowedFeedURL(std::string_view url, std::string_view host = rulesHost());

  // The on-disk store in `root`: the active release in "signed-rules-v1.json", the previous one
  // in "signed-rules-v1-previous.json", the highest version ever installed in
  // "signed-rules-highest.json", and "signed-install.lock". Readers take no lock (every file is
  // replaced atomically); installs from all processes are serialised by the lock.
  class Store {
   public:
    // `trust` is the content of the trusted key file ("rule-feed-keys.json").
    Store(std::filesystem::path root, std::string trust)
        : root_(std::move(root)), trust_(std::move(trust)) {}

    // <application support>/com.morvellabs.linkwash/rules, shared by every executable.
    static std::filesystem::path defaultRoot();

    const std::filesystem::path& root() const { return root_; }
    std::filesystem::path stateFile() const { return root_ / kStateFileName; }
    std::filesystem::path lockFile() const { return root_ / kLockFileName; }
    std::filesystem::path previousFile() const { return root_ / kPreviousFileName; }
    std::filesystem::path highestFile() const { return root_ / kHighestFileName; }

    // The newest stored release that still verifies in full and is not older than `floor`
    // (active wins a tie with previous); nothing when none does or `floor` is not a version.
    std::optional<Verified> current(std::string_view floor) const;

    // The anti-rollback install. Under the lock: verify `record` in full, refuse it below
    // `floor`, below the highest version ever installed, below the release in use, or at the
    // same version with other manifest bytes; then make it active with the release in use as
    // previous, replace the files atomically and read them back. A failure leaves the releases
    // as they were. Verification failures are
    // invalidManifest (the feed's message); failures to create, lock or write files are
    // fileSystem with the reason.
    [[nodiscard]] RuleUpdateResult<void> install(const Record& record,
                                                 std::string_view floor) const;

   private:
    std::optional<State> readState() const;
    std::optional<RulesVersion> highestInstalled() const;
    std::optional<Verified> newestAcceptable(const State& state, const RulesVersion& floor) const;
    std::optional<Verified> acceptable(const Record& record, const RulesVersion& floor) const;

    std::filesystem::path root_;
    std::string trust_;
  };
};

// Starts a rules engine from the signed store, else from the rules shipped with the program.
class VerifiedRuleBundleLoader {
 public:
  // Loads the newest acceptable release of the store at `root` into `engine` and returns its
  // version; when there is none, loads the shipped rules and returns nothing. The floor is the
  // version of the shipped "manifest.json" and the keys come from the shipped
  // "rule-feed-keys.json"; without a readable shipped manifest the store is not consulted.
  static std::optional<std::string> load(RulesEngine& engine, const std::filesystem::path& root);
  // The same with the shipped manifest's bytes (nothing: missing) and key file given.
  static std::optional<std::string> load(RulesEngine& engine, const std::filesystem::path& root,
                                         const std::optional<std::string>& shippedManifest,
                                         std::string_view trust);

  // The shipped manifest's version when it decodes and is a valid rules version.
  static std::optional<std::string> shippedRulesVersion();
  // The floor for installs and loads: the shipped version, else kHighestRulesVersion.
  static std::string rulesVersionFloor();
  // The shipped trusted key file's bytes; empty (which trusts nothing) when it is missing.
  static std::string trustedKeys();
};

// What every executable calls to set up its engine: the verified loader on the default store.
// Returns the installed release's version, or nothing when the shipped rules were loaded.
std::optional<std::string> loadVerifiedRules(RulesEngine& engine);

}  // namespace linkwash
