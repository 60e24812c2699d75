// A read-modify-write of several preferences as one SQLite transaction, so that two processes
// sharing a store (the clipboard daemon and a command, say) never lose each other's change.
//
//   updatePreferences(*store, [](PreferenceTransaction& t) {
//     t.set("stats_totalCleaned", t.integerForKey("stats_totalCleaned") + 1);
//   });
//
// The transaction takes the database's write lock before its first read (BEGIN IMMEDIATE), so
// what it reads cannot change before it commits. The in-memory stand-in store has no second
// process to race with and is changed directly.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/prefs/preference_store.h"

struct sqlite3;

namespace linkwash {

class PreferenceTransaction {
 public:
  // Reads see the transaction's own earlier writes.
  std::optional<PreferenceValue> object(std::string_view key);
  // Missing keys read as 0; true as 1; doubles truncate; numeric text gives its value.
  std::int64_t integerForKey(std::string_view key);
  std::optional<Bytes> dataForKey(std::string_view key);
  void set(std::string_view key, PreferenceValue value);
  void remove(std::string_view key);

 private:
  friend bool updatePreferences(PreferenceStore&,
                                const std::function<void(PreferenceTransaction&)>&);
  PreferenceTransaction(PreferenceStore* store, sqlite3* db) : store_(store), db_(db) {}
  std::optional<PreferenceValue> read(std::string_view key);

  PreferenceStore* store_;  // the in-memory stand-in, read directly
  sqlite3* db_;             // the transaction's own connection, or null for the stand-in
  // Pending writes (nothing = removal), applied in key order at commit.
  std::map<std::string, std::optional<PreferenceValue>, std::less<>> writes_;
};

// Runs `change` and commits what it wrote, all or nothing. False when the database could not be
// opened, locked (writers wait up to 5 s) or written; nothing is then changed.
bool updatePreferences(PreferenceStore& store,
                       const std::function<void(PreferenceTransaction&)>& change);

}  // namespace linkwash
