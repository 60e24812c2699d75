// Signed releases, the verified store with its locked anti-rollback install, and the loader.
#include "core/updates/signed_rule_feed.h"

#include <algorithm>
#include <array>
#include <system_error>

#include "base/strings.h"
#include "core/rules/rules_engine.h"
#include "core/signing/signature_verification.h"
#include "platform/crypto/base64.h"
#include "platform/crypto/sha256.h"
#include "platform/fs/files.h"
#include "platform/fs/paths.h"
#include "platform/json/json_writer.h"
#include "platform/resources/resource_bundle.h"

namespace linkwash {
namespace {

namespace fs = std::filesystem;

tl::unexpected<RuleUpdateError> rejected() {
  return tl::unexpected(RuleUpdateError::invalidManifest(std::string(kSignedRuleFeedRejected)));
}

bool isLowerHexDigest(std::string_view text) {
  return text.size() == 64 && std::all_of(text.begin(), text.end(), [](char c) {
           return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
         });
}

// The signed manifest rules, applied once the signature holds.
RuleUpdateResult<RuleUpdateManifest> checkSignedManifest(std::string_view bytes,
                                                         std::string_view runningAppVersion,
                                                         std::string_view host) {
  using Kind = RuleUpdateManifest::File::Kind;
  if (bytes.size() > kMaxRuleManifestSize) return rejected();
  auto manifest = RuleUpdateManifest::decode(bytes);
  if (!manifest) return rejected();
  if (!manifest->validate(1) || manifest->schemaVersion != 1) return rejected();
  if (!RulesVersion::parse(manifest->currentVersion)) return rejected();
  if (manifest->minAppVersion &&
      compareAppVersions(runningAppVersion, *manifest->minAppVersion) < 0) {
    return rejected();
  }
  // Exactly one provider file and one supplementary file: anything else in a release would be
  // data that reaches users without these checks.
  if (manifest->files.size() != 2) return rejected();
  const auto* clear = manifest->clearURLsFile();
  const auto* supplementary = manifest->supplementaryFile();
  if (!clear || !supplementary || clear == supplementary) return rejected();
  if (clear->path != SignedRuleFeed::kClearURLsFileName ||
      supplementary->path != SignedRuleFeed::kSupplementaryFileName) {
    return rejected();
  }
  const std::string base = SignedRuleFeed::rulesBaseURL(host);
  for (const auto& file : manifest->files) {
    if (file.kind == Kind::commandGuard) return rejected();
    if (file.url != base + manifest->currentVersion + "/" + file.path) return rejected();
    if (!isLowerHexDigest(file.sha256)) return rejected();
    if (!file.bytes || *file.bytes > SignedRuleFeed::kMaxRuleFileBytes) return rejected();
  }
  return std::move(*manifest);
}

bool fileMatches(const RuleUpdateManifest::File& file, std::string_view data) {
  if (!file.bytes || *file.bytes < 0 || static_cast<std::uint64_t>(*file.bytes) != data.size()) {
    return false;
  }
  return hexLower(sha256(data)) == file.sha256;
}

Json encodeRecord(const SignedRuleFeed::Record& record) {
  Json proof = Json::object();
  proof["manifest"] = base64Encode(record.proof.manifest);
  proof["signature"] = base64Encode(record.proof.signature);
  Json json = Json::object();
  json["clear"] = base64Encode(record.clear);
  json["proof"] = std::move(proof);
  json["supplementary"] = base64Encode(record.supplementary);
  return json;
}

bool readBytes(const Json& object, const char* key, std::string& out) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return false;
  auto decoded = base64Decode(it->get_ref<const std::string&>());
  if (!decoded) return false;
  out.assign(decoded->begin(), decoded->end());
  return true;
}

std::optional<SignedRuleFeed::Record> decodeRecord(const Json& json) {
  if (!json.is_object()) return std::nullopt;
  const auto proof = json.find("proof");
  if (proof == json.end() || !proof->is_object()) return std::nullopt;
  SignedRuleFeed::Record record;
  if (!readBytes(*proof, "manifest", record.proof.manifest) ||
      !readBytes(*proof, "signature", record.proof.signature) ||
      !readBytes(json, "clear", record.clear) ||
      !readBytes(json, "supplementary", record.supplementary)) {
    return std::nullopt;
  }
  return record;
}

}  // namespace

// --- Releases -------------------------------------------------------------------------------

RuleUpdateResult<RuleUpdateManifest> SignedRuleFeed::verifyRelease(const Proof& proof,
                                                                   std::string_view trust) {
  return verifyRelease(proof, trust, appVersion(), rulesHost());
}

RuleUpdateResult<RuleUpdateManifest> SignedRuleFeed::verifyRelease(
    const Proof& proof, std::string_view trust, std::string_view runningAppVersion,
    std::string_view host) {
  if (!verifyProof(proof.manifest, proof.signature, trust)) return rejected();
  return checkSignedManifest(proof.manifest, runningAppVersion, host);
}

RuleUpdateResult<void> SignedRuleFeed::checkFiles(const RuleUpdateManifest& manifest,
                                                  std::string_view clear,
                                                  std::string_view supplementary) {
  const auto* clearFile = manifest.clearURLsFile();
  const auto* supplementaryFile = manifest.supplementaryFile();
  if (!clearFile || !supplementaryFile) return rejected();
  if (!fileMatches(*clearFile, clear) || !fileMatches(*supplementaryFile, supplementary)) {
    return rejected();
  }
  return {};
}

std::string SignedRuleFeed::rulesBaseURL(std::string_view host) {
  return "https://" + std::string(host) + "/linkwash/rules/";
}

bool SignedRuleFeed::isAllowedFeedURL(std::string_view url, std::string_view host) {
  for (RuleUpdateChannel channel : kAllRuleUpdateChannels) {
    const std::string manifest = manifestURL(channel, host);
    if (url == manifest || url == signatureURL(manifest)) return true;
  }
  const std::string base = rulesBaseURL(host);
  if (!startsWith(url, base)) return false;
  const auto segments = split(url.substr(base.size()), '/');
  return segments.size() == 2 && RulesVersion::parse(segments[0]) &&
         (segments[1] == kClearURLsFileName || segments[1] == kSupplementaryFileName);
}

// --- State ----------------------------------------------------------------------------------

std::string SignedRuleFeed::State::encode() const {
  Json json = Json::object();
  json["active"] = encodeRecord(active);
  if (previous) json["previous"] = encodeRecord(*previous);
  return canonicalJson(json);
}

std::string SignedRuleFeed::State::encodeActive() const {
  return State{active, std::nullopt}.encode();
}

std::optional<SignedRuleFeed::State> SignedRuleFeed::State::decode(std::string_view json) {
  const auto parsed = parseJson(json);
  if (!parsed || !parsed->is_object()) return std::nullopt;
  const auto active = parsed->find("active");
  if (active == parsed->end()) return std::nullopt;
  auto activeRecord = decodeRecord(*active);
  if (!activeRecord) return std::nullopt;
  State state{std::move(*activeRecord), std::nullopt};
  if (const auto previous = parsed->find("previous");
      previous != parsed->end() && !previous->is_null()) {
    state.previous = decodeRecord(*previous);
    if (!state.previous) return std::nullopt;
  }
  return state;
}

// --- Store ----------------------------------------------------------------------------------

fs::path SignedRuleFeed::Store::defaultRoot() {
  return paths::applicationSupport() / "com.morvellabs.linkwash" / "rules";
}

namespace {

// Nothing we write is this large; a bigger file is not ours to parse.
std::optional<std::string> readStoreFile(const fs::path& path) {
  auto bytes = files::readUserFile(path, SignedRuleFeed::kStateSizeLimit - 1);
  if (!bytes) return std::nullopt;
  return std::move(*bytes);
}

}  // namespace

std::optional<SignedRuleFeed::State> SignedRuleFeed::Store::readState() const {
  // Each release lives in a file of its own, so damage to one never costs the other.
  std::optional<Record> active;
  std::optional<Record> previous;
  if (const auto bytes = readStoreFile(stateFile())) {
    if (auto state = State::decode(*bytes)) {
      active = std::move(state->active);
      previous = std::move(state->previous);  // a state written with both in one file
    }
  }
  if (const auto bytes = readStoreFile(previousFile())) {
    if (const auto parsed = parseJson(*bytes)) {
      if (auto record = decodeRecord(*parsed)) previous = std::move(record);
    }
  }
  if (!active && !previous) return std::nullopt;
  if (!active) return State{std::move(*previous), std::nullopt};
  return State{std::move(*active), std::move(previous)};
}

std::optional<RulesVersion> SignedRuleFeed::Store::highestInstalled() const {
  const auto bytes = readStoreFile(highestFile());
  if (!bytes) return std::nullopt;
  const auto version = decodeHighestVersionRecord(*bytes);
  return version ? RulesVersion::parse(*version) : std::nullopt;
}

std::optional<SignedRuleFeed::Verified> SignedRuleFeed::Store::acceptable(
    const Record& record, const RulesVersion& floor) const {
  auto manifest = verifyRelease(record.proof, trust_);
  if (!manifest || !checkFiles(*manifest, record.clear, record.supplementary)) return std::nullopt;
  const auto version = RulesVersion::parse(manifest->currentVersion);
  if (!version || *version < floor) return std::nullopt;
  return Verified{record, std::move(*manifest)};
}

std::optional<SignedRuleFeed::Verified> SignedRuleFeed::Store::newestAcceptable(
    const State& state, const RulesVersion& floor) const {
  std::optional<Verified> best;
  std::optional<RulesVersion> bestVersion;
  const std::array<const Record*, 2> candidates = {&state.active,
                                                   state.previous ? &*state.previous : nullptr};
  for (const Record* record : candidates) {
    if (!record) continue;
    auto verified = acceptable(*record, floor);
    if (!verified) continue;
    const auto version = RulesVersion::parse(verified->manifest.currentVersion);
    // Strictly newer only, so the active record wins a tie.
    if (!best || *version > *bestVersion) {
      bestVersion = version;
      best = std::move(verified);
    }
  }
  return best;
}

std::optional<SignedRuleFeed::Verified> SignedRuleFeed::Store::current(
    std::string_view floor) const {
  const auto floorVersion = RulesVersion::parse(floor);
  if (!floorVersion) return std::nullopt;
  const auto state = readState();
  if (!state) return std::nullopt;
  return newestAcceptable(*state, *floorVersion);
}

RuleUpdateResult<void> SignedRuleFeed::Store::install(const Record& record,
                                                      std::string_view floor) const {
  auto lock = files::LockedInstall::begin(root_, kLockFileName);
  if (!lock) return tl::unexpected(RuleUpdateError::fileSystem(lock.error().message));

  const auto floorVersion = RulesVersion::parse(floor);
  if (!floorVersion) return rejected();
  auto manifest = verifyRelease(record.proof, trust_);
  if (!manifest) return tl::unexpected(manifest.error());
  if (auto files = checkFiles(*manifest, record.clear, record.supplementary); !files) {
    return tl::unexpected(files.error());
  }
  const auto version = RulesVersion::parse(manifest->currentVersion);
  if (*version < *floorVersion) return rejected();
  // Kept apart from the releases: even with both release files damaged, nothing older than what
  // was once installed comes back.
  if (const auto highest = highestInstalled(); highest && *version < *highest) return rejected();

  // The release in use is what current() answers: the stored active one, or the previous one
  // when the active one no longer verifies. Nothing older than it is ever installed.
  State next{record, std::nullopt};
  if (const auto stored = readState()) {
    auto active = acceptable(stored->active, *floorVersion);
    auto previous = stored->previous ? acceptable(*stored->previous, *floorVersion) : std::nullopt;
    const auto versionOf = [](const Verified& verified) {
      return *RulesVersion::parse(verified.manifest.currentVersion);
    };
    const bool previousInUse = previous && (!active || versionOf(*previous) > versionOf(*active));
    auto& inUse = previousInUse ? previous : active;
    if (inUse) {
      const RulesVersion inUseVersion = versionOf(*inUse);
      if (*version < inUseVersion) return rejected();
      if (*version == inUseVersion) {
        if (inUse->record.proof.manifest != record.proof.manifest) return rejected();
        // Re-installing the release in use keeps the older fallback, not a copy of itself.
        if (!previousInUse && previous) next.previous = std::move(previous->record);
      } else {
        next.previous = std::move(inUse->record);
      }
    }
  }

  const std::string encoded = next.encodeActive();
  if (next.encode().size() >= kStateSizeLimit) return rejected();
  const std::string previousBytes =
      next.previous ? canonicalJson(encodeRecord(*next.previous)) : "";
  const auto before = readStoreFile(stateFile());
  const auto previousBefore = readStoreFile(previousFile());
  const auto fileSystemError = [](const Error& error) {
    return tl::unexpected(RuleUpdateError::fileSystem(error.message));
  };
  // The highest version first: an installer killed after it leaves the old release in use and
  // the new one still installable, never an opening for an older one.
  const auto highest = highestInstalled();
  if (!highest || *highest < *version) {
    if (auto written =
            lock->replace(kHighestFileName, encodeHighestVersionRecord(manifest->currentVersion));
        !written) {
      return fileSystemError(written.error());
    }
  }
  // Then the fallback, then the release in use; killed in between, the old release is in use
  // and is its own fallback.
  if (auto written = next.previous ? lock->replace(kPreviousFileName, previousBytes)
                                   : lock->remove(kPreviousFileName);
      !written) {
    return fileSystemError(written.error());
  }
  if (auto written = lock->replace(kStateFileName, encoded); !written) {
    return fileSystemError(written.error());
  }
  const auto check = current(floor);
  if (!check || check->record != record) {
    // Put back what was there so that a failed install changes nothing in use.
    const auto restore = [&](std::string_view name, const std::optional<std::string>& bytes) {
      (void)(bytes ? lock->replace(name, *bytes) : lock->remove(name));
    };
    restore(kStateFileName, before);
    restore(kPreviousFileName, previousBefore);
    return rejected();
  }
  return {};
}

// --- Loader ---------------------------------------------------------------------------------

std::optional<std::string> VerifiedRuleBundleLoader::shippedRulesVersion() {
  const auto manifest = ResourceBundle::cleanLinkResources().read("manifest", "json");
  if (!manifest) return std::nullopt;
  const auto decoded = RuleUpdateManifest::decode(*manifest);
  if (!decoded || !RulesVersion::parse(decoded->currentVersion)) return std::nullopt;
  return decoded->currentVersion;
}

std::string VerifiedRuleBundleLoader::rulesVersionFloor() {
  return shippedRulesVersion().value_or(std::string(kHighestRulesVersion));
}

std::string VerifiedRuleBundleLoader::trustedKeys() {
  return ResourceBundle::cleanLinkResources().read("rule-feed-keys", "json").value_or("");
}

std::optional<std::string> VerifiedRuleBundleLoader::load(RulesEngine& engine,
                                                          const fs::path& root) {
  const auto& bundle = ResourceBundle::cleanLinkResources();
  return load(engine, root, bundle.read("manifest", "json"), trustedKeys());
}

std::optional<std::string> VerifiedRuleBundleLoader::load(
    RulesEngine& engine, const fs::path& root, const std::optional<std::string>& shippedManifest,
    std::string_view trust) {
  // Without the shipped manifest there is no floor to hold a stored release to, so the store is
  // not trusted at all.
  std::optional<RuleUpdateManifest> shipped;
  if (shippedManifest) shipped = RuleUpdateManifest::decode(*shippedManifest);
  if (shipped && RulesVersion::parse(shipped->currentVersion)) {
    const SignedRuleFeed::Store store(root, std::string(trust));
    if (auto verified = store.current(shipped->currentVersion)) {
      const auto& record = verified->record;
      if (SignedRuleFeed::checkFiles(verified->manifest, record.clear, record.supplementary)) {
        engine.loadRuleBundle(record.clear, record.supplementary);
        return verified->manifest.currentVersion;
      }
    }
  }
  engine.loadBundledRules();
  return std::nullopt;
}

std::optional<std::string> loadVerifiedRules(RulesEngine& engine) {
  return VerifiedRuleBundleLoader::load(engine, SignedRuleFeed::Store::defaultRoot());
}

}  // namespace linkwash
