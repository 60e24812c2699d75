// The catalog update manifest, the store's validation and locked install, re-verification of
// the installed file on every read, installs racing from several processes, the per-process
// catalog in use, and the catalog shipped in resources/.
#include "core/privacy/privacy_catalog_store.h"

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <vector>

#include "platform/fs/files.h"
#include "platform/json/json_writer.h"
#include "tests/core/privacy/catalog_release.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

namespace fs = std::filesystem;
using testing::catalogOf;
using testing::CatalogRelease;
using testing::kGenerated;
using testing::kReviewed;
using testing::nitterService;
using testing::releaseOf;

constexpr std::uint64_t kNow = kGenerated + 60;

PrivacyServicesCatalog twoServices(std::uint64_t version) {
  return catalogOf({nitterService("alpha"), nitterService("beta")}, version);
}

void writeBytes(const fs::path& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

class PrivacyCatalogStoreTest : public ::testing::Test {
 protected:
  Result<VerifiedPrivacyCatalog> install(const CatalogRelease& release, std::uint64_t now = kNow) {
    return store_.install(release.manifest, release.payload, release.signature, now);
  }
  std::optional<std::uint64_t> installedVersion() const {
    const auto current = store_.current();
    if (!current) return std::nullopt;
    return current->catalog().version;
  }

  testing::TempHome home_;
  PrivacyCatalogStore store_{home_.path() / "PrivacyServices", testing::catalogKeyFile(),
                             std::string(testing::kUpdatesHost)};
};

TEST(PrivacyCatalogManifestTest, ParsesWhatDescribingWritesAndRefusesEveryBrokenRule) {
  const CatalogRelease release = releaseOf(twoServices(7));
  const auto parsed = PrivacyCatalogManifest::parse(release.manifest, testing::kUpdatesHost);
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->version, 7u);
  EXPECT_EQ(parsed->payload.url,
            "https://updates.linkwash.example/privacy-services/versions/7/privacy-services.json");
  EXPECT_EQ(parsed->signature.url,
            "https://updates.linkwash.example/privacy-services/versions/7/privacy-services.sig");
  EXPECT_EQ(parsed->payload.bytes, release.payload.size());
  // The URLs belong to one host: the same manifest is refused for another.
  EXPECT_FALSE(PrivacyCatalogManifest::parse(release.manifest, "mirror.example"));

  const Json good = *parseJson(release.manifest);
  struct Case {
    const char* name;
    void (*mutate)(Json&);
  };
  const Case cases[] = {
      {"schema 2", [](Json& j) { j["schema"] = 2; }},
      {"other product", [](Json& j) { j["product"] = "Other"; }},
      {"kind of the catalog itself", [](Json& j) { j["kind"] = "privacy-services"; }},
      {"version 0", [](Json& j) { j["version"] = 0; }},
      {"version 2^53", [](Json& j) { j["version"] = std::uint64_t{1} << 53; }},
      {"version as text", [](Json& j) { j["version"] = "7"; }},
      {"generated too early",
       [](Json& j) { j["generated"] = PrivacyServicesCatalog::kEarliestTime - 1; }},
      {"generated at the limit",
       [](Json& j) { j["generated"] = PrivacyCatalogManifest::kGeneratedLimit; }},
      {"payload URL of another version",
       [](Json& j) {
         j["payload"]["url"] =
             "https://updates.linkwash.example/privacy-services/versions/6/privacy-services.json";
       }},
      {"signature URL naming the payload",
       [](Json& j) { j["signature"]["url"] = j["payload"]["url"]; }},
      {"payload on another host",
       [](Json& j) {
         j["payload"]["url"] =
             "https://evil.example/privacy-services/versions/7/privacy-services.json";
       }},
      {"upper-case digest",
       [](Json& j) {
         std::string sha = j["payload"]["sha256"];
         std::transform(sha.begin(), sha.end(), sha.begin(), ::toupper);
         j["payload"]["sha256"] = sha;
       }},
      {"size missing", [](Json& j) { j["payload"].erase("bytes"); }},
  };
  for (const auto& c : cases) {
    Json mutated = good;
    c.mutate(mutated);
    EXPECT_FALSE(PrivacyCatalogManifest::parse(canonicalJson(mutated), testing::kUpdatesHost))
        << c.name;
  }
  // Generated one below the limit is still accepted.
  Json latest = good;
  latest["generated"] = PrivacyCatalogManifest::kGeneratedLimit - 1;
  EXPECT_TRUE(PrivacyCatalogManifest::parse(canonicalJson(latest), testing::kUpdatesHost));
}

TEST(PrivacyCatalogManifestTest, RefusesManifestsOver4096Bytes) {
  const std::string manifest = releaseOf(twoServices(1)).manifest;
  ASSERT_LT(manifest.size(), 4096u);
  // Blanks are valid JSON, so only the size decides.
  const std::string atLimit = manifest + std::string(4096 - manifest.size(), ' ');
  EXPECT_TRUE(PrivacyCatalogManifest::parse(atLimit, testing::kUpdatesHost));
  EXPECT_FALSE(PrivacyCatalogManifest::parse(atLimit + " ", testing::kUpdatesHost));
}

TEST_F(PrivacyCatalogStoreTest, InstallsAVerifiedCatalogAndReadsItBack) {
  EXPECT_FALSE(store_.current());
  const CatalogRelease release = releaseOf(twoServices(1));
  const auto installed = install(release);
  ASSERT_TRUE(installed) << installed.error().message;
  const auto current = store_.current();
  ASSERT_TRUE(current);
  EXPECT_EQ(current->bytes(), release.payload);
  EXPECT_TRUE(fs::exists(store_.lockFile()));
  // The record keeps the exact bytes, so a second install of the same files is a re-delivery.
  EXPECT_TRUE(install(release));
  const auto record = PrivacyCatalogStore::Record::decode(*files::readFile(store_.installedFile()));
  ASSERT_TRUE(record);
  EXPECT_EQ(record->signature, release.signature);
  EXPECT_EQ(record->manifest.encode(), release.manifest);
}

TEST_F(PrivacyCatalogStoreTest, RefusesFilesThatDoNotMatchTheManifestAndKeepsTheInstalledOne) {
  ASSERT_TRUE(install(releaseOf(twoServices(1))));
  const CatalogRelease next = releaseOf(twoServices(2));

  EXPECT_FALSE(store_.install(next.manifest, next.payload + " ", next.signature, kNow))
      << "one byte longer than the manifest says";
  std::string flipped = next.payload;
  flipped[flipped.size() / 2] ^= 0x01;
  EXPECT_FALSE(store_.install(next.manifest, flipped, next.signature, kNow))
      << "same length, other digest";
  // A manifest rewritten to match tampered bytes still meets the signature.
  const auto forged = PrivacyCatalogManifest::describing(2, kGenerated, flipped, next.signature,
                                                         testing::kUpdatesHost);
  EXPECT_FALSE(store_.install(forged.encode(), flipped, next.signature, kNow));
  // The manifest must name the catalog's own version and generation.
  const auto renamed = PrivacyCatalogManifest::describing(3, kGenerated, next.payload,
                                                          next.signature, testing::kUpdatesHost);
  EXPECT_FALSE(store_.install(renamed.encode(), next.payload, next.signature, kNow));
  const auto regenerated = PrivacyCatalogManifest::describing(
      2, kGenerated + 1, next.payload, next.signature, testing::kUpdatesHost);
  EXPECT_FALSE(store_.install(regenerated.encode(), next.payload, next.signature, kNow));

  EXPECT_EQ(installedVersion(), 1u);
  EXPECT_TRUE(install(next));
  EXPECT_EQ(installedVersion(), 2u);
}

TEST_F(PrivacyCatalogStoreTest, NeverGoesBackAndKeepsEveryListedService) {
  ASSERT_TRUE(install(releaseOf(twoServices(3))));
  EXPECT_FALSE(install(releaseOf(twoServices(2)))) << "older version";

  auto sameVersion = twoServices(3);
  sameVersion.services[1].reason = "Reworded";
  EXPECT_FALSE(install(releaseOf(sameVersion))) << "same version, other bytes";

  EXPECT_FALSE(install(releaseOf(catalogOf({nitterService("alpha")}, 4)))) << "dropped beta";
  EXPECT_EQ(installedVersion(), 3u);

  auto more = catalogOf({nitterService("alpha"), nitterService("beta"), nitterService("gamma")}, 4);
  EXPECT_TRUE(install(releaseOf(more)));
  EXPECT_EQ(installedVersion(), 4u);
}

TEST_F(PrivacyCatalogStoreTest, InstallsOnlyCatalogsReviewedWithinNinetyDays) {
  // Every service reviewed exactly 90 days before `now` is still fresh; one second more is not.
  const std::uint64_t now = kReviewed + PrivacyServicesCatalog::kMaximumReviewAge;
  EXPECT_FALSE(install(releaseOf(twoServices(1)), now + 1));
  EXPECT_FALSE(store_.current());
  EXPECT_TRUE(install(releaseOf(twoServices(1)), now));

  // A stale update leaves the installed catalog in place.
  auto stale = twoServices(2);
  stale.services[0].reviewed = kReviewed;
  stale.services[1].reviewed = kReviewed + 10;
  EXPECT_FALSE(
      install(releaseOf(stale), kReviewed + 10 + PrivacyServicesCatalog::kMaximumReviewAge + 1));
  EXPECT_FALSE(install(releaseOf(twoServices(2)), kGenerated - 1)) << "generated in the future";
  EXPECT_EQ(installedVersion(), 1u);
}

TEST_F(PrivacyCatalogStoreTest, ReVerifiesTheInstalledFileOnEveryRead) {
  ASSERT_TRUE(install(releaseOf(twoServices(1))));
  const std::string record = *files::readFile(store_.installedFile());

  // Any flipped byte inside the stored payload is caught: digest and signature no longer match.
  auto decoded = *PrivacyCatalogStore::Record::decode(record);
  decoded.payload[40] ^= 0x02;
  writeBytes(store_.installedFile(), decoded.encode());
  EXPECT_FALSE(store_.current());

  writeBytes(store_.installedFile(), record.substr(0, record.size() - 10));
  EXPECT_FALSE(store_.current()) << "truncated";

  // Blanks after the JSON still decode, so only the size limit refuses the padded file.
  ASSERT_LT(record.size(), PrivacyCatalogStore::kMaxInstalledBytes);
  const std::string padded =
      record + std::string(PrivacyCatalogStore::kMaxInstalledBytes - record.size(), ' ');
  writeBytes(store_.installedFile(), padded);
  EXPECT_TRUE(store_.current()) << "52000 bytes";
  writeBytes(store_.installedFile(), padded + " ");
  EXPECT_FALSE(store_.current()) << "52001 bytes";

  // A store with other trusted keys does not take the file.
  writeBytes(store_.installedFile(), record);
  EXPECT_TRUE(store_.current());
  const PrivacyCatalogStore otherKeys(store_.root(), "{}");
  EXPECT_FALSE(otherKeys.current());
}

TEST_F(PrivacyCatalogStoreTest, ADamagedInstalledFileNeverLetsAnOlderCatalogBack) {
  ASSERT_TRUE(install(releaseOf(twoServices(3))));
  ASSERT_TRUE(files::writeFileAtomically(store_.installedFile(), "{"));
  EXPECT_EQ(installedVersion(), std::nullopt);
  const auto older = install(releaseOf(twoServices(2)));
  ASSERT_FALSE(older);
  EXPECT_EQ(older.error().message, kPrivacyCatalogRejected);
  EXPECT_TRUE(install(releaseOf(twoServices(3))));
}

// The process-wide catalog follows the shared store: the shipped catalog while nothing is
// installed, an installed one as soon as it appears, and the shipped one again when the
// installed file stops verifying.
TEST(PrivacyCatalogInUseTest, FollowsTheSharedStoreAndFallsBackToTheShippedCatalog) {
  testing::TempHome home;
  const auto copy = testing::bundleTrustingTestKey(home.path() / "resources");
  ASSERT_TRUE(copy);
  const testing::ScopedEnvironment resources("LINKWASH_RESOURCES", copy->string());

  const auto shipped = PrivacyServicesCatalog::bundled();
  EXPECT_EQ(privacyCatalogInUse(), shipped);

  const PrivacyCatalogStore store = PrivacyCatalogStore::shared();
  const CatalogRelease first = releaseOf(twoServices(1), updatesHost());
  ASSERT_TRUE(store.install(first.manifest, first.payload, first.signature, kNow));
  const auto installed = privacyCatalogInUse();
  ASSERT_TRUE(installed);
  EXPECT_EQ(installed->bytes(), first.payload);
  EXPECT_EQ(privacyCatalogInUse(), installed) << "unchanged file, cached catalog";

  const CatalogRelease second = releaseOf(twoServices(2), updatesHost());
  ASSERT_TRUE(store.install(second.manifest, second.payload, second.signature, kNow));
  EXPECT_EQ(privacyCatalogInUse()->catalog().version, 2u);

  writeBytes(store.installedFile(), "{\"tampered\":true}");
  EXPECT_EQ(privacyCatalogInUse(), shipped);
}

// Whether the shipped catalog is still fresh depends on the calendar; that it verifies with the
// shipped key and offers XCancel does not.
TEST(ShippedPrivacyCatalogTest, VerifiesWithTheShippedKeyAndOffersXCancel) {
  const fs::path resources = testing::sourceDir() / "resources";
  const auto payload = files::readFile(resources / "privacy-services.json");
  const auto envelope = files::readFile(resources / "privacy-services.sig");
  const auto keys = files::readFile(resources / "privacy-services-keys.json");
  ASSERT_TRUE(payload && envelope && keys);
  const auto verified = PrivacyServicesCatalog::verify(*payload, *envelope, *keys, nullptr);
  ASSERT_TRUE(verified) << "re-sign it: linkwash-publish sign-catalog (see README)";
  const auto& catalog = verified->catalog();
  EXPECT_EQ(catalog.schema, 2u);
  const auto choices = verified->choices(catalog.generated);
  ASSERT_FALSE(choices.empty());
  EXPECT_EQ(choices.front().id, "xcancel");
  EXPECT_EQ(choices.front().destination, "https://xcancel.com");
  EXPECT_EQ(choices.size(), catalog.services.size()) << "every shipped service is eligible";
}

}  // namespace
}  // namespace linkwash
