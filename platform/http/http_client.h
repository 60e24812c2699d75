// HttpClient: HTTPS GET for signed updates and share-link resolution, on libcurl.
//
// No cookies, no cache, and redirects are never followed by the library: a 3xx answer comes
// back as the response itself (with its Location), and the caller's policy decides whether to
// make the next request. Bodies are capped while downloading, so a server cannot make us hold
// more than `maxBytes`.
//
// Test seams (read on every request): LINKWASH_CA_FILE names an extra trusted CA certificate
// (PEM), added to the system's roots; and LINKWASH_RESOLVE ("host:port:address[,...]", as curl's
// resolve list) points real host names at a local test server. An entry with a fourth field,
// "host:443:127.0.0.1:8443", also changes the port, so URLs keep their real form.
// tests/support/https_test_server.h sets both.
//
//   HttpRequest request{"https://rules.linkwash.example/linkwash/rules/manifest.json"};
//   request.maxBytes = 256 * 1024;
//   auto response = HttpClient().get(request);
//   if (!response) ... response.error().message ...
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/result.h"

namespace linkwash {

struct HttpRequest {
  HttpRequest() = default;
  explicit HttpRequest(std::string address) : url(std::move(address)) {}

  std::string url;                                           // must be https://
  std::vector<std::pair<std::string, std::string>> headers;  // e.g. {"Accept", "application/json"}
  std::chrono::milliseconds connectTimeout{10000};
  std::chrono::milliseconds totalTimeout{30000};
  std::size_t maxBytes = 8 * 1024 * 1024;  // a larger body fails with HttpErrorKind::tooLarge
  // Called as bytes arrive: (received so far, total when the server announced it). If it
  // throws, the download stops and fails with HttpErrorKind::other.
  std::function<void(std::size_t, std::optional<std::size_t>)> progress;
};

struct HttpResponse {
  long status = 0;
  std::vector<std::pair<std::string, std::string>> headers;  // names lower-cased, in order
  std::string body;
  std::optional<std::string> location;  // the Location header of a redirect, as sent

  std::optional<std::string> header(std::string_view lowercaseName) const;
  bool isRedirect() const { return status >= 300 && status < 400 && status != 304; }
};

enum class HttpErrorKind {
  invalidURL,  // not an https:// URL
  timeout,
  tooLarge,    // the body passed maxBytes
  truncated,   // the connection ended before the announced length
  tls,         // certificate or handshake failure
  connection,  // DNS, refused, reset
  status,      // download(): any answer but 200, redirects included ("HTTP 404")
  other,
};

struct HttpError {
  HttpErrorKind kind = HttpErrorKind::other;
  std::string message;  // one line for a person, e.g. "connection timed out"
};

class HttpClient {
 public:
  // One GET; never follows a redirect. Safe to use from several threads (one handle per call).
  tl::expected<HttpResponse, HttpError> get(const HttpRequest& request) const;
};

// How every update file is fetched (rule manifests and files, the privacy catalog): one GET of
// `request` with "User-Agent: Linkwash/<version>" added, and only a 200 answer counts. Update
// servers serve static files, so a redirect or any other status (even another 2xx, which a
// static file never needs) is a failure of kind `status` rather than something to follow or
// accept. The body cap, headers and progress of `request` apply as in get().
tl::expected<std::string, HttpError> download(HttpRequest request, const HttpClient& client = {});

}  // namespace linkwash
