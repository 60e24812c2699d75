// The last-clean record, its JSON form and the recorder that holds it.
#include "core/cleaning/last_clean_recorder.h"

#include <cmath>
#include <cstdint>
#include <utility>

namespace linkwash {
namespace {

using Microseconds = std::chrono::duration<std::int64_t, std::micro>;

// 2001-01-01T00:00:00Z, the zero of the encoder's default date form.
constexpr auto kReferenceDate = std::chrono::sys_days{std::chrono::year{2001} / 1 / 1};

std::optional<std::string> stringMember(const Json& json, const char* key) {
  const auto it = json.find(key);
  if (it == json.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

}  // namespace

Json encodeLastCleanRecord(const LastCleanRecord& record) {
  const std::chrono::duration<double> sinceReference = record.cleanedAt - kReferenceDate;
  Json json = Json::object();
  json["originalURL"] = record.originalURL;
  json["cleanedURL"] = record.cleanedURL;
  json["cleanedAt"] = sinceReference.count();
  json["surface"] = record.surface;
  return json;
}

std::optional<LastCleanRecord> decodeLastCleanRecord(const Json& json) {
  if (!json.is_object()) return std::nullopt;
  auto original = stringMember(json, "originalURL");
  auto cleaned = stringMember(json, "cleanedURL");
  auto surface = stringMember(json, "surface");
  const auto cleanedAt = json.find("cleanedAt");
  if (!original || !cleaned || !surface || cleanedAt == json.end() || !cleanedAt->is_number()) {
    return std::nullopt;
  }
  const double micros = std::round(cleanedAt->get<double>() * 1e6);
  // About 250 years either side of 2001: inside the clock's signed nanosecond range.
  constexpr double kLimit = 8e15;
  if (!(std::fabs(micros) < kLimit)) return std::nullopt;
  const auto time = std::chrono::time_point_cast<std::chrono::system_clock::duration>(
      kReferenceDate + Microseconds(static_cast<std::int64_t>(micros)));
  return LastCleanRecord{std::move(*original), std::move(*cleaned), time, std::move(*surface)};
}

void LastCleanRecorder::record(std::string_view original, std::string_view cleaned,
                               std::string_view surface) {
  auto next = std::make_shared<const LastCleanRecord>(
      LastCleanRecord{std::string(original), std::string(cleaned), std::chrono::system_clock::now(),
                      std::string(surface)});
  std::lock_guard lock(mutex_);
  exchange(std::move(next));
}

std::optional<LastCleanRecord> LastCleanRecorder::current() const {
  std::shared_ptr<const LastCleanRecord> record;
  {
    std::lock_guard pointerLock(currentMutex_);
    record = current_;
  }
  if (!record) return std::nullopt;
  return *record;
}

std::optional<LastCleanRecord> LastCleanRecorder::takeAndClear() {
  std::lock_guard lock(mutex_);
  const auto taken = exchange(nullptr);
  if (!taken) return std::nullopt;
  return *taken;
}

void LastCleanRecorder::clear() {
  std::lock_guard lock(mutex_);
  exchange(nullptr);
}

void LastCleanRecorder::setObserver(
    std::function<void(const std::optional<LastCleanRecord>&)> observer) {
  std::lock_guard lock(mutex_);
  observer_ = std::move(observer);
}

std::shared_ptr<const LastCleanRecord> LastCleanRecorder::exchange(
    std::shared_ptr<const LastCleanRecord> next) {
  const LastCleanRecord* nextRecord = next.get();
  std::shared_ptr<const LastCleanRecord> previous;
  {
    std::lock_guard pointerLock(currentMutex_);
    previous = std::exchange(current_, std::move(next));
  }
  if (observer_ && (previous || nextRecord)) {
    observer_(nextRecord ? std::optional<LastCleanRecord>(*nextRecord) : std::nullopt);
  }
  return previous;
}

}  // namespace linkwash
