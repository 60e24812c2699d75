// Finding and replacing links inside text.
#include "core/cleaning/text_url_block.h"

#include <gtest/gtest.h>

namespace linkwash {
namespace {

TEST(TextURLBlockTest, FindsWebLinksConservatively) {
  struct Case {
    std::string text;
    std::vector<std::string> urls;
  };
  const Case cases[] = {
      {"See https://a.com/x.", {"https://a.com/x"}},
      {"(https://en.wikipedia.org/wiki/Foo_(bar))", {"https://en.wikipedia.org/wiki/Foo_(bar)"}},
      {"[link](https://a.com/p?q=1)!", {"https://a.com/p?q=1"}},
      {"<a href=\"https://a.com/?x=1\">t</a>", {"https://a.com/?x=1"}},
      {"HTTPS://A.COM/x and http://b.org", {"HTTPS://A.COM/x", "http://b.org"}},
      {"ftp://a.com/file and mailto:x@y.z", {}},
      {"https://user@a.com/ https://u:p@a.com/", {}},
      {"https://a.com/\\x", {}},
      {"https:// nothing", {}},
      // Two schemes in one candidate refuse it; the inner link is then examined on its own.
      {"https://a.com/?u=https://b.com", {"https://b.com"}},
      {"x https://a.com/?q=1;", {"https://a.com/?q=1"}},
      {"xhttps://a.com 1+https://b.com a://x https://c.com", {"https://b.com", "https://c.com"}},
      {"tab\thttps://a.com\r\nnext https://b.com/é", {"https://a.com", "https://b.com/é"}},
  };
  for (const auto& c : cases) {
    auto block = TextURLBlock::make(c.text);
    ASSERT_TRUE(block) << c.text;
    EXPECT_EQ(block->urls(), c.urls) << c.text;
    for (const auto& match : block->matches()) {
      EXPECT_EQ(c.text.substr(match.range.begin, match.range.end - match.range.begin), match.url);
    }
  }
}

TEST(TextURLBlockTest, RefusesLargeTextAndInvisibleOrDirectionCharacters) {
  const std::string link = "https://a.com/?utm_source=x ";
  std::string exact = link + std::string(TextURLBlock::kMaximumBytes - link.size(), 'a');
  EXPECT_TRUE(TextURLBlock::make(exact));
  EXPECT_FALSE(TextURLBlock::make(exact + "a"));
  for (std::string bad :
       {"\u200B", "\u200F", "\u202E", "\u2066", "\u2069", "\x7F", "\x01", "\x1B", "\xFF"}) {
    EXPECT_FALSE(TextURLBlock::make("far away " + bad + " then " + link)) << bad;
    EXPECT_FALSE(ClipboardLink::make(link + bad)) << bad;
  }
  for (std::string fine : {"\u200A", "\u2070", "\u00A0", "\t", "\r\n"}) {
    EXPECT_TRUE(TextURLBlock::make(link + fine)) << fine;
  }
}

TEST(TextURLBlockTest, ReplacesLastToFirstAndKeepsEveryOtherByte) {
  auto block = TextURLBlock::make("a https://x.com/1 b https://y.com/2 c");
  ASSERT_TRUE(block);
  std::vector<std::size_t> order;
  const auto out = block->replacingURLs([&](std::size_t i, std::string_view url) {
    order.push_back(i);
    return "<" + std::string(url) + "-longer-replacement>";
  });
  EXPECT_EQ(out, "a <https://x.com/1-longer-replacement> b <https://y.com/2-longer-replacement> c");
  EXPECT_EQ(order, (std::vector<std::size_t>{1, 0}));

  auto link = ClipboardLink::make("Look: https://a.com/?fbclid=1 and https://b.com");
  ASSERT_TRUE(link);
  EXPECT_EQ(link->url, "https://a.com/?fbclid=1");
  EXPECT_EQ(link->replacingURL("https://a.com/"), "Look: https://a.com/ and https://b.com");
  EXPECT_FALSE(ClipboardLink::make("no links here"));
}

}  // namespace
}  // namespace linkwash
