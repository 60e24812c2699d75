// `linkwash defaults`: reads, writes and deletes preferences from the shell, in the manner of the
// classic `defaults` tool, on the same stores the browser host and the daemon use.
#include <charconv>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/strings.h"
#include "platform/prefs/preference_store.h"
#include "tools/cli/commands.h"
#include "tools/cli/settings_access.h"

namespace linkwash::cli {
namespace {

constexpr std::string_view kAppGroupIdentifier = "group.com.morvellabs.linkwash";

constexpr const char* kGroupHelp =
    "Use the app-group store (group.com.morvellabs.linkwash) instead of the standard store";

std::shared_ptr<PreferenceStore> openStore(bool group) {
  auto store = group ? PreferenceStore::suite(kAppGroupIdentifier) : PreferenceStore::standard();
  // The library falls back to a throw-away store when the file cannot be opened; a command that
  // reads or changes preferences must not pretend it worked.
  if (store->path().empty()) return nullptr;
  return store;
}

std::string storeName(bool group) { return group ? "the app-group store" : "the standard store"; }

int failWith(std::string_view subcommand, const std::string& message) {
  std::cerr << "linkwash defaults " << subcommand << ": " << message << '\n';
  return 1;
}

std::string hex(const Bytes& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text = "<";
  for (std::uint8_t byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 0xF];
  }
  text += '>';
  return text;
}

std::optional<Bytes> parseHex(std::string_view text) {
  if (text.size() >= 2 && text.front() == '<' && text.back() == '>') {
    text = text.substr(1, text.size() - 2);
  }
  auto nibble = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  Bytes bytes;
  int high = -1;
  for (char c : text) {
    if (c == ' ') continue;  // "<0a1b 2c3d>" groups bytes for reading
    int value = nibble(c);
    if (value < 0) return std::nullopt;
    if (high < 0) {
      high = value;
    } else {
      bytes.push_back(static_cast<std::uint8_t>(high << 4 | value));
      high = -1;
    }
  }
  if (high >= 0) return std::nullopt;
  return bytes;
}

// Shortest text that reads back the same; a whole number keeps a ".0" so that it does not look
// like an integer.
std::string floatText(double value) {
  char buffer[64];
  auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
  std::string text(buffer, ec == std::errc() ? end : buffer);
  if (std::isfinite(value) && text.find_first_of(".e") == std::string::npos) text += ".0";
  return text;
}

std::string quotedString(std::string_view text) {
  std::string out = "\"";
  for (char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned char>(c));
          out += escaped;
        } else {
          out += c;
        }
    }
  }
  out += '"';
  return out;
}

// `quoteStrings`: the listing quotes strings so that empty ones and blanks show; a single value
// is printed raw for scripts.
std::string display(const PreferenceValue& value, bool quoteStrings) {
  if (auto* b = std::get_if<bool>(&value)) return *b ? "true" : "false";
  if (auto* i = std::get_if<std::int64_t>(&value)) return std::to_string(*i);
  if (auto* d = std::get_if<double>(&value)) return floatText(*d);
  if (auto* s = std::get_if<std::string>(&value)) return quoteStrings ? quotedString(*s) : *s;
  return hex(std::get<Bytes>(value));
}

std::optional<PreferenceValue> parseValue(std::string_view type, std::string_view text,
                                          std::string& error) {
  if (type == "-bool" || type == "-boolean") {
    if (asciiIEquals(text, "yes") || asciiIEquals(text, "true") || text == "1") {
      return PreferenceValue{true};
    }
    if (asciiIEquals(text, "no") || asciiIEquals(text, "false") || text == "0") {
      return PreferenceValue{false};
    }
    error = "\"" + std::string(text) + "\" is not a boolean (use YES, NO, true, false, 1 or 0)";
    return std::nullopt;
  }
  if (type == "-int" || type == "-integer") {
    std::string_view digits = text;
    if (digits.size() > 1 && digits[0] == '+' && digits[1] != '-') digits.remove_prefix(1);
    std::int64_t value = 0;
    auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (digits.empty() || ec != std::errc() || end != digits.data() + digits.size()) {
      error = "\"" + std::string(text) + "\" is not a 64-bit integer (for example 42 or -7)";
      return std::nullopt;
    }
    return PreferenceValue{value};
  }
  if (type == "-float") {
    std::string_view digits = text;
    if (digits.size() > 1 && digits[0] == '+' && digits[1] != '-') digits.remove_prefix(1);
    double value = 0;
    auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (digits.empty() || ec != std::errc() || end != digits.data() + digits.size() ||
        !std::isfinite(value)) {
      error = "\"" + std::string(text) + "\" is not a finite number (for example 0.5 or 2e3)";
      return std::nullopt;
    }
    return PreferenceValue{value};
  }
  if (type == "-string") return PreferenceValue{std::string(text)};
  if (type == "-data") {
    if (auto bytes = parseHex(text)) return PreferenceValue{std::move(*bytes)};
    error = "\"" + std::string(text) + "\" is not hex data (pairs of hex digits, for example 0a1b)";
    return std::nullopt;
  }
  error = "unknown type \"" + std::string(type) + "\" (use -bool, -int, -float, -string or -data)";
  return std::nullopt;
}

int runRead(const std::string& key, bool group) {
  auto store = openStore(group);
  if (!store) return failWith("read", "cannot open " + storeName(group));
  if (key.empty()) {
    for (const auto& [name, value] : store->all()) {
      std::cout << name << " = " << display(value, true) << '\n';
    }
    return 0;
  }
  auto value = store->object(key);
  if (!value) return failWith("read", "no key \"" + key + "\" in " + storeName(group));
  std::cout << display(*value, false) << '\n';
  return 0;
}

// `arguments` is everything after `write` that was not an option: KEY -TYPE VALUE, and a
// trailing --group (the value is taken verbatim, so it may itself start with '-').
int runWrite(std::vector<std::string> arguments, bool group) {
  if (arguments.size() == 4 && arguments[3] == "--group") {
    group = true;
    arguments.pop_back();
  }
  if (arguments.size() != 3) {
    return failWith("write", "expected KEY -TYPE VALUE (see linkwash defaults write --help)");
  }
  const std::string& key = arguments[0];
  if (key.empty()) return failWith("write", "the key must not be empty");
  std::string type = arguments[1];
  if (startsWith(type, "--")) type.erase(0, 1);  // accept --int as well as -int
  std::string error;
  auto value = parseValue(type, arguments[2], error);
  if (!value) return failWith("write", error);
  auto store = openStore(group);
  if (!store) return failWith("write", "cannot open " + storeName(group));
  if (!storeKeepsSettings(*store, "defaults write")) return 1;
  if (!store->set(key, *value)) {
    return failWith("write", "could not save \"" + key + "\" in " + storeName(group));
  }
  return 0;
}

int runDelete(const std::string& key, bool group) {
  if (key.empty()) return failWith("delete", "expected the KEY to delete");
  auto store = openStore(group);
  if (!store) return failWith("delete", "cannot open " + storeName(group));
  if (!storeKeepsSettings(*store, "defaults delete")) return 1;
  if (!store->object(key))
    return failWith("delete", "no key \"" + key + "\" in " + storeName(group));
  if (!store->remove(key)) {
    return failWith("delete", "could not delete \"" + key + "\" from " + storeName(group));
  }
  return 0;
}

}  // namespace

void addDefaultsCommand(CLI::App& app, int& exitCode) {
  CLI::App* defaults = app.add_subcommand(
      "defaults",
      "Read, write and delete preferences. Every Linkwash program shares these stores, so a "
      "setting changed here applies to the browser host and the clipboard daemon too.");
  defaults->require_subcommand(1);
  defaults->footer(
      "Examples:\n"
      "  linkwash defaults read\n"
      "  linkwash defaults write stats_collection_enabled -bool NO\n"
      "  linkwash defaults delete stats_collection_enabled");

  // Option values live as long as the app: the callbacks run during parse().
  struct Options {
    std::string key;
    bool group = false;
  };
  auto read = std::make_shared<Options>();
  auto write = std::make_shared<Options>();
  auto remove = std::make_shared<Options>();

  CLI::App* readCommand = defaults->add_subcommand(
      "read", "Print the value of KEY, or every key = value of the store sorted by key");
  CLI::Option* readKey = readCommand->add_option("KEY", read->key, "The preference to print");
  readCommand->add_flag("--group", read->group, kGroupHelp);
  readCommand->footer(
      "A single value is printed as it is; in the full listing, strings are quoted. Booleans "
      "show as true or false, floats always carry a decimal point or an exponent, and data "
      "shows as hex between angle brackets, such as <0a1b>.\n\n"
      "Examples:\n"
      "  linkwash defaults read privacyRedirects_xRedirectChoice\n"
      "  linkwash defaults read --group");
  readCommand->callback([read, readKey, &exitCode] {
    if (readKey->count() > 0 && read->key.empty()) {
      exitCode = failWith("read", "the key must not be empty");
      return;
    }
    exitCode = runRead(read->key, read->group);
  });

  CLI::App* writeCommand = defaults->add_subcommand(
      "write", "Store a typed value: linkwash defaults write KEY -TYPE VALUE [--group]");
  writeCommand->add_flag("--group", write->group, kGroupHelp);
  // Everything from KEY on is taken verbatim: CLI11 would read "-bool" as short options.
  writeCommand->prefix_command();
  writeCommand->footer(
      "Stores VALUE under KEY, replacing any value it had. TYPE is one of:\n"
      "  -bool    YES, NO, true, false, 1 or 0 (any case)\n"
      "  -int     a whole number such as 42 or -7\n"
      "  -float   a number such as 0.5 or 2e3\n"
      "  -string  any text (taken as it is, even when it starts with '-')\n"
      "  -data    hex digits such as 0a1b, optionally as <0a1b>\n"
      "A value that is not of its TYPE is refused and nothing is written.\n\n"
      "Examples:\n"
      "  linkwash defaults write stats_collection_enabled -bool NO\n"
      "  linkwash defaults write privacyRedirects_xRedirectChoice -string xcancel\n"
      "  linkwash defaults write --group privacyRedirects_nitterAutomatic -bool YES");
  writeCommand->callback([writeCommand, write, &exitCode] {
    exitCode = runWrite(writeCommand->remaining(), write->group);
  });

  CLI::App* deleteCommand = defaults->add_subcommand(
      "delete", "Remove KEY from the store, so that it reads as its default");
  deleteCommand->add_option("KEY", remove->key, "The preference to remove");
  deleteCommand->add_flag("--group", remove->group, kGroupHelp);
  deleteCommand->footer(
      "Example:\n"
      "  linkwash defaults delete stats_collection_enabled");
  deleteCommand->callback(
      [remove, &exitCode] { exitCode = runDelete(remove->key, remove->group); });
}

}  // namespace linkwash::cli
