// Two texts offered next to a cleaned link: the Wayback Machine lookup address (archived copies
// instead of the live page) and a share text carrying both the cleaned original link and its
// privacy-frontend link, so that a recipient can choose. Neither touches the network.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "core/cleaning/clean_result.h"

namespace linkwash {

struct WaybackLinkBuilder {
  static constexpr std::string_view kLookupPrefix = "https://web.archive.org/web/*/";
  // The prefix followed by the trimmed link, unescaped; nothing unless it is an http(s) link
  // with a host.
  static std::optional<std::string> lookupURL(std::string_view text);
};

struct DualLinkShareBuilder {
  // "[context\n\n]Original link: <cleaned original>\nPrivacy link: <frontend link>"; nothing
  // unless the result was rewritten to a privacy frontend and the two links differ.
  static std::optional<std::string> body(const CleanResult& result,
                                         const std::optional<std::string>& context);
  // Trimmed; blank or absent gives nothing.
  static std::optional<std::string> normalizedContext(const std::optional<std::string>& context);
};

}  // namespace linkwash
