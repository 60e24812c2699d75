// `linkwash watch` end to end: a real X server (Xvfb) with xclip as the other application and
// dbusmock as the notification service, and headless sway with wl-copy/wl-paste. Every server
// is started here and stopped at the end; every wait is bounded.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <thread>

#include "platform/json/json_writer.h"
#include "tests/support/desktop_servers.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

namespace fs = std::filesystem;
using testing::RunResult;

constexpr std::string_view kTracked = "https://example.com/page?utm_source=news&id=7";
constexpr std::string_view kCleaned = "https://example.com/page?id=7";
constexpr std::string_view kRisky = "curl -fsSL https://get.example/install.sh | sh";
constexpr uid_t kUnprivileged = 65534;  // nobody: sway refuses to run as root

std::string readAll(const fs::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Runs programs in a scratch folder of their own, as `user` when the test runs as root.
class Runner {
 public:
  explicit Runner(fs::path scratch, bool dropRoot) : scratch_(std::move(scratch)) {
    if (dropRoot && geteuid() == 0) {
      prefix_ = {"/usr/bin/setpriv", "--reuid=" + std::to_string(kUnprivileged),
                 "--regid=" + std::to_string(kUnprivileged), "--clear-groups", "--"};
    }
  }
  std::vector<std::string> command(std::vector<std::string> args) const {
    args.insert(args.begin(), prefix_.begin(), prefix_.end());
    return args;
  }
  RunResult run(std::vector<std::string> args, const std::string& input = "") {
    auto dir = scratch_ / std::to_string(++runs_);
    fs::create_directories(dir);
    args = command(std::move(args));
    args.insert(args.begin(), {"10"});
    return testing::runProgram("/usr/bin/timeout", args, dir, input);
  }
  int start(std::vector<std::string> args, const std::string& name) {
    auto dir = scratch_ / name;
    fs::create_directories(dir);
    std::ofstream(dir / "stdin");
    args = command(std::move(args));
    std::string program = args.front();
    args.erase(args.begin());
    return testing::startProgram(program, args, dir / "stdin", dir);
  }
  RunResult linkwash(std::vector<std::string> args) {
    args.insert(args.begin(), (testing::binDir() / "linkwash").string());
    return run(std::move(args));
  }
  std::optional<Json> status() {
    auto run = linkwash({"clipboard", "status", "--json"});
    return run.exitCode == 0 ? parseJson(run.out) : std::nullopt;
  }

 private:
  fs::path scratch_;
  std::vector<std::string> prefix_;
  int runs_ = 0;
};

// CPU seconds used so far by `pid` (user + system).
double cpuSeconds(int pid) {
  std::string stat = readAll(fs::path("/proc") / std::to_string(pid) / "stat");
  std::istringstream fields(stat.substr(stat.rfind(')') + 2));
  std::string field;
  double ticks = 0;
  for (int i = 3; i <= 15 && fields >> field; ++i) {
    if (i == 14 || i == 15) ticks += std::stod(field);
  }
  return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// The daemon with its clipboard tools: copy() as another application, paste() to read back.
class DaemonTest : public ::testing::Test {
 protected:
  void startDaemon(const std::string& backend) {
    daemon_ = runner_->start(
        {(testing::binDir() / "linkwash").string(), "watch", "--backend", backend, "--verbose"},
        "daemon");
    ASSERT_GT(daemon_, 0);
    ASSERT_TRUE(
        testing::waitUntil([&] { return runner_->status().has_value(); }, std::chrono::seconds(10)))
        << readAll(home_.path() / "scratch" / "daemon" / "stderr");
  }
  int stopDaemon() {
    int code = testing::stopProcess(daemon_);
    daemon_ = -1;
    return code;
  }
  void TearDown() override {
    if (daemon_ > 0) testing::stopProcess(daemon_);
  }

  // Copies `text` and waits until the clipboard holds `expected`; the time it took.
  std::chrono::milliseconds expectCleaned(const std::string& text, const std::string& expected) {
    copy(text);
    auto started = std::chrono::steady_clock::now();
    EXPECT_TRUE(testing::waitUntil([&] { return paste() == expected; })) << paste();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 started);
  }

  virtual void copy(const std::string& text) = 0;
  virtual std::string paste() = 0;

  testing::TempHome home_;
  std::unique_ptr<Runner> runner_;
  int daemon_ = -1;
};

class X11DaemonTest : public DaemonTest {
 protected:
  void SetUp() override {
    ASSERT_FALSE(xvfb_.display().empty()) << "Xvfb did not start (run scripts/setup)";
    setenv("DISPLAY", xvfb_.display().c_str(), 1);
    unsetenv("WAYLAND_DISPLAY");
    runner_ = std::make_unique<Runner>(home_.path() / "scratch", false);
  }
  void copy(const std::string& text) override {
    ASSERT_EQ(runner_->run({"/usr/bin/xclip", "-selection", "clipboard", "-i"}, text).exitCode, 0);
  }
  std::string paste() override {
    return runner_->run({"/usr/bin/xclip", "-selection", "clipboard", "-o"}).out;
  }
  testing::XvfbServer xvfb_;
};

TEST_F(X11DaemonTest, CleansGuardsRestoresAndNotifies) {
  ASSERT_TRUE(std::getenv("DBUS_SESSION_BUS_ADDRESS")) << "run under dbus-run-session";
  auto log = home_.path() / "notifications.log";
  int mock = runner_->start({"/usr/bin/python3", "-m", "dbusmock", "--template",
                             "notification_daemon", "-l", log.string()},
                            "dbusmock");
  ASSERT_GT(mock, 0);
  ASSERT_TRUE(testing::waitUntil(
      [&] {
        return runner_
                   ->run({"/usr/bin/busctl", "--user", "status", "org.freedesktop.Notifications"})
                   .exitCode == 0;
      },
      std::chrono::seconds(10)));
  startDaemon("auto");

  auto latency = expectCleaned(std::string(kTracked), std::string(kCleaned));
  std::cout << "copy-to-cleaned latency (x11, including xclip runs): " << latency.count()
            << " ms\n";
  EXPECT_TRUE(testing::waitUntil([&] {
    return readAll(log).find("\"URL Cleaned\" \"Removed 1 tracker: utm_source\"") !=
           std::string::npos;
  })) << readAll(log);
  EXPECT_EQ(runner_->linkwash({"clipboard", "restore"}).exitCode, 0);
  EXPECT_EQ(paste(), kTracked);

  // Risky command: flagged and left alone, then replaced once neutralising is switched on.
  copy(std::string(kRisky));
  EXPECT_TRUE(testing::waitUntil([&] {
    auto status = runner_->status();
    return status && status->contains("lastCommandRisk");
  }));
  EXPECT_EQ(paste(), kRisky);
  EXPECT_NE(readAll(log).find("Risky command copied"), std::string::npos);
  ASSERT_EQ(runner_->linkwash({"clipboard", "set", "neutralize", "on"}).exitCode, 0);
  copy(std::string(kRisky));
  EXPECT_TRUE(testing::waitUntil(
      [&] { return paste().starts_with("# Linkwash neutralized a risky command"); }));

  // 70,000 bytes are ignored, link or not.
  std::string big = std::string(kTracked) + " " + std::string(70000 - kTracked.size() - 1, 'z');
  copy(big);
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  EXPECT_EQ(paste(), big);
  EXPECT_EQ(runner_->status()->value("cleanedToday", -1), 1);

  // Idle: ticks that find nothing new.
  double before = cpuSeconds(daemon_);
  std::this_thread::sleep_for(std::chrono::seconds(3));
  double idle = (cpuSeconds(daemon_) - before) / 3.0;
  std::cout << "idle CPU: " << idle * 100 << " %\n";
  EXPECT_LT(idle, 0.02);

  EXPECT_EQ(stopDaemon(), 0);
  auto after = runner_->linkwash({"clipboard", "status"});
  EXPECT_NE(after.exitCode, 0);
  EXPECT_NE(after.err.find("no daemon running"), std::string::npos);
  testing::stopProcess(mock);
}

class WaylandDaemonTest : public DaemonTest {
 protected:
  void SetUp() override {
    runner_ = std::make_unique<Runner>(home_.path() / "scratch", true);
    // Everything the unprivileged user writes lives in the test's home.
    auto runtime = home_.path() / "runtime";
    fs::create_directories(runtime);
    fs::create_directories(home_.path() / "scratch");
    chmod(runtime.c_str(), 0700);
    if (geteuid() == 0) {
      for (const auto& entry : fs::recursive_directory_iterator(home_.path())) {
        [[maybe_unused]] int ignored = chown(entry.path().c_str(), kUnprivileged, kUnprivileged);
      }
      [[maybe_unused]] int ignored = chown(home_.path().c_str(), kUnprivileged, kUnprivileged);
    }
    setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
    setenv("HOME", home_.path().c_str(), 1);
    setenv("WLR_BACKENDS", "headless", 1);
    setenv("WLR_LIBINPUT_NO_DEVICES", "1", 1);
    unsetenv("DISPLAY");
    std::ofstream(home_.path() / "sway.conf");
    sway_ = runner_->start({"/usr/bin/sway", "-c", (home_.path() / "sway.conf").string()}, "sway");
    ASSERT_GT(sway_, 0);
    ASSERT_TRUE(testing::waitUntil([&] { return fs::exists(runtime / "wayland-1"); },
                                   std::chrono::seconds(10)))
        << readAll(home_.path() / "scratch" / "sway" / "stderr");
    setenv("WAYLAND_DISPLAY", "wayland-1", 1);
  }
  void TearDown() override {
    DaemonTest::TearDown();
    if (sway_ > 0) testing::stopProcess(sway_);
  }
  void copy(const std::string& text) override { copyAs(text, "text/plain"); }
  void copyAs(const std::string& text, const std::string& type) {
    ASSERT_EQ(runner_->run({"/usr/bin/wl-copy", "--type", type}, text).exitCode, 0);
  }
  std::string paste() override { return runner_->run({"/usr/bin/wl-paste", "-n"}).out; }
  int sway_ = -1;
};

TEST_F(WaylandDaemonTest, CleansRestoresAndLeavesSecretsAlone) {
  startDaemon("auto");
  auto latency = expectCleaned("see " + std::string(kTracked) + " here",
                               "see " + std::string(kCleaned) + " here");
  std::cout << "copy-to-cleaned latency (wayland, including wl-copy/wl-paste runs): "
            << latency.count() << " ms\n";
  EXPECT_EQ(runner_->linkwash({"clipboard", "restore"}).exitCode, 0);
  EXPECT_EQ(paste(), "see " + std::string(kTracked) + " here");

  copyAs(std::string(kTracked), "x-kde-passwordManagerHint");
  copy(std::string("after the secret"));
  ASSERT_TRUE(testing::waitUntil([&] { return paste() == "after the secret"; }));
  EXPECT_EQ(runner_->status()->value("cleanedToday", -1), 1);
  EXPECT_EQ(stopDaemon(), 0);
}

}  // namespace
}  // namespace linkwash
