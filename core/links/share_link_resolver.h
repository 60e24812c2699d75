// Turning opaque share links (Instagram and Threads "/share/..." links, Amazon short links) into
// the canonical post or product link with one HTTPS request that walks the service's own
// redirects. The rules are tight because the user's click is being replayed on their behalf:
// HTTPS only, every redirect vetted here (the HTTP library never follows one), at most four hops
// and only within the service, no cookies, no cache, 6 s per request and 8 s in all, and the
// final address accepted only when it has the exact shape of a canonical link.
//
//   if (ShareLinkResolutionPolicy::needsResolution(text)) {
//     auto resolved = ShareLinkResolver::resolve(text);   // blocks: run it off the UI loop
//     if (resolved) use(resolved->canonicalURL);
//     else show(errorDescription(resolved.error()));
//   }
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include <tl/expected.hpp>

namespace linkwash {

enum class ShareLinkService { instagram, threads, amazon };

// "instagram", "threads", "amazon".
std::string_view rawValue(ShareLinkService service);

struct ResolvedShareLink {
  std::string originalURL;         // the share link as given
  std::string canonicalURL;        // the validated canonical link
  std::string contactedHost;       // the share link's host as written: the first host contacted
  std::int64_t redirectCount = 0;  // redirects followed, 0 to 4
  bool operator==(const ResolvedShareLink&) const = default;
};

enum class ShareLinkResolutionError {
  unsupported,
  unsafeRedirect,
  noCanonicalDestination,
  requestFailed,
};

// The user-facing sentence for each error.
std::string_view errorDescription(ShareLinkResolutionError error);

// Which links qualify and which addresses are acceptable; pure functions.
namespace ShareLinkResolutionPolicy {

inline constexpr std::string_view kAmazonShortLinkHost = "a.co";
inline constexpr std::string_view kAmazonStoreHost = "www.amazon.com";
inline constexpr std::string_view kInstagramDomain = "instagram.com";
inline constexpr std::array<std::string_view, 2> kThreadsDomains = {"threads.com", "threads.net"};

// True for a link on the Amazon short-link host (even one whose path is not a "/d/" code, which
// then fails to resolve as unsupported) and for every link service() accepts.
bool needsResolution(std::string_view text);
std::optional<ShareLinkService> service(std::string_view text);
// The canonical link `candidate` stands for when it is acceptable as the end of resolving
// `input`: Instagram and Threads links as they are (query kept for the cleaner), Amazon links
// rebuilt as "https://www.amazon.com/dp/<code>" with nothing else kept.
std::optional<std::string> validatedCanonicalURL(std::string_view input,
                                                 std::string_view candidate);
bool allowedRedirectHost(const std::optional<std::string>& host, ShareLinkService service);

}  // namespace ShareLinkResolutionPolicy

// One resolution's redirect vetting. resolve() makes a fresh one per call, so resolutions share
// no state; the counters are guarded by a lock because the HTTP layer may call from its own
// thread.
class ShareLinkResolver {
 public:
  static constexpr int kMaximumRedirects = 4;
  static constexpr std::chrono::milliseconds kRequestTimeout{6000};
  static constexpr std::chrono::milliseconds kTotalTimeout{8000};
  static constexpr std::string_view kUserAgent = "Linkwash/1.0";
  static constexpr std::string_view kAccept = "text/html,application/xhtml+xml";

  // Blocks for at most kTotalTimeout (plus connection set-up). Fails only with one of the four
  // errors; no retry.
  static tl::expected<ResolvedShareLink, ShareLinkResolutionError> resolve(std::string_view text);

  explicit ShareLinkResolver(ShareLinkService service) : service_(service) {}

  // The redirect callback: the absolute address to request next, or nothing when the redirect
  // is refused (which also marks the resolution as having met an unsafe redirect).
  std::optional<std::string> willPerformRedirect(std::string_view newURL);

  ShareLinkService service() const { return service_; }
  int followedRedirects() const;
  bool rejectedRedirect() const;

 private:
  const ShareLinkService service_;
  mutable std::mutex lock_;
  int followedRedirects_ = 0;
  bool rejectedRedirect_ = false;
};

}  // namespace linkwash
