// `linkwash-publish sign-catalog` and `publish-catalog` end to end: a key from keygen signs a
// catalog, the tree is laid out as the metadata server serves it, and `linkwash catalog install`
// takes it from a real HTTPS server.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "core/privacy/privacy_catalog_store.h"
#include "platform/fs/files.h"
#include "platform/json/json_writer.h"
#include "tests/core/privacy/catalog_release.h"
#include "tests/support/https_test_server.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

namespace fs = std::filesystem;
using testing::RunResult;

class PublishCatalogCliTest : public ::testing::Test {
 protected:
  RunResult run(const char* program, const std::vector<std::string>& arguments) {
    return testing::runProgram(testing::binDir() / program, arguments, home_.path());
  }

  void write(const fs::path& path, std::string_view text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
  }

  // The catalog as a person edits it: laid out over many lines.
  void writeSource(const PrivacyServicesCatalog& catalog) {
    write(source(), writeJson(encodePrivacyServicesCatalog(catalog),
                              {.sortedKeys = false, .escapeSlashes = false, .pretty = true}));
  }

  RunResult sign(std::vector<std::string> extra = {}) {
    std::vector<std::string> arguments = {
        "sign-catalog",  "--key",           key().string(),    "--key-id", "catalog-test",
        "--catalog",     source().string(), "--reviewed",      "now",      "--keys",
        keys().string(), "--out",           payload().string()};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    return run("linkwash-publish", arguments);
  }

  RunResult publish() {
    return run("linkwash-publish",
               {"publish-catalog", "--payload", payload().string(), "--keys", keys().string(),
                "--out", www().string(), "--host", std::string(updatesHost())});
  }

  fs::path key() const { return home_.path() / "keys" / "catalog.key"; }
  fs::path keys() const { return home_.path() / "privacy-services-keys.json"; }
  fs::path source() const { return home_.path() / "catalog-source.json"; }
  fs::path payload() const { return home_.path() / "signed" / "privacy-services.json"; }
  fs::path www() const { return home_.path() / "www"; }

  testing::TempHome home_;
};

TEST_F(PublishCatalogCliTest, SignsPublishesAndTheAppInstallsFromTheServedTree) {
  fs::create_directories(key().parent_path());
  const RunResult made =
      run("linkwash-publish", {"keygen", "--out", key().string(), "--key-id", "catalog-test"});
  ASSERT_EQ(made.exitCode, 0) << made.err;
  write(keys(), "{" + made.out.substr(0, made.out.size() - 1) + "}");

  auto catalog =
      testing::catalogOf({testing::nitterService("alpha"), testing::nitterService("beta")}, 1);
  writeSource(catalog);
  RunResult result = sign();
  ASSERT_EQ(result.exitCode, 0) << result.err;
  const auto signedPayload = files::readFile(payload());
  const auto envelope = files::readFile(home_.path() / "signed" / "privacy-services.sig");
  ASSERT_TRUE(signedPayload && envelope);
  const auto verified =
      PrivacyServicesCatalog::verify(*signedPayload, *envelope, *files::readFile(keys()), nullptr);
  ASSERT_TRUE(verified) << "the payload is canonical and signed";
  EXPECT_TRUE(verified->fresh(currentUnixSeconds())) << "--reviewed now";

  // A key the key file does not trust is caught before anything is written.
  write(home_.path() / "other-keys.json", testing::catalogKeyFile());
  result = run("linkwash-publish",
               {"sign-catalog", "--key", key().string(), "--key-id", "catalog-test", "--catalog",
                source().string(), "--keys", (home_.path() / "other-keys.json").string(), "--out",
                (home_.path() / "unused.json").string()});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_FALSE(fs::exists(home_.path() / "unused.json"));

  result = publish();
  ASSERT_EQ(result.exitCode, 0) << result.err;
  const fs::path tree = www() / "privacy-services";
  const auto manifest = PrivacyCatalogManifest::parse(*files::readFile(tree / "current.json"));
  ASSERT_TRUE(manifest);
  EXPECT_EQ(*files::readFile(tree / "versions" / "1" / "privacy-services.json"), *signedPayload);
  EXPECT_EQ(publish().exitCode, 0) << "publishing the same catalog again changes nothing";

  // The published tree only moves forward and keeps every listed service.
  catalog.services.pop_back();
  writeSource(catalog);
  ASSERT_EQ(sign({"--version", "2"}).exitCode, 0);
  result = publish();
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_NE(result.err.find("does not continue the published version 1"), std::string::npos)
      << result.err;
  EXPECT_FALSE(fs::exists(tree / "versions" / "2"));

  // Served as it is, the tree installs into a program that trusts the key.
  testing::HttpsTestServer server({std::string(updatesHost())});
  ASSERT_TRUE(server.ok()) << server.error();
  for (const auto& entry : fs::recursive_directory_iterator(www())) {
    if (!entry.is_regular_file()) continue;
    const std::string path = "/" + fs::relative(entry.path(), www()).string();
    ASSERT_TRUE(server.putFile(path, *files::readFile(entry.path())));
  }
  const auto bundle = testing::bundleTrustingTestKey(home_.path() / "resources");
  ASSERT_TRUE(bundle);
  write(*bundle / "privacy-services-keys.json",
        testing::mergedKeyFile(*files::readFile(*bundle / "privacy-services-keys.json"),
                               *files::readFile(keys())));
  const testing::ScopedEnvironment resources("LINKWASH_RESOURCES", bundle->string());
  result = run("linkwash", {"catalog", "install"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.out, "Verified version 1 ready to install\nVerified catalog installed\n");
}

}  // namespace
}  // namespace linkwash
