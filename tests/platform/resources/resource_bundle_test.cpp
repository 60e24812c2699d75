// Resource lookup inside a bundle and the facts reported about the build and the system.
#include "platform/resources/resource_bundle.h"

#include <sys/utsname.h>

#include <gtest/gtest.h>

#include <cstdlib>

#include "platform/fs/files.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

namespace fs = std::filesystem;

TEST(ResourceBundleTest, FindsFilesByNameAndExtension) {
  testing::TempHome home;
  const fs::path root = home.path() / "Linkwash_LinkwashCore.bundle";
  ASSERT_TRUE(files::writeFileAtomically(root / "data.min.json", "{}"));
  ASSERT_TRUE(files::writeFileAtomically(root / "privacy-services.sig", "sig"));
  fs::create_directories(root / "folder.json");
  ResourceBundle bundle(root);

  EXPECT_EQ(bundle.url("data.min", "json"), root / "data.min.json");
  EXPECT_EQ(bundle.url("data", "min.json"), root / "data.min.json");
  EXPECT_EQ(bundle.read("privacy-services", "sig"), "sig");
  EXPECT_FALSE(bundle.url("data.min", "sig"));
  EXPECT_FALSE(bundle.url("folder", "json"));  // only files are resources
  EXPECT_FALSE(bundle.read("missing", "json"));
}

TEST(ResourceBundleTest, LinkwashResourcesNamesTheBundleOrItsFolder) {
  testing::TempHome home;
  const fs::path root = home.path() / "Linkwash_LinkwashCore.bundle";
  fs::create_directories(root);
  for (const fs::path& given : {root, home.path()}) {
    setenv("LINKWASH_RESOURCES", given.c_str(), 1);
    auto found = ResourceBundle::locate();
    ASSERT_TRUE(found) << given;
    EXPECT_EQ(found->root(), root);
  }
  unsetenv("LINKWASH_RESOURCES");
}

TEST(ResourceBundleTest, DescribesTheRunningSystem) {
  utsname names{};
  ASSERT_EQ(::uname(&names), 0);
  const std::string description = operatingSystemVersionString();
  // "<PRETTY_NAME>; Linux <release> <machine>", or the kernel part alone without os-release.
  const std::string kernel = std::string("Linux ") + names.release + " " + names.machine;
  ASSERT_GE(description.size(), kernel.size());
  EXPECT_EQ(description.substr(description.size() - kernel.size()), kernel);
  EXPECT_EQ(description.find('"'), std::string::npos);
  EXPECT_FALSE(appVersion().empty());
  EXPECT_FALSE(appBuild().empty());
}

}  // namespace
}  // namespace linkwash
