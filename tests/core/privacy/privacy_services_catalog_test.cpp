// The privacy services catalog: its canonical payload, content rules at their boundaries,
// continuity with the installed catalog, freshness, eligibility, and loading from a bundle.
#include "core/privacy/privacy_services_catalog.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "platform/resources/resource_bundle.h"
#include "tests/core/privacy/catalog_test_support.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

using testing::catalogOf;
using testing::kGenerated;
using testing::kReviewed;
using testing::nitterService;
using testing::schema1Catalog;
using testing::verifyCatalog;
using testing::verifyPayload;
using Catalog = PrivacyServicesCatalog;
using Service = PrivacyServicesCatalog::Service;

std::vector<std::string> idsOf(const std::vector<Service>& services) {
  std::vector<std::string> ids;
  for (const auto& service : services) ids.push_back(service.id);
  return ids;
}

std::vector<Service> numberedServices(std::size_t count) {
  std::vector<Service> services;
  for (std::size_t i = 0; i < count; ++i)
    services.push_back(nitterService("s" + std::to_string(i)));
  return services;
}

TEST(PrivacyServicesCatalogTest, AcceptsSignedCanonicalCatalogsOfBothSchemas) {
  Catalog catalog = catalogOf({nitterService("alpha"), nitterService("beta")});
  catalog.services[0].displayName = "Alpha";
  catalog.services[1].history = "Moved hosting in 2026";
  const auto verified = verifyCatalog(catalog);
  ASSERT_TRUE(verified) << verified.error().message;
  EXPECT_EQ(verified->catalog(), catalog);
  EXPECT_EQ(verified->bytes(), canonical(catalog));
  EXPECT_EQ(Catalog::decode(verified->bytes()), catalog);

  EXPECT_TRUE(verifyCatalog(schema1Catalog()));
}

TEST(PrivacyServicesCatalogTest, RefusesPayloadsThatAreNotTheCanonicalEncoding) {
  const std::string good = canonical(catalogOf({nitterService("alpha")}));
  ASSERT_TRUE(verifyPayload(good));
  const auto replaced = [&](std::string_view from, std::string_view to) {
    std::string text = good;
    text.replace(text.find(from), from.size(), to);
    return text;
  };
  const std::vector<std::pair<const char*, std::string>> cases = {
      {"blank after a colon", replaced("\"version\":1", "\"version\": 1")},
      {"escaped slash", replaced("https://alpha", "https:\\/\\/alpha")},
      {"unknown member", replaced("{\"automaticFailover\"", "{\"a\":1,\"automaticFailover\"")},
      {"members out of order",
       replaced("\"automaticFailover\":false,\"generated\":" + std::to_string(kGenerated),
                "\"generated\":" + std::to_string(kGenerated) + ",\"automaticFailover\":false")},
      {"duplicate member", replaced("\"version\":1", "\"version\":1,\"version\":1")},
      {"number as a float", replaced("\"version\":1", "\"version\":1.0")},
      {"null optional", replaced("\"family\"", "\"displayName\":null,\"family\"")},
      {"escaped letter", replaced("\"alpha\"", "\"\\u0061lpha\"")},
      {"trailing line break", good + "\n"},
  };
  for (const auto& [name, payload] : cases) {
    EXPECT_FALSE(verifyPayload(payload)) << name;
  }
  const std::string otherSignature = testing::envelopeFor(canonical(catalogOf({})));
  EXPECT_FALSE(Catalog::verify(good, otherSignature, testing::catalogKeyFile(), nullptr));
}

// Each case changes a valid catalog; `accepted` says what the rules must decide.
struct Case {
  const char* name;
  std::function<void(Catalog&)> change;
  bool accepted;
};

std::function<void(Catalog&)> first(std::function<void(Service&)> change) {
  return [change](Catalog& c) { change(c.services[0]); };
}

void expectContentRules(const Catalog& base, const std::vector<Case>& cases) {
  for (const auto& testCase : cases) {
    Catalog catalog = base;
    testCase.change(catalog);
    EXPECT_EQ(Catalog::satisfiesContentRules(catalog), testCase.accepted) << testCase.name;
    EXPECT_EQ(verifyCatalog(catalog).has_value(), testCase.accepted) << testCase.name;
  }
}

TEST(PrivacyServicesCatalogTest, CatalogFieldLimits) {
  constexpr std::uint64_t kEarliest = Catalog::kEarliestTime;
  const auto setAllReviewed = [](Catalog& c, std::uint64_t t) {
    for (auto& service : c.services) service.reviewed = t;
  };
  expectContentRules(
      catalogOf({nitterService("alpha")}),
      {
          {"generated a second too early", [&](Catalog& c) { c.generated = kEarliest - 1; }, false},
          {"generated at the earliest time", [&](Catalog& c) { c.generated = kEarliest; }, true},
          {"generated after the latest time", [](Catalog& c) { c.generated = 4102444801; }, false},
          {"version 0", [](Catalog& c) { c.version = 0; }, false},
          {"version 2^53 - 1", [](Catalog& c) { c.version = (1ULL << 53) - 1; }, true},
          {"version 2^53", [](Catalog& c) { c.version = 1ULL << 53; }, false},
          {"schema 3", [](Catalog& c) { c.schema = 3; }, false},
          {"other product", [](Catalog& c) { c.product = "linkwash"; }, false},
          {"automatic failover", [](Catalog& c) { c.automaticFailover = true; }, false},
          {"no services", [](Catalog& c) { c.services.clear(); }, false},
          {"32 services", [](Catalog& c) { c.services = numberedServices(32); }, true},
          {"33 services", [](Catalog& c) { c.services = numberedServices(33); }, false},
          {"reviewed a second too early", [&](Catalog& c) { setAllReviewed(c, kEarliest - 1); },
           false},
      });
}

TEST(PrivacyServicesCatalogTest, ServiceRulesOfBothSchemas) {
  // Schema 1 allows one fixed XCancel service and nothing else.
  expectContentRules(
      schema1Catalog(),
      {
          {"paused", first([](Service& s) { s.state = "paused"; }), true},
          {"two services", [](Catalog& c) { c.services.push_back(c.services[0]); }, false},
          {"display name", first([](Service& s) { s.displayName = "XCancel"; }), false},
          {"profile shape", first([](Service& s) {
             s.shapes = {"status", "profile"};
           }),
           false},
          {"hosts in another order",
           first([](Service& s) { std::swap(s.sourceHosts[0], s.sourceHosts[1]); }), false},
          {"destination with a slash",
           first([](Service& s) { s.destination = "https://xcancel.com/"; }), false},
          {"unknown state", first([](Service& s) { s.state = "Active"; }), false},
      });
  expectContentRules(
      catalogOf({nitterService("alpha"), nitterService("beta")}),
      {
          {"duplicate id", first([](Service& s) { s.id = "beta"; }), false},
          {"65-character id", first([](Service& s) { s.id = std::string(65, 'a'); }), false},
          {"unknown family", first([](Service& s) { s.family = "Nitter"; }), false},
          {"unknown state", first([](Service& s) { s.state = "down"; }), false},
          {"no shapes", first([](Service& s) { s.shapes.clear(); }), false},
          {"repeated shape", first([](Service& s) {
             s.shapes = {"status", "status"};
           }),
           false},
          {"unknown shape", first([](Service& s) {
             s.shapes = {"status", "media"};
           }),
           false},
          {"hosts in another order",
           first([](Service& s) { std::swap(s.sourceHosts[0], s.sourceHosts[4]); }), true},
          {"a host missing", first([](Service& s) { s.sourceHosts.pop_back(); }), false},
          {"destination with a path",
           first([](Service& s) { s.destination = "https://a.example/x_y/~z"; }), true},
          {"destination with a port",
           first([](Service& s) { s.destination = "https://a.example:8443"; }), false},
          {"destination with a final line break",
           first([](Service& s) { s.destination = "https://a.example\n"; }), false},
          {"512-character operator URL",
           first([](Service& s) { s.operatorURL = "https://a.example/" + std::string(494, 'p'); }),
           true},
          {"513-character source URL",
           first([](Service& s) { s.sourceURL = "https://a.example/" + std::string(495, 'p'); }),
           false},
          {"empty operator URL", first([](Service& s) { s.operatorURL.clear(); }), false},
          {"blank reason", first([](Service& s) { s.reason = "   "; }), false},
          {"display name on two lines", first([](Service& s) { s.displayName = "A\nB"; }), false},
      });
}

TEST(PrivacyServicesCatalogTest, ContinuityWithTheInstalledCatalog) {
  Service alpha = nitterService("alpha");
  alpha.destination = "https://alpha.example/";
  const Catalog installedCatalog = catalogOf({alpha, nitterService("beta")}, 5);
  const auto installed = verifyCatalog(installedCatalog);
  ASSERT_TRUE(installed);

  const std::vector<Case> cases = {
      {"newer version adding a service",
       [](Catalog& c) {
         c.version = 6;
         c.services.push_back(nitterService("gamma"));
       },
       true},
      {"newer version, later reviews and generation",
       [](Catalog& c) {
         c.version = 6;
         c.generated += 10;
         for (auto& s : c.services) s.reviewed += 10;
       },
       true},
      {"destination losing its trailing slash",
       [](Catalog& c) {
         c.version = 6;
         c.services[0].destination = "https://alpha.example";
       },
       true},
      {"older version", [](Catalog& c) { c.version = 4; }, false},
      {"same version, other bytes", [](Catalog& c) { c.services[1].reason = "Re-reviewed"; },
       false},
      {"earlier generation",
       [](Catalog& c) {
         c.version = 6;
         c.generated -= 1;
       },
       false},
      {"dropped service",
       [](Catalog& c) {
         c.version = 6;
         c.services.pop_back();
       },
       false},
      {"earlier review",
       [](Catalog& c) {
         c.version = 6;
         c.services[1].reviewed -= 1;
       },
       false},
      {"moved destination",
       [](Catalog& c) {
         c.version = 6;
         c.services[0].destination = "https://other.example";
       },
       false},
  };
  for (const auto& testCase : cases) {
    Catalog next = installedCatalog;
    testCase.change(next);
    EXPECT_EQ(verifyCatalog(next, &*installed).has_value(), testCase.accepted) << testCase.name;
  }
  // A re-delivery of the installed document is accepted.
  EXPECT_TRUE(testing::verifyPayload(installed->bytes(), &*installed));
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
    Service service = nitterService(std::move(id));
    change(service);
    services.push_back(std::move(service));
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
  EXPECT_FALSE(verified->eligible("missing"));
  EXPECT_TRUE(verified->choices(kGenerated - 1).empty());
  EXPECT_TRUE(verified->choices(kReviewed + Catalog::kMaximumReviewAge + 1).empty());

  // Schema 1 lists XCancel for information only; it offers no choices.
  const auto schema1 = verifyCatalog(schema1Catalog());
  ASSERT_TRUE(schema1);
  EXPECT_TRUE(schema1->choices(kGenerated).empty());
  EXPECT_FALSE(schema1->eligible("xcancel"));
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
  const auto root = home.path() / "Linkwash_LinkwashCore.bundle";
  std::filesystem::create_directories(root);
  const auto write = [&](const char* name, const std::string& text) {
    std::ofstream(root / name, std::ios::binary) << text;
  };
  const ResourceBundle bundle(root);
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
