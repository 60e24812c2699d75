// `linkwash catalog`: the signed privacy services catalog that Nitter-compatible redirects use:
// what is in use, and checking for and installing updates from the metadata server.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "core/privacy/privacy_catalog_store.h"
#include "core/privacy/privacy_catalog_updater.h"
#include "core/updates/rule_update_manifest.h"
#include "platform/fs/files.h"
#include "tools/cli/commands.h"

namespace linkwash::cli {
namespace {

using Updater = PrivacyCatalogUpdater;

std::string iso(std::uint64_t seconds) {
  return formatISO8601(Timestamp(std::chrono::seconds(static_cast<std::int64_t>(seconds))));
}

int runStatus() {
  Updater updater(PrivacyCatalogStore::shared());
  const auto installed = updater.installed();
  const auto catalog = updater.catalogInUse();
  const std::uint64_t now = updater.now();
  if (!catalog) {
    std::cout << "Catalog in use: none (neither an installed nor the shipped catalog verifies)\n"
              << PrivacyServicesArchive::kUnavailable << '\n';
    return 0;
  }
  const auto& record = catalog->catalog();
  std::cout << "Catalog in use: " << (installed ? "installed" : "shipped") << " version "
            << record.version << ", generated " << iso(record.generated) << '\n';
  std::uint64_t oldestReview = UINT64_MAX;
  for (const auto& service : record.services)
    oldestReview = std::min(oldestReview, service.reviewed);
  const std::uint64_t until = oldestReview + PrivacyServicesCatalog::kMaximumReviewAge;
  if (catalog->fresh(now)) {
    std::cout << "Review: fresh until " << iso(until) << '\n';
  } else {
    std::cout << "Review: out of date" << (now > until ? " since " + iso(until) : std::string())
              << '\n'
              << PrivacyServicesArchive::kUnavailable << '\n';
  }
  std::cout << "Services: " << record.services.size() << " listed, " << catalog->choices(now).size()
            << " eligible now\n"
            << "Updates: " << PrivacyCatalogManifest::currentURL() << '\n';
  return 0;
}

bool failed(const std::string& status) {
  return status == Updater::kRejected || status == Updater::kInstallFailed;
}

int runCheck(bool install) {
  Updater updater(PrivacyCatalogStore::shared());
  updater.check();
  std::cout << updater.status() << '\n';
  if (install && updater.availableVersion()) {
    updater.install();
    std::cout << updater.status() << '\n';
  }
  return failed(updater.status()) ? 1 : 0;
}

int runInstallFiles(const std::string& manifestPath, const std::string& payloadPath,
                    const std::string& signaturePath) {
  std::string files[3];
  const std::string* paths[3] = {&manifestPath, &payloadPath, &signaturePath};
  for (int i = 0; i < 3; ++i) {
    auto data = files::readFile(*paths[i]);
    if (!data) {
      std::cerr << "linkwash catalog install-files: cannot read " << *paths[i] << '\n';
      return 1;
    }
    files[i] = std::move(*data);
  }
  const auto installed =
      PrivacyCatalogStore::shared().install(files[0], files[1], files[2], currentUnixSeconds());
  if (!installed) {
    std::cout << Updater::kInstallFailed << '\n';
    std::cerr << "linkwash catalog install-files: " << installed.error().message << '\n';
    return 1;
  }
  std::cout << Updater::kInstalled << '\n';
  return 0;
}

}  // namespace

void addCatalogCommand(CLI::App& app, int& exitCode) {
  CLI::App* catalog = app.add_subcommand(
      "catalog", "The signed catalog of privacy frontends used for Nitter-compatible redirects");
  catalog->require_subcommand(1);
  catalog->footer(
      "Catalog updates are accepted only when signed by a key the program ships with, when no "
      "service in them went unreviewed for more than 90 days, and never at an older version "
      "than the one installed.\n\nExamples:\n"
      "  linkwash catalog status\n"
      "  linkwash catalog check\n"
      "  linkwash catalog install\n"
      "  linkwash catalog install-files current.json privacy-services.json privacy-services.sig");

  catalog->add_subcommand("status", "Show the catalog in use and how long its review is fresh")
      ->callback([&exitCode] { exitCode = runStatus(); });
  catalog->add_subcommand("check", "Download and verify a newer catalog without installing it")
      ->callback([&exitCode] { exitCode = runCheck(false); });
  catalog->add_subcommand("install", "Check for a newer catalog and install it when it verifies")
      ->callback([&exitCode] { exitCode = runCheck(true); });

  auto paths = std::make_shared<std::vector<std::string>>();
  CLI::App* installFiles = catalog->add_subcommand(
      "install-files", "Install a catalog from local files: update manifest, payload, signature");
  installFiles->add_option("FILES", *paths, "MANIFEST PAYLOAD SIGNATURE")->required()->expected(3);
  installFiles->callback(
      [paths, &exitCode] { exitCode = runInstallFiles((*paths)[0], (*paths)[1], (*paths)[2]); });
}

}  // namespace linkwash::cli
