// The shared objects every `linkwash` command works with, set up the same way each time.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "base/result.h"
#include "core/rules/rules_engine.h"

namespace linkwash::cli {

inline constexpr std::string_view kAppGroupIdentifier = "group.com.morvellabs.linkwash";

// The engine on the standard preference store, loaded with the rules every Linkwash program
// uses (the installed release, else the shipped files). Rule-loading warnings go to stderr.
std::unique_ptr<RulesEngine> openRulesEngine();

// The same engine loaded from other provider files for one run; an unreadable or undecodable
// file is an error and nothing is loaded.
Result<std::unique_ptr<RulesEngine>> openRulesEngineFrom(
    const std::string& rulesFile, const std::optional<std::string>& supplementaryFile);

}  // namespace linkwash::cli
