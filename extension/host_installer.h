// Registers linkwash-host with the browsers and packs the web extension for the stores. A browser
// finds a native-messaging host through a small JSON manifest named after the host, in a folder
// of its own; the manifest names the host's absolute path and the extensions allowed to start it.
//
//   auto browsers = browsersNamed("all");
//   for (const Browser* b : *browsers) installManifest(*b, manifestFolder(*b, {}), hostPath);
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"

namespace linkwash {

inline constexpr std::string_view kNativeHostName = "com.morvellabs.linkwash";
// The Chromium ID follows from the public key in the extension's manifest; the Firefox ID is
// the one the manifest declares.
inline constexpr std::string_view kChromiumExtensionId = "dldldimlamkgipjkanckoilidmncnoje";
inline constexpr std::string_view kFirefoxExtensionId = "linkwash@morvellabs.com";

struct Browser {
  std::string_view name;
  bool firefox = false;  // otherwise of the Chromium family
  // The browser's per-user data folder, relative to $XDG_CONFIG_HOME (Chromium family) or to
  // $HOME (Firefox).
  std::string_view dataFolder;
  // The folder every user's browser reads manifests from.
  std::string_view systemFolder;
};

const std::vector<Browser>& knownBrowsers();
// The browsers a --browser value names ("all" names every one); nothing for an unknown name.
std::optional<std::vector<const Browser*>> browsersNamed(std::string_view name);

struct ManifestPlace {
  // A browser data folder to use instead of the user's default one (a profile made for a test or
  // a second installation): manifests go into its own native-messaging folder.
  std::optional<std::filesystem::path> userDataDir;
  bool system = false;
};

// The folder `browser` reads linkwash's manifest from.
std::filesystem::path manifestFolder(const Browser& browser, const ManifestPlace& place);
std::filesystem::path manifestFile(const Browser& browser, const ManifestPlace& place);

// The manifest text for `browser` starting `hostPath` (which must be absolute).
std::string hostManifest(const Browser& browser, const std::filesystem::path& hostPath);

// Writes the manifest (readable by everyone: browsers of other users read a system one).
Result<std::filesystem::path> installManifest(const Browser& browser, const ManifestPlace& place,
                                              const std::filesystem::path& hostPath);
// Removes the manifest; answers whether there was one.
Result<bool> uninstallManifest(const Browser& browser, const ManifestPlace& place);

struct InstalledHost {
  std::filesystem::path manifest;
  std::string hostPath;   // empty when the manifest names none
  bool hostRuns = false;  // the named host exists and is executable
  bool allowsUs = false;  // the manifest lets our extension start the host
};
// What a browser would find; nothing when no manifest is there. A manifest that is not ours (or
// not JSON) shows as one that does not allow our extension.
std::optional<InstalledHost> inspectManifest(const Browser& browser, const ManifestPlace& place);

// Writes the extension in `extensionDir` as a zip archive (entries stored, as the stores accept)
// to `archive`. The manifest loses its "key", which only fixes the ID of an unpacked copy and
// which the stores refuse.
Result<void> packExtension(const std::filesystem::path& extensionDir,
                           const std::filesystem::path& archive);

}  // namespace linkwash
