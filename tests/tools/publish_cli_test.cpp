// `linkwash-publish` end to end: a key made by keygen signs a release with sign-rules, verify
// checks the tree, and the app's own check accepts what verify accepts.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <fstream>

#include "core/signing/signature_verification.h"
#include "core/updates/rule_update_manifest.h"
#include "platform/fs/files.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

namespace fs = std::filesystem;
using testing::RunResult;

constexpr const char* kRules = R"({"providers":{"all":{"urlPattern":".*","rules":["session"]}}})";
constexpr const char* kSupplementary =
    R"({"providers":{"more":{"urlPattern":".*","rules":["campaign"]}}})";

bool contains(const std::string& text, std::string_view part) {
  return text.find(part) != std::string::npos;
}

class PublishCliTest : public ::testing::Test {
 protected:
  // A key pair, and a key file that trusts it.
  void SetUp() override {
    write(input("data.min.json"), kRules);
    write(input("supplementary.json"), kSupplementary);
    fs::create_directories(keyPath().parent_path());
    const auto made = publish({"keygen", "--out", keyPath().string(), "--key-id", "test-1"});
    ASSERT_EQ(made.exitCode, 0) << made.err;
    write(keysPath(), "{" + made.out.substr(0, made.out.size() - 1) + "}");
  }

  static void write(const fs::path& path, std::string_view text) {
    std::ofstream(path, std::ios::binary) << text;
  }

  RunResult publish(std::vector<std::string> arguments) {
    return testing::runProgram(testing::binDir() / "linkwash-publish", arguments, home_.path());
  }

  RunResult signRules(const std::string& version, std::vector<std::string> extra = {}) {
    std::vector<std::string> arguments = {"sign-rules",
                                          "--key",
                                          keyPath().string(),
                                          "--key-id",
                                          "test-1",
                                          "--rules",
                                          input("data.min.json").string(),
                                          "--supplementary",
                                          input("supplementary.json").string(),
                                          "--version",
                                          version,
                                          "--out",
                                          tree().string()};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    return publish(arguments);
  }

  RunResult verify(std::vector<std::string> extra = {}) {
    extra.insert(extra.begin(), {"verify", tree().string(), "--keys", keysPath().string()});
    return publish(extra);
  }

  fs::path input(std::string_view name) const { return home_.path() / name; }
  fs::path keyPath() const { return home_.path() / "keys" / "rules.key"; }
  fs::path keysPath() const { return home_.path() / "rule-feed-keys.json"; }
  fs::path tree() const { return home_.path() / "www" / "linkwash" / "rules"; }

  testing::TempHome home_;
};

TEST_F(PublishCliTest, KeygenWritesAPrivateKeyOnceAndNeverIntoAGitTree) {
  struct stat info {};
  ASSERT_EQ(stat(keyPath().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  const auto keys = parseKeyset(*files::readFile(keysPath()));
  ASSERT_TRUE(keys) << "the printed entry must be a valid key-file entry";
  EXPECT_EQ(keys->count("test-1"), 1u);

  const std::string key = *files::readFile(keyPath());
  const auto again = publish({"keygen", "--out", keyPath().string(), "--key-id", "test-2"});
  EXPECT_EQ(again.exitCode, 1);
  EXPECT_TRUE(contains(again.err, "already exists")) << again.err;
  EXPECT_EQ(*files::readFile(keyPath()), key);

  fs::create_directories(home_.path() / "repo" / ".git");
  const auto inRepo = (home_.path() / "repo" / "k.key").string();
  const auto refused = publish({"keygen", "--out", inRepo});
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_TRUE(contains(refused.err, "git work tree")) << refused.err;
  EXPECT_FALSE(fs::exists(inRepo));
  EXPECT_EQ(publish({"keygen", "--out", inRepo, "--force"}).exitCode, 0);
}

TEST_F(PublishCliTest, SignRulesWritesTheServedTreeAndVerifyChecksItAsTheAppWould) {
  const auto signedStable =
      signRules("2027.01.01.1", {"--host", "rules.test", "--notes", "first", "--notes", "second",
                                 "--published-at", "2027-01-01T10:00:00Z"});
  ASSERT_EQ(signedStable.exitCode, 0) << signedStable.err;
  EXPECT_EQ(files::readFile(tree() / "2027.01.01.1" / "data.min.json"), kRules);
  const auto ok = verify({"--host", "rules.test"});
  EXPECT_EQ(ok.out, "OK: stable rules 2027.01.01.1, published 2027-01-01T10:00:00Z\n") << ok.err;
  EXPECT_EQ(RuleUpdateManifest::decode(*files::readFile(tree() / "manifest.json"))->notes,
            (std::vector<std::string>{"first", "second"}));

  // Beta lives beside stable and shares the version folders.
  ASSERT_EQ(signRules("2027.01.02.1", {"--host", "rules.test", "--channel", "beta"}).exitCode, 0);
  EXPECT_EQ(verify({"--host", "rules.test", "--channel", "beta"}).exitCode, 0);

  // A channel never goes back, and a published version folder never changes.
  const auto older = signRules("2027.01.01.1", {"--host", "rules.test"});
  EXPECT_EQ(older.exitCode, 1);
  EXPECT_TRUE(contains(older.err, "already publishes 2027.01.01.1")) << older.err;
  write(input("data.min.json"), R"({"providers":{"all":{"urlPattern":".*","rules":["sid"]}}})");
  const auto changed = signRules("2027.01.02.1", {"--host", "rules.test"});
  EXPECT_EQ(changed.exitCode, 1);
  EXPECT_TRUE(contains(changed.err, "never changes")) << changed.err;
}

}  // namespace
}  // namespace linkwash
