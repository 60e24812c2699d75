// File helpers: whole-file reads, atomic replacement and exclusive locks.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "base/result.h"

namespace linkwash::files {

// The whole file; nothing when it cannot be opened or read.
std::optional<std::string> readFile(const std::filesystem::path& path);

// Writes to a temporary file beside `path` (mode 0600), fsyncs it and renames it over `path`,
// so a reader sees the old file or the new one, never a mixture. Creates missing folders (0700).
Result<void> writeFileAtomically(const std::filesystem::path& path, std::string_view bytes);

// Creates `directory` and any missing parents with mode 0700 whatever the umask (what they hold
// is one person's); folders that exist are left as they are.
Result<void> createPrivateDirectories(const std::filesystem::path& directory);

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

}  // namespace linkwash::files
