// Signed rule releases made with a fixed test key, for the feed, store and loader tests.
#pragma once

#include <string>
#include <string_view>

#include "core/updates/rule_update_manifest.h"
#include "core/updates/signed_rule_feed.h"
#include "platform/crypto/sha256.h"
#include "tests/support/test_keys.h"

namespace linkwash::testing {

// A provider file with one provider that strips `parameter` from every link.
inline std::string providerFile(std::string_view name, std::string_view parameter) {
  return R"({"providers":{")" + std::string(name) +
         R"(":{"urlPattern":"^https?:\\/\\/","rules":[")" + std::string(parameter) + R"("]}}})";
}

// The floor the store tests install above, and the releases they install.
inline constexpr std::string_view kFloor = "2026.01.01.1";
inline std::string version(int release) { return "2027.01.01." + std::to_string(release); }

struct ReleaseSigner {
  Ed25519SigningKey key = seededKey(42);
  std::string keyId = "test-key";
  std::string host = std::string(rulesHost());

  std::string trust() const { return keyFile({keyEntry(keyId, key.publicKey())}); }

  // A manifest that meets every signed-release rule for these files.
  RuleUpdateManifest manifest(const std::string& version, std::string_view clear,
                              std::string_view supplementary) const {
    const std::string base = SignedRuleFeed::rulesBaseURL(host) + version + "/";
    auto file = [&](RuleUpdateManifest::File::Kind kind, std::string name, std::string_view bytes) {
      return RuleUpdateManifest::File{kind, name, base + name, hexLower(sha256(bytes)),
                                      static_cast<std::int64_t>(bytes.size())};
    };
    RuleUpdateManifest m;
    m.product = "Linkwash";
    m.kind = "rules";
    m.schemaVersion = 1;
    m.currentVersion = version;
    m.publishedAt = *parseISO8601("2027-01-01T00:00:00Z");
    m.files = {file(RuleUpdateManifest::File::Kind::clearurls, "data.min.json", clear),
               file(RuleUpdateManifest::File::Kind::linkwashSupplementary,
                    "linkwash-supplementary.json", supplementary)};
    m.notes = {"Test release " + version};
    return m;
  }

  SignedRuleFeed::Proof signBytes(std::string manifestBytes) const {
    std::string signature = signedEnvelope(key, ruleManifestSignedMessage(manifestBytes), keyId);
    return {std::move(manifestBytes), std::move(signature)};
  }
  SignedRuleFeed::Proof sign(const RuleUpdateManifest& m) const { return signBytes(m.encode()); }

  SignedRuleFeed::Record record(const std::string& version,
                                std::string clear = providerFile("release", "session"),
                                std::string supplementary = providerFile("extra", "ref")) const {
    return {sign(manifest(version, clear, supplementary)), std::move(clear),
            std::move(supplementary)};
  }
};

}  // namespace linkwash::testing
