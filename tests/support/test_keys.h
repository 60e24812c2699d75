// Keys, key files and envelopes for the signature tests, made with real Ed25519 keys.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "core/signing/signature_verification.h"
#include "platform/crypto/base64.h"
#include "platform/crypto/ed25519.h"

namespace linkwash::testing {

inline std::vector<std::uint8_t> fromHex(std::string_view hex) {
  std::vector<std::uint8_t> bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(static_cast<std::uint8_t>(std::stoi(std::string(hex.substr(i, 2)), 0, 16)));
  }
  return bytes;
}

// A fixed key per number, so failures reproduce.
inline Ed25519SigningKey seededKey(std::uint8_t number) {
  Ed25519Seed seed{};
  seed.fill(number);
  return *Ed25519SigningKey::fromSeed(seed);
}

inline std::string keyEntry(std::string_view id, std::span<const std::uint8_t> key) {
  return "\"" + std::string(id) + "\":\"" + base64Encode(key) + "\"";
}

inline std::string keyFile(const std::vector<std::string>& entries) {
  std::string text = "{";
  for (std::size_t i = 0; i < entries.size(); ++i) text += (i ? "," : "") + entries[i];
  return text + "}";
}

inline SignatureEnvelope envelopeFor(std::span<const std::uint8_t> signature,
                                     std::string keyId = "k1") {
  return {std::string(kSignatureAlgorithm), std::move(keyId), base64Encode(signature)};
}

inline std::string signedEnvelope(const Ed25519SigningKey& key, std::string_view message,
                                  std::string keyId = "k1") {
  return canonical(envelopeFor(*key.sign(message), std::move(keyId)));
}

// Sets the lowest unused bit of base64 text's last character: the same bytes, spelled differently.
inline std::string withUnusedBitSet(std::string text) {
  static constexpr std::string_view kAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const std::size_t last = text.find_last_not_of('=');
  text[last] = kAlphabet[kAlphabet.find(text[last]) | 1];
  return text;
}

// The eight small-order encodings every check must refuse.
inline constexpr std::array<std::string_view, 8> kSmallOrderEncodings = {
    "0100000000000000000000000000000000000000000000000000000000000000",
    "c7176a703d4dd84fba3c0b760d10670f2a2053fa2c39ccc64ec7fd7792ac037a",
    "0000000000000000000000000000000000000000000000000000000000000080",
    "26e8958fc2b227b045c3f489f2ef98f0d5dfac05d3c63339b13802886d53fc05",
    "ecffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
    "26e8958fc2b227b045c3f489f2ef98f0d5dfac05d3c63339b13802886d53fc85",
    "0000000000000000000000000000000000000000000000000000000000000000",
    "c7176a703d4dd84fba3c0b760d10670f2a2053fa2c39ccc64ec7fd7792ac03fa",
};

}  // namespace linkwash::testing
