// The redirector's proofs: a link is moved only when its text and its parsed form agree and its
// path is exactly a public profile or status shape; everything else stays where it is.
#include "core/privacy/privacy_redirector.h"

#include <algorithm>
#include <utility>

#include "base/strings.h"
#include "platform/regex/regex.h"
#include "platform/url/url_components.h"

namespace linkwash {
namespace {

using Service = PrivacyServicesCatalog::Service;

// First path segments that are X/Twitter's own pages, never user names.
constexpr std::array<std::string_view, 17> kReservedSegments = {
    "i",        "home",     "login",         "logout",  "search", "explore",
    "settings", "messages", "notifications", "intent",  "share",  "compose",
    "hashtag",  "tos",      "privacy",       "account", "signup"};

constexpr std::string_view kProfilePattern = "^/[A-Za-z0-9_]{1,15}$";
constexpr std::string_view kTwitterViewerStatusPattern = "^/[A-Za-z0-9_]{1,15}/status/[0-9]{1,20}$";
constexpr std::string_view kNitterStatusPattern = "^/(?:[A-Za-z0-9_]{1,15}|i)/status/[0-9]{1,20}$";

const Regex& profileRegex() {
  static const Regex regex = *Regex::compile(kProfilePattern);
  return regex;
}

const Regex& twitterViewerStatusRegex() {
  static const Regex regex = *Regex::compile(kTwitterViewerStatusPattern);
  return regex;
}

const Regex& nitterStatusRegex() {
  static const Regex regex = *Regex::compile(kNitterStatusPattern);
  return regex;
}

// ICU's "$" also matches before a final line break; only a match of the whole path counts.
bool matchesWhole(const Regex& regex, std::string_view text) {
  const auto match = regex.firstMatch(text);
  if (!match || match->ranges.empty() || !match->ranges[0]) return false;
  return match->ranges[0]->begin == 0 && match->ranges[0]->end == text.size();
}

template <std::size_t N>
bool contains(const std::array<std::string_view, N>& list, std::string_view value) {
  return std::find(list.begin(), list.end(), value) != list.end();
}

// The first segment of a path that starts with "/", lower-cased.
std::string firstSegment(std::string_view path) {
  path.remove_prefix(1);
  return asciiLower(path.substr(0, path.find('/')));
}

bool isReserved(std::string_view segment) { return contains(kReservedSegments, segment); }

bool isProfile(std::string_view path) {
  return matchesWhole(profileRegex(), path) && !isReserved(firstSegment(path));
}

bool isTwitterViewerPath(std::string_view path) {
  if (isProfile(path)) return true;
  return matchesWhole(twitterViewerStatusRegex(), path) && !isReserved(firstSegment(path));
}

// "profile", "status", or nothing for a path no Nitter-compatible frontend is trusted with.
std::optional<std::string_view> nitterShape(std::string_view path) {
  if (isProfile(path)) return PrivacyServicesCatalog::kShapeProfile;
  if (!matchesWhole(nitterStatusRegex(), path)) return std::nullopt;
  const std::string segment = firstSegment(path);
  if (segment == "i") return PrivacyServicesCatalog::kShapeStatus;
  if (isReserved(segment)) return std::nullopt;
  return PrivacyServicesCatalog::kShapeStatus;
}

// The path exactly as the text spells it, when the text's scheme is https and its authority is
// nothing but the host. Parsers disagree on odd links; this refuses every link whose text could
// be read differently from what the parser saw.
std::optional<std::string_view> rawHttpsPath(std::string_view urlString, std::string_view host) {
  const std::size_t separator = urlString.find("://");
  if (separator == std::string_view::npos) return std::nullopt;
  if (asciiLower(urlString.substr(0, separator)) != "https") return std::nullopt;
  const std::string_view rest = urlString.substr(separator + 3);
  const std::size_t authorityEnd = rest.find_first_of("/?#");
  if (asciiLower(rest.substr(0, authorityEnd)) != host) return std::nullopt;
  if (authorityEnd == std::string_view::npos || rest[authorityEnd] != '/') return "";
  const std::string_view path = rest.substr(authorityEnd);
  return path.substr(0, path.find_first_of("?#"));
}

}  // namespace

std::optional<PrivacyRedirectResult> PrivacyRedirector::redirect(
    std::string_view urlString, const PrivacyRedirectSettings& settings) const {
  // Under the default settings no link can be redirected: answer before parsing, because the
  // pipeline asks for every link it cleans.
  if (settings.xRedirectChoice == XRedirectChoice::off && !settings.redditRedirectEnabled) {
    return std::nullopt;
  }
  auto link = URLComponents::parse(urlString);
  if (!link || !link->scheme()) return std::nullopt;
  const std::string scheme = asciiLower(*link->scheme());
  if (scheme != "http" && scheme != "https") return std::nullopt;
  const auto decodedHost = link->host();
  if (!decodedHost) return std::nullopt;
  const std::string host = asciiLower(*decodedHost);

  std::string base;
  std::optional<std::string_view> fallback;
  PrivacyRedirectService service = PrivacyRedirectService::xTwitter;
  if (settings.xRedirectChoice != XRedirectChoice::off && contains(kXTwitterHosts, host)) {
    // An X/Twitter link that fails here is final: it is never taken for a Reddit link.
    if (scheme != "https") return std::nullopt;
    if (link->percentEncodedUser() || link->percentEncodedPassword() || link->portText()) {
      return std::nullopt;
    }
    if (urlString.find('\\') != std::string_view::npos) return std::nullopt;
    const auto rawPath = rawHttpsPath(urlString, host);
    if (!rawPath || *rawPath != link->percentEncodedPath()) return std::nullopt;
    const std::string& path = link->percentEncodedPath();

    if (settings.xRedirectChoice == XRedirectChoice::twitterViewer) {
      if (!isTwitterViewerPath(path)) return std::nullopt;
      base = PrivacyRedirectSettings::kTwitterViewerBaseURL;
    } else {
      const auto shape = nitterShape(path);
      if (!shape) return std::nullopt;
      const auto selected = selectedService(settings, shape);
      if (!selected) return std::nullopt;
      const auto& hosts = selected->sourceHosts;
      if (std::find(hosts.begin(), hosts.end(), host) == hosts.end()) return std::nullopt;
      base = selected->destination;
    }
  } else {
    if (!settings.redditRedirectEnabled || !contains(kRedditHosts, host)) return std::nullopt;
    base = settings.redditFrontendBaseURL;
    fallback = PrivacyRedirectSettings::kDefaultRedditFrontendBaseURL;
    service = PrivacyRedirectService::reddit;
  }

  const auto normalizedBase = normalizedFrontendBaseURL(base, fallback);
  if (!normalizedBase) return std::nullopt;
  const auto frontend = URLComponents::parse(*normalizedBase);
  if (!frontend) return std::nullopt;
  const auto frontendDecodedHost = frontend->host();
  if (!frontendDecodedHost || frontendDecodedHost->empty()) return std::nullopt;
  const std::string frontendHost = asciiLower(*frontendDecodedHost);
  // Never "redirect" a link to the site it is already on.
  if (frontendHost == host) return std::nullopt;

  link->setScheme(frontend->scheme());
  link->setPercentEncodedHost(frontend->percentEncodedHost());
  link->setPort(frontend->port());
  link->setPassword(std::nullopt);
  link->setUser(std::nullopt);
  auto redirected = link->string();
  if (!redirected || *redirected == urlString) return std::nullopt;
  return PrivacyRedirectResult{std::string(urlString), std::move(*redirected), service, host,
                               frontendHost};
}

std::optional<Service> PrivacyRedirector::selectedService(
    const PrivacyRedirectSettings& settings, std::optional<std::string_view> shape) const {
  if (!settings.nitterEnabled() || !catalog_) return std::nullopt;
  const auto& candidates = catalog_->choices(now_);
  auto usable = [&](const Service& service) { return !shape || service.supports(*shape); };
  if (!settings.nitterAutomatic) {
    // An explicit selection is that service or nothing; no other instance stands in for it.
    const auto it = std::find_if(candidates.begin(), candidates.end(), [&](const Service& service) {
      return service.id == settings.nitterServiceID;
    });
    if (it == candidates.end() || !usable(*it)) return std::nullopt;
    return *it;
  }
  // Automatic mode ignores the stored id: an instance that stops being eligible or lacks the
  // shape drops out, and the next smallest id takes over.
  const Service* best = nullptr;
  for (const auto& service : candidates) {
    if (usable(service) && (best == nullptr || service.id < best->id)) best = &service;
  }
  if (best == nullptr) return std::nullopt;
  return *best;
}

std::string PrivacyRedirector::status(const PrivacyRedirectSettings& settings) const {
  if (!settings.nitterEnabled()) return std::string(kStatusNotSelected);
  const auto selected = selectedService(settings, std::nullopt);
  if (!selected) return std::string(kStatusUnavailable);
  return std::string(settings.nitterAutomatic ? "Automatic selection: " : "Selected instance: ") +
         selected->label() +
         ". Only supported public paths are redirected. Availability is not "
         "checked.";
}

std::optional<std::string> PrivacyRedirector::normalizedFrontendBaseURL(
    std::string_view value, std::optional<std::string_view> fallback) {
  const auto normalizedFallback = [&]() -> std::optional<std::string> {
    if (!fallback) return std::nullopt;
    return normalizedFrontendBaseURL(*fallback, std::nullopt);
  };

  std::string candidate(trimWhitespaceAndNewlines(value));
  if (candidate.find("://") == std::string::npos) {
    if (candidate.empty()) {
      if (!fallback) return std::nullopt;
      candidate = *fallback;
    } else {
      candidate = "https://" + candidate;
    }
  }

  auto components = URLComponents::parse(candidate);
  const auto accepted = [&] {
    if (!components || !components->scheme()) return false;
    const std::string scheme = asciiLower(*components->scheme());
    if (scheme != "http" && scheme != "https") return false;
    const auto host = components->host();
    return host && !host->empty() && !components->percentEncodedUser() &&
           !components->percentEncodedPassword() && !components->percentEncodedQuery() &&
           !components->percentEncodedFragment();
  }();
  if (!accepted) {
    if (fallback && *fallback != value) return normalizedFallback();
    return std::nullopt;
  }

  // The base is the origin alone; a path would be glued in front of every redirected path.
  const std::string& path = components->percentEncodedPath();
  if (!path.empty() && path != "/") components->setPercentEncodedPath("");
  components->setPercentEncodedQuery(std::nullopt);
  components->setPercentEncodedFragment(std::nullopt);
  auto text = components->string();
  if (!text) return normalizedFallback();
  if (endsWith(*text, "/")) text->pop_back();
  return text;
}

}  // namespace linkwash
