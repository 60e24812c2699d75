// `linkwash clipboard ...`: controls the running clipboard daemon (`linkwash watch`), changes its
// settings, and installs or removes its start at login.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>

#include "core/clipboard/clipboard_control.h"
#include "core/clipboard/clipboard_monitor.h"
#include "platform/fs/files.h"
#include "platform/prefs/preference_store.h"
#include "tools/cli/commands.h"
#include "tools/cli/startup_files.h"

namespace linkwash::cli {
namespace {

namespace fs = std::filesystem;

constexpr int kExitFailure = 1;
constexpr std::string_view kNoDaemon =
    "linkwash clipboard: no daemon running (start it with `linkwash watch`)";

std::optional<Json> askDaemon(std::string_view command) {
  auto reply = sendClipboardCommand(Json::object({{"command", std::string(command)}}));
  if (!reply) std::cerr << kNoDaemon << '\n';
  return reply;
}

void printStatus(const Json& status) {
  std::cout << "Clipboard protection: " << (status.value("enabled", false) ? "on" : "paused")
            << " (" << status.value("backend", std::string("?")) << ")\n";
  std::cout << "Cleaned today: " << status.value("cleanedToday", 0) << '\n';
  if (status.contains("lastClean")) {
    const Json& last = status["lastClean"];
    std::cout << "Last clean: " << last.value("originalURL", std::string()) << "\n        -> "
              << last.value("cleanedURL", std::string()) << '\n';
    std::string summary = last.value("summary", std::string());
    for (std::size_t at = 0; at < summary.size();) {
      std::size_t end = summary.find('\n', at);
      if (end == std::string::npos) end = summary.size();
      std::cout << "  " << summary.substr(at, end - at) << '\n';
      at = end + 1;
    }
  } else {
    std::cout << "Last clean: none\n";
  }
  if (status.contains("lastSkippedDomain")) {
    std::cout << "Last skipped site: " << status["lastSkippedDomain"].get<std::string>() << '\n';
  }
  if (status.contains("lastCommandRisk")) {
    const Json& risk = status["lastCommandRisk"];
    std::cout << "Last command risk: " << risk.value("severity", std::string()) << ": "
              << risk.value("summary", std::string()) << '\n';
  } else {
    std::cout << "Last command risk: none\n";
  }
  if (status.contains("pendingShareLink")) {
    std::cout << "Share link waiting to be resolved: "
              << status["pendingShareLink"].get<std::string>()
              << (status.value("resolvingShareLink", false) ? " (resolving)" : "") << '\n';
  }
  if (status.contains("shareLinkError")) {
    std::cout << status["shareLinkError"].get<std::string>() << '\n';
  }
}

int runControl(const std::string& command, bool json) {
  auto reply = askDaemon(command);
  if (!reply) return kExitFailure;
  if (json) {
    std::cout << writeJson(*reply) << '\n';
    return reply->value("ok", false) ? 0 : kExitFailure;
  }
  if (!reply->value("ok", false)) {
    std::cerr << "linkwash clipboard " << command << ": "
              << reply->value("error", std::string("failed")) << '\n';
    return kExitFailure;
  }
  if (command == "status") {
    printStatus(*reply);
  } else if (command == "restore") {
    if (!reply->value("restored", false)) {
      std::cerr << "linkwash clipboard restore: no clean to undo\n";
      return kExitFailure;
    }
    std::cout << "Restored the original clipboard text.\n";
  } else if (command == "disable-site") {
    if (!(*reply)["host"].is_string()) {
      std::cerr << "linkwash clipboard disable-site: no clean to take the site from\n";
      return kExitFailure;
    }
    std::cout << "Cleaning switched off for " << (*reply)["host"].get<std::string>() << ".\n";
  } else if (command == "resolve") {
    std::cout << "Resolving the share link; see `linkwash clipboard status`.\n";
  } else if (command == "pause") {
    std::cout << "Clipboard cleaning paused (risky commands are still flagged).\n";
  } else if (command == "resume") {
    std::cout << "Clipboard cleaning resumed.\n";
  }
  return 0;
}

// name → preference key, and whether the value is on/off (else a threshold).
const std::map<std::string, std::string_view>& settingKeys() {
  static const std::map<std::string, std::string_view> keys = {
      {"guard", ClipboardMonitor::kGuardEnabledKey},
      {"threshold", ClipboardMonitor::kGuardThresholdKey},
      {"neutralize", ClipboardMonitor::kGuardNeutralizeKey},
      {"resolve-share-links", ClipboardMonitor::kShareLinkResolutionKey},
      {"notifications", NotificationManager::kEnabledKey},
      {"command-warnings", NotificationManager::kCommandWarningsEnabledKey},
  };
  return keys;
}

int runSet(const std::string& name, const std::string& value) {
  auto key = settingKeys().find(name);
  if (key == settingKeys().end()) {
    std::cerr << "linkwash clipboard set: unknown setting " << name << '\n';
    return kExitFailure;
  }
  PreferenceValue stored;
  if (name == "threshold") {
    if (!commandRiskSeverityFromRaw(value)) {
      std::cerr << "linkwash clipboard set threshold: expected info, warning or danger\n";
      return kExitFailure;
    }
    stored = value;
  } else if (value == "on" || value == "off") {
    stored = value == "on";
  } else {
    std::cerr << "linkwash clipboard set " << name << ": expected on or off\n";
    return kExitFailure;
  }
  auto defaults = PreferenceStore::standard();
  if (defaults->path().empty() || !defaults->set(key->second, stored)) {
    std::cerr << "linkwash clipboard set: the preferences cannot be written\n";
    return kExitFailure;
  }
  // A running daemon would see it on the next copy anyway; this makes `status` show it at once.
  sendClipboardCommand(Json::object({{"command", "reload"}}));
  std::cout << name << " = " << value << '\n';
  return 0;
}

fs::path configHome() {
  if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg) return xdg;
  const char* home = std::getenv("HOME");
  return fs::path(home ? home : "/") / ".config";
}

std::string withBinary(std::string_view text) {
  std::error_code error;
  fs::path binary = fs::read_symlink("/proc/self/exe", error);
  std::string out(text);
  const std::string placeholder = "@LINKWASH_BINARY@";
  for (auto at = out.find(placeholder); at != std::string::npos; at = out.find(placeholder)) {
    out.replace(at, placeholder.size(), binary.string());
  }
  return out;
}

int runEnable(bool enable) {
  const fs::path units = configHome() / "systemd" / "user";
  const fs::path unit = units / kClipboardUnitName;
  const fs::path wanted = units / "graphical-session.target.wants" / kClipboardUnitName;
  const fs::path autostart = configHome() / "autostart" / kClipboardAutostartName;
  std::error_code error;
  if (!enable) {
    for (const auto& path : {wanted, unit, autostart}) fs::remove(path, error);
    std::cout << "Clipboard protection will no longer start at login.\n";
    return 0;
  }
  for (const auto& [path, text] :
       {std::pair{unit, kClipboardUnitText}, std::pair{autostart, kClipboardAutostartText}}) {
    fs::create_directories(path.parent_path(), error);
    if (!files::writeFileAtomically(path, withBinary(text))) {
      std::cerr << "linkwash clipboard enable: cannot write " << path.string() << '\n';
      return kExitFailure;
    }
  }
  // What `systemctl --user enable` would do, without needing a running user manager.
  fs::create_directories(wanted.parent_path(), error);
  fs::remove(wanted, error);
  fs::create_symlink(fs::path("..") / kClipboardUnitName, wanted, error);
  if (error) {
    std::cerr << "linkwash clipboard enable: cannot link " << wanted.string() << '\n';
    return kExitFailure;
  }
  std::cout << "Clipboard protection starts at your next login. To start it now: "
               "systemctl --user daemon-reload && systemctl --user start linkwash-clipboard\n";
  return 0;
}

}  // namespace

void addClipboardCommand(CLI::App& app, int& exitCode) {
  auto* clipboard =
      app.add_subcommand("clipboard", "Control the clipboard daemon (`linkwash watch`)");
  clipboard->require_subcommand(1);
  auto json = std::make_shared<bool>(false);
  const std::vector<std::pair<std::string, std::string>> controls = {
      {"status", "Show what the daemon did last"},
      {"restore", "Put the original of the last clean back on the clipboard"},
      {"disable-site", "Stop cleaning links of the last cleaned site"},
      {"clean-now", "Clean what is on the clipboard now, even while paused"},
      {"resolve", "Resolve the share link of the last clean over the network"},
      {"pause", "Stop cleaning copied links (risky commands are still flagged)"},
      {"resume", "Clean copied links again"},
  };
  for (const auto& [name, help] : controls) {
    auto* sub = clipboard->add_subcommand(name, help);
    if (name == "status") sub->add_flag("--json", *json, "Print the daemon's reply as JSON");
    sub->callback([&exitCode, name = name, json] { exitCode = runControl(name, *json); });
  }
  clipboard->add_subcommand("enable", "Start clipboard protection at login")->callback([&exitCode] {
    exitCode = runEnable(true);
  });
  clipboard->add_subcommand("disable", "Do not start clipboard protection at login")
      ->callback([&exitCode] { exitCode = runEnable(false); });
  auto* set = clipboard->add_subcommand(
      "set",
      "Change a setting: guard|neutralize|resolve-share-links|notifications|"
      "command-warnings on|off, threshold info|warning|danger");
  auto name = std::make_shared<std::string>();
  auto value = std::make_shared<std::string>();
  set->add_option("name", *name, "Setting")->required();
  set->add_option("value", *value, "New value")->required();
  set->callback([&exitCode, name, value] { exitCode = runSet(*name, *value); });
}

}  // namespace linkwash::cli
