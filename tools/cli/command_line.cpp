// Argument parsing shared by every `linkwash` command: one set of exit statuses, and usage errors
// that name the word at fault instead of CLI11's internal codes.
#include <iostream>
#include <optional>
#include <string>
#include <string_view>

#include "tools/cli/commands.h"

namespace linkwash::cli {
namespace {

// The first word that should name a command of a group but names none ("linkwash bogus",
// "linkwash rules bogus"), with the group's path; CLI11 itself would only say that a command is
// required or that an argument was not expected.
std::optional<std::string> unknownCommand(const CLI::App& app, int argc, char** argv,
                                          std::string& group) {
  const CLI::App* current = &app;
  group = app.get_name();
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word.empty() || word[0] == '-' || current->get_subcommands({}).empty()) return {};
    const CLI::App* next = nullptr;
    for (const CLI::App* sub : current->get_subcommands({})) {
      if (sub->check_name(word)) next = sub;
    }
    if (next == nullptr) return word;
    current = next;
    group += ' ' + current->get_name();
  }
  return {};
}

}  // namespace

int runCommandLine(CLI::App& app, int argc, char** argv, const int& exitCode) {
  std::string group;
  if (auto word = unknownCommand(app, argc, argv, group)) {
    std::cerr << group << ": unknown command \"" << *word << "\" (see " << group << " --help)\n";
    return kExitUsage;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // --help and --version end parsing with status 0; everything else is a usage error.
    const int status = app.exit(e);
    return status == 0 ? kExitOK : kExitUsage;
  }
  return exitCode;
}

}  // namespace linkwash::cli
