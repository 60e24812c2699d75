// The signed-release rules, the file check and the allowed feed URLs.
#include "core/updates/signed_rule_feed.h"

#include <gtest/gtest.h>

#include <functional>

#include "tests/core/updates/release_fixture.h"

namespace linkwash {
namespace {

using File = RuleUpdateManifest::File;
using testing::providerFile;

const RuleUpdateError kRejected =
    RuleUpdateError::invalidManifest(std::string(kSignedRuleFeedRejected));

class SignedReleaseTest : public ::testing::Test {
 protected:
  RuleUpdateResult<RuleUpdateManifest> verify(const SignedRuleFeed::Proof& proof) {
    return SignedRuleFeed::verifyRelease(proof, signer_.trust(), "1.1.0", signer_.host);
  }

  testing::ReleaseSigner signer_;
  std::string clear_ = providerFile("release", "session");
  std::string supplementary_ = providerFile("extra", "ref");
  RuleUpdateManifest manifest_ = signer_.manifest("2027.01.01.1", clear_, supplementary_);
};

TEST_F(SignedReleaseTest, AcceptsOnlyReleasesThatMeetEverySignedManifestRule) {
  const auto verified = verify(signer_.sign(manifest_));
  ASSERT_TRUE(verified) << verified.error().errorDescription();
  EXPECT_EQ(*verified, manifest_);
  // The defaults (this build's app version and host) accept it too.
  EXPECT_TRUE(SignedRuleFeed::verifyRelease(signer_.sign(manifest_), signer_.trust()));

  const std::string base = SignedRuleFeed::rulesBaseURL(signer_.host) + "2027.01.01.1/";
  const std::string guard = base + "command-guard-rules.json";
  const std::pair<std::function<void(RuleUpdateManifest&)>, bool> cases[] = {
      // accepted?
      {[](auto& m) { m.files[0].bytes = 0x3FFFFF; }, true},
      {[](auto& m) { m.minAppVersion = "1.1"; }, true},  // the app is 1.1.0
      {[](auto& m) { std::swap(m.files[0], m.files[1]); }, true},
      {[](auto& m) { m.product = "Other"; }, false},  // fails plain validation
      {[](auto& m) { m.schemaVersion = 0; }, false},
      {[](auto& m) { m.currentVersion = "2027.1.1.1"; }, false},
      {[](auto& m) { m.minAppVersion = "1.2"; }, false},
      {[&](auto& m) {
         m.files.push_back({File::Kind::commandGuard, "command-guard-rules.json", guard,
                            std::string(64, 'a'), 10});
       },
       false},
      {[&](auto& m) { m.files[0].path = "rules.json", m.files[0].url = base + "rules.json"; },
       false},
      {[&](auto& m) { m.files[0].url = base + "x/data.min.json"; }, false},
      {[&](auto& m) {
         m.files[0].url = "https://mirror.example/linkwash/rules/2027.01.01.1/data.min.json";
       },
       false},
      {[](auto& m) { m.files[0].sha256[0] = 'A'; }, false},  // digests are lower case
      {[](auto& m) { m.files[1].bytes.reset(); }, false},
      {[](auto& m) { m.files[0].bytes = 0x400000; }, false},
  };
  for (const auto& [change, accepted] : cases) {
    RuleUpdateManifest manifest = manifest_;
    change(manifest);
    const auto result = verify(signer_.sign(manifest));
    EXPECT_EQ(result ? "accepted" : result.error().errorDescription(),
              accepted ? "accepted" : kRejected.errorDescription())
        << manifest.encode();
  }
}

TEST_F(SignedReleaseTest, RefusesSignaturesThatDoNotCoverTheseExactBytesByATrustedKey) {
  const std::string bytes = manifest_.encode();
  auto edited = signer_.sign(manifest_);
  edited.manifest += " ";
  testing::ReleaseSigner stranger;
  stranger.key = testing::seededKey(43);
  const SignedRuleFeed::Proof proofs[] = {
      edited,
      {bytes, testing::signedEnvelope(signer_.key, bytes, signer_.keyId)},  // no prefix
      stranger.sign(manifest_),
      // Signed bytes that are not a manifest never get past decoding.
      signer_.signBytes("[]"),
      signer_.signBytes(bytes.substr(0, bytes.size() - 1))};
  for (const auto& proof : proofs) EXPECT_EQ(verify(proof).error(), kRejected) << proof.manifest;
}

TEST_F(SignedReleaseTest, FileCheckComparesExactSizeAndLowerCaseDigest) {
  EXPECT_TRUE(SignedRuleFeed::checkFiles(manifest_, clear_, supplementary_));
  std::string flipped = supplementary_;
  flipped[flipped.size() / 2] ^= 0x01;
  EXPECT_EQ(SignedRuleFeed::checkFiles(manifest_, clear_.substr(1), supplementary_).error(),
            kRejected);
  EXPECT_FALSE(SignedRuleFeed::checkFiles(manifest_, clear_, flipped));
  EXPECT_FALSE(SignedRuleFeed::checkFiles(manifest_, supplementary_, clear_));
  RuleUpdateManifest noSize = manifest_;
  noSize.files[0].bytes.reset();
  EXPECT_FALSE(SignedRuleFeed::checkFiles(noSize, clear_, supplementary_));
}

TEST(SignedRuleFeedTest, AllowsDownloadsOnlyFromTheFeedsOwnURLs) {
  const std::string host = "rules.example";
  const std::string base = "https://rules.example/linkwash/rules/";
  for (const std::string& url :
       {base + "manifest.json", base + "manifest.sig", base + "beta/manifest.json",
        base + "beta/manifest.sig", base + "2026.03.14.2/data.min.json",
        base + "2026.03.14.999999/linkwash-supplementary.json"}) {
    EXPECT_TRUE(SignedRuleFeed::isAllowedFeedURL(url, host)) << url;
  }
  for (const std::string& url :
       {base + "2026.03.14.2/extra/data.min.json", base + "2026.03.14.0/data.min.json",
        base + "2026.3.14.2/data.min.json", base + "2026.03.14.2/command-guard-rules.json",
        base + "2026.03.14.2/data.min.json?x=1", base + "2026.03.14.2/",
        base + "beta/2026.03.14.2/data.min.json", base + "stable/manifest.json",
        base + "manifest.json#x", std::string("http://rules.example/linkwash/rules/manifest.json"),
        std::string("https://other.example/linkwash/rules/manifest.json"),
        std::string("https://rules.example.evil/linkwash/rules/manifest.json"),
        std::string("https://rules.example:444/linkwash/rules/manifest.json")}) {
    EXPECT_FALSE(SignedRuleFeed::isAllowedFeedURL(url, host)) << url;
  }
  EXPECT_TRUE(SignedRuleFeed::isAllowedFeedURL(manifestURL(RuleUpdateChannel::beta)));
}

}  // namespace
}  // namespace linkwash
