// The public point check: fixed vectors, a cross-check against OpenSSL's own point decoding, and
// small-order forgeries that OpenSSL alone would accept but the strict checks refuse.
#include <algorithm>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/provider.h>

#include "core/updates/signature_verification.h"
#include "platform/crypto/sha256.h"
#include "tests/core/updates/test_keys.h"

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

TEST(PointCheckTest, FixedVectors) {
  for (std::string_view hex : kSmallOrderEncodings) EXPECT_FALSE(acceptsPublicPoint(fromHex(hex)));
  for (bool sign : {false, true}) {
    // Every spelling of y at or above p.
    for (int offset = 0; offset <= 18; ++offset) {
      EXPECT_FALSE(acceptsPublicPoint(nearP(offset, sign)));
    }
    EXPECT_FALSE(acceptsPublicPoint(smallY(1, sign)));  // x = 0: identity, either sign
    EXPECT_FALSE(acceptsPublicPoint(nearP(-1, sign)));  // x = 0: order two, either sign
    EXPECT_FALSE(acceptsPublicPoint(smallY(2, sign)));  // u/v not a square
    // y = 3 and y = -3 decode; membership of the prime-order subgroup is not part of the check.
    EXPECT_TRUE(acceptsPublicPoint(smallY(3, sign)));
    EXPECT_TRUE(acceptsPublicPoint(nearP(-3, sign)));
  }
  for (std::uint8_t number = 1; number < 20; ++number) {
    auto key = testing::seededKey(number).publicKey();
    EXPECT_TRUE(acceptsPublicPoint(key));
    key[31] ^= 0x80;  // the negated point
    EXPECT_TRUE(acceptsPublicPoint(key));
  }
  EXPECT_FALSE(acceptsPublicPoint(Bytes(31, 3)));
  EXPECT_FALSE(acceptsPublicPoint(Bytes(33, 3)));
  EXPECT_FALSE(acceptsPublicPoint(Bytes{}));
}

// Tells whether OpenSSL's Ed25519 verification decodes a public key. OpenSSL does not decode the
// key when it is loaded, only inside verification, where a key that does not decode ends the
// call before the SHA-512 digest is fetched. In a library context whose default properties no
// algorithm satisfies, that fetch fails and queues an error, so an error means "decoded".
class OpenSslDecoding {
 public:
  OpenSslDecoding() : context_(OSSL_LIB_CTX_new()) {
    provider_ = context_ ? OSSL_PROVIDER_load(context_, "default") : nullptr;
  }
  ~OpenSslDecoding() {
    if (provider_) OSSL_PROVIDER_unload(provider_);
    OSSL_LIB_CTX_free(context_);
  }
  OpenSslDecoding(const OpenSslDecoding&) = delete;
  OpenSslDecoding& operator=(const OpenSslDecoding&) = delete;

  // Nothing when the probe itself could not run.
  std::optional<bool> decodes(std::span<const std::uint8_t> key) {
    if (!provider_ || !EVP_set_default_properties(context_, "")) return std::nullopt;
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> pkey(
        EVP_PKEY_new_raw_public_key_ex(context_, "ED25519", nullptr, key.data(), key.size()),
        EVP_PKEY_free);
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    if (!pkey || !ctx ||
        EVP_DigestVerifyInit_ex(ctx.get(), nullptr, nullptr, context_, nullptr, pkey.get(),
                                nullptr) != 1 ||
        !EVP_set_default_properties(context_, "linkwash.unsatisfiable=yes")) {
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
  OSSL_LIB_CTX* context_;
  OSSL_PROVIDER* provider_ = nullptr;
};

// Why we refuse an encoding that OpenSSL decodes; nothing when there is no known reason.
std::optional<std::string> deliberateRefusal(const Encoding& bytes) {
  const std::string hex = hexLower(bytes);
  if (std::find(kSmallOrderEncodings.begin(), kSmallOrderEncodings.end(), hex) !=
      kSmallOrderEncodings.end()) {
    return "small order";
  }
  Encoding y = bytes;
  y[31] &= 0x7f;
  if (y == smallY(1) || y == nearP(-1)) return "x = 0";
  for (int offset = 0; offset <= 18; ++offset) {
    if (y == nearP(offset)) return "y >= p";
  }
  return std::nullopt;
}

TEST(PointCheckTest, AcceptsOnlyWhatOpenSslDecodesAndRefusesMoreOnlyOnPurpose) {
  OpenSslDecoding openssl;
  ASSERT_EQ(openssl.decodes(testing::seededKey(1).publicKey()), true);
  ASSERT_EQ(openssl.decodes(smallY(2)), false);

  std::vector<Encoding> encodings;
  for (bool sign : {false, true}) {
    for (unsigned y = 0; y < 1024; ++y) encodings.push_back(smallY(y, sign));
    for (int offset = -1024; offset <= 18; ++offset) encodings.push_back(nearP(offset, sign));
  }
  for (std::string_view hex : kSmallOrderEncodings) {
    Encoding bytes;
    const auto decoded = fromHex(hex);
    std::copy(decoded.begin(), decoded.end(), bytes.begin());
    encodings.push_back(bytes);
  }
  const std::size_t edgeCount = encodings.size();
  std::mt19937_64 random(20260314);
  for (int i = 0; i < 20000; ++i) {
    Encoding bytes;
    for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random());
    encodings.push_back(bytes);
  }

  std::size_t accepted = 0;
  std::size_t randomAccepted = 0;
  std::size_t randomDecoded = 0;
  std::map<std::string, std::set<Encoding>> deliberate;
  for (std::size_t i = 0; i < encodings.size(); ++i) {
    const auto& bytes = encodings[i];
    const bool ours = acceptsPublicPoint(bytes);
    const auto theirs = openssl.decodes(bytes);
    ASSERT_TRUE(theirs.has_value());
    if (i >= edgeCount && *theirs) ++randomDecoded;
    if (ours) {
      ++accepted;
      if (i >= edgeCount) ++randomAccepted;
      EXPECT_TRUE(*theirs) << "we accept what OpenSSL cannot decode: " << hexLower(bytes);
    } else if (*theirs) {
      const auto reason = deliberateRefusal(bytes);
      ASSERT_TRUE(reason) << "refused without a known reason: " << hexLower(bytes);
      deliberate[*reason].insert(bytes);
    }
  }
  // About half of all y have a point; a far smaller share would point at a broken square test.
  EXPECT_GT(randomAccepted, 9000u);
  EXPECT_LT(randomAccepted, 11000u);
  EXPECT_EQ(randomAccepted, randomDecoded);
  // Every small-order encoding and both x = 0 spellings decode in OpenSSL: refused on purpose.
  EXPECT_EQ(deliberate["small order"].size(), 8u);
  EXPECT_EQ(deliberate["x = 0"].size(), 2u);
  std::string summary = "accepted " + std::to_string(accepted) + " of " +
                        std::to_string(encodings.size()) + "; refused though OpenSSL decodes:";
  for (const auto& [reason, refused] : deliberate) {
    summary += " " + reason + " " + std::to_string(refused.size());
  }
  RecordProperty("summary", summary);
  std::cout << summary << "\n";
}

// --- Forgeries that standard verification accepts ---------------------------------------------

struct BnDeleter {
  void operator()(BIGNUM* value) const { BN_free(value); }
};
using BnPtr = std::unique_ptr<BIGNUM, BnDeleter>;

const Bytes kGroupOrder =
    fromHex("edd3f55c1a631258d69cf7a2def9de1400000000000000000000000000000010");

Bytes sha512(std::span<const std::uint8_t> data) {
  Bytes digest(64);
  unsigned int length = 0;
  EVP_Digest(data.data(), data.size(), digest.data(), &length, EVP_sha512(), nullptr);
  return digest;
}

BnPtr littleEndianNumber(std::span<const std::uint8_t> bytes) {
  return BnPtr(BN_lebin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr));
}

// (a * b) mod the group order, as 32 little-endian bytes.
Encoding scalarProduct(const BIGNUM* a, const BIGNUM* b) {
  std::unique_ptr<BN_CTX, decltype(&BN_CTX_free)> ctx(BN_CTX_new(), BN_CTX_free);
  BnPtr result(BN_new());
  BnPtr order = littleEndianNumber(kGroupOrder);
  BN_mod_mul(result.get(), a, b, order.get(), ctx.get());
  Encoding bytes{};
  BN_bn2lebinpad(result.get(), bytes.data(), static_cast<int>(bytes.size()));
  return bytes;
}

// The secret scalar behind a seed, as RFC 8032 derives it.
BnPtr secretScalar(const Ed25519Seed& seed) {
  Bytes half = sha512(seed);
  half.resize(32);
  half[0] &= 248;
  half[31] &= 127;
  half[31] |= 64;
  return littleEndianNumber(half);
}

BnPtr numberOne() {
  BnPtr one(BN_new());
  BN_one(one.get());
  return one;
}

// The challenge k = SHA-512(R || A || M), reduced modulo the group order as verifiers do.
Encoding challenge(std::span<const std::uint8_t> r, std::span<const std::uint8_t> a,
                   std::string_view message) {
  Bytes input(r.begin(), r.end());
  input.insert(input.end(), a.begin(), a.end());
  input.insert(input.end(), message.begin(), message.end());
  return scalarProduct(littleEndianNumber(sha512(input)).get(), numberOne().get());
}

Keyset keysetOf(std::span<const std::uint8_t> key) { return {{"k1", base64Encode(key)}}; }

TEST(StrictChecksTest, RefusesSmallOrderKeysThatVerifyForgedSignatures) {
  // With A of small order, [k]A vanishes whenever 8 divides k, and then R = [s]B, S = s verifies
  // for every such message without any private key for A.
  const auto helper = testing::seededKey(40);
  const Encoding s = scalarProduct(secretScalar(helper.seed()).get(), numberOne().get());
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
    EXPECT_FALSE(verifySignatureEnvelope(testing::toSpan(message),
                                         canonical(testing::envelopeFor(signature)), keysetOf(key)))
        << hex;
  }
}

TEST(StrictChecksTest, RefusesAnIdentityRThatVerifies) {
  // With R the identity and S = k * a, the verifier's [S]B - [k]A is the identity again.
  const auto key = testing::seededKey(41);
  const std::string message = "Linkwash rule-manifest v1\n{}";
  const Bytes identity = fromHex(kSmallOrderEncodings[0]);
  const Encoding k = challenge(identity, key.publicKey(), message);
  const Encoding s = scalarProduct(littleEndianNumber(k).get(), secretScalar(key.seed()).get());
  Bytes signature = identity;
  signature.insert(signature.end(), s.begin(), s.end());

  ASSERT_TRUE(ed25519Verify(key.publicKey(), message, signature));
  EXPECT_FALSE(verifySignatureEnvelope(testing::toSpan(message),
                                       canonical(testing::envelopeFor(signature)),
                                       keysetOf(key.publicKey())));
  // The same key and message with an honest signature pass, so only R made the difference.
  EXPECT_TRUE(verifySignatureEnvelope(testing::toSpan(message),
                                      canonical(testing::envelopeFor(*key.sign(message))),
                                      keysetOf(key.publicKey())));
}

}  // namespace
}  // namespace linkwash
