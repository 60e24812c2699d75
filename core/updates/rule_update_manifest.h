// The rule update feed's manifest: the channels with their fixed endpoints, the manifest record
// and its JSON form, its structural validation, the rules-release version format, and the error
// values of the whole rule update path with the texts a user sees.
//
//   auto manifest = RuleUpdateManifest::decode(bytes);
//   if (!manifest) ...;                        // not a manifest at all
//   if (auto valid = manifest->validate(1); !valid) show(valid.error().errorDescription());
#pragma once

#include <array>
#include <chrono>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <tl/expected.hpp>

namespace linkwash {

// --- Errors ---------------------------------------------------------------------------------

// What went wrong on the way from the feed to the engine. Two errors are equal when both the
// case and the text are.
class RuleUpdateError {
 public:
  enum class Kind {
    invalidManifest,
    incompatibleAppVersion,
    network,
    missingFile,
    hashMismatch,
    invalidRules,
    fileSystem,
  };

  static RuleUpdateError invalidManifest(std::string message) {
    return {Kind::invalidManifest, std::move(message)};
  }
  static RuleUpdateError incompatibleAppVersion(std::string version) {
    return {Kind::incompatibleAppVersion, std::move(version)};
  }
  static RuleUpdateError network(std::string message) {
    return {Kind::network, std::move(message)};
  }
  static RuleUpdateError missingFile(std::string name) {
    return {Kind::missingFile, std::move(name)};
  }
  static RuleUpdateError hashMismatch(std::string name) {
    return {Kind::hashMismatch, std::move(name)};
  }
  static RuleUpdateError invalidRules(std::string message) {
    return {Kind::invalidRules, std::move(message)};
  }
  static RuleUpdateError fileSystem(std::string message) {
    return {Kind::fileSystem, std::move(message)};
  }

  Kind kind() const { return kind_; }
  // The case's own text (a message, a version or a file name).
  const std::string& text() const { return text_; }
  // The sentence shown to the user, e.g. "Invalid rules manifest: Unexpected product".
  std::string errorDescription() const;

  bool operator==(const RuleUpdateError&) const = default;

 private:
  RuleUpdateError(Kind kind, std::string text) : kind_(kind), text_(std::move(text)) {}
  Kind kind_;
  std::string text_;
};

template <typename T>
using RuleUpdateResult = tl::expected<T, RuleUpdateError>;

// --- Channels -------------------------------------------------------------------------------

enum class RuleUpdateChannel { stable, beta };

inline constexpr std::array<RuleUpdateChannel, 2> kAllRuleUpdateChannels = {
    RuleUpdateChannel::stable, RuleUpdateChannel::beta};

// "stable", "beta": the stored and command-line form.
std::string_view rawValue(RuleUpdateChannel channel);
std::optional<RuleUpdateChannel> ruleUpdateChannelFromRawValue(std::string_view raw);
// "Stable", "Beta".
std::string_view displayName(RuleUpdateChannel channel);
// "/linkwash/rules/manifest.json" or "/linkwash/rules/beta/manifest.json".
std::string_view manifestPath(RuleUpdateChannel channel);
std::string_view signaturePath(RuleUpdateChannel channel);

// The host serving rule releases, fixed at build time (LINKWASH_RULES_HOST).
std::string_view rulesHost();
// "https://" + host + the channel's manifest path.
std::string manifestURL(RuleUpdateChannel channel, std::string_view host = rulesHost());
// The signature beside a manifest: every "manifest.json" in the URL text becomes "manifest.sig".
std::string signatureURL(std::string_view manifestURL);

// --- Versions -------------------------------------------------------------------------------

// A rules release version, "2026.03.14.2": year.month.day (4, 2 and 2 digits) and a release
// number of 1 to 6 digits without a leading zero. Ordered part by part, numerically.
struct RulesVersion {
  std::array<std::uint32_t, 4> parts{};

  // Nothing unless `text` has exactly the form above (no blanks, no line break).
  static std::optional<RulesVersion> parse(std::string_view text);
  auto operator<=>(const RulesVersion&) const = default;
};

// The largest version the format admits: a floor that no stored release can pass.
inline constexpr std::string_view kHighestRulesVersion = "9999.12.31.999999";

// Dotted app versions ("1.10.2"): split at ".", each piece read as an integer (0 when it is not
// one), the shorter list padded with zeros.
std::strong_ordering compareAppVersions(std::string_view a, std::string_view b);

// --- Dates ----------------------------------------------------------------------------------

using Timestamp = std::chrono::sys_seconds;

// "2026-03-14T12:00:00Z": UTC, whole seconds.
std::string formatISO8601(Timestamp time);
// Accepts "YYYY-MM-DDTHH:MM:SS" followed by "Z" or a "+HH:MM"/"-HH:MM" offset; refuses
// fractional seconds, missing parts and impossible dates.
std::optional<Timestamp> parseISO8601(std::string_view text);

// --- The manifest ---------------------------------------------------------------------------

struct RuleUpdateManifest {
  struct ClearURLs {
    std::optional<std::string> source;
    std::optional<std::string> upstreamCommit;
    std::optional<Timestamp> reviewedAt;
    bool operator==(const ClearURLs&) const = default;
  };
  struct LinkwashSupplementary {
    std::optional<std::string> version;
    bool operator==(const LinkwashSupplementary&) const = default;
  };
  struct SourceSummary {
    std::optional<ClearURLs> clearurls;
    std::optional<LinkwashSupplementary> linkwashSupplementary;
    bool operator==(const SourceSummary&) const = default;
  };
  struct File {
    enum class Kind { clearurls, linkwashSupplementary, commandGuard };
    Kind kind = Kind::clearurls;
    std::string path;    // a bare file name
    std::string url;     // where to download it, as written
    std::string sha256;  // hexadecimal digest of the file's bytes
    std::optional<std::int64_t> bytes;
    bool operator==(const File&) const = default;
  };

  std::string product;  // "Linkwash"
  std::string kind;     // "rules"
  std::int64_t schemaVersion = 0;
  std::string currentVersion;
  Timestamp publishedAt{};
  std::optional<std::string> minAppVersion;
  std::optional<SourceSummary> sourceSummary;
  std::vector<File> files;
  std::vector<std::string> notes;

  bool operator==(const RuleUpdateManifest&) const = default;

  // The first file of each kind, or null. Pointers into `files`.
  const File* clearURLsFile() const { return firstFile(File::Kind::clearurls); }
  const File* supplementaryFile() const { return firstFile(File::Kind::linkwashSupplementary); }
  const File* commandGuardFile() const { return firstFile(File::Kind::commandGuard); }

  // The structural rules every manifest must pass, checked in a fixed order; the first failure
  // is an invalidManifest error with its message ("Unexpected product", "Invalid SHA-256 for "
  // + path, ...). Callers pass 1.
  [[nodiscard]] RuleUpdateResult<void> validate(std::int64_t supportedSchemaVersion) const;

  // Decodes manifest JSON: required members present with their JSON types, optional ones absent,
  // null or well-typed, dates in ISO 8601, URLs that parse, unknown members ignored. Nothing on
  // any failure.
  static std::optional<RuleUpdateManifest> decode(std::string_view json);
  // Compact JSON with sorted members and "/" unescaped (the form a publisher signs).
  std::string encode() const;

 private:
  const File* firstFile(File::Kind kind) const;
};

// "clearurls", "linkwash-supplementary", "command-guard".
std::string_view rawValue(RuleUpdateManifest::File::Kind kind);

}  // namespace linkwash
