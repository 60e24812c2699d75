#include "core/links/archive_links.h"

#include "base/strings.h"
#include "platform/url/url_components.h"

namespace linkwash {

std::optional<std::string> WaybackLinkBuilder::lookupURL(std::string_view text) {
  const std::string_view trimmed = trimWhitespaceAndNewlines(text);
  const auto components = URLComponents::parse(trimmed);
  if (!components || !components->scheme()) return std::nullopt;
  const std::string scheme = asciiLower(*components->scheme());
  const auto& host = components->percentEncodedHost();
  if ((scheme != "http" && scheme != "https") || !host || host->empty()) return std::nullopt;
  return std::string(kLookupPrefix) + std::string(trimmed);
}

std::optional<std::string> DualLinkShareBuilder::normalizedContext(
    const std::optional<std::string>& context) {
  if (!context) return std::nullopt;
  const std::string_view trimmed = trimWhitespaceAndNewlines(*context);
  if (trimmed.empty()) return std::nullopt;
  return std::string(trimmed);
}

std::optional<std::string> DualLinkShareBuilder::body(const CleanResult& result,
                                                      const std::optional<std::string>& context) {
  if (!result.privacyRedirect || !result.cleanedOriginalURL) return std::nullopt;
  if (*result.cleanedOriginalURL == result.cleanedURL) return std::nullopt;
  std::string text;
  if (auto normalized = normalizedContext(context)) text = *normalized + "\n\n";
  text += "Original link: " + *result.cleanedOriginalURL + "\n";
  text += "Privacy link: " + result.cleanedURL;
  return text;
}

}  // namespace linkwash
