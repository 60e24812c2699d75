// Signing the privacy services catalog and laying out its update tree. Both commands check their
// output with the same code the app uses, so what they write is what the app accepts.
#include "tools/publish/catalog_commands.h"
#include "tools/publish/publisher.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "core/privacy/privacy_catalog_store.h"
#include "core/privacy/privacy_services_catalog.h"
#include "core/signing/signature_verification.h"
#include "core/updates/rule_update_manifest.h"
#include "platform/crypto/base64.h"
#include "platform/crypto/ed25519.h"
#include "platform/fs/files.h"
#include "platform/json/json_writer.h"

namespace linkwash::publish {
namespace {

namespace fs = std::filesystem;

constexpr const char* kCatalogExamples = R"(
Catalog examples:
  # Re-review the instances, then stamp and sign the shipped catalog (fresh for 90 days).
  linkwash-publish sign-catalog --key ~/keys/catalog.key --key-id linkwash-catalog-1 \
      --catalog resources/privacy-services.json --version 2 --reviewed now \
      --keys resources/privacy-services-keys.json --out resources/privacy-services.json

  # Lay out the signed catalog as https://HOST/privacy-services/ serves it.
  linkwash-publish publish-catalog --payload resources/privacy-services.json \
      --keys resources/privacy-services-keys.json --out /srv/www
)";

int report(const std::string& message) {
  std::fprintf(stderr, "linkwash-publish: %s\n", message.c_str());
  return 1;
}

Result<std::string> readInput(const fs::path& path) {
  auto data = files::readFile(path);
  if (!data) return fail("cannot read " + path.string());
  return std::move(*data);
}

// "now" or an ISO 8601 time.
Result<std::uint64_t> timeOption(const std::string& text, const char* option) {
  if (text == "now") return currentUnixSeconds();
  const auto time = parseISO8601(text);
  if (!time || time->time_since_epoch().count() < 0) {
    return fail(std::string(option) + " must be \"now\" or look like 2026-11-23T00:00:00Z");
  }
  return static_cast<std::uint64_t>(time->time_since_epoch().count());
}

std::string iso(std::uint64_t seconds) {
  return formatISO8601(Timestamp(std::chrono::seconds(static_cast<std::int64_t>(seconds))));
}

// When the catalog stops being fresh: 90 days after its oldest review.
std::uint64_t freshUntil(const PrivacyServicesCatalog& catalog) {
  std::uint64_t oldest = UINT64_MAX;
  for (const auto& service : catalog.services) oldest = std::min(oldest, service.reviewed);
  return oldest + PrivacyServicesCatalog::kMaximumReviewAge;
}

fs::path signaturePathFor(const fs::path& payload) {
  fs::path path = payload;
  return path.replace_extension(".sig");
}

// Files to be served go to a web server that runs as another user: world-readable files in
// world-searchable folders (private keys are written elsewhere, 0600).
Result<void> writeServed(const fs::path& path, std::string_view data) {
  if (auto written = files::writeFileAtomically(path, data); !written) return written;
  ::chmod(path.c_str(), 0644);
  ::chmod(path.parent_path().c_str(), 0755);
  return {};
}

// A published version's file never changes: it is written once, or again with the same bytes.
Result<void> writeOnce(const fs::path& path, std::string_view data) {
  if (auto existing = files::readFile(path)) {
    if (*existing == data) return {};
    return fail(path.string() + " already exists with other content; a published version " +
                "never changes (raise --version when signing)");
  }
  return writeServed(path, data);
}

struct SignCatalogOptions {
  fs::path key;
  std::string keyId;
  fs::path catalog;
  fs::path out;
  std::optional<std::uint64_t> version;
  std::string generated;
  std::string reviewed;
  std::optional<fs::path> keys;
};

int runSignCatalog(const SignCatalogOptions& options) {
  auto source = readInput(options.catalog);
  if (!source) return report(source.error().message);
  auto catalog = PrivacyServicesCatalog::decode(*source);
  if (!catalog) {
    return report(options.catalog.string() +
                  " is not a privacy services catalog (a member is missing or has the wrong type)");
  }
  if (options.version) catalog->version = *options.version;
  if (!options.reviewed.empty()) {
    auto reviewed = timeOption(options.reviewed, "--reviewed");
    if (!reviewed) return report(reviewed.error().message);
    for (auto& service : catalog->services) service.reviewed = *reviewed;
    // A catalog is never generated before its newest review.
    if (options.generated.empty()) catalog->generated = std::max(catalog->generated, *reviewed);
  }
  if (!options.generated.empty()) {
    auto generated = timeOption(options.generated, "--generated");
    if (!generated) return report(generated.error().message);
    catalog->generated = *generated;
  }
  if (!PrivacyServicesCatalog::satisfiesContentRules(*catalog)) {
    return report(
        "the catalog breaks the content rules (product, kind, schema, version, times, 1 to 32 "
        "services with valid ids, states, shapes, the five X/Twitter hosts and https URLs)");
  }
  auto key = readPrivateKey(options.key, options.keyId);
  if (!key) return report(key.error().message);

  const std::string payload = canonical(*catalog);
  const auto signature = key->sign(payload);
  if (!signature) return report("OpenSSL could not sign the catalog");
  const std::string envelope = canonical(
      SignatureEnvelope{std::string(kSignatureAlgorithm), options.keyId, base64Encode(*signature)});
  if (options.keys) {
    auto keys = readInput(*options.keys);
    if (!keys) return report(keys.error().message);
    if (!PrivacyServicesCatalog::verify(payload, envelope, *keys, nullptr)) {
      return report("the signed catalog does not verify with " + options.keys->string() +
                    " (is key \"" + options.keyId + "\" in it?)");
    }
  }
  const fs::path sigPath = signaturePathFor(options.out);
  for (const auto& [path, data] : {std::pair{options.out, payload}, {sigPath, envelope}}) {
    if (auto written = files::writeFileAtomically(path, data); !written) {
      return report(written.error().message);
    }
  }
  std::printf(
      "Signed catalog version %llu (generated %s, fresh until %s) with key %s\n  %s\n  %s\n",
      static_cast<unsigned long long>(catalog->version), iso(catalog->generated).c_str(),
      iso(freshUntil(*catalog)).c_str(), options.keyId.c_str(), options.out.c_str(),
      sigPath.c_str());
  return 0;
}

struct PublishCatalogOptions {
  fs::path payload;
  std::optional<fs::path> signature;
  fs::path keys;
  fs::path out;
  std::string host = std::string(updatesHost());
};

// The catalog the tree publishes now, verified; nothing when the tree has none yet.
Result<std::optional<VerifiedPrivacyCatalog>> publishedCatalog(const fs::path& folder,
                                                               const std::string& keys,
                                                               const std::string& host) {
  const auto current = files::readFile(folder / "current.json");
  if (!current) return std::optional<VerifiedPrivacyCatalog>();
  const auto manifest = PrivacyCatalogManifest::parse(*current, host);
  if (!manifest) {
    return fail((folder / "current.json").string() + " is not a valid update manifest for " + host);
  }
  const fs::path version = folder / "versions" / std::to_string(manifest->version);
  const auto payload = files::readFile(version / "privacy-services.json");
  const auto signature = files::readFile(version / "privacy-services.sig");
  if (!payload || !signature)
    return fail("the published version " + version.string() + " is incomplete");
  auto verified = PrivacyServicesCatalog::verify(*payload, *signature, keys, nullptr);
  if (!verified) return fail("the published catalog in " + version.string() + " does not verify");
  return std::optional<VerifiedPrivacyCatalog>(std::move(*verified));
}

int runPublishCatalog(const PublishCatalogOptions& options) {
  auto payload = readInput(options.payload);
  if (!payload) return report(payload.error().message);
  const fs::path sigPath = options.signature.value_or(signaturePathFor(options.payload));
  auto signature = readInput(sigPath);
  if (!signature) return report(signature.error().message);
  auto keys = readInput(options.keys);
  if (!keys) return report(keys.error().message);
  if (options.host.empty() || options.host.find_first_of("/?#@ ") != std::string::npos) {
    return report("host \"" + options.host + "\" must be a bare host name");
  }

  const fs::path folder = options.out / "privacy-services";
  auto previous = publishedCatalog(folder, *keys, options.host);
  if (!previous) return report(previous.error().message);
  const VerifiedPrivacyCatalog* before = *previous ? &**previous : nullptr;
  auto verified = PrivacyServicesCatalog::verify(*payload, *signature, *keys, before);
  if (!verified) {
    if (before) {
      return report("the catalog does not verify with " + options.keys.string() +
                    " or does not continue the published version " +
                    std::to_string(before->catalog().version) +
                    " (versions only rise, and every listed service stays)");
    }
    return report("the catalog does not verify with " + options.keys.string());
  }
  const auto& catalog = verified->catalog();
  const std::uint64_t now = currentUnixSeconds();
  // The app refuses to install a catalog whose review is out of date.
  if (!verified->fresh(now)) {
    return report("the catalog is not fresh now (generated " + iso(catalog.generated) +
                  ", fresh until " + iso(freshUntil(catalog)) +
                  "); review the services and sign it again");
  }

  const fs::path versionFolder = folder / "versions" / std::to_string(catalog.version);
  const auto manifest = PrivacyCatalogManifest::describing(catalog.version, catalog.generated,
                                                           *payload, *signature, options.host);
  const std::string manifestBytes = manifest.encode();
  if (!PrivacyCatalogManifest::parse(manifestBytes, options.host)) {
    return report("the update manifest would be invalid");
  }
  const fs::path payloadPath = versionFolder / "privacy-services.json";
  const fs::path signaturePath = versionFolder / "privacy-services.sig";
  for (const auto& [path, data] : {std::pair{payloadPath, std::string_view(*payload)},
                                   {signaturePath, std::string_view(*signature)}}) {
    if (auto written = writeOnce(path, data); !written) return report(written.error().message);
  }
  if (auto written = writeServed(folder / "current.json", manifestBytes); !written) {
    return report(written.error().message);
  }
  std::printf("Published catalog version %llu (fresh until %s) as %s\n  %s\n  %s\n  %s\n",
              static_cast<unsigned long long>(catalog.version), iso(freshUntil(catalog)).c_str(),
              PrivacyCatalogManifest::currentURL(options.host).c_str(),
              (folder / "current.json").c_str(), payloadPath.c_str(), signaturePath.c_str());
  return 0;
}

}  // namespace

void addCatalogCommands(CLI::App& app, int& exitCode) {
  app.footer(app.get_footer() + kCatalogExamples);

  auto sign = std::make_shared<SignCatalogOptions>();
  CLI::App* signCommand = app.add_subcommand(
      "sign-catalog",
      "Sign a privacy services catalog: writes the canonical payload and its .sig beside it");
  signCommand->add_option("--key", sign->key, "Private key file from keygen")->required();
  signCommand->add_option("--key-id", sign->keyId, "ID of that key in privacy-services-keys.json")
      ->required();
  signCommand->add_option("--catalog", sign->catalog, "The catalog as JSON (any layout)")
      ->required();
  signCommand->add_option("--out", sign->out, "Payload file to write, e.g. privacy-services.json")
      ->required();
  signCommand->add_option("--version", sign->version, "Catalog version (default: the source's)");
  signCommand->add_option("--reviewed", sign->reviewed,
                          "Review time of every service: \"now\" or 2026-11-23T00:00:00Z");
  signCommand->add_option("--generated", sign->generated,
                          "Generation time (default: the source's, raised to --reviewed)");
  signCommand->add_option("--keys", sign->keys, "Check the result against this trusted key file");
  signCommand->callback([sign, &exitCode] { exitCode = runSignCatalog(*sign); });

  auto publish = std::make_shared<PublishCatalogOptions>();
  CLI::App* publishCommand = app.add_subcommand(
      "publish-catalog",
      "Write a signed catalog and its update manifest into the tree served as https://HOST/");
  publishCommand
      ->add_option("--payload", publish->payload, "Signed payload (privacy-services.json)")
      ->required();
  publishCommand->add_option("--signature", publish->signature,
                             "Its envelope (default: the payload with .sig)");
  publishCommand
      ->add_option("--keys", publish->keys, "Trusted key file (privacy-services-keys.json)")
      ->required();
  publishCommand
      ->add_option("--out", publish->out,
                   "Root of the served tree; privacy-services/ is written inside")
      ->required();
  publishCommand->add_option("--host", publish->host, "Host the app downloads from")
      ->capture_default_str();
  publishCommand->callback([publish, &exitCode] { exitCode = runPublishCatalog(*publish); });
}

}  // namespace linkwash::publish
