// A real HTTPS server on 127.0.0.1 for download tests, trusted through a throw-away CA.
//
// Construction makes a fresh CA and a server certificate for the given host names (with the
// `openssl` command, into a temporary folder), starts tests/support/https_server.py on a port
// the system picks, and points the HTTP client at it through its test seams:
//   LINKWASH_CA_FILE  = the throw-away CA (added to the system's trusted roots)
//   LINKWASH_RESOLVE  = "host:443:127.0.0.1:PORT,host:PORT:127.0.0.1" for every host
// so https://rules.linkwash.example/any/path (the real URL, no port) and
// https://rules.linkwash.example:PORT/any/path both reach this server, nothing else is
// contacted, and certificate checks stay fully on. NO_PROXY is set to "*" so a proxy in the
// environment is never used. Destruction stops the server, restores those variables and removes
// the folder; the server also exits by itself when the test process dies.
//
// Typical use:
//   HttpsTestServer server;  // default hosts: rules.linkwash.example, updates.linkwash.example
//   ASSERT_TRUE(server.ok()) << server.error();
//   server.putFile("/linkwash/rules/manifest.json", manifestBytes);        // static file
//   server.setRoute("/linkwash/rules/manifest.sig", HttpsRoute().withStatus(304));  // scripted
//   auto response = HttpClient().get(
//       HttpRequest(server.url("rules.linkwash.example", "/linkwash/rules/manifest.json")));
//   auto asked = server.requests();  // what the client sent, in order
//
// Static files are served with an ETag and Last-Modified, and answer 304 to a matching
// If-None-Match (or a recent enough If-Modified-Since), like a real web server. A route
// overrides a path (exactly, or with its query ignored) and can delay, redirect, cut the body
// short or send any status and headers; routes may be changed between requests.
//
// Not thread-safe; one server per test. Starting costs about 0.1 s.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/support/test_support.h"

namespace linkwash::testing {

// A scripted answer for one path.
struct HttpsRoute {
  int status = 200;  // 302 is sent instead when only redirectTo is given and status stays 200
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  std::optional<std::string> redirectTo;  // sent as Location
  // The Content-Length announced; more than the body makes a truncated download.
  std::optional<std::size_t> declaredLength;
  bool omitLength = false;  // no Content-Length; the body ends when the connection closes
  int delayMs = 0;          // before the status line is sent

  // For building a route in one expression (GCC warns on partial designated initializers).
  HttpsRoute& withStatus(int value) {
    status = value;
    return *this;
  }
  HttpsRoute& withHeader(std::string name, std::string value) {
    headers.emplace_back(std::move(name), std::move(value));
    return *this;
  }
  HttpsRoute& withBody(std::string value) {
    body = std::move(value);
    return *this;
  }
  HttpsRoute& withRedirect(std::string value) {
    redirectTo = std::move(value);
    return *this;
  }
  HttpsRoute& withDeclaredLength(std::size_t value) {
    declaredLength = value;
    return *this;
  }
  HttpsRoute& withoutLength() {
    omitLength = true;
    return *this;
  }
  HttpsRoute& withDelay(int milliseconds) {
    delayMs = milliseconds;
    return *this;
  }
};

// One request as the server saw it.
struct HttpsLoggedRequest {
  std::string method;
  std::string path;                                          // with its query, as sent
  std::vector<std::pair<std::string, std::string>> headers;  // names lower-cased, in order
  std::optional<std::string> header(std::string_view lowercaseName) const;
};

class HttpsTestServer {
 public:
  explicit HttpsTestServer(std::vector<std::string> hosts = {"rules.linkwash.example",
                                                             "updates.linkwash.example"});
  ~HttpsTestServer();
  HttpsTestServer(const HttpsTestServer&) = delete;
  HttpsTestServer& operator=(const HttpsTestServer&) = delete;

  // False when the certificates or the server could not be made; error() says why.
  bool ok() const { return port_ != 0; }
  const std::string& error() const { return error_; }
  std::uint16_t port() const { return port_; }

  // "https://" + host + path (path starts with "/"). Aborts on a host the server was not made
  // for, because such a URL would be looked up on the real network.
  std::string url(std::string_view host, std::string_view path) const;
  // The same with the server's real port written in the URL (a hop that names a port).
  std::string urlWithPort(std::string_view host, std::string_view path) const;

  // The folder served; files put there are visible at once.
  const std::filesystem::path& root() const { return root_; }
  // Writes `content` at root() + path, creating folders; returns false on failure.
  bool putFile(std::string_view path, std::string_view content) const;

  void setRoute(const std::string& path, const HttpsRoute& route);
  void removeRoute(const std::string& path);

  // Every request received so far, oldest first.
  std::vector<HttpsLoggedRequest> requests() const;

  // Sets or clears LINKWASH_CA_FILE, to check that the server is refused without the CA.
  void trustCa(bool trusted) const;

 private:
  bool makeCertificates();
  bool startServer();
  bool waitForPort();
  void writeRoutes();
  void requireHost(std::string_view host) const;
  bool run(const std::string& commandLine);

  std::vector<std::string> hosts_;
  std::filesystem::path dir_;
  std::filesystem::path root_;
  std::filesystem::path caFile_;
  std::vector<std::pair<std::string, HttpsRoute>> routes_;
  std::string error_;
  std::uint16_t port_ = 0;
  int pid_ = -1;
  int stdinFd_ = -1;
  int stdoutFd_ = -1;
  std::vector<std::unique_ptr<ScopedEnvironment>> environment_;
};

}  // namespace linkwash::testing
