// The most recent successful clean, kept in memory so that the user can undo it. Nothing is
// stored: a new process starts with no record.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/json/json_writer.h"

namespace linkwash {

struct LastCleanRecord {
  std::string originalURL;
  std::string cleanedURL;
  std::chrono::system_clock::time_point cleanedAt;
  std::string surface;  // where the clean happened, e.g. "macOSSafariExtension"
  bool operator==(const LastCleanRecord&) const = default;
};

// Keys "originalURL", "cleanedURL", "cleanedAt", "surface", in that order; "cleanedAt" is a
// number of seconds since 2001-01-01T00:00:00Z.
Json encodeLastCleanRecord(const LastCleanRecord& record);
// Nothing unless all four keys are present with the right types. "cleanedAt" is read to the
// nearest microsecond (so a record made at microsecond precision reads back equal); a time the
// clock cannot represent is refused.
std::optional<LastCleanRecord> decodeLastCleanRecord(const Json& json);

// Thread safety: every operation may be called from any thread. Writers serialize on the
// recorder's mutex, so two concurrent takeAndClear() calls never both receive the same record;
// current() never waits for that mutex.
class LastCleanRecorder {
 public:
  LastCleanRecorder() = default;
  LastCleanRecorder(const LastCleanRecorder&) = delete;
  LastCleanRecorder& operator=(const LastCleanRecorder&) = delete;

  // Replaces the record with one made now, whatever the surfaces of the old and new cleans.
  void record(std::string_view original, std::string_view cleaned, std::string_view surface);
  std::optional<LastCleanRecord> current() const;
  // The record, leaving the recorder empty; nothing when it was already empty.
  std::optional<LastCleanRecord> takeAndClear();
  void clear();

  // Called with the new value whenever the record changes, on the writer's thread while the
  // recorder's mutex is held: the observer may call current() but not the writers.
  void setObserver(std::function<void(const std::optional<LastCleanRecord>&)> observer);

 private:
  // Swaps in `next`, notifies, returns the old record. Runs with mutex_ held.
  std::shared_ptr<const LastCleanRecord> exchange(std::shared_ptr<const LastCleanRecord> next);

  // Swapped whole, under a lock of its own held only to copy or swap the pointer, so current()
  // works from inside an observer. (ThreadSanitizer reports races inside GCC 12's
  // std::atomic<std::shared_ptr>, so a plain lock keeps the race checks useful.)
  std::shared_ptr<const LastCleanRecord> current_;
  mutable std::mutex currentMutex_;
  std::function<void(const std::optional<LastCleanRecord>&)> observer_;
  std::mutex mutex_;  // serializes writers; guards observer_
};

}  // namespace linkwash
