// Share-link policy, and resolution through a real HTTPS server with scripted redirect chains.
#include "core/links/share_link_resolver.h"

#include <gtest/gtest.h>

#include "tests/support/https_test_server.h"

namespace linkwash {
namespace {

namespace policy = ShareLinkResolutionPolicy;
using E = ShareLinkResolutionError;

TEST(ShareLinkPolicyTest, DecidesWhichLinksQualify) {
  struct Case {
    std::string text;
    std::optional<ShareLinkService> service;
    bool needsResolution;
  };
  const std::string code64(64, 'a');
  const Case cases[] = {
      {"https://instagram.com/share/BAbc", ShareLinkService::instagram, true},
      {"https://www.instagram.com/share/BAbc/?igsh=1", ShareLinkService::instagram, true},
      {"https://instagram.com/share", std::nullopt, false},
      {"https://instagram.com/share/a/b", std::nullopt, false},
      {"https://instagram.com/reel/abc", std::nullopt, false},
      {"http://instagram.com/share/BAbc", std::nullopt, false},
      {"https://evilinstagram.com/share/BAbc", std::nullopt, false},
      {"https://threads.net/share/x", ShareLinkService::threads, true},
      {"https://www.threads.com/share/x", ShareLinkService::threads, true},
      {"https://a.co/d/" + code64, ShareLinkService::amazon, true},
      {"HTTPS://A.CO/d/AbC_-9", ShareLinkService::amazon, true},
      {"https://a.co/d/" + code64 + "a", std::nullopt, true},
      {"https://a.co/d/abc?x=1", std::nullopt, true},
      {"https://a.co/d/abc#x", std::nullopt, true},
      {"https://a.co/d/abc/", std::nullopt, true},
      {"https://a.co", std::nullopt, true},
      {"https://a.co:8443/d/abc", std::nullopt, false},
      {"https://a.com/d/abc", std::nullopt, false},
      {"https://instagram.com/share/B Abc", std::nullopt, false},
      {"https://instagram.com/share/B\\Abc", std::nullopt, false},
      {"https://u@instagram.com/share/BAbc", std::nullopt, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(policy::service(c.text), c.service) << c.text;
    EXPECT_EQ(policy::needsResolution(c.text), c.needsResolution) << c.text;
  }
}

TEST(ShareLinkPolicyTest, AcceptsOnlyCanonicalDestinations) {
  struct Case {
    std::string input, candidate;
    std::optional<std::string> canonical;
  };
  const Case cases[] = {
      {"https://a.co/d/x", "https://www.amazon.com/dp/B0ABCDEFGH?tag=aff-20&ref=x",
       "https://www.amazon.com/dp/B0ABCDEFGH"},
      {"https://a.co/d/x", "https://www.amazon.com/dp/B0abcdefgh", std::nullopt},
      {"https://a.co/d/x", "https://www.amazon.com/dp/B0ABCDEFG", std::nullopt},
      {"https://a.co/d/x", "https://amazon.com/dp/B0ABCDEFGH", std::nullopt},
      {"https://a.co/d/x", "https://www.amazon.com/dp/B0ABCDEFGH#r", std::nullopt},
      {"https://a.co/d/x", "https://www.amazon.com/x/dp/B0ABCDEFGH", std::nullopt},
      {"https://instagram.com/share/x", "https://www.instagram.com/p/Cx1/?igsh=abc",
       "https://www.instagram.com/p/Cx1/?igsh=abc"},
      {"https://instagram.com/share/x", "https://instagram.com/accounts/login/", std::nullopt},
      {"https://instagram.com/share/x", "https://threads.com/@a/post/1", std::nullopt},
      {"https://threads.com/share/x", "https://threads.net/@a/post/1",
       "https://threads.net/@a/post/1"},
      {"https://threads.com/share/x", "https://threads.net/a/post/1", std::nullopt},
      {"https://example.com/share/x", "https://instagram.com/p/1", std::nullopt},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(policy::validatedCanonicalURL(c.input, c.candidate), c.canonical) << c.candidate;
  }
}

class ShareLinkResolverTest : public ::testing::Test {
 protected:
  ShareLinkResolverTest()
      : server_({"a.co", "www.amazon.com", "instagram.com", "www.instagram.com", "threads.net",
                 "www.threads.com", "evil.example"}) {}

  // Each hop is a path on the one server; every host name points at it.
  void chain(const std::vector<std::pair<std::string, std::string>>& redirects) {
    for (const auto& [path, location] : redirects) {
      server_.setRoute(path, testing::HttpsRoute().withRedirect(location));
    }
  }
  void page(const std::string& path, int status = 200) {
    server_.setRoute(path, testing::HttpsRoute().withStatus(status).withBody("<html></html>"));
  }

  testing::HttpsTestServer server_;
};

TEST_F(ShareLinkResolverTest, FollowsRedirectChainsWithinTheService) {
  ASSERT_TRUE(server_.ok()) << server_.error();
  page("/p/Four/");
  page("/p/Five/");
  page("/dp/B0ABCDEFGH");
  page("/dp/b0abcdefgh");
  page("/dp/B0ABCDEFG");
  page("/accounts/login/");
  page("/@me/post/42");
  page("/p/Gone/", 404);
  chain({
      {"/share/four", "https://instagram.com/h1"},
      {"/h1", "https://www.instagram.com/h2"},
      {"/h2", "/h3"},  // relative
      {"/h3", "https://instagram.com/p/Four/?igsh=1"},
      {"/share/five", "https://instagram.com/f1"},
      {"/f1", "https://instagram.com/f2"},
      {"/f2", "https://instagram.com/f3"},
      {"/f3", "https://instagram.com/f4"},
      {"/f4", "https://instagram.com/p/Five/"},
      {"/share/away", "https://evil.example/p/x/"},
      {"/share/plain", "http://instagram.com/p/x/"},
      {"/share/port", server_.urlWithPort("instagram.com", "/p/x/")},
      {"/share/login", "https://www.instagram.com/accounts/login/?next=x"},
      {"/share/gone", "https://instagram.com/p/Gone/"},
      {"/d/good", "https://www.amazon.com/dp/B0ABCDEFGH?tag=aff-20&psc=1"},
      {"/d/lower", "https://www.amazon.com/dp/b0abcdefgh"},
      {"/d/nine", "https://www.amazon.com/dp/B0ABCDEFG"},
      {"/share/t", "https://www.threads.com/@me/post/42"},
  });
  struct Case {
    std::string link;
    std::optional<std::string> canonical;
    std::optional<E> error;
    int redirects = 0;
  };
  const Case cases[] = {
      {"https://www.instagram.com/share/four", "https://instagram.com/p/Four/?igsh=1", {}, 4},
      {"https://instagram.com/share/five", {}, E::unsafeRedirect},
      {"https://instagram.com/share/away", {}, E::unsafeRedirect},
      {"https://instagram.com/share/plain", {}, E::unsafeRedirect},
      {"https://instagram.com/share/port", {}, E::unsafeRedirect},
      {"https://instagram.com/share/login", {}, E::noCanonicalDestination},
      {"https://instagram.com/share/gone", {}, E::requestFailed},
      {"https://a.co/d/good", "https://www.amazon.com/dp/B0ABCDEFGH", {}, 1},
      {"https://a.co/d/lower", {}, E::noCanonicalDestination},
      {"https://a.co/d/nine", {}, E::noCanonicalDestination},
      {"https://a.co/", {}, E::unsupported},
      {"https://threads.net/share/t", "https://www.threads.com/@me/post/42", {}, 1},
  };
  for (const auto& c : cases) {
    const auto resolved = ShareLinkResolver::resolve(c.link);
    if (c.error) {
      ASSERT_FALSE(resolved) << c.link;
      EXPECT_EQ(resolved.error(), *c.error) << c.link;
      continue;
    }
    ASSERT_TRUE(resolved) << c.link << ": " << errorDescription(resolved.error());
    EXPECT_EQ(resolved->canonicalURL, *c.canonical);
    EXPECT_EQ(resolved->redirectCount, c.redirects) << c.link;
    EXPECT_EQ(resolved->originalURL, c.link);
  }

  // Nothing was ever asked of the other domain; every request carried exactly our headers.
  for (const auto& request : server_.requests()) {
    EXPECT_NE(request.path, "/p/x/");
    EXPECT_EQ(request.header("user-agent"), "Linkwash/1.0");
    EXPECT_EQ(request.header("accept"), "text/html,application/xhtml+xml");
    EXPECT_FALSE(request.header("cookie"));
  }
}

TEST_F(ShareLinkResolverTest, GivesUpWithinTheTimeLimit) {
  ASSERT_TRUE(server_.ok()) << server_.error();
  server_.setRoute("/share/slow", testing::HttpsRoute().withDelay(9000));
  const auto start = std::chrono::steady_clock::now();
  const auto resolved = ShareLinkResolver::resolve("https://instagram.com/share/slow");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(7500));
  ASSERT_FALSE(resolved);
  EXPECT_EQ(resolved.error(), E::requestFailed);
}

}  // namespace
}  // namespace linkwash
