// `linkwash rules`: the rule catalog from the shell. Lists categories and rules, switches them,
// manages custom rules, exports and imports the catalog and validates candidate rule files.
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>

#include "base/diagnostics.h"
#include "base/strings.h"
#include "core/rules/provider_file.h"
#include "core/rules/rules_engine.h"
#include "platform/fs/files.h"
#include "tools/cli/commands.h"
#include "tools/cli/engine_setup.h"

namespace linkwash::cli {
namespace {

int failWith(std::string_view subcommand, std::string_view message) {
  std::cerr << "linkwash rules " << subcommand << ": " << message << '\n';
  return 1;
}

std::unique_ptr<RulesEngine> openEngine() { return openRulesEngine(); }

Result<std::string> readInput(const std::string& path) {
  if (path == "-") {
    std::string all;
    char buffer[65536];
    while (std::cin.read(buffer, sizeof buffer) || std::cin.gcount() > 0) {
      all.append(buffer, static_cast<std::size_t>(std::cin.gcount()));
      if (all.size() > kMaxInputFileBytes) {
        return fail("standard input is larger than " + std::to_string(kMaxInputFileBytes) +
                    " bytes");
      }
    }
    return all;
  }
  return files::readUserFile(path, kMaxInputFileBytes);
}

// An export replaces its target atomically, which would turn a device or a symlink into a
// regular file (as root, /dev/null itself): only a regular file or a new name is written.
Result<void> checkExportTarget(const std::string& path) {
  std::error_code ec;
  const auto status = std::filesystem::symlink_status(path, ec);
  if (ec || status.type() == std::filesystem::file_type::not_found ||
      status.type() == std::filesystem::file_type::regular) {
    return {};
  }
  return fail(path + " is not a regular file; write to a new file or an existing regular one");
}

std::string categoryNames() {
  std::string names;
  for (auto type : kAllRuleCategoryTypes) {
    if (!names.empty()) names += ", ";
    names += '"' + std::string(rawValue(type)) + '"';
  }
  return names;
}

int runList(bool json, const std::string& only) {
  auto engine = openEngine();
  if (json) {
    auto exported = engine->exportRules();
    if (!exported) return failWith("list", "the catalog could not be encoded");
    std::cout << *exported << '\n';
    return 0;
  }
  std::optional<RuleCategoryType> filter;
  if (!only.empty()) {
    filter = ruleCategoryTypeFromRaw(only);
    if (!filter)
      return failWith("list", "unknown category \"" + only + "\"; use one of " + categoryNames());
  }
  for (const auto& category : engine->categories()) {
    if (filter && category->type != *filter) continue;
    std::cout << category->id << "  [" << (category->isEnabled ? "on" : "off") << "]  "
              << category->enabledRuleCount() << "/" << category->rules.size() << " rules on, "
              << category->matchCount << " matches — " << description(category->type) << '\n';
    for (const auto& entry : category->rules) {
      std::cout << "  " << (entry->isEnabled ? "[x] " : "[ ] ") << entry->id;
      if (entry->matchCount > 0) std::cout << "  (" << entry->matchCount << ")";
      std::cout << "  " << entry->displayName << "  {" << rawValue(entry->source) << "}\n";
    }
  }
  return 0;
}

int runSwitch(const std::string& id, bool enable) {
  const char* verb = enable ? "enable" : "disable";
  auto engine = openEngine();
  if (auto type = ruleCategoryTypeFromRaw(id)) {
    engine->category(*type)->isEnabled = enable;
  } else if (RuleEntry* entry = engine->findEntry(id)) {
    entry->isEnabled = enable;
    // A custom rule keeps its switch with its definition as well.
    if (entry->source == RuleEntry::RuleSource::custom) engine->saveCustomRules();
  } else {
    return failWith(verb, "no category or rule named \"" + id +
                              "\" (see `linkwash rules list`; categories are " + categoryNames() +
                              ")");
  }
  engine->saveEnabledStates();
  std::cout << id << ": " << (enable ? "enabled" : "disabled") << '\n';
  return 0;
}

int runAddCustom(const std::string& pattern, const std::string& name, const std::string& cat) {
  if (pattern.empty()) return failWith("add-custom", "the parameter name must not be empty");
  if (pattern.size() > RulesEngine::kMaxCustomPatternBytes) {
    return failWith("add-custom", "the parameter name is longer than " +
                                      std::to_string(RulesEngine::kMaxCustomPatternBytes) +
                                      " bytes");
  }
  auto type = ruleCategoryTypeFromRaw(cat);
  if (!type) {
    return failWith("add-custom",
                    "unknown category \"" + cat + "\"; use one of " + categoryNames());
  }
  auto engine = openEngine();
  const std::string id = makeRuleID(*type, pattern);
  if (engine->entry(id, *type) != nullptr) {
    return failWith("add-custom", "a rule with the ID \"" + id + "\" already exists");
  }
  (void)engine->addCustomRule(pattern, name.empty() ? pattern : name, *type);
  std::cout << "added " << id << '\n';
  return 0;
}

int runRemoveCustom(const std::string& id) {
  auto engine = openEngine();
  RuleEntry* entry = engine->findEntry(id);
  if (entry == nullptr || entry->source != RuleEntry::RuleSource::custom) {
    return failWith("remove-custom", "no custom rule with the ID \"" + id + "\"");
  }
  engine->removeCustomRule(id);
  std::cout << "removed " << id << '\n';
  return 0;
}

int runExport(const std::string& path) {
  auto engine = openEngine();
  auto exported = engine->exportRules();
  if (!exported) return failWith("export", "the catalog could not be encoded");
  if (path == "-") {
    std::cout << *exported << '\n';
    return 0;
  }
  if (auto target = checkExportTarget(path); !target) {
    return failWith("export", target.error().message);
  }
  if (auto written = files::writeFileAtomically(path, *exported); !written) {
    return failWith("export", "cannot write " + path + ": " + written.error().message);
  }
  std::cout << "exported the catalog to " << path << '\n';
  return 0;
}

int runImport(const std::string& path) {
  auto bytes = readInput(path);
  if (!bytes) return failWith("import", bytes.error().message);
  auto engine = openEngine();
  if (!engine->importRules(*bytes)) {
    return failWith("import", path +
                                  " is not a rule catalog export (expected the JSON of "
                                  "`linkwash rules export`); nothing was changed");
  }
  std::cout << "imported category switches and custom rules from " << path << '\n';
  return 0;
}

int runValidate(const std::string& dataPath, const std::string& supplementaryPath) {
  auto data = files::readUserFile(dataPath, kMaxInputFileBytes);
  if (!data) return failWith("validate", data.error().message);
  std::optional<std::string> supplementary;
  if (!supplementaryPath.empty()) {
    auto read = files::readUserFile(supplementaryPath, kMaxInputFileBytes);
    if (!read) return failWith("validate", read.error().message);
    supplementary = std::move(*read);
  }
  setDiagnosticSink(standardErrorSink());
  auto result = RulesEngine::validateRuleBundle(
      *data, supplementary ? std::optional<std::string_view>(*supplementary) : std::nullopt);
  if (!result) return failWith("validate", "invalid rules: " + result.error().message);
  // Count what compiles so the maker sees dropped providers at a glance.
  RulesEngine scratch(PreferenceStore::standard(), MatchStrategy::plain);
  scratch.loadRuleBundle(
      *data, supplementary ? std::optional<std::string_view>(*supplementary) : std::nullopt);
  // Patterns that do not compile are dropped without a word at load, so the maker hears of
  // each one here, and of patterns that will hit the per-link time budget.
  std::size_t dropped = 0;
  for (const std::string* bytes : {&*data, supplementary ? &*supplementary : nullptr}) {
    if (bytes == nullptr) continue;
    const auto review =
        reviewPatterns(decodeProvidersFile(*bytes).value_or(std::vector<NamedProvider>{}));
    for (const auto& line : review.dropped) std::cerr << "error: " << line << '\n';
    for (const auto& line : review.risky) std::cerr << "warning: " << line << '\n';
    dropped += review.dropped.size();
  }
  if (dropped > 0) {
    return failWith("validate", "invalid rules: " + std::to_string(dropped) +
                                    (dropped == 1 ? " pattern does" : " patterns do") +
                                    " not compile");
  }
  std::cout << "valid: " << scratch.compiledProviders().size() << " providers compiled\n";
  return 0;
}

}  // namespace

void addRulesCommand(CLI::App& app, int& exitCode) {
  CLI::App* rules = app.add_subcommand(
      "rules",
      "Inspect and change the rule catalog: categories, rules, custom rules and their counts. "
      "Changes are saved in the shared preferences and apply to every Linkwash program.");
  rules->require_subcommand(1);
  rules->footer(
      "Examples:\n"
      "  linkwash rules list --category \"Social Media\"\n"
      "  linkwash rules disable \"E-commerce\"\n"
      "  linkwash rules disable \"Analytics:utm_*\"\n"
      "  linkwash rules add-custom ref_src --name \"Referrer source\"\n"
      "  linkwash rules export rules-backup.json");

  struct Options {
    bool json = false;
    std::string first, second, name, category = "Custom";
  };
  auto o = std::make_shared<Options>();

  CLI::App* list = rules->add_subcommand("list", "Show every category and rule with its switch");
  list->add_flag("--json", o->json, "Print the catalog as JSON (the export format)");
  list->add_option("--category", o->first, "Show only this category, e.g. \"Analytics\"");
  list->footer("Each rule line shows [x] when on, its rule ID, its match count and its source.");
  list->callback([o, &exitCode] { exitCode = runList(o->json, o->first); });

  for (bool enable : {true, false}) {
    CLI::App* sw =
        rules->add_subcommand(enable ? "enable" : "disable",
                              std::string(enable ? "Switch on" : "Switch off") +
                                  " a whole category (by its name) or one rule (by its ID)");
    sw->add_option("ID", o->first,
                   "A category name such as \"Analytics\" or a rule ID such as "
                   "\"Analytics:utm_*\"")
        ->required();
    sw->footer(std::string("Example:\n  linkwash rules ") + (enable ? "enable" : "disable") +
               " \"Social Media:fbclid\"");
    sw->callback([o, enable, &exitCode] { exitCode = runSwitch(o->first, enable); });
  }

  CLI::App* add =
      rules->add_subcommand("add-custom", "Strip a parameter of your own choosing on every site");
  add->add_option("PATTERN", o->first, "The parameter name, matched whole and ignoring case")
      ->required();
  add->add_option("--name", o->name, "A label for the rule (default: the parameter name)");
  add->add_option("--category", o->category, "The category it counts under (default: Custom)");
  add->footer(
      "The rule ID is the category, a colon and the pattern (not the --name label): add-custom "
      "ref --name \"Referrer\" gives \"Custom:ref\", which strips ref and REF but not ref2.\n\n"
      "Example:\n"
      "  linkwash rules add-custom ref_src --category \"Referral Marketing\"");
  add->callback([o, &exitCode] { exitCode = runAddCustom(o->first, o->name, o->category); });

  CLI::App* remove = rules->add_subcommand("remove-custom", "Delete one of your custom rules");
  remove->add_option("ID", o->first, "The custom rule's ID, e.g. \"Custom:ref\"")->required();
  remove->callback([o, &exitCode] { exitCode = runRemoveCustom(o->first); });

  CLI::App* exportCommand =
      rules->add_subcommand("export", "Write the whole catalog as JSON (- for standard output)");
  exportCommand->add_option("FILE", o->first, "Where to write")->required();
  exportCommand->callback([o, &exitCode] { exitCode = runExport(o->first); });

  CLI::App* importCommand = rules->add_subcommand(
      "import", "Take category switches and custom rules from an export (- for standard input)");
  importCommand->add_option("FILE", o->first, "An export written by `linkwash rules export`")
      ->required();
  importCommand->footer(
      "Only the categories' switches and the custom rules are taken; match counts and the "
      "switches of individual built-in rules in the file are ignored.");
  importCommand->callback([o, &exitCode] { exitCode = runImport(o->first); });

  CLI::App* reset = rules->add_subcommand(
      "reset", "Switch every category and rule back on and delete all custom rules (counts stay)");
  reset->callback([&exitCode] {
    auto engine = openEngine();
    engine->resetToDefaults();
    std::cout << "every rule is on again and custom rules are gone\n";
    exitCode = 0;
  });

  CLI::App* resetCounts =
      rules->add_subcommand("reset-counts", "Set every match count to zero (switches stay)");
  resetCounts->callback([&exitCode] {
    auto engine = openEngine();
    engine->resetMatchCounts();
    std::cout << "match counts cleared\n";
    exitCode = 0;
  });

  CLI::App* validate = rules->add_subcommand(
      "validate", "Check a provider file (and a supplementary file) before publishing it");
  validate->add_option("DATA", o->first, "A ClearURLs-format provider file")->required();
  validate->add_option("SUPPLEMENTARY", o->second, "An optional supplementary file");
  validate->footer("Example:\n  linkwash rules validate data.min.json linkwash-supplementary.json");
  validate->callback([o, &exitCode] { exitCode = runValidate(o->first, o->second); });

  addRulesUpdateCommands(*rules, exitCode);
}

}  // namespace linkwash::cli
