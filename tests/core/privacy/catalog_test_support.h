// Privacy catalogs for tests, signed with a fixed test key so that no test depends on the
// calendar or on the shipped catalog.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "core/privacy/privacy_services_catalog.h"
#include "core/signing/signature_verification.h"
#include "platform/crypto/base64.h"
#include "platform/crypto/ed25519.h"

namespace linkwash::testing {

inline constexpr std::uint64_t kGenerated = PrivacyServicesCatalog::kEarliestTime + 86400;
inline constexpr std::uint64_t kReviewed = kGenerated - 3600;

inline const Ed25519SigningKey& catalogKey() {
  static const Ed25519SigningKey key = [] {
    Ed25519Seed seed{};
    seed.fill(7);
    return *Ed25519SigningKey::fromSeed(seed);
  }();
  return key;
}

inline std::string catalogKeyFile() {
  return "{\"catalog-1\":\"" + base64Encode(catalogKey().publicKey()) + "\"}";
}

inline std::vector<std::string> xTwitterHosts() {
  return {kXTwitterHosts.begin(), kXTwitterHosts.end()};
}

// A schema-2 service that passes every content rule and is eligible.
inline PrivacyServicesCatalog::Service nitterService(std::string id) {
  PrivacyServicesCatalog::Service service;
  service.family = "nitter";
  service.destination = "https://" + id + ".example";
  service.operatorURL = "https://operator.example/" + id;
  service.reason = "Reviewed public instance";
  service.reviewed = kReviewed;
  service.shapes = {"profile", "status"};
  service.sourceHosts = xTwitterHosts();
  service.sourceURL = "https://evidence.example/" + id;
  service.state = "active";
  service.id = std::move(id);
  return service;
}

inline PrivacyServicesCatalog catalogOf(std::vector<PrivacyServicesCatalog::Service> services,
                                        std::uint64_t version = 1, std::uint64_t schema = 2) {
  PrivacyServicesCatalog catalog;
  catalog.generated = kGenerated;
  catalog.kind = "privacy-services";
  catalog.product = "Linkwash";
  catalog.schema = schema;
  catalog.services = std::move(services);
  catalog.version = version;
  return catalog;
}

// The one catalog form schema 1 allows.
inline PrivacyServicesCatalog schema1Catalog() {
  PrivacyServicesCatalog::Service service = nitterService("xcancel");
  service.family.reset();
  service.destination = "https://xcancel.com";
  service.shapes = {"status"};
  return catalogOf({service}, 1, 1);
}

inline std::string envelopeFor(std::string_view payload) {
  const auto signature = catalogKey().sign(payload);
  return canonical(SignatureEnvelope{"Ed25519", "catalog-1", base64Encode(*signature)});
}

// Signs `payload` as it is, canonical or not, so that only the catalog's own rules can refuse it.
inline Result<PrivacyServicesCatalog::Verified> verifyPayload(
    std::string_view payload, const PrivacyServicesCatalog::Verified* previous = nullptr) {
  return PrivacyServicesCatalog::verify(payload, envelopeFor(payload), catalogKeyFile(), previous);
}

inline Result<PrivacyServicesCatalog::Verified> verifyCatalog(
    const PrivacyServicesCatalog& catalog,
    const PrivacyServicesCatalog::Verified* previous = nullptr) {
  return verifyPayload(canonical(catalog), previous);
}

}  // namespace linkwash::testing
