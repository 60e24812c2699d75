// The signed catalog of privacy frontends that X/Twitter links may be rewritten to: its records
// and JSON form, the checks every catalog must pass before it is trusted (signature, canonical
// bytes, content rules, continuity with the installed catalog), freshness, and the services it
// offers as choices.
//
//   auto verified = PrivacyServicesCatalog::verify(payload, envelope, keyFile, installed.get());
//   if (!verified) keepTheCatalogInUse();
//   for (const auto& service : verified->choices(now)) { ... }
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "platform/json/json_writer.h"

namespace linkwash {

class ResourceBundle;

// The X/Twitter host names, in the order a schema-1 catalog must list them.
inline constexpr std::array<std::string_view, 5> kXTwitterHosts = {
    "x.com", "www.x.com", "twitter.com", "www.twitter.com", "mobile.twitter.com"};
inline constexpr std::string_view kXCancelBaseURL = "https://xcancel.com";

struct PrivacyServicesCatalog {
  // Wire values of the service fields.
  static constexpr std::string_view kProduct = "Linkwash";
  static constexpr std::string_view kKind = "privacy-services";
  static constexpr std::string_view kStateActive = "active";
  static constexpr std::string_view kStatePaused = "paused";
  static constexpr std::string_view kStateRetired = "retired";
  static constexpr std::string_view kFamilyNitter = "nitter";
  static constexpr std::string_view kFamilyBirdMakeup = "bird-makeup";
  static constexpr std::string_view kFamilyOther = "other";
  static constexpr std::string_view kShapeProfile = "profile";
  static constexpr std::string_view kShapeStatus = "status";

  // Limits of the content rules. Times are Unix seconds.
  static constexpr std::uint64_t kEarliestTime = 1789689600;              // 2026-09-18T00:00:00Z
  static constexpr std::uint64_t kLatestGenerated = 4102444800;           // 2100-01-01T00:00:00Z
  static constexpr std::uint64_t kVersionLimit = std::uint64_t{1} << 53;  // exclusive
  static constexpr std::size_t kMaxServices = 32;
  static constexpr std::size_t kMaxIDLength = 64;
  static constexpr std::size_t kMaxURLLength = 512;
  static constexpr std::size_t kMaxDisplayNameLength = 64;
  static constexpr std::size_t kMaxNoteLength = 512;  // `reason` and `history`
  // A service not reviewed for longer than this (90 days) makes the whole catalog stale.
  static constexpr std::uint64_t kMaximumReviewAge = 7776000;

  struct Service {
    std::optional<std::string> displayName;
    std::optional<std::string> family;  // "nitter", "bird-makeup" or "other"
    std::optional<std::string> history;
    std::string destination;  // https base URL links are rewritten to
    std::string id;           // stable, unique in the catalog
    std::string operatorURL;
    std::string reason;
    std::uint64_t reviewed = 0;
    std::vector<std::string> shapes;       // "profile", "status"
    std::vector<std::string> sourceHosts;  // X/Twitter hosts whose links it serves
    std::string sourceURL;
    std::string state;  // "active", "paused" or "retired"

    // The name shown to people: the display name, or the id without one.
    const std::string& label() const { return displayName ? *displayName : id; }
    bool supports(std::string_view shape) const;
    bool operator==(const Service&) const = default;
  };

  class Verified;

  bool automaticFailover = false;
  std::uint64_t generated = 0;
  std::string kind;
  std::string product;
  std::uint64_t schema = 0;
  std::vector<Service> services;
  std::uint64_t version = 0;

  bool operator==(const PrivacyServicesCatalog&) const = default;

  // Reads a payload as a catalog record: every required member present with its JSON type,
  // integers unsigned, optional members strings when present. Unknown members are ignored here;
  // the canonical comparison in verify() refuses them.
  [[nodiscard]] static std::optional<PrivacyServicesCatalog> decode(std::string_view payload);

  // The whole check of a delivered catalog: the signature steps against the trusted key file,
  // the canonical form of the payload, the content rules, and continuity with `previous` (the
  // installed catalog, or null). Every rejection is the same error, kRejected.
  [[nodiscard]] static Result<Verified> verify(std::string_view payload, std::string_view envelope,
                                               std::string_view keyFile, const Verified* previous);

  // The content rules alone, for a decoded catalog (what a publisher checks before signing).
  [[nodiscard]] static bool satisfiesContentRules(const PrivacyServicesCatalog& catalog);

  // Whether `next` (decoded from `nextBytes`) may replace `previous`: schema, version and
  // generation never go back, the same version must be the same bytes, and a newer version keeps
  // every service with a review no older and, after a schema-2 catalog, the same destination.
  [[nodiscard]] static bool continues(const PrivacyServicesCatalog& next,
                                      std::string_view nextBytes, const Verified& previous);

  // The catalog shipped in the resource bundle ("privacy-services.json", ".sig" and the keys
  // "privacy-services-keys.json"), verified once per process; null when the bundle, a file, or
  // the verification is missing or fails.
  [[nodiscard]] static std::shared_ptr<const Verified> bundled();
  // The same from a given bundle, verified afresh on every call.
  [[nodiscard]] static std::optional<Verified> fromBundle(const ResourceBundle& bundle);
};

inline constexpr std::string_view kPrivacyCatalogRejected =
    "The privacy services catalog is invalid";

// A catalog that passed verify(), with the exact bytes it was decoded from. Only verify() makes
// one; it is immutable and may be shared across threads.
class PrivacyServicesCatalog::Verified {
 public:
  const PrivacyServicesCatalog& catalog() const { return catalog_; }
  const std::string& bytes() const { return bytes_; }

  // True when `now` is not before `generated` and every service was reviewed no later than `now`
  // and at most kMaximumReviewAge seconds before it.
  bool fresh(std::uint64_t now) const;
  // True for a service of a schema-2 catalog that is active, of the Nitter family (XCancel by
  // its state alone), and whose destination is a bare https origin that is not an X/Twitter host.
  bool eligible(std::string_view id) const;
  // The eligible services in catalog order; empty unless the catalog is fresh at `now`. The
  // list lives as long as this object.
  const std::vector<Service>& choices(std::uint64_t now) const;

 private:
  friend struct PrivacyServicesCatalog;
  Verified(PrivacyServicesCatalog catalog, std::string bytes);
  static bool isEligible(const PrivacyServicesCatalog& catalog, const Service& service);

  PrivacyServicesCatalog catalog_;
  std::string bytes_;
  // Eligibility depends only on the catalog, which never changes once verified; the redirector
  // asks for every link, so it is worked out once.
  std::vector<Service> eligible_;
};

using VerifiedPrivacyCatalog = PrivacyServicesCatalog::Verified;

// The catalog as a JSON record (absent optionals left out) and its canonical bytes, which a
// payload must equal.
[[nodiscard]] Json encodePrivacyServicesCatalog(const PrivacyServicesCatalog& catalog);
[[nodiscard]] std::string canonical(const PrivacyServicesCatalog& catalog);

// The view of the verified catalog that settings and the redirector show: its services while the
// catalog is fresh, nothing otherwise.
class PrivacyServicesArchive {
 public:
  static constexpr std::uint64_t kMaximumReviewAge = PrivacyServicesCatalog::kMaximumReviewAge;
  static constexpr std::string_view kUnavailable =
      "Privacy Services unavailable. The catalog could not be verified, has no archive metadata, "
      "or its review is out of date. X/Twitter links remain on the cleaned canonical site.";
  static constexpr std::string_view kInformation =
      "The XCancel / Nitter / custom-instance choice uses only active services from the verified "
      "signed catalog. TwitterViewer remains a separate fixed choice.";
  static constexpr std::string_view kFallback =
      "Paused, retired, unverified, or shape-incompatible services cannot route or silently "
      "replace either explicit choice.";

  // From the catalog shipped with the program.
  static PrivacyServicesArchive bundled(std::uint64_t now);
  // From `catalog` (null: unavailable).
  static PrivacyServicesArchive verified(const PrivacyServicesCatalog::Verified* catalog,
                                         std::uint64_t now);

  const std::vector<PrivacyServicesCatalog::Service>& services() const { return services_; }
  bool isAvailable() const { return !services_.empty(); }
  // Services of the Nitter family, in catalog order, and all the others.
  std::vector<PrivacyServicesCatalog::Service> nitterServices() const;
  std::vector<PrivacyServicesCatalog::Service> otherServices() const;

 private:
  std::vector<PrivacyServicesCatalog::Service> services_;
};

}  // namespace linkwash
