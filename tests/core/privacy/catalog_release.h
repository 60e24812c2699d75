// Catalog updates for tests: a signed catalog with its update manifest, and the three files laid
// out as the metadata server serves them.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>

#include "core/privacy/privacy_catalog_store.h"
#include "platform/fs/files.h"
#include "platform/resources/resource_bundle.h"
#include "tests/core/privacy/catalog_test_support.h"
#include "tests/support/https_test_server.h"
#include "tests/support/test_support.h"

namespace linkwash::testing {

inline constexpr std::string_view kUpdatesHost = "updates.linkwash.example";

struct CatalogRelease {
  std::string manifest;
  std::string payload;
  std::string signature;
};

// `catalog` signed with the test key, and a manifest describing exactly those bytes.
inline CatalogRelease releaseOf(const PrivacyServicesCatalog& catalog,
                                std::string_view host = kUpdatesHost) {
  CatalogRelease release;
  release.payload = canonical(catalog);
  release.signature = envelopeFor(release.payload);
  release.manifest = PrivacyCatalogManifest::describing(catalog.version, catalog.generated,
                                                        release.payload, release.signature, host)
                         .encode();
  return release;
}

// The paths of a release's files under the server root.
inline std::string versionPath(std::uint64_t version, std::string_view extension) {
  return "/privacy-services/versions/" + std::to_string(version) + "/privacy-services." +
         std::string(extension);
}

inline bool serve(const HttpsTestServer& server, const CatalogRelease& release,
                  std::uint64_t version) {
  return server.putFile("/privacy-services/current.json", release.manifest) &&
         server.putFile(versionPath(version, "json"), release.payload) &&
         server.putFile(versionPath(version, "sig"), release.signature);
}

// A key file trusting every key of both files (IDs sorted, as the format requires).
inline std::string mergedKeyFile(std::string_view first, std::string_view second) {
  Keyset keys = parseKeyset(first).value_or(Keyset{});
  keys.merge(parseKeyset(second).value_or(Keyset{}));
  std::string file = "{";
  for (const auto& [id, key] : keys) {
    if (file.size() > 1) file += ",";
    file += "\"" + id + "\":\"" + key + "\"";
  }
  return file + "}";
}

// A copy of the built resource bundle in `folder` whose catalog key file also trusts the test
// key; nothing when the built bundle is missing. Point LINKWASH_RESOURCES at the result.
inline std::optional<std::filesystem::path> bundleTrustingTestKey(
    const std::filesystem::path& folder) {
  const auto bundle = ResourceBundle::locate();
  if (!bundle) return std::nullopt;
  const auto copy = folder / "Linkwash_LinkwashCore.bundle";
  std::filesystem::create_directories(copy);
  for (const auto& entry : std::filesystem::directory_iterator(bundle->root())) {
    std::filesystem::copy_file(entry.path(), copy / entry.path().filename(),
                               std::filesystem::copy_options::overwrite_existing);
  }
  const auto shipped = files::readFile(copy / "privacy-services-keys.json").value_or("{}");
  std::ofstream(copy / "privacy-services-keys.json", std::ios::binary | std::ios::trunc)
      << mergedKeyFile(shipped, catalogKeyFile());
  return copy;
}

}  // namespace linkwash::testing
