// CommandGuard: recognises risky terminal commands (download-and-run pipes, disk wipes, reverse
// shells, ...) in copied text by matching them against a rule file of regular expressions, and
// turns a command into commented-out text that does nothing when pasted into a shell.
//
//   CommandGuard guard;  // the installed rule file, else the shipped one
//   if (auto risk = guard.analyze(text, CommandRiskSeverity::warning)) {
//     notify(risk->primaryFinding()->summary);
//     pasteboard.setString(CommandGuard::neutralizedCommand(text));
//   }
//
// A guard's rules are fixed when it is constructed; a new rule file takes effect in a new guard.
// analyze() only reads, so one guard may be used from several threads at once.
#pragma once

#include <array>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/json/json_writer.h"
#include "platform/regex/regex.h"
#include "platform/resources/resource_bundle.h"

namespace linkwash {

// Ordered by declaration, so the built-in comparisons rank them: info < warning < danger.
enum class CommandRiskSeverity { info, warning, danger };

inline constexpr std::array<CommandRiskSeverity, 3> kAllCommandRiskSeverities = {
    CommandRiskSeverity::info, CommandRiskSeverity::warning, CommandRiskSeverity::danger};

// "info", "warning", "danger".
std::string_view rawValue(CommandRiskSeverity severity);
std::optional<CommandRiskSeverity> commandRiskSeverityFromRaw(std::string_view raw);

// One rule that matched, with the text it matched (trimmed, at most 160 characters).
struct CommandRiskFinding {
  std::string id;
  std::string platform;
  CommandRiskSeverity severity = CommandRiskSeverity::info;
  std::string summary;
  std::string explanation;
  std::string matchedText;
  bool operator==(const CommandRiskFinding&) const = default;
};

struct CommandRiskResult {
  std::string command;  // the normalised command that was analysed
  CommandRiskSeverity severity = CommandRiskSeverity::info;  // the highest among the findings
  std::vector<CommandRiskFinding> findings;                  // highest severity first, then by id
  std::string rulesVersion;
  bool operator==(const CommandRiskResult&) const = default;

  // The most severe finding (lowest id among equals); nothing when there are no findings. The
  // pointer lives as long as the result and its findings are left unchanged.
  const CommandRiskFinding* primaryFinding() const;
};

// JSON forms with the keys named as the fields. Decoding answers nothing when a key is missing,
// has the wrong type or names an unknown severity.
Json encodeCommandRiskFinding(const CommandRiskFinding& finding);
std::optional<CommandRiskFinding> decodeCommandRiskFinding(const Json& json);
Json encodeCommandRiskResult(const CommandRiskResult& result);
std::optional<CommandRiskResult> decodeCommandRiskResult(const Json& json);

class CommandGuard {
 public:
  // One rule of the rule file; every key is required.
  struct RuleDefinition {
    std::string id;        // stable identifier; breaks ties in the finding order
    std::string platform;  // free text shown with a finding
    CommandRiskSeverity severity = CommandRiskSeverity::info;
    std::string pattern;  // searched anywhere in the command, case-sensitive unless it says (?i)
    std::string summary;
    std::string explanation;
    bool operator==(const RuleDefinition&) const = default;
  };

  // The rule file: {"currentVersion": "...", "rules": [...]}. Unknown keys are ignored.
  struct RuleBundle {
    std::string currentVersion;
    std::vector<RuleDefinition> rules;
    bool operator==(const RuleBundle&) const = default;
  };

  struct CompiledRule {
    RuleDefinition definition;
    Regex regex;
  };

  static constexpr std::string_view kDefaultRulesFileName = "command-guard-rules";
  static constexpr std::string_view kDefaultRulesFileExtension = "json";
  static constexpr std::string_view kInstalledRulesFileName = "command-guard-rules.json";
  // The version label of a guard that could load no rule file; such a guard finds nothing.
  static constexpr std::string_view kUnavailableVersion = "unavailable";
  // Commands longer than this (in UTF-8 bytes, after normalisation) are not analysed.
  static constexpr std::size_t kMaximumCommandBytes = 32768;
  static constexpr std::size_t kMaximumMatchedTextCharacters = 160;
  // The first line of every neutralised command; a command that starts with it is never flagged.
  static constexpr std::string_view kNeutralizedHeaderLine =
      "# Linkwash neutralized a risky command copied to the clipboard.";
  static constexpr std::string_view kNeutralizedHeader =
      "# Linkwash neutralized a risky command copied to the clipboard.\n"
      "# Review before running anything below.\n";

  // <application support>/com.morvellabs.linkwash/command-guard/active/command-guard-rules.json,
  // the copy a rules update replaces.
  static std::filesystem::path defaultInstalledRulesURL();

  // Loads the installed rule file when it reads and decodes, else the shipped one from `bundle`
  // (the library's bundle when none is given), else no rules at all (version "unavailable").
  // Rules whose pattern does not compile are left out. Never fails.
  explicit CommandGuard(const ResourceBundle* bundle = nullptr,
                        std::optional<std::filesystem::path> installedRulesURL = std::nullopt);

  // The findings of every rule at or above `threshold` that matches the normalised command;
  // nothing when none does, when the command is empty or longer than kMaximumCommandBytes, or
  // when it is already a neutralised command.
  std::optional<CommandRiskResult> analyze(std::string_view command,
                                           CommandRiskSeverity threshold) const;

  // The command as shell comments under kNeutralizedHeader: joined continuation lines, trimmed,
  // every line prefixed with "# ".
  static std::string neutralizedCommand(std::string_view command);

  // Joins backslash and backquote line continuations into spaces and trims both ends.
  static std::string normalizedCommand(std::string_view command);

  // Decodes rule-file bytes; nothing when they are not JSON, a key is missing or has the wrong
  // type, or a severity is unknown (one bad rule rejects the whole file).
  static std::optional<RuleBundle> decodeRuleBundle(std::string_view data);
  // The "currentVersion" of rule-file bytes, or nothing when they do not decode.
  static std::optional<std::string> ruleBundleVersion(std::string_view data);

  const std::string& currentRulesVersion() const { return rulesVersion_; }
  const std::vector<CompiledRule>& rules() const { return rules_; }

 private:
  std::string rulesVersion_;
  std::vector<CompiledRule> rules_;
};

}  // namespace linkwash
