// `linkwash-publish sign-catalog` and `publish-catalog`: the signed privacy services catalog and
// the update tree the metadata server serves under /privacy-services/.
#pragma once

#include <CLI/CLI.hpp>

namespace linkwash::publish {

// Adds both subcommands to `app`; their callbacks store the exit code in `exitCode`.
void addCatalogCommands(CLI::App& app, int& exitCode);

}  // namespace linkwash::publish
