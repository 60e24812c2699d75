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
  if (directory.empty()) return {};
  std::error_code ec;
  fs::create_directories(directory, ec);
  if (ec) return fail(describe("cannot create folder", directory, ec.value()));
  return {};
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

Result<std::string> readUserFile(const fs::path& path, std::uint64_t maxBytes) {
  // O_NONBLOCK: opening a FIFO for reading must not wait for a writer; it is refused below.
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return fail(describe("cannot read", path, errno));
  struct stat info {};
  if (::fstat(fd, &info) != 0) {
    int error = errno;
    ::close(fd);
    return fail(describe("cannot read", path, error));
  }
  if (!S_ISREG(info.st_mode)) {
    ::close(fd);
    return fail(path.string() + " is not a regular file");
  }
  if (static_cast<std::uint64_t>(info.st_size) > maxBytes) {
    ::close(fd);
    return fail(path.string() + " is larger than " + std::to_string(maxBytes) + " bytes");
  }
  std::string contents;
  contents.reserve(static_cast<std::size_t>(info.st_size));
  char buffer[65536];
  for (;;) {
    ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got < 0) {
      if (errno == EINTR) continue;
      int error = errno;
      ::close(fd);
      return fail(describe("cannot read", path, error));
    }
    if (got == 0) break;
    // The file may have grown since the check.
    if (contents.size() + static_cast<std::size_t>(got) > maxBytes) {
      ::close(fd);
      return fail(path.string() + " is larger than " + std::to_string(maxBytes) + " bytes");
    }
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

Result<LockedInstall> LockedInstall::begin(const fs::path& root, std::string_view lockFileName) {
  if (auto made = ensureDirectory(root); !made) return tl::unexpected(made.error());
  auto lock = ExclusiveLock::acquire(root / lockFileName);
  if (!lock) return tl::unexpected(lock.error());
  // writeFileAtomically names its temporary ".<name>.XXXXXX".
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(root, ec)) {
    const std::string name = entry.path().filename().string();
    const std::size_t dot = name.rfind('.');
    if (name.size() > 8 && name[0] == '.' && dot == name.size() - 7 && entry.is_regular_file(ec)) {
      std::error_code ignored;
      fs::remove(entry.path(), ignored);
    }
  }
  return LockedInstall(root, std::move(*lock));
}

Result<void> LockedInstall::replace(std::string_view name, std::string_view bytes) const {
  const fs::path path = file(name);
  if (auto written = writeFileAtomically(path, bytes); !written) return written;
  const auto back = readFile(path);
  if (!back || *back != bytes) return fail("cannot read back " + path.string());
  return {};
}

Result<void> LockedInstall::remove(std::string_view name) const {
  std::error_code ec;
  fs::remove(file(name), ec);
  if (ec) return fail(describe("cannot remove", file(name), ec.value()));
  return {};
}

}  // namespace linkwash::files
