// The command groups of `linkwash`. Each adds its subcommand to the app; the subcommand's
// callback stores the process exit code in `exitCode`.
#pragma once

#include <CLI/CLI.hpp>
#include <memory>

#include "core/session/session.h"

namespace linkwash::cli {

// The session a command works on, with the installed or shipped rules (opening one without rule
// files cannot fail).
inline std::unique_ptr<Session> openSession() { return std::move(*Session::open()); }

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
void addBrowserCommand(CLI::App& app, int& exitCode);
// resolve, map, archive, share.
void addLinkCommands(CLI::App& app, int& exitCode);
// stats (with export, reset, collection) and status.
void addStatsCommands(CLI::App& app, int& exitCode);
void addWatchCommand(CLI::App& app, int& exitCode);
void addClipboardCommand(CLI::App& app, int& exitCode);

}  // namespace linkwash::cli
