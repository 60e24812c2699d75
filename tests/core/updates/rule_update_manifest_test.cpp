// The manifest's decoding and validation order, release versions, app versions, channels and the
// user-facing error texts.
#include "core/updates/rule_update_manifest.h"

#include <gtest/gtest.h>

#include <functional>

#include "platform/json/json_writer.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

using File = RuleUpdateManifest::File;

RuleUpdateManifest validManifest() {
  RuleUpdateManifest manifest;
  manifest.product = "Linkwash";
  manifest.kind = "rules";
  manifest.schemaVersion = 1;
  manifest.currentVersion = "2026.03.14.2";
  manifest.publishedAt = *parseISO8601("2026-03-14T12:00:00Z");
  const std::string digest(64, 'a');
  manifest.files = {
      {File::Kind::clearurls, "data.min.json",
       "https://rules.example/linkwash/rules/2026.03.14.2/data.min.json", digest, 10},
      {File::Kind::linkwashSupplementary, "linkwash-supplementary.json",
       "https://rules.example/linkwash/rules/2026.03.14.2/linkwash-supplementary.json", digest,
       20}};
  return manifest;
}

TEST(RuleUpdateManifestTest, ValidateReportsTheFirstFailingRule) {
  struct Case {
    const char* name;
    std::function<void(RuleUpdateManifest&)> change;
    const char* expected;  // empty: passes
  };
  const Case cases[] = {
      {"valid", [](auto&) {}, ""},
      {"product", [](auto& m) { m.product = "linkwash"; }, "Unexpected product"},
      {"product before kind",
       [](auto& m) {
         m.product = "Other";
         m.kind = "catalog";
       },
       "Unexpected product"},
      {"kind", [](auto& m) { m.kind = "rule"; }, "Unexpected manifest kind"},
      {"newer schema", [](auto& m) { m.schemaVersion = 2; }, "Unsupported rules schema"},
      {"blank version", [](auto& m) { m.currentVersion = " \t\n\u2028"; }, "Missing rules version"},
      {"version form is not judged here", [](auto& m) { m.currentVersion = "latest"; }, ""},
      {"no provider file", [](auto& m) { m.files.erase(m.files.begin()); },
       "Missing ClearURLs rule file"},
      {"no supplementary file", [](auto& m) { m.files.pop_back(); },
       "Missing Linkwash supplementary rule file"},
      {"upper-case scheme",
       [](auto& m) { m.files[0].url = "HTTPS://rules.example/linkwash/rules/x/data.min.json"; },
       "Rule file URLs must use HTTPS"},
      {"upper-case digest", [](auto& m) { m.files[0].sha256 = std::string(64, 'F'); }, ""},
      {"short digest", [](auto& m) { m.files[1].sha256 = std::string(63, 'a'); },
       "Invalid SHA-256 for linkwash-supplementary.json"},
      {"slash in path", [](auto& m) { m.files[0].path = "a/b.json"; }, "Invalid rule file path"},
      {"dots in path", [](auto& m) { m.files[1].path = "..json"; }, "Invalid rule file path"},
      {"files in array order",
       [](auto& m) {
         m.files[0].path = "../x";
         m.files[1].url = "ftp://rules.example/x";
       },
       "Invalid rule file path"},
      {"checks within a file in order",
       [](auto& m) {
         m.files[0].sha256 = "";
         m.files[0].path = "a/b";
       },
       "Invalid SHA-256 for a/b"},
      {"valid command-guard file",
       [](auto& m) {
         m.files.push_back({File::Kind::commandGuard, "command-guard-rules.json",
                            "https://rules.example/c.json", std::string(64, '0'), std::nullopt});
       },
       ""},
      {"invalid command-guard file",
       [](auto& m) {
         m.files.push_back({File::Kind::commandGuard, "guard.json", "https://rules.example/c.json",
                            "xyz", std::nullopt});
       },
       "Invalid SHA-256 for guard.json"},
  };
  for (const auto& c : cases) {
    RuleUpdateManifest manifest = validManifest();
    c.change(manifest);
    const auto result = manifest.validate(1);
    if (*c.expected == '\0') {
      EXPECT_TRUE(result) << c.name << ": " << result.error().text();
    } else {
      ASSERT_FALSE(result) << c.name;
      EXPECT_EQ(result.error(), RuleUpdateError::invalidManifest(c.expected)) << c.name;
    }
  }
}

TEST(RuleUpdateManifestTest, ErrorsDescribeThemselvesAndCompareCaseAndText) {
  const std::pair<RuleUpdateError, const char*> cases[] = {
      {RuleUpdateError::invalidManifest("x"), "Invalid rules manifest: x"},
      {RuleUpdateError::incompatibleAppVersion("2.0"), "Rules require Linkwash 2.0 or newer."},
      {RuleUpdateError::network("x"), "Download failed: x"},
      {RuleUpdateError::missingFile("a.json"), "Rules bundle missing a.json."},
      {RuleUpdateError::hashMismatch("a.json"), "Downloaded rules failed integrity check: a.json."},
      {RuleUpdateError::invalidRules("x"), "Downloaded rules were invalid: x"},
      {RuleUpdateError::fileSystem("x"), "Could not save rules: x"}};
  for (const auto& [error, text] : cases) EXPECT_EQ(error.errorDescription(), text);
  EXPECT_NE(RuleUpdateError::network("x"), RuleUpdateError::fileSystem("x"));
  EXPECT_NE(RuleUpdateError::network("x"), RuleUpdateError::network("y"));
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
  EXPECT_EQ(v("2026.03.14.2"), v("2026.03.14.2"));
  EXPECT_EQ(v(kHighestRulesVersion.data()), (RulesVersion{{9999, 12, 31, 999999}}));
}

TEST(RuleUpdateManifestTest, AppVersionsCompareByPaddedNumbers) {
  EXPECT_EQ(compareAppVersions("1.10", "1.9"), std::strong_ordering::greater);
  EXPECT_EQ(compareAppVersions("1.0", "1"), std::strong_ordering::equal);
  EXPECT_EQ(compareAppVersions("1.0.1", "1"), std::strong_ordering::greater);
  EXPECT_EQ(compareAppVersions("1.99.99", "2"), std::strong_ordering::less);
  EXPECT_EQ(compareAppVersions("0.0.0", ""), std::strong_ordering::equal);
  // Pieces that are not numbers count as zero.
  EXPECT_EQ(compareAppVersions("1.x", "1.0"), std::strong_ordering::equal);
  EXPECT_EQ(compareAppVersions("1.1.0beta", "1.1"), std::strong_ordering::equal);
}

TEST(RuleUpdateManifestTest, ChannelsHaveFixedEndpoints) {
  EXPECT_EQ(rawValue(RuleUpdateChannel::stable), "stable");
  EXPECT_EQ(displayName(RuleUpdateChannel::beta), "Beta");
  EXPECT_EQ(ruleUpdateChannelFromRawValue("beta"), RuleUpdateChannel::beta);
  EXPECT_EQ(ruleUpdateChannelFromRawValue("Stable"), std::nullopt);
  EXPECT_EQ(manifestURL(RuleUpdateChannel::stable, "rules.example"),
            "https://rules.example/linkwash/rules/manifest.json");
  EXPECT_EQ(manifestURL(RuleUpdateChannel::beta, "rules.example"),
            "https://rules.example/linkwash/rules/beta/manifest.json");
  EXPECT_EQ(signatureURL(manifestURL(RuleUpdateChannel::beta, "rules.example")),
            "https://rules.example/linkwash/rules/beta/manifest.sig");
  EXPECT_EQ(manifestURL(RuleUpdateChannel::stable),
            "https://" + std::string(rulesHost()) + "/linkwash/rules/manifest.json");
}

TEST(RuleUpdateManifestTest, DatesAreWholeSecondISO8601) {
  const auto time = parseISO8601("2026-03-14T12:00:00Z");
  ASSERT_TRUE(time);
  EXPECT_EQ(formatISO8601(*time), "2026-03-14T12:00:00Z");
  EXPECT_EQ(parseISO8601("2026-03-14T13:30:00+01:30"), time);
  EXPECT_EQ(parseISO8601("2026-03-14T07:00:00-05:00"), time);
  EXPECT_EQ(formatISO8601(*parseISO8601("2024-02-29T23:59:59Z")), "2024-02-29T23:59:59Z");
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
  ASSERT_TRUE(manifest);
  EXPECT_TRUE(manifest->validate(1));
  EXPECT_TRUE(RulesVersion::parse(manifest->currentVersion));
  EXPECT_EQ(manifest->commandGuardFile(), nullptr);
  EXPECT_EQ(manifest->encode(), *shipped);
  EXPECT_EQ(RuleUpdateManifest::decode(manifest->encode()), manifest);
}

TEST(RuleUpdateManifestTest, DecodingHoldsMembersToTheirTypes) {
  const Json base = *parseJson(validManifest().encode());
  ASSERT_TRUE(RuleUpdateManifest::decode(base.dump()));
  struct Case {
    const char* name;
    std::function<void(Json&)> change;
    bool decodes;
  };
  const Case cases[] = {
      {"unknown member", [](Json& j) { j["extra"] = 12; }, true},
      {"null optional", [](Json& j) { j["minAppVersion"] = nullptr; }, true},
      {"whole float schema", [](Json& j) { j["schemaVersion"] = 1.0; }, true},
      {"string schema", [](Json& j) { j["schemaVersion"] = "1"; }, false},
      {"fractional schema", [](Json& j) { j["schemaVersion"] = 1.5; }, false},
      {"missing notes", [](Json& j) { j.erase("notes"); }, false},
      {"number in notes", [](Json& j) { j["notes"].push_back(1); }, false},
      {"missing publishedAt", [](Json& j) { j.erase("publishedAt"); }, false},
      {"fractional seconds", [](Json& j) { j["publishedAt"] = "2026-03-14T12:00:00.250Z"; }, false},
      {"unknown file kind", [](Json& j) { j["files"][0]["kind"] = "guard"; }, false},
      {"empty URL", [](Json& j) { j["files"][0]["url"] = ""; }, false},
      {"URL with a space", [](Json& j) { j["files"][0]["url"] = "https://a b/x"; }, false},
      {"fractional bytes", [](Json& j) { j["files"][0]["bytes"] = 1.5; }, false},
      {"missing optional bytes", [](Json& j) { j["files"][1].erase("bytes"); }, true},
      {"summary of the wrong shape", [](Json& j) { j["sourceSummary"]["clearurls"] = 1; }, false},
  };
  for (const auto& c : cases) {
    Json json = base;
    c.change(json);
    EXPECT_EQ(RuleUpdateManifest::decode(json.dump()).has_value(), c.decodes) << c.name;
  }
  EXPECT_FALSE(RuleUpdateManifest::decode("{\"product\":"));
}

}  // namespace
}  // namespace linkwash
