// Locates the shipped data files and reports the build's version and the running system.
#include "platform/resources/resource_bundle.h"

#include <sys/utsname.h>

#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <vector>

#include "base/strings.h"
#include "platform/fs/files.h"

namespace linkwash {
namespace {

namespace fs = std::filesystem;

constexpr const char* kBundleName = "Linkwash_LinkwashCore.bundle";

bool isDirectory(const fs::path& path) {
  std::error_code ec;
  return fs::is_directory(path, ec);
}

std::optional<fs::path> executableFolder() {
  std::error_code ec;
  fs::path executable = fs::read_symlink("/proc/self/exe", ec);
  if (ec || executable.empty()) return std::nullopt;
  return executable.parent_path();
}

// The places a bundle may be, best first.
std::vector<fs::path> candidates() {
  std::vector<fs::path> found;
  if (const char* configured = std::getenv("LINKWASH_RESOURCES"); configured && *configured) {
    const fs::path given(configured);
    // Either the bundle itself or a folder that holds it.
    if (given.filename() == kBundleName) found.push_back(given);
    found.push_back(given / kBundleName);
  }
  if (auto folder = executableFolder()) {
    found.push_back(*folder / kBundleName);
    found.push_back((*folder / ".." / "share" / "linkwash" / kBundleName).lexically_normal());
  }
  found.emplace_back(LINKWASH_BUILD_BUNDLE_DIR);
  return found;
}

// PRETTY_NAME from os-release, with its shell-style quoting removed.
std::optional<std::string> prettyName() {
  auto text = files::readFile("/etc/os-release");
  if (!text) text = files::readFile("/usr/lib/os-release");
  if (!text) return std::nullopt;
  for (std::string_view line : split(*text, '\n')) {
    constexpr std::string_view kKey = "PRETTY_NAME=";
    if (!startsWith(line, kKey)) continue;
    std::string_view raw = trimWhitespaceAndNewlines(line.substr(kKey.size()));
    if (raw.size() >= 2 && (raw.front() == '"' || raw.front() == '\'') &&
        raw.back() == raw.front()) {
      const bool escapes = raw.front() == '"';
      raw = raw.substr(1, raw.size() - 2);
      std::string value;
      for (std::size_t i = 0; i < raw.size(); ++i) {
        if (escapes && raw[i] == '\\' && i + 1 < raw.size()) ++i;
        value += raw[i];
      }
      return value.empty() ? std::nullopt : std::optional<std::string>(value);
    }
    return raw.empty() ? std::nullopt : std::optional<std::string>(std::string(raw));
  }
  return std::nullopt;
}

}  // namespace

std::optional<ResourceBundle> ResourceBundle::locate() {
  for (const fs::path& candidate : candidates()) {
    if (isDirectory(candidate)) return ResourceBundle(candidate);
  }
  return std::nullopt;
}

const ResourceBundle& ResourceBundle::cleanLinkResources() {
  static const ResourceBundle bundle = [] {
    auto located = locate();
    if (!located) {
      // Without its data files no executable can do anything useful; this is the one place
      // where the product stops instead of returning an error.
      std::fputs("unable to find bundle named Linkwash_LinkwashCore\n", stderr);
      std::fflush(stderr);
      std::abort();
    }
    return std::move(*located);
  }();
  return bundle;
}

std::optional<fs::path> ResourceBundle::url(std::string_view name,
                                            std::string_view extension) const {
  std::string file(name);
  if (!extension.empty()) {
    file += '.';
    file += extension;
  }
  fs::path path = root_ / file;
  std::error_code ec;
  if (!fs::is_regular_file(path, ec)) return std::nullopt;
  return path;
}

std::optional<std::string> ResourceBundle::read(std::string_view name,
                                                std::string_view extension) const {
  auto path = url(name, extension);
  if (!path) return std::nullopt;
  return files::readFile(*path);
}

std::string appVersion() { return LINKWASH_VERSION; }

std::string appBuild() { return LINKWASH_BUILD_NUMBER; }

std::string operatingSystemVersionString() {
  static const std::string description = [] {
    std::string kernel;
    utsname names{};
    if (::uname(&names) == 0) {
      kernel = std::string(names.sysname) + " " + names.release + " " + names.machine;
    }
    auto distribution = prettyName();
    if (!distribution) return kernel.empty() ? std::string("Linux") : kernel;
    if (kernel.empty()) return *distribution;
    return *distribution + "; " + kernel;
  }();
  return description;
}

}  // namespace linkwash
