// `linkwash rules install-release|status|auto|update` end to end: releases signed by
// `linkwash-publish` with a test key, trusted through a copy of the shipped bundle, installed
// from a local tree and from a real HTTPS server on 127.0.0.1.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "core/updates/rule_update_manifest.h"
#include "platform/fs/files.h"
#include "platform/resources/resource_bundle.h"
#include "tests/support/https_test_server.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

namespace fs = std::filesystem;
using testing::RunResult;

constexpr const char* kSupplementary =
    R"({"providers":{"more":{"urlPattern":".*","rules":["campaign"]}}})";

std::string rulesStripping(const std::string& parameter) {
  return R"({"providers":{"all":{"urlPattern":".*","rules":[")" + parameter + R"("]}}})";
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

class RulesUpdateCliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto made =
        publish({"keygen", "--out", (home_.path() / "rules.key").string(), "--key-id", "test-1"});
    ASSERT_EQ(made.exitCode, 0) << made.err;
    // A copy of the shipped bundle that trusts the test key instead of the real one.
    const fs::path copy = home_.path() / "resources" / "Linkwash_LinkwashCore.bundle";
    fs::create_directories(copy);
    for (const auto& entry : fs::directory_iterator(ResourceBundle::cleanLinkResources().root())) {
      fs::copy_file(entry.path(), copy / entry.path().filename());
    }
    write(copy / "rule-feed-keys.json", "{" + made.out.substr(0, made.out.size() - 1) + "}");
    setenv("LINKWASH_RESOURCES", copy.c_str(), 1);
    shippedVersion_ =
        RuleUpdateManifest::decode(*files::readFile(copy / "manifest.json"))->currentVersion;
  }
  void TearDown() override { unsetenv("LINKWASH_RESOURCES"); }

  static void write(const fs::path& path, std::string_view text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
  }

  RunResult publish(const std::vector<std::string>& arguments) const {
    return testing::runProgram(testing::binDir() / "linkwash-publish", arguments, home_.path());
  }
  RunResult linkwash(const std::vector<std::string>& arguments) const {
    return testing::runProgram(testing::binDir() / "linkwash", arguments, home_.path());
  }

  // Signs a release stripping `parameter` into `tree`.
  void signRelease(const fs::path& tree, const std::string& version, const std::string& parameter,
                   const std::string& channel = "stable") {
    write(home_.path() / "in" / "data.min.json", rulesStripping(parameter));
    write(home_.path() / "in" / "supplementary.json", kSupplementary);
    const auto result =
        publish({"sign-rules", "--key", (home_.path() / "rules.key").string(), "--key-id", "test-1",
                 "--rules", (home_.path() / "in" / "data.min.json").string(), "--supplementary",
                 (home_.path() / "in" / "supplementary.json").string(), "--version", version,
                 "--out", tree.string(), "--channel", channel});
    ASSERT_EQ(result.exitCode, 0) << result.err;
  }

  std::string clean() const {
    return linkwash({"clean", "https://a.example/?first=1&second=2&k=3"}).out;
  }

  testing::TempHome home_;
  std::string shippedVersion_;
};

TEST_F(RulesUpdateCliTest, InstallReleaseFromALocalTreeAndStatus) {
  auto status = linkwash({"rules", "status"});
  EXPECT_EQ(status.out, "Rules in use: shipped rules " + shippedVersion_ +
                            "\nChannel: Stable\nAutomatic updates: Never\n"
                            "Last automatic check: never\nLast install: never\n")
      << status.err;

  const fs::path tree = home_.path() / "www" / "linkwash" / "rules";
  signRelease(tree, "2027.01.01.1", "first");
  auto installed = linkwash({"rules", "install-release", tree.string()});
  EXPECT_TRUE(installed.out.starts_with("Installed rules 2027.01.01.1 at ")) << installed.err;
  EXPECT_EQ(clean(), "https://a.example/?second=2&k=3\n");
  status = linkwash({"rules", "status"});
  EXPECT_TRUE(contains(status.out, "Rules in use: 2027.01.01.1 (installed release)\n"));
  EXPECT_FALSE(contains(status.out, "Last install: never")) << status.out;

  // A channel folder finds its files beside it, in the version folders.
  signRelease(tree, "2027.01.02.1", "second", "beta");
  installed = linkwash({"rules", "install-release", (tree / "beta").string()});
  ASSERT_EQ(installed.exitCode, 0) << installed.err;
  EXPECT_EQ(clean(), "https://a.example/?first=1&k=3\n");
  // With the real keys the same store is not trusted, and the shipped rules come back.
  unsetenv("LINKWASH_RESOURCES");
  EXPECT_EQ(clean(), "https://a.example/?first=1&second=2&k=3\n");
}

TEST_F(RulesUpdateCliTest, UpdateChecksAndInstallsFromTheRulesServer) {
  testing::HttpsTestServer server;
  ASSERT_TRUE(server.ok()) << server.error();
  const fs::path tree = server.root() / "linkwash" / "rules";
  signRelease(tree, "2027.01.01.1", "first");

  auto result = linkwash({"rules", "update", "--check-only"});
  ASSERT_EQ(result.exitCode, 0) << result.err;
  EXPECT_TRUE(result.out.starts_with("Rules update available: 2027.01.01.1\n")) << result.out;
  EXPECT_EQ(clean(), "https://a.example/?first=1&second=2&k=3\n");

  result = linkwash({"rules", "update"});
  ASSERT_EQ(result.exitCode, 0) << result.err;
  EXPECT_TRUE(contains(result.out, "\nInstalled rules 2027.01.01.1 at ")) << result.out;
  EXPECT_EQ(clean(), "https://a.example/?second=2&k=3\n");

  result = linkwash({"rules", "update"});
  EXPECT_EQ(result.out, "Rules are up to date: 2027.01.01.1\n");
  EXPECT_EQ(linkwash({"rules", "auto", "weekly"}).out,
            "Automatic updates: Weekly\nNext automatic check: due now\n");
  EXPECT_NE(linkwash({"rules", "auto", "hourly"}).exitCode, 0);
}

}  // namespace
}  // namespace linkwash
