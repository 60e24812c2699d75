// ResourceBundle: finds "Linkwash_LinkwashCore.bundle", the folder of shipped data files.
//
// Searched once per process, in order: $LINKWASH_RESOURCES (the bundle itself or a folder
// holding it), next to the running executable, ../share/linkwash/ from it, and the build tree.
// When none is found the process cannot run: it stops with
// "unable to find bundle named Linkwash_LinkwashCore".
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace linkwash {

class ResourceBundle {
 public:
  // The located bundle (the fatal stop happens here on first use when there is none).
  static const ResourceBundle& cleanLinkResources();
  // Locates without stopping; for tests and `--help` paths.
  static std::optional<ResourceBundle> locate();
  explicit ResourceBundle(std::filesystem::path root) : root_(std::move(root)) {}

  const std::filesystem::path& root() const { return root_; }
  // The path of resource `name`.`extension` when that file exists.
  std::optional<std::filesystem::path> url(std::string_view name, std::string_view extension) const;
  std::optional<std::string> read(std::string_view name, std::string_view extension) const;

 private:
  std::filesystem::path root_;
};

// Version facts baked in by the build ("CFBundleShortVersionString", "CFBundleVersion") and the
// running system's description.
std::string appVersion();
std::string appBuild();
std::string operatingSystemVersionString();

}  // namespace linkwash
