// `linkwash browser`: registers linkwash-host with the browsers (install, status, uninstall) and
// packs the web extension for the stores.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <system_error>

#include "extension/host_installer.h"
#include "tools/cli/commands.h"

namespace linkwash::cli {
namespace {

namespace fs = std::filesystem;

struct BrowserOptions {
  std::string browser;
  std::string userDataDir;
  std::string hostPath;
  bool system = false;
  std::string outDir = ".";
  std::string sourceDir;
};

fs::path ownFolder() {
  std::error_code error;
  const fs::path self = fs::read_symlink("/proc/self/exe", error);
  return error ? fs::path() : self.parent_path();
}

// The host shipped beside this executable, unless the caller names another.
fs::path hostBinary(const BrowserOptions& options) {
  if (!options.hostPath.empty()) return fs::absolute(options.hostPath);
  return ownFolder() / "linkwash-host";
}

// The extension's folder: given, installed beside the programs, or the source tree it was
// built from.
fs::path extensionSource(const BrowserOptions& options) {
  if (!options.sourceDir.empty()) return options.sourceDir;
  const fs::path installed = ownFolder() / "../share/linkwash/browser-extension";
  std::error_code error;
  if (fs::exists(installed / "manifest.json", error)) return installed.lexically_normal();
  return LINKWASH_EXTENSION_SOURCE_DIR;
}

bool onPath(std::string_view program) {
  const char* path = std::getenv("PATH");
  std::string_view rest = path ? path : "";
  while (!rest.empty()) {
    const auto colon = rest.find(':');
    const fs::path folder(rest.substr(0, colon));
    if (!folder.empty() && ::access((folder / program).c_str(), X_OK) == 0) return true;
    rest = colon == std::string_view::npos ? "" : rest.substr(colon + 1);
  }
  return false;
}

// Without --browser: the browsers this user has run, or that are installed here.
bool present(const Browser& browser) {
  static const std::pair<std::string_view, std::string_view> kPrograms[] = {
      {"chromium", "chromium"},   {"chromium", "chromium-browser"}, {"chrome", "google-chrome"},
      {"brave", "brave-browser"}, {"vivaldi", "vivaldi"},           {"edge", "microsoft-edge"},
      {"firefox", "firefox"},     {"firefox", "firefox-esr"}};
  for (const auto& [name, program] : kPrograms) {
    if (name == browser.name && onPath(program)) return true;
  }
  std::error_code error;
  return fs::is_directory(manifestFolder(browser, {}).parent_path(), error);
}

ManifestPlace placeOf(const BrowserOptions& options) {
  ManifestPlace place;
  if (!options.userDataDir.empty()) place.userDataDir = fs::absolute(options.userDataDir);
  place.system = options.system;
  return place;
}

// The browsers a command is about, or nothing after telling why.
std::optional<std::vector<const Browser*>> chosenBrowsers(const BrowserOptions& options,
                                                          const char* command, bool detect) {
  // A profile folder belongs to one browser family; Chromium's stands for all of its family.
  std::string name = options.browser;
  if (name.empty()) name = !options.userDataDir.empty() ? "chromium" : "all";
  auto browsers = browsersNamed(name);
  if (!browsers) {
    std::cerr << "linkwash browser " << command << ": unknown browser \"" << name
              << "\" (chromium, chrome, brave, vivaldi, edge, firefox or all)\n";
    return std::nullopt;
  }
  if (detect && options.browser.empty() && options.userDataDir.empty() && !options.system) {
    std::erase_if(*browsers, [](const Browser* browser) { return !present(*browser); });
    if (browsers->empty()) {
      std::cerr << "linkwash browser " << command
                << ": no browser found; name one with --browser (chromium, chrome, brave, "
                   "vivaldi, edge, firefox or all)\n";
      return std::nullopt;
    }
  }
  return browsers;
}

int runInstall(const BrowserOptions& options) {
  const auto browsers = chosenBrowsers(options, "install", true);
  if (!browsers) return 2;
  const fs::path host = hostBinary(options);
  if (::access(host.c_str(), X_OK) != 0) {
    std::cerr << "linkwash browser install: the host " << host
              << " is missing or not executable (build it, or name it with --host)\n";
    return 1;
  }
  const ManifestPlace place = placeOf(options);
  std::set<fs::path> written;
  int exitCode = 0;
  for (const Browser* browser : *browsers) {
    if (written.contains(manifestFile(*browser, place))) continue;
    auto file = installManifest(*browser, place, host);
    if (!file) {
      std::cerr << "linkwash browser install: " << file.error().message << '\n';
      exitCode = 1;
      continue;
    }
    written.insert(*file);
    std::cout << browser->name << ": " << file->string() << '\n';
  }
  if (!written.empty()) {
    std::cout << "Now add the extension: load " << extensionSource(options).string()
              << " unpacked (Chromium: chrome://extensions, developer mode; Firefox: "
                 "about:debugging, This Firefox), or install it from your browser's store.\n";
  }
  return exitCode;
}

int runStatus(const BrowserOptions& options) {
  const auto browsers = chosenBrowsers(options, "status", false);
  if (!browsers) return 2;
  std::vector<ManifestPlace> places;
  if (!options.userDataDir.empty() || options.system) {
    places.push_back(placeOf(options));
  } else {
    places.push_back({});
    places.push_back({std::nullopt, true});
  }
  bool anyWorking = false;
  for (const Browser* browser : *browsers) {
    bool found = false;
    for (const ManifestPlace& place : places) {
      const auto installed = inspectManifest(*browser, place);
      if (!installed) continue;
      found = true;
      std::cout << browser->name << ": " << installed->manifest.string();
      if (!installed->allowsUs) {
        std::cout << " (does not allow the Linkwash extension)\n";
      } else if (!installed->hostRuns) {
        std::cout << " (the host \"" << installed->hostPath << "\" is missing)\n";
      } else {
        std::cout << " -> " << installed->hostPath << '\n';
        anyWorking = true;
      }
    }
    if (!found) std::cout << browser->name << ": not installed\n";
  }
  return anyWorking ? 0 : 1;
}

int runUninstall(const BrowserOptions& options) {
  const auto browsers = chosenBrowsers(options, "uninstall", false);
  if (!browsers) return 2;
  const ManifestPlace place = placeOf(options);
  int exitCode = 0;
  for (const Browser* browser : *browsers) {
    auto removed = uninstallManifest(*browser, place);
    if (!removed) {
      std::cerr << "linkwash browser uninstall: " << removed.error().message << '\n';
      exitCode = 1;
    } else if (*removed) {
      std::cout << browser->name << ": removed " << manifestFile(*browser, place).string() << '\n';
    }
  }
  return exitCode;
}

int runPack(const BrowserOptions& options) {
  const fs::path source = extensionSource(options);
  const std::string base = std::string("linkwash-") + LINKWASH_VERSION;
  for (const char* name : {"-chromium.zip", "-firefox.xpi"}) {
    const fs::path archive = fs::path(options.outDir) / (base + name);
    if (auto packed = packExtension(source, archive); !packed) {
      std::cerr << "linkwash browser pack: " << packed.error().message << '\n';
      return 1;
    }
    std::cout << archive.string() << '\n';
  }
  return 0;
}

}  // namespace

void addBrowserCommand(CLI::App& app, int& exitCode) {
  CLI::App* browser = app.add_subcommand(
      "browser", "Connect the browser extension to Linkwash (Chromium family and Firefox)");
  browser->require_subcommand(1);
  browser->footer(
      "Examples:\n"
      "  linkwash browser install                    # every browser found for this user\n"
      "  linkwash browser install --browser firefox\n"
      "  linkwash browser install --user-data-dir ~/.config/chromium-work\n"
      "  sudo linkwash browser install --system --browser all\n"
      "  linkwash browser status\n"
      "  linkwash browser pack --out dist");
  auto options = std::make_shared<BrowserOptions>();
  const auto addPlaceOptions = [&options](CLI::App* command) {
    command->add_option("--browser", options->browser,
                        "chromium, chrome, brave, vivaldi, edge, firefox or all");
    command->add_option("--user-data-dir", options->userDataDir,
                        "a browser data folder of its own (Chromium: the --user-data-dir it runs "
                        "with; Firefox: the folder that stands for ~/.mozilla)");
    command->add_flag("--system", options->system, "the folders every user's browser reads");
  };

  CLI::App* install = browser->add_subcommand(
      "install", "Register linkwash-host so that the Linkwash extension can reach it");
  addPlaceOptions(install);
  install->add_option("--host", options->hostPath,
                      "the host program to register (default: linkwash-host beside linkwash)");
  install->callback([&exitCode, options] { exitCode = runInstall(*options); });

  CLI::App* status = browser->add_subcommand("status", "Show where the host is registered");
  addPlaceOptions(status);
  status->callback([&exitCode, options] { exitCode = runStatus(*options); });

  CLI::App* uninstall = browser->add_subcommand("uninstall", "Remove the host's registration");
  addPlaceOptions(uninstall);
  uninstall->callback([&exitCode, options] { exitCode = runUninstall(*options); });

  CLI::App* pack = browser->add_subcommand(
      "pack", "Write the extension as a .zip (Chromium-family stores) and an .xpi (Firefox)");
  pack->add_option("--out", options->outDir, "the folder to write them to (default: here)");
  pack->add_option("--source", options->sourceDir, "the extension's folder");
  pack->callback([&exitCode, options] { exitCode = runPack(*options); });
}

}  // namespace linkwash::cli
