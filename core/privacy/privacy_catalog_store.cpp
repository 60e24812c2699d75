// The catalog update manifest, the installed-catalog store and its locked install. Every check
// is all-or-nothing: a document that fails any step is refused whole and the catalog in use stays.
#include "core/privacy/privacy_catalog_store.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <system_error>
#include <utility>

#include "base/strings.h"
#include "core/signing/signature_verification.h"
#include "platform/crypto/base64.h"
#include "platform/crypto/sha256.h"
#include "platform/fs/files.h"
#include "platform/fs/paths.h"
#include "platform/json/json_writer.h"
#include "platform/resources/resource_bundle.h"

#ifndef LINKWASH_UPDATES_HOST
#define LINKWASH_UPDATES_HOST "updates.linkwash.example"
#endif

namespace linkwash {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kFilesDoNotMatch =
    "The downloaded catalog does not match its update manifest";
constexpr std::string_view kNotFresh = "The catalog's review is out of date";

tl::unexpected<Error> manifestRejected() {
  return fail(std::string(kPrivacyCatalogManifestRejected));
}

bool isLowerHexDigest(std::string_view text) {
  return text.size() == 64 && std::all_of(text.begin(), text.end(), [](char c) {
           return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
         });
}

std::optional<std::uint64_t> unsignedMember(const Json& object, const char* key) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_number_unsigned()) return std::nullopt;
  return it->get<std::uint64_t>();
}

std::optional<std::string> stringMember(const Json& object, const char* key) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

std::optional<PrivacyCatalogManifest::Asset> decodeAsset(const Json& object, const char* key) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_object()) return std::nullopt;
  auto bytes = unsignedMember(*it, "bytes");
  auto sha = stringMember(*it, "sha256");
  auto url = stringMember(*it, "url");
  if (!bytes || !sha || !url) return std::nullopt;
  return PrivacyCatalogManifest::Asset{*bytes, std::move(*sha), std::move(*url)};
}

Json encodeAsset(const PrivacyCatalogManifest::Asset& asset) {
  Json json = Json::object();
  json["bytes"] = asset.bytes;
  json["sha256"] = asset.sha256;
  json["url"] = asset.url;
  return json;
}

PrivacyCatalogManifest::Asset describeAsset(std::string_view data, std::string url) {
  return {data.size(), hexLower(sha256(data)), std::move(url)};
}

// The manifest's members with their JSON types; its rules are parse()'s.
std::optional<PrivacyCatalogManifest> decodeManifest(const Json& json) {
  if (!json.is_object()) return std::nullopt;
  const auto schema = unsignedMember(json, "schema");
  auto product = stringMember(json, "product");
  auto kind = stringMember(json, "kind");
  const auto version = unsignedMember(json, "version");
  const auto generated = unsignedMember(json, "generated");
  auto payload = decodeAsset(json, "payload");
  auto signature = decodeAsset(json, "signature");
  if (!schema || !product || !kind || !version || !generated || !payload || !signature) {
    return std::nullopt;
  }
  PrivacyCatalogManifest manifest;
  manifest.schema = *schema;
  manifest.product = std::move(*product);
  manifest.kind = std::move(*kind);
  manifest.version = *version;
  manifest.generated = *generated;
  manifest.payload = std::move(*payload);
  manifest.signature = std::move(*signature);
  return manifest;
}

Json encodeManifest(const PrivacyCatalogManifest& manifest) {
  Json json = Json::object();
  json["generated"] = manifest.generated;
  json["kind"] = manifest.kind;
  json["payload"] = encodeAsset(manifest.payload);
  json["product"] = manifest.product;
  json["schema"] = manifest.schema;
  json["signature"] = encodeAsset(manifest.signature);
  json["version"] = manifest.version;
  return json;
}

bool fileMatches(const PrivacyCatalogManifest::Asset& asset, std::string_view data) {
  return data.size() == asset.bytes && hexLower(sha256(data)) == asset.sha256;
}

}  // namespace

std::string_view updatesHost() { return LINKWASH_UPDATES_HOST; }

std::uint64_t currentUnixSeconds() {
  const auto now = std::chrono::duration_cast<std::chrono::seconds>(
      std::chrono::system_clock::now().time_since_epoch());
  return now.count() < 0 ? 0 : static_cast<std::uint64_t>(now.count());
}

// --- Update manifest
// -------------------------------------------------------------------------------

std::string PrivacyCatalogManifest::currentURL(std::string_view host) {
  return "https://" + std::string(host) + "/privacy-services/current.json";
}

std::string PrivacyCatalogManifest::versionsBaseURL(std::string_view host) {
  return "https://" + std::string(host) + "/privacy-services/versions/";
}

std::string PrivacyCatalogManifest::assetURL(std::uint64_t version, std::string_view extension,
                                             std::string_view host) {
  return versionsBaseURL(host) + std::to_string(version) + "/privacy-services." +
         std::string(extension);
}

Result<PrivacyCatalogManifest> PrivacyCatalogManifest::parse(std::string_view data,
                                                             std::string_view host) {
  if (data.size() > kMaxBytes) return manifestRejected();
  const auto json = parseJson(data);
  if (!json) return manifestRejected();
  auto manifest = decodeManifest(*json);
  if (!manifest) return manifestRejected();
  if (manifest->schema != kSchema || manifest->product != PrivacyServicesCatalog::kProduct ||
      manifest->kind != kKind) {
    return manifestRejected();
  }
  if (manifest->version == 0 || manifest->version >= PrivacyServicesCatalog::kVersionLimit) {
    return manifestRejected();
  }
  if (manifest->generated < PrivacyServicesCatalog::kEarliestTime ||
      manifest->generated >= kGeneratedLimit) {
    return manifestRejected();
  }
  // Both files live only at the versioned URLs of this very version on our own host, so a
  // manifest can neither send the download elsewhere nor mix files of two versions.
  if (!isLowerHexDigest(manifest->payload.sha256) ||
      !isLowerHexDigest(manifest->signature.sha256) ||
      manifest->payload.url != assetURL(manifest->version, "json", host) ||
      manifest->signature.url != assetURL(manifest->version, "sig", host)) {
    return manifestRejected();
  }
  return std::move(*manifest);
}

PrivacyCatalogManifest PrivacyCatalogManifest::describing(std::uint64_t version,
                                                          std::uint64_t generated,
                                                          std::string_view payload,
                                                          std::string_view signature,
                                                          std::string_view host) {
  PrivacyCatalogManifest manifest;
  manifest.version = version;
  manifest.generated = generated;
  manifest.payload = describeAsset(payload, assetURL(version, "json", host));
  manifest.signature = describeAsset(signature, assetURL(version, "sig", host));
  return manifest;
}

std::string PrivacyCatalogManifest::encode() const { return canonicalJson(encodeManifest(*this)); }

// --- Store record
// ----------------------------------------------------------------------------------

std::string PrivacyCatalogStore::Record::encode() const {
  Json json = Json::object();
  json["manifest"] = encodeManifest(manifest);
  json["payload"] = base64Encode(payload);
  json["signature"] = base64Encode(signature);
  return canonicalJson(json);
}

std::optional<PrivacyCatalogStore::Record> PrivacyCatalogStore::Record::decode(
    std::string_view text) {
  const auto json = parseJson(text);
  if (!json || !json->is_object()) return std::nullopt;
  const auto manifestMember = json->find("manifest");
  if (manifestMember == json->end()) return std::nullopt;
  auto manifest = decodeManifest(*manifestMember);
  const auto payload = stringMember(*json, "payload");
  const auto signature = stringMember(*json, "signature");
  if (!manifest || !payload || !signature) return std::nullopt;
  auto payloadBytes = base64DecodeCanonical(*payload);
  auto signatureBytes = base64DecodeCanonical(*signature);
  if (!payloadBytes || !signatureBytes) return std::nullopt;
  return Record{std::move(*manifest), toString(*payloadBytes), toString(*signatureBytes)};
}

// --- Store
// ----------------------------------------------------------------------------------------

PrivacyCatalogStore::PrivacyCatalogStore(fs::path root, std::string trustedKeys, std::string host)
    : root_(std::move(root)), trustedKeys_(std::move(trustedKeys)), host_(std::move(host)) {}

fs::path PrivacyCatalogStore::sharedRoot() {
  return paths::groupContainer(kAppGroupIdentifier) / "PrivacyServices";
}

std::string PrivacyCatalogStore::shippedKeys() {
  const auto bundle = ResourceBundle::locate();
  if (!bundle) return "";
  return bundle->read("privacy-services-keys", "json").value_or("");
}

PrivacyCatalogStore PrivacyCatalogStore::shared() {
  return PrivacyCatalogStore(sharedRoot(), shippedKeys());
}

std::optional<std::string> PrivacyCatalogStore::readInstalled() const {
  // Nothing we write is larger; a bigger file is not ours to parse.
  std::error_code ec;
  const auto size = fs::file_size(installedFile(), ec);
  if (ec || size > kMaxInstalledBytes) return std::nullopt;
  auto bytes = files::readFile(installedFile());
  if (!bytes || bytes->size() > kMaxInstalledBytes) return std::nullopt;
  return bytes;
}

std::optional<std::uint64_t> PrivacyCatalogStore::highestInstalled() const {
  const auto bytes = files::readUserFile(root_ / kHighestFileName, 1024);
  if (!bytes) return std::nullopt;
  const auto text = decodeHighestVersionRecord(*bytes);
  if (!text || text->empty() || text->size() > 19 ||
      !std::all_of(text->begin(), text->end(), [](char c) { return c >= '0' && c <= '9'; })) {
    return std::nullopt;
  }
  return std::stoull(*text);
}

std::optional<VerifiedPrivacyCatalog> PrivacyCatalogStore::current() const {
  const auto bytes = readInstalled();
  if (!bytes) return std::nullopt;
  const auto record = Record::decode(*bytes);
  if (!record) return std::nullopt;
  const auto manifest = PrivacyCatalogManifest::parse(record->manifest.encode(), host_);
  if (!manifest || !fileMatches(manifest->payload, record->payload) ||
      !fileMatches(manifest->signature, record->signature)) {
    return std::nullopt;
  }
  auto verified =
      PrivacyServicesCatalog::verify(record->payload, record->signature, trustedKeys_, nullptr);
  if (!verified) return std::nullopt;
  return std::move(*verified);
}

Result<VerifiedPrivacyCatalog> PrivacyCatalogStore::validate(std::string_view manifestBytes,
                                                             std::string_view payload,
                                                             std::string_view signature,
                                                             std::uint64_t now) const {
  const auto manifest = PrivacyCatalogManifest::parse(manifestBytes, host_);
  if (!manifest) return tl::unexpected(manifest.error());
  if (!fileMatches(manifest->payload, payload) || !fileMatches(manifest->signature, signature)) {
    return fail(std::string(kFilesDoNotMatch));
  }
  // Kept apart from the installed catalog, so a damaged "installed.json" (no predecessor below)
  // never lets an older catalog back in.
  if (const auto highest = highestInstalled(); highest && manifest->version < *highest) {
    return fail(std::string(kPrivacyCatalogRejected));
  }
  const auto previous = current();
  auto verified = PrivacyServicesCatalog::verify(payload, signature, trustedKeys_,
                                                 previous ? &*previous : nullptr);
  if (!verified) return verified;
  if (verified->catalog().version != manifest->version ||
      verified->catalog().generated != manifest->generated) {
    return fail(std::string(kFilesDoNotMatch));
  }
  // Installing a catalog nobody has reviewed lately would only make redirects unavailable.
  if (!verified->fresh(now)) return fail(std::string(kNotFresh));
  return verified;
}

Result<VerifiedPrivacyCatalog> PrivacyCatalogStore::install(std::string_view manifestBytes,
                                                            std::string_view payload,
                                                            std::string_view signature,
                                                            std::uint64_t now) const {
  auto lock = files::LockedInstall::begin(root_, kLockFileName);
  if (!lock) return tl::unexpected(lock.error());

  // Validated under the lock, so the predecessor is the catalog installed at this moment and two
  // installers can never both pass against the same older catalog.
  auto verified = validate(manifestBytes, payload, signature, now);
  if (!verified) return verified;
  const Record record{*PrivacyCatalogManifest::parse(manifestBytes, host_), std::string(payload),
                      std::string(signature)};
  const std::string encoded = record.encode();
  // A record current() would refuse to read must never replace one it reads.
  if (encoded.size() > kMaxInstalledBytes) return fail(std::string(kPrivacyCatalogRejected));
  // The highest version first: killed after it, the old catalog stays in use and the new one
  // installable, never an opening for an older one.
  const auto highest = highestInstalled();
  if (!highest || *highest < record.manifest.version) {
    if (auto written = lock->replace(
            kHighestFileName, encodeHighestVersionRecord(std::to_string(record.manifest.version)));
        !written) {
      return tl::unexpected(written.error());
    }
  }
  if (auto written = lock->replace(kInstalledFileName, encoded); !written) {
    return tl::unexpected(written.error());
  }
  return verified;
}

// --- The catalog in use
// ----------------------------------------------------------------------------

std::shared_ptr<const VerifiedPrivacyCatalog> privacyCatalogInUse() {
  struct Identity {
    std::string path;
    bool exists = false;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    std::int64_t modifiedSeconds = 0;
    std::int64_t modifiedNanoseconds = 0;
    bool operator==(const Identity&) const = default;
  };
  static std::mutex mutex;
  static std::optional<Identity> cachedIdentity;
  static std::shared_ptr<const VerifiedPrivacyCatalog> cachedCatalog;

  // The root follows LINKWASH_HOME, which an embedder or a test may move while running.
  const fs::path file = PrivacyCatalogStore::sharedRoot() / PrivacyCatalogStore::kInstalledFileName;
  Identity identity;
  identity.path = file.string();
  struct stat info {};
  if (::stat(file.c_str(), &info) == 0) {
    identity.exists = true;
    identity.device = info.st_dev;
    identity.inode = info.st_ino;
    identity.size = info.st_size;
    identity.modifiedSeconds = info.st_mtim.tv_sec;
    identity.modifiedNanoseconds = info.st_mtim.tv_nsec;
  }

  std::lock_guard<std::mutex> guard(mutex);
  if (cachedIdentity && *cachedIdentity == identity) return cachedCatalog;
  std::shared_ptr<const VerifiedPrivacyCatalog> catalog;
  if (identity.exists) {
    if (auto installed = PrivacyCatalogStore::shared().current()) {
      catalog = std::make_shared<const VerifiedPrivacyCatalog>(std::move(*installed));
    }
  }
  // A replacement between the stat and the read changes the identity again, so the next call
  // reads the file once more.
  cachedIdentity = identity;
  cachedCatalog = catalog ? catalog : PrivacyServicesCatalog::bundled();
  return cachedCatalog;
}

}  // namespace linkwash
