// The record a clean carries when its link was moved to a privacy frontend.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/json/json_writer.h"

namespace linkwash {

enum class PrivacyRedirectService { xTwitter, reddit };

// "xTwitter", "reddit".
std::string_view rawValue(PrivacyRedirectService service);
std::optional<PrivacyRedirectService> privacyRedirectServiceFromRaw(std::string_view raw);

struct PrivacyRedirectInfo {
  PrivacyRedirectService service = PrivacyRedirectService::xTwitter;
  std::string originalHost;  // lower-cased host of the link before the redirect
  std::string frontendHost;  // lower-cased host of the frontend
  bool operator==(const PrivacyRedirectInfo&) const = default;
};

// Keys "service", "originalHost", "frontendHost", in that order.
Json encodePrivacyRedirectInfo(const PrivacyRedirectInfo& info);
std::optional<PrivacyRedirectInfo> decodePrivacyRedirectInfo(const Json& json);

}  // namespace linkwash
