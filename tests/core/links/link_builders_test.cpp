// Map-link conversion, Wayback lookup links and dual-link share texts.
#include <gtest/gtest.h>

#include "core/links/archive_links.h"
#include "core/links/map_link_transformer.h"

namespace linkwash {
namespace {

TEST(MapLinkTransformerTest, ConvertsBetweenTheTwoServices) {
  struct Case {
    std::string input;
    std::optional<std::string> output;
  };
  const Case cases[] = {
      {"https://maps.apple.com/?daddr=Eiffel+Tower&dirflg=w",
       "https://www.google.com/maps/dir/?api=1&destination=Eiffel%20Tower&travelmode=walking"},
      {"https://maps.apple.com/?saddr=Home&daddr=%20Work%20&dirflg=r",
       "https://www.google.com/maps/dir/?api=1&origin=Home&destination=Work&travelmode=transit"},
      {"https://maps.apple.com/?address=1%20Main%20St&q=Shop",
       "https://www.google.com/maps/search/?api=1&query=1%20Main%20St"},
      {"https://maps.apple.com/?q=Louvre",
       "https://www.google.com/maps/search/?api=1&query=Louvre"},
      {"https://maps.apple.com/?ll=48.86,2.34",
       "https://www.google.com/maps/search/?api=1&query=48.86,2.34"},
      {"https://maps.apple.com/?z=10", std::nullopt},
      {"https://www.google.com/maps/dir/?api=1&origin=A&destination=B&travelmode=transit",
       "https://maps.apple.com/?saddr=A&daddr=B&dirflg=r"},
      {"https://www.google.co.uk/maps/dir/Home/Big+Ben/@51.5,-0.12,14z",
       "https://maps.apple.com/?saddr=Home&daddr=Big%20Ben"},
      {"https://www.google.de/maps/search/?api=1&query=Brandenburger+Tor&query_place_id=ChIJ",
       "https://maps.apple.com/?q=Brandenburger%20Tor"},
      {"https://maps.google.com/?q=Zurich", "https://maps.apple.com/?q=Zurich"},
      {"https://www.google.com/maps/place/Louvre/@48.86,2.33,17z/data=!3m1",
       "https://maps.apple.com/?q=Louvre&ll=48.86,2.33"},
      {"https://google.com/maps/@48.86,2.33,17z",
       "https://maps.apple.com/?q=48.86,2.33&ll=48.86,2.33"},
      {"https://www.google.com/maps/search/?api=1&query_place_id=ChIJ", std::nullopt},
      {"https://www.google.com/search?q=maps", std::nullopt},
      {"https://www.google.evil.com/maps?q=x", std::nullopt},
      {"https://notgoogle.com/maps?q=x", std::nullopt},
      {"https://googlemaps.example/maps?q=x", std::nullopt},
      {"http://maps.apple.com/?q=Louvre", std::nullopt},
      {"https://maps.apple.com:8443/?q=Louvre", std::nullopt},
      {"https://me@maps.apple.com/?q=Louvre", std::nullopt},
      {"https://example.com/maps?q=x", std::nullopt},
  };
  for (const auto& c : cases) {
    const auto t = MapLinkTransformer::transform(c.input);
    ASSERT_EQ(t.has_value(), c.output.has_value()) << c.input;
    if (!t) continue;
    EXPECT_EQ(t->url, *c.output) << c.input;
    EXPECT_EQ(t->operation.kind, CleanOperationKind::functionalTransformation);
    EXPECT_EQ(t->operation.inputURL, c.input);
    EXPECT_EQ(t->operation.outputURL, t->url);
    EXPECT_EQ(t->operation.note, t->target == MapLinkTarget::googleMaps ? "Open in Google Maps"
                                                                        : "Open in Apple Maps");
  }
}

TEST(ArchiveLinksTest, BuildsLookupAndDualLinkTexts) {
  EXPECT_EQ(WaybackLinkBuilder::lookupURL("  https://a.com/x?y=1 \n"),
            "https://web.archive.org/web/*/https://a.com/x?y=1");
  EXPECT_EQ(WaybackLinkBuilder::lookupURL("HTTP://a.com"),
            "https://web.archive.org/web/*/HTTP://a.com");
  for (auto bad : {"ftp://a.com/x", "a.com/x", "https:///x", ""}) {
    EXPECT_FALSE(WaybackLinkBuilder::lookupURL(bad)) << bad;
  }

  CleanResult result;
  result.originalURL = "https://x.com/a/status/1?s=20";
  result.cleanedOriginalURL = "https://x.com/a/status/1";
  result.cleanedURL = "https://xcancel.com/a/status/1";
  EXPECT_FALSE(DualLinkShareBuilder::body(result, std::nullopt));  // no redirect recorded
  result.privacyRedirect = PrivacyRedirectInfo{};
  EXPECT_EQ(
      DualLinkShareBuilder::body(result, std::string("  \n ")),
      "Original link: https://x.com/a/status/1\nPrivacy link: https://xcancel.com/a/status/1");
  EXPECT_EQ(DualLinkShareBuilder::body(result, std::string(" Look \n")),
            "Look\n\nOriginal link: https://x.com/a/status/1\n"
            "Privacy link: https://xcancel.com/a/status/1");
  result.cleanedURL = *result.cleanedOriginalURL;
  EXPECT_FALSE(DualLinkShareBuilder::body(result, std::string("Look")));
}

}  // namespace
}  // namespace linkwash
