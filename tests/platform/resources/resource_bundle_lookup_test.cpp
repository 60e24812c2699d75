// The bundle search order, and the stop when no bundle is anywhere. The executable lives in
// <lookup>/bin and its build-tree candidate is <lookup>/build-tree, both made for this test.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "platform/resources/resource_bundle.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

namespace fs = std::filesystem;

constexpr const char* kBundle = "Linkwash_LinkwashCore.bundle";

// One test on purpose: the candidates are shared folders, so the steps must not run in parallel.
TEST(ResourceBundleLookupTest, SearchesEachPlaceInOrderAndStopsWhenNoneHolds) {
  const fs::path lookup = LINKWASH_LOOKUP_ROOT;
  testing::TempHome home;
  const fs::path fromEnvironment = home.path() / kBundle;
  const fs::path besideExecutable = lookup / "bin" / kBundle;
  const fs::path shared = lookup / "share" / "linkwash" / kBundle;
  const fs::path buildTree = lookup / "build-tree" / kBundle;
  for (const fs::path& dir : {fromEnvironment, besideExecutable, shared, buildTree}) {
    fs::create_directories(dir);
  }
  setenv("LINKWASH_RESOURCES", home.path().c_str(), 1);

  for (const fs::path& expected : {fromEnvironment, besideExecutable, shared, buildTree}) {
    auto found = ResourceBundle::locate();
    ASSERT_TRUE(found) << "expected " << expected;
    EXPECT_EQ(found->root(), expected);
    fs::remove_all(expected);  // the next place takes over
  }
  EXPECT_FALSE(ResourceBundle::locate());
  EXPECT_DEATH(ResourceBundle::cleanLinkResources(),
               "^unable to find bundle named Linkwash_LinkwashCore\n$");

  // Found once per process: later changes on disk do not move it.
  fs::create_directories(shared);
  EXPECT_EQ(ResourceBundle::cleanLinkResources().root(), shared);
  fs::remove_all(shared);
  fs::create_directories(buildTree);
  EXPECT_EQ(ResourceBundle::cleanLinkResources().root(), shared);
  fs::remove_all(buildTree);
  unsetenv("LINKWASH_RESOURCES");
}

}  // namespace
}  // namespace linkwash
