// Settings survive whatever happens around them: processes changing them at once, bytes that are
// not text, a preferences folder that cannot be written, a full disk or a full output, a umask
// that would share them. Runs the real `linkwash` and `linkwash-host`.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "base/strings.h"
#include "platform/json/json_writer.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

namespace fs = std::filesystem;
using testing::RunResult;

class SettingsCliTest : public ::testing::Test {
 protected:
  SettingsCliTest() { fs::create_directories(scratch_); }
  RunResult run(std::vector<std::string> arguments, const std::string& input = "") {
    return testing::runProgram(linkwash_, arguments, scratch_, input);
  }
  // Runs `linkwash` (or `program`) under a shell prefix such as "umask 000" or "ulimit -f 1".
  RunResult runUnder(const std::string& prefix, std::vector<std::string> arguments,
                     const std::string& input = "", fs::path program = {}) {
    arguments.insert(arguments.begin(), {"-c", prefix + "; exec \"$0\" \"$@\"",
                                         (program.empty() ? linkwash_ : program).string()});
    return testing::runProgram("/bin/sh", arguments, scratch_, input);
  }
  testing::TempHome home_;
  fs::path scratch_ = home_.path() / "test-output";
  fs::path linkwash_ = testing::binDir() / "linkwash";
};

TEST_F(SettingsCliTest, ConcurrentChangesAreAllKept) {
  ASSERT_EQ(run({"sites", "list"}).exitCode, 0);  // the database exists before the race
  std::vector<int> pids;
  const fs::path empty = scratch_ / "empty";
  std::ofstream(empty).close();
  for (int i = 0; i < 10; ++i) {
    const fs::path dir = scratch_ / std::to_string(i);
    fs::create_directories(dir / "a");
    fs::create_directories(dir / "b");
    const std::string n = std::to_string(i);
    pids.push_back(testing::startProgram(linkwash_, {"sites", "disable", "s" + n + ".example"},
                                         empty, dir / "a"));
    pids.push_back(
        testing::startProgram(linkwash_, {"rules", "add-custom", "p" + n}, empty, dir / "b"));
  }
  for (std::size_t i = 0; i < pids.size(); ++i) {
    const fs::path dir = scratch_ / std::to_string(i / 2) / (i % 2 ? "b" : "a");
    EXPECT_EQ(testing::finishProgram(pids[i], dir).exitCode, 0);
  }
  const std::string sites = run({"sites", "list"}).out;
  const std::string rules = run({"rules", "list", "--category", "Custom"}).out;
  for (int i = 0; i < 10; ++i) {
    EXPECT_NE(sites.find("s" + std::to_string(i) + ".example\n"), std::string::npos) << sites;
    EXPECT_NE(rules.find("Custom:p" + std::to_string(i) + " "), std::string::npos) << rules;
  }
}

TEST_F(SettingsCliTest, TextThatIsNotUtf8IsRefusedAndNothingIsLost) {
  ASSERT_EQ(run({"sites", "disable", "kept.example"}).exitCode, 0);
  ASSERT_EQ(run({"rules", "add-custom", "kept"}).exitCode, 0);
  const std::vector<std::vector<std::string>> refused = {
      {"rules", "add-custom", "bad\xff"},
      {"rules", "add-custom", "fine", "--name", "n\xe9"},
      {"sites", "disable",
       "b\xff"
       "ad.example"},
      {"report", "https://a.example/?trk=1", "--note", "\xc3"},
  };
  for (const auto& arguments : refused) {
    auto result = run(arguments);
    EXPECT_NE(result.exitCode, 0) << arguments[2];
    EXPECT_NE(result.err.find("not valid UTF-8"), std::string::npos) << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  }
  EXPECT_EQ(run({"sites", "list"}).out, "kept.example\n");
  EXPECT_NE(run({"rules", "list", "--category", "Custom"}).out.find("Custom:kept "),
            std::string::npos);
}

TEST_F(SettingsCliTest, StreamsKeepLineEndingsBytesAndValidJson) {
  const std::string input =
      "https://a.example/?utm_source=x&q=C%2B%2B\r\nhttps://b.example/\xff?utm_source=x\n"
      "\x01\x02\xfe\r\nhttps://c.example/plain\r\n";
  EXPECT_EQ(run({"clean"}, input).out,
            "https://a.example/?q=C%2B%2B\r\nhttps://b.example/\xff?utm_source=x\n"
            "\x01\x02\xfe\r\nhttps://c.example/plain\r\n");
  auto json = run({"clean", "--json"}, input);
  EXPECT_EQ(json.exitCode, 0);
  EXPECT_TRUE(isValidUtf8(json.out));
  for (auto line : split(json.out, '\n')) {
    if (endsWith(line, "\r")) line.remove_suffix(1);
    if (!line.empty()) {
      EXPECT_TRUE(parseJson(line)) << line;
    }
  }
}

TEST_F(SettingsCliTest, ReadOnlyPreferencesFailChangesButStillClean) {
  std::ofstream(home_.path() / "prefs") << "not a folder";
  for (const std::vector<std::string>& change :
       {std::vector<std::string>{"sites", "disable", "a.example"},
        {"rules", "add-custom", "x"},
        {"rules", "disable", "Analytics"},
        {"defaults", "write", "k", "-bool", "YES"}}) {
    auto result = run(change);
    EXPECT_NE(result.exitCode, 0) << change[1];
    EXPECT_NE(result.err.find("cannot"), std::string::npos) << result.err;
  }
  auto clean = run({"clean", "https://a.example/?utm_source=x", "https://b.example/?fbclid=1"});
  EXPECT_EQ(clean.exitCode, 0);
  EXPECT_EQ(clean.out, "https://a.example/\nhttps://b.example/\n");
  EXPECT_EQ(std::count(clean.err.begin(), clean.err.end(), '\n'), 1) << clean.err;
  EXPECT_NE(clean.err.find("will not be saved"), std::string::npos) << clean.err;
}

TEST_F(SettingsCliTest, EveryWriteErrorIsReported) {
  const std::string full = "exec >/dev/full";
  for (const auto& [arguments, input] :
       std::vector<std::pair<std::vector<std::string>, std::string>>{
           {{"clean", "https://a.example/?utm_source=x"}, ""},
           {{"clean", "--json"}, "https://a.example/?utm_source=x\n"},
           {{"rules", "export", "-"}, ""},
           {{"sites", "list"}, ""}}) {
    ASSERT_EQ(run({"sites", "disable", "listed.example"}).exitCode, 0);
    auto result = runUnder(full, arguments, input);
    EXPECT_NE(result.exitCode, 0) << arguments[0] << " " << arguments[1];
    EXPECT_NE(result.err.find("cannot write"), std::string::npos) << result.err;
  }
  auto missing = run({"rules", "export", (scratch_ / "no/such/dir/x.json").string()});
  EXPECT_NE(missing.exitCode, 0);
  EXPECT_FALSE(fs::exists(scratch_ / "no"));

  // A disk with no room left: the setting is reported as not saved, and is not saved.
  const std::string diskFull = "trap '' XFSZ; ulimit -f 1";
  auto disable = runUnder(diskFull, {"sites", "disable", "full.example"});
  EXPECT_NE(disable.exitCode, 0);
  EXPECT_EQ(run({"sites", "list"}).out, "listed.example\n");
  const std::string message =
      R"({"action":"setDomainDisabled","host":"full.example","disabled":true})";
  std::string framed(4, '\0');
  const auto length = static_cast<std::uint32_t>(message.size());
  std::memcpy(framed.data(), &length, 4);
  auto host = runUnder(diskFull, {}, framed + message, testing::binDir() / "linkwash-host");
  ASSERT_GT(host.out.size(), 4u) << host.err;
  auto reply = parseJson(std::string_view(host.out).substr(4));
  ASSERT_TRUE(reply) << host.out;
  EXPECT_EQ((*reply)["ok"], false);
  EXPECT_TRUE(reply->contains("error"));
  EXPECT_EQ(run({"sites", "list"}).out, "listed.example\n");
}

TEST_F(SettingsCliTest, PrivateFilesWhateverTheUmask) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"sites", "disable", "a.example"},
        {"rules", "add-custom", "x"},
        {"clean", "https://a.example/?utm_source=x"},
        {"redirect", "reddit", "on"}}) {
    ASSERT_EQ(runUnder("umask 000", arguments).exitCode, 0) << arguments[0];
  }
  int checked = 0;
  for (auto it = fs::recursive_directory_iterator(home_.path()); it != fs::end(it); ++it) {
    const fs::directory_entry& entry = *it;
    if (entry.path() == scratch_) {
      it.disable_recursion_pending();
      continue;
    }
    struct stat info {};
    ASSERT_EQ(::lstat(entry.path().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 077, 0u) << entry.path() << " has mode " << std::oct << info.st_mode;
    ++checked;
  }
  EXPECT_GT(checked, 2);
}

}  // namespace
}  // namespace linkwash
