// The signed-release rules, the file check and the allowed feed URLs.
#include "core/updates/signed_rule_feed.h"

#include <gtest/gtest.h>

#include <functional>

#include "platform/resources/resource_bundle.h"
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

TEST_F(SignedReleaseTest, AcceptsAWellFormedReleaseAndReturnsItsManifest) {
  const auto verified = verify(signer_.sign(manifest_));
  ASSERT_TRUE(verified) << verified.error().errorDescription();
  EXPECT_EQ(*verified, manifest_);
  EXPECT_TRUE(SignedRuleFeed::checkFiles(*verified, clear_, supplementary_));
  // The defaults (this build's app version and host) accept it too.
  EXPECT_TRUE(SignedRuleFeed::verifyRelease(signer_.sign(manifest_), signer_.trust()));
}

TEST_F(SignedReleaseTest, RefusesEveryBreachOfTheSignedManifestRules) {
  const std::string base = SignedRuleFeed::rulesBaseURL(signer_.host) + "2027.01.01.1/";
  struct Case {
    const char* name;
    std::function<void(RuleUpdateManifest&)> change;
    bool accepted;
  };
  const Case cases[] = {
      {"largest allowed file", [](auto& m) { m.files[0].bytes = 0x3FFFFF; }, true},
      {"app exactly at minAppVersion", [](auto& m) { m.minAppVersion = "1.1"; }, true},
      {"fails plain validation", [](auto& m) { m.product = "Other"; }, false},
      {"older schema", [](auto& m) { m.schemaVersion = 0; }, false},
      {"version not in the release form", [](auto& m) { m.currentVersion = "2027.1.1.1"; }, false},
      {"app too old", [](auto& m) { m.minAppVersion = "1.2"; }, false},
      {"a third (command-guard) file",
       [&](auto& m) {
         m.files.push_back({File::Kind::commandGuard, "command-guard-rules.json",
                            base + "command-guard-rules.json", std::string(64, 'a'), 10});
       },
       false},
      {"files in the other order", [](auto& m) { std::swap(m.files[0], m.files[1]); }, true},
      {"provider file under another name",
       [&](auto& m) {
         m.files[0].path = "rules.json";
         m.files[0].url = base + "rules.json";
       },
       false},
      {"URL with an extra segment", [&](auto& m) { m.files[0].url = base + "x/data.min.json"; },
       false},
      {"URL of another version",
       [](auto& m) {
         m.files[1].url = "https://" + std::string(rulesHost()) +
                          "/linkwash/rules/2027.01.01.2/linkwash-supplementary.json";
       },
       false},
      {"URL on another host",
       [](auto& m) {
         m.files[0].url = "https://mirror.example/linkwash/rules/2027.01.01.1/data.min.json";
       },
       false},
      {"upper-case digest",
       [](auto& m) {
         for (char& c : m.files[0].sha256) c = static_cast<char>(std::toupper(c));
       },
       false},
      {"size missing", [](auto& m) { m.files[1].bytes.reset(); }, false},
      {"file too large", [](auto& m) { m.files[0].bytes = 0x400000; }, false},
      {"manifest over 64 KiB",
       [](auto& m) { m.notes.push_back(std::string(kMaxRuleManifestSize, 'n')); }, false},
  };
  for (const auto& c : cases) {
    RuleUpdateManifest manifest = manifest_;
    c.change(manifest);
    const auto result = verify(signer_.sign(manifest));
    if (c.accepted) {
      EXPECT_TRUE(result) << c.name;
    } else {
      ASSERT_FALSE(result) << c.name;
      EXPECT_EQ(result.error(), kRejected) << c.name;
    }
  }
}

TEST_F(SignedReleaseTest, RefusesSignaturesThatDoNotCoverTheseExactBytes) {
  const std::string bytes = manifest_.encode();
  auto edited = signer_.sign(manifest_);
  edited.manifest += " ";
  EXPECT_EQ(verify(edited).error(), kRejected);

  // Signed without the prefix, or by a key the app does not trust.
  SignedRuleFeed::Proof unprefixed{bytes,
                                   testing::signedEnvelope(signer_.key, bytes, signer_.keyId)};
  EXPECT_FALSE(verify(unprefixed));
  testing::ReleaseSigner stranger;
  stranger.key = testing::seededKey(43);
  EXPECT_FALSE(verify(stranger.sign(manifest_)));

  // Signed bytes that are not a manifest never get past decoding.
  EXPECT_FALSE(verify(signer_.signBytes("[]")));
  EXPECT_FALSE(verify(signer_.signBytes(bytes.substr(0, bytes.size() - 1))));
}

TEST_F(SignedReleaseTest, FileCheckComparesExactSizeAndLowerCaseDigest) {
  EXPECT_TRUE(SignedRuleFeed::checkFiles(manifest_, clear_, supplementary_));
  EXPECT_EQ(SignedRuleFeed::checkFiles(manifest_, clear_.substr(1), supplementary_).error(),
            kRejected);
  std::string flipped = supplementary_;
  flipped[flipped.size() / 2] ^= 0x01;
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
