// Unix-socket plumbing for the clipboard daemon's control commands.
#include "core/clipboard/clipboard_control.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

namespace linkwash {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaximumMessageBytes = 1 << 20;
constexpr int kReplyTimeoutMs = 5000;
constexpr int kRequestTimeoutMs = 1000;

std::optional<sockaddr_un> socketAddress(const fs::path& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string text = path.string();
  if (text.size() >= sizeof(address.sun_path)) return std::nullopt;
  std::memcpy(address.sun_path, text.c_str(), text.size() + 1);
  return address;
}

int connectTo(const fs::path& path) {
  auto address = socketAddress(path);
  if (!address) return -1;
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  if (connect(fd, reinterpret_cast<const sockaddr*>(&*address), sizeof(*address)) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

bool writeAll(int fd, std::string_view data) {
  while (!data.empty()) {
    ssize_t n = send(fd, data.data(), data.size(), MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

// Reads up to the first newline (or end of stream), waiting at most `timeoutMs` in all.
std::optional<std::string> readLine(int fd, int timeoutMs) {
  std::string data;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  char buffer[4096];
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                    deadline - std::chrono::steady_clock::now())
                    .count();
    if (left <= 0) return std::nullopt;
    pollfd wait{fd, POLLIN, 0};
    int ready = poll(&wait, 1, static_cast<int>(left));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return std::nullopt;
    ssize_t n = recv(fd, buffer, sizeof buffer, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return std::nullopt;
    if (n == 0) return data;
    data.append(buffer, static_cast<std::size_t>(n));
    if (auto newline = data.find('\n'); newline != std::string::npos) {
      data.resize(newline);
      return data;
    }
    if (data.size() > kMaximumMessageBytes) return std::nullopt;
  }
}

}  // namespace

fs::path clipboardSocketPath() {
  if (const char* home = std::getenv("LINKWASH_HOME"); home && *home) {
    return fs::path(home) / "run" / "clipboard.sock";
  }
  if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime) {
    return fs::path(runtime) / "linkwash" / "clipboard.sock";
  }
  return fs::path("/tmp") / ("linkwash-" + std::to_string(getuid())) / "clipboard.sock";
}

std::optional<Json> sendClipboardCommand(const Json& request) {
  int fd = connectTo(clipboardSocketPath());
  if (fd < 0) return std::nullopt;
  std::optional<Json> reply;
  if (writeAll(fd, writeJson(request) + "\n")) {
    shutdown(fd, SHUT_WR);
    if (auto line = readLine(fd, kReplyTimeoutMs)) reply = parseJson(*line);
  }
  close(fd);
  return reply;
}

std::int64_t DaemonFirstPasteboard::clearContents() {
  // Deferred: the daemon replaces the contents in one step when it takes the text.
  clearPending_ = true;
  return fallback_->changeCount() + 1;
}

bool DaemonFirstPasteboard::setString(std::string_view value, PasteboardType type) {
  if (type == PasteboardType::string) {
    auto reply =
        sendClipboardCommand(Json::object({{"command", "copy"}, {"text", std::string(value)}}));
    if (reply && reply->value("ok", false)) {
      clearPending_ = false;
      return true;
    }
  }
  if (clearPending_) fallback_->clearContents();
  clearPending_ = false;
  return fallback_->setString(value, type);
}

ClipboardControlServer::~ClipboardControlServer() {
  if (fd_ >= 0) {
    close(fd_);
    std::error_code ignored;
    fs::remove(path_, ignored);
  }
}

Result<void> ClipboardControlServer::listen() {
  path_ = clipboardSocketPath();
  const fs::path folder = path_.parent_path();
  std::error_code error;
  fs::create_directories(folder, error);
  struct stat info {};
  // The folder guards the socket: it must be ours and closed to everyone else.
  if (lstat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != getuid()) {
    return fail("cannot use " + folder.string() + " for the control socket");
  }
  chmod(folder.c_str(), 0700);
  if (int other = connectTo(path_); other >= 0) {
    close(other);
    return fail("already running (control socket " + path_.string() + ")");
  }
  fs::remove(path_, error);  // left behind by a daemon that did not exit cleanly
  auto address = socketAddress(path_);
  if (!address) return fail("control socket path too long: " + path_.string());
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return fail(std::string("cannot create the control socket: ") + strerror(errno));
  mode_t previous = umask(0177);
  int bound = bind(fd, reinterpret_cast<const sockaddr*>(&*address), sizeof(*address));
  umask(previous);
  if (bound != 0 || ::listen(fd, 8) != 0) {
    std::string reason = strerror(errno);
    close(fd);
    return fail("cannot listen on " + path_.string() + ": " + reason);
  }
  chmod(path_.c_str(), 0600);
  fd_ = fd;
  return {};
}

void ClipboardControlServer::serveOne(const std::function<Json(const Json&)>& handler) {
  int client = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
  if (client < 0) return;
  Json reply;
  auto line = readLine(client, kRequestTimeoutMs);
  auto request = line ? parseJson(*line) : std::nullopt;
  if (request && request->is_object()) {
    reply = handler(*request);
  } else {
    reply = Json::object({{"ok", false}, {"error", "Malformed request"}});
  }
  writeAll(client, writeJson(reply) + "\n");
  close(client);
}

}  // namespace linkwash
