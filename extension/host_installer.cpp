// Native-messaging manifests for the browsers, and the store archives of the extension.
#include "extension/host_installer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <system_error>

#include "platform/fs/files.h"
#include "platform/json/json_writer.h"

namespace linkwash {
namespace {

namespace fs = std::filesystem;

fs::path environmentFolder(const char* variable, const fs::path& fallback) {
  const char* value = std::getenv(variable);
  if (value != nullptr && value[0] == '/') return value;
  return fallback;
}

fs::path homeFolder() { return environmentFolder("HOME", "/"); }

std::string fileName() { return std::string(kNativeHostName) + ".json"; }

// --- zip archives: stored entries only, so the format needs nothing but a CRC-32 ---

std::uint32_t crc32(std::string_view bytes) {
  static const auto table = [] {
    std::array<std::uint32_t, 256> entries{};
    for (std::uint32_t i = 0; i < 256; ++i) {
      std::uint32_t c = i;
      for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
      entries[i] = c;
    }
    return entries;
  }();
  std::uint32_t crc = 0xFFFFFFFFu;
  for (const char byte : bytes)
    crc = table[(crc ^ static_cast<std::uint8_t>(byte)) & 0xFF] ^ (crc >> 8);
  return crc ^ 0xFFFFFFFFu;
}

void put16(std::string& out, std::uint32_t value) {
  out.push_back(static_cast<char>(value & 0xFF));
  out.push_back(static_cast<char>((value >> 8) & 0xFF));
}

void put32(std::string& out, std::uint32_t value) {
  put16(out, value & 0xFFFF);
  put16(out, value >> 16);
}

// 1980-01-01 00:00, so that packing the same tree twice gives the same bytes.
constexpr std::uint32_t kDosTime = 0;
constexpr std::uint32_t kDosDate = (1 << 5) | 1;

std::string zipArchive(const std::vector<std::pair<std::string, std::string>>& entries) {
  std::string out;
  std::string directory;
  for (const auto& [name, data] : entries) {
    const auto offset = static_cast<std::uint32_t>(out.size());
    const std::uint32_t crc = crc32(data);
    const auto size = static_cast<std::uint32_t>(data.size());
    put32(out, 0x04034b50);
    put16(out, 10);      // version needed: stored entries
    put16(out, 0x0800);  // names are UTF-8
    put16(out, 0);       // stored
    put16(out, kDosTime);
    put16(out, kDosDate);
    put32(out, crc);
    put32(out, size);
    put32(out, size);
    put16(out, static_cast<std::uint32_t>(name.size()));
    put16(out, 0);
    out += name;
    out += data;

    put32(directory, 0x02014b50);
    put16(directory, (3 << 8) | 20);  // made on Unix
    put16(directory, 10);
    put16(directory, 0x0800);
    put16(directory, 0);
    put16(directory, kDosTime);
    put16(directory, kDosDate);
    put32(directory, crc);
    put32(directory, size);
    put32(directory, size);
    put16(directory, static_cast<std::uint32_t>(name.size()));
    put16(directory, 0);
    put16(directory, 0);
    put16(directory, 0);
    put16(directory, 0);
    put32(directory, 0100644u << 16);  // a regular file, rw-r--r--
    put32(directory, offset);
    directory += name;
  }
  const auto directoryOffset = static_cast<std::uint32_t>(out.size());
  out += directory;
  put32(out, 0x06054b50);
  put16(out, 0);
  put16(out, 0);
  put16(out, static_cast<std::uint32_t>(entries.size()));
  put16(out, static_cast<std::uint32_t>(entries.size()));
  put32(out, static_cast<std::uint32_t>(directory.size()));
  put32(out, directoryOffset);
  put16(out, 0);
  return out;
}

}  // namespace

const std::vector<Browser>& knownBrowsers() {
  static const std::vector<Browser> browsers{
      {"chromium", false, "chromium", "/etc/chromium/native-messaging-hosts"},
      {"chrome", false, "google-chrome", "/etc/opt/chrome/native-messaging-hosts"},
      {"brave", false, "BraveSoftware/Brave-Browser",
       "/etc/opt/brave.com/brave/native-messaging-hosts"},
      {"vivaldi", false, "vivaldi", "/etc/opt/vivaldi/native-messaging-hosts"},
      {"edge", false, "microsoft-edge", "/etc/opt/edge/native-messaging-hosts"},
      {"firefox", true, ".mozilla", "/usr/lib/mozilla/native-messaging-hosts"},
  };
  return browsers;
}

std::optional<std::vector<const Browser*>> browsersNamed(std::string_view name) {
  std::vector<const Browser*> named;
  for (const Browser& browser : knownBrowsers()) {
    if (name == "all" || name == browser.name) named.push_back(&browser);
  }
  if (named.empty()) return std::nullopt;
  return named;
}

fs::path manifestFolder(const Browser& browser, const ManifestPlace& place) {
  const char* own = browser.firefox ? "native-messaging-hosts" : "NativeMessagingHosts";
  if (place.userDataDir) return *place.userDataDir / own;
  if (place.system) return browser.systemFolder;
  if (browser.firefox) return homeFolder() / browser.dataFolder / own;
  return environmentFolder("XDG_CONFIG_HOME", homeFolder() / ".config") / browser.dataFolder / own;
}

fs::path manifestFile(const Browser& browser, const ManifestPlace& place) {
  return manifestFolder(browser, place) / fileName();
}

std::string hostManifest(const Browser& browser, const fs::path& hostPath) {
  Json manifest = Json::object();
  manifest["name"] = kNativeHostName;
  manifest["description"] = "Linkwash link cleaner";
  manifest["path"] = hostPath.string();
  manifest["type"] = "stdio";
  if (browser.firefox) {
    manifest["allowed_extensions"] = Json::array({kFirefoxExtensionId});
  } else {
    manifest["allowed_origins"] =
        Json::array({"chrome-extension://" + std::string(kChromiumExtensionId) + "/"});
  }
  return manifest.dump(2) + "\n";
}

Result<fs::path> installManifest(const Browser& browser, const ManifestPlace& place,
                                 const fs::path& hostPath) {
  if (!hostPath.is_absolute()) return fail("The host path must be absolute: " + hostPath.string());
  const fs::path file = manifestFile(browser, place);
  if (auto written = files::writeFileAtomically(file, hostManifest(browser, hostPath)); !written) {
    return fail("Cannot write " + file.string() + ": " + written.error().message);
  }
  // Atomic writes are private to their owner; a browser of another user must read a system one.
  if (::chmod(file.c_str(), 0644) != 0) return fail("Cannot make " + file.string() + " readable");
  return file;
}

Result<bool> uninstallManifest(const Browser& browser, const ManifestPlace& place) {
  const fs::path file = manifestFile(browser, place);
  std::error_code error;
  const bool removed = fs::remove(file, error);
  if (error) return fail("Cannot remove " + file.string() + ": " + error.message());
  return removed;
}

std::optional<InstalledHost> inspectManifest(const Browser& browser, const ManifestPlace& place) {
  InstalledHost installed;
  installed.manifest = manifestFile(browser, place);
  const auto text = files::readFile(installed.manifest);
  if (!text) return std::nullopt;
  const Json manifest = Json::parse(*text, nullptr, false);
  if (!manifest.is_object()) return installed;
  if (const auto path = manifest.find("path"); path != manifest.end() && path->is_string()) {
    installed.hostPath = path->get<std::string>();
    installed.hostRuns = !installed.hostPath.empty() && installed.hostPath.front() == '/' &&
                         ::access(installed.hostPath.c_str(), X_OK) == 0;
  }
  const char* listKey = browser.firefox ? "allowed_extensions" : "allowed_origins";
  const std::string ours = browser.firefox
                               ? std::string(kFirefoxExtensionId)
                               : "chrome-extension://" + std::string(kChromiumExtensionId) + "/";
  if (const auto list = manifest.find(listKey); list != manifest.end() && list->is_array()) {
    installed.allowsUs = std::find(list->begin(), list->end(), Json(ours)) != list->end();
  }
  return installed;
}

Result<void> packExtension(const fs::path& extensionDir, const fs::path& archive) {
  std::error_code error;
  if (!fs::is_regular_file(extensionDir / "manifest.json", error)) {
    return fail("No extension in " + extensionDir.string() + " (manifest.json is missing)");
  }
  std::vector<std::pair<std::string, std::string>> entries;
  for (auto it = fs::recursive_directory_iterator(extensionDir, error);
       !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
    const fs::path relative = it->path().lexically_relative(extensionDir);
    if (relative.filename().string().starts_with(".")) {
      if (it->is_directory()) it.disable_recursion_pending();
      continue;
    }
    if (!it->is_regular_file()) continue;
    auto data = files::readFile(it->path());
    if (!data) return fail("Cannot read " + it->path().string());
    entries.emplace_back(relative.generic_string(), std::move(*data));
  }
  if (error) return fail("Cannot list " + extensionDir.string() + ": " + error.message());
  std::sort(entries.begin(), entries.end());

  for (auto& [name, data] : entries) {
    if (name != "manifest.json") continue;
    Json manifest = Json::parse(data, nullptr, false);
    if (!manifest.is_object()) return fail("The extension's manifest.json is not a JSON object");
    manifest.erase("key");
    data = manifest.dump(2) + "\n";
  }
  if (auto written = files::writeFileAtomically(archive, zipArchive(entries)); !written) {
    return fail("Cannot write " + archive.string() + ": " + written.error().message);
  }
  if (::chmod(archive.c_str(), 0644) != 0)
    return fail("Cannot make " + archive.string() + " readable");
  return {};
}

}  // namespace linkwash
