// The cleaner must never damage a link: kept parameters keep their bytes, wrapped destinations
// are taken as written, and whatever comes out parses as a URL with no line breaks in it.
#include <gtest/gtest.h>

#include "core/cleaning/url_cleaner.h"
#include "platform/url/url_components.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

constexpr std::string_view kRules = R"json({"providers": {
  "hrefli": {"urlPattern": "^https?://href\\.li", "redirections": ["^https?://href\\.li/\\?(.*)"]},
  "google": {"urlPattern": "^https?://www\\.google\\.com",
             "redirections": ["^https?://www\\.google\\.com/url\\?q=([^&]+)",
                              "^https?://www\\.google\\.com/url\\?.*?url=([^&]+)"]},
  "everywhere": {"urlPattern": ".*", "rules": ["mc_cid", "trk"]}
}})json";

struct LinkCase {
  std::string_view input;
  std::string_view expected;  // the input itself when nothing may change
};

// clang-format off
constexpr LinkCase kLinkCases[] = {
  // kept parameters come back byte for byte
  {"https://example.com/search?q=C%2B%2B+tips&utm_source=x", "https://example.com/search?q=C%2B%2B+tips"},
  {"https://example.com/?sig=ab%2Fc%2Bd%3D%3D&utm_source=x", "https://example.com/?sig=ab%2Fc%2Bd%3D%3D"},
  {"https://example.com/?email=a%2Bb%40c.com&utm_source=x", "https://example.com/?email=a%2Bb%40c.com"},
  {"https://example.com/?tag=x%3By&utm_source=x&n=%e2%82%ac", "https://example.com/?tag=x%3By&n=%e2%82%ac"},
  {"https://example.com/?q=M%FCnchen&utm_source=x", "https://example.com/?q=M%FCnchen"},
  {"https://example.com/?a=1&&b&utm_source=x&=x&c=", "https://example.com/?a=1&&b&=x&c="},
  {"https://example.com/p?utm_source=x#frag", "https://example.com/p#frag"},
  // literal destinations are taken as written; encoded ones are decoded
  {"https://href.li/?https://example.com/a?utm_campaign=black%20friday&mc_cid=1", "https://example.com/a"},
  {"https://href.li/?https://example.com/a%20b.html?id=1&trk=2", "https://example.com/a%20b.html?id=1"},
  {"https://href.li/?HTTPS://example.com/a%2Bb", "HTTPS://example.com/a%2Bb"},
  {"https://www.google.com/url?q=https%3A%2F%2Fexample.com%2F%3Fid%3D1%26utm_source%3Dx", "https://example.com/?id=1"},
  // a destination that is not a URL is no destination: next pattern, else the link as it was
  {"https://www.google.com/url?q=https%3A%2F%2Fevil.example%2F%0Ahttps%3A%2F%2Finjected.example%2F&sa=D",
   "https://www.google.com/url?q=https%3A%2F%2Fevil.example%2F%0Ahttps%3A%2F%2Finjected.example%2F&sa=D"},
  {"https://www.google.com/url?q=https%3A%2F%2Fa.example%2F%0D%0A&trk=1", "https://www.google.com/url?q=https%3A%2F%2Fa.example%2F%0D%0A"},
  {"https://www.google.com/url?q=https%3A%2F%2Fa.example%2F%00&url=https%3A%2F%2Fb.example%2F", "https://b.example/"},
  {"https://www.google.com/url?q=https%3A%2F%2Fa%20b.example%2F", "https://www.google.com/url?q=https%3A%2F%2Fa%20b.example%2F"},
  {"https://www.google.com/url?q=https%3A%2F%2F%5Bzz%5D%2F", "https://www.google.com/url?q=https%3A%2F%2F%5Bzz%5D%2F"},
  {"https://href.li/?https://example.com/a b", "https://href.li/?https://example.com/a b"},
  // an encoded destination that does not decode is used undecoded (and is then no web link)
  {"https://www.google.com/url?q=https%3A%2F%2Fexample.com%2F%FF", "https://www.google.com/url?q=https%3A%2F%2Fexample.com%2F%FF"},
};
// clang-format on

TEST(URLCleanerLinksTest, NeverDamagesALink) {
  testing::TempHome home;
  auto store = PreferenceStore::open(home.path() / "prefs.sqlite3");
  RulesEngine engine(store);
  engine.load(kRules);
  URLCleaner cleaner(engine, nullptr, nullptr, "test", PrivacyRedirectSettings{});
  for (const LinkCase& c : kLinkCases) {
    auto outcome = cleaner.cleanWithOutcome(c.input);
    const std::string out =
        outcome.kind == CleanOutcome::Kind::cleaned ? outcome.result->cleanedURL : "(unchanged)";
    EXPECT_EQ(out, c.expected == c.input ? "(unchanged)" : c.expected) << c.input;
    if (outcome.kind != CleanOutcome::Kind::cleaned) continue;
    EXPECT_TRUE(URLComponents::parse(out)) << out;
    for (const CleanOperation& op : outcome.result->operations) {
      EXPECT_TRUE(URLComponents::parse(op.outputURL)) << c.input << " step gives " << op.outputURL;
    }
  }
}

}  // namespace
}  // namespace linkwash
