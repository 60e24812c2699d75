// PrivacyRedirector: rewrites an already cleaned X/Twitter or Reddit link to the privacy frontend
// the user chose. It is strict: anything it cannot prove to be a plain public link on a known host
// is left alone, and "no redirect" is the normal answer. It never touches the network.
//
//   PrivacyRedirector redirector(installedCatalog, nowSeconds);
//   if (auto result = redirector.redirect(link, settings)) link = result->redirectedURL;
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/privacy/privacy_redirect_settings.h"
#include "core/privacy/privacy_services_catalog.h"

namespace linkwash {

// Reddit's own hosts; links on them go to the user's Reddit frontend.
inline constexpr std::array<std::string_view, 6> kRedditHosts = {"reddit.com",     "www.reddit.com",
                                                                 "old.reddit.com", "new.reddit.com",
                                                                 "m.reddit.com",   "np.reddit.com"};

// A value: safe to use from any thread.
class PrivacyRedirector {
 public:
  static constexpr std::string_view kStatusNotSelected =
      "Nitter-compatible redirects are not selected.";
  static constexpr std::string_view kStatusUnavailable =
      "Selected Nitter-compatible instance unavailable or ineligible. X/Twitter links stay "
      "canonical; no substitute selected.";

  // `catalog` may be null (no verified catalog installed): Nitter-compatible redirects then never
  // happen, while TwitterViewer and Reddit redirects do not need it. `now` is seconds since 1970
  // and decides which catalog services are still eligible.
  PrivacyRedirector(std::shared_ptr<const VerifiedPrivacyCatalog> catalog, std::uint64_t now)
      : catalog_(std::move(catalog)), now_(now) {}

  // The redirect for `urlString` under `settings`, or nothing when the link stays as it is.
  // Path, query and fragment are carried over byte for byte; only scheme, host and port change.
  std::optional<PrivacyRedirectResult> redirect(std::string_view urlString,
                                                const PrivacyRedirectSettings& settings) const;

  // The one-line description of the Nitter-compatible selection for the settings screen.
  std::string status(const PrivacyRedirectSettings& settings) const;

  // The catalog service links go to under `settings`, for links of `shape` ("profile" or
  // "status") or, without one, of any shape. An explicit selection is only ever that service;
  // automatic mode takes the eligible candidate with the smallest id.
  std::optional<PrivacyServicesCatalog::Service> selectedService(
      const PrivacyRedirectSettings& settings, std::optional<std::string_view> shape) const;

  // A frontend base URL as a person typed it, reduced to scheme, host and port: "https://" is
  // assumed when no scheme is given, a path is dropped, one trailing "/" removed. Text that is
  // not an http(s) URL, or carries user info, a query or a fragment, gives the normalised
  // `fallback` instead (nothing without one). Blank text means `fallback`.
  static std::optional<std::string> normalizedFrontendBaseURL(
      std::string_view value, std::optional<std::string_view> fallback);

 private:
  std::shared_ptr<const VerifiedPrivacyCatalog> catalog_;
  std::uint64_t now_;
};

}  // namespace linkwash
