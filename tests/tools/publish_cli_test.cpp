// `linkwash-publish` end to end: a key made by keygen signs a release with sign-rules, verify
// checks the tree, the app's store installs it, and `linkwash` then cleans with it.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "core/updates/signature_verification.h"
#include "core/updates/signed_rule_feed.h"
#include "platform/fs/files.h"
#include "platform/resources/resource_bundle.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

namespace fs = std::filesystem;
using testing::RunResult;

constexpr const char* kRules = R"({"providers":{"all":{"urlPattern":".*","rules":["session"]}}})";
constexpr const char* kSupplementary =
    R"({"providers":{"more":{"urlPattern":".*","rules":["campaign"]}}})";

class PublishCliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    write(home_.path() / "data.min.json", kRules);
    write(home_.path() / "supplementary.json", kSupplementary);
  }

  static void write(const fs::path& path, std::string_view text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
  }

  RunResult publish(std::vector<std::string> arguments) {
    return testing::runProgram(testing::binDir() / "linkwash-publish", arguments, home_.path());
  }

  // A key pair and a key file that trusts it.
  void makeKey(const std::string& id = "test-1") {
    const auto made = publish({"keygen", "--out", keyPath().string(), "--key-id", id});
    ASSERT_EQ(made.exitCode, 0) << made.err;
    write(keysPath(), "{" + made.out.substr(0, made.out.size() - 1) + "}");
  }

  RunResult signRules(const std::string& version, std::vector<std::string> extra = {}) {
    std::vector<std::string> arguments = {"sign-rules",
                                          "--key",
                                          keyPath().string(),
                                          "--key-id",
                                          "test-1",
                                          "--rules",
                                          (home_.path() / "data.min.json").string(),
                                          "--supplementary",
                                          (home_.path() / "supplementary.json").string(),
                                          "--version",
                                          version,
                                          "--out",
                                          tree().string()};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    return publish(arguments);
  }

  RunResult verify(std::vector<std::string> extra = {}) {
    std::vector<std::string> arguments = {"verify", tree().string(), "--keys", keysPath().string()};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    return publish(arguments);
  }

  fs::path keyPath() const { return home_.path() / "keys" / "rules.key"; }
  fs::path keysPath() const { return home_.path() / "rule-feed-keys.json"; }
  fs::path tree() const { return home_.path() / "www" / "linkwash" / "rules"; }

  testing::TempHome home_;
};

TEST_F(PublishCliTest, KeygenWritesAPrivateKeyOnceAndNeverIntoAGitTree) {
  fs::create_directories(keyPath().parent_path());
  makeKey();
  struct stat info {};
  ASSERT_EQ(stat(keyPath().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  const auto keys = parseKeyset(*files::readFile(keysPath()));
  ASSERT_TRUE(keys) << "the printed entry must be a valid key-file entry";
  EXPECT_EQ(keys->count("test-1"), 1u);

  const std::string key = *files::readFile(keyPath());
  const auto again = publish({"keygen", "--out", keyPath().string(), "--key-id", "test-2"});
  EXPECT_EQ(again.exitCode, 1);
  EXPECT_NE(again.err.find("already exists"), std::string::npos) << again.err;
  EXPECT_EQ(*files::readFile(keyPath()), key);

  fs::create_directories(home_.path() / "repo" / ".git");
  const auto inRepo = (home_.path() / "repo" / "k.key").string();
  const auto refused = publish({"keygen", "--out", inRepo});
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_NE(refused.err.find("git work tree"), std::string::npos) << refused.err;
  EXPECT_FALSE(fs::exists(inRepo));
  EXPECT_EQ(publish({"keygen", "--out", inRepo, "--force"}).exitCode, 0);
}

TEST_F(PublishCliTest, SignRulesWritesTheServedTreeAndVerifyChecksItAsTheAppWould) {
  fs::create_directories(keyPath().parent_path());
  makeKey();
  const auto signedStable =
      signRules("2027.01.01.1", {"--host", "rules.test", "--notes", "first", "--notes", "second",
                                 "--published-at", "2027-01-01T10:00:00Z"});
  ASSERT_EQ(signedStable.exitCode, 0) << signedStable.err;
  for (const char* name : {"manifest.json", "manifest.sig", "2027.01.01.1/data.min.json",
                           "2027.01.01.1/linkwash-supplementary.json"}) {
    EXPECT_TRUE(fs::exists(tree() / name)) << name;
  }
  EXPECT_EQ(*files::readFile(tree() / "2027.01.01.1" / "data.min.json"), kRules);
  const auto ok = verify({"--host", "rules.test"});
  EXPECT_EQ(ok.exitCode, 0) << ok.err;
  EXPECT_EQ(ok.out, "OK: stable rules 2027.01.01.1, published 2027-01-01T10:00:00Z\n");

  // What the app's own check and store make of the tree.
  const SignedRuleFeed::Record record{
      {*files::readFile(tree() / "manifest.json"), *files::readFile(tree() / "manifest.sig")},
      kRules,
      kSupplementary};
  const std::string trust = *files::readFile(keysPath());
  const auto manifest = SignedRuleFeed::verifyRelease(record.proof, trust, "1.1.0", "rules.test");
  ASSERT_TRUE(manifest);
  EXPECT_EQ(manifest->notes, (std::vector<std::string>{"first", "second"}));
  EXPECT_EQ(manifest->clearURLsFile()->url,
            "https://rules.test/linkwash/rules/2027.01.01.1/data.min.json");

  // Beta lives beside stable and shares the version folders.
  const auto signedBeta = signRules("2027.01.02.1", {"--host", "rules.test", "--channel", "beta"});
  ASSERT_EQ(signedBeta.exitCode, 0) << signedBeta.err;
  EXPECT_TRUE(fs::exists(tree() / "beta" / "manifest.sig"));
  EXPECT_EQ(verify({"--host", "rules.test", "--channel", "beta"}).exitCode, 0);
  EXPECT_NE(verify({"--host", "rules.test"}).out.find("stable rules 2027.01.01.1"),
            std::string::npos);

  // A channel never goes back, and a published version folder never changes.
  const auto older = signRules("2027.01.01.1", {"--host", "rules.test"});
  EXPECT_EQ(older.exitCode, 1);
  EXPECT_NE(older.err.find("already publishes 2027.01.01.1"), std::string::npos) << older.err;
  write(home_.path() / "data.min.json",
        R"({"providers":{"all":{"urlPattern":".*","rules":["sid"]}}})");
  const auto changed = signRules("2027.01.02.1", {"--host", "rules.test"});
  EXPECT_EQ(changed.exitCode, 1);
  EXPECT_NE(changed.err.find("never changes"), std::string::npos) << changed.err;
}

TEST_F(PublishCliTest, VerifyAndSignRulesRefuseWhatTheAppWouldRefuse) {
  fs::create_directories(keyPath().parent_path());
  makeKey();
  ASSERT_EQ(signRules("2027.01.01.1").exitCode, 0);
  ASSERT_EQ(verify().exitCode, 0);

  const fs::path clear = tree() / "2027.01.01.1" / "data.min.json";
  write(clear, std::string(kRules) + " ");
  auto result = verify();
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_NE(result.err.find("bytes; the manifest says"), std::string::npos) << result.err;
  write(clear, kRules);

  const std::string manifest = *files::readFile(tree() / "manifest.json");
  write(tree() / "manifest.json", manifest + "\n");
  result = verify();
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_NE(result.err.find("signature does not verify"), std::string::npos) << result.err;
  write(tree() / "manifest.json", manifest);

  result = verify({"--host", "mirror.test"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_NE(result.err.find("is not https://mirror.test/"), std::string::npos) << result.err;

  // Refused before anything is written.
  write(home_.path() / "data.min.json", "{ not json");
  result = signRules("2027.01.01.2");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_NE(result.err.find("ClearURLs JSON could not be decoded"), std::string::npos)
      << result.err;
  EXPECT_FALSE(fs::exists(tree() / "2027.01.01.2"));
  write(home_.path() / "data.min.json", kRules);
  EXPECT_EQ(signRules("2027.1.1.2").exitCode, 1);
  result = publish({"sign-rules", "--key", keyPath().string(), "--key-id", "test-2", "--rules",
                    (home_.path() / "data.min.json").string(), "--version", "2027.01.01.2", "--out",
                    tree().string()});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_NE(result.err.find("holds key \"test-1\""), std::string::npos) << result.err;
}

TEST_F(PublishCliTest, AnInstalledReleaseIsWhatTheLinkwashCommandCleansWith) {
  fs::create_directories(keyPath().parent_path());
  makeKey();
  ASSERT_EQ(signRules("2027.01.01.1").exitCode, 0);

  // A copy of the shipped bundle that trusts the test key instead of the real one.
  const auto bundle = ResourceBundle::cleanLinkResources().root();
  const fs::path copy = home_.path() / "resources" / "Linkwash_LinkwashCore.bundle";
  fs::create_directories(copy);
  for (const auto& entry : fs::directory_iterator(bundle)) {
    fs::copy_file(entry.path(), copy / entry.path().filename());
  }
  fs::copy_file(keysPath(), copy / "rule-feed-keys.json", fs::copy_options::overwrite_existing);
  setenv("LINKWASH_RESOURCES", copy.c_str(), 1);

  const auto clean = [&] {
    return testing::runProgram(testing::binDir() / "linkwash",
                               {"clean", "https://a.example/?session=1&campaign=2&k=3"},
                               home_.path())
        .out;
  };
  EXPECT_EQ(clean(), "https://a.example/?session=1&campaign=2&k=3\n");

  const std::string floor =
      RuleUpdateManifest::decode(*files::readFile(copy / "manifest.json"))->currentVersion;
  const SignedRuleFeed::Store store(SignedRuleFeed::Store::defaultRoot(),
                                    *files::readFile(keysPath()));
  const auto installed = store.install(
      {{*files::readFile(tree() / "manifest.json"), *files::readFile(tree() / "manifest.sig")},
       kRules,
       kSupplementary},
      floor);
  ASSERT_TRUE(installed) << installed.error().errorDescription();
  EXPECT_EQ(clean(), "https://a.example/?k=3\n");

  // With the real keys the same store is not trusted, and the shipped rules come back.
  unsetenv("LINKWASH_RESOURCES");
  EXPECT_EQ(clean(), "https://a.example/?session=1&campaign=2&k=3\n");
}

}  // namespace
}  // namespace linkwash
