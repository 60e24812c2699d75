// Manifest decoding and validation, versions, channels and the update errors' texts.
#include "core/updates/rule_update_manifest.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>

#include "base/strings.h"
#include "platform/json/json_writer.h"
#include "platform/url/url_components.h"

#ifndef LINKWASH_RULES_HOST
#error "LINKWASH_RULES_HOST must name the host serving rule releases"
#endif

namespace linkwash {
namespace {

bool isAsciiDigit(char c) { return c >= '0' && c <= '9'; }

bool allDigits(std::string_view text) {
  for (char c : text) {
    if (!isAsciiDigit(c)) return false;
  }
  return true;
}

std::uint32_t digitsValue(std::string_view digits) {
  std::uint32_t value = 0;
  for (char c : digits) value = value * 10 + static_cast<std::uint32_t>(c - '0');
  return value;
}

bool isHexDigit(char c) {
  return isAsciiDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// --- Decoding helpers: each answers false when the member breaks its declared type ----------

using Object = Json;

bool isAbsent(const Object& object, const char* key) {
  const auto it = object.find(key);
  return it == object.end() || it->is_null();
}

bool readString(const Object& object, const char* key, std::string& out) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return false;
  out = it->get<std::string>();
  return true;
}

bool readOptionalString(const Object& object, const char* key, std::optional<std::string>& out) {
  if (isAbsent(object, key)) return true;
  std::string value;
  if (!readString(object, key, value)) return false;
  out = std::move(value);
  return true;
}

// Any JSON number with a whole value that fits reads as an integer, so 1 and 1.0 both give 1:
// JSON itself does not tell them apart, and publishers' tools differ in which they write.
bool readInteger(const Json& value, std::int64_t& out) {
  if (value.is_number_integer() && !value.is_number_unsigned()) {
    out = value.get<std::int64_t>();
    return true;
  }
  if (value.is_number_unsigned()) {
    const auto unsignedValue = value.get<std::uint64_t>();
    if (unsignedValue > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      return false;
    }
    out = static_cast<std::int64_t>(unsignedValue);
    return true;
  }
  if (value.is_number_float()) {
    const double number = value.get<double>();
    if (!std::isfinite(number) || std::trunc(number) != number) return false;
    if (number < -9.2e18 || number > 9.2e18) return false;
    out = static_cast<std::int64_t>(number);
    return true;
  }
  return false;
}

bool readDate(const Object& object, const char* key, Timestamp& out) {
  std::string text;
  if (!readString(object, key, text)) return false;
  const auto parsed = parseISO8601(text);
  if (!parsed) return false;
  out = *parsed;
  return true;
}

bool readOptionalDate(const Object& object, const char* key, std::optional<Timestamp>& out) {
  if (isAbsent(object, key)) return true;
  Timestamp value{};
  if (!readDate(object, key, value)) return false;
  out = value;
  return true;
}

std::optional<RuleUpdateManifest::File::Kind> fileKindFromRawValue(std::string_view raw) {
  using Kind = RuleUpdateManifest::File::Kind;
  for (Kind kind : {Kind::clearurls, Kind::linkwashSupplementary, Kind::commandGuard}) {
    if (rawValue(kind) == raw) return kind;
  }
  return std::nullopt;
}

std::optional<RuleUpdateManifest::File> decodeFile(const Json& json) {
  if (!json.is_object()) return std::nullopt;
  RuleUpdateManifest::File file;
  std::string kind;
  if (!readString(json, "kind", kind)) return std::nullopt;
  const auto parsedKind = fileKindFromRawValue(kind);
  if (!parsedKind) return std::nullopt;
  file.kind = *parsedKind;
  if (!readString(json, "path", file.path) || !readString(json, "sha256", file.sha256) ||
      !readString(json, "url", file.url)) {
    return std::nullopt;
  }
  // A URL member must hold a URL; an empty or unparseable text fails the whole manifest.
  if (file.url.empty() || !URLComponents::parse(file.url)) return std::nullopt;
  if (!isAbsent(json, "bytes")) {
    std::int64_t bytes = 0;
    if (!readInteger(*json.find("bytes"), bytes)) return std::nullopt;
    file.bytes = bytes;
  }
  return file;
}

std::optional<RuleUpdateManifest::SourceSummary> decodeSourceSummary(const Json& json) {
  if (!json.is_object()) return std::nullopt;
  RuleUpdateManifest::SourceSummary summary;
  if (!isAbsent(json, "clearurls")) {
    const Json& clear = *json.find("clearurls");
    if (!clear.is_object()) return std::nullopt;
    RuleUpdateManifest::ClearURLs value;
    if (!readOptionalString(clear, "source", value.source) ||
        !readOptionalString(clear, "upstreamCommit", value.upstreamCommit) ||
        !readOptionalDate(clear, "reviewedAt", value.reviewedAt)) {
      return std::nullopt;
    }
    summary.clearurls = std::move(value);
  }
  if (!isAbsent(json, "linkwashSupplementary")) {
    const Json& supplementary = *json.find("linkwashSupplementary");
    if (!supplementary.is_object()) return std::nullopt;
    RuleUpdateManifest::LinkwashSupplementary value;
    if (!readOptionalString(supplementary, "version", value.version)) return std::nullopt;
    summary.linkwashSupplementary = std::move(value);
  }
  return summary;
}

// Fixed-width decimal field of an ISO 8601 text; -1 when not all digits.
int field(std::string_view text, std::size_t at, std::size_t width) {
  if (at + width > text.size()) return -1;
  const std::string_view digits = text.substr(at, width);
  if (!allDigits(digits)) return -1;
  return static_cast<int>(digitsValue(digits));
}

}  // namespace

// --- Errors ---------------------------------------------------------------------------------

std::string RuleUpdateError::errorDescription() const {
  switch (kind_) {
    case Kind::invalidManifest:
      return "Invalid rules manifest: " + text_;
    case Kind::incompatibleAppVersion:
      return "Rules require Linkwash " + text_ + " or newer.";
    case Kind::network:
      return "Download failed: " + text_;
    case Kind::missingFile:
      return "Rules bundle missing " + text_ + ".";
    case Kind::hashMismatch:
      return "Downloaded rules failed integrity check: " + text_ + ".";
    case Kind::invalidRules:
      return "Downloaded rules were invalid: " + text_;
    case Kind::fileSystem:
      return "Could not save rules: " + text_;
  }
  return text_;
}

// --- Channels -------------------------------------------------------------------------------

std::string_view rawValue(RuleUpdateChannel channel) {
  return channel == RuleUpdateChannel::beta ? "beta" : "stable";
}

std::optional<RuleUpdateChannel> ruleUpdateChannelFromRawValue(std::string_view raw) {
  for (RuleUpdateChannel channel : kAllRuleUpdateChannels) {
    if (rawValue(channel) == raw) return channel;
  }
  return std::nullopt;
}

std::string_view displayName(RuleUpdateChannel channel) {
  return channel == RuleUpdateChannel::beta ? "Beta" : "Stable";
}

std::string_view manifestPath(RuleUpdateChannel channel) {
  return channel == RuleUpdateChannel::beta ? "/linkwash/rules/beta/manifest.json"
                                            : "/linkwash/rules/manifest.json";
}

std::string_view signaturePath(RuleUpdateChannel channel) {
  return channel == RuleUpdateChannel::beta ? "/linkwash/rules/beta/manifest.sig"
                                            : "/linkwash/rules/manifest.sig";
}

std::string_view rulesHost() { return LINKWASH_RULES_HOST; }

std::string manifestURL(RuleUpdateChannel channel, std::string_view host) {
  return "https://" + std::string(host) + std::string(manifestPath(channel));
}

std::string signatureURL(std::string_view manifestURL) {
  constexpr std::string_view kFrom = "manifest.json";
  constexpr std::string_view kTo = "manifest.sig";
  std::string result;
  std::size_t start = 0;
  for (std::size_t found = manifestURL.find(kFrom); found != std::string_view::npos;
       found = manifestURL.find(kFrom, start)) {
    result.append(manifestURL.substr(start, found - start));
    result.append(kTo);
    start = found + kFrom.size();
  }
  result.append(manifestURL.substr(start));
  return result;
}

// --- Versions -------------------------------------------------------------------------------

std::optional<RulesVersion> RulesVersion::parse(std::string_view text) {
  const auto pieces = split(text, '.');
  if (pieces.size() != 4) return std::nullopt;
  static constexpr std::size_t kWidths[3] = {4, 2, 2};
  RulesVersion version;
  for (std::size_t i = 0; i < 3; ++i) {
    if (pieces[i].size() != kWidths[i] || !allDigits(pieces[i])) return std::nullopt;
    version.parts[i] = digitsValue(pieces[i]);
  }
  const std::string_view release = pieces[3];
  if (release.empty() || release.size() > 6 || !allDigits(release) || release[0] == '0') {
    return std::nullopt;
  }
  version.parts[3] = digitsValue(release);
  return version;
}

std::strong_ordering compareAppVersions(std::string_view a, std::string_view b) {
  auto numbers = [](std::string_view text) {
    std::vector<std::int64_t> values;
    for (std::string_view piece : split(text, '.')) {
      std::int64_t value = 0;
      const auto [end, error] = std::from_chars(piece.data(), piece.data() + piece.size(), value);
      if (error != std::errc() || end != piece.data() + piece.size()) value = 0;
      values.push_back(value);
    }
    return values;
  };
  auto left = numbers(a);
  auto right = numbers(b);
  const std::size_t length = std::max(left.size(), right.size());
  left.resize(length, 0);
  right.resize(length, 0);
  return left <=> right;
}

// --- Dates ----------------------------------------------------------------------------------

std::string formatISO8601(Timestamp time) {
  const auto day = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss clock(time - day);
  char text[32];
  std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(date.year()),
                static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                static_cast<int>(clock.seconds().count()));
  return text;
}

std::optional<Timestamp> parseISO8601(std::string_view text) {
  // YYYY-MM-DDTHH:MM:SS then Z or ±HH:MM.
  if (text.size() < 20) return std::nullopt;
  if (text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' || text[16] != ':') {
    return std::nullopt;
  }
  const int year = field(text, 0, 4);
  const int month = field(text, 5, 2);
  const int day = field(text, 8, 2);
  const int hour = field(text, 11, 2);
  const int minute = field(text, 14, 2);
  const int second = field(text, 17, 2);
  if (year < 0 || month < 0 || day < 0 || hour < 0 || minute < 0 || second < 0) {
    return std::nullopt;
  }
  if (hour > 23 || minute > 59 || second > 59) return std::nullopt;
  const std::chrono::year_month_day date{std::chrono::year(year),
                                         std::chrono::month(static_cast<unsigned>(month)),
                                         std::chrono::day(static_cast<unsigned>(day))};
  if (!date.ok()) return std::nullopt;

  int offsetSeconds = 0;
  const std::string_view zone = text.substr(19);
  if (zone != "Z") {
    if (zone.size() != 6 || (zone[0] != '+' && zone[0] != '-') || zone[3] != ':') {
      return std::nullopt;
    }
    const int offsetHours = field(zone, 1, 2);
    const int offsetMinutes = field(zone, 4, 2);
    if (offsetHours < 0 || offsetMinutes < 0 || offsetHours > 23 || offsetMinutes > 59) {
      return std::nullopt;
    }
    offsetSeconds = (offsetHours * 3600 + offsetMinutes * 60) * (zone[0] == '-' ? -1 : 1);
  }
  const Timestamp local = std::chrono::sys_days(date) + std::chrono::hours(hour) +
                          std::chrono::minutes(minute) + std::chrono::seconds(second);
  return local - std::chrono::seconds(offsetSeconds);
}

// --- The manifest ---------------------------------------------------------------------------

std::string_view rawValue(RuleUpdateManifest::File::Kind kind) {
  switch (kind) {
    case RuleUpdateManifest::File::Kind::clearurls:
      return "clearurls";
    case RuleUpdateManifest::File::Kind::linkwashSupplementary:
      return "linkwash-supplementary";
    case RuleUpdateManifest::File::Kind::commandGuard:
      return "command-guard";
  }
  return "";
}

const RuleUpdateManifest::File* RuleUpdateManifest::firstFile(File::Kind fileKind) const {
  for (const File& file : files) {
    if (file.kind == fileKind) return &file;
  }
  return nullptr;
}

RuleUpdateResult<void> RuleUpdateManifest::validate(std::int64_t supportedSchemaVersion) const {
  auto invalid = [](std::string message) {
    return tl::unexpected(RuleUpdateError::invalidManifest(std::move(message)));
  };
  if (product != "Linkwash") return invalid("Unexpected product");
  if (kind != "rules") return invalid("Unexpected manifest kind");
  if (schemaVersion > supportedSchemaVersion) return invalid("Unsupported rules schema");
  if (trimWhitespaceAndNewlines(currentVersion).empty()) return invalid("Missing rules version");
  if (!clearURLsFile()) return invalid("Missing ClearURLs rule file");
  if (!supplementaryFile()) return invalid("Missing Linkwash supplementary rule file");
  for (const File& file : files) {
    const auto url = URLComponents::parse(file.url);
    if (!url || url->scheme() != "https") return invalid("Rule file URLs must use HTTPS");
    const bool hexDigest =
        file.sha256.size() == 64 && std::all_of(file.sha256.begin(), file.sha256.end(), isHexDigit);
    if (!hexDigest) return invalid("Invalid SHA-256 for " + file.path);
    if (file.path.find('/') != std::string::npos || file.path.find("..") != std::string::npos) {
      return invalid("Invalid rule file path");
    }
  }
  return {};
}

std::optional<RuleUpdateManifest> RuleUpdateManifest::decode(std::string_view json) {
  const auto parsed = parseJson(json);
  if (!parsed || !parsed->is_object()) return std::nullopt;
  const Json& object = *parsed;

  RuleUpdateManifest manifest;
  if (!readString(object, "product", manifest.product) ||
      !readString(object, "kind", manifest.kind) ||
      !readString(object, "currentVersion", manifest.currentVersion) ||
      !readDate(object, "publishedAt", manifest.publishedAt) ||
      !readOptionalString(object, "minAppVersion", manifest.minAppVersion)) {
    return std::nullopt;
  }
  const auto schema = object.find("schemaVersion");
  if (schema == object.end() || !readInteger(*schema, manifest.schemaVersion)) return std::nullopt;

  if (!isAbsent(object, "sourceSummary")) {
    auto summary = decodeSourceSummary(*object.find("sourceSummary"));
    if (!summary) return std::nullopt;
    manifest.sourceSummary = std::move(*summary);
  }

  const auto files = object.find("files");
  if (files == object.end() || !files->is_array()) return std::nullopt;
  for (const Json& item : *files) {
    auto file = decodeFile(item);
    if (!file) return std::nullopt;
    manifest.files.push_back(std::move(*file));
  }

  const auto notes = object.find("notes");
  if (notes == object.end() || !notes->is_array()) return std::nullopt;
  for (const Json& note : *notes) {
    if (!note.is_string()) return std::nullopt;
    manifest.notes.push_back(note.get<std::string>());
  }
  return manifest;
}

std::string RuleUpdateManifest::encode() const {
  Json json = Json::object();
  json["product"] = product;
  json["kind"] = kind;
  json["schemaVersion"] = schemaVersion;
  json["currentVersion"] = currentVersion;
  json["publishedAt"] = formatISO8601(publishedAt);
  if (minAppVersion) json["minAppVersion"] = *minAppVersion;
  if (sourceSummary) {
    Json summary = Json::object();
    if (const auto& clear = sourceSummary->clearurls) {
      Json value = Json::object();
      if (clear->source) value["source"] = *clear->source;
      if (clear->upstreamCommit) value["upstreamCommit"] = *clear->upstreamCommit;
      if (clear->reviewedAt) value["reviewedAt"] = formatISO8601(*clear->reviewedAt);
      summary["clearurls"] = std::move(value);
    }
    if (const auto& supplementary = sourceSummary->linkwashSupplementary) {
      Json value = Json::object();
      if (supplementary->version) value["version"] = *supplementary->version;
      summary["linkwashSupplementary"] = std::move(value);
    }
    json["sourceSummary"] = std::move(summary);
  }
  Json fileList = Json::array();
  for (const File& file : files) {
    Json entry = Json::object();
    entry["kind"] = std::string(rawValue(file.kind));
    entry["path"] = file.path;
    entry["url"] = file.url;
    entry["sha256"] = file.sha256;
    if (file.bytes) entry["bytes"] = *file.bytes;
    fileList.push_back(std::move(entry));
  }
  json["files"] = std::move(fileList);
  Json noteList = Json::array();
  for (const std::string& note : notes) noteList.push_back(note);
  json["notes"] = std::move(noteList);
  return canonicalJson(json);
}

}  // namespace linkwash
