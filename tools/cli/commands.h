// The command groups of `linkwash`. Each adds its subcommand to the app; the subcommand's
// callback stores the process exit code in `exitCode`.
#pragma once

#include <CLI/CLI.hpp>

namespace linkwash::cli {

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
void addWatchCommand(CLI::App& app, int& exitCode);
void addClipboardCommand(CLI::App& app, int& exitCode);

}  // namespace linkwash::cli
