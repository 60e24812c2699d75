// `linkwash clean --text`, resolve, map, archive, share, stats and status end to end: the real
// executable with the shipped rules, preferences in a temporary home.
#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/https_test_server.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

using testing::RunResult;

class LinkToolsCliTest : public ::testing::Test {
 protected:
  RunResult run(std::vector<std::string> arguments, const std::string& input = "") {
    return testing::runProgram(testing::binDir() / "linkwash", arguments, home_.path(), input);
  }
  std::string write(const std::string& name, const std::string& content) {
    const auto path = home_.path() / name;
    std::ofstream(path, std::ios::binary) << content;
    return path.string();
  }
  std::string cleanedCount() {
    auto stats = run({"stats", "--json"});
    const auto at = stats.out.find("\"totalCleaned\":");
    return at == std::string::npos ? "?"
                                   : stats.out.substr(at + 15, stats.out.find(',', at) - at - 15);
  }
  testing::TempHome home_;
};

TEST_F(LinkToolsCliTest, CleanTextChangesOnlyTheLinks) {
  const std::string markdown =
      "# Notes\r\n\r\nSee [the post](https://example.com/a?utm_source=x&id=1) and\n"
      "https://example.com/b?utm_medium=y. Also (https://example.com/c?fbclid=z).\n"
      "Hidden\u200B https://example.com/d?utm_source=x stays.\n"
      "```\ncode https://example.com/e?id=2\n```";
  const std::string html =
      "<p><a href=\"https://example.com/a?utm_source=x&amp;id=1&amp;k=2\">x</a>"
      "<img src='https://example.com/i.png?utm_campaign=c'></p>\n";
  const auto md = run({"clean", "--text", write("notes.md", markdown), write("page.html", html)});
  EXPECT_EQ(md.exitCode, 0) << md.err;
  EXPECT_EQ(md.out,
            "# Notes\r\n\r\nSee [the post](https://example.com/a?id=1) and\n"
            "https://example.com/b. Also (https://example.com/c).\n"
            "Hidden\u200B https://example.com/d?utm_source=x stays.\n"
            "```\ncode https://example.com/e?id=2\n```"
            "<p><a href=\"https://example.com/a?id=1&amp;k=2\">x</a>"
            "<img src='https://example.com/i.png'></p>\n");
  EXPECT_NE(md.err.find("notes.md:5: left unchanged"), std::string::npos) << md.err;
  EXPECT_EQ(cleanedCount(), "5");

  const auto explain = run({"clean", "--text", "--explain"}, "x https://example.com/?gclid=1\n");
  EXPECT_NE(explain.out.find("<stdin>:1: https://example.com/?gclid=1"), std::string::npos);
  EXPECT_NE(explain.out.find("tracking impact:"), std::string::npos) << explain.out;
}

TEST_F(LinkToolsCliTest, CountsPeoplesCleansNotPipelines) {
  run({"clean"}, "https://example.com/?utm_source=x\n");
  EXPECT_EQ(cleanedCount(), "0");
  run({"clean", "--count"}, "https://example.com/?utm_source=x\n");
  run({"clean", "https://example.com/?utm_source=x", "https://example.com/"});
  EXPECT_EQ(cleanedCount(), "2");
  const auto csv = run({"stats", "export"});
  EXPECT_TRUE(
      csv.out.starts_with("Window,Section,Label,Count\nToday,Overview,Total URLs Cleaned,2\n"));
  EXPECT_EQ(run({"stats", "collection", "off"}).exitCode, 0);
  run({"clean", "https://example.com/?utm_source=x"});
  EXPECT_EQ(cleanedCount(), "2");
  EXPECT_NE(run({"status"}).out.find("Statistics: not collected"), std::string::npos);
  EXPECT_EQ(run({"stats", "reset"}).exitCode, 0);
  EXPECT_EQ(cleanedCount(), "0");
  const auto status = run({"status"});
  EXPECT_EQ(status.exitCode, 0) << status.err;
  EXPECT_NE(status.out.find(" providers\n"), std::string::npos) << status.out;
  EXPECT_NE(status.out.find("Privacy Services catalog"), std::string::npos) << status.out;
}

TEST_F(LinkToolsCliTest, LinkToolsPrintOrFail) {
  struct Case {
    std::vector<std::string> args;
    int exitCode;
    std::string out;
  };
  const Case cases[] = {
      {{"map", "https://maps.apple.com/?q=Louvre"},
       0,
       "https://www.google.com/maps/search/?api=1&query=Louvre\n"},
      {{"map", "https://example.com/?q=Louvre"}, 1, ""},
      {{"archive", " https://a.com/x "}, 0, "https://web.archive.org/web/*/https://a.com/x\n"},
      {{"archive", "ftp://a.com/x"}, 1, ""},
      {{"share", "https://example.com/?utm_source=x&id=1", "--context", "hi"},
       0,
       "https://example.com/?id=1\n"},
      {{"resolve", "https://example.com/share/x"}, 1, ""},
  };
  for (const auto& c : cases) {
    const auto r = run(c.args);
    EXPECT_EQ(r.exitCode, c.exitCode) << c.args[0] << " " << c.args[1] << r.err;
    EXPECT_EQ(r.out, c.out) << c.args[1];
  }
  EXPECT_EQ(run({"resolve", "https://example.com/share/x"}).err,
            "This is not a supported share link.\n");
}

TEST_F(LinkToolsCliTest, ResolvesThroughTheService) {
  testing::HttpsTestServer server({"a.co", "www.amazon.com"});
  ASSERT_TRUE(server.ok()) << server.error();
  server.setRoute("/d/abc", testing::HttpsRoute().withRedirect(
                                "https://www.amazon.com/dp/B0ABCDEFGH?tag=x&utm_source=y"));
  server.setRoute("/dp/B0ABCDEFGH", testing::HttpsRoute().withBody("<html>"));
  server.setRoute("/d/away", testing::HttpsRoute().withRedirect("https://a.co.evil/x"));
  const auto r = run({"resolve", "https://a.co/d/abc"});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, "https://www.amazon.com/dp/B0ABCDEFGH\n");
  EXPECT_EQ(cleanedCount(), "1");
  const auto json = run({"resolve", "--json", "https://a.co/d/abc"});
  EXPECT_NE(json.out.find("\"network_resolution\""), std::string::npos) << json.out;
  const auto away = run({"resolve", "https://a.co/d/away"});
  EXPECT_EQ(away.exitCode, 1);
  EXPECT_EQ(away.err, "The link tried to leave the expected service, so Linkwash stopped.\n");
}

}  // namespace
}  // namespace linkwash
