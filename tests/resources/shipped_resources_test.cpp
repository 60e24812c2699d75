// The shipped data files: the release manifest describes the files that really ship, and every
// provider and rule in them compiles (a dropped rule is a silent gap in cleaning).
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "core/rules/rules_engine.h"
#include "platform/crypto/sha256.h"
#include "platform/json/json_writer.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

std::filesystem::path resources() { return testing::sourceDir() / "resources"; }

TEST(ShippedResourcesTest, ManifestDigestsAndSizesMatchTheShippedFiles) {
  auto manifest = parseJson(*testing::readFixture(resources() / "manifest.json"));
  ASSERT_TRUE(manifest && manifest->is_object());
  const auto& files = (*manifest)["files"];
  ASSERT_TRUE(files.is_array());
  std::set<std::string> kinds;
  for (const auto& file : files) {
    const std::string path = file["path"].get<std::string>();
    auto bytes = testing::readFixture(resources() / path);
    ASSERT_TRUE(bytes) << path;
    EXPECT_EQ(file["bytes"].get<std::size_t>(), bytes->size()) << path;
    EXPECT_EQ(file["sha256"].get<std::string>(), hexLower(sha256(*bytes))) << path;
    EXPECT_TRUE(endsWith(file["url"].get<std::string>(),
                         "/" + (*manifest)["currentVersion"].get<std::string>() + "/" + path));
    kinds.insert(file["kind"].get<std::string>());
  }
  EXPECT_EQ(kinds, (std::set<std::string>{"clearurls", "linkwash-supplementary"}));
}

TEST(ShippedResourcesTest, EveryShippedProviderAndRuleCompiles) {
  for (const char* name : {"data.min.json", "linkwash-supplementary.json"}) {
    auto bytes = testing::readFixture(resources() / name);
    ASSERT_TRUE(bytes) << name;
    auto decoded = decodeProvidersFile(*bytes);
    ASSERT_TRUE(decoded) << name;
    for (auto& named : *decoded) {
      const Provider provider = named.provider;
      auto compiled = compileProvider(named.name, named.provider);
      ASSERT_TRUE(compiled) << name << ": " << named.name;
      EXPECT_EQ(compiled->paramRegexes.size(), provider.rules.size()) << named.name;
      EXPECT_EQ(compiled->referralParamRegexes.size(), provider.referralMarketing.size())
          << named.name;
      EXPECT_EQ(compiled->rawRuleRegexes.size(), provider.rawRules.size()) << named.name;
      EXPECT_EQ(compiled->exceptionRegexes.size(), provider.exceptions.size()) << named.name;
      EXPECT_EQ(compiled->redirectionRegexes.size(), provider.redirections.size()) << named.name;
      for (const auto& redirection : compiled->redirectionRegexes) {
        EXPECT_GE(redirection.regex.captureGroupCount(), 1u) << redirection.pattern;
      }
    }
  }
}

TEST(ShippedResourcesTest, NewestSupplementaryFileWins) {
  testing::TempHome home;
  auto store = PreferenceStore::open(home.path() / "prefs.sqlite3");
  const auto installed =
      home.path() / "data" / "group.com.morvellabs.linkwash" / "linkwash-supplementary.json";
  std::filesystem::create_directories(installed.parent_path());
  std::ofstream(installed) << R"({"providers": {"installed-copy": {"urlPattern": "^https://x/"}}})";

  auto names = [&] {
    RulesEngine engine(store);
    engine.loadBundledRules();
    std::set<std::string> out;
    for (const auto& provider : engine.compiledProviders()) out.insert(provider.name);
    return out;
  };
  // Newer than the shipped copy: the installed one is used instead of it.
  std::filesystem::last_write_time(
      installed, std::filesystem::file_time_type::clock::now() + std::chrono::hours(1));
  EXPECT_TRUE(names().count("installed-copy"));
  // Older: the shipped supplementary file wins again.
  std::filesystem::last_write_time(
      installed, std::filesystem::file_time_type::clock::now() - std::chrono::hours(24));
  const auto shipped = names();
  EXPECT_FALSE(shipped.count("installed-copy"));
  EXPECT_GT(shipped.size(), 50u);
}

}  // namespace
}  // namespace linkwash
