// The redirector: which X/Twitter and Reddit links move to a frontend, which stay, how
// Nitter-compatible instances are selected from a signed catalog, and frontend base URLs.
#include "core/privacy/privacy_redirector.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/core/privacy/catalog_test_support.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

using testing::catalogOf;
using testing::kGenerated;
using testing::nitterService;
using Service = PrivacyServicesCatalog::Service;
using Settings = PrivacyRedirectSettings;

Settings withChoice(XRedirectChoice choice, std::string serviceID = "", bool automatic = false) {
  Settings settings = Settings::disabled();
  settings.xRedirectChoice = choice;
  settings.nitterServiceID = std::move(serviceID);
  settings.nitterAutomatic = automatic;
  return settings;
}

Settings redditSettings(std::string base) {
  Settings settings = Settings::disabled();
  settings.redditRedirectEnabled = true;
  settings.redditFrontendBaseURL = std::move(base);
  return settings;
}

std::shared_ptr<const VerifiedPrivacyCatalog> signedCatalog(std::vector<Service> services) {
  auto verified = testing::verifyCatalog(catalogOf(std::move(services)));
  EXPECT_TRUE(verified);
  if (!verified) return nullptr;
  return std::make_shared<const VerifiedPrivacyCatalog>(std::move(*verified));
}

// alpha: profiles and statuses; beta: statuses only; gamma: paused.
std::shared_ptr<const VerifiedPrivacyCatalog> instances(bool alphaActive = true) {
  Service alpha = nitterService("alpha");
  alpha.displayName = "Alpha Instance";
  alpha.destination = "https://alpha.example/";
  if (!alphaActive) alpha.state = "paused";
  Service beta = nitterService("beta");
  beta.shapes = {"status"};
  Service gamma = nitterService("gamma");
  gamma.state = "paused";
  return signedCatalog({gamma, beta, alpha});
}

std::optional<std::string> redirected(const PrivacyRedirector& redirector, std::string_view url,
                                      const Settings& settings) {
  const auto result = redirector.redirect(url, settings);
  if (!result) return std::nullopt;
  return result->redirectedURL;
}

// Which links move where, from tests/fixtures/privacy_redirects.tsv.
TEST(PrivacyRedirectorTest, RedirectsOnlyLinksItCanProveAlone) {
  const PrivacyRedirector redirector(instances(), kGenerated);
  const auto rows = testing::fixtureTable("privacy_redirects.tsv");
  ASSERT_GT(rows.size(), 40u);
  for (const auto& row : rows) {
    const std::string& how = row[0];
    std::vector<Settings> settings;
    if (how == "viewer" || how == "any-x")
      settings.push_back(withChoice(XRedirectChoice::twitterViewer));
    if (how == "auto" || how == "any-x")
      settings.push_back(withChoice(XRedirectChoice::nitter, "gamma", true));
    if (how.starts_with("nitter "))
      settings.push_back(withChoice(XRedirectChoice::nitter, how.substr(7)));
    if (how == "any-x") settings.push_back(withChoice(XRedirectChoice::nitter, "alpha"));
    if (how.starts_with("reddit ")) settings.push_back(redditSettings(how.substr(7)));
    ASSERT_FALSE(settings.empty()) << how;
    const std::optional<std::string> expected =
        row[2] == "-" ? std::nullopt : std::optional<std::string>(row[2]);
    for (const auto& each : settings)
      EXPECT_EQ(redirected(redirector, row[1], each), expected) << how << " " << row[1];
  }
}

TEST(PrivacyRedirectorTest, ReportsWhereALinkCameFromAndWent) {
  const PrivacyRedirector redirector(nullptr, kGenerated);
  for (const auto host : kXTwitterHosts) {
    const std::string url = "https://" + std::string(host) + "/jack?s=20#top";
    const auto result = redirector.redirect(url, withChoice(XRedirectChoice::twitterViewer));
    ASSERT_TRUE(result) << host;
    EXPECT_EQ(result->redirectedURL, "https://twitterviewer.net/jack?s=20#top");
    EXPECT_EQ(result->originalURL, url);
    EXPECT_EQ(result->info(), (PrivacyRedirectInfo{PrivacyRedirectService::xTwitter,
                                                   std::string(host), "twitterviewer.net"}));
  }
  const auto reddit =
      redirector.redirect("https://old.reddit.com/r/x", redditSettings("https://safereddit.com"));
  ASSERT_TRUE(reddit);
  EXPECT_EQ(reddit->info(), (PrivacyRedirectInfo{PrivacyRedirectService::reddit, "old.reddit.com",
                                                 "safereddit.com"}));
  Settings off = redditSettings("https://safereddit.com");
  off.redditRedirectEnabled = false;
  EXPECT_FALSE(redirector.redirect("https://www.reddit.com/r/x", off));
}

TEST(PrivacyRedirectorTest, NoInstanceWithoutAFreshCatalog) {
  const Settings alpha = withChoice(XRedirectChoice::nitter, "alpha");
  EXPECT_FALSE(PrivacyRedirector(nullptr, kGenerated).redirect("https://x.com/jack", alpha));
  const std::uint64_t stale = testing::kReviewed + PrivacyServicesCatalog::kMaximumReviewAge + 1;
  EXPECT_FALSE(PrivacyRedirector(instances(), stale).redirect("https://x.com/jack", alpha));
  EXPECT_EQ(PrivacyRedirector(instances(), stale).status(alpha),
            PrivacyRedirector::kStatusUnavailable);
  EXPECT_EQ(PrivacyRedirector(instances(), kGenerated)
                .status(withChoice(XRedirectChoice::nitter, "gamma")),
            PrivacyRedirector::kStatusUnavailable);
}

TEST(PrivacyRedirectorTest, AutomaticModeTakesTheSmallestEligibleIDForTheShape) {
  const Settings automatic = withChoice(XRedirectChoice::nitter, "gamma", true);
  const PrivacyRedirector all(instances(), kGenerated);
  EXPECT_EQ(all.selectedService(automatic, std::nullopt)->id, "alpha");
  EXPECT_EQ(redirected(all, "https://x.com/jack/status/1", automatic),
            "https://alpha.example/jack/status/1");

  // alpha paused: statuses fail over to beta, profiles have no instance left.
  const PrivacyRedirector failover(instances(false), kGenerated);
  EXPECT_EQ(redirected(failover, "https://x.com/jack/status/1", automatic),
            "https://beta.example/jack/status/1");
  EXPECT_FALSE(failover.redirect("https://x.com/jack", automatic));
  EXPECT_FALSE(failover.selectedService(automatic, "profile"));
}

TEST(PrivacyRedirectorTest, NormalizesFrontendBaseURLs) {
  const std::optional<std::string_view> fallback = Settings::kDefaultRedditFrontendBaseURL;
  struct Case {
    const char* value;
    std::optional<std::string_view> fallback;
    std::optional<std::string> expected;
  };
  const std::vector<Case> cases = {
      {"redlib.example?x=1", fallback, "https://safereddit.com"},
      {"redlib.example/sub/", fallback, "https://redlib.example"},
      {"  \n ", fallback, "https://safereddit.com"},
      {"", std::nullopt, std::nullopt},
      {" https://Redlib.example:8443/ ", std::nullopt, "https://Redlib.example:8443"},
      {"https://redlib.example:/", std::nullopt, "https://redlib.example"},
      {"ftp://redlib.example", fallback, "https://safereddit.com"},
      {"https://user@redlib.example", fallback, "https://safereddit.com"},
      {"https://redlib.example#top", std::nullopt, std::nullopt},
      {"https://", fallback, "https://safereddit.com"},
      {"https://safereddit.com/", "https://safereddit.com/", "https://safereddit.com"},
      {"not a host", "also not one", std::nullopt},
      {"bad base", "https://fallback.example/path", "https://fallback.example"},
  };
  for (const auto& testCase : cases) {
    EXPECT_EQ(PrivacyRedirector::normalizedFrontendBaseURL(testCase.value, testCase.fallback),
              testCase.expected)
        << "'" << testCase.value << "'";
  }
}

}  // namespace
}  // namespace linkwash
