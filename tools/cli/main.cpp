// `linkwash`: the command-line face of the library. Argument parsing only; the work is the
// library's.
#include <cstdio>

#include "tools/cli/commands.h"

int main(int argc, char** argv) {
  CLI::App app{
      "Linkwash removes tracking parameters, redirect wrappers and tracking path segments from "
      "web links.\n\nPreferences live in $LINKWASH_HOME/prefs (default ~/.config/linkwash) and "
      "are shared with the browser host."};
  app.name("linkwash");
  app.require_subcommand(1);
  app.set_version_flag("--version", std::string("linkwash ") + LINKWASH_VERSION);
  int exitCode = 0;
  linkwash::cli::addCleanCommand(app, exitCode);
  linkwash::cli::addSitesCommand(app, exitCode);
  linkwash::cli::addReportCommand(app, exitCode);
  linkwash::cli::addGuardCommand(app, exitCode);
  linkwash::cli::addDefaultsCommand(app, exitCode);
  linkwash::cli::addRulesCommand(app, exitCode);
  linkwash::cli::addRedirectCommand(app, exitCode);
  linkwash::cli::addCatalogCommand(app, exitCode);
  app.footer(linkwash::cli::kExitStatusHelp);
  const int status = linkwash::cli::runCommandLine(app, argc, argv, exitCode);
  std::fflush(stdout);
  return status;
}
