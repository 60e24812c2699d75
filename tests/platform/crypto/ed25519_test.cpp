// Ed25519 over OpenSSL: the RFC 8032 test vectors, signing round trips and refusals.
#include "platform/crypto/ed25519.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/err.h>

#include "platform/crypto/sha256.h"

namespace linkwash {
namespace {

std::vector<std::uint8_t> fromHex(std::string_view hex) {
  std::vector<std::uint8_t> bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(
        static_cast<std::uint8_t>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
  }
  return bytes;
}

struct Rfc8032Vector {
  std::string_view seed, publicKey, message, signature;
};

// RFC 8032, section 7.1, tests 1 to 3.
constexpr Rfc8032Vector kRfc8032Vectors[] = {
    {"9d61b19deffd5a60ba844af492ec2cc44449c5697b326919703bac031cae7f60",
     "d75a980182b10ab7d54bfed3c964073a0ee172f3daa62325af021a68f707511a", "",
     "e5564300c360ac729086e2cc806e828a84877f1eb8e5d974d873e06522490155"
     "5fb8821590a33bacc61e39701cf9b46bd25bf5f0595bbe24655141438e7a100b"},
    {"4ccd089b28ff96da9db6c346ec114e0f5b8a319f35aba624da8cf6ed4fb8a6fb",
     "3d4017c3e843895a92b70aa74d1b7ebc9c982ccf2ec4968cc0cd55f12af4660c", "72",
     "92a009a9f0d4cab8720e820b5f642540a2b27b5416503f8fb3762223ebdb69da"
     "085ac1e43e15996e458f3613d0f11d8c387b2eaeb4302aeeb00d291612bb0c00"},
    {"c5aa8df43f9f837bedb7442f31dcb7b166d38535076f094b85ce3a2e0b4458f7",
     "fc51cd8e6218a1a38da47ed00230f0580816ed13ba3303ac5deb911548908025", "af82",
     "6291d657deec24024827e69c3abe01a30ce548a284743a445e3680d7db5ac3ac"
     "18ff9b538d16f290ae67f760984dc6594a7c15e9716ed28dc027beceea1ec40a"},
};

TEST(Ed25519Test, Rfc8032VectorsDeriveSignAndVerify) {
  for (const auto& vector : kRfc8032Vectors) {
    const auto key = Ed25519SigningKey::fromSeed(fromHex(vector.seed));
    ASSERT_TRUE(key);
    EXPECT_EQ(hexLower(key->publicKey()), vector.publicKey);
    const auto message = fromHex(vector.message);
    const auto signature = key->sign(message);
    ASSERT_TRUE(signature);
    EXPECT_EQ(hexLower(*signature), vector.signature);
    EXPECT_TRUE(ed25519Verify(fromHex(vector.publicKey), message, fromHex(vector.signature)));
  }
}

TEST(Ed25519Test, VerifyRefusesAnyChangeAndWrongSizes) {
  const auto& vector = kRfc8032Vectors[2];
  const auto key = fromHex(vector.publicKey);
  const auto message = fromHex(vector.message);
  const auto signature = fromHex(vector.signature);
  ASSERT_TRUE(ed25519Verify(key, message, signature));

  for (std::size_t i = 0; i < signature.size(); ++i) {
    auto changed = signature;
    changed[i] ^= 0x01;
    EXPECT_FALSE(ed25519Verify(key, message, changed)) << "signature byte " << i;
  }
  auto changedKey = key;
  changedKey[0] ^= 0x01;
  EXPECT_FALSE(ed25519Verify(changedKey, message, signature));
  EXPECT_FALSE(ed25519Verify(key, fromHex("af83"), signature));
  EXPECT_FALSE(ed25519Verify(key, fromHex("af8200"), signature));

  EXPECT_FALSE(ed25519Verify(std::span(key).first(31), message, signature));
  EXPECT_FALSE(ed25519Verify(key, message, std::span(signature).first(63)));
  auto longer = signature;
  longer.push_back(0);
  EXPECT_FALSE(ed25519Verify(key, message, longer));
  EXPECT_FALSE(ed25519AcceptsPublicKey(std::span(key).first(31)));
  EXPECT_TRUE(ed25519AcceptsPublicKey(key));
}

TEST(Ed25519Test, GeneratedKeysSignWhatTheyVerifyAndReloadFromTheirSeed) {
  const auto first = Ed25519SigningKey::generate();
  const auto second = Ed25519SigningKey::generate();
  ASSERT_TRUE(first && second);
  EXPECT_NE(first->publicKey(), second->publicKey());

  const std::string message = "Linkwash rule-manifest v1\n{}";
  const auto signature = first->sign(message);
  ASSERT_TRUE(signature);
  EXPECT_TRUE(ed25519Verify(first->publicKey(), message, *signature));
  EXPECT_FALSE(ed25519Verify(second->publicKey(), message, *signature));

  const auto reloaded = Ed25519SigningKey::fromSeed(first->seed());
  ASSERT_TRUE(reloaded);
  EXPECT_EQ(reloaded->publicKey(), first->publicKey());
  EXPECT_EQ(reloaded->sign(message), signature);
  EXPECT_FALSE(Ed25519SigningKey::fromSeed(std::span(first->seed()).first(31)));
}

TEST(Ed25519Test, RefusalsLeaveNoErrorsQueuedForOtherOpenSslUsers) {
  ERR_clear_error();
  const std::vector<std::uint8_t> undecodable(32, 0x02);  // y = 2 is not on the curve
  EXPECT_FALSE(ed25519Verify(undecodable, std::string_view("m"), std::vector<std::uint8_t>(64)));
  EXPECT_FALSE(Ed25519SigningKey::fromSeed(std::vector<std::uint8_t>(5)));
  EXPECT_EQ(ERR_peek_error(), 0u);
}

}  // namespace
}  // namespace linkwash
