// `linkwash`: the command-line face of the library. Argument parsing only; the work is the
// library's.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/diagnostics.h"
#include "base/strings.h"
#include "tools/cli/commands.h"

int main(int argc, char** argv) {
  CLI::App app{
      "Linkwash removes tracking parameters, redirect wrappers and tracking path segments from "
      "web links.\n\nPreferences live in $LINKWASH_HOME/prefs (default ~/.config/linkwash) and "
      "are shared with the browser host."};
  app.name("linkwash");
  app.require_subcommand(1);
  app.set_version_flag("--version", std::string("linkwash ") + LINKWASH_VERSION);
  // Commands print their data on standard output; the library's warnings must not mix with it.
  linkwash::setDiagnosticSink(linkwash::standardErrorSink());
  // Arguments end up in stored JSON and in output other programs parse; bytes that are not text
  // would make a stored list unreadable, so they are refused before anything runs.
  for (int i = 1; i < argc; ++i) {
    if (!linkwash::isValidUtf8(argv[i])) {
      std::fprintf(stderr, "linkwash: argument %d is not valid UTF-8 text; nothing was done\n", i);
      return 2;
    }
  }
  int exitCode = 0;
  linkwash::cli::addCleanCommand(app, exitCode);
  linkwash::cli::addSitesCommand(app, exitCode);
  linkwash::cli::addReportCommand(app, exitCode);
  linkwash::cli::addGuardCommand(app, exitCode);
  linkwash::cli::addWatchCommand(app, exitCode);
  linkwash::cli::addClipboardCommand(app, exitCode);
  linkwash::cli::addDefaultsCommand(app, exitCode);
  linkwash::cli::addRulesCommand(app, exitCode);
  linkwash::cli::addRedirectCommand(app, exitCode);
  linkwash::cli::addCatalogCommand(app, exitCode);
  linkwash::cli::addBrowserCommand(app, exitCode);
  linkwash::cli::addLinkCommands(app, exitCode);
  linkwash::cli::addStatsCommands(app, exitCode);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  }
  // Output that did not reach its destination (a full disk, a closed pipe) is a failure: a
  // caller must never take a truncated result for a complete one.
  const bool flushed = std::fflush(stdout) == 0;
  const int error = errno;
  if (!flushed || std::ferror(stdout)) {
    std::fprintf(stderr, "linkwash: cannot write the output: %s\n",
                 flushed ? "a write failed" : std::strerror(error));
    return exitCode != 0 ? exitCode : 1;
  }
  return exitCode;
}
