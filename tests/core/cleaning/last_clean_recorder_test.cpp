// The last-clean record: replacing, taking and clearing it (also from several threads at once),
// its time stamp, what observers see, and its JSON form.
#include "core/cleaning/last_clean_recorder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace linkwash {
namespace {

using std::chrono::system_clock;

TEST(LastCleanRecorderTest, KeepsOnlyTheNewestRecordUntilTakenOrCleared) {
  LastCleanRecorder recorder;
  EXPECT_EQ(recorder.takeAndClear(), std::nullopt);
  EXPECT_EQ(recorder.current(), std::nullopt);

  recorder.record("https://a.com/?utm_source=x", "https://a.com/", "macOSSafariExtension");
  const auto before = system_clock::now();
  recorder.record("https://b.com/?fbclid=1", "https://b.com/", "macOSSafariContentScript");
  const auto after = system_clock::now();
  const auto current = recorder.current();
  ASSERT_TRUE(current);
  EXPECT_EQ(*current, (LastCleanRecord{"https://b.com/?fbclid=1", "https://b.com/",
                                       current->cleanedAt, "macOSSafariContentScript"}));
  EXPECT_TRUE(current->cleanedAt >= before && current->cleanedAt <= after);

  EXPECT_EQ(recorder.takeAndClear(), current);
  EXPECT_EQ(recorder.current(), std::nullopt);
  EXPECT_EQ(recorder.takeAndClear(), std::nullopt);
  recorder.record("https://c.com/?x=1", "https://c.com/", "s");
  recorder.clear();
  EXPECT_EQ(recorder.current(), std::nullopt);
}

TEST(LastCleanRecorderTest, ObserverSeesEachChangeAndMayReadTheRecorder) {
  LastCleanRecorder recorder;
  std::vector<std::optional<std::string>> seen;
  recorder.setObserver([&](const std::optional<LastCleanRecord>& value) {
    // Reading from inside the notification must not deadlock and sees the new value.
    EXPECT_EQ(recorder.current(), value);
    seen.push_back(value ? std::optional(value->cleanedURL) : std::nullopt);
  });
  recorder.record("o1", "c1", "s");
  recorder.record("o2", "c2", "s");
  recorder.takeAndClear();
  recorder.clear();  // already empty: nothing changes
  recorder.takeAndClear();
  EXPECT_EQ(seen, (std::vector<std::optional<std::string>>{"c1", "c2", std::nullopt}));
}

TEST(LastCleanRecorderTest, ConcurrentTakersNeverShareARecord) {
  LastCleanRecorder recorder;
  constexpr int kRecords = 2000;
  std::atomic<bool> done = false;
  std::vector<std::vector<int>> taken(3);
  std::vector<std::thread> takers;
  for (auto& mine : taken) {
    takers.emplace_back([&] {
      for (bool finished = false; !finished || recorder.current();) {
        finished = done;
        if (auto record = recorder.takeAndClear()) mine.push_back(std::stoi(record->originalURL));
      }
    });
  }
  for (int i = 0; i < kRecords; ++i) recorder.record(std::to_string(i), "c", "s");
  done = true;
  for (auto& taker : takers) taker.join();
  std::vector<bool> received(kRecords, false);
  for (const auto& list : taken) {
    for (int index : list) {
      EXPECT_FALSE(received[index]) << "record " << index << " taken twice";
      received[index] = true;
    }
  }
}

TEST(LastCleanRecordJsonTest, EncodesSecondsSince2001AndReadsThemBack) {
  // 2001-01-02T00:00:01.5Z
  const auto at = system_clock::time_point(std::chrono::seconds(978307200 + 86401)) +
                  std::chrono::milliseconds(500);
  const LastCleanRecord record{"https://a.com/?x=1", "https://a.com/", at, "surface"};
  const Json json = encodeLastCleanRecord(record);
  EXPECT_EQ(writeJson(json),
            R"({"originalURL":"https:\/\/a.com\/?x=1","cleanedURL":"https:\/\/a.com\/",)"
            R"("cleanedAt":86401.5,"surface":"surface"})");
  EXPECT_EQ(decodeLastCleanRecord(json), record);

  // A clean made now, at microsecond precision, survives the round trip exactly.
  const LastCleanRecord recent{
      "o", "c", std::chrono::floor<std::chrono::microseconds>(system_clock::now()), "s"};
  EXPECT_EQ(decodeLastCleanRecord(encodeLastCleanRecord(recent)), recent);

  const auto integer = decodeLastCleanRecord(
      *parseJson(R"({"originalURL":"o","cleanedURL":"c","cleanedAt":-1,"surface":"s"})"));
  ASSERT_TRUE(integer);
  EXPECT_EQ(integer->cleanedAt, system_clock::time_point(std::chrono::seconds(978307199)));
}

TEST(LastCleanRecordJsonTest, RefusesMissingOrMistypedFieldsAndUnreachableTimes) {
  const char* refused[] = {
      R"({"originalURL":"o","cleanedURL":"c","surface":"s"})",
      R"({"originalURL":"o","cleanedAt":1,"surface":"s"})",
      R"({"originalURL":"o","cleanedURL":"c","cleanedAt":1})",
      R"({"originalURL":1,"cleanedURL":"c","cleanedAt":1,"surface":"s"})",
      R"({"originalURL":"o","cleanedURL":"c","cleanedAt":"2026-01-01T00:00:00Z","surface":"s"})",
      R"({"originalURL":"o","cleanedURL":"c","cleanedAt":1e300,"surface":"s"})",
      R"({"originalURL":"o","cleanedURL":"c","cleanedAt":-1e12,"surface":"s"})",
      R"(["o","c",1,"s"])",
  };
  for (const char* text : refused) {
    const auto json = parseJson(text);
    ASSERT_TRUE(json) << text;
    EXPECT_EQ(decodeLastCleanRecord(*json), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace linkwash
