// The redirector: which X/Twitter and Reddit links move to a frontend, which stay, how
// Nitter-compatible instances are selected from a signed catalog, and frontend base URLs.
#include "core/privacy/privacy_redirector.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/core/privacy/catalog_test_support.h"

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

TEST(PrivacyRedirectorTest, TwitterViewerTakesProfilesAndStatusesFromEveryXHost) {
  const PrivacyRedirector redirector(nullptr, kGenerated);
  const Settings settings = withChoice(XRedirectChoice::twitterViewer);
  for (const auto host : kXTwitterHosts) {
    const std::string url = "https://" + std::string(host) + "/jack?s=20#top";
    const auto result = redirector.redirect(url, settings);
    ASSERT_TRUE(result) << host;
    EXPECT_EQ(result->redirectedURL, "https://twitterviewer.net/jack?s=20#top");
    EXPECT_EQ(result->originalURL, url);
    EXPECT_EQ(result->info(), (PrivacyRedirectInfo{PrivacyRedirectService::xTwitter,
                                                   std::string(host), "twitterviewer.net"}));
  }
  EXPECT_EQ(redirected(redirector, "https://X.com/Jack_Dorsey01/status/20", settings),
            "https://twitterviewer.net/Jack_Dorsey01/status/20");
  EXPECT_EQ(
      redirected(redirector, "https://x.com/abcdefghijklmno/status/12345678901234567890", settings),
      "https://twitterviewer.net/abcdefghijklmno/status/12345678901234567890");
}

TEST(PrivacyRedirectorTest, LeavesXLinksItCannotProveAlone) {
  const PrivacyRedirector redirector(instances(), kGenerated);
  const std::vector<Settings> choices = {withChoice(XRedirectChoice::twitterViewer),
                                         withChoice(XRedirectChoice::nitter, "alpha"),
                                         withChoice(XRedirectChoice::nitter, "", true)};
  const std::vector<const char*> urls = {
      "http://x.com/jack",
      "https://x.com:443/jack",
      "https://x.com:/jack",
      "https://u@x.com/jack",
      "https://u:p@x.com/jack",
      "https://x.com/jack?next=a\\b",
      "https://x%2Ecom/jack",
      "https://x.com",
      "https://x.com/?q=1",
      "https://x.com/home",
      "https://x.com/Home",
      "https://x.com/explore",
      "https://x.com/jack/",
      "https://x.com//jack",
      "https://x.com/%6Aack",
      "https://x.com/jack/likes",
      "https://x.com/jack/status/123/photo/1",
      "https://x.com/abcdefghijklmnop",
      "https://x.com/jack/status/123456789012345678901",
      "https://x.com/search/status/1",
      "https://x.com/jäck",
  };
  for (const auto& settings : choices) {
    for (const char* url : urls) {
      EXPECT_FALSE(redirector.redirect(url, settings))
          << url << " with " << rawValue(settings.xRedirectChoice);
    }
  }
  // With X/Twitter redirects off, nothing happens even when Reddit redirects are on.
  Settings reddit = redditSettings("https://safereddit.com");
  EXPECT_FALSE(redirector.redirect("https://x.com/jack", reddit));
}

TEST(PrivacyRedirectorTest, IStatusLinksOnlyGoToNitterCompatibleInstances) {
  const PrivacyRedirector redirector(instances(), kGenerated);
  const std::string link = "https://twitter.com/i/status/123";
  EXPECT_FALSE(redirector.redirect(link, withChoice(XRedirectChoice::twitterViewer)));
  EXPECT_EQ(redirected(redirector, link, withChoice(XRedirectChoice::nitter, "alpha")),
            "https://alpha.example/i/status/123");
  EXPECT_EQ(redirected(redirector, "https://mobile.twitter.com/I/status/5#m",
                       withChoice(XRedirectChoice::nitter, "beta")),
            "https://beta.example/I/status/5#m");
}

TEST(PrivacyRedirectorTest, ExplicitSelectionIsNeverReplaced) {
  const PrivacyRedirector redirector(instances(), kGenerated);
  // beta lists statuses only: its profile links stay, although alpha could take them.
  const Settings beta = withChoice(XRedirectChoice::nitter, "beta");
  EXPECT_EQ(redirected(redirector, "https://x.com/jack/status/1", beta),
            "https://beta.example/jack/status/1");
  EXPECT_FALSE(redirector.redirect("https://x.com/jack", beta));

  for (const char* id : {"gamma", "missing", "", "Alpha"}) {
    const Settings settings = withChoice(XRedirectChoice::nitter, id);
    EXPECT_FALSE(redirector.redirect("https://x.com/jack/status/1", settings)) << id;
    EXPECT_EQ(redirector.status(settings), PrivacyRedirector::kStatusUnavailable) << id;
  }

  // Without a verified catalog, or once its reviews are stale, no instance is used.
  const Settings alpha = withChoice(XRedirectChoice::nitter, "alpha");
  EXPECT_FALSE(PrivacyRedirector(nullptr, kGenerated).redirect("https://x.com/jack", alpha));
  const std::uint64_t stale = testing::kReviewed + PrivacyServicesCatalog::kMaximumReviewAge + 1;
  EXPECT_FALSE(PrivacyRedirector(instances(), stale).redirect("https://x.com/jack", alpha));
  EXPECT_EQ(PrivacyRedirector(instances(), stale).status(alpha),
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

TEST(PrivacyRedirectorTest, StatusDescribesTheSelection) {
  const PrivacyRedirector redirector(instances(), kGenerated);
  EXPECT_EQ(redirector.status(withChoice(XRedirectChoice::twitterViewer)),
            "Nitter-compatible redirects are not selected.");
  EXPECT_EQ(redirector.status(withChoice(XRedirectChoice::nitter, "alpha")),
            "Selected instance: Alpha Instance. Only supported public paths are redirected. "
            "Availability is not checked.");
  EXPECT_EQ(PrivacyRedirector(instances(false), kGenerated)
                .status(withChoice(XRedirectChoice::nitter, "", true)),
            "Automatic selection: beta. Only supported public paths are redirected. "
            "Availability is not checked.");
  EXPECT_EQ(PrivacyRedirector(nullptr, kGenerated).status(withChoice(XRedirectChoice::nitter)),
            "Selected Nitter-compatible instance unavailable or ineligible. X/Twitter links stay "
            "canonical; no substitute selected.");
}

TEST(PrivacyRedirectorTest, RedditLinksGoToTheConfiguredFrontend) {
  const PrivacyRedirector redirector(nullptr, kGenerated);
  const auto result = redirector.redirect("http://old.reddit.com/r/linux/comments/abc/?sort=new#c1",
                                          redditSettings("https://safereddit.com"));
  ASSERT_TRUE(result);
  EXPECT_EQ(result->redirectedURL, "https://safereddit.com/r/linux/comments/abc/?sort=new#c1");
  EXPECT_EQ(result->info(), (PrivacyRedirectInfo{PrivacyRedirectService::reddit, "old.reddit.com",
                                                 "safereddit.com"}));

  struct Case {
    const char* url;
    const char* base;
    std::optional<std::string> expected;
  };
  const std::vector<Case> cases = {
      {"https://www.reddit.com/r/x", " redlib.example/sub/ ", "https://redlib.example/r/x"},
      {"https://np.reddit.com/r/x", "redlib.example?theme=dark", "https://safereddit.com/r/x"},
      {"https://reddit.com/r/x", "http://127.0.0.1:8080/", "http://127.0.0.1:8080/r/x"},
      {"https://u:p@new.reddit.com:8443/r/x", "https://safereddit.com",
       "https://safereddit.com/r/x"},
      {"https://www.reddit.com/r/x", "https://WWW.Reddit.com/", std::nullopt},
      {"https://reddit.example/r/x", "https://safereddit.com", std::nullopt},
      {"https://sub.reddit.com/r/x", "https://safereddit.com", std::nullopt},
      {"ftp://reddit.com/r/x", "https://safereddit.com", std::nullopt},
  };
  for (const auto& testCase : cases) {
    EXPECT_EQ(redirected(redirector, testCase.url, redditSettings(testCase.base)),
              testCase.expected)
        << testCase.url << " to " << testCase.base;
  }

  Settings off = redditSettings("https://safereddit.com");
  off.redditRedirectEnabled = false;
  EXPECT_FALSE(redirector.redirect("https://www.reddit.com/r/x", off));
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
