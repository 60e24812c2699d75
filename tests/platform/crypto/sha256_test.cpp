// SHA-256 against the FIPS 180-4 examples, one-shot and incremental.
#include "platform/crypto/sha256.h"

#include <string>

#include <gtest/gtest.h>

namespace linkwash {
namespace {

TEST(Sha256Test, MatchesPublishedDigests) {
  EXPECT_EQ(hexLower(sha256("")),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(hexLower(sha256("abc")),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(hexLower(sha256(std::string(1'000'000, 'a'))),
            "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(Sha256Test, IncrementalEqualsOneShotAtEverySplitAndRestartsAfterFinish) {
  const std::string text = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
  const Sha256Digest expected = sha256(text);
  Sha256 hasher;
  for (std::size_t split = 0; split <= text.size(); ++split) {
    hasher.update(std::string_view(text).substr(0, split));
    hasher.update(std::string_view(text).substr(split));
    ASSERT_EQ(hasher.finish(), expected) << "split at " << split;
  }
  EXPECT_EQ(hexLower(expected), "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
}

}  // namespace
}  // namespace linkwash
