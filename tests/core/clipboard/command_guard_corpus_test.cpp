// The shipped command-guard rules against a corpus of risky commands and harmless look-alikes:
// every risky command must reach its expected severity, and no look-alike may raise a warning.
#include <gtest/gtest.h>

#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "base/strings.h"
#include "core/clipboard/command_guard.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

struct CorpusCase {
  int line = 0;
  std::optional<CommandRiskSeverity> expected;  // nothing: harmless
  std::string command;
};

std::vector<CorpusCase> readCorpus(const std::filesystem::path& path) {
  std::vector<CorpusCase> cases;
  std::ifstream in(path);
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    if (line.empty() || line[0] == '#') continue;
    const auto tab = line.find('\t');
    if (tab == std::string::npos) {
      ADD_FAILURE() << path << ":" << number << ": no tab";
      continue;
    }
    const std::string label = line.substr(0, tab);
    CorpusCase entry{number, commandRiskSeverityFromRaw(label), line.substr(tab + 1)};
    if (!entry.expected && label != "none") {
      ADD_FAILURE() << path << ":" << number << ": unknown label " << label;
      continue;
    }
    cases.push_back(std::move(entry));
  }
  return cases;
}

std::string describe(const CommandRiskResult& result) {
  std::string text;
  for (const auto& finding : result.findings) {
    text += " " + finding.id + "(" + std::string(rawValue(finding.severity)) + ": \"" +
            finding.matchedText + "\")";
  }
  return text;
}

TEST(CommandGuardCorpusTest, RiskyCommandsAreCaughtAndLookAlikesAreNot) {
  const auto corpusPath = testing::sourceDir() / "tests" / "fixtures" / "command_guard_corpus.tsv";
  const auto cases = readCorpus(corpusPath);
  ASSERT_GE(cases.size(), 150u);
  const ResourceBundle resources(testing::sourceDir() / "resources");
  const CommandGuard guard(&resources, testing::sourceDir() / "no-such-installed-file.json");

  int risky = 0, harmless = 0, misses = 0, falsePositives = 0;
  for (const auto& entry : cases) {
    if (entry.expected) {
      ++risky;
      auto result = guard.analyze(entry.command, CommandRiskSeverity::info);
      if (!result || result->severity < *entry.expected) {
        ++misses;
        ADD_FAILURE() << "line " << entry.line << ": expected at least "
                      << rawValue(*entry.expected) << " for: " << entry.command
                      << "\n  got:" << (result ? describe(*result) : std::string(" nothing"));
      }
    } else {
      ++harmless;
      if (auto result = guard.analyze(entry.command, CommandRiskSeverity::warning)) {
        ++falsePositives;
        ADD_FAILURE() << "line " << entry.line << ": harmless command flagged: " << entry.command
                      << "\n  got:" << describe(*result);
      }
    }
  }
  std::cout << "command guard corpus: " << risky << " risky (" << misses << " missed), " << harmless
            << " harmless (" << falsePositives << " false positives)\n";
}

}  // namespace
}  // namespace linkwash
