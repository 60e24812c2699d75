// Per-site switches on a real preference store: host normalization, the stored list and its
// writes, damaged data, other writers of the same store, and readers racing writers.
#include "core/cleaning/domain_exception_store.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/test_support.h"

namespace linkwash {
namespace {

constexpr std::string_view kKey = DomainExceptionStore::kStorageKey;
using Hosts = std::vector<std::string>;

Hosts hosts(const std::vector<DomainException>& list) {
  Hosts out;
  for (const auto& entry : list) out.push_back(entry.host);
  return out;
}

class DomainExceptionStoreTest : public ::testing::Test {
 protected:
  std::shared_ptr<PreferenceStore> openPrefs() const {
    return PreferenceStore::open(home_.path() / "standard.sqlite3");
  }
  std::string storedText() const { return toString(prefs_->dataForKey(kKey).value_or(Bytes{})); }

  testing::TempHome home_;
  std::shared_ptr<PreferenceStore> prefs_ = openPrefs();
};

TEST(DomainExceptionNormalizeTest, TrimsLowercasesAndDropsOneWww) {
  // NBSP and U+2028 are trimmed; U+200B is not white space.
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"\u200Bwww.a.com", "\u200Bwww.a.com"}, {"www.", ""},
      {"\t\u00A0www.a.com\u2028", "a.com"},   {"example.com.", "example.com."},
      {" WWW.Example.COM\n", "example.com"},  {"www.www.example.com", "www.example.com"},
      {"WWW.BÜCHER.de", "bücher.de"},         {"m.example.com", "m.example.com"},
      {"ww.example.com", "ww.example.com"},   {"Example.com:8080", "example.com:8080"},
  };
  for (const auto& [input, expected] : cases) {
    EXPECT_EQ(DomainExceptionStore::normalize(input), expected) << input;
  }
}

TEST(DomainExceptionNormalizeTest, NormalizedHostNeedsAWebLinkWithAHost) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"https://WWW.Example.com/path?q=1", "example.com"},
      {"  http://a.com\n", "a.com"},
      {"https://user:pw@Sub.Example.com:8443/x", "sub.example.com"},
      {"https://ex%41mple.com/", "example.com"},
  };
  for (const auto& [input, expected] : cases) {
    EXPECT_EQ(DomainExceptionStore::normalizedHost(input), expected) << input;
  }
  for (const char* input :
       {"example.com/path", "HTTPS://example.com", "Http://example.com", "ftp://example.com",
        "https://", "https:///path", "https://exa mple.com/", "https://example.com:port/"}) {
    EXPECT_EQ(DomainExceptionStore::normalizedHost(input), std::nullopt) << input;
  }
}

TEST_F(DomainExceptionStoreTest, DisabledHostMatchesEveryWayOfWritingIt) {
  DomainExceptionStore store(prefs_);
  store.disable("www.example.com");
  store.disable("BÜCHER.de");
  store.disable(std::string(300, 'a') + ".com");
  for (const std::string& host : {std::string("example.com"), std::string("www.BÜCHER.DE"),
                                  "WWW." + std::string(300, 'A') + ".COM"}) {
    EXPECT_TRUE(store.isDisabled(host)) << host;
  }
  for (const char* host : {"sub.example.com", "example.co", "www.www.example.com"}) {
    EXPECT_FALSE(store.isDisabled(host)) << host;
  }
  EXPECT_TRUE(store.isDisabledURL("https://Example.com/a"));
  EXPECT_FALSE(store.isDisabledURL("example.com/a"));
  EXPECT_FALSE(store.isDisabledURL("not a link"));
}

TEST_F(DomainExceptionStoreTest, StoresTheListAsJsonDataInInsertionOrder) {
  std::vector<Hosts> published;
  DomainExceptionStore store(prefs_);
  store.setObserver(
      [&](const std::vector<DomainException>& list) { published.push_back(hosts(list)); });
  EXPECT_EQ(store.disableURL(" https://www.b.com/x "), "b.com");
  store.disable("A.com");
  EXPECT_EQ(storedText(), R"([{"host":"b.com"},{"host":"a.com"}])");

  EXPECT_EQ(store.enableURL("http://B.com"), "b.com");
  EXPECT_EQ(storedText(), R"([{"host":"a.com"}])");
  EXPECT_EQ(store.disableURL("mailto:x@y.com"), std::nullopt);
  EXPECT_EQ(store.enableURL("b.com"), std::nullopt);
  EXPECT_EQ(published, (std::vector<Hosts>{{"b.com"}, {"b.com", "a.com"}, {"a.com"}}));
  // A later process starts from what was stored.
  EXPECT_EQ(hosts(DomainExceptionStore(openPrefs()).disabledDomains()), Hosts{"a.com"});
}

TEST_F(DomainExceptionStoreTest, WritesOnlyWhenTheListChanges) {
  DomainExceptionStore store(prefs_);
  int notifications = 0;
  store.setObserver([&](const std::vector<DomainException>&) { ++notifications; });
  store.disable("example.com");
  ASSERT_EQ(notifications, 1);
  // The same list in other bytes: any rewrite of the key would show as the compact form.
  const std::string spaced = R"([ {"host": "example.com"} ])";
  ASSERT_TRUE(prefs_->set(kKey, toBytes(spaced)));
  store.disable("WWW.example.com");
  store.enable("other.com");
  EXPECT_EQ(storedText(), spaced);
  EXPECT_EQ(notifications, 1);

  // Removing every copy of a host that was somehow stored twice.
  ASSERT_TRUE(
      prefs_->set(kKey, toBytes(R"([{"host":"a.com"},{"host":"x.com"},{"host":"a.com"}])")));
  store.enable("a.com");
  EXPECT_EQ(storedText(), R"([{"host":"x.com"}])");
  EXPECT_EQ(hosts(store.disabledDomains()), Hosts{"x.com"});
}

TEST_F(DomainExceptionStoreTest, DamagedDataReadsAsEmptyAndIsReplacedOnTheNextDisable) {
  for (const PreferenceValue& value : std::vector<PreferenceValue>{
           toBytes("not json"), toBytes(R"({"host":"a.com"})"),
           toBytes(R"([{"host":"a.com"},{"host":1}])"), toBytes(R"([{"name":"a.com"}])"),
           std::string(R"([{"host":"a.com"}])")}) {  // the last is a string, not data
    ASSERT_TRUE(prefs_->set(kKey, value));
    DomainExceptionStore store(prefs_);
    EXPECT_TRUE(store.disabledDomains().empty());
    EXPECT_FALSE(store.isDisabled("a.com"));
    store.disable("b.com");
    EXPECT_EQ(storedText(), R"([{"host":"b.com"}])");
  }
  // Extra keys in an element do not spoil it.
  ASSERT_TRUE(prefs_->set(kKey, toBytes(R"([{"host":"a.com","note":"x"}])")));
  EXPECT_TRUE(DomainExceptionStore(prefs_).isDisabled("a.com"));
}

TEST_F(DomainExceptionStoreTest, WritersOnOneStoreKeepEachOthersChanges) {
  DomainExceptionStore first(prefs_);
  DomainExceptionStore second(openPrefs());  // another process's view of the same file
  first.disable("a.com");
  second.disable("b.com");
  EXPECT_EQ(hosts(second.disabledDomains()), (Hosts{"a.com", "b.com"}));
  // The first only reads its own list until something makes it reload.
  EXPECT_FALSE(first.isDisabled("b.com"));
  first.refresh();
  EXPECT_TRUE(first.isDisabled("b.com"));
}

TEST_F(DomainExceptionStoreTest, ConcurrentWritersLoseNothingWhileReadersRun) {
  DomainExceptionStore store(prefs_);
  constexpr int kWriters = 4;
  constexpr int kPerWriter = 25;
  std::atomic<bool> done = false;
  std::atomic<long> hits = 0;
  std::thread reader([&] {
    while (!done) hits += store.isDisabled("w0-0.com") ? 1 : 0;
  });
  std::vector<std::thread> writers;
  for (int w = 0; w < kWriters; ++w) {
    writers.emplace_back([&store, w] {
      for (int i = 0; i < kPerWriter; ++i) {
        store.disable("w" + std::to_string(w) + "-" + std::to_string(i) + ".com");
      }
    });
  }
  for (auto& writer : writers) writer.join();
  done = true;
  reader.join();
  EXPECT_EQ(store.disabledDomains().size(), std::size_t{kWriters * kPerWriter});
  EXPECT_EQ(DomainExceptionStore(openPrefs()).disabledDomains().size(),
            std::size_t{kWriters * kPerWriter});
}

}  // namespace
}  // namespace linkwash
