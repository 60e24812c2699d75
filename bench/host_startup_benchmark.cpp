// How long a browser waits for linkwash-host: from starting the process to its first reply to a
// "cleanURL" message, on the shipped rules with a warm index cache (target: 30 ms); and one
// request's round trip in a host that is already running. Run on one core:
//   taskset -c 0 build/bin/linkwash_host_bench
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

extern char** environ;

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kMessage =
    R"({"action":"cleanURL","url":"https://www.amazon.com/dp/B01?tag=x&utm_source=y&ref_=abc"})";

fs::path hostBinary() {
  if (const char* dir = std::getenv("LINKWASH_BIN_DIR")) return fs::path(dir) / "linkwash-host";
  return fs::path(LINKWASH_DEFAULT_BIN_DIR) / "linkwash-host";
}

// A scratch LINKWASH_HOME so the host never touches real preferences or caches.
struct ScratchHome {
  fs::path path;
  ScratchHome() {
    path = fs::temp_directory_path() / ("linkwash-host-bench-" + std::to_string(::getpid()));
    fs::create_directories(path);
    ::setenv("LINKWASH_HOME", path.c_str(), 1);
    std::signal(SIGPIPE, SIG_IGN);
  }
  ~ScratchHome() { fs::remove_all(path); }
};

class Host {
 public:
  Host() {
    int in[2];
    int out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) return;
    const std::string binary = hostBinary().string();
    char* argv[] = {const_cast<char*>(binary.c_str()), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    if (posix_spawn(&pid_, binary.c_str(), &actions, nullptr, argv, environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    input_ = in[1];
    output_ = out[0];
  }
  ~Host() {
    ::close(input_);
    ::close(output_);
    if (pid_ > 0) ::waitpid(pid_, nullptr, 0);
  }
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  // Sends the message and returns the reply, or an empty string when the host failed.
  std::string roundTrip() {
    std::string framed(4, '\0');
    const auto length = static_cast<std::uint32_t>(kMessage.size());
    std::memcpy(framed.data(), &length, 4);
    framed += kMessage;
    if (::write(input_, framed.data(), framed.size()) != static_cast<ssize_t>(framed.size())) {
      return {};
    }
    std::string header;
    if (!read(4, header)) return {};
    std::uint32_t replyLength;
    std::memcpy(&replyLength, header.data(), 4);
    std::string reply;
    if (!read(replyLength, reply)) return {};
    return reply;
  }

 private:
  bool read(std::size_t size, std::string& into) {
    char buffer[4096];
    while (into.size() < size) {
      const ssize_t n = ::read(output_, buffer, std::min(sizeof buffer, size - into.size()));
      if (n <= 0) return false;
      into.append(buffer, static_cast<std::size_t>(n));
    }
    return true;
  }

  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
};

bool isCleanedReply(const std::string& reply) {
  return reply.find(R"("cleanedURL":"https://www.amazon.com/dp/B01")") != std::string::npos;
}

// Builds the scratch home and the index cache once, as a browser's earlier sessions would have.
bool warmUp() {
  static ScratchHome home;
  static const bool warmed = [] {
    Host host;
    return isCleanedReply(host.roundTrip());
  }();
  return warmed;
}

void BM_HostStartupToFirstReply(benchmark::State& state) {
  if (!warmUp()) {
    state.SkipWithError("linkwash-host did not clean the link; is it built?");
    return;
  }
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    Host host;
    const std::string reply = host.roundTrip();
    const auto stop = std::chrono::steady_clock::now();
    state.SetIterationTime(std::chrono::duration<double>(stop - start).count());
    if (!isCleanedReply(reply)) {
      state.SkipWithError("unexpected reply");
      break;
    }
  }
}
BENCHMARK(BM_HostStartupToFirstReply)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_HostRequestRoundTrip(benchmark::State& state) {
  if (!warmUp()) {
    state.SkipWithError("linkwash-host did not clean the link; is it built?");
    return;
  }
  Host host;
  for (auto _ : state) {
    if (!isCleanedReply(host.roundTrip())) {
      state.SkipWithError("unexpected reply");
      break;
    }
  }
}
BENCHMARK(BM_HostRequestRoundTrip)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
