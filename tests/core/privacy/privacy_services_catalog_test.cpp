// The privacy services catalog: its canonical payload, content rules at their boundaries,
// continuity with the installed catalog, freshness, eligibility, and loading from a bundle.
#include "core/privacy/privacy_services_catalog.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/json/json_writer.h"
#include "platform/resources/resource_bundle.h"
#include "tests/core/privacy/catalog_test_support.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

using testing::catalogOf;
using testing::kGenerated;
using testing::kReviewed;
using testing::nitterService;
using testing::verifyCatalog;
using testing::verifyPayload;
using Catalog = PrivacyServicesCatalog;
using Service = PrivacyServicesCatalog::Service;

std::vector<std::string> idsOf(const std::vector<Service>& services) {
  std::vector<std::string> ids;
  for (const auto& service : services) ids.push_back(service.id);
  return ids;
}

TEST(PrivacyServicesCatalogTest, AcceptsSignedCanonicalCatalogsOfBothSchemas) {
  Catalog catalog = catalogOf({nitterService("alpha"), nitterService("beta")});
  catalog.services[0].displayName = "Alpha";
  catalog.services[1].history = "Moved hosting in 2026";
  const auto verified = verifyCatalog(catalog);
  ASSERT_TRUE(verified) << verified.error().message;
  EXPECT_EQ(verified->catalog(), catalog);
  EXPECT_EQ(Catalog::decode(verified->bytes()), catalog);
  EXPECT_TRUE(verifyCatalog(testing::schema1Catalog()));
}

TEST(PrivacyServicesCatalogTest, RefusesPayloadsThatAreNotTheCanonicalEncoding) {
  const std::string good = canonical(catalogOf({nitterService("alpha")}));
  ASSERT_TRUE(verifyPayload(good));
  const auto replaced = [&](std::string_view from, std::string_view to) {
    std::string text = good;
    return text.replace(text.find(from), from.size(), to);
  };
  const std::string generated = "\"generated\":" + std::to_string(kGenerated);
  const std::vector<std::pair<const char*, std::string>> cases = {
      {"blank after a colon", replaced("\"version\":1", "\"version\": 1")},
      {"escaped slash", replaced("https://alpha", "https:\\/\\/alpha")},
      {"unknown member", replaced("{\"automaticFailover\"", "{\"a\":1,\"automaticFailover\"")},
      {"members out of order", replaced("\"automaticFailover\":false," + generated,
                                        generated + ",\"automaticFailover\":false")},
      {"duplicate member", replaced("\"version\":1", "\"version\":1,\"version\":1")},
      {"number as a float", replaced("\"version\":1", "\"version\":1.0")},
      {"null optional", replaced("\"family\"", "\"displayName\":null,\"family\"")},
      {"escaped letter", replaced("\"alpha\"", "\"\\u0061lpha\"")},
      {"trailing line break", good + "\n"},
  };
  for (const auto& [name, payload] : cases) EXPECT_FALSE(verifyPayload(payload)) << name;
  const std::string otherSignature = testing::envelopeFor(canonical(catalogOf({})));
  EXPECT_FALSE(Catalog::verify(good, otherSignature, testing::catalogKeyFile(), nullptr));
}

// Each row edits the canonical JSON of a starting catalog and says whether verification, against
// the installed catalog for the "next" rows, must accept it.
TEST(PrivacyServicesCatalogTest, ContentAndContinuityRules) {
  Service alpha = nitterService("alpha");
  alpha.destination = "https://alpha.example/";
  const auto installed = verifyCatalog(catalogOf({alpha, nitterService("beta")}, 5));
  ASSERT_TRUE(installed);
  const std::map<std::string, Catalog> starts = {
      {"one", catalogOf({nitterService("alpha")})},
      {"two", catalogOf({nitterService("alpha"), nitterService("beta")})},
      {"schema1", testing::schema1Catalog()},
      {"next", installed->catalog()}};
  const auto rows = testing::fixtureTable("privacy_catalog_rules.tsv");
  ASSERT_GT(rows.size(), 40u);
  for (const auto& row : rows) {
    Json json = *parseJson(canonical(starts.at(row[1])));
    for (std::size_t i = 3; i < row.size(); ++i) {
      const auto blank = row[i].find(' ');
      const Json::json_pointer pointer(row[i].substr(0, blank));
      const std::string value = row[i].substr(blank + 1);
      if (value == "remove") {
        json[pointer.parent_pointer()].erase(std::stoul(pointer.back()));
      } else {
        json[pointer] = *parseJson(value);
      }
    }
    const auto* previous = row[1] == "next" ? &*installed : nullptr;
    EXPECT_EQ(verifyPayload(canonicalJson(json), previous).has_value(), row[0] == "accept")
        << row[2];
  }
  // A re-delivery of the installed document is accepted; the service count is capped at 32.
  EXPECT_TRUE(verifyPayload(installed->bytes(), &*installed));
  std::vector<Service> services;
  for (int i = 0; i < 33; ++i) services.push_back(nitterService("s" + std::to_string(i)));
  EXPECT_FALSE(verifyCatalog(catalogOf(services)));
  services.pop_back();
  EXPECT_TRUE(verifyCatalog(catalogOf(services)));
}

TEST(PrivacyServicesCatalogTest, FreshForNinetyDaysAfterTheOldestReview) {
  Service older = nitterService("alpha");
  older.reviewed = kReviewed - 100;
  const auto verified = verifyCatalog(catalogOf({older, nitterService("beta")}));
  ASSERT_TRUE(verified);
  const std::uint64_t expiry = older.reviewed + Catalog::kMaximumReviewAge;
  EXPECT_FALSE(verified->fresh(kGenerated - 1));
  EXPECT_TRUE(verified->fresh(kGenerated));
  EXPECT_TRUE(verified->fresh(expiry));
  EXPECT_FALSE(verified->fresh(expiry + 1));
}

TEST(PrivacyServicesCatalogTest, ChoicesAreActiveNitterServicesOnBareOrigins) {
  std::vector<Service> services;
  const auto add = [&](std::string id, std::function<void(Service&)> change) {
    services.push_back(nitterService(std::move(id)));
    change(services.back());
  };
  add("zulu", [](Service&) {});
  add("paused", [](Service& s) { s.state = "paused"; });
  add("retired", [](Service& s) { s.state = "retired"; });
  add("with-path", [](Service& s) { s.destination = "https://with-path.example/nitter"; });
  add("slash", [](Service& s) { s.destination = "https://slash.example/"; });
  add("bird", [](Service& s) { s.family = "bird-makeup"; });
  add("nofamily", [](Service& s) { s.family.reset(); });
  add("xcancel", [](Service& s) { s.family.reset(); });
  add("original", [](Service& s) { s.destination = "https://twitter.com"; });
  add("original-sub", [](Service& s) { s.destination = "https://nitter.x.com"; });
  add("alpha", [](Service&) {});
  const auto verified = verifyCatalog(catalogOf(services));
  ASSERT_TRUE(verified);

  const std::vector<std::string> expected = {"zulu", "slash", "xcancel", "alpha"};
  EXPECT_EQ(idsOf(verified->choices(kGenerated)), expected);
  EXPECT_TRUE(verified->eligible("alpha"));
  EXPECT_FALSE(verified->eligible("paused"));
  EXPECT_TRUE(verified->choices(kReviewed + Catalog::kMaximumReviewAge + 1).empty());

  // Schema 1 lists XCancel for information only; it offers no choices.
  const auto schema1 = verifyCatalog(testing::schema1Catalog());
  ASSERT_TRUE(schema1);
  EXPECT_TRUE(schema1->choices(kGenerated).empty());
}

TEST(PrivacyServicesCatalogTest, ArchiveHoldsServicesOnlyWhileFresh) {
  Service other = nitterService("other");
  other.family = "other";
  const auto verified = verifyCatalog(catalogOf({nitterService("alpha"), other}));
  ASSERT_TRUE(verified);
  const auto archive = PrivacyServicesArchive::verified(&*verified, kGenerated);
  EXPECT_TRUE(archive.isAvailable());
  EXPECT_EQ(idsOf(archive.nitterServices()), std::vector<std::string>{"alpha"});
  EXPECT_EQ(idsOf(archive.otherServices()), std::vector<std::string>{"other"});
  EXPECT_FALSE(PrivacyServicesArchive::verified(nullptr, kGenerated).isAvailable());
  const std::uint64_t stale = kReviewed + PrivacyServicesArchive::kMaximumReviewAge + 1;
  EXPECT_FALSE(PrivacyServicesArchive::verified(&*verified, stale).isAvailable());
}

TEST(PrivacyServicesCatalogTest, LoadsTheCatalogOfABundleOnlyWhenItVerifies) {
  testing::TempHome home;
  const ResourceBundle bundle(home.path());
  const auto write = [&](const char* name, const std::string& text) {
    std::ofstream(home.path() / name, std::ios::binary) << text;
  };
  const std::string payload = canonical(catalogOf({nitterService("alpha")}));
  write("privacy-services.json", payload);
  write("privacy-services-keys.json", testing::catalogKeyFile());
  EXPECT_FALSE(Catalog::fromBundle(bundle)) << "no signature";
  write("privacy-services.sig", testing::envelopeFor(payload + " "));
  EXPECT_FALSE(Catalog::fromBundle(bundle)) << "signature of other bytes";
  write("privacy-services.sig", testing::envelopeFor(payload));
  const auto loaded = Catalog::fromBundle(bundle);
  ASSERT_TRUE(loaded);
  EXPECT_EQ(loaded->bytes(), payload);
}

}  // namespace
}  // namespace linkwash
