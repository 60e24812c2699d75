// The strict key-file parser, envelope canonical form, scalar rule and the two signed messages.
#include "core/signing/signature_verification.h"

#include <gtest/gtest.h>

#include "platform/crypto/sha256.h"
#include "tests/support/test_keys.h"

namespace linkwash {
namespace {

using testing::envelopeFor;
using testing::fromHex;
using testing::keyEntry;
using testing::keyFile;
using testing::seededKey;
using testing::signedEnvelope;

const std::string kManifest = R"({"channel":"stable","version":"2026.03.14"})";

TEST(KeysetTest, AcceptsOnlyTheExactFormOfUpToSixteenSortedEntries) {
  const auto keyA = seededKey(1).publicKey(), keyB = seededKey(2).publicKey();
  const std::string a = keyEntry("a", keyA), b = keyEntry("b", keyB), aKey = base64Encode(keyA);
  EXPECT_EQ(parseKeyset("{}"), Keyset{});
  EXPECT_EQ(parseKeyset(keyFile({a, b})), (Keyset{{"a", aKey}, {"b", base64Encode(keyB)}}));
  EXPECT_TRUE(parseKeyset(keyFile({keyEntry("0-9", keyA), keyEntry(std::string(64, 'z'), keyA)})));
  std::vector<std::string> entries;
  for (std::uint8_t i = 0; i < 17; ++i) {
    entries.push_back(
        keyEntry("key-" + std::string(1, char('a' + i)), seededKey(10 + i).publicKey()));
  }
  EXPECT_FALSE(parseKeyset(keyFile(entries)));
  entries.pop_back();
  EXPECT_EQ(parseKeyset(keyFile(entries)).value_or(Keyset{}).size(), 16u);

  const std::string zeros(62, '0');
  const Bytes y2 = fromHex("02" + zeros), y3 = fromHex("03" + zeros);
  const Bytes aboveP = fromHex("f0" + std::string(60, 'f') + "7f");  // y = p + 3, spelling y = 3
  EXPECT_TRUE(parseKeyset(keyFile({keyEntry("a", y3)})));
  const std::string refused[] = {
      keyFile({a, b}) + "\n", "\n" + keyFile({a, b}), "{\"a\": \"" + aKey + "\"}",
      "{\"a\" :\"" + aKey + "\"}", "{" + a + ", " + b + "}", "{" + a + "\t}",
      keyFile({b, a}),  // descending
      keyFile({a, a}),  // repeated
      "{" + a + ",}", "{,}",
      // IDs: upper case, other characters, too long, empty, non-ASCII.
      keyFile({keyEntry("A", keyA)}), keyFile({keyEntry("a_b", keyA)}),
      keyFile({keyEntry(std::string(65, 'z'), keyA)}), keyFile({keyEntry("", keyA)}),
      keyFile({keyEntry("\xC3\xA9", keyA)}), "{'a':'" + aKey + "'}", "{a:\"" + aKey + "\"}",
      // Keys: 31 bytes, unpadded, 33 bytes, non-canonical base64, y >= p, no x, small order.
      "{\"a\":\"" + aKey.substr(0, 42) + "==\"}", "{\"a\":\"" + aKey.substr(0, 43) + "\"}",
      keyFile({keyEntry("a", Bytes(33, 7))}), "{\"a\":\"" + testing::withUnusedBitSet(aKey) + "\"}",
      keyFile({keyEntry("a", aboveP)}), keyFile({keyEntry("a", y2)}),
      keyFile({keyEntry("a", fromHex(testing::kSmallOrderEncodings[1]))}),
      // Structure.
      "\"a\":\"" + aKey + "\"", "{" + a, "", "[" + a + "]"};
  for (const auto& text : refused) EXPECT_FALSE(parseKeyset(text)) << text;
}

TEST(ScalarTest, OnlyValuesBelowTheGroupOrderAreCanonical) {
  // The group order L is ed d3 .. 14, fifteen zero bytes, then 10 (little-endian).
  const std::string rest = "d3f55c1a631258d69cf7a2def9de14" + std::string(30, '0') + "10";
  const std::pair<std::string, bool> cases[] = {
      {"ed" + rest, false},                                                         // L
      {"ec" + rest, true},                                                          // L - 1
      {"ee" + rest, false},                                                         // L + 1
      {"edd3f55c1a631258d69cf7a2def9de1401" + std::string(28, '0') + "10", false},  // L + 2^128
      {std::string(62, 'f') + "0f", true},                                          // 2^252 - 1
      {std::string(64, '0'), true},
      {std::string(64, 'f'), false},
      {std::string(62, '0'), false},  // 31 bytes
      {std::string(66, '0'), false}};
  for (const auto& [hex, canonical] : cases) {
    EXPECT_EQ(isCanonicalScalar(fromHex(hex)), canonical) << hex;
  }
}

class VerifyProofTest : public ::testing::Test {
 protected:
  Ed25519SigningKey key_ = seededKey(1);
  std::string keys_ = keyFile({keyEntry("k1", key_.publicKey())});
  std::string envelope_ = signedEnvelope(key_, ruleManifestSignedMessage(kManifest));
};

TEST_F(VerifyProofTest, AcceptsAManifestSignedAfterThePrefixByATrustedKey) {
  EXPECT_EQ(ruleManifestSignedMessage("{}"), std::string("Linkwash rule-manifest v1\n{}"));
  EXPECT_TRUE(verifyProof(kManifest, envelope_, keys_));
  // Rotation: the file lists the old and the new key; either verifies its own signature only.
  const auto next = seededKey(2);
  const auto both = keyFile({keyEntry("k1", key_.publicKey()), keyEntry("k2", next.publicKey())});
  const auto message = ruleManifestSignedMessage(kManifest);
  EXPECT_TRUE(verifyProof(kManifest, envelope_, both));
  EXPECT_TRUE(verifyProof(kManifest, signedEnvelope(next, message, "k2"), both));
  EXPECT_FALSE(verifyProof(kManifest, signedEnvelope(next, message, "k1"), both));
  // A broken or empty key file refuses everything.
  for (const std::string& keys : {std::string("{}"), keys_ + "\n", std::string()}) {
    EXPECT_FALSE(verifyProof(kManifest, envelope_, keys)) << keys;
  }
  const std::string largest(kMaxRuleManifestSize, 'x'), tooLarge = largest + "x";
  EXPECT_TRUE(
      verifyProof(largest, signedEnvelope(key_, ruleManifestSignedMessage(largest)), keys_));
  EXPECT_FALSE(
      verifyProof(tooLarge, signedEnvelope(key_, ruleManifestSignedMessage(tooLarge)), keys_));
}

TEST_F(VerifyProofTest, RefusesSignaturesOverAnyOtherMessage) {
  const std::string others[] = {
      kManifest,                                    // no prefix
      "Linkwash rule-manifest v1\r\n" + kManifest,  // CRLF after v1
      "Linkwash rule-manifest v1" + kManifest,      // no line break
      "Linkwash rule-manifest v2\n" + kManifest,
      ruleManifestSignedMessage(kManifest) + "\n",
  };
  for (const auto& message : others) {
    const auto result = verifyProof(kManifest, signedEnvelope(key_, message), keys_);
    ASSERT_FALSE(result) << message;
    EXPECT_EQ(result.error().message, kSignedRuleFeedRejected);
  }
  EXPECT_FALSE(verifyProof(kManifest + " ", envelope_, keys_));
}

TEST_F(VerifyProofTest, RefusesEnvelopesThatAreNotCanonicalOrBreakAFieldRule) {
  const auto signature = *key_.sign(ruleManifestSignedMessage(kManifest));
  auto withField = [&](auto change) {
    auto envelope = envelopeFor(signature);
    change(envelope);
    return canonical(envelope);
  };
  const std::string sig = base64Encode(signature);
  std::string escaped = envelope_;
  for (auto at = escaped.find('/'); at != std::string::npos; at = escaped.find('/', at + 2)) {
    escaped.replace(at, 1, "\\/");
  }
  ASSERT_NE(escaped, envelope_) << "the test key's signature should contain a '/'";
  const std::string decodable[] = {
      R"({"keyID":"k1","algorithm":"Ed25519","signature":")" + sig + "\"}",
      R"({"algorithm": "Ed25519","keyID":"k1","signature":")" + sig + "\"}",
      envelope_ + "\n",
      escaped,
      R"({"algorithm":"Ed25519","extra":1,"keyID":"k1","signature":")" + sig + "\"}",
      R"({"algorithm":"Ed\u0032\u0035519","keyID":"k1","signature":")" + sig + "\"}",
  };
  for (const auto& variant : decodable) {
    EXPECT_TRUE(decodeSignatureEnvelope(variant).has_value()) << variant;
    EXPECT_FALSE(verifyProof(kManifest, variant, keys_)) << variant;
  }
  const std::string broken[] = {
      withField([](SignatureEnvelope& e) { e.algorithm = "ed25519"; }),
      withField([](SignatureEnvelope& e) { e.keyID = "k2"; }),
      withField([](SignatureEnvelope& e) { e.keyID = "K1"; }),
      withField([](SignatureEnvelope& e) { e.keyID = ""; }),
      // Four unused bits at the end of 64 bytes of base64: a second spelling of the signature.
      withField([](SignatureEnvelope& e) { e.signature = testing::withUnusedBitSet(e.signature); }),
      withField([](SignatureEnvelope& e) { e.signature = base64Encode(Bytes(63, 1)); }),
      withField([](SignatureEnvelope& e) { e.signature.pop_back(); }),
      R"({"algorithm":"Ed25519","keyID":"k1"})",
      R"({"algorithm":"Ed25519","keyID":1,"signature":"x"})",
      "[]",
  };
  for (const auto& envelope : broken)
    EXPECT_FALSE(verifyProof(kManifest, envelope, keys_)) << envelope;
  // The untouched envelope still passes, so each refusal above is the changed field's.
  EXPECT_TRUE(verifyProof(kManifest, withField([](SignatureEnvelope&) {}), keys_));
  EXPECT_EQ(canonical(SignatureEnvelope{"Ed25519", "k1", "ab/+=="}),
            R"({"algorithm":"Ed25519","keyID":"k1","signature":"ab/+=="})");
}

TEST(CatalogSignatureTest, SignsThePayloadItselfWithinItsLimits) {
  const auto key = seededKey(3);
  const auto keys = keyFile({keyEntry("c", key.publicKey())});
  auto accepts = [&](const std::string& payload, const std::string& message) {
    return verifyCatalogSignature(payload, signedEnvelope(key, message, "c"), keys);
  };
  const std::string payload = R"({"services":[],"version":3})";
  EXPECT_TRUE(accepts(payload, payload));
  EXPECT_FALSE(accepts(payload, ruleManifestSignedMessage(payload)));
  EXPECT_FALSE(verifyCatalogSignature(payload, signedEnvelope(key, payload, "c"), "{}"));
  // Only printable ASCII, even when correctly signed.
  for (std::string bad : {payload + "\n", payload + "\t", std::string("{\"n\":\"caf\xC3\xA9\"}")}) {
    EXPECT_FALSE(accepts(bad, bad)) << bad;
  }
  const std::string largest(kMaxCatalogPayloadSize, 'x');
  EXPECT_TRUE(accepts(largest, largest));
  EXPECT_FALSE(accepts(largest + "x", largest + "x"));
}

}  // namespace
}  // namespace linkwash
