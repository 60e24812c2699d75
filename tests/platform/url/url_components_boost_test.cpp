// Differential test against Boost.URL: on every input Boost accepts as a URI reference our raw
// components must be Boost's; every input we accept must recompose to itself, and rewriting its
// query must give a link that parses back to the same components.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <span>

#include "base/strings.h"
#include "platform/url/url_components.h"
#include "tests/platform/url/url_oracle.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

using testing::boostPartsOf;
using testing::isDocumentedRejection;
using testing::partsOf;
using testing::UrlParts;

bool allValidUtf8(const std::vector<URLQueryItem>& items) {
  for (const auto& item : items) {
    if (!isValidUtf8(item.name) || (item.value && !isValidUtf8(*item.value))) return false;
  }
  return true;
}

struct Tally {
  std::size_t inputs = 0, bothAccept = 0, onlyOurs = 0, documented = 0;
  std::string failures;  // the first twenty, one a line

  void fail(std::string_view why, std::string_view text, const std::string& detail) {
    if (std::count(failures.begin(), failures.end(), '\n') >= 20) return;
    failures += std::string(why) + ": \"" + std::string(text) + "\" " + detail + "\n";
  }
};

std::string show(const std::optional<UrlParts>& parts) {
  return parts ? ::testing::PrintToString(*parts) : "rejected";
}

void check(std::string_view input, Tally& tally) {
  ++tally.inputs;
  // An exact-size heap copy, so ASan sees any read past the end.
  auto buffer = std::make_unique<char[]>(input.size());
  std::memcpy(buffer.get(), input.data(), input.size());
  const std::string_view text(buffer.get(), input.size());

  const auto ours = URLComponents::parse(text);
  const auto theirs = boostPartsOf(text);
  if (theirs && !ours && isDocumentedRejection(*theirs)) {
    ++tally.documented;
  } else if (theirs && !ours) {
    tally.fail("Boost accepts, we reject", text, show(theirs));
  } else if (theirs && partsOf(*ours) != *theirs) {
    tally.fail("components differ", text,
               "ours " + show(partsOf(*ours)) + " Boost " + show(theirs));
  } else if (ours) {
    ++(theirs ? tally.bothAccept : tally.onlyOurs);
  }
  if (!ours) return;
  if (ours->string() != text) tally.fail("round trip", text, ours->string().value_or("(none)"));

  // Rewriting the query, as cleaning does, keeps everything else and the items.
  const auto items = ours->queryItems();
  URLComponents rewritten = *ours;
  rewritten.setQueryItems(items);
  const auto again = rewritten.string();
  const auto reparsed = again ? URLComponents::parse(*again) : std::nullopt;
  if (!reparsed)
    return tally.fail("rewritten query does not parse", text, again.value_or("(none)"));
  UrlParts expected = partsOf(*ours);
  expected.port = ours->port() ? std::optional(std::to_string(*ours->port())) : std::nullopt;
  expected.query = reparsed->percentEncodedQuery();
  if (partsOf(*reparsed) != expected) tally.fail("rewriting the query changed", text, *again);
  if (items && allValidUtf8(*items) && reparsed->queryItems() != items) {
    tally.fail("query items changed", text, *again);
  }
}

// The raw engine output is fixed by the standard, so every library makes the same inputs.
struct Rng {
  std::mt19937_64 engine;
  std::size_t below(std::size_t n) { return static_cast<std::size_t>(engine() % n); }
  bool chance(std::size_t percent) { return below(100) < percent; }
  template <typename T>
  const T& pick(std::span<const T> items) {
    return items[below(items.size())];
  }
};

using Pool = std::span<const std::string_view>;

// Pieces of each component: first ones RFC 3986 allows, then ones only we accept or nobody does.
// Picking the odd ones a fifth of the time keeps many inputs that both parsers accept.
struct Pieces {
  Pool valid, odd;
};

constexpr std::string_view kSchemes[] = {
    "https:", "http:", "HTTP:", "a+b.c-d:", "mailto:", "", "x:", "file:"};
constexpr std::string_view kOddSchemes[] = {"1x:", "-a:", "a_b:"};
constexpr std::string_view kUserInfos[] = {"u", "u:p", ":", "", "a%20b", "u:p:q", "!$&'()*+,;="};
constexpr std::string_view kOddUserInfos[] = {"u@v", "u%zz", "[x]", "\xC3\xA9", "a:b@c", "a b"};
constexpr std::string_view kHosts[] = {
    "example.com", "", "ex%41mple.com", "WWW.Example.COM", "a_b-c~d", "!$&'()*+,;=", "1.2.3.4",
    "256.1.1.1",
    // IPv6 and IPvFuture literals.
    "[::1]", "[::]", "[1::8]", "[1:2:3:4:5:6:7:8]", "[::ffff:1.2.3.4]", "[1:2:3:4:5:6:7::]",
    "[::1:2:3:4:5:6:7]", "[1:2:3::6:7:8]", "[A:b:C:d:E:f:1.2.3.4]", "[v1.x]", "[v1F.a:b]"};
constexpr std::string_view kOddHosts[] = {"[1::2::3]", "[1:2:3:4::5:6:7:8]", "[::1", "::1]",
                                          "[::1.2.3.04]", "[12345::]", "[::g]", "[v.x]", "[vz.x]",
                                          "[V1.x]", "[fe80::1%25en0]",
                                          // Characters no host may hold.
                                          "b\xC3\xBC.de", "a|b", "%zz", "h%", "a]b", "a\\b"};
constexpr std::string_view kPorts[] = {"",       ":",           ":80",         ":0080",
                                       ":65536", ":4294967295", ":99999999999"};
constexpr std::string_view kOddPorts[] = {":8a", ":4294967296", "::", ":-1", ": 1"};
constexpr std::string_view kPaths[] = {
    "", "/", "/a/b", "/%41", "/a@b:c", "/%e2%82%ac", "/a;b=c/d", "/./../", "//x", "/~a!$&'()*+,;="};
constexpr std::string_view kOddPaths[] = {
    "/a b", "a:b", "/%", "/%2", "/|{}^`[]", "/\\", "/\xFF", "/\xE2\x82\xAC", "/\"<>", "x"};
constexpr std::string_view kQueries[] = {"",         "?",         "?a=1&&b",   "?=x",
                                         "?q=a%2Bb", "?a=1?b=2/", "?%C3%A9=1", "?a+b=c+d"};
constexpr std::string_view kOddQueries[] = {"?a=%zz", "?a=\xFF", "?x=[1]", "?a={}|", "?a=\t"};
constexpr std::string_view kFragments[] = {"", "#", "#top", "#/x?y:@", "#%41"};
constexpr std::string_view kOddFragments[] = {"#a#b", "#%", "#\xC3", "#a b"};

const std::string_view& pick(Rng& rng, Pieces pieces) {
  return rng.chance(20) ? rng.pick(pieces.odd) : rng.pick(pieces.valid);
}

std::string generated(Rng& rng) {
  std::string out(pick(rng, {kSchemes, kOddSchemes}));
  if (rng.chance(80)) {
    out += "//";
    if (rng.chance(25)) (out += pick(rng, {kUserInfos, kOddUserInfos})) += '@';
    out += pick(rng, {kHosts, kOddHosts});
    out += pick(rng, {kPorts, kOddPorts});
  }
  out += pick(rng, {kPaths, kOddPaths});
  out += pick(rng, {kQueries, kOddQueries});
  out += pick(rng, {kFragments, kOddFragments});
  return out;
}

constexpr std::string_view kInsertions[] = {
    "%", "%2", "%41", "%zz",  "%FF", "@",    ":",        "::",  "[",   "]", "[::1]",
    "/", "//", "?",   "#",    "&",   "=",    "+",        "\\",  "|",   "{", "}",
    "^", "`",  " ",   "\x7F", "\t",  "\xC3", "\xC3\xA9", "0",   "9",   "a", "Z",
    ".", "-",  "~",   "'",    "\"",  "<",    ">",        ":80", "u:p@"};

std::string mutated(std::string text, Rng& rng) {
  const std::size_t edits = 1 + rng.below(3);
  for (std::size_t e = 0; e < edits; ++e) {
    const std::size_t at = rng.below(text.size() + 1);
    switch (rng.below(3)) {
      case 0:
        text.insert(at, rng.pick(Pool(kInsertions)));
        break;
      case 1:
        text.erase(at, 1 + rng.below(4));
        break;
      default:
        if (at < text.size()) text.replace(at, 1, rng.pick(Pool(kInsertions)));
        break;
    }
  }
  return text;
}

std::vector<std::string> corpusLines() {
  const auto text = linkwash::testing::readFixture(linkwash::testing::sharedDir() / "corpus" /
                                                   "real_urls_kasztp.txt");
  if (!text) return {};
  std::vector<std::string> lines;
  for (std::string_view line : split(*text, '\n')) {
    if (!line.empty()) lines.emplace_back(line);
  }
  return lines;
}

TEST(URLComponentsBoostTest, AgreesWithBoostOnTheRealLinkCorpus) {
  const auto lines = corpusLines();
  if (lines.empty()) GTEST_SKIP() << "the shared link corpus is absent";
  Tally tally;
  for (const auto& line : lines) check(line, tally);
  EXPECT_EQ(tally.failures, "");
  EXPECT_EQ(tally.inputs, 48010u);
  EXPECT_GT(tally.bothAccept, 47600u);
}

TEST(URLComponentsBoostTest, AgreesWithBoostOnGeneratedLinks) {
  Rng rng{std::mt19937_64(20240611)};
  Tally tally;
  for (int i = 0; i < 20000; ++i) check(generated(rng), tally);
  EXPECT_EQ(tally.failures, "");
  // Enough of each kind that the comparison means something.
  EXPECT_GT(tally.bothAccept, 1000u);
  EXPECT_GT(tally.onlyOurs, 1000u);
  EXPECT_GT(tally.documented, 10u);
}

TEST(URLComponentsBoostTest, AgreesWithBoostOnMutatedLinks) {
  Rng rng{std::mt19937_64(7)};
  std::vector<std::string> seeds = corpusLines();
  if (seeds.size() > 2000) seeds.resize(2000);
  for (int i = 0; i < 500; ++i) seeds.push_back(generated(rng));
  Tally tally;
  for (int i = 0; i < 30000; ++i) check(mutated(seeds[rng.below(seeds.size())], rng), tally);
  EXPECT_EQ(tally.failures, "");
  EXPECT_GT(tally.bothAccept, 1000u);
  EXPECT_GT(tally.onlyOurs, 1000u);
}

}  // namespace
}  // namespace linkwash
