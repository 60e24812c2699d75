// Strict Ed25519 checks for everything the program accepts from its update feeds: the trusted key
// files, the detached signature envelope, the acceptance rules for keys and signatures, and the
// two signed messages (the rule feed's manifest and the privacy catalog's payload).
//
// Every check is all-or-nothing and silent: a rejection is just its return value, with no hint of
// which rule failed and no output. All functions are pure and may run on any thread.
//
//   if (!verifyProof(manifestBytes, signatureBytes, keyFileBytes)) keepCurrentRules();
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "base/result.h"

namespace linkwash {

// Trusted public keys: key ID to the key's canonical base64 text, in ascending ID order.
using Keyset = std::map<std::string, std::string>;

inline constexpr std::size_t kMaxKeyFileSize = 4096;
inline constexpr std::size_t kMaxKeysetEntries = 16;
inline constexpr std::size_t kMaxSignatureEnvelopeSize = 2048;
inline constexpr std::size_t kMaxRuleManifestSize = 65536;
inline constexpr std::size_t kMaxCatalogPayloadSize = 32768;

inline constexpr std::string_view kSignatureAlgorithm = "Ed25519";
// Signed ahead of the manifest bytes, so that a manifest signature can never pass for a signature
// over some other document signed with the same key.
inline constexpr std::string_view kRuleManifestSignaturePrefix = "Linkwash rule-manifest v1\n";
inline constexpr std::string_view kSignedRuleFeedRejected =
    "Signed rule feed rejected or unavailable; bundled or last verified rules retained.";

// The detached signature file of both feeds.
struct SignatureEnvelope {
  std::string algorithm;  // "Ed25519"
  std::string keyID;      // 1 to 64 characters of a-z, 0-9 and "-"
  std::string signature;  // canonical base64 of the 64-byte signature, R then S
  bool operator==(const SignatureEnvelope&) const = default;
};

// Parses a trusted key file. Only one exact form is accepted: at most 4096 printable ASCII bytes
// (not even a trailing line break), "{" ... "}", at most 16 comma-separated entries of the form
// "id":"base64" without blanks, IDs of [a-z0-9-]{1,64} in strictly ascending order, each key
// canonical base64 of 32 bytes that passes acceptsPublicPoint. "{}" is an empty key set.
// Nothing on any deviation.
[[nodiscard]] std::optional<Keyset> parseKeyset(std::string_view data);

// Decodes an envelope's JSON: an object whose three members are strings (other members are
// ignored). Says nothing about canonical form; compare with canonical() for that.
[[nodiscard]] std::optional<SignatureEnvelope> decodeSignatureEnvelope(std::string_view bytes);

// The canonical JSON bytes of an envelope: members sorted, no blanks, "/" not escaped. What a
// publisher writes as the signature file.
[[nodiscard]] std::string canonical(const SignatureEnvelope& envelope);

// The point check for public keys and for the R half of signatures: exactly 32 bytes, none of the
// small-order encodings, a canonical y (below 2^255 - 19, sign bit aside), and a y for which the
// curve equation has a non-zero x.
[[nodiscard]] bool acceptsPublicPoint(std::span<const std::uint8_t> bytes);

// True when `bytes` is exactly 32 long and, little-endian, strictly below the group order.
[[nodiscard]] bool isCanonicalScalar(std::span<const std::uint8_t> bytes);

// The envelope steps shared by both feeds: size, canonical JSON, algorithm, key ID, key lookup,
// canonical base64 of key and signature, point and scalar checks, then RFC 8032 verification of
// the signature over `message` with the named key.
[[nodiscard]] bool verifySignatureEnvelope(std::span<const std::uint8_t> message,
                                           std::string_view envelope, const Keyset& keys);

// The message a rule manifest's signature covers: the prefix, then the manifest bytes.
[[nodiscard]] std::string ruleManifestSignedMessage(std::string_view manifest);

// The rule feed's check of a manifest (at most 65536 bytes) against its signature envelope and the
// trusted key file. Fails with kSignedRuleFeedRejected for every rejection.
[[nodiscard]] Result<void> verifyProof(std::string_view manifest, std::string_view envelope,
                                       std::string_view keyFile);

// The signature half of the privacy catalog's check: payload at most 32768 printable ASCII bytes,
// signed as it is. The catalog's own decoding, canonical form and content rules are its reader's.
[[nodiscard]] bool verifyCatalogSignature(std::string_view payload, std::string_view envelope,
                                          std::string_view keyFile);

// The record each signed store keeps of the highest version it ever installed, apart from its
// state so that damage to the state can never reopen a rollback: {"sha256": digest of the
// version text, "version": text}. Reading answers nothing for a missing or damaged record (a
// flipped byte fails the digest, so it can neither raise nor lower the floor).
[[nodiscard]] std::string encodeHighestVersionRecord(std::string_view version);
[[nodiscard]] std::optional<std::string> decodeHighestVersionRecord(std::string_view bytes);

}  // namespace linkwash
