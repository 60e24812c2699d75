#include "core/links/share_link_resolver.h"

#include <algorithm>

#include "base/strings.h"
#include "platform/http/http_client.h"
#include "platform/regex/regex.h"
#include "platform/url/url_components.h"

namespace linkwash {
namespace {

namespace policy = ShareLinkResolutionPolicy;

// Any white space or line break anywhere (ASCII or Unicode) disqualifies a share link: such text
// is not one link, and guessing where the link ends is how a request goes somewhere unintended.
bool containsWhitespace(std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    std::size_t length = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC0 ? 2 : 1;
    length = std::min(length, text.size() - i);
    if (trimWhitespaceAndNewlines(text.substr(i, length)).empty()) return true;
    i += length;
  }
  return false;
}

std::optional<URLComponents> strictParse(std::string_view text) {
  if (text.find('\\') != std::string_view::npos || containsWhitespace(text)) return std::nullopt;
  auto components = URLComponents::parse(text);
  if (!components || !components->scheme() || asciiLower(*components->scheme()) != "https" ||
      !components->host() || components->percentEncodedUser() ||
      components->percentEncodedPassword() || components->portText()) {
    return std::nullopt;
  }
  return components;
}

std::optional<std::string> lowercasedHost(const URLComponents& components) {
  auto host = components.host();
  if (!host || host->empty()) return std::nullopt;
  return asciiLower(*host);
}

std::optional<std::string> normalizedHost(const std::optional<std::string>& host) {
  if (!host || host->empty()) return std::nullopt;
  std::string lower = asciiLower(*host);
  if (startsWith(lower, "www.")) lower.erase(0, 4);
  return lower;
}

std::vector<std::string_view> nonEmptyPieces(std::string_view path) {
  std::vector<std::string_view> pieces;
  for (auto piece : split(path, '/')) {
    if (!piece.empty()) pieces.push_back(piece);
  }
  return pieces;
}

bool isThreadsDomain(std::string_view host) {
  return std::find(policy::kThreadsDomains.begin(), policy::kThreadsDomains.end(), host) !=
         policy::kThreadsDomains.end();
}

bool allBytes(std::string_view text, bool (*accept)(char)) {
  return std::all_of(text.begin(), text.end(), accept);
}

const Regex& shortLinkPattern(bool codeOnly) {
  const std::string host = Regex::escapedPattern(policy::kAmazonShortLinkHost);
  static const Regex code =
      *Regex::compile("^https://" + host + "/d/[a-z0-9_-]{1,64}$", RegexOptions::caseInsensitive);
  static const Regex any =
      *Regex::compile("^https://" + host + "(?:[/?#]|$)", RegexOptions::caseInsensitive);
  return codeOnly ? code : any;
}

// The address a Location header points at, made absolute against the address that answered.
// Dot segments are left alone: a path holding them never has a canonical shape, so such a chain
// fails closed.
std::optional<std::string> absoluteLocation(const std::string& base, const std::string& location) {
  if (auto parsed = URLComponents::parse(location); parsed && parsed->scheme()) return location;
  const auto components = URLComponents::parse(base);
  if (!components || !components->scheme() || !components->percentEncodedHost()) {
    return std::nullopt;
  }
  const std::string scheme = *components->scheme();
  if (startsWith(location, "//")) return scheme + ":" + location;
  const std::string origin = scheme + "://" + *components->percentEncodedHost();
  if (startsWith(location, "/")) return origin + location;
  const std::string& path = components->percentEncodedPath();
  if (startsWith(location, "?")) return origin + path + location;
  if (startsWith(location, "#")) {
    const auto query = components->percentEncodedQuery();
    return origin + path + (query ? "?" + *query : std::string()) + location;
  }
  const auto slash = path.rfind('/');
  return origin + (slash == std::string::npos ? "/" : path.substr(0, slash + 1)) + location;
}

}  // namespace

std::string_view rawValue(ShareLinkService service) {
  switch (service) {
    case ShareLinkService::instagram:
      return "instagram";
    case ShareLinkService::threads:
      return "threads";
    case ShareLinkService::amazon:
      return "amazon";
  }
  return "";
}

std::string_view errorDescription(ShareLinkResolutionError error) {
  switch (error) {
    case ShareLinkResolutionError::unsupported:
      return "This is not a supported share link.";
    case ShareLinkResolutionError::unsafeRedirect:
      return "The link tried to leave the expected service, so Linkwash stopped.";
    case ShareLinkResolutionError::noCanonicalDestination:
      return "The service did not return a canonical post link.";
    case ShareLinkResolutionError::requestFailed:
      return "The share link could not be resolved. The current locally processed link was kept.";
  }
  return "";
}

namespace ShareLinkResolutionPolicy {

std::optional<ShareLinkService> service(std::string_view text) {
  const auto components = strictParse(text);
  if (!components) return std::nullopt;
  const auto host = lowercasedHost(*components);
  if (!host) return std::nullopt;
  if (*host == kAmazonShortLinkHost) {
    if (!shortLinkPattern(true).search(text) || components->percentEncodedQuery() ||
        components->percentEncodedFragment()) {
      return std::nullopt;
    }
    const auto pieces = split(components->percentEncodedPath(), '/');
    const bool codeShape = pieces.size() == 3 && pieces[0].empty() && pieces[1] == "d" &&
                           !pieces[2].empty() && pieces[2].size() <= 64 &&
                           allBytes(pieces[2], [](char c) {
                             return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                                    (c >= '0' && c <= '9') || c == '_' || c == '-';
                           });
    if (!codeShape) return std::nullopt;
    return ShareLinkService::amazon;
  }
  const auto pieces = nonEmptyPieces(components->percentEncodedPath());
  if (pieces.size() != 2 || pieces[0] != "share") return std::nullopt;
  const auto normalized = normalizedHost(host);
  if (normalized == kInstagramDomain) return ShareLinkService::instagram;
  if (normalized && isThreadsDomain(*normalized)) return ShareLinkService::threads;
  return std::nullopt;
}

bool needsResolution(std::string_view text) {
  if (shortLinkPattern(false).search(text)) {
    const auto components = strictParse(text);
    if (components && lowercasedHost(*components) == kAmazonShortLinkHost) return true;
  }
  return service(text).has_value();
}

bool allowedRedirectHost(const std::optional<std::string>& host, ShareLinkService service) {
  if (!host || host->empty()) return false;
  switch (service) {
    case ShareLinkService::amazon:
      return asciiLower(*host) == kAmazonStoreHost;
    case ShareLinkService::instagram:
      return normalizedHost(host) == kInstagramDomain;
    case ShareLinkService::threads:
      return isThreadsDomain(*normalizedHost(host));
  }
  return false;
}

std::optional<std::string> validatedCanonicalURL(std::string_view input,
                                                 std::string_view candidate) {
  const auto which = service(input);
  if (!which) return std::nullopt;
  const auto components = strictParse(candidate);
  if (!components) return std::nullopt;
  const auto host = lowercasedHost(*components);
  const auto normalized = normalizedHost(host);
  if (!normalized) return std::nullopt;
  switch (*which) {
    case ShareLinkService::instagram: {
      const auto pieces = nonEmptyPieces(components->percentEncodedPath());
      if (*normalized != kInstagramDomain || pieces.size() < 2) return std::nullopt;
      if (pieces[0] != "p" && pieces[0] != "reel" && pieces[0] != "tv") return std::nullopt;
      return std::string(candidate);
    }
    case ShareLinkService::threads: {
      const auto pieces = nonEmptyPieces(components->percentEncodedPath());
      if (!isThreadsDomain(*normalized) || pieces.size() < 3) return std::nullopt;
      if (!startsWith(pieces[0], "@") || pieces[1] != "post") return std::nullopt;
      return std::string(candidate);
    }
    case ShareLinkService::amazon: {
      if (*host != kAmazonStoreHost || components->percentEncodedFragment()) return std::nullopt;
      const auto pieces = split(components->percentEncodedPath(), '/');
      if (pieces.size() != 3 || !pieces[0].empty() || pieces[1] != "dp" || pieces[2].size() != 10 ||
          !allBytes(pieces[2],
                    [](char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z'); })) {
        return std::nullopt;
      }
      // Only the product survives: whatever else the store put in the address is tracking.
      return "https://" + std::string(kAmazonStoreHost) + "/dp/" + std::string(pieces[2]);
    }
  }
  return std::nullopt;
}

}  // namespace ShareLinkResolutionPolicy

std::optional<std::string> ShareLinkResolver::willPerformRedirect(std::string_view newURL) {
  const auto components = URLComponents::parse(newURL);
  const bool acceptable =
      components && components->scheme() && asciiLower(*components->scheme()) == "https" &&
      !components->percentEncodedUser() && !components->percentEncodedPassword() &&
      !components->portText() && policy::allowedRedirectHost(components->host(), service_);
  std::lock_guard guard(lock_);
  if (acceptable && followedRedirects_ < kMaximumRedirects) {
    ++followedRedirects_;
    return std::string(newURL);
  }
  rejectedRedirect_ = true;
  return std::nullopt;
}

int ShareLinkResolver::followedRedirects() const {
  std::lock_guard guard(lock_);
  return followedRedirects_;
}

bool ShareLinkResolver::rejectedRedirect() const {
  std::lock_guard guard(lock_);
  return rejectedRedirect_;
}

tl::expected<ResolvedShareLink, ShareLinkResolutionError> ShareLinkResolver::resolve(
    std::string_view text) {
  using E = ShareLinkResolutionError;
  const auto which = policy::service(text);
  if (!which) return tl::unexpected(E::unsupported);
  const auto components = URLComponents::parse(text);
  if (!components || !components->percentEncodedHost()) return tl::unexpected(E::unsupported);
  const std::string contactedHost = *components->percentEncodedHost();

  ShareLinkResolver resolver(*which);
  const HttpClient client;
  const auto deadline = std::chrono::steady_clock::now() + kTotalTimeout;
  auto failure = [&resolver] {
    return tl::unexpected(resolver.rejectedRedirect() ? E::unsafeRedirect : E::requestFailed);
  };
  std::string address(text);
  for (;;) {
    const auto remaining = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (remaining.count() <= 0) return failure();
    HttpRequest request(address);
    request.headers = {{"User-Agent", std::string(kUserAgent)}, {"Accept", std::string(kAccept)}};
    request.connectTimeout = std::min(kRequestTimeout, remaining);
    request.totalTimeout = std::min(kRequestTimeout, remaining);
    const auto response = client.get(request);
    if (!response) return failure();
    if (response->isRedirect() && response->location) {
      const auto next = absoluteLocation(address, *response->location);
      const auto follow = next ? resolver.willPerformRedirect(*next) : std::nullopt;
      if (!follow) {
        // Refusing a redirect ends the request on the redirect itself.
        return tl::unexpected(E::unsafeRedirect);
      }
      address = *follow;
      continue;
    }
    if (resolver.rejectedRedirect()) return tl::unexpected(E::unsafeRedirect);
    if (response->status < 200 || response->status >= 300) return failure();
    auto canonical = policy::validatedCanonicalURL(text, address);
    if (!canonical) return tl::unexpected(E::noCanonicalDestination);
    return ResolvedShareLink{std::string(text), std::move(*canonical), contactedHost,
                             resolver.followedRedirects()};
  }
}

}  // namespace linkwash
