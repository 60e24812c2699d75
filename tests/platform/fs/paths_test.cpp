// Where the data, preference and cache folders resolve, with and without LINKWASH_HOME.
#include "platform/fs/paths.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "tests/support/test_support.h"

namespace linkwash {
namespace {

// Sets (or, with nullopt, clears) one environment variable and restores it afterwards.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, std::optional<std::string> value) : name_(name) {
    if (const char* old = std::getenv(name)) previous_ = old;
    set(value);
  }
  ~ScopedEnv() { set(previous_); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  void set(const std::optional<std::string>& value) {
    value ? setenv(name_, value->c_str(), 1) : unsetenv(name_);
  }
  const char* name_;
  std::optional<std::string> previous_;
};

TEST(PathsTest, LinkwashHomeHoldsEverythingAndIsReadOnEveryCall) {
  ScopedEnv xdg("XDG_DATA_HOME", "/xdg/data");
  testing::TempHome first;
  EXPECT_EQ(paths::applicationSupport(), first.path() / "data");
  EXPECT_EQ(paths::preferences(), first.path() / "prefs");
  EXPECT_EQ(paths::cache(), first.path() / "cache");
  EXPECT_EQ(paths::groupContainer("group.com.morvellabs.linkwash"),
            first.path() / "data" / "group.com.morvellabs.linkwash");
  {
    testing::TempHome second;
    EXPECT_EQ(paths::preferences(), second.path() / "prefs");
  }
  EXPECT_EQ(paths::preferences(), first.path() / "prefs");
}

TEST(PathsTest, WithoutLinkwashHomeFollowsXdgThenHome) {
  ScopedEnv home("LINKWASH_HOME", std::nullopt);
  ScopedEnv user("HOME", "/home/someone");
  {
    ScopedEnv data("XDG_DATA_HOME", "/x/data");
    ScopedEnv config("XDG_CONFIG_HOME", "/x/config");
    ScopedEnv cache("XDG_CACHE_HOME", "/x/cache");
    EXPECT_EQ(paths::applicationSupport(), "/x/data/linkwash");
    EXPECT_EQ(paths::preferences(), "/x/config/linkwash");
    EXPECT_EQ(paths::cache(), "/x/cache/linkwash");
  }
  // Unset, empty and relative XDG values all fall back to the defaults under HOME.
  ScopedEnv data("XDG_DATA_HOME", std::nullopt);
  ScopedEnv config("XDG_CONFIG_HOME", "");
  ScopedEnv cache("XDG_CACHE_HOME", "relative/cache");
  EXPECT_EQ(paths::applicationSupport(), "/home/someone/.local/share/linkwash");
  EXPECT_EQ(paths::preferences(), "/home/someone/.config/linkwash");
  EXPECT_EQ(paths::cache(), "/home/someone/.cache/linkwash");
}

}  // namespace
}  // namespace linkwash
