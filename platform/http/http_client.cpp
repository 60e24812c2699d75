// HttpClient on libcurl: one easy handle per request, HTTPS only, bodies capped as they arrive.
#include "platform/http/http_client.h"

#include <cstdlib>
#include <fstream>
#include <limits>
#include <memory>
#include <sstream>

#include <curl/curl.h>

#include "base/strings.h"
#include "platform/resources/resource_bundle.h"

namespace linkwash {

std::optional<std::string> HttpResponse::header(std::string_view lowercaseName) const {
  for (const auto& [name, value] : headers) {
    if (name == lowercaseName) return value;
  }
  return std::nullopt;
}

namespace {

// The bundle Debian's libcurl trusts when nothing else is configured; asked of curl first.
constexpr const char* kFallbackCaBundle = "/etc/ssl/certs/ca-certificates.crt";

bool curlReady() {
  // curl_global_init is not thread-safe itself; a function-local static runs it exactly once.
  static const bool ready = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  return ready;
}

tl::unexpected<HttpError> failure(HttpErrorKind kind, std::string message) {
  return tl::unexpected<HttpError>(HttpError{kind, std::move(message)});
}

struct EasyDeleter {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct ListDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using EasyHandle = std::unique_ptr<CURL, EasyDeleter>;
using StringList = std::unique_ptr<curl_slist, ListDeleter>;

// Appends to a list; false when curl could not allocate.
bool append(StringList& list, const std::string& item) {
  curl_slist* grown = curl_slist_append(list.get(), item.c_str());
  if (grown == nullptr) return false;
  (void)list.release();
  list.reset(grown);
  return true;
}

std::optional<std::string> readWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream out;
  out << in.rdbuf();
  if (in.bad()) return std::nullopt;
  return std::move(out).str();
}

std::string_view trimSpaces(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r' ||
                           text.back() == '\n')) {
    text.remove_suffix(1);
  }
  return text;
}

// Counts the colon-separated fields of a resolve entry, ignoring colons inside [IPv6] brackets.
std::size_t fieldCount(std::string_view entry) {
  std::size_t fields = 1;
  bool inBrackets = false;
  for (char c : entry) {
    if (c == '[') inBrackets = true;
    if (c == ']') inBrackets = false;
    if (c == ':' && !inBrackets) ++fields;
  }
  return fields;
}

struct Transfer {
  const HttpRequest* request = nullptr;
  CURL* handle = nullptr;
  HttpResponse response;
  bool tooLarge = false;
  bool callbackFailed = false;
};

std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* context) {
  auto& transfer = *static_cast<Transfer*>(context);
  const std::size_t length = size * count;
  std::string_view line(data, length);
  // Every status line starts a new header block (an interim 1xx answer, a proxy's CONNECT
  // reply); only the last block describes the response we return.
  if (startsWith(line, "HTTP/")) {
    transfer.response.headers.clear();
    return length;
  }
  const auto colon = line.find(':');
  if (colon == std::string_view::npos || colon == 0) return length;
  transfer.response.headers.emplace_back(asciiLower(line.substr(0, colon)),
                                         std::string(trimSpaces(line.substr(colon + 1))));
  return length;
}

std::size_t onBody(char* data, std::size_t size, std::size_t count, void* context) {
  auto& transfer = *static_cast<Transfer*>(context);
  const std::size_t length = size * count;
  auto& body = transfer.response.body;
  // Checked before appending, so a hostile server costs us at most maxBytes of memory.
  if (length > transfer.request->maxBytes - body.size()) {
    transfer.tooLarge = true;
    return 0;  // any short count makes curl abort the transfer
  }
  body.append(data, length);
  if (transfer.request->progress) {
    curl_off_t announced = -1;
    curl_easy_getinfo(transfer.handle, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
    std::optional<std::size_t> total;
    if (announced >= 0) total = static_cast<std::size_t>(announced);
    // An exception must not unwind through libcurl's C frames.
    try {
      transfer.request->progress(body.size(), total);
    } catch (...) {
      transfer.callbackFailed = true;
      return 0;
    }
  }
  return length;
}

bool isTlsFailure(CURLcode code) {
  switch (code) {
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_CLIENTCERT:
      return true;
    default:
      return false;
  }
}

bool isConnectionFailure(CURLcode code) {
  switch (code) {
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PROXY:
      return true;
    default:
      return false;
  }
}

HttpError describe(CURLcode code, const Transfer& transfer, const char* detail) {
  const std::string text =
      detail[0] != '\0' ? std::string(trimSpaces(detail)) : std::string(curl_easy_strerror(code));
  if (transfer.tooLarge || code == CURLE_FILESIZE_EXCEEDED) {
    return {HttpErrorKind::tooLarge,
            "the response is larger than " + std::to_string(transfer.request->maxBytes) + " bytes"};
  }
  if (transfer.callbackFailed) return {HttpErrorKind::other, "the progress handler failed"};
  switch (code) {
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_URL_MALFORMAT:
      return {HttpErrorKind::invalidURL, "not a valid https URL"};
    case CURLE_OPERATION_TIMEDOUT:
      return {HttpErrorKind::timeout, "the request timed out"};
    case CURLE_PARTIAL_FILE:
      return {HttpErrorKind::truncated, "the connection closed before the whole response arrived"};
    default:
      break;
  }
  if (isTlsFailure(code)) return {HttpErrorKind::tls, text};
  if (isConnectionFailure(code)) return {HttpErrorKind::connection, text};
  return {HttpErrorKind::other, text};
}

// Header values go on the wire as they are; a line break would smuggle in another header.
bool isSafeHeaderText(std::string_view text) {
  for (char c : text) {
    if (c == '\r' || c == '\n' || c == '\0') return false;
  }
  return true;
}

// LINKWASH_CA_FILE adds to the trusted roots rather than replacing them, so a test CA never
// stops the real certificates from verifying. Fails when the named file cannot be read.
tl::expected<std::optional<std::string>, HttpError> extraTrustBundle(CURL* handle) {
  const char* extra = std::getenv("LINKWASH_CA_FILE");
  if (extra == nullptr || extra[0] == '\0') return std::optional<std::string>{};
  auto added = readWholeFile(extra);
  if (!added) {
    return failure(HttpErrorKind::tls, std::string("cannot read the CA file ") + extra);
  }
  const char* defaultBundle = nullptr;
  curl_easy_getinfo(handle, CURLINFO_CAINFO, &defaultBundle);
  auto system = readWholeFile(defaultBundle != nullptr ? defaultBundle : kFallbackCaBundle);
  std::string bundle = system.value_or("");
  bundle += '\n';
  bundle += *added;
  return std::optional<std::string>(std::move(bundle));
}

// LINKWASH_RESOLVE entries: "host:port:address" pins a host name to an address (curl's resolve
// list); "host:port:address:port2" also moves the port, so a URL without a port can reach a
// test server listening on a random one.
void resolveEntries(StringList& resolve, StringList& connectTo) {
  const char* value = std::getenv("LINKWASH_RESOLVE");
  if (value == nullptr) return;
  for (auto piece : split(value, ',')) {
    const std::string entry(trimSpaces(piece));
    if (entry.empty()) continue;
    const auto fields = fieldCount(entry);
    if (fields == 3) (void)append(resolve, entry);
    if (fields == 4) (void)append(connectTo, entry);
  }
}

}  // namespace

tl::expected<HttpResponse, HttpError> HttpClient::get(const HttpRequest& request) const {
  // Checked here as well as by curl, so that nothing is ever sent for a plain-http URL.
  if (!startsWithAsciiI(request.url, "https://") || !isPrintableAscii(request.url) ||
      request.url.find(' ') != std::string::npos) {
    return failure(HttpErrorKind::invalidURL, "not a valid https URL");
  }
  if (!curlReady()) return failure(HttpErrorKind::other, "the HTTP library failed to start");
  EasyHandle handle(curl_easy_init());
  if (!handle) return failure(HttpErrorKind::other, "the HTTP library failed to start");
  CURL* curl = handle.get();

  StringList headers;
  for (const auto& [name, value] : request.headers) {
    if (name.empty() || name.find(':') != std::string::npos || !isSafeHeaderText(name) ||
        !isSafeHeaderText(value)) {
      return failure(HttpErrorKind::other, "invalid request header " + name);
    }
    // "Name;" is curl's way to send a header with an empty value.
    const std::string line = value.empty() ? name + ";" : name + ": " + value;
    if (!append(headers, line)) return failure(HttpErrorKind::other, "out of memory");
  }
  StringList resolve;
  StringList connectTo;
  resolveEntries(resolve, connectTo);
  auto trust = extraTrustBundle(curl);
  if (!trust) return tl::unexpected<HttpError>(trust.error());

  Transfer transfer;
  transfer.request = &request;
  transfer.handle = curl;
  char detail[CURL_ERROR_SIZE] = {};

  curl_easy_setopt(curl, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "https");
  curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "https");
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);  // signals are not thread-safe
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS,
                   static_cast<long>(request.connectTimeout.count()));
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, static_cast<long>(request.totalTimeout.count()));
  // Lets curl refuse an announced oversize body before any of it arrives; the write callback
  // catches bodies that announce nothing.
  const auto cap =
      request.maxBytes > static_cast<std::size_t>(std::numeric_limits<curl_off_t>::max())
          ? std::numeric_limits<curl_off_t>::max()
          : static_cast<curl_off_t>(request.maxBytes);
  curl_easy_setopt(curl, CURLOPT_MAXFILESIZE_LARGE, cap);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, detail);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, onHeader);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &transfer);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, onBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &transfer);
  if (headers) curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers.get());
  if (resolve) curl_easy_setopt(curl, CURLOPT_RESOLVE, resolve.get());
  if (connectTo) curl_easy_setopt(curl, CURLOPT_CONNECT_TO, connectTo.get());
  if (*trust) {
    curl_blob blob{trust->value().data(), trust->value().size(), CURL_BLOB_NOCOPY};
    curl_easy_setopt(curl, CURLOPT_CAINFO_BLOB, &blob);
  }

  const CURLcode code = curl_easy_perform(curl);
  if (code != CURLE_OK) return tl::unexpected<HttpError>(describe(code, transfer, detail));

  long status = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  transfer.response.status = status;
  // curl already reports a body cut short of its Content-Length; this also covers a transport
  // that ended "cleanly" early. Answers that never carry a body are exempt.
  curl_off_t announced = -1;
  curl_easy_getinfo(curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
  if (status != 304 && status != 204 && status >= 200 && announced >= 0 &&
      static_cast<std::size_t>(announced) > transfer.response.body.size()) {
    return failure(HttpErrorKind::truncated,
                   "the connection closed before the whole response arrived");
  }
  if (transfer.response.isRedirect())
    transfer.response.location = transfer.response.header("location");
  return std::move(transfer.response);
}

tl::expected<std::string, HttpError> download(HttpRequest request, const HttpClient& client) {
  request.headers.emplace_back("User-Agent", "Linkwash/" + appVersion());
  auto response = client.get(request);
  if (!response) return tl::unexpected(std::move(response.error()));
  if (response->status != 200) {
    return tl::unexpected(
        HttpError{HttpErrorKind::status, "HTTP " + std::to_string(response->status)});
  }
  return std::move(response->body);
}

}  // namespace linkwash
