// The raw components of a parsed URL as one comparable value, read from URLComponents or from
// Boost.URL, so the tests and the fuzz target can compare and print whole parses.
#pragma once

#include <boost/url/parse.hpp>
#include <cstdint>
#include <limits>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "platform/url/url_components.h"

namespace linkwash::testing {

struct UrlParts {
  // Default initialisers let tables name only the components a case has.
  std::optional<std::string> scheme{}, user{}, password{}, host{}, port{};
  std::string path{};
  std::optional<std::string> query{}, fragment{};
  bool operator==(const UrlParts&) const = default;
};

inline UrlParts partsOf(const URLComponents& url) {
  return {url.scheme(),
          url.percentEncodedUser(),
          url.percentEncodedPassword(),
          url.percentEncodedHost(),
          url.portText(),
          url.percentEncodedPath(),
          url.percentEncodedQuery(),
          url.percentEncodedFragment()};
}

// Boost's parse of `text` as a URI reference; nothing when Boost rejects it.
inline std::optional<UrlParts> boostPartsOf(std::string_view text) {
  const auto parsed = boost::urls::parse_uri_reference({text.data(), text.size()});
  if (!parsed) return std::nullopt;
  const boost::urls::url_view& u = *parsed;
  // Boost 1.81 ends an authority where the host or port grammar stops, not at "/", "?" or "#",
  // so it reads "https://a:b.com/" as host "a", empty port, path "b.com/". No URI has a path
  // that follows an authority without a "/"; such a parse does not count as acceptance.
  if (u.has_authority() && !u.encoded_path().empty() && u.encoded_path().front() != '/') {
    return std::nullopt;
  }
  auto str = [](auto v) { return std::string(v.data(), v.size()); };
  UrlParts p;
  if (u.has_scheme()) p.scheme = str(u.scheme());
  if (u.has_userinfo()) p.user = str(u.encoded_user());
  if (u.has_password()) p.password = str(u.encoded_password());
  if (u.has_authority()) p.host = str(u.encoded_host());
  if (u.has_port()) p.port = str(u.port());
  p.path = str(u.encoded_path());
  if (u.has_query()) p.query = str(u.encoded_query());
  if (u.has_fragment()) p.fragment = str(u.encoded_fragment());
  return p;
}

// Our one deliberate rejection of text Boost accepts: a port beyond 32 bits.
inline bool isDocumentedRejection(const UrlParts& boost) {
  if (!boost.port) return false;
  std::uint64_t value = 0;
  for (char c : *boost.port) {
    value = value * 10 + static_cast<std::uint64_t>(c - '0');
    if (value > std::numeric_limits<std::uint32_t>::max()) return true;
  }
  return false;
}

inline void PrintTo(const UrlParts& p, std::ostream* os) {
  auto show = [os](const char* name, const std::optional<std::string>& v) {
    *os << name << (v ? "=\"" + *v + "\" " : "=none ");
  };
  show("scheme", p.scheme);
  show("user", p.user);
  show("password", p.password);
  show("host", p.host);
  show("port", p.port);
  show("path", std::optional<std::string>(p.path));
  show("query", p.query);
  show("fragment", p.fragment);
}

}  // namespace linkwash::testing
