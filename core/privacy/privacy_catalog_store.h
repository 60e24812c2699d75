// Updates of the privacy services catalog: the small update manifest the metadata server
// publishes, the shared store holding the installed catalog ("installed.json", re-verified on
// every read), and the locked install that never goes back to an older catalog.
//
//   PrivacyCatalogStore store = PrivacyCatalogStore::shared();
//   auto installed = store.install(manifestBytes, payload, signature, nowSeconds);
//   if (!installed) keepTheCatalogInUse();
//
//   // What the cleaning pipeline redirects with: the installed catalog, else the shipped one.
//   PrivacyRedirector redirector(privacyCatalogInUse(), nowSeconds);
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/result.h"
#include "core/privacy/privacy_services_catalog.h"

namespace linkwash {

// The host of the maker's metadata server (the build setting LINKWASH_UPDATES_HOST).
std::string_view updatesHost();

// The document at "/privacy-services/current.json" naming the newest catalog and its signature.
struct PrivacyCatalogManifest {
  struct Asset {
    std::uint64_t bytes = 0;  // exact size of the file
    std::string sha256;       // lower-case hex
    std::string url;
    bool operator==(const Asset&) const = default;
  };

  static constexpr std::size_t kMaxBytes = 4096;
  static constexpr std::uint64_t kSchema = 1;
  static constexpr std::string_view kKind = "privacy-services-update";
  // `generated` must lie in [kEarliestTime, kEarliestTime + 2^53 - 1).
  static constexpr std::uint64_t kGeneratedLimit =
      PrivacyServicesCatalog::kEarliestTime + (std::uint64_t{1} << 53) - 1;

  std::uint64_t schema = kSchema;
  std::string product = std::string(PrivacyServicesCatalog::kProduct);
  std::string kind = std::string(kKind);
  std::uint64_t version = 0;
  std::uint64_t generated = 0;
  Asset payload;
  Asset signature;

  bool operator==(const PrivacyCatalogManifest&) const = default;

  // Decodes and checks a manifest: at most 4096 bytes, schema 1, product and kind, version in
  // [1, 2^53), generated in range, lower-case digests, and asset URLs that are exactly the
  // versioned files of `version` on `host`. Every failure is the same error.
  [[nodiscard]] static Result<PrivacyCatalogManifest> parse(std::string_view data,
                                                            std::string_view host = updatesHost());

  // The manifest describing `payload` and `signature` as version `version` on `host`.
  static PrivacyCatalogManifest describing(std::uint64_t version, std::uint64_t generated,
                                           std::string_view payload, std::string_view signature,
                                           std::string_view host = updatesHost());

  // Canonical JSON (members sorted, no blanks, "/" not escaped).
  std::string encode() const;

  // "https://" + host + "/privacy-services/current.json".
  static std::string currentURL(std::string_view host = updatesHost());
  // "https://" + host + "/privacy-services/versions/".
  static std::string versionsBaseURL(std::string_view host = updatesHost());
  // The versions base URL + version + "/privacy-services." + extension ("json" or "sig").
  static std::string assetURL(std::uint64_t version, std::string_view extension,
                              std::string_view host = updatesHost());
};

inline constexpr std::string_view kPrivacyCatalogManifestRejected =
    "The privacy catalog update manifest is invalid";

// The shared store of the installed catalog. Readers take no lock and rely on the atomic
// replacement of "installed.json"; installs from every process are serialised by an exclusive
// flock on "install.lock". The object holds only paths and the trusted keys, so copies are cheap
// and it may be used from any thread.
class PrivacyCatalogStore {
 public:
  static constexpr std::string_view kInstalledFileName = "installed.json";
  static constexpr std::string_view kLockFileName = "install.lock";
  // The highest catalog version ever installed (see encodeHighestVersionRecord).
  static constexpr std::string_view kHighestFileName = "installed-highest.json";
  static constexpr std::size_t kMaxInstalledBytes = 52000;
  static constexpr std::string_view kAppGroupIdentifier = "group.com.morvellabs.linkwash";

  // One installed catalog as stored: its manifest (kept as a JSON object) and the exact bytes of
  // payload and signature (base64 in JSON).
  struct Record {
    PrivacyCatalogManifest manifest;
    std::string payload;
    std::string signature;

    std::string encode() const;
    // Nothing unless the three members are there with their types and both byte fields are
    // canonical base64. Says nothing about digests or signatures.
    static std::optional<Record> decode(std::string_view json);
  };

  // `trustedKeys` is the content of "privacy-services-keys.json"; `host` the metadata host whose
  // URLs a manifest must name.
  PrivacyCatalogStore(std::filesystem::path root, std::string trustedKeys,
                      std::string host = std::string(updatesHost()));

  // The store every program shares: "PrivacyServices" in the app group's container, trusting the
  // keys shipped in the resource bundle (none when the bundle or the file is missing).
  static PrivacyCatalogStore shared();
  static std::filesystem::path sharedRoot();
  // The shipped "privacy-services-keys.json"; empty (trusting nothing) when missing.
  static std::string shippedKeys();

  const std::filesystem::path& root() const { return root_; }
  std::filesystem::path installedFile() const { return root_ / kInstalledFileName; }
  std::filesystem::path lockFile() const { return root_ / kLockFileName; }
  const std::string& host() const { return host_; }

  // The installed catalog, verified in full on every call (manifest rules, sizes and digests,
  // signature, content rules; no freshness rule, no predecessor). Nothing when the file is
  // missing, larger than 52000 bytes, or fails any check.
  std::optional<VerifiedPrivacyCatalog> current() const;

  // The whole check of a delivered catalog: the manifest's rules, sizes and digests of both
  // files, the signature and content rules with the installed catalog as predecessor and no
  // version below the highest ever installed (so the version never goes back), agreement of version
  // and generation with the manifest, and freshness at `now`. The error names the step that failed.
  [[nodiscard]] Result<VerifiedPrivacyCatalog> validate(std::string_view manifest,
                                                        std::string_view payload,
                                                        std::string_view signature,
                                                        std::uint64_t now) const;

  // validate() under the install lock, then the atomic replacement of "installed.json". A
  // failure leaves the installed catalog as it was.
  [[nodiscard]] Result<VerifiedPrivacyCatalog> install(std::string_view manifest,
                                                       std::string_view payload,
                                                       std::string_view signature,
                                                       std::uint64_t now) const;

 private:
  std::optional<std::string> readInstalled() const;
  std::optional<std::uint64_t> highestInstalled() const;

  std::filesystem::path root_;
  std::string trustedKeys_;
  std::string host_;
};

// The catalog links are redirected with: the shared store's installed catalog, else the one
// shipped with the program (null when neither verifies). Cached per process and verified again
// only when "installed.json" changes (its device, inode, size or modification time), so the
// cleaning path pays a stat(), not a signature check, per link. Thread-safe.
std::shared_ptr<const VerifiedPrivacyCatalog> privacyCatalogInUse();

// Seconds since 1970 by the system clock.
std::uint64_t currentUnixSeconds();

}  // namespace linkwash
