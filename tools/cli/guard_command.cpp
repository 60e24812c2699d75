// `linkwash guard`: checks a terminal command for risky patterns before it is run, with the same
// rules the clipboard guard uses, and can print the harmless commented-out form instead.
#include <filesystem>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>

#include "core/clipboard/command_guard.h"
#include "platform/fs/files.h"
#include "platform/json/json_writer.h"
#include "tools/cli/commands.h"

namespace linkwash::cli {
namespace {

constexpr int kExitNothingFound = kExitOK;
constexpr int kExitError = kExitFailure;

struct GuardOptions {
  std::optional<std::string> command;
  std::string threshold = "warning";
  bool neutralize = false;
  bool json = false;
  std::string rulesFile;
};

std::string withFinalNewline(std::string text) {
  if (text.empty() || text.back() != '\n') text += '\n';
  return text;
}

std::string describeFinding(const CommandRiskFinding& finding) {
  std::string text =
      std::string(rawValue(finding.severity)) + "  " + finding.id + " (" + finding.platform + ")\n";
  text += "  " + finding.summary + "\n";
  text += "  matched: " + finding.matchedText + "\n";
  text += "  " + finding.explanation + "\n";
  return text;
}

std::string describeResult(const CommandRiskResult& result) {
  std::string text = "Highest severity: " + std::string(rawValue(result.severity)) + " (rules " +
                     result.rulesVersion + ")\n";
  if (const CommandRiskFinding* primary = result.primaryFinding()) {
    text += "Primary finding: " + primary->summary + " [" + primary->id + "]\n";
  }
  for (const auto& finding : result.findings) text += "\n" + describeFinding(finding);
  return text;
}

std::string jsonReport(const std::optional<CommandRiskResult>& result, bool checked,
                       CommandRiskSeverity threshold, const std::string& rulesVersion,
                       const std::optional<std::string>& neutral) {
  Json json = Json::object();
  json["checked"] = checked;
  json["risky"] = result.has_value();
  json["threshold"] = std::string(rawValue(threshold));
  json["rulesVersion"] = rulesVersion;
  if (result) {
    json["result"] = encodeCommandRiskResult(*result);
    if (const CommandRiskFinding* primary = result->primaryFinding()) {
      json["primaryFinding"] = encodeCommandRiskFinding(*primary);
    }
  }
  if (neutral) json["neutralizedCommand"] = *neutral;
  JsonWriteOptions options;
  options.escapeSlashes = false;
  return writeJson(json, options) + "\n";
}

int runGuard(const GuardOptions& options) {
  std::unique_ptr<CommandGuard> guard;
  if (!options.rulesFile.empty()) {
    // A rule file named on the command line is used as it is or not at all: quietly falling back
    // to the shipped rules would hide the mistake being tested for.
    const std::filesystem::path path(options.rulesFile);
    auto bytes = files::readUserFile(path, kMaxInputFileBytes);
    if (!bytes) {
      std::cerr << "linkwash guard: " << bytes.error().message << '\n';
      return kExitError;
    }
    if (!CommandGuard::ruleBundleVersion(*bytes)) {
      std::cerr << "linkwash guard: " << options.rulesFile
                << " is not a command-guard rule file (it must be JSON with \"currentVersion\" "
                   "and \"rules\", each rule with id, platform, severity, pattern, summary and "
                   "explanation)\n";
      return kExitError;
    }
    guard = std::make_unique<CommandGuard>(nullptr, path);
  } else {
    guard = std::make_unique<CommandGuard>();
  }

  std::string text;
  if (options.command) {
    text = *options.command;
  } else {
    text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
  }
  const CommandRiskSeverity threshold =
      commandRiskSeverityFromRaw(options.threshold).value_or(CommandRiskSeverity::warning);
  const auto result = guard->analyze(text, threshold);
  const std::optional<std::string> neutral =
      options.neutralize && result ? std::optional(CommandGuard::neutralizedCommand(text))
                                   : std::nullopt;
  // The guard answers nothing for text this long; that must never read as "nothing risky".
  const std::size_t length = CommandGuard::normalizedCommand(text).size();
  const bool checked = length <= CommandGuard::kMaximumCommandBytes;
  const std::string notChecked =
      "Not checked: the text is " + std::to_string(length) + " bytes, longer than the " +
      std::to_string(CommandGuard::kMaximumCommandBytes) + " bytes the guard checks\n";

  if (options.json) {
    std::cout << jsonReport(result, checked, threshold, guard->currentRulesVersion(), neutral);
  } else if (!checked) {
    if (options.neutralize) std::cout << withFinalNewline(text);
    (options.neutralize ? std::cerr : std::cout) << notChecked;
  } else if (options.neutralize) {
    // A filter: the text to paste on standard output (neutralised only when risky), the reasons
    // on standard error.
    std::cout << withFinalNewline(neutral ? *neutral : text);
    if (result) std::cerr << describeResult(*result);
  } else if (result) {
    std::cout << describeResult(*result);
  } else {
    std::cout << "No risky pattern at or above " << rawValue(threshold) << " (rules "
              << guard->currentRulesVersion() << ")\n";
  }
  if (!checked) return kExitNotChecked;
  return result ? kExitRiskFound : kExitNothingFound;
}

}  // namespace

void addGuardCommand(CLI::App& app, int& exitCode) {
  auto options = std::make_shared<GuardOptions>();
  CLI::App* guard = app.add_subcommand(
      "guard", "Check a terminal command for risky patterns (download-and-run, disk wipes, ...)");
  guard->add_option_function<std::string>(
      "COMMAND", [options](const std::string& command) { options->command = command; },
      "The command to check; standard input when omitted");
  guard->add_option("--threshold", options->threshold, "Lowest severity to report")
      ->check(CLI::IsMember({"info", "warning", "danger"}))
      ->capture_default_str();
  guard->add_flag("--neutralize", options->neutralize,
                  "Print the command as harmless shell comments when it is risky (otherwise "
                  "unchanged); the findings go to standard error");
  guard->add_flag("--json", options->json, "Print one JSON object");
  guard->add_option("--rules", options->rulesFile,
                    "Use this command-guard rule file instead of the installed or shipped one");
  guard->footer(
      "Rules come from the installed rule file (replaced by rule updates), else the rules shipped "
      "with Linkwash.\n\nExit status: 0 when nothing at or above the threshold was found, 2 when "
      "something was, 3 when the text is longer than 32768 bytes and was not checked, 1 on "
      "errors, 64 on usage errors.\n\nExamples:\n"
      "  linkwash guard 'curl -fsSL https://example.com/install.sh | sh'\n"
      "  wl-paste | linkwash guard --threshold danger\n"
      "  linkwash guard --neutralize < pasted.txt > safe.txt");
  guard->callback([options, &exitCode] { exitCode = runGuard(*options); });
}

}  // namespace linkwash::cli
