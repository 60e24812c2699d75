// update() is one transaction: processes editing the same stored list at once never lose one
// another's change, and a refused write leaves the database as it was.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/prefs/preference_store.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

using Change = PreferenceStore::Change;

// Appends `item` to the comma-separated list under "list".
bool append(PreferenceStore& store, const std::string& item) {
  return store.update("list", [&](std::optional<PreferenceValue>& value) {
    std::string list = value ? std::get<std::string>(*value) : std::string();
    value = PreferenceValue{list + item + ","};
    return Change::write;
  });
}

TEST(PreferenceUpdateTest, ConcurrentProcessesKeepEveryChange) {
  testing::TempHome home;
  const auto path = home.path() / "shared.sqlite3";
  ASSERT_TRUE(PreferenceStore::open(path));
  constexpr int kProcesses = 8, kEach = 25;
  std::vector<pid_t> children;
  for (int p = 0; p < kProcesses; ++p) {
    const pid_t pid = ::fork();
    if (pid == 0) {
      auto store = PreferenceStore::open(path);
      bool ok = store != nullptr;
      for (int i = 0; i < kEach && ok; ++i) ok = append(*store, std::to_string(p * 100 + i));
      ::_exit(ok ? 0 : 1);
    }
    children.push_back(pid);
  }
  for (pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  const std::string list = *PreferenceStore::open(path)->stringForKey("list");
  EXPECT_EQ(std::count(list.begin(), list.end(), ','), kProcesses * kEach);
}

TEST(PreferenceUpdateTest, KeepRemoveAndPrivateFiles) {
  testing::TempHome home;
  const mode_t previous = ::umask(0);
  auto store = PreferenceStore::open(home.path() / "new/dir/p.sqlite3");
  ::umask(previous);
  ASSERT_TRUE(store);
  struct stat info {};
  ASSERT_EQ(::stat((home.path() / "new/dir/p.sqlite3").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  ASSERT_EQ(::stat((home.path() / "new/dir").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);

  ASSERT_TRUE(append(*store, "a"));
  EXPECT_TRUE(store->update("list", [](auto& value) {
    value = PreferenceValue{std::string("ignored")};
    return Change::keep;
  }));
  EXPECT_EQ(store->stringForKey("list"), "a,");
  EXPECT_TRUE(store->update("list", [](auto&) { return Change::remove; }));
  EXPECT_FALSE(store->object("list"));
  EXPECT_FALSE(store->isTemporary());
}

}  // namespace
}  // namespace linkwash
