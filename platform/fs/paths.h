// Where Linkwash keeps its files. LINKWASH_HOME, when set, holds everything (tests set it to a
// temporary folder so that nothing touches the user's real data).
#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

namespace linkwash::paths {

// $LINKWASH_HOME/data, else $XDG_DATA_HOME/linkwash (~/.local/share/linkwash).
std::filesystem::path applicationSupport();
// The container of an app group: a folder named by its identifier inside applicationSupport().
std::filesystem::path groupContainer(std::string_view identifier);
// $LINKWASH_HOME/prefs, else $XDG_CONFIG_HOME/linkwash (~/.config/linkwash).
std::filesystem::path preferences();
// $LINKWASH_HOME/cache, else $XDG_CACHE_HOME/linkwash (~/.cache/linkwash).
std::filesystem::path cache();

}  // namespace linkwash::paths
