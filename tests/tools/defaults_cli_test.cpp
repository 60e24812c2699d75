// `linkwash defaults` end to end: the real executable against preferences in a temporary home.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/prefs/preference_store.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

namespace fs = std::filesystem;

using testing::RunResult;

// Runs `linkwash defaults <arguments>` with the current environment (so LINKWASH_HOME is the
// test's).
RunResult defaults(const testing::TempHome& home, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "defaults");
  return testing::runProgram(testing::binDir() / "linkwash", arguments, home.path());
}

TEST(DefaultsCliTest, WritesReadsAndDeletesEveryType) {
  testing::TempHome home;
  for (const auto& args : std::vector<std::vector<std::string>>{
           {"write", "flag", "-bool", "NO"},
           {"write", "count", "-int", "-12"},
           {"write", "ratio", "-float", "2"},
           {"write", "name", "-string", "-looks like an option"},
           {"write", "blob", "-data", "<0A1b ff>"},
           {"write", "empty", "-string", ""},
       }) {
    RunResult run = defaults(home, args);
    EXPECT_EQ(run.exitCode, 0) << args[1] << ": " << run.err;
    EXPECT_EQ(run.out + run.err, "");
  }

  // The library reads what the tool wrote: they share the standard store.
  auto store = PreferenceStore::standard();
  EXPECT_EQ(store->object("flag"), PreferenceValue{false});
  EXPECT_EQ(store->integerForKey("count"), -12);
  EXPECT_EQ(store->object("ratio"), PreferenceValue{2.0});
  EXPECT_EQ(store->stringForKey("name"), "-looks like an option");
  EXPECT_EQ(store->dataForKey("blob"), (Bytes{0x0a, 0x1b, 0xff}));

  EXPECT_EQ(defaults(home, {"read", "name"}).out, "-looks like an option\n");
  EXPECT_EQ(defaults(home, {"read", "blob"}).out, "<0a1bff>\n");
  RunResult listing = defaults(home, {"read"});
  EXPECT_EQ(listing.exitCode, 0);
  EXPECT_EQ(listing.out,
            "blob = <0a1bff>\n"
            "count = -12\n"
            "empty = \"\"\n"
            "flag = false\n"
            "name = \"-looks like an option\"\n"
            "ratio = 2.0\n");

  RunResult removed = defaults(home, {"delete", "count"});
  EXPECT_EQ(removed.exitCode, 0) << removed.err;
  EXPECT_FALSE(store->object("count"));
  RunResult gone = defaults(home, {"read", "count"});
  EXPECT_EQ(gone.exitCode, 1);
  EXPECT_EQ(gone.err, "linkwash defaults read: no key \"count\" in the standard store\n");
}

TEST(DefaultsCliTest, GroupFlagUsesTheAppGroupStoreOnly) {
  testing::TempHome home;
  EXPECT_EQ(defaults(home, {"write", "--group", "shared", "-int", "1"}).exitCode, 0);
  EXPECT_EQ(defaults(home, {"write", "after", "-bool", "YES", "--group"}).exitCode, 0);
  EXPECT_EQ(defaults(home, {"write", "shared", "-int", "2"}).exitCode, 0);

  auto group = PreferenceStore::suite("group.com.morvellabs.linkwash");
  EXPECT_EQ(group->integerForKey("shared"), 1);
  EXPECT_TRUE(group->boolForKey("after"));
  EXPECT_EQ(PreferenceStore::standard()->integerForKey("shared"), 2);
  EXPECT_FALSE(PreferenceStore::standard()->object("after"));

  EXPECT_EQ(defaults(home, {"read", "--group"}).out, "after = true\nshared = 1\n");
  EXPECT_EQ(defaults(home, {"delete", "after"}).exitCode, 1);  // not in the standard store
  EXPECT_EQ(defaults(home, {"delete", "--group", "after"}).exitCode, 0);
  EXPECT_FALSE(group->object("after"));
}

TEST(DefaultsCliTest, BadInputFailsWithOneLineAndWritesNothing) {
  testing::TempHome home;
  ASSERT_EQ(defaults(home, {"write", "kept", "-int", "5"}).exitCode, 0);
  for (const auto& args : std::vector<std::vector<std::string>>{
           {"write", "kept", "-int", "abc"},
           {"write", "kept", "-int", "12abc"},
           {"write", "kept", "-int", "99999999999999999999"},
           {"write", "kept", "-bool", "maybe"},
           {"write", "kept", "-float", "nan"},
           {"write", "kept", "-data", "abc"},
           {"write", "kept", "-data", "zz"},
           {"write", "kept", "-date", "2024-01-01"},
           {"write", "kept", "-int"},
           {"write", "kept", "-int", "1", "extra"},
           {"write", "", "-int", "1"},
           {"read", "missing"},
           {"delete", "missing"},
           {"delete"},
       }) {
    std::string joined;
    for (const auto& arg : args) joined += " " + arg;
    SCOPED_TRACE(joined);
    RunResult run = defaults(home, args);
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.out, "");
    ASSERT_FALSE(run.err.empty());
    EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;
  }
  auto all = PreferenceStore::standard()->all();
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].second, PreferenceValue{std::int64_t{5}});
}

}  // namespace
}  // namespace linkwash
