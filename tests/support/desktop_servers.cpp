// Xvfb for tests, started with -displayfd so that no display number is guessed.
#include "tests/support/desktop_servers.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>
#include <vector>

extern char** environ;

namespace linkwash::testing {

XvfbServer::XvfbServer() {
  int fds[2];
  if (pipe(fds) != 0) return;
  std::string fd = std::to_string(fds[1]);
  std::vector<std::string> args = {"Xvfb", "-displayfd", fd,  "-nolisten",
                                   "tcp",  "-screen",    "0", "320x240x24"};
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addclose(&actions, fds[0]);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  if (posix_spawnp(&pid, "Xvfb", &actions, nullptr, argv.data(), environ) == 0) pid_ = pid;
  posix_spawn_file_actions_destroy(&actions);
  close(fds[1]);
  std::string number;
  pollfd wait{fds[0], POLLIN, 0};
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (pid_ > 0 && std::chrono::steady_clock::now() < deadline) {
    if (poll(&wait, 1, 100) <= 0) continue;
    char c;
    if (read(fds[0], &c, 1) != 1 || c == '\n') break;
    number.push_back(c);
  }
  close(fds[0]);
  if (!number.empty()) display_ = ":" + number;
}

XvfbServer::~XvfbServer() {
  if (pid_ > 0) stopProcess(pid_);
}

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (done()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

int stopProcess(int pid) {
  kill(pid, SIGTERM);
  int status = 0;
  bool exited =
      waitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, std::chrono::seconds(5));
  if (!exited) {
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace linkwash::testing
