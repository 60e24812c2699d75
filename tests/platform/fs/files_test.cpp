// Whole-file reads, atomic replacement and the inter-process lock.
#include "platform/fs/files.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/test_support.h"

namespace linkwash::files {
namespace {

namespace fs = std::filesystem;

int fileMode(const fs::path& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return -1;
  return static_cast<int>(info.st_mode & 0777);
}

TEST(FilesTest, WriteCreatesFoldersAndReadsBackExactBytes) {
  testing::TempHome home;
  const fs::path path = home.path() / "a" / "b" / "state.bin";
  EXPECT_FALSE(readFile(path));

  std::string bytes("zero\0one\xff\n", 10);
  ASSERT_TRUE(writeFileAtomically(path, bytes));
  EXPECT_EQ(readFile(path), bytes);
  EXPECT_EQ(fileMode(path), 0600);

  ASSERT_TRUE(writeFileAtomically(path, ""));
  EXPECT_EQ(readFile(path), "");
  // Only the file itself is left: no temporary files beside it.
  EXPECT_EQ(std::distance(fs::directory_iterator(path.parent_path()), fs::directory_iterator()), 1);
}

TEST(FilesTest, FailedWriteReportsAndLeavesNothingBehind) {
  testing::TempHome home;
  const fs::path blocker = home.path() / "file";
  ASSERT_TRUE(writeFileAtomically(blocker, "x"));
  auto result = writeFileAtomically(blocker / "child", "y");
  ASSERT_FALSE(result);
  EXPECT_NE(result.error().message.find("file"), std::string::npos);

  // Replacing a folder fails at the rename; the temporary file must not remain.
  fs::create_directories(home.path() / "dir" / "busy" / "inner");
  EXPECT_FALSE(writeFileAtomically(home.path() / "dir" / "busy", "z"));
  EXPECT_EQ(std::distance(fs::directory_iterator(home.path() / "dir"), fs::directory_iterator()),
            1);
}

TEST(FilesTest, ReaderSeesOldOrNewContentNeverAMixture) {
  testing::TempHome home;
  const fs::path path = home.path() / "big.txt";
  // Large enough that a write in place would be observed half done.
  const std::string first(1 << 20, 'a');
  const std::string second(1 << 19, 'b');
  ASSERT_TRUE(writeFileAtomically(path, first));

  std::atomic<bool> done{false}, writeFailed{false};
  std::thread writer([&] {
    for (int i = 0; i < 40 && !writeFailed; ++i) {
      writeFailed = !writeFileAtomically(path, i % 2 == 0 ? second : first);
    }
    done = true;
  });
  std::optional<std::size_t> mixedSize;
  for (int reads = 0; (!done || reads == 0) && !mixedSize; ++reads) {
    auto content = readFile(path);
    if (content != first && content != second) mixedSize = content.value_or("").size();
  }
  writer.join();
  EXPECT_FALSE(writeFailed);
  EXPECT_FALSE(mixedSize) << "a reader saw " << *mixedSize << " bytes";
}

// True when something arrives on `fd` within `timeoutMs`.
bool readable(int fd, int timeoutMs) {
  pollfd entry{fd, POLLIN, 0};
  return ::poll(&entry, 1, timeoutMs) == 1;
}

TEST(FilesTest, LockExcludesAnotherProcessUntilReleased) {
  testing::TempHome home;
  const fs::path lockFile = home.path() / "locks" / "update.lock";
  auto lock = ExclusiveLock::acquire(lockFile);
  ASSERT_TRUE(lock) << lock.error().message;
  EXPECT_EQ(fileMode(lockFile), 0600);
  // Moving must hand the lock over, not release it.
  ExclusiveLock held = std::move(*lock);

  int pipeFds[2];
  ASSERT_EQ(::pipe(pipeFds), 0);
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::close(pipeFds[0]);
    auto childLock = ExclusiveLock::acquire(lockFile);  // blocks until the parent lets go
    char byte = childLock ? 'y' : 'n';
    _exit(::write(pipeFds[1], &byte, 1) == 1 ? 0 : 1);
  }
  ::close(pipeFds[1]);
  EXPECT_FALSE(readable(pipeFds[0], 300)) << "the child got the lock while the parent held it";

  { ExclusiveLock released = std::move(held); }
  ASSERT_TRUE(readable(pipeFds[0], 5000));
  char byte = 0;
  EXPECT_TRUE(::read(pipeFds[0], &byte, 1) == 1 && byte == 'y');
  ::close(pipeFds[0]);
  ::waitpid(child, nullptr, 0);
}

TEST(FilesTest, ReadsOnlyRegularFilesWithinTheirCap) {
  testing::TempHome home;
  const fs::path file = home.path() / "rules.json";
  ASSERT_TRUE(writeFileAtomically(file, "0123456789"));
  EXPECT_EQ(readUserFile(file, 10), "0123456789");
  const fs::path fifo = home.path() / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  // Each refusal names the file and says why; none of them blocks or reads without end.
  const std::pair<fs::path, std::string> refused[] = {
      {file, file.string() + " is larger than 9 bytes"},
      {"/dev/zero", "/dev/zero is not a regular file"},
      {fifo, fifo.string() + " is not a regular file"},
      {home.path(), home.path().string() + " is not a regular file"},
      {home.path() / "missing",
       "cannot read " + (home.path() / "missing").string() + ": No such file or directory"}};
  for (const auto& [path, message] : refused) {
    const auto read = readUserFile(path, 9);
    ASSERT_FALSE(read) << path;
    EXPECT_EQ(read.error().message, message);
  }
}

// Installers from several processes, some killed half-way through their write: every install
// runs alone, what a killed one left is cleared by the next, and its lock dies with it.
TEST(FilesTest, LockedInstallsRunOneAtATimeAndSurviveAKilledInstaller) {
  testing::TempHome home;
  const fs::path root = home.path() / "store";
  std::vector<pid_t> children;
  for (int p = 0; p < 4; ++p) {
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      // Read-modify-write of a counter: without the lock, increments would be lost.
      for (int i = 0; i < 25; ++i) {
        auto install = LockedInstall::begin(root, "install.lock");
        if (!install) _exit(1);
        const int count = std::stoi(readFile(install->file("count")).value_or("0"));
        if (!install->replace("count", std::to_string(count + 1))) _exit(2);
      }
      _exit(0);
    }
    children.push_back(pid);
  }
  for (const pid_t child : children) {
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  EXPECT_EQ(readFile(root / "count"), "100");

  // Killed while holding the lock, with a temporary file half written.
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t killed = ::fork();
  ASSERT_GE(killed, 0);
  if (killed == 0) {
    auto install = LockedInstall::begin(root, "install.lock");
    const int fd = ::open((root / ".count.Xk3Lq9").c_str(), O_WRONLY | O_CREAT, 0600);
    if (!install || fd < 0 || ::write(fd, "12", 2) != 2 || ::write(ready[1], "x", 1) != 1) {
      _exit(1);
    }
    ::pause();
    _exit(0);
  }
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  ::kill(killed, SIGKILL);
  ::waitpid(killed, nullptr, 0);
  ::close(ready[0]);
  ::close(ready[1]);
  auto next = LockedInstall::begin(root, "install.lock");
  ASSERT_TRUE(next) << next.error().message;
  EXPECT_FALSE(fs::exists(root / ".count.Xk3Lq9"));
  EXPECT_EQ(readFile(root / "count"), "100");
  EXPECT_TRUE(next->remove("count") && next->remove("count"));
}

}  // namespace
}  // namespace linkwash::files
