// PreferenceStore on real SQLite files: typed reads of mistyped values, isolation between homes
// and suites, and several processes sharing one store.
#include "platform/prefs/preference_store.h"

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "platform/fs/files.h"
#include "platform/fs/paths.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

constexpr const char* kGroup = "group.com.morvellabs.linkwash";

TEST(PreferenceStoreTest, TypedReadsConvertLikeThePlatformDid) {
  testing::TempHome home;
  auto store = PreferenceStore::standard();
  int keys = 0;
  auto check = [&](std::optional<PreferenceValue> stored, bool asBool, std::int64_t asInteger,
                   double asDouble, std::optional<std::string> asString) {
    const std::string key = "key" + std::to_string(++keys);
    SCOPED_TRACE(::testing::PrintToString(asString) + " stored under " + key);
    ASSERT_TRUE(!stored || store->set(key, *stored));
    EXPECT_EQ(store->object(key), stored);
    EXPECT_EQ(store->boolForKey(key), asBool);
    EXPECT_EQ(store->integerForKey(key), asInteger);
    EXPECT_DOUBLE_EQ(store->doubleForKey(key), asDouble);
    EXPECT_EQ(store->stringForKey(key), asString);
    // Data is never converted, in either direction.
    const Bytes* bytes = stored ? std::get_if<Bytes>(&*stored) : nullptr;
    EXPECT_EQ(store->dataForKey(key), bytes ? std::optional<Bytes>(*bytes) : std::nullopt);
  };
  constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
  check(std::nullopt, false, 0, 0, std::nullopt);
  check(Bytes{1, 2}, false, 0, 0, std::nullopt);
  check(true, true, 1, 1, "1");
  check(false, false, 0, 0, "0");
  check(std::int64_t{42}, true, 42, 42, "42");
  check(std::int64_t{0}, false, 0, 0, "0");
  check(2.9, true, 2, 2.9, "2.9");
  check(-2.9, true, -2, -2.9, "-2.9");
  check(0.25, true, 0, 0.25, "0.25");
  check(0.0, false, 0, 0, "0");
  check(1e300, true, kMax, 1e300, "1e+300");
  // Text reads back as itself, and as a number only when all of it is one.
  const std::vector<std::tuple<std::string, bool, std::int64_t, double>> texts = {
      {"YES", true, 0, 0}, {"TrUe", true, 0, 0},   {"1", true, 1, 1},
      {"0", false, 0, 0},  {"2", false, 2, 2},     {"-17", false, -17, -17},
      {"+8", false, 8, 8}, {"3.7", false, 3, 3.7}, {"12abc", false, 0, 0},
      {" 5", false, 0, 0}, {"nan", false, 0, 0},   {"", false, 0, 0},
  };
  for (const auto& [text, asBool, asInteger, asDouble] : texts) {
    check(text, asBool, asInteger, asDouble, text);
  }
  check(std::string("99999999999999999999"), false, kMax, 1e20, "99999999999999999999");
  EXPECT_TRUE(store->remove("key3"));
  EXPECT_FALSE(store->object("key3"));
  EXPECT_TRUE(store->remove("key3"));  // removing what is gone is not a failure
}

TEST(PreferenceStoreTest, ValuesSurviveExactlyAndListSorted) {
  testing::TempHome home;
  {
    auto store = PreferenceStore::standard();
    // SQLite would turn an empty blob into NULL and NaN into NULL; both must come back typed.
    ASSERT_TRUE(store->set("empty data", Bytes{}));
    ASSERT_TRUE(store->set("nan", std::numeric_limits<double>::quiet_NaN()));
    ASSERT_TRUE(store->set("text", std::string("caf\xc3\xa9\0x", 7)));
    ASSERT_TRUE(store->set("B", true));
    ASSERT_TRUE(store->set("a", std::int64_t{1}));
    ASSERT_TRUE(store->set("B", std::string("replaced")));  // a new type replaces the old value
  }
  auto reopened = PreferenceStore::open(paths::preferences() / "standard.sqlite3");
  ASSERT_TRUE(reopened);
  EXPECT_EQ(reopened->dataForKey("empty data"), Bytes{});
  auto nan = reopened->object("nan");
  ASSERT_TRUE(nan && std::holds_alternative<double>(*nan));
  EXPECT_TRUE(std::isnan(std::get<double>(*nan)));
  EXPECT_EQ(reopened->stringForKey("text"), std::string("caf\xc3\xa9\0x", 7));

  std::vector<std::string> keys;
  for (const auto& entry : reopened->all()) keys.push_back(entry.first);
  EXPECT_EQ(keys, (std::vector<std::string>{"B", "a", "empty data", "nan", "text"}));
  EXPECT_EQ(reopened->object("B"), PreferenceValue{std::string("replaced")});
}

TEST(PreferenceStoreTest, HomesAndSuitesAreSeparateStores) {
  testing::TempHome outer;
  auto standard = PreferenceStore::standard();
  EXPECT_EQ(PreferenceStore::standard(), standard);  // shared while held
  EXPECT_EQ(standard->path(), outer.path() / "prefs" / "standard.sqlite3");
  auto group = PreferenceStore::suite(kGroup);
  EXPECT_EQ(group->path(), outer.path() / "prefs" / (std::string(kGroup) + ".sqlite3"));

  ASSERT_TRUE(standard->set("where", std::string("standard")));
  EXPECT_FALSE(group->object("where"));  // no fallback between suites
  {
    testing::TempHome inner;
    auto innerStandard = PreferenceStore::standard();
    EXPECT_NE(innerStandard, standard);
    EXPECT_FALSE(innerStandard->object("where"));
    ASSERT_TRUE(innerStandard->set("where", std::string("inner")));
  }
  EXPECT_EQ(PreferenceStore::standard()->stringForKey("where"), "standard");
}

TEST(PreferenceStoreTest, UnusableLocationsFallBackToTemporaryStore) {
  testing::TempHome home;
  // Preferences folder blocked by a file: the program still runs, on defaults.
  ASSERT_TRUE(files::writeFileAtomically(home.path() / "prefs", "not a folder"));
  auto blocked = PreferenceStore::standard();
  ASSERT_TRUE(blocked);
  EXPECT_TRUE(blocked->path().empty());
  EXPECT_TRUE(blocked->set("k", true));
  EXPECT_TRUE(blocked->boolForKey("k"));

  for (const char* name : {"", "..", "a/b"}) {
    auto store = PreferenceStore::suite(name);
    ASSERT_TRUE(store);
    EXPECT_TRUE(store->path().empty()) << name;
  }
  ASSERT_TRUE(files::writeFileAtomically(home.path() / "junk.sqlite3", std::string(4096, 'x')));
  EXPECT_FALSE(PreferenceStore::open(home.path() / "junk.sqlite3"));
}

// Runs `body` in a forked child and returns its exit status (0 when body returned true).
template <typename Body>
pid_t spawn(Body body) {
  pid_t pid = ::fork();
  if (pid == 0) _exit(body() ? 0 : 1);
  return pid;
}

bool exitedCleanly(pid_t pid) {
  int status = 0;
  return ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(PreferenceStoreTest, AnotherProcessSeesWritesAtOnce) {
  testing::TempHome home;
  auto store = PreferenceStore::standard();
  ASSERT_TRUE(store->set("from parent", std::int64_t{7}));
  EXPECT_FALSE(store->object("from child"));

  // The child asks for the standard store too: it must get its own connection, not the
  // parent's, and see the parent's value.
  pid_t child = spawn([] {
    auto own = PreferenceStore::standard();
    return own->integerForKey("from parent") == 7 && own->set("from child", true);
  });
  ASSERT_GT(child, 0);
  ASSERT_TRUE(exitedCleanly(child));
  EXPECT_TRUE(store->boolForKey("from child"));  // same open store, no reload
}

TEST(PreferenceStoreTest, ConcurrentWritersFromSeveralProcessesLoseNothing) {
  testing::TempHome home;
  auto store = PreferenceStore::standard();  // creates the database before the race
  constexpr int kProcesses = 4;
  constexpr int kWrites = 200;
  std::vector<pid_t> children;
  for (int p = 0; p < kProcesses; ++p) {
    children.push_back(spawn([p] {
      auto own = PreferenceStore::standard();
      for (int i = 0; i < kWrites; ++i) {
        const std::string key = "p" + std::to_string(p) + "_" + std::to_string(i);
        if (!own->set(key, std::int64_t{p * 1000 + i})) return false;
        if (own->integerForKey(key) != p * 1000 + i) return false;
      }
      return true;
    }));
  }
  for (pid_t child : children) EXPECT_TRUE(exitedCleanly(child));
  EXPECT_EQ(store->all().size(), std::size_t{kProcesses * kWrites});
  EXPECT_EQ(store->integerForKey("p3_199"), 3199);
}

}  // namespace
}  // namespace linkwash
