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
            "https://updates.linkwash.example" + testing::versionPath(7, "json"));
  EXPECT_EQ(parsed->signature.url,
            "https://updates.linkwash.example" + testing::versionPath(7, "sig"));
  EXPECT_EQ(parsed->payload.bytes, release.payload.size());
  // The URLs belong to one host: the same manifest is refused for another.
  EXPECT_FALSE(PrivacyCatalogManifest::parse(release.manifest, "mirror.example"));

  const Json good = *parseJson(release.manifest);
  const std::string version6 = "https://updates.linkwash.example" + testing::versionPath(6, "json");
  const std::string otherHost = "https://evil.example" + testing::versionPath(7, "json");
  std::string upperDigest = good["payload"]["sha256"];
  std::transform(upperDigest.begin(), upperDigest.end(), upperDigest.begin(), ::toupper);
  const std::vector<std::pair<const char*, Json>> edits = {
      {"/schema", 2},
      {"/product", "Other"},
      {"/kind", "privacy-services"},
      {"/version", 0},
      {"/version", std::uint64_t{1} << 53},
      {"/version", "7"},
      {"/generated", PrivacyServicesCatalog::kEarliestTime - 1},
      {"/generated", PrivacyCatalogManifest::kGeneratedLimit},
      {"/payload/url", version6},
      {"/payload/url", otherHost},
      {"/signature/url", good["payload"]["url"]},
      {"/payload/sha256", upperDigest},
  };
  for (const auto& [pointer, value] : edits) {
    Json edited = good;
    edited[Json::json_pointer(pointer)] = value;
    EXPECT_FALSE(PrivacyCatalogManifest::parse(canonicalJson(edited), testing::kUpdatesHost))
        << pointer << " = " << value.dump();
  }
  Json sizeless = good;
  sizeless["payload"].erase("bytes");
  EXPECT_FALSE(PrivacyCatalogManifest::parse(canonicalJson(sizeless), testing::kUpdatesHost));
  Json latest = good;
  latest["generated"] = PrivacyCatalogManifest::kGeneratedLimit - 1;
  EXPECT_TRUE(PrivacyCatalogManifest::parse(canonicalJson(latest), testing::kUpdatesHost));
  // Blanks are valid JSON, so only the size decides at 4096 bytes.
  const std::string atLimit = release.manifest + std::string(4096 - release.manifest.size(), ' ');
  EXPECT_TRUE(PrivacyCatalogManifest::parse(atLimit, testing::kUpdatesHost));
  EXPECT_FALSE(PrivacyCatalogManifest::parse(atLimit + " ", testing::kUpdatesHost));
}

TEST_F(PrivacyCatalogStoreTest, InstallsAVerifiedCatalogAndReadsItBack) {
  EXPECT_FALSE(store_.current());
  const CatalogRelease release = releaseOf(twoServices(1));
  const auto installed = install(release);
  ASSERT_TRUE(installed) << installed.error().message;
  EXPECT_EQ(store_.current()->bytes(), release.payload);
  // The record keeps the exact bytes, so a second install of the same files is a re-delivery.
  EXPECT_TRUE(install(release));
  const auto record = PrivacyCatalogStore::Record::decode(*files::readFile(store_.installedFile()));
  ASSERT_TRUE(record);
  EXPECT_EQ(record->signature, release.signature);
  EXPECT_EQ(record->manifest.encode(), release.manifest);
}

// Refusals keep the installed catalog: files that do not match the manifest, a manifest naming
// another version or generation, an older or shrinking catalog, and stale reviews.
TEST_F(PrivacyCatalogStoreTest, RefusesWhatTheManifestOrTheInstalledCatalogRuleOut) {
  ASSERT_TRUE(install(releaseOf(twoServices(3))));
  const CatalogRelease next = releaseOf(twoServices(4));
  const auto describing = [&](std::uint64_t version, std::uint64_t generated,
                              const std::string& payload) {
    return PrivacyCatalogManifest::describing(version, generated, payload, next.signature,
                                              testing::kUpdatesHost)
        .encode();
  };
  std::string flipped = next.payload;
  flipped[flipped.size() / 2] ^= 0x01;
  EXPECT_FALSE(store_.install(next.manifest, next.payload + " ", next.signature, kNow));
  EXPECT_FALSE(store_.install(next.manifest, flipped, next.signature, kNow));
  EXPECT_FALSE(store_.install(describing(4, kGenerated, flipped), flipped, next.signature, kNow));
  EXPECT_FALSE(
      store_.install(describing(5, kGenerated, next.payload), next.payload, next.signature, kNow));
  EXPECT_FALSE(store_.install(describing(4, kGenerated + 1, next.payload), next.payload,
                              next.signature, kNow));
  EXPECT_FALSE(install(releaseOf(twoServices(2)))) << "older version";
  EXPECT_FALSE(install(releaseOf(catalogOf({nitterService("alpha")}, 4)))) << "dropped beta";
  const std::uint64_t staleAt = kReviewed + PrivacyServicesCatalog::kMaximumReviewAge;
  EXPECT_FALSE(install(next, staleAt + 1));
  EXPECT_FALSE(install(next, kGenerated - 1)) << "generated in the future";
  EXPECT_EQ(installedVersion(), 3u);
  EXPECT_TRUE(install(next, staleAt));
  EXPECT_EQ(installedVersion(), 4u);
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

// Four processes install versions 2 to 9 in different orders while this one keeps reading. The
// lock serialises them: every install either wins or is refused as older, a reader never sees a
// broken file or a version going back, and the newest version ends up installed.
TEST_F(PrivacyCatalogStoreTest, ConcurrentInstallsFromSeveralProcessesNeverGoBack) {
  ASSERT_TRUE(install(releaseOf(twoServices(1))));
  std::vector<CatalogRelease> releases;
  for (std::uint64_t version = 0; version <= 9; ++version) {
    releases.push_back(releaseOf(twoServices(std::max<std::uint64_t>(version, 1))));
  }
  const std::vector<std::vector<int>> orders = {{2, 3, 4, 5, 6, 7, 8, 9},
                                                {9, 8, 7, 6, 5, 4, 3, 2},
                                                {2, 4, 6, 8, 3, 5, 7, 9},
                                                {3, 5, 7, 9, 2, 4, 6, 8}};
  std::vector<pid_t> children;
  for (const auto& order : orders) {
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      int status = 0;
      for (int round = 0; round < 3; ++round) {
        for (int version : order) {
          const auto result = install(releases[static_cast<std::size_t>(version)]);
          // Refusing an older catalog is expected; anything else is a fault.
          if (!result && result.error().message != kPrivacyCatalogRejected) status = 2;
        }
      }
      _exit(status);
    }
    children.push_back(pid);
  }

  std::uint64_t seen = 1;
  int reads = 0;
  std::size_t running = children.size();
  std::vector<bool> done(children.size(), false);
  while (running > 0) {
    const auto current = store_.current();
    ASSERT_TRUE(current) << "a reader saw no valid catalog after " << reads << " reads";
    EXPECT_GE(current->catalog().version, seen);
    seen = current->catalog().version;
    ++reads;
    for (std::size_t i = 0; i < children.size(); ++i) {
      if (done[i]) continue;
      int status = 0;
      if (waitpid(children[i], &status, WNOHANG) == children[i]) {
        done[i] = true;
        --running;
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child " << i;
      }
    }
  }
  EXPECT_EQ(installedVersion(), 9u);
  // No temporary file of an atomic write is left behind.
  for (const auto& entry : fs::directory_iterator(store_.root())) {
    EXPECT_FALSE(entry.path().filename().string().starts_with(".installed.json.")) << entry.path();
  }
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
