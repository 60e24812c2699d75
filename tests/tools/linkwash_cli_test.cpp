// `linkwash clean`, `sites`, `report` and `rules` end to end: the real executable with the
// shipped rules, preferences in a temporary home.
#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "core/rules/rules_engine.h"
#include "platform/json/json_writer.h"
#include "platform/prefs/preference_store.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

using testing::RunResult;

class LinkwashCliTest : public ::testing::Test {
 protected:
  RunResult run(std::vector<std::string> arguments, const std::string& input = "") {
    return testing::runProgram(testing::binDir() / "linkwash", arguments, home_.path(), input);
  }
  testing::TempHome home_;
};

TEST_F(LinkwashCliTest, CleansArgumentsAndStreamsStandardInputLineForLine) {
  auto args = run({"clean", "https://example.com/?utm_source=x&id=1", "not a link"});
  EXPECT_EQ(args.exitCode, 0) << args.err;
  EXPECT_EQ(args.out, "https://example.com/?id=1\nnot a link\n");

  // Lines that are not cleaned come back exactly as they came, blanks and all.
  const std::string input =
      "https://a.example/?fbclid=1&x=2\n\n  https://b.example/?gclid=1  \nftp://c.example/\r\n"
      "https://d.example/plain\nhttps://e.example/?utm_medium=m";
  auto stream = run({"clean"}, input);
  EXPECT_EQ(stream.exitCode, 0) << stream.err;
  EXPECT_EQ(stream.out,
            "https://a.example/?x=2\n\nhttps://b.example/\nftp://c.example/\r\n"
            "https://d.example/plain\nhttps://e.example/\n");
  EXPECT_EQ(stream.err, "");
}

TEST_F(LinkwashCliTest, JsonAndExplainDescribeEachOutcome) {
  auto json = run({"clean", "--json", "https://example.com/?utm_source=x", "https://a.example/"});
  ASSERT_EQ(json.exitCode, 0) << json.err;
  const auto lines = split(json.out, '\n');
  ASSERT_EQ(lines.size(), 3u);
  auto first = parseJson(lines[0]);
  ASSERT_TRUE(first);
  EXPECT_EQ((*first)["cleanedURL"], "https://example.com/");
  EXPECT_EQ((*first)["removedQueryParameters"][0], "utm_source");
  EXPECT_EQ(parseJson(lines[1])->dump(), R"({"outcome":"unchanged","url":"https://a.example/"})");

  auto explain =
      run({"clean", "--explain",
           "https://www.google.com/url?q=https%3A%2F%2Fexample.com%2F%3Futm_source%3Dx"});
  EXPECT_NE(explain.out.find("offline_wrapper_unwrap"), std::string::npos) << explain.out;
  EXPECT_NE(explain.out.find("-> https://example.com/"), std::string::npos) << explain.out;
  EXPECT_NE(explain.out.find("Analytics:utm_*"), std::string::npos) << explain.out;
}

TEST_F(LinkwashCliTest, CleansWithAnotherRuleFileForOneRun) {
  const auto rules = home_.path() / "rules.json";
  std::ofstream(rules) << R"({"providers": {"all": {"urlPattern": ".*", "rules": ["session"]}}})";
  auto custom = run({"clean", "--rules", rules.string(), "https://a.example/?session=1&k=2"});
  EXPECT_EQ(custom.out, "https://a.example/?k=2\n") << custom.err;
  auto normal = run({"clean", "https://a.example/?session=1&k=2"});
  EXPECT_EQ(normal.out, "https://a.example/?session=1&k=2\n");

  std::ofstream(rules) << "{ not json";
  auto broken = run({"clean", "--rules", rules.string(), "https://a.example/"});
  EXPECT_EQ(broken.exitCode, 1);
  EXPECT_EQ(broken.out, "");
  EXPECT_NE(broken.err.find("is not a provider file"), std::string::npos) << broken.err;
}

TEST_F(LinkwashCliTest, SwitchedOffSitesAreLeftAloneEverywhere) {
  EXPECT_EQ(run({"sites", "disable", "https://www.example.com/page"}).out,
            "cleaning is off for example.com\n");
  EXPECT_EQ(run({"sites", "list"}).out, "example.com\n");
  EXPECT_EQ(run({"clean", "https://example.com/?utm_source=x"}).out,
            "https://example.com/?utm_source=x\n");
  EXPECT_EQ(run({"sites", "enable", "EXAMPLE.com"}).exitCode, 0);
  EXPECT_EQ(run({"clean", "https://example.com/?utm_source=x"}).out, "https://example.com/\n");
  auto bad = run({"sites", "disable", "not a host/x"});
  EXPECT_EQ(bad.exitCode, 1);
  EXPECT_NE(bad.err.find("neither a host name"), std::string::npos);
}

TEST_F(LinkwashCliTest, StreamingSavesMatchCountsEvenWhenStopped) {
  // A stream that never ends: the tool must save its counts when told to stop.
  const auto fifo = home_.path() / "links.fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  // Our end is open before the child starts, so its open of the pipe does not wait for us.
  const int writer = ::open(fifo.c_str(), O_RDWR);
  ASSERT_GE(writer, 0);
  const int pid =
      testing::startProgram(testing::binDir() / "linkwash", {"clean"}, fifo, home_.path());
  ASSERT_GT(pid, 0);
  std::string lines;
  for (int i = 0; i < 500; ++i)
    lines += "https://example.com/" + std::to_string(i) + "?utm_source=x\n";
  ASSERT_EQ(::write(writer, lines.data(), lines.size()), static_cast<ssize_t>(lines.size()));
  // Wait until every line was answered (the output is block-buffered, so wait for the reader to
  // drain the pipe and block), then interrupt the blocked read.
  for (int tries = 0; tries < 250; ++tries) {
    int pending = 0;
    if (::ioctl(writer, FIONREAD, &pending) == 0 && pending == 0) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  ::kill(pid, SIGTERM);
  auto result = testing::finishProgram(pid, home_.path());
  ::close(writer);
  EXPECT_EQ(result.exitCode, 128 + SIGTERM);
  EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 500);

  RulesEngine engine(PreferenceStore::standard());
  engine.loadBundledRules();
  EXPECT_EQ(engine.category(RuleCategoryType::analytics)->matchCount, 500);
}

TEST_F(LinkwashCliTest, ParallelStreamKeepsInputOrderAndEveryCount) {
  // Enough lines for many blocks, so the workers finish them out of order.
  std::string input;
  for (int i = 0; i < 6000; ++i) {
    const std::string n = std::to_string(i);
    input += i % 3 == 0   ? "https://example.com/" + n + "?utm_source=x&k=" + n + "\n"
             : i % 3 == 1 ? "https://example.com/plain/" + n + "\n"
                          : "not a link " + n + "\n";
  }
  auto one = run({"clean", "--jobs", "1"}, input);
  auto three = run({"clean", "--jobs", "3"}, input);
  EXPECT_EQ(one.exitCode, 0) << one.err;
  EXPECT_EQ(three.exitCode, 0) << three.err;
  EXPECT_EQ(std::count(one.out.begin(), one.out.end(), '\n'), 6000);
  EXPECT_EQ(three.out, one.out);
  RulesEngine engine(PreferenceStore::standard());
  engine.loadBundledRules();
  EXPECT_EQ(engine.category(RuleCategoryType::analytics)->matchCount, 2 * 2000);
}

TEST_F(LinkwashCliTest, ReportPrintsTheReportOrItsMailtoLink) {
  auto report = run({"report", "https://shop.example/item?trk=abc", "--note", "trk tracks"});
  ASSERT_EQ(report.exitCode, 0) << report.err;
  EXPECT_NE(report.out.find("Subject: [Missed Tracker] shop.example - Linux - v"),
            std::string::npos)
      << report.out;
  EXPECT_NE(report.out.find("User note:\ntrk tracks\n"), std::string::npos);
  EXPECT_NE(report.out.find("--- machine-readable (do not edit) ---"), std::string::npos);

  auto mailto = run({"report", "https://shop.example/item?trk=abc", "--mailto"});
  EXPECT_EQ(mailto.out.rfind("mailto:", 0), 0u) << mailto.out;
  EXPECT_NE(mailto.out.find("subject=%5BMissed%20Tracker%5D"), std::string::npos) << mailto.out;
}

TEST_F(LinkwashCliTest, RuleCommandsChangeWhatCleanDoes) {
  EXPECT_EQ(run({"rules", "disable", "Analytics"}).exitCode, 0);
  EXPECT_EQ(run({"clean", "https://a.example/?utm_source=x"}).out,
            "https://a.example/?utm_source=x\n");
  EXPECT_EQ(run({"rules", "enable", "Analytics"}).exitCode, 0);
  EXPECT_EQ(run({"rules", "add-custom", "campaign_ref"}).out, "added Custom:campaign_ref\n");
  EXPECT_EQ(run({"clean", "https://a.example/?CAMPAIGN_REF=1&k=v"}).out,
            "https://a.example/?k=v\n");

  const auto exported = home_.path() / "catalog.json";
  ASSERT_EQ(run({"rules", "export", exported.string()}).exitCode, 0);
  EXPECT_EQ(run({"rules", "reset"}).exitCode, 0);
  EXPECT_EQ(run({"clean", "https://a.example/?campaign_ref=1"}).out,
            "https://a.example/?campaign_ref=1\n");
  EXPECT_EQ(run({"rules", "import", exported.string()}).exitCode, 0);
  EXPECT_EQ(run({"clean", "https://a.example/?campaign_ref=1"}).out, "https://a.example/\n");

  auto list = run({"rules", "list", "--json"});
  EXPECT_TRUE(parseJson(list.out)) << list.err;
  for (const auto& bad : std::vector<std::vector<std::string>>{
           {"rules", "disable", "No Such Rule"},
           {"rules", "remove-custom", "Custom:never-added"},
           {"rules", "import", (home_.path() / "missing.json").string()},
           {"rules", "add-custom", "x", "--category", "Nope"},
           {"rules", "validate", exported.string()}}) {
    auto result = run(bad);
    EXPECT_EQ(result.exitCode, 1) << bad[1] << " " << bad[2];
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  }
}

}  // namespace
}  // namespace linkwash
