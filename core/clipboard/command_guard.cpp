// Loading of the command-guard rule file, matching of commands against it, and neutralisation.
#include "core/clipboard/command_guard.h"

#include <algorithm>
#include <utility>

#include "base/strings.h"
#include "platform/fs/files.h"
#include "platform/fs/paths.h"

#include "platform/json/json_members.h"

namespace linkwash {
namespace {

constexpr std::string_view kEllipsis = "...";

void replaceAll(std::string& text, std::string_view from, std::string_view to) {
  std::size_t at = 0;
  while ((at = text.find(from, at)) != std::string::npos) {
    text.replace(at, from.size(), to);
    at += to.size();
  }
}

bool isContinuationByte(char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; }

// Characters are counted as code points: a continuation byte never starts one, so invalid UTF-8
// still counts every stray byte once.
std::size_t characterCount(std::string_view text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char byte) { return !isContinuationByte(byte); }));
}

// The byte length of the first `count` characters of `text`.
std::size_t prefixBytes(std::string_view text, std::size_t count) {
  std::size_t seen = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (isContinuationByte(text[i])) continue;
    if (seen == count) return i;
    ++seen;
  }
  return text.size();
}

std::string shortenedMatch(std::string_view matched) {
  const std::string_view text = trimWhitespaceAndNewlines(matched);
  if (characterCount(text) <= CommandGuard::kMaximumMatchedTextCharacters) return std::string(text);
  const std::size_t keep = CommandGuard::kMaximumMatchedTextCharacters - kEllipsis.size();
  return std::string(text.substr(0, prefixBytes(text, keep))) + std::string(kEllipsis);
}

bool readSeverity(const Json& object, const char* key, CommandRiskSeverity& out) {
  std::string raw;
  if (!readJsonString(object, key, raw)) return false;
  auto severity = commandRiskSeverityFromRaw(raw);
  if (!severity) return false;
  out = *severity;
  return true;
}

std::optional<CommandGuard::RuleDefinition> decodeRule(const Json& json) {
  if (!json.is_object()) return std::nullopt;
  CommandGuard::RuleDefinition rule;
  if (!readJsonString(json, "id", rule.id) || !readJsonString(json, "platform", rule.platform) ||
      !readSeverity(json, "severity", rule.severity) ||
      !readJsonString(json, "pattern", rule.pattern) ||
      !readJsonString(json, "summary", rule.summary) ||
      !readJsonString(json, "explanation", rule.explanation)) {
    return std::nullopt;
  }
  return rule;
}

}  // namespace

std::string_view rawValue(CommandRiskSeverity severity) {
  switch (severity) {
    case CommandRiskSeverity::info:
      return "info";
    case CommandRiskSeverity::warning:
      return "warning";
    case CommandRiskSeverity::danger:
      return "danger";
  }
  return "info";
}

std::optional<CommandRiskSeverity> commandRiskSeverityFromRaw(std::string_view raw) {
  for (auto severity : kAllCommandRiskSeverities) {
    if (rawValue(severity) == raw) return severity;
  }
  return std::nullopt;
}

const CommandRiskFinding* CommandRiskResult::primaryFinding() const {
  const CommandRiskFinding* best = nullptr;
  for (const auto& finding : findings) {
    if (best == nullptr || finding.severity > best->severity ||
        (finding.severity == best->severity && finding.id < best->id)) {
      best = &finding;
    }
  }
  return best;
}

Json encodeCommandRiskFinding(const CommandRiskFinding& finding) {
  Json json = Json::object();
  json["id"] = finding.id;
  json["platform"] = finding.platform;
  json["severity"] = std::string(rawValue(finding.severity));
  json["summary"] = finding.summary;
  json["explanation"] = finding.explanation;
  json["matchedText"] = finding.matchedText;
  return json;
}

std::optional<CommandRiskFinding> decodeCommandRiskFinding(const Json& json) {
  if (!json.is_object()) return std::nullopt;
  CommandRiskFinding finding;
  if (!readJsonString(json, "id", finding.id) ||
      !readJsonString(json, "platform", finding.platform) ||
      !readSeverity(json, "severity", finding.severity) ||
      !readJsonString(json, "summary", finding.summary) ||
      !readJsonString(json, "explanation", finding.explanation) ||
      !readJsonString(json, "matchedText", finding.matchedText)) {
    return std::nullopt;
  }
  return finding;
}

Json encodeCommandRiskResult(const CommandRiskResult& result) {
  Json json = Json::object();
  json["command"] = result.command;
  json["severity"] = std::string(rawValue(result.severity));
  Json findings = Json::array();
  for (const auto& finding : result.findings) findings.push_back(encodeCommandRiskFinding(finding));
  json["findings"] = std::move(findings);
  json["rulesVersion"] = result.rulesVersion;
  return json;
}

std::optional<CommandRiskResult> decodeCommandRiskResult(const Json& json) {
  if (!json.is_object()) return std::nullopt;
  CommandRiskResult result;
  if (!readJsonString(json, "command", result.command) ||
      !readSeverity(json, "severity", result.severity) ||
      !readJsonString(json, "rulesVersion", result.rulesVersion)) {
    return std::nullopt;
  }
  auto findings = json.find("findings");
  if (findings == json.end() || !findings->is_array()) return std::nullopt;
  for (const auto& item : *findings) {
    auto finding = decodeCommandRiskFinding(item);
    if (!finding) return std::nullopt;
    result.findings.push_back(std::move(*finding));
  }
  return result;
}

std::filesystem::path CommandGuard::defaultInstalledRulesURL() {
  return paths::applicationSupport() / "com.morvellabs.linkwash" / "command-guard" / "active" /
         std::string(kInstalledRulesFileName);
}

CommandGuard::CommandGuard(const ResourceBundle* bundle,
                           std::optional<std::filesystem::path> installedRulesURL) {
  const std::filesystem::path installed =
      installedRulesURL ? *installedRulesURL : defaultInstalledRulesURL();
  std::optional<RuleBundle> decoded;
  if (auto bytes = files::readFile(installed)) decoded = decodeRuleBundle(*bytes);
  if (!decoded) {
    const ResourceBundle& resources =
        bundle != nullptr ? *bundle : ResourceBundle::cleanLinkResources();
    if (auto bytes = resources.read(kDefaultRulesFileName, kDefaultRulesFileExtension)) {
      decoded = decodeRuleBundle(*bytes);
    }
  }
  if (!decoded) {
    rulesVersion_ = std::string(kUnavailableVersion);
    return;
  }
  rulesVersion_ = std::move(decoded->currentVersion);
  rules_.reserve(decoded->rules.size());
  for (auto& definition : decoded->rules) {
    // A pattern ICU refuses drops only its own rule; the rest of the file still protects.
    auto regex = Regex::compile(definition.pattern);
    if (!regex) continue;
    rules_.push_back(CompiledRule{std::move(definition), std::move(*regex)});
  }
}

std::string CommandGuard::normalizedCommand(std::string_view command) {
  std::string text(command);
  // Shell continuations end in a backslash, PowerShell ones in a backquote.
  replaceAll(text, "\\\r\n", " ");
  replaceAll(text, "\\\n", " ");
  replaceAll(text, "`\r\n", " ");
  replaceAll(text, "`\n", " ");
  return std::string(trimWhitespaceAndNewlines(text));
}

std::optional<CommandRiskResult> CommandGuard::analyze(std::string_view command,
                                                       CommandRiskSeverity threshold) const {
  std::string normalized = normalizedCommand(command);
  if (normalized.empty() || normalized.size() > kMaximumCommandBytes ||
      startsWith(normalized, kNeutralizedHeaderLine)) {
    return std::nullopt;
  }
  std::vector<CommandRiskFinding> findings;
  for (const auto& rule : rules_) {
    if (rule.definition.severity < threshold) continue;
    auto match = rule.regex.firstMatch(normalized);
    if (!match) continue;
    const std::string_view matched = match->group(normalized, 0).value_or(std::string_view());
    findings.push_back(CommandRiskFinding{rule.definition.id, rule.definition.platform,
                                          rule.definition.severity, rule.definition.summary,
                                          rule.definition.explanation, shortenedMatch(matched)});
  }
  if (findings.empty()) return std::nullopt;
  std::stable_sort(findings.begin(), findings.end(), [](const auto& a, const auto& b) {
    if (a.severity != b.severity) return a.severity > b.severity;
    return a.id < b.id;
  });
  const CommandRiskSeverity highest = findings.front().severity;
  return CommandRiskResult{std::move(normalized), highest, std::move(findings), rulesVersion_};
}

std::string CommandGuard::neutralizedCommand(std::string_view command) {
  const std::string normalized = normalizedCommand(command);
  std::string text(kNeutralizedHeader);
  bool first = true;
  for (std::string_view line : split(normalized, '\n')) {
    if (!first) text += '\n';
    first = false;
    text += "# ";
    text += line;
  }
  return text;
}

std::optional<CommandGuard::RuleBundle> CommandGuard::decodeRuleBundle(std::string_view data) {
  auto json = parseJson(data);
  if (!json || !json->is_object()) return std::nullopt;
  RuleBundle bundle;
  if (!readJsonString(*json, "currentVersion", bundle.currentVersion)) return std::nullopt;
  auto rules = json->find("rules");
  if (rules == json->end() || !rules->is_array()) return std::nullopt;
  bundle.rules.reserve(rules->size());
  for (const auto& item : *rules) {
    auto rule = decodeRule(item);
    if (!rule) return std::nullopt;
    bundle.rules.push_back(std::move(*rule));
  }
  return bundle;
}

std::optional<std::string> CommandGuard::ruleBundleVersion(std::string_view data) {
  auto bundle = decodeRuleBundle(data);
  if (!bundle) return std::nullopt;
  return std::move(bundle->currentVersion);
}

}  // namespace linkwash
