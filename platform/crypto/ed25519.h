// Ed25519 (RFC 8032) through OpenSSL: plain verification for the update checks, and key
// generation and signing for the tests and for whoever publishes signed releases.
//
// Verification here is only the standard algorithm; the stricter acceptance rules for keys and
// signatures are applied by the callers before they get here.
//
//   auto key = Ed25519SigningKey::generate();
//   auto signature = key->sign(message);
//   bool ok = ed25519Verify(key->publicKey(), message, *signature);
//
// All functions are thread-safe and leave OpenSSL's error queue as they found it.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace linkwash {

inline constexpr std::size_t kEd25519PublicKeySize = 32;
inline constexpr std::size_t kEd25519SeedSize = 32;
inline constexpr std::size_t kEd25519SignatureSize = 64;

using Ed25519PublicKey = std::array<std::uint8_t, kEd25519PublicKeySize>;
using Ed25519Seed = std::array<std::uint8_t, kEd25519SeedSize>;
using Ed25519Signature = std::array<std::uint8_t, kEd25519SignatureSize>;

// True when OpenSSL takes `key` as a raw Ed25519 public key (32 bytes). OpenSSL does not decode
// the point here; an undecodable key fails later, in verification.
[[nodiscard]] bool ed25519AcceptsPublicKey(std::span<const std::uint8_t> key);

// Standard RFC 8032 verification of `signature` (R then S) over `message`. False on any failure,
// including wrong sizes.
[[nodiscard]] bool ed25519Verify(std::span<const std::uint8_t> publicKey,
                                 std::span<const std::uint8_t> message,
                                 std::span<const std::uint8_t> signature);
[[nodiscard]] bool ed25519Verify(std::span<const std::uint8_t> publicKey, std::string_view message,
                                 std::span<const std::uint8_t> signature);

// A private key (the 32-byte seed of RFC 8032) with its public key. The seed is wiped when the
// object goes away.
class Ed25519SigningKey {
 public:
  // A fresh key from OpenSSL's random generator; nothing if OpenSSL fails.
  [[nodiscard]] static std::optional<Ed25519SigningKey> generate();
  // The key for a stored seed; nothing unless `seed` is 32 bytes.
  [[nodiscard]] static std::optional<Ed25519SigningKey> fromSeed(
      std::span<const std::uint8_t> seed);

  Ed25519SigningKey(const Ed25519SigningKey&) = default;
  Ed25519SigningKey& operator=(const Ed25519SigningKey&) = default;
  ~Ed25519SigningKey();

  const Ed25519Seed& seed() const { return seed_; }
  const Ed25519PublicKey& publicKey() const { return publicKey_; }

  // The deterministic RFC 8032 signature of `message`; nothing if OpenSSL fails.
  [[nodiscard]] std::optional<Ed25519Signature> sign(std::span<const std::uint8_t> message) const;
  [[nodiscard]] std::optional<Ed25519Signature> sign(std::string_view message) const;

 private:
  Ed25519SigningKey(const Ed25519Seed& seed, const Ed25519PublicKey& publicKey)
      : seed_(seed), publicKey_(publicKey) {}

  Ed25519Seed seed_{};
  Ed25519PublicKey publicKey_{};
};

}  // namespace linkwash
