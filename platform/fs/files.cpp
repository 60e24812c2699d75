// Whole-file reads, crash-safe replacement and inter-process locks on plain POSIX calls.
#include "platform/fs/files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <system_error>
#include <utility>

namespace linkwash::files {
namespace {

namespace fs = std::filesystem;

std::string describe(std::string_view what, const fs::path& path, int error) {
  std::string text(what);
  text += ' ';
  text += path.string();
  text += ": ";
  text += std::strerror(error);
  return text;
}

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

// After a rename the new directory entry is only durable once the directory itself is synced.
void syncDirectory(const fs::path& directory) {
  int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

Result<void> ensureDirectory(const fs::path& directory) {
  return createPrivateDirectories(directory);
}

}  // namespace

std::optional<std::string> readFile(const fs::path& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string contents;
  struct stat info {};
  if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size > 0) {
    contents.reserve(static_cast<std::size_t>(info.st_size));
  }
  char buffer[65536];
  for (;;) {
    ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got < 0) {
      if (errno == EINTR) continue;
      ::close(fd);
      return std::nullopt;
    }
    if (got == 0) break;
    contents.append(buffer, static_cast<std::size_t>(got));
  }
  ::close(fd);
  return contents;
}

Result<void> writeFileAtomically(const fs::path& path, std::string_view bytes) {
  const fs::path directory = path.parent_path();
  if (auto made = ensureDirectory(directory); !made) return made;

  // The temporary file sits in the same folder so that rename() replaces within one file system.
  std::string pattern = (directory / ("." + path.filename().string() + ".XXXXXX")).string();
  int fd = ::mkostemp(pattern.data(), O_CLOEXEC);  // mkostemp creates the file 0600
  if (fd < 0) return fail(describe("cannot create a temporary file beside", path, errno));

  auto abandon = [&](std::string_view what) {
    int error = errno;
    ::close(fd);
    ::unlink(pattern.c_str());
    return fail(describe(what, path, error));
  };
  if (!writeAll(fd, bytes)) return abandon("cannot write");
  if (::fsync(fd) != 0) return abandon("cannot sync");
  if (::close(fd) != 0) {
    int error = errno;
    ::unlink(pattern.c_str());
    return fail(describe("cannot write", path, error));
  }
  if (::rename(pattern.c_str(), path.c_str()) != 0) {
    int error = errno;
    ::unlink(pattern.c_str());
    return fail(describe("cannot replace", path, error));
  }
  syncDirectory(directory.empty() ? fs::path(".") : directory);
  return {};
}

Result<void> createPrivateDirectories(const fs::path& directory) {
  if (directory.empty()) return {};
  std::error_code ec;
  if (fs::is_directory(directory, ec)) return {};
  if (directory.has_parent_path() && directory.parent_path() != directory) {
    if (auto parent = createPrivateDirectories(directory.parent_path()); !parent) return parent;
  }
  // mkdir's mode is only ever narrowed by the umask, so 0700 stays 0700.
  if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
    return fail(describe("cannot create folder", directory, errno));
  }
  if (!fs::is_directory(directory, ec)) {
    return fail(describe("cannot create folder", directory, ENOTDIR));
  }
  return {};
}

Result<ExclusiveLock> ExclusiveLock::acquire(const fs::path& lockFile) {
  if (auto made = ensureDirectory(lockFile.parent_path()); !made)
    return tl::unexpected(made.error());
  int fd = ::open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return fail(describe("cannot open lock file", lockFile, errno));
  while (::flock(fd, LOCK_EX) != 0) {
    if (errno == EINTR) continue;
    int error = errno;
    ::close(fd);
    return fail(describe("cannot lock", lockFile, error));
  }
  return ExclusiveLock(fd);
}

ExclusiveLock::ExclusiveLock(ExclusiveLock&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

ExclusiveLock& ExclusiveLock::operator=(ExclusiveLock&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) {
      ::flock(fd_, LOCK_UN);
      ::close(fd_);
    }
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

// Unlocks explicitly: a child forked while the lock was held shares the open file, and closing
// only our descriptor would leave the lock held until the child exits.
ExclusiveLock::~ExclusiveLock() {
  if (fd_ >= 0) {
    ::flock(fd_, LOCK_UN);
    ::close(fd_);
  }
}

}  // namespace linkwash::files
