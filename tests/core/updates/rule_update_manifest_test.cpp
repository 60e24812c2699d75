// The manifest's decoding and validation order, release and app versions, channel URLs and dates.
#include "core/updates/rule_update_manifest.h"

#include <gtest/gtest.h>

#include <functional>

#include "platform/json/json_writer.h"
#include "tests/core/updates/release_fixture.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

using File = RuleUpdateManifest::File;

RuleUpdateManifest validManifest() {
  return testing::ReleaseSigner().manifest("2026.03.14.2", "clear", "extra");
}

TEST(RuleUpdateManifestTest, ValidateReportsTheFirstFailingRule) {
  using Change = std::function<void(RuleUpdateManifest&)>;
  const std::pair<Change, const char*> cases[] = {
      // the reason, or nothing when it passes
      {[](auto&) {}, ""},
      {[](auto& m) { m.product = "linkwash"; }, "Unexpected product"},
      {[](auto& m) { m.kind = "rule"; }, "Unexpected manifest kind"},
      {[](auto& m) { m.schemaVersion = 2; }, "Unsupported rules schema"},
      {[](auto& m) { m.currentVersion = " \t\n\u2028"; }, "Missing rules version"},
      {[](auto& m) { m.files.erase(m.files.begin()); }, "Missing ClearURLs rule file"},
      {[](auto& m) { m.files.pop_back(); }, "Missing Linkwash supplementary rule file"},
      {[](auto& m) { m.files[0].url = "HTTPS://rules.example/x/data.min.json"; },
       "Rule file URLs must use HTTPS"},
      {[](auto& m) { m.files[1].sha256 = std::string(63, 'a'); },
       "Invalid SHA-256 for linkwash-supplementary.json"},
      {[](auto& m) { m.files[0].path = "a/b.json"; }, "Invalid rule file path"},
      // Files in array order, and the checks within a file in order.
      {[](auto& m) { m.files[0].path = "../x", m.files[1].url = "ftp://x"; },
       "Invalid rule file path"},
      {[](auto& m) { m.files[0].sha256 = "", m.files[0].path = "a/b"; }, "Invalid SHA-256 for a/b"},
      {[](auto& m) {
         m.files.push_back({File::Kind::commandGuard, "guard.json", "https://rules.example/c.json",
                            "xyz", std::nullopt});
       },
       "Invalid SHA-256 for guard.json"},
  };
  for (const auto& [change, expected] : cases) {
    RuleUpdateManifest manifest = validManifest();
    change(manifest);
    const auto result = manifest.validate(1);
    const std::string want =
        *expected ? RuleUpdateError::invalidManifest(expected).errorDescription() : "";
    EXPECT_EQ(result ? "" : result.error().errorDescription(), want);
  }
}

TEST(RuleUpdateManifestTest, RulesVersionsParseStrictlyAndCompareNumerically) {
  for (const char* valid :
       {"2026.03.14.2", "2026.03.14.999999", "9999.12.31.999999", "0000.00.00.1"}) {
    EXPECT_TRUE(RulesVersion::parse(valid)) << valid;
  }
  for (const char* invalid : {"2026.03.14.0", "2026.3.14.1", "2026.03.14.01", "2026.03.14.1234567",
                              "2026.03.14", "2026.03.14.1.1", "2026.03.14.1\n", " 2026.03.14.1",
                              "2026.03.14.+1", "2026-03-14-1", "20260.03.14.1", "2026.03.14.", "",
                              "\xef\xbc\x92"
                              "026.03.14.1"}) {
    EXPECT_FALSE(RulesVersion::parse(invalid)) << invalid;
  }
  auto v = [](const char* text) { return *RulesVersion::parse(text); };
  EXPECT_EQ(v("2026.03.14.2").parts, (std::array<std::uint32_t, 4>{2026, 3, 14, 2}));
  EXPECT_GT(v("2026.03.14.10"), v("2026.03.14.9"));
  EXPECT_GT(v("2026.04.01.1"), v("2026.03.31.999999"));
  EXPECT_GT(v("2027.01.01.1"), v("2026.12.31.5"));
  EXPECT_EQ(v(kHighestRulesVersion.data()), (RulesVersion{{9999, 12, 31, 999999}}));
}

TEST(RuleUpdateManifestTest, AppVersionsCompareByPaddedNumbersAndChannelsHaveFixedURLs) {
  // Pieces that are not numbers count as zero.
  const std::tuple<const char*, const char*, std::strong_ordering> versions[] = {
      {"1.10", "1.9", std::strong_ordering::greater},
      {"1.0", "1", std::strong_ordering::equal},
      {"1.0.1", "1", std::strong_ordering::greater},
      {"1.99.99", "2", std::strong_ordering::less},
      {"1.1.0beta", "1.1", std::strong_ordering::equal}};
  for (const auto& [a, b, order] : versions) EXPECT_EQ(compareAppVersions(a, b), order) << a;

  EXPECT_EQ(ruleUpdateChannelFromRawValue("beta"), RuleUpdateChannel::beta);
  EXPECT_EQ(ruleUpdateChannelFromRawValue("Stable"), std::nullopt);
  EXPECT_EQ(signatureURL(manifestURL(RuleUpdateChannel::beta, "rules.example")),
            "https://rules.example/linkwash/rules/beta/manifest.sig");
  EXPECT_EQ(manifestURL(RuleUpdateChannel::stable),
            "https://" + std::string(rulesHost()) + "/linkwash/rules/manifest.json");
}

TEST(RuleUpdateManifestTest, DatesAreWholeSecondISO8601) {
  const auto time = parseISO8601("2026-03-14T12:00:00Z");
  EXPECT_EQ(formatISO8601(time.value_or(Timestamp{})), "2026-03-14T12:00:00Z");
  EXPECT_EQ(parseISO8601("2026-03-14T13:30:00+01:30"), time);
  EXPECT_EQ(parseISO8601("2026-03-14T07:00:00-05:00"), time);
  for (const char* invalid :
       {"2026-03-14T12:00:00.5Z", "2026-03-14T12:00:00", "2026-03-14 12:00:00Z",
        "2026-02-29T00:00:00Z", "2026-13-01T00:00:00Z", "2026-03-14T24:00:00Z",
        "2026-03-14T12:00:00z", "2026-03-14T12:00:00+0100", "2026-3-14T12:00:00Z", ""}) {
    EXPECT_FALSE(parseISO8601(invalid)) << invalid;
  }
}

TEST(RuleUpdateManifestTest, ShippedManifestDecodesValidatesAndEncodesToTheSameBytes) {
  const auto shipped = testing::readFixture(testing::sourceDir() / "resources" / "manifest.json");
  ASSERT_TRUE(shipped);
  const auto manifest = RuleUpdateManifest::decode(*shipped);
  ASSERT_TRUE(manifest && manifest->validate(1));
  EXPECT_EQ(manifest->commandGuardFile(), nullptr);
  EXPECT_EQ(manifest->encode(), *shipped);
  EXPECT_EQ(RuleUpdateManifest::decode(manifest->encode()), manifest);
}

TEST(RuleUpdateManifestTest, DecodingHoldsMembersToTheirTypes) {
  const Json base = *parseJson(validManifest().encode());
  const std::pair<std::function<void(Json&)>, bool> cases[] = {
      // the change, and if it decodes
      {[](Json&) {}, true},
      {[](Json& j) { j["extra"] = 12; }, true},
      {[](Json& j) { j["schemaVersion"] = 1.0; }, true},
      {[](Json& j) { j["schemaVersion"] = "1"; }, false},
      {[](Json& j) { j["schemaVersion"] = 1.5; }, false},
      {[](Json& j) { j.erase("notes"); }, false},
      {[](Json& j) { j["notes"].push_back(1); }, false},
      {[](Json& j) { j["publishedAt"] = "2026-03-14T12:00:00.250Z"; }, false},
      {[](Json& j) { j["files"][0]["kind"] = "guard"; }, false},
      {[](Json& j) { j["files"][0]["url"] = "https://a b/x"; }, false},
      {[](Json& j) { j["files"][0]["bytes"] = 1.5; }, false},
      {[](Json& j) { j["files"][1].erase("bytes"); }, true},
      {[](Json& j) { j["sourceSummary"]["clearurls"] = 1; }, false},
  };
  for (const auto& [change, decodes] : cases) {
    Json json = base;
    change(json);
    EXPECT_EQ(RuleUpdateManifest::decode(json.dump()).has_value(), decodes) << json.dump();
  }
  EXPECT_FALSE(RuleUpdateManifest::decode("{\"product\":"));
}

}  // namespace
}  // namespace linkwash
