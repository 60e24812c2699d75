// Converting a map link between the two map services: an Apple Maps link becomes the matching
// Google Maps link and the other way round. Offered to the user as "Open in Google Maps" / "Open
// in Apple Maps"; no network access. Only shapes that carry a place, a search or directions
// convert; anything else answers nothing and the caller keeps the link it had.
//
//   if (auto t = MapLinkTransformer::transform("https://maps.apple.com/?daddr=Paris&dirflg=w"))
//     t->url;  // "https://www.google.com/maps/dir/?api=1&destination=Paris&travelmode=walking"
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "core/cleaning/clean_result.h"

namespace linkwash {

enum class MapLinkTarget { appleMaps, googleMaps };
// "appleMaps", "googleMaps".
std::string_view rawValue(MapLinkTarget target);

struct MapLinkTransformation {
  MapLinkTarget target = MapLinkTarget::googleMaps;  // the service the new link opens
  std::string url;
  CleanOperation operation;  // a functional transformation from the input to `url`
  bool operator==(const MapLinkTransformation&) const = default;
};

struct MapLinkTransformer {
  static constexpr std::string_view kAppleMapsHost = "maps.apple.com";
  static constexpr std::string_view kGoogleMapsHost = "www.google.com";
  static constexpr std::string_view kOpenInGoogleMaps = "Open in Google Maps";
  static constexpr std::string_view kOpenInAppleMaps = "Open in Apple Maps";

  static std::optional<MapLinkTransformation> transform(std::string_view text);
};

}  // namespace linkwash
