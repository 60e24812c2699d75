// The strict key-file parser, envelope canonical form, scalar rule and the two signed messages.
#include "core/updates/signature_verification.h"

#include <gtest/gtest.h>

#include "tests/core/updates/test_keys.h"

namespace linkwash {
namespace {

using testing::envelopeFor;
using testing::fromHex;
using testing::keyEntry;
using testing::keyFile;
using testing::seededKey;
using testing::signedEnvelope;

const std::string kManifest = R"({"channel":"stable","version":"2026.03.14"})";

class KeysetTest : public ::testing::Test {
 protected:
  Ed25519SigningKey first_ = seededKey(1);
  Ed25519SigningKey second_ = seededKey(2);
  std::string a_ = keyEntry("a", first_.publicKey());
  std::string b_ = keyEntry("b", second_.publicKey());
};

TEST_F(KeysetTest, AcceptsTheExactFormUpToSixteenSortedEntries) {
  EXPECT_EQ(parseKeyset("{}"), Keyset{});
  EXPECT_EQ(parseKeyset(keyFile({a_, b_})), (Keyset{{"a", base64Encode(first_.publicKey())},
                                                    {"b", base64Encode(second_.publicKey())}}));
  const std::string longId(64, 'z');
  EXPECT_TRUE(parseKeyset(
      keyFile({keyEntry("0-9", first_.publicKey()), keyEntry(longId, second_.publicKey())})));

  std::vector<std::string> entries;
  for (int i = 0; i < 17; ++i) {
    const std::string id = "key-" + std::string(1, static_cast<char>('a' + i));
    entries.push_back(keyEntry(id, seededKey(static_cast<std::uint8_t>(10 + i)).publicKey()));
  }
  const auto seventeen = keyFile(entries);
  entries.pop_back();
  ASSERT_EQ(parseKeyset(keyFile(entries)).value_or(Keyset{}).size(), 16u);
  EXPECT_FALSE(parseKeyset(seventeen));
}

TEST_F(KeysetTest, RefusesEveryDeviationFromTheExactForm) {
  const std::string valid = keyFile({a_, b_});
  ASSERT_TRUE(parseKeyset(valid));
  const std::string aKey = base64Encode(first_.publicKey());
  const std::string aKeyRespelled = testing::withUnusedBitSet(aKey);
  ASSERT_EQ(base64Decode(aKeyRespelled), base64Decode(aKey));
  const std::string cases[] = {
      valid + "\n",
      valid + " ",
      "\n" + valid,
      "{\"a\": \"" + aKey + "\"}",
      "{\"a\" :\"" + aKey + "\"}",
      "{" + a_ + ", " + b_ + "}",
      "{ " + a_ + "}",
      "{" + a_ + "\t}",
      keyFile({b_, a_}),  // descending
      keyFile({a_, a_}),  // repeated
      "{" + a_ + ",}",    // empty entry
      "{," + a_ + "}",
      "{,}",
      "{" + keyEntry("A", first_.publicKey()) + "}",  // upper case ID
      "{" + keyEntry("a_b", first_.publicKey()) + "}",
      "{" + keyEntry(std::string(65, 'z'), first_.publicKey()) + "}",
      "{" + keyEntry("", first_.publicKey()) + "}",
      "{" + keyEntry("\xC3\xA9", first_.publicKey()) + "}",  // non-ASCII
      "{'a':'" + aKey + "'}",
      "{a:\"" + aKey + "\"}",
      "{\"a\":\"" + aKey.substr(0, 42) + "==\"}",        // 31 bytes
      "{\"a\":\"" + aKey.substr(0, 43) + "\"}",          // unpadded
      "{\"a\":\"" + base64Encode(Bytes(33, 7)) + "\"}",  // 33 bytes
      "{\"a\":\"" + aKeyRespelled + "\"}",               // non-canonical base64
      "\"a\":\"" + aKey + "\"",                          // no braces
      "{" + a_,
      a_ + "}",
      "{",
      "",
      "[" + a_ + "]",
  };
  for (const auto& text : cases) EXPECT_FALSE(parseKeyset(text)) << text;
}

TEST_F(KeysetTest, RefusesKeysThatAreNotAcceptablePoints) {
  for (std::string_view hex : testing::kSmallOrderEncodings) {
    EXPECT_FALSE(parseKeyset("{" + keyEntry("a", fromHex(hex)) + "}")) << hex;
  }
  Bytes nonSquare(32, 0);
  nonSquare[0] = 2;  // y = 2 has no x on the curve
  EXPECT_FALSE(parseKeyset("{" + keyEntry("a", nonSquare) + "}"));
  Bytes aboveP(32, 0xff);
  aboveP[0] = 0xf0;  // y = p + 3, a second spelling of y = 3
  aboveP[31] = 0x7f;
  EXPECT_FALSE(parseKeyset("{" + keyEntry("a", aboveP) + "}"));
  Bytes three(32, 0);
  three[0] = 3;
  EXPECT_TRUE(parseKeyset("{" + keyEntry("a", three) + "}"));
}

TEST(ScalarTest, OnlyValuesBelowTheGroupOrderAreCanonical) {
  const auto order = fromHex("edd3f55c1a631258d69cf7a2def9de1400000000000000000000000000000010");
  auto below = order;
  below[0] -= 1;
  auto above = order;
  above[0] += 1;
  auto highByte = order;
  highByte[16] = 1;
  auto justUnderTop = Bytes(32, 0xff);
  justUnderTop[31] = 0x0f;
  EXPECT_FALSE(isCanonicalScalar(order));
  EXPECT_TRUE(isCanonicalScalar(below));
  EXPECT_FALSE(isCanonicalScalar(above));
  EXPECT_FALSE(isCanonicalScalar(highByte));
  EXPECT_TRUE(isCanonicalScalar(justUnderTop));
  EXPECT_TRUE(isCanonicalScalar(Bytes(32, 0)));
  EXPECT_FALSE(isCanonicalScalar(Bytes(32, 0xff)));
  EXPECT_FALSE(isCanonicalScalar(Bytes(31, 0)));
  EXPECT_FALSE(isCanonicalScalar(Bytes(33, 0)));
}

class VerifyProofTest : public ::testing::Test {
 protected:
  Ed25519SigningKey key_ = seededKey(1);
  std::string keys_ = keyFile({keyEntry("k1", key_.publicKey())});
  std::string envelope_ = signedEnvelope(key_, ruleManifestSignedMessage(kManifest));
};

TEST_F(VerifyProofTest, AcceptsAManifestSignedAfterThePrefix) {
  EXPECT_EQ(ruleManifestSignedMessage("{}"), std::string("Linkwash rule-manifest v1\n{}"));
  EXPECT_TRUE(verifyProof(kManifest, envelope_, keys_));

  // Rotation: the file lists the old and the new key; either verifies its own signature.
  const auto next = seededKey(2);
  const auto both = keyFile({keyEntry("k1", key_.publicKey()), keyEntry("k2", next.publicKey())});
  EXPECT_TRUE(verifyProof(kManifest, envelope_, both));
  EXPECT_TRUE(verifyProof(kManifest,
                          signedEnvelope(next, ruleManifestSignedMessage(kManifest), "k2"), both));
  // ...but not under the other key's ID.
  EXPECT_FALSE(verifyProof(kManifest,
                           signedEnvelope(next, ruleManifestSignedMessage(kManifest), "k1"), both));
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

TEST_F(VerifyProofTest, RefusesEnvelopesThatDecodeButAreNotCanonical) {
  const auto decoded = decodeSignatureEnvelope(envelope_);
  ASSERT_TRUE(decoded);
  ASSERT_EQ(canonical(*decoded), envelope_);
  const std::string& sig = decoded->signature;
  std::string escaped = envelope_;
  for (std::size_t at = escaped.find('/'); at != std::string::npos;
       at = escaped.find('/', at + 2)) {
    escaped.replace(at, 1, "\\/");
  }
  ASSERT_NE(escaped, envelope_) << "the test key's signature should contain a '/'";
  const std::string variants[] = {
      R"({"keyID":"k1","algorithm":"Ed25519","signature":")" + sig + "\"}",
      R"({"signature":")" + sig + R"(","keyID":"k1","algorithm":"Ed25519"})",
      R"({"algorithm": "Ed25519","keyID":"k1","signature":")" + sig + "\"}",
      R"({ "algorithm":"Ed25519","keyID":"k1","signature":")" + sig + "\"}",
      "{\n  \"algorithm\" : \"Ed25519\",\n  \"keyID\" : \"k1\",\n  \"signature\" : \"" + sig +
          "\"\n}",
      envelope_ + "\n",
      escaped,
      R"({"algorithm":"Ed25519","extra":1,"keyID":"k1","signature":")" + sig + "\"}",
      R"({"algorithm":"Ed\u0032\u0035519","keyID":"k1","signature":")" + sig + "\"}",
  };
  for (const auto& variant : variants) {
    EXPECT_TRUE(decodeSignatureEnvelope(variant).has_value()) << variant;
    EXPECT_FALSE(verifyProof(kManifest, variant, keys_)) << variant;
  }
  EXPECT_EQ(canonical(SignatureEnvelope{"Ed25519", "k1", "ab/+=="}),
            R"({"algorithm":"Ed25519","keyID":"k1","signature":"ab/+=="})");
}

TEST_F(VerifyProofTest, RefusesEnvelopeFieldsThatBreakARule) {
  const auto signature = *key_.sign(ruleManifestSignedMessage(kManifest));
  auto withField = [&](auto change) {
    auto envelope = envelopeFor(signature);
    change(envelope);
    return canonical(envelope);
  };
  const std::string cases[] = {
      withField([](SignatureEnvelope& e) { e.algorithm = "ed25519"; }),
      withField([](SignatureEnvelope& e) { e.algorithm = "Ed448"; }),
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
      "",
  };
  for (const auto& envelope : cases)
    EXPECT_FALSE(verifyProof(kManifest, envelope, keys_)) << envelope;
  // The untouched envelope still passes, so each refusal above is the changed field's.
  EXPECT_TRUE(verifyProof(kManifest, withField([](SignatureEnvelope&) {}), keys_));
}

TEST_F(VerifyProofTest, ABrokenOrEmptyKeyFileRefusesEveryManifest) {
  EXPECT_FALSE(verifyProof(kManifest, envelope_, "{}"));
  EXPECT_FALSE(verifyProof(kManifest, envelope_, keys_ + "\n"));
  EXPECT_FALSE(verifyProof(kManifest, envelope_, ""));
}

TEST_F(VerifyProofTest, ManifestSizeLimitHoldsEvenForGoodSignatures) {
  const std::string largest(kMaxRuleManifestSize, 'x');
  const std::string tooLarge(kMaxRuleManifestSize + 1, 'x');
  EXPECT_TRUE(
      verifyProof(largest, signedEnvelope(key_, ruleManifestSignedMessage(largest)), keys_));
  EXPECT_FALSE(
      verifyProof(tooLarge, signedEnvelope(key_, ruleManifestSignedMessage(tooLarge)), keys_));
}

TEST(CatalogSignatureTest, SignsThePayloadItselfWithinItsLimits) {
  const auto key = seededKey(3);
  const auto keys = keyFile({keyEntry("catalog-2026", key.publicKey())});
  const std::string payload = R"({"services":[],"version":3})";
  EXPECT_TRUE(verifyCatalogSignature(payload, signedEnvelope(key, payload, "catalog-2026"), keys));
  EXPECT_FALSE(verifyCatalogSignature(
      payload, signedEnvelope(key, ruleManifestSignedMessage(payload), "catalog-2026"), keys));
  EXPECT_FALSE(verifyCatalogSignature(payload, signedEnvelope(key, payload, "catalog-2026"), "{}"));

  // Only printable ASCII, even when correctly signed.
  for (std::string bad :
       {payload + "\n", payload + "\t", std::string("{\"name\":\"caf\xC3\xA9\"}")}) {
    EXPECT_FALSE(verifyCatalogSignature(bad, signedEnvelope(key, bad, "catalog-2026"), keys))
        << bad;
  }
  const std::string largest(kMaxCatalogPayloadSize, 'x');
  const std::string tooLarge(kMaxCatalogPayloadSize + 1, 'x');
  EXPECT_TRUE(verifyCatalogSignature(largest, signedEnvelope(key, largest, "catalog-2026"), keys));
  EXPECT_FALSE(
      verifyCatalogSignature(tooLarge, signedEnvelope(key, tooLarge, "catalog-2026"), keys));
}

}  // namespace
}  // namespace linkwash
