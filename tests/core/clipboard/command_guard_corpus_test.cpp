// The shipped command-guard rules against a corpus of risky commands and harmless look-alikes:
// every risky command must reach its expected severity, and no look-alike may raise a warning.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/clipboard/command_guard.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

std::string describe(const CommandRiskResult& result) {
  std::string text;
  for (const auto& finding : result.findings) {
    text += " " + finding.id + "(" + std::string(rawValue(finding.severity)) + ": \"" +
            finding.matchedText + "\")";
  }
  return text;
}

TEST(CommandGuardCorpusTest, RiskyCommandsAreCaughtAndLookAlikesAreNot) {
  const auto rows = testing::fixtureTable("command_guard_corpus.tsv");
  ASSERT_GE(rows.size(), 150u);
  const ResourceBundle resources(testing::sourceDir() / "resources");
  const CommandGuard guard(&resources, testing::sourceDir() / "no-such-installed-file.json");
  for (const auto& row : rows) {
    ASSERT_EQ(row.size(), 2u) << row[0];
    const auto expected = commandRiskSeverityFromRaw(row[0]);
    ASSERT_TRUE(expected || row[0] == "none") << "unknown label " << row[0];
    // Risky commands are analysed at the lowest threshold, look-alikes at warning.
    const auto result =
        guard.analyze(row[1], expected ? CommandRiskSeverity::info : CommandRiskSeverity::warning);
    if (expected) {
      EXPECT_TRUE(result && result->severity >= *expected)
          << "expected at least " << row[0] << " for: " << row[1]
          << "\n  got:" << (result ? describe(*result) : std::string(" nothing"));
    } else {
      EXPECT_FALSE(result) << "harmless command flagged: " << row[1]
                           << "\n  got:" << describe(*result);
    }
  }
}

}  // namespace
}  // namespace linkwash
