#include "core/privacy/privacy_redirector.h"

namespace linkwash {

std::optional<PrivacyRedirectResult> PrivacyRedirector::redirect(
    std::string_view /*urlString*/, const PrivacyRedirectSettings& /*settings*/) const {
  // Frontend rewriting arrives with the signed services catalog; until then every link stays on
  // its own site, exactly as under the default settings.
  return std::nullopt;
}

}  // namespace linkwash
