// PreferenceStore: typed values by key, one SQLite database per suite, safe across processes.
//
// Reads always go to the database, so another process's write is seen at once. Mistyped and
// missing keys read the way the original platform read them (see each accessor).
//
//   auto prefs = PreferenceStore::standard();
//   prefs->set("stats_collection_enabled", PreferenceValue{false});
//   prefs->boolForKey("stats_collection_enabled");  // false
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "base/strings.h"

struct sqlite3;
struct sqlite3_stmt;

namespace linkwash {

using PreferenceValue = std::variant<bool, std::int64_t, double, std::string, Bytes>;

// Thread-safe: one mutex guards the connection. Several processes may read and write the same
// database at once (WAL journal, writers wait up to 5 s for each other).
class PreferenceStore {
 public:
  // The standard store every executable shares ("standard.sqlite3" in the preferences folder).
  // Never null. Calls with the same preferences folder share one open store while anyone holds
  // it; moving LINKWASH_HOME yields the store of the new folder. When the database cannot be
  // opened for writing, an empty in-memory store stands in (isTemporary()), so a program that
  // only reads settings still runs on default values; nothing is printed, the caller decides.
  // A new database is created 0600 in folders created 0700.
  static std::shared_ptr<PreferenceStore> standard();
  // The store of a named suite (an app group such as "group.com.morvellabs.linkwash"), kept in
  // "<name>.sqlite3" beside the standard store. Never null, as standard(); a name that is not a
  // plain file name (empty, "..", holding '/') also gets the in-memory stand-in.
  static std::shared_ptr<PreferenceStore> suite(std::string_view name);
  // A store at an explicit path; nothing when the database cannot be opened or created.
  static std::shared_ptr<PreferenceStore> open(const std::filesystem::path& path);

  ~PreferenceStore();
  PreferenceStore(const PreferenceStore&) = delete;
  PreferenceStore& operator=(const PreferenceStore&) = delete;

  // Absent only when the key is absent (a stored false is present).
  std::optional<PreferenceValue> object(std::string_view key) const;
  // Missing: false; numbers: non-zero; strings "true"/"YES" (any case) or "1"; data: false.
  bool boolForKey(std::string_view key) const;
  // Missing: 0; true: 1; doubles truncate; numeric strings give their value, other text 0.
  std::int64_t integerForKey(std::string_view key) const;
  // Missing: 0; true: 1; numeric strings give their value, other text and data 0.
  double doubleForKey(std::string_view key) const;
  // Strings as stored; numbers as text (true is "1"); data: absent.
  std::optional<std::string> stringForKey(std::string_view key) const;
  // Only stored data; a string is not converted.
  std::optional<Bytes> dataForKey(std::string_view key) const;

  // Each returns false when the write did not reach the database (removing an absent key is a
  // success).
  bool set(std::string_view key, const PreferenceValue& value);
  bool remove(std::string_view key);

  // What an update does with the value it edited.
  enum class Change { keep, write, remove };
  // Reads `key`, lets `edit` change the value (absent when the key is) and stores the outcome,
  // all in one transaction that holds the database's write lock from the read to the write, so
  // a change another process makes meanwhile is never lost. Every read-modify-write of a stored
  // list or map goes through here. `edit` must not use this store. False when the outcome could
  // not be stored (the database is then unchanged).
  bool update(std::string_view key,
              const std::function<Change(std::optional<PreferenceValue>& value)>& edit);
  // Every key and value, sorted by key.
  std::vector<std::pair<std::string, PreferenceValue>> all() const;

  // The database file; empty for the in-memory stand-in.
  const std::filesystem::path& path() const { return path_; }
  // True for the in-memory stand-in: nothing written to it outlives the process.
  bool isTemporary() const { return path_.empty(); }

 private:
  PreferenceStore(sqlite3* db, std::filesystem::path path);
  // Opens `filename` (":memory:" for the stand-in) and records `path` as the store's path.
  static std::shared_ptr<PreferenceStore> openDatabase(const std::string& filename,
                                                       std::filesystem::path path);
  bool prepareStatements();
  // The statements behind the public calls; the caller holds mutex_.
  std::optional<PreferenceValue> readLocked(std::string_view key) const;
  bool writeLocked(std::string_view key, const PreferenceValue& value);
  bool removeLocked(std::string_view key);

  sqlite3* db_;
  std::filesystem::path path_;
  // Prepared once and reused: a read is then a bind, a step and a reset.
  sqlite3_stmt* selectOne_ = nullptr;
  sqlite3_stmt* upsert_ = nullptr;
  sqlite3_stmt* deleteOne_ = nullptr;
  sqlite3_stmt* selectAll_ = nullptr;
  mutable std::mutex mutex_;
};

}  // namespace linkwash
