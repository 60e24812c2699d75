// The public point check: fixed vectors, a cross-check against OpenSSL's own point decoding, and
// small-order forgeries that OpenSSL alone would accept but the strict checks refuse.
#include <algorithm>
#include <memory>
#include <optional>
#include <random>
#include <set>

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/provider.h>

#include "core/signing/signature_verification.h"
#include "platform/crypto/sha256.h"
#include "tests/support/test_keys.h"

namespace linkwash {
namespace {

using testing::fromHex;
using testing::kSmallOrderEncodings;
using Encoding = std::array<std::uint8_t, 32>;

Encoding smallY(unsigned value, bool signBit = false) {
  Encoding bytes{};
  bytes[0] = static_cast<std::uint8_t>(value);
  bytes[1] = static_cast<std::uint8_t>(value >> 8);
  if (signBit) bytes[31] |= 0x80;
  return bytes;
}

// p + offset, for offsets from -1024 to 18 (p = 2^255 - 19 is ed ff .. ff 7f, little-endian).
Encoding nearP(int offset, bool signBit = false) {
  Encoding bytes;
  bytes.fill(0xff);
  bytes[0] = 0xed;
  bytes[31] = 0x7f;
  int carry = offset;
  for (auto& byte : bytes) {
    const int sum = byte + carry;
    byte = static_cast<std::uint8_t>(sum & 0xff);
    carry = sum >> 8;  // floor division, also for a borrow
  }
  if (signBit) bytes[31] |= 0x80;
  return bytes;
}

// Tells whether OpenSSL's Ed25519 verification decodes a public key. OpenSSL does not decode the
// key when it is loaded, only inside verification, where a key that does not decode ends the
// call before the SHA-512 digest is fetched. In a library context whose default properties no
// algorithm satisfies, that fetch fails and queues an error, so an error means "decoded".
class OpenSslDecoding {
 public:
  // Nothing when the probe itself could not run.
  std::optional<bool> decodes(std::span<const std::uint8_t> key) {
    if (!provider_ || !EVP_set_default_properties(context_.get(), "")) return std::nullopt;
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> pkey(
        EVP_PKEY_new_raw_public_key_ex(context_.get(), "ED25519", nullptr, key.data(), key.size()),
        EVP_PKEY_free);
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    if (!pkey || !ctx ||
        EVP_DigestVerifyInit_ex(ctx.get(), nullptr, nullptr, context_.get(), nullptr, pkey.get(),
                                nullptr) != 1 ||
        !EVP_set_default_properties(context_.get(), "linkwash.unsatisfiable=yes")) {
      return std::nullopt;
    }
    ERR_clear_error();
    const std::uint8_t signature[64] = {};  // S = 0 passes OpenSSL's scalar check
    const std::uint8_t message[1] = {'m'};
    if (EVP_DigestVerify(ctx.get(), signature, sizeof signature, message, sizeof message) == 1) {
      return std::nullopt;
    }
    const bool fetched = ERR_peek_error() != 0;
    ERR_clear_error();
    return fetched;
  }

 private:
  // Declared in this order so that the provider is unloaded before its context goes.
  std::unique_ptr<OSSL_LIB_CTX, decltype(&OSSL_LIB_CTX_free)> context_{OSSL_LIB_CTX_new(),
                                                                       OSSL_LIB_CTX_free};
  std::unique_ptr<OSSL_PROVIDER, decltype(&OSSL_PROVIDER_unload)> provider_{
      context_ ? OSSL_PROVIDER_load(context_.get(), "default") : nullptr, OSSL_PROVIDER_unload};
};

// Encodings refused on purpose although they may decode: small order, x = 0 and y >= p.
bool refusedOnPurpose(const Encoding& bytes) {
  if (std::find(kSmallOrderEncodings.begin(), kSmallOrderEncodings.end(), hexLower(bytes)) !=
      kSmallOrderEncodings.end()) {
    return true;
  }
  Encoding y = bytes;
  y[31] &= 0x7f;
  const Encoding pMinusOne = nearP(-1);  // x = 0, as for y = 1; above it y >= p
  return y == smallY(1) ||
         !std::lexicographical_compare(y.rbegin(), y.rend(), pMinusOne.rbegin(), pMinusOne.rend());
}

TEST(PointCheckTest, RefusesXZeroAndEverySpellingOfYAtOrAboveP) {
  for (bool sign : {false, true}) {
    for (int offset = -1; offset <= 18; ++offset) {  // p - 1 has x = 0, as has y = 1
      EXPECT_FALSE(acceptsPublicPoint(nearP(offset, sign))) << offset;
    }
    EXPECT_FALSE(acceptsPublicPoint(smallY(1, sign)));
    EXPECT_FALSE(acceptsPublicPoint(smallY(2, sign)));  // u/v not a square
    // y = 3 and y = -3 decode; membership of the prime-order subgroup is not part of the check.
    EXPECT_TRUE(acceptsPublicPoint(smallY(3, sign)) && acceptsPublicPoint(nearP(-3, sign)));
  }
  EXPECT_FALSE(acceptsPublicPoint(Bytes(31, 3)) || acceptsPublicPoint(Bytes(33, 3)));
}

TEST(PointCheckTest, AcceptsExactlyWhatOpenSslDecodesBarTheRefusalsOnPurpose) {
  OpenSslDecoding openssl;
  ASSERT_EQ(openssl.decodes(testing::seededKey(1).publicKey()), true);
  ASSERT_EQ(openssl.decodes(smallY(2)), false);

  // Both ends of the y range, where the canonical and x = 0 rules bite, then random encodings.
  std::vector<Encoding> encodings;
  for (bool sign : {false, true}) {
    for (unsigned y = 0; y < 256; ++y) encodings.push_back(smallY(y, sign));
    for (int offset = -256; offset <= 18; ++offset) encodings.push_back(nearP(offset, sign));
  }
  for (std::string_view hex : kSmallOrderEncodings) {
    const auto decoded = fromHex(hex);
    std::copy(decoded.begin(), decoded.end(), encodings.emplace_back().begin());
  }
  const std::size_t edgeCount = encodings.size();
  std::mt19937_64 random(20260314);
  for (int i = 0; i < 4000; ++i) {
    for (auto& byte : encodings.emplace_back()) byte = static_cast<std::uint8_t>(random());
  }

  std::size_t randomAccepted = 0;
  std::set<Encoding> onPurposeDecoded;
  for (std::size_t i = 0; i < encodings.size(); ++i) {
    const auto theirs = openssl.decodes(encodings[i]);
    ASSERT_TRUE(theirs.has_value());
    const bool ours = acceptsPublicPoint(encodings[i]);
    EXPECT_EQ(ours, *theirs && !refusedOnPurpose(encodings[i])) << hexLower(encodings[i]);
    if (i >= edgeCount && ours) ++randomAccepted;
    if (*theirs && refusedOnPurpose(encodings[i])) onPurposeDecoded.insert(encodings[i]);
  }
  // About half of all y have a point; a far smaller share would point at a broken square test.
  EXPECT_GT(randomAccepted, 1800u);
  EXPECT_LT(randomAccepted, 2200u);
  // OpenSSL decodes all 8 small-order encodings, both x = 0 and 24 of the y >= p spellings.
  EXPECT_EQ(onPurposeDecoded.size(), 8u + 2u + 24u);
}

// --- Forgeries that standard verification accepts ---------------------------------------------

using BnPtr = std::unique_ptr<BIGNUM, decltype(&BN_free)>;

BnPtr number(std::span<const std::uint8_t> littleEndian) {
  return {BN_lebin2bn(littleEndian.data(), static_cast<int>(littleEndian.size()), nullptr),
          BN_free};
}

Bytes sha512(std::string_view data) {
  Bytes digest(64);
  EVP_Digest(data.data(), data.size(), digest.data(), nullptr, EVP_sha512(), nullptr);
  return digest;
}

// (a * b) mod the group order, as 32 little-endian bytes.
Encoding scalarProduct(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b) {
  std::unique_ptr<BN_CTX, decltype(&BN_CTX_free)> ctx(BN_CTX_new(), BN_CTX_free);
  BnPtr result(BN_new(), BN_free);
  const auto order = fromHex("edd3f55c1a631258d69cf7a2def9de1400000000000000000000000000000010");
  BN_mod_mul(result.get(), number(a).get(), number(b).get(), number(order).get(), ctx.get());
  Encoding bytes{};
  BN_bn2lebinpad(result.get(), bytes.data(), static_cast<int>(bytes.size()));
  return bytes;
}

// The secret scalar behind a key's seed, as RFC 8032 derives it.
Bytes secretScalar(const Ed25519SigningKey& key) {
  Bytes half = sha512({reinterpret_cast<const char*>(key.seed().data()), key.seed().size()});
  half.resize(32);
  half[0] &= 248;
  half[31] = (half[31] & 127) | 64;
  return half;
}

// The challenge k = SHA-512(R || A || M), reduced modulo the group order as verifiers do.
Encoding challenge(std::span<const std::uint8_t> r, std::span<const std::uint8_t> a,
                   std::string_view message) {
  std::string input(r.begin(), r.end());
  input.append(a.begin(), a.end()).append(message);
  return scalarProduct(sha512(input), Bytes{1});
}

bool strictlyVerifies(std::span<const std::uint8_t> key, std::string_view message,
                      std::span<const std::uint8_t> signature) {
  const std::span<const std::uint8_t> bytes{reinterpret_cast<const std::uint8_t*>(message.data()),
                                            message.size()};
  return verifySignatureEnvelope(bytes, canonical(testing::envelopeFor(signature)),
                                 {{"k1", base64Encode(key)}});
}

TEST(StrictChecksTest, RefusesForgeriesThatStandardVerificationAccepts) {
  // With A of small order, [k]A vanishes whenever 8 divides k, and then R = [s]B, S = s verifies
  // for every such message without any private key for A.
  const auto helper = testing::seededKey(40);
  const Encoding s = scalarProduct(secretScalar(helper), Bytes{1});
  Bytes signature(helper.publicKey().begin(), helper.publicKey().end());
  signature.insert(signature.end(), s.begin(), s.end());
  for (std::string_view hex : kSmallOrderEncodings) {
    const Bytes key = fromHex(hex);
    std::string message;
    for (int counter = 0; counter < 1000; ++counter) {
      message = "forged release " + std::to_string(counter);
      if ((challenge(helper.publicKey(), key, message)[0] & 7) == 0) break;
    }
    ASSERT_TRUE(ed25519Verify(key, message, signature)) << hex;
    EXPECT_FALSE(strictlyVerifies(key, message, signature)) << hex;
  }

  // With R the identity and S = k * a, the verifier's [S]B - [k]A is the identity again.
  const auto key = testing::seededKey(41);
  const std::string message = "Linkwash rule-manifest v1\n{}";
  Bytes identityR = fromHex(kSmallOrderEncodings[0]);
  const Encoding k = challenge(identityR, key.publicKey(), message);
  const Encoding ka = scalarProduct(k, secretScalar(key));
  identityR.insert(identityR.end(), ka.begin(), ka.end());
  ASSERT_TRUE(ed25519Verify(key.publicKey(), message, identityR));
  EXPECT_FALSE(strictlyVerifies(key.publicKey(), message, identityR));
  // The same key and message with an honest signature pass, so only R made the difference.
  EXPECT_TRUE(strictlyVerifies(key.publicKey(), message, *key.sign(message)));
}

}  // namespace
}  // namespace linkwash
