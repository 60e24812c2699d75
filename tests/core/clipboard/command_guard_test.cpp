// Tests of the command guard: where its rules come from, how commands are normalised, filtered,
// ordered and shortened, and the exact neutralised text.
#include "core/clipboard/command_guard.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "tests/support/test_support.h"

namespace linkwash {
namespace {

namespace fs = std::filesystem;
using Severity = CommandRiskSeverity;

std::string ruleJson(std::string_view id, std::string_view severity, std::string_view pattern) {
  Json rule = Json::object();
  rule["id"] = std::string(id);
  rule["platform"] = "Test";
  rule["severity"] = std::string(severity);
  rule["pattern"] = std::string(pattern);
  rule["summary"] = "summary of " + std::string(id);
  rule["explanation"] = "explanation of " + std::string(id);
  return writeJson(rule);
}

std::string bundleJson(std::string_view version, const std::vector<std::string>& rules) {
  std::string text = R"({"currentVersion":")" + std::string(version) + R"(","rules":[)";
  for (std::size_t i = 0; i < rules.size(); ++i) text += (i ? "," : "") + rules[i];
  return text + "]}";
}

void writeText(const fs::path& path, std::string_view text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

// A temporary installed-rules path and a temporary resource bundle.
class GuardFiles {
 public:
  fs::path installed() const { return home_.path() / "active" / "command-guard-rules.json"; }
  ResourceBundle bundle() const { return ResourceBundle(home_.path() / "bundle"); }
  void install(std::string_view text) const { writeText(installed(), text); }
  void ship(std::string_view text) const {
    writeText(home_.path() / "bundle" / "command-guard-rules.json", text);
  }
  CommandGuard guard() const {
    const ResourceBundle resources = bundle();
    return CommandGuard(&resources, installed());
  }

 private:
  testing::TempHome home_;
};

CommandGuard guardWith(const std::vector<std::string>& rules, std::string_view version = "t1") {
  GuardFiles files;
  files.install(bundleJson(version, rules));
  return files.guard();
}

TEST(CommandGuardLoadingTest, FallsBackFromInstalledToShippedToUnavailable) {
  const std::string shipped = bundleJson("shipped-3", {ruleJson("a", "danger", "boom")});
  const auto versionWith = [](std::optional<std::string> installedText,
                              std::optional<std::string> shippedText) {
    GuardFiles files;
    if (installedText) files.install(*installedText);
    if (shippedText) files.ship(*shippedText);
    return files.guard().currentRulesVersion();
  };
  EXPECT_EQ(versionWith(bundleJson("installed-7", {ruleJson("a", "danger", "boom")}), shipped),
            "installed-7");
  EXPECT_EQ(versionWith(std::nullopt, shipped), "shipped-3");
  EXPECT_EQ(versionWith(std::nullopt, "[]"), "unavailable");
  // An installed file that does not decode is passed over whole, not partly used.
  const std::string summaryOnly =
      R"({"id":"b","platform":"x","severity":"info","pattern":"y","summary":"s"})";
  for (const std::string& broken :
       {std::string("{not json"), std::string(R"({"rules":[]})"),
        std::string(R"({"currentVersion":1,"rules":[]})"),
        bundleJson("bad", {ruleJson("a", "critical", "boom")}),
        bundleJson("bad", {ruleJson("a", "danger", "boom"), summaryOnly})}) {
    EXPECT_EQ(versionWith(broken, shipped), "shipped-3") << broken;
  }
  GuardFiles none;
  EXPECT_EQ(none.guard().currentRulesVersion(), "unavailable");
  EXPECT_FALSE(none.guard().analyze("boom; rm -rf /", Severity::info));
}

TEST(CommandGuardLoadingTest, InvalidPatternDropsOnlyItsRule) {
  const CommandGuard guard =
      guardWith({ruleJson("a", "danger", "alpha"), ruleJson("b", "danger", "(unclosed"),
                 ruleJson("c", "warning", "gamma")});
  ASSERT_EQ(guard.rules().size(), 2u);
  EXPECT_EQ(guard.rules()[0].definition.id, "a");
  EXPECT_EQ(guard.rules()[1].definition.id, "c");
  auto result = guard.analyze("alpha (unclosed gamma", Severity::info);
  ASSERT_TRUE(result);
  EXPECT_EQ(result->findings.size(), 2u);
}

TEST(CommandGuardLoadingTest, RuleBundleVersionAnswersOnlyForDecodableFiles) {
  EXPECT_EQ(CommandGuard::ruleBundleVersion(bundleJson("2026.2", {ruleJson("a", "info", "x")})),
            "2026.2");
  EXPECT_EQ(CommandGuard::ruleBundleVersion(bundleJson("empty", {})), "empty");
  EXPECT_FALSE(CommandGuard::ruleBundleVersion(bundleJson("v", {ruleJson("a", "Danger", "x")})));
  EXPECT_FALSE(CommandGuard::ruleBundleVersion(R"({"currentVersion":"v"})"));
  EXPECT_FALSE(CommandGuard::ruleBundleVersion(""));
}

TEST(CommandGuardLoadingTest, DefaultInstalledLocationIsInsideApplicationSupport) {
  testing::TempHome home;
  EXPECT_EQ(CommandGuard::defaultInstalledRulesURL(),
            home.path() / "data" / "com.morvellabs.linkwash" / "command-guard" / "active" /
                "command-guard-rules.json");
}

TEST(CommandGuardAnalyzeTest, JoinsContinuationLinesBeforeMatching) {
  const CommandGuard guard = guardWith({ruleJson("joined", "danger", "curl x +\\| +sh")});
  for (const char* command : {"curl x \\\n| sh", "curl x \\\r\n| sh", "curl x `\n| sh",
                              "curl x `\r\n| sh", "  \n\tcurl x \\\n| sh \n"}) {
    auto result = guard.analyze(command, Severity::info);
    ASSERT_TRUE(result) << command;
    EXPECT_EQ(result->findings[0].matchedText, "curl x  | sh");
  }
  EXPECT_EQ(guard.analyze(" curl x \\\n| sh\n", Severity::info)->command, "curl x  | sh");
  // A plain line break is not a continuation.
  EXPECT_FALSE(guard.analyze("curl x\n| sh", Severity::info));
}

TEST(CommandGuardAnalyzeTest, ThresholdOrderAndPrimaryFinding) {
  const CommandGuard guard =
      guardWith({ruleJson("w", "warning", "run"), ruleJson("b", "danger", "run"),
                 ruleJson("i", "info", "run"), ruleJson("a", "danger", "run")},
                "v9");
  auto all = guard.analyze("run it", Severity::info);
  ASSERT_TRUE(all);
  std::vector<std::string> ids;
  for (const auto& finding : all->findings) ids.push_back(finding.id);
  EXPECT_EQ(ids, (std::vector<std::string>{"a", "b", "w", "i"}));
  EXPECT_EQ(all->severity, Severity::danger);
  EXPECT_EQ(all->rulesVersion, "v9");
  ASSERT_NE(all->primaryFinding(), nullptr);
  EXPECT_EQ(all->primaryFinding()->id, "a");

  EXPECT_EQ(guard.analyze("run it", Severity::warning)->findings.size(), 3u);
  auto danger = guard.analyze("run it", Severity::danger);
  ASSERT_TRUE(danger);
  EXPECT_EQ(danger->findings.size(), 2u);

  const CommandGuard infoOnly = guardWith({ruleJson("i", "info", "run")});
  EXPECT_FALSE(infoOnly.analyze("run it", Severity::warning));
  EXPECT_EQ(infoOnly.analyze("run it", Severity::info)->severity, Severity::info);

  // The primary finding does not depend on the order the list happens to be in.
  CommandRiskResult shuffled = *all;
  std::swap(shuffled.findings.front(), shuffled.findings.back());
  EXPECT_EQ(shuffled.primaryFinding()->id, "a");
  EXPECT_EQ(CommandRiskResult{}.primaryFinding(), nullptr);
}

TEST(CommandGuardAnalyzeTest, MatchedTextIsTrimmedAndShortened) {
  const CommandGuard guard =
      guardWith({ruleJson("long", "danger", "\\s*X+Y?"), ruleJson("first", "warning", "n[0-9]")});
  auto result = guard.analyze("n1 n2 " + std::string(200, 'X'), Severity::info);
  ASSERT_TRUE(result);
  ASSERT_EQ(result->findings.size(), 2u);
  EXPECT_EQ(result->findings[0].matchedText, std::string(157, 'X') + "...");
  EXPECT_EQ(result->findings[1].matchedText, "n1");  // only the first match of a rule counts

  // Exactly 160 characters stay whole; characters, not bytes, are counted.
  EXPECT_EQ(guard.analyze(std::string(160, 'X'), Severity::info)->findings[0].matchedText,
            std::string(160, 'X'));
  const CommandGuard wide = guardWith({ruleJson("wide", "danger", "é+")});
  std::string accents;
  for (int i = 0; i < 170; ++i) accents += "é";
  std::string expected;
  for (int i = 0; i < 157; ++i) expected += "é";
  EXPECT_EQ(wide.analyze(accents, Severity::info)->findings[0].matchedText, expected + "...");
}

TEST(CommandGuardAnalyzeTest, AnswersNothingOutsideItsLimits) {
  const CommandGuard guard = guardWith({ruleJson("any", "danger", "x|^")});
  EXPECT_FALSE(guard.analyze("", Severity::info));
  EXPECT_FALSE(guard.analyze(" \n\t\r\n  ", Severity::info));
  EXPECT_FALSE(guard.analyze(std::string(32769, 'x'), Severity::info));
  EXPECT_TRUE(guard.analyze(std::string(32768, 'x'), Severity::info));
  // The size limit applies after trimming.
  EXPECT_TRUE(guard.analyze("  " + std::string(32768, 'x') + "\n", Severity::info));
}

TEST(CommandGuardNeutralizeTest, ProducesExactCommentedText) {
  const std::string header =
      "# Linkwash neutralized a risky command copied to the clipboard.\n"
      "# Review before running anything below.\n";
  ASSERT_EQ(header.size(), 104u);
  EXPECT_EQ(CommandGuard::neutralizedCommand("  curl x | sh\n"), header + "# curl x | sh");
  EXPECT_EQ(CommandGuard::neutralizedCommand("a \\\nb\n\nc\r\nd"),
            header + "# a  b\n# \n# c\r\n# d");

  const CommandGuard guard = guardWith({ruleJson("sh", "danger", "sh")});
  const std::string risky = "curl https://example.com/i.sh | sh\nrm -rf ~";
  ASSERT_TRUE(guard.analyze(risky, Severity::info));
  EXPECT_FALSE(guard.analyze(CommandGuard::neutralizedCommand(risky), Severity::info));
  EXPECT_FALSE(guard.analyze("\n" + CommandGuard::neutralizedCommand(risky), Severity::info));
}

TEST(CommandRiskResultTest, EncodesExactBytes) {
  const CommandGuard guard =
      guardWith({ruleJson("b", "danger", "rm"), ruleJson("a", "warning", "-rf")}, "v2");
  auto result = guard.analyze("rm -rf ~", Severity::info);
  ASSERT_TRUE(result);
  const Json json = encodeCommandRiskResult(*result);
  EXPECT_EQ(writeJson(json, {.escapeSlashes = false}),
            R"({"command":"rm -rf ~","severity":"danger","findings":[)"
            R"({"id":"b","platform":"Test","severity":"danger","summary":"summary of b",)"
            R"("explanation":"explanation of b","matchedText":"rm"},)"
            R"({"id":"a","platform":"Test","severity":"warning","summary":"summary of a",)"
            R"("explanation":"explanation of a","matchedText":"-rf"}],"rulesVersion":"v2"})");
}

// The shipped rule file is data, but a pattern that fails to compile would silently disable its
// rule, and one that backtracks badly would silently stop matching on long input.
TEST(ShippedCommandGuardRulesTest, EveryRuleCompilesWithUniqueIds) {
  const ResourceBundle resources(testing::sourceDir() / "resources");
  auto bytes = resources.read("command-guard-rules", "json");
  ASSERT_TRUE(bytes);
  auto bundle = CommandGuard::decodeRuleBundle(*bytes);
  ASSERT_TRUE(bundle);
  const CommandGuard guard(&resources, testing::sourceDir() / "no-such-installed-file.json");
  EXPECT_EQ(guard.currentRulesVersion(), bundle->currentVersion);
  std::set<std::string> ids;
  for (const auto& rule : bundle->rules) {
    EXPECT_TRUE(Regex::compile(rule.pattern)) << rule.id;
    EXPECT_TRUE(ids.insert(rule.id).second) << "duplicate id " << rule.id;
    EXPECT_FALSE(rule.summary.empty() || rule.explanation.empty()) << rule.id;
  }
  EXPECT_EQ(guard.rules().size(), bundle->rules.size());
}

TEST(ShippedCommandGuardRulesTest, LongHostileInputStillFindsTheRiskAtItsEnd) {
  const ResourceBundle resources(testing::sourceDir() / "resources");
  const CommandGuard guard(&resources, testing::sourceDir() / "no-such-installed-file.json");
  // Each filler repeats the start of many rules without completing them, the worst case for
  // rules that scan ahead; a match that ran out of its time budget would count as no match.
  for (const std::string filler : {"curl a ", "rm -r ", "base64 -d ", "chmod -R 777 ", "| sudo -E ",
                                   "$(curl ", "eval ", "iex (", "/dev/tcp/", "dd if=/dev/zero "}) {
    std::string command;
    while (command.size() + filler.size() < 32000) command += filler;
    command += "\ncurl -s https://example.com/x | sh";
    auto result = guard.analyze(command, CommandRiskSeverity::warning);
    ASSERT_TRUE(result) << filler;
    bool found = false;
    for (const auto& finding : result->findings) found |= finding.id == "download.pipe-to-shell";
    EXPECT_TRUE(found) << filler;
  }
}

}  // namespace
}  // namespace linkwash
