// HttpClient against a real HTTPS server on 127.0.0.1 with a certificate made for the test.
#include "platform/http/http_client.h"

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/https_test_server.h"

namespace linkwash {
namespace {

using testing::HttpsRoute;
using testing::HttpsTestServer;

constexpr const char* kHost = "rules.linkwash.example";

class HttpClientTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server_.ok()) << server_.error(); }

  tl::expected<HttpResponse, HttpError> get(const std::string& path,
                                            std::size_t maxBytes = 1024 * 1024) {
    HttpRequest request{server_.url(kHost, path)};
    request.maxBytes = maxBytes;
    request.totalTimeout = std::chrono::seconds(5);
    return HttpClient().get(request);
  }

  HttpsTestServer server_;
};

TEST_F(HttpClientTest, ReturnsBodyHeadersAndProgressAndSendsRequestHeaders) {
  const std::string body(100000, 'x');
  ASSERT_TRUE(server_.putFile("/linkwash/rules/manifest.json", body));
  server_.setRoute("/custom", HttpsRoute().withHeader("X-Mixed-Case", "  kept  ").withBody("hi"));

  HttpRequest request{server_.url(kHost, "/linkwash/rules/manifest.json")};
  request.headers = {{"User-Agent", "Linkwash/1.0"}, {"Accept", "application/json"}};
  std::vector<std::pair<std::size_t, std::optional<std::size_t>>> progress;
  request.progress = [&](std::size_t received, std::optional<std::size_t> total) {
    progress.emplace_back(received, total);
  };
  auto response = HttpClient().get(request);
  ASSERT_TRUE(response) << response.error().message;
  EXPECT_EQ(response->status, 200);
  EXPECT_EQ(response->body, body);
  EXPECT_TRUE(response->header("etag"));
  EXPECT_EQ(response->header("content-length"), std::to_string(body.size()));
  EXPECT_FALSE(response->location);
  ASSERT_FALSE(progress.empty());
  EXPECT_EQ(progress.back().first, body.size());
  EXPECT_EQ(progress.back().second, body.size());
  for (std::size_t i = 1; i < progress.size(); ++i) {
    EXPECT_GT(progress[i].first, progress[i - 1].first);
  }

  auto custom = get("/custom");
  ASSERT_TRUE(custom) << custom.error().message;
  EXPECT_EQ(custom->body, "hi");
  EXPECT_EQ(custom->header("x-mixed-case"), "kept");
  EXPECT_FALSE(custom->header("X-Mixed-Case"));

  // An error status is an answer, not a failure; the caller decides what it means.
  auto missing = get("/nothing-here");
  ASSERT_TRUE(missing) << missing.error().message;
  EXPECT_EQ(missing->status, 404);

  const auto asked = server_.requests();
  ASSERT_EQ(asked.size(), 3u);
  EXPECT_EQ(asked[0].method, "GET");
  EXPECT_EQ(asked[0].path, "/linkwash/rules/manifest.json");
  EXPECT_EQ(asked[0].header("user-agent"), "Linkwash/1.0");
  EXPECT_EQ(asked[0].header("accept"), "application/json");
  // No compression was asked for, so sizes on the wire are the sizes we cap.
  EXPECT_FALSE(asked[0].header("accept-encoding"));
  EXPECT_FALSE(asked[0].header("cookie"));
}

TEST_F(HttpClientTest, ConditionalRequestAnswered304IsAResponse) {
  ASSERT_TRUE(server_.putFile("/catalog.json", "{}"));
  auto first = get("/catalog.json");
  ASSERT_TRUE(first) << first.error().message;
  const auto etag = first->header("etag");
  ASSERT_TRUE(etag);

  HttpRequest again{server_.url(kHost, "/catalog.json")};
  again.headers = {{"If-None-Match", *etag}};
  auto second = HttpClient().get(again);
  ASSERT_TRUE(second) << second.error().message;
  EXPECT_EQ(second->status, 304);
  EXPECT_TRUE(second->body.empty());
  EXPECT_FALSE(second->isRedirect());
  EXPECT_FALSE(second->location);
  EXPECT_EQ(server_.requests().at(1).header("if-none-match"), etag);
}

TEST_F(HttpClientTest, RedirectIsReturnedWithItsLocationAndNotFollowed) {
  ASSERT_TRUE(server_.putFile("/new", "moved here"));
  const std::string target = server_.url(kHost, "/new");
  server_.setRoute("/old", HttpsRoute().withRedirect(target));
  server_.setRoute("/relative", HttpsRoute().withStatus(301).withRedirect("/new?x=1"));

  auto response = get("/old");
  ASSERT_TRUE(response) << response.error().message;
  EXPECT_EQ(response->status, 302);
  EXPECT_TRUE(response->isRedirect());
  EXPECT_EQ(response->location, target);

  auto relative = get("/relative");
  ASSERT_TRUE(relative) << relative.error().message;
  EXPECT_EQ(relative->status, 301);
  EXPECT_EQ(relative->location, "/new?x=1");  // as sent, not resolved

  const auto asked = server_.requests();
  ASSERT_EQ(asked.size(), 2u);
  EXPECT_EQ(asked[0].path, "/old");
  EXPECT_EQ(asked[1].path, "/relative");
}

TEST_F(HttpClientTest, BodiesAreCappedWhetherOrNotTheLengthIsAnnounced) {
  constexpr std::size_t kCap = 64 * 1024;
  const std::string exact(kCap, 'a');
  const std::string over(kCap + 1, 'b');
  const std::string huge(1024 * 1024, 'c');
  server_.setRoute("/exact", HttpsRoute().withBody(exact));
  server_.setRoute("/over", HttpsRoute().withBody(over));
  server_.setRoute("/exact-unannounced", HttpsRoute().withBody(exact).withoutLength());
  server_.setRoute("/over-unannounced", HttpsRoute().withBody(over).withoutLength());
  server_.setRoute("/huge-unannounced", HttpsRoute().withBody(huge).withoutLength());

  for (const char* path : {"/exact", "/exact-unannounced"}) {
    auto response = get(path, kCap);
    ASSERT_TRUE(response) << path << ": " << response.error().message;
    EXPECT_EQ(response->body.size(), kCap) << path;
  }
  for (const char* path : {"/over", "/over-unannounced", "/huge-unannounced"}) {
    auto response = get(path, kCap);
    ASSERT_FALSE(response) << path;
    EXPECT_EQ(response.error().kind, HttpErrorKind::tooLarge) << path;
  }
}

TEST_F(HttpClientTest, BodyShorterThanAnnouncedIsTruncated) {
  const std::string body = "0123456789";
  server_.setRoute("/short", HttpsRoute().withBody(body).withDeclaredLength(body.size() + 1));
  auto response = get("/short");
  ASSERT_FALSE(response);
  EXPECT_EQ(response.error().kind, HttpErrorKind::truncated) << response.error().message;
}

TEST_F(HttpClientTest, SlowServerTimesOut) {
  server_.setRoute("/slow", HttpsRoute().withBody("late").withDelay(3000));
  HttpRequest request{server_.url(kHost, "/slow")};
  request.totalTimeout = std::chrono::milliseconds(300);
  const auto start = std::chrono::steady_clock::now();
  auto response = HttpClient().get(request);
  const auto elapsed = std::chrono::steady_clock::now() - start;
  ASSERT_FALSE(response);
  EXPECT_EQ(response.error().kind, HttpErrorKind::timeout) << response.error().message;
  EXPECT_LT(elapsed, std::chrono::seconds(2));
}

TEST_F(HttpClientTest, CertificateMustChainToATrustedCaAndNameTheHost) {
  ASSERT_TRUE(server_.putFile("/file", "secret"));

  server_.trustCa(false);
  auto untrusted = get("/file");
  ASSERT_FALSE(untrusted);
  EXPECT_EQ(untrusted.error().kind, HttpErrorKind::tls) << untrusted.error().message;

  setenv("LINKWASH_CA_FILE", "/nonexistent/ca.pem", 1);
  auto unreadable = get("/file");
  ASSERT_FALSE(unreadable);
  EXPECT_EQ(unreadable.error().kind, HttpErrorKind::tls) << unreadable.error().message;

  // Trusted CA, but the certificate does not name the address asked for.
  server_.trustCa(true);
  auto wrongName = HttpClient().get(
      HttpRequest("https://127.0.0.1:" + std::to_string(server_.port()) + "/file"));
  ASSERT_FALSE(wrongName);
  EXPECT_EQ(wrongName.error().kind, HttpErrorKind::tls) << wrongName.error().message;

  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(HttpClientTest, RefusesNonHttpsUrlsAndUnsafeHeadersWithoutSendingAnything) {
  ASSERT_TRUE(server_.putFile("/file", "x"));
  const std::string port = std::to_string(server_.port());
  for (const std::string& url : std::vector<std::string>{
           "http://127.0.0.1:" + port + "/file", "ftp://127.0.0.1:" + port + "/file",
           "127.0.0.1:" + port + "/file", std::string(), "https://rules.linkwash.example/a b",
           "https://rules.linkwash.example/\n"}) {
    auto response = HttpClient().get(HttpRequest(url));
    ASSERT_FALSE(response) << url;
    EXPECT_EQ(response.error().kind, HttpErrorKind::invalidURL) << url;
  }

  HttpRequest injected{server_.url(kHost, "/file")};
  injected.headers = {{"Accept", "text/html\r\nCookie: a=b"}};
  auto response = HttpClient().get(injected);
  ASSERT_FALSE(response);
  EXPECT_EQ(response.error().kind, HttpErrorKind::other);

  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(HttpClientTest, NothingListeningIsAConnectionError) {
  // A port that was free a moment ago: bound, then released.
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), length), 0);
  ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
  close(fd);

  HttpRequest request{"https://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/"};
  auto response = HttpClient().get(request);
  ASSERT_FALSE(response);
  EXPECT_EQ(response.error().kind, HttpErrorKind::connection) << response.error().message;
}

TEST_F(HttpClientTest, SeveralThreadsCanDownloadAtOnce) {
  ASSERT_TRUE(server_.putFile("/a", std::string(50000, 'a')));
  std::vector<std::thread> threads;
  std::vector<std::size_t> sizes(4, 0);
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    threads.emplace_back([&, i] {
      auto response = get("/a");
      if (response) sizes[i] = response->body.size();
    });
  }
  for (auto& thread : threads) thread.join();
  for (auto size : sizes) EXPECT_EQ(size, 50000u);
}

}  // namespace
}  // namespace linkwash
