// Base64: the RFC 4648 examples, what the strict decoder refuses, and canonical spellings.
#include "platform/crypto/base64.h"

#include <gtest/gtest.h>

namespace linkwash {
namespace {

TEST(Base64Test, EncodesAndDecodesTheRfc4648Examples) {
  const std::pair<std::string_view, std::string_view> examples[] = {
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"},
  };
  for (const auto& [plain, encoded] : examples) {
    EXPECT_EQ(base64Encode(plain), encoded);
    EXPECT_EQ(base64DecodeCanonical(encoded), toBytes(plain)) << encoded;
  }
}

TEST(Base64Test, RoundTripsEveryByteValueAndLength) {
  Bytes bytes;
  for (int length = 0; length <= 300; ++length) {
    const std::string text = base64Encode(bytes);
    ASSERT_EQ(base64DecodeCanonical(text), bytes) << text;
    bytes.push_back(static_cast<std::uint8_t>(length * 167 + 13));
  }
}

TEST(Base64Test, DecoderRefusesAnythingButPaddedStandardAlphabet) {
  for (std::string_view text :
       {"Zg", "Zg=", "Zm9", "Zg===", "====", "Z===", "Zm=v", "=Zm9", "Zm9v\n", " Zm9v", "Zm 9v",
        "Zm9v\r\n", "Z-8_", "Zm9v====", "Zm\xC3\xA9", "Zg==Zg=="}) {
    EXPECT_FALSE(base64Decode(text)) << text;
  }
}

TEST(Base64Test, OnlyTheCanonicalSpellingPassesTheCanonicalDecoder) {
  // "Zh==" and "Zm9=" carry non-zero unused bits: they decode to the same bytes as "Zg==" and
  // "Zm8=", so a lenient decoder gives two spellings of one key.
  EXPECT_EQ(base64Decode("Zh=="), toBytes("f"));
  EXPECT_EQ(base64Decode("Zm9="), toBytes("fo"));
  EXPECT_FALSE(base64DecodeCanonical("Zh=="));
  EXPECT_FALSE(base64DecodeCanonical("Zm9="));
  EXPECT_TRUE(base64DecodeCanonical("Zg=="));
}

}  // namespace
}  // namespace linkwash
