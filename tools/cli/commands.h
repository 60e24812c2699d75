// The command groups of `linkwash`. Each adds its subcommand to the app; the subcommand's
// callback stores the process exit code in `exitCode`.
#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>

namespace linkwash::cli {

// The exit statuses of every `linkwash` command (listed in --help and the README).
inline constexpr int kExitOK = 0;          // done; for guard: checked, nothing risky found
inline constexpr int kExitFailure = 1;     // the command could not do what was asked
inline constexpr int kExitRiskFound = 2;   // guard: a risky pattern at or above the threshold
inline constexpr int kExitNotChecked = 3;  // guard: the text was too long to be checked
inline constexpr int kExitUsage = 64;      // unknown command or option, missing argument
inline constexpr const char* kExitStatusHelp =
    "Exit status: 0 done (guard: nothing risky found), 1 failed, 2 guard found a risky "
    "pattern, 3 guard could not check the text (longer than 32768 bytes), 64 usage error "
    "(unknown command or option, missing argument).";

// Files named on the command line are read only up to this size (rule files, exports, catalogs).
inline constexpr std::uint64_t kMaxInputFileBytes = 16 * 1024 * 1024;

// Parses the arguments and runs the chosen command; returns the process's exit status. Usage
// errors print one line naming the problem ("unknown command \"bogus\"") and give kExitUsage.
int runCommandLine(CLI::App& app, int argc, char** argv, const int& exitCode);

void addDefaultsCommand(CLI::App& app, int& exitCode);
void addRulesCommand(CLI::App& app, int& exitCode);
// update, install-release, status and auto under `linkwash rules`.
void addRulesUpdateCommands(CLI::App& rules, int& exitCode);
void addCleanCommand(CLI::App& app, int& exitCode);
void addSitesCommand(CLI::App& app, int& exitCode);
void addReportCommand(CLI::App& app, int& exitCode);
void addRedirectCommand(CLI::App& app, int& exitCode);
void addCatalogCommand(CLI::App& app, int& exitCode);
void addGuardCommand(CLI::App& app, int& exitCode);

}  // namespace linkwash::cli
