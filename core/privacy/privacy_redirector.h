// PrivacyRedirector: rewrites an already cleaned X/Twitter or Reddit link to the privacy frontend
// the user chose. It is strict: anything it cannot prove to be a plain public link on a known host
// is left alone, and "no redirect" is the normal answer. It never touches the network.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/privacy/privacy_redirect_settings.h"

namespace linkwash {

// The verified services catalog the redirector chooses Nitter-compatible instances from.
struct VerifiedPrivacyCatalog;

class PrivacyRedirector {
 public:
  // `catalog` may be null (no verified catalog installed); `now` is seconds since 1970.
  PrivacyRedirector(std::shared_ptr<const VerifiedPrivacyCatalog> catalog, std::uint64_t now)
      : catalog_(std::move(catalog)), now_(now) {}

  // The redirect for `urlString` under `settings`, or nothing when the link stays as it is.
  std::optional<PrivacyRedirectResult> redirect(std::string_view urlString,
                                                const PrivacyRedirectSettings& settings) const;

 private:
  std::shared_ptr<const VerifiedPrivacyCatalog> catalog_;
  std::uint64_t now_;
};

}  // namespace linkwash
