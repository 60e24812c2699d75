// linkwash-host end to end: the real executable spoken to through its stdin/stdout framing, with
// preferences in a temporary home. Framing limits and damaged input are covered in process by the
// native-messaging tests; here only what needs real processes.
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/json/json_writer.h"
#include "tests/support/test_support.h"

extern char** environ;

namespace linkwash {
namespace {

namespace fs = std::filesystem;

constexpr int kReplyTimeoutMs = 60'000;

std::string frame(std::string_view body) {
  const auto length = static_cast<std::uint32_t>(body.size());
  std::string framed(4, '\0');
  std::memcpy(framed.data(), &length, 4);
  return framed.append(body);
}

// One running host. Standard error goes to a file so that it can never block the host.
class HostProcess {
 public:
  explicit HostProcess(const testing::TempHome& home)
      : errorFile_(home.path() / ("host-stderr-" + std::to_string(++count_))) {
    std::signal(SIGPIPE, SIG_IGN);  // a host that died must fail a write, not end the test
    int in[2];
    int out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) return;
    const std::string binary = (testing::binDir() / "linkwash-host").string();
    std::vector<char*> argv{const_cast<char*>(binary.c_str()), nullptr};

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, errorFile_.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    if (posix_spawn(&pid_, binary.c_str(), &actions, nullptr, argv.data(), environ) != 0) {
      pid_ = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    input_ = in[1];
    output_ = out[0];
  }

  ~HostProcess() { finish(); }
  HostProcess(const HostProcess&) = delete;
  HostProcess& operator=(const HostProcess&) = delete;

  bool running() const { return pid_ > 0; }

  bool write(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t n = ::write(input_, bytes.data(), bytes.size());
      if (n <= 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
  }
  bool send(std::string_view body) { return write(frame(body)); }

  // The next reply, or nothing when the host ended its output (or took too long).
  std::optional<Json> receive() {
    std::string header;
    if (!readExactly(4, header)) return std::nullopt;
    std::uint32_t length;
    std::memcpy(&length, header.data(), 4);
    std::string body;
    if (!readExactly(length, body)) return std::nullopt;
    return parseJson(body);
  }

  Json ask(const Json& message) {
    send(message.dump());
    return receive().value_or(Json("no reply"));
  }

  // Closes the host's input and collects its exit code and anything it still wrote.
  int finish() {
    if (input_ >= 0) ::close(input_);
    input_ = -1;
    if (output_ >= 0) {
      char buffer[4096];
      ssize_t n;
      while ((n = ::read(output_, buffer, sizeof buffer)) > 0) unread_.append(buffer, n);
      ::close(output_);
      output_ = -1;
    }
    if (pid_ > 0) {
      int status = 0;
      ::waitpid(pid_, &status, 0);
      exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      pid_ = -1;
    }
    return exitCode_;
  }

  // What the host wrote after the last reply that was received.
  const std::string& unread() const { return unread_; }
  std::string errors() const { return testing::readFixture(errorFile_).value_or(""); }

 private:
  bool readExactly(std::size_t size, std::string& into) {
    into.clear();
    while (into.size() < size) {
      pollfd ready{output_, POLLIN, 0};
      if (::poll(&ready, 1, kReplyTimeoutMs) != 1) return false;
      char buffer[4096];
      const ssize_t n = ::read(output_, buffer, std::min(sizeof buffer, size - into.size()));
      if (n <= 0) return false;
      into.append(buffer, n);
    }
    return true;
  }

  static inline int count_ = 0;
  fs::path errorFile_;
  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  int exitCode_ = -1;
  std::string unread_;
};

TEST(LinkwashHostTest, AnswersEveryMessageOfOneProcessAndExitsAtEndOfInput) {
  testing::TempHome home;
  HostProcess host(home);
  ASSERT_TRUE(host.running());

  const Json cleaned = host.ask(
      {{"action", "cleanURL"}, {"url", "https://www.amazon.com/dp/B01?tag=x&utm_source=y"}});
  EXPECT_EQ(cleaned["cleanedURL"], "https://www.amazon.com/dp/B01");
  // The process keeps its last clean between messages.
  EXPECT_EQ(host.ask({{"action", "getLastClean"}, {"host", "amazon.com"}})["available"], true);

  const Json report =
      host.ask({{"action", "buildMissedReport"}, {"originalURL", "https://a.example/"}});
  EXPECT_EQ(report["subject"].get<std::string>().rfind("[Missed Tracker] a.example - Linux - v", 0),
            0u);
  EXPECT_EQ(host.ask({{"action", "applyLastClean"}})["applied"], true);

  EXPECT_EQ(host.finish(), 0);
  EXPECT_EQ(host.unread(), "");
}

// Browsers start the host with their own arguments; only a lone --version is a request.
TEST(LinkwashHostTest, ServesWhateverArgumentsBrowsersPassAndAnswersALoneVersion) {
  testing::TempHome home;
  const fs::path host = testing::binDir() / "linkwash-host";
  const std::string request = frame(R"({"action":"recordStat"})");
  const std::vector<std::vector<std::string>> browserArguments{
      {"chrome-extension://dldldimlamkgipjkanckoilidmncnoje/"},
      {"chrome-extension://dldldimlamkgipjkanckoilidmncnoje/", "--parent-window=0"},
      {"/home/u/.mozilla/native-messaging-hosts/com.morvellabs.linkwash.json",
       "linkwash@morvellabs.com"},
      {"--version", "linkwash@morvellabs.com"}};
  for (const auto& arguments : browserArguments) {
    const auto run = testing::runProgram(host, arguments, home.path(), request);
    EXPECT_EQ(run.exitCode, 0) << arguments.front();
    EXPECT_EQ(run.out, frame(R"({"recorded":true})")) << arguments.front();
  }
  const auto version = testing::runProgram(host, {"--version"}, home.path(), request);
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_EQ(version.out.rfind("linkwash-host 1.", 0), 0u) << version.out;
}

TEST(LinkwashHostTest, TwoHostsShareSiteSwitches) {
  testing::TempHome home;
  HostProcess first(home);
  HostProcess second(home);
  const Json isDisabled = {{"action", "isDomainDisabled"}, {"host", "example.org"}};
  // The second host has read the list before the first one changes it.
  EXPECT_EQ(second.ask(isDisabled)["disabled"], false);

  EXPECT_EQ(first.ask({{"action", "setDomainDisabled"},
                       {"url", "https://www.example.org/a"},
                       {"disabled", true}})["ok"],
            true);
  EXPECT_EQ(second.ask(isDisabled)["disabled"], true);
  EXPECT_EQ(second.ask({{"action", "cleanURL"}, {"url", "https://example.org/?utm_source=x"}}),
            (Json{{"cleaned", false}, {"skippedDisabled", true}, {"host", "example.org"}}));

  EXPECT_EQ(
      second.ask(
          {{"action", "setDomainDisabled"}, {"host", "example.org"}, {"disabled", false}})["ok"],
      true);
  EXPECT_EQ(first.ask(isDisabled)["disabled"], false);
  EXPECT_EQ(first.finish(), 0);
  EXPECT_EQ(second.finish(), 0);
}

TEST(LinkwashHostTest, RuleLoadingWarningsGoToStandardError) {
  testing::TempHome home;
  // A bundle without rule files: the engine warns and cleans nothing.
  const fs::path resources = home.path() / "resources";
  fs::create_directories(resources / "Linkwash_LinkwashCore.bundle");
  const testing::ScopedEnvironment bundle("LINKWASH_RESOURCES", resources.string());
  HostProcess host(home);
  EXPECT_EQ(host.ask({{"action", "cleanURL"}, {"url", "https://a.example/?utm_source=x"}}),
            (Json{{"cleaned", false}}));
  EXPECT_EQ(host.finish(), 0);
  EXPECT_EQ(host.unread(), "");
  EXPECT_NE(host.errors().find("Warning: Could not load bundled rules"), std::string::npos);
}

}  // namespace
}  // namespace linkwash
