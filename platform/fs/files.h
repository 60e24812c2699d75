// File helpers: whole-file reads, atomic replacement and exclusive locks.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "base/result.h"

namespace linkwash::files {

// The whole file; nothing when it cannot be opened or read.
std::optional<std::string> readFile(const std::filesystem::path& path);

// A file a user named (a rules file, a release folder's manifest): read only when it is a regular
// file no larger than `maxBytes`, checked before reading, so /dev/zero, a FIFO or a huge file is
// refused at once instead of hanging or exhausting memory. The error names the file and the
// reason ("<path> is not a regular file", "<path> is larger than N bytes", or the system's).
Result<std::string> readUserFile(const std::filesystem::path& path, std::uint64_t maxBytes);

// Writes to a temporary file beside `path` (mode 0600), fsyncs it and renames it over `path`,
// so a reader sees the old file or the new one, never a mixture. Creates missing folders.
Result<void> writeFileAtomically(const std::filesystem::path& path, std::string_view bytes);

// An exclusive flock held for the object's lifetime. The lock file is created 0600.
class ExclusiveLock {
 public:
  // Blocks until no other process (or other ExclusiveLock in this one) holds `lockFile`.
  // Creates missing folders; fails when the file cannot be opened or locked.
  static Result<ExclusiveLock> acquire(const std::filesystem::path& lockFile);
  ExclusiveLock(ExclusiveLock&& other) noexcept;
  ExclusiveLock& operator=(ExclusiveLock&& other) noexcept;
  ~ExclusiveLock();

 private:
  explicit ExclusiveLock(int fd) : fd_(fd) {}
  int fd_ = -1;
};

// One install into a folder that several processes share (a signed store): holds the folder's
// exclusive lock for its whole life, so installs from every process run one at a time, while
// readers take no lock and rely on each file being replaced atomically.
//
//   auto install = LockedInstall::begin(root, "install.lock");
//   if (!install) return install.error();
//   ... decide under the lock ...
//   if (auto written = install->replace("state.json", bytes); !written) return written.error();
class LockedInstall {
 public:
  // Creates `root` and blocks until the lock on root/lockFileName is ours, then removes the
  // temporary files of writers that were killed before their rename (only installers write in
  // the folder, and they hold the lock, so every such file is stale).
  static Result<LockedInstall> begin(const std::filesystem::path& root,
                                     std::string_view lockFileName);

  const std::filesystem::path& root() const { return root_; }
  std::filesystem::path file(std::string_view name) const { return root_ / name; }

  // Replaces root/name atomically with `bytes` and reads it back; an error when it cannot be
  // written or does not read back byte for byte.
  Result<void> replace(std::string_view name, std::string_view bytes) const;
  // Removes root/name; a file that is already gone is no error.
  Result<void> remove(std::string_view name) const;

 private:
  LockedInstall(std::filesystem::path root, ExclusiveLock lock)
      : root_(std::move(root)), lock_(std::move(lock)) {}
  std::filesystem::path root_;
  ExclusiveLock lock_;
};

}  // namespace linkwash::files
