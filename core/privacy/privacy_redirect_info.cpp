#include "core/privacy/privacy_redirect_info.h"

namespace linkwash {

std::string_view rawValue(PrivacyRedirectService service) {
  return service == PrivacyRedirectService::xTwitter ? "xTwitter" : "reddit";
}

std::optional<PrivacyRedirectService> privacyRedirectServiceFromRaw(std::string_view raw) {
  if (raw == "xTwitter") return PrivacyRedirectService::xTwitter;
  if (raw == "reddit") return PrivacyRedirectService::reddit;
  return std::nullopt;
}

Json encodePrivacyRedirectInfo(const PrivacyRedirectInfo& info) {
  Json json = Json::object();
  json["service"] = std::string(rawValue(info.service));
  json["originalHost"] = info.originalHost;
  json["frontendHost"] = info.frontendHost;
  return json;
}

std::optional<PrivacyRedirectInfo> decodePrivacyRedirectInfo(const Json& json) {
  if (!json.is_object()) return std::nullopt;
  auto service = json.find("service");
  auto original = json.find("originalHost");
  auto frontend = json.find("frontendHost");
  if (service == json.end() || original == json.end() || frontend == json.end())
    return std::nullopt;
  if (!service->is_string() || !original->is_string() || !frontend->is_string())
    return std::nullopt;
  auto parsed = privacyRedirectServiceFromRaw(service->get<std::string>());
  if (!parsed) return std::nullopt;
  return PrivacyRedirectInfo{*parsed, original->get<std::string>(), frontend->get<std::string>()};
}

}  // namespace linkwash
