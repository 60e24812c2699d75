#include "core/links/map_link_transformer.h"

#include <vector>

#include "base/strings.h"
#include "platform/url/url_components.h"

namespace linkwash {
namespace {

using Items = std::vector<URLQueryItem>;

// Both services write spaces in their links as "+" (form encoding), and a literal plus as %2B,
// so pluses turn into spaces before the escapes are decoded.
std::optional<std::string> formDecode(std::string_view raw) {
  std::string text(raw);
  for (char& c : text) {
    if (c == '+') c = ' ';
  }
  auto decoded = percentDecode(text);
  if (!decoded) return std::nullopt;
  return std::string(trimWhitespaceAndNewlines(*decoded));
}

// The first non-blank value of `name` in the raw query, decoded and trimmed.
std::optional<std::string> queryValue(const URLComponents& url, std::string_view name) {
  const auto& query = url.percentEncodedQuery();
  if (!query) return std::nullopt;
  for (auto piece : split(*query, '&')) {
    const auto equals = piece.find('=');
    if (equals == std::string_view::npos) continue;
    const auto key = formDecode(piece.substr(0, equals));
    if (!key || *key != name) continue;
    auto value = formDecode(piece.substr(equals + 1));
    if (value && !value->empty()) return value;
  }
  return std::nullopt;
}

std::optional<std::string> build(std::string_view host, std::string_view path, const Items& items) {
  auto url = URLComponents::parse("https://" + std::string(host) + std::string(path));
  if (!url) return std::nullopt;
  url->setQueryItems(items);
  return url->string();
}

bool isCountryDomain(std::string_view rest) {
  // "de", "fr", "co.uk", "com.au": a two-letter country code, optionally after "co." or "com.".
  for (std::string_view second : {"co.", "com."}) {
    if (startsWith(rest, second)) {
      rest.remove_prefix(second.size());
      break;
    }
  }
  return rest.size() == 2 && std::isalpha(static_cast<unsigned char>(rest[0])) &&
         std::isalpha(static_cast<unsigned char>(rest[1]));
}

bool isGoogleHost(std::string_view host) {
  if (host == "google.com" || endsWith(host, ".google.com")) return true;
  return startsWith(host, "www.google.") && isCountryDomain(host.substr(11));
}

// "walking"/"transit"/"driving" and Apple's one-letter flags.
std::optional<std::string> googleTravelMode(const std::optional<std::string>& appleFlag) {
  if (appleFlag == "w") return "walking";
  if (appleFlag == "r") return "transit";
  if (appleFlag == "d") return "driving";
  return std::nullopt;
}

std::optional<std::string> appleFlag(const std::optional<std::string>& travelMode) {
  if (travelMode == "walking") return "w";
  if (travelMode == "transit") return "r";
  if (travelMode == "driving") return "d";
  return std::nullopt;
}

std::optional<std::string> appleToGoogle(const URLComponents& url) {
  if (const auto destination = queryValue(url, "daddr")) {
    Items items{{"api", "1"}};
    if (auto origin = queryValue(url, "saddr")) items.push_back({"origin", *origin});
    items.push_back({"destination", *destination});
    if (auto mode = googleTravelMode(queryValue(url, "dirflg"))) {
      items.push_back({"travelmode", *mode});
    }
    return build(MapLinkTransformer::kGoogleMapsHost, "/maps/dir/", items);
  }
  // A street address is the most precise; then the search text; then bare coordinates.
  auto query = queryValue(url, "address");
  if (!query) query = queryValue(url, "q");
  if (!query) query = queryValue(url, "ll");
  if (!query) return std::nullopt;
  return build(MapLinkTransformer::kGoogleMapsHost, "/maps/search/",
               Items{{"api", "1"}, {"query", *query}});
}

// "@48.85,2.29,15z" -> "48.85,2.29".
std::optional<std::string> coordinates(std::string_view piece) {
  if (!startsWith(piece, "@")) return std::nullopt;
  const auto parts = split(piece.substr(1), ',');
  if (parts.size() < 2 || parts[0].empty() || parts[1].empty()) return std::nullopt;
  for (auto part : {parts[0], parts[1]}) {
    for (char c : part) {
      if (!std::isdigit(static_cast<unsigned char>(c)) && c != '.' && c != '-') return std::nullopt;
    }
  }
  return std::string(parts[0]) + "," + std::string(parts[1]);
}

std::optional<std::string> googleToApple(const URLComponents& url, std::string_view host) {
  const std::string& path = url.percentEncodedPath();
  std::vector<std::string_view> pieces;
  for (auto piece : split(path, '/')) pieces.push_back(piece);
  if (!pieces.empty() && pieces.front().empty()) pieces.erase(pieces.begin());
  // Only map pages: "/maps..." on any Google host, or anything on a "maps." host.
  const bool mapsHost = startsWith(host, "maps.");
  if (!mapsHost && (pieces.empty() || pieces[0] != "maps")) return std::nullopt;
  if (!pieces.empty() && pieces[0] == "maps") pieces.erase(pieces.begin());
  const std::string_view form = pieces.empty() ? std::string_view() : pieces[0];
  auto pieceText = [&](std::size_t i) -> std::optional<std::string> {
    if (i >= pieces.size() || startsWith(pieces[i], "@") || startsWith(pieces[i], "data=")) {
      return std::nullopt;
    }
    auto text = formDecode(pieces[i]);
    if (!text || text->empty()) return std::nullopt;
    return text;
  };

  // Directions: "?api=1&destination=", the older "?daddr=", or "/dir/<origin>/<destination>".
  auto destination = queryValue(url, "destination");
  auto origin = queryValue(url, "origin");
  if (!destination) {
    destination = queryValue(url, "daddr");
    origin = queryValue(url, "saddr");
  }
  if (!destination && form == "dir") {
    destination = pieceText(2);
    origin = destination ? pieceText(1) : std::nullopt;
    if (!destination) destination = pieceText(1);
  }
  if (destination) {
    Items items;
    if (origin) items.push_back({"saddr", *origin});
    items.push_back({"daddr", *destination});
    auto mode = queryValue(url, "travelmode");
    if (!mode) {
      // The older links say "dirflg=w" like Apple's.
      if (auto flag = queryValue(url, "dirflg")) mode = googleTravelMode(flag);
    }
    if (auto flag = appleFlag(mode)) items.push_back({"dirflg", *flag});
    return build(MapLinkTransformer::kAppleMapsHost, "/", items);
  }
  if (form == "dir") return std::nullopt;

  // Search and places. A place id means nothing to Apple, so only the text travels.
  auto query = queryValue(url, "query");
  if (!query) query = queryValue(url, "q");
  if (!query && (form == "search" || form == "place")) query = pieceText(1);
  std::optional<std::string> point;
  for (auto piece : pieces) {
    if (auto c = coordinates(piece)) {
      point = c;
      break;
    }
  }
  if (!query && !point) return std::nullopt;
  Items items;
  if (query) items.push_back({"q", *query});
  if (point) {
    // A place page carries its name and where it is; a bare map view only where it is, which
    // Apple shows as a pin when it is also the query.
    if (!query) items.push_back({"q", *point});
    items.push_back({"ll", *point});
  }
  return build(MapLinkTransformer::kAppleMapsHost, "/", items);
}

}  // namespace

std::string_view rawValue(MapLinkTarget target) {
  return target == MapLinkTarget::appleMaps ? "appleMaps" : "googleMaps";
}

std::optional<MapLinkTransformation> MapLinkTransformer::transform(std::string_view text) {
  const auto url = URLComponents::parse(text);
  if (!url || !url->scheme() || asciiLower(*url->scheme()) != "https") return std::nullopt;
  if (url->percentEncodedUser() || url->percentEncodedPassword() || url->portText()) {
    return std::nullopt;
  }
  const auto rawHost = url->host();
  if (!rawHost || rawHost->empty()) return std::nullopt;
  const std::string host = asciiLower(*rawHost);

  MapLinkTarget target;
  std::optional<std::string> converted;
  if (host == kAppleMapsHost) {
    target = MapLinkTarget::googleMaps;
    converted = appleToGoogle(*url);
  } else if (isGoogleHost(host)) {
    target = MapLinkTarget::appleMaps;
    converted = googleToApple(*url, host);
  } else {
    return std::nullopt;
  }
  if (!converted) return std::nullopt;

  CleanOperation operation;
  operation.kind = CleanOperationKind::functionalTransformation;
  operation.inputURL = std::string(text);
  operation.outputURL = *converted;
  operation.note =
      std::string(target == MapLinkTarget::googleMaps ? kOpenInGoogleMaps : kOpenInAppleMaps);
  return MapLinkTransformation{target, *converted, std::move(operation)};
}

}  // namespace linkwash
