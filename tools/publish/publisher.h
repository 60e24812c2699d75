// The maker's side of the signed rule feed: signing keys, signed rule releases laid out as the
// HTTPS server must serve them, and the check of a published tree exactly as the app makes it.
//
// A published tree is the folder served as https://<host>/linkwash/rules/:
//   manifest.json, manifest.sig              the stable channel
//   beta/manifest.json, beta/manifest.sig    the beta channel
//   <version>/data.min.json, <version>/linkwash-supplementary.json
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "base/result.h"
#include "core/updates/rule_update_manifest.h"
#include "platform/crypto/ed25519.h"

namespace linkwash::publish {

struct KeygenOptions {
  std::filesystem::path out;
  std::string keyId;
  bool force = false;  // allow a path inside a git work tree
};

// Writes a fresh private key (mode 0600, never over an existing file, not inside a git work tree
// unless forced) and returns the public key-file entry "id":"base64".
Result<std::string> generateKey(const KeygenOptions& options);

// A default key ID for a new key: "rules-" and today's UTC date ("rules-20260314").
std::string defaultKeyId();

// Reads a private key file written by `keygen` and checks that it holds key `keyId`.
Result<Ed25519SigningKey> readPrivateKey(const std::filesystem::path& path, std::string_view keyId);

struct SignOptions {
  std::filesystem::path key;
  std::string keyId;
  std::filesystem::path rules;
  std::optional<std::filesystem::path> supplementary;  // default: the shipped one
  std::string version;
  std::filesystem::path out;
  RuleUpdateChannel channel = RuleUpdateChannel::stable;
  std::string host;
  std::vector<std::string> notes;
  std::optional<std::string> minAppVersion;
  std::optional<Timestamp> publishedAt;  // default: now
};

struct SignedRelease {
  RuleUpdateManifest manifest;
  std::vector<std::filesystem::path> written;
};

// Validates the rule files, writes the release's files and the channel's manifest and signature
// into `out`, and checks the result as the app would before returning.
Result<SignedRelease> signRules(const SignOptions& options);

struct VerifyOptions {
  std::filesystem::path dir;
  std::filesystem::path keys;
  RuleUpdateChannel channel = RuleUpdateChannel::stable;
  std::string host;
};

// Checks the channel's manifest and signature, the files they name and the rules in them; the
// error says which step failed.
Result<RuleUpdateManifest> verifyTree(const VerifyOptions& options);

}  // namespace linkwash::publish
