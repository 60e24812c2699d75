// Resolves Linkwash's data, preference and cache folders from the environment. The environment
// is read on every call so that a test (or an embedder) can move LINKWASH_HOME at run time.
#include "platform/fs/paths.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace linkwash::paths {
namespace {

namespace fs = std::filesystem;

std::optional<fs::path> environmentPath(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr || *value == '\0') return std::nullopt;
  return fs::path(value);
}

fs::path userHome() {
  if (auto home = environmentPath("HOME")) return *home;
  // No HOME (a service started without one): ask the password database.
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr &&
      found->pw_dir != nullptr) {
    return fs::path(found->pw_dir);
  }
  return fs::path("/");
}

// LINKWASH_HOME/<homeFolder> when set; otherwise the XDG folder `xdgVariable` (relative values
// are invalid under the XDG rules and ignored) or its default under the home folder.
fs::path resolve(const char* homeFolder, const char* xdgVariable, const char* xdgDefault) {
  if (auto home = environmentPath("LINKWASH_HOME")) return *home / homeFolder;
  if (auto base = environmentPath(xdgVariable); base && base->is_absolute()) {
    return *base / "linkwash";
  }
  return userHome() / xdgDefault / "linkwash";
}

}  // namespace

fs::path applicationSupport() { return resolve("data", "XDG_DATA_HOME", ".local/share"); }

fs::path groupContainer(std::string_view identifier) {
  return applicationSupport() / std::string(identifier);
}

fs::path preferences() { return resolve("prefs", "XDG_CONFIG_HOME", ".config"); }

fs::path cache() { return resolve("cache", "XDG_CACHE_HOME", ".cache"); }

}  // namespace linkwash::paths
