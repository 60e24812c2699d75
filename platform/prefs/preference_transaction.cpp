#include "platform/prefs/preference_transaction.h"

#include <sqlite3.h>

#include <charconv>
#include <cmath>
#include <limits>

namespace linkwash {
namespace {

constexpr int kBusyTimeoutMs = 5000;

// The type codes PreferenceStore keeps beside each value; they are part of the file format.
enum class StoredType : int { boolean = 1, integer = 2, real = 3, text = 4, data = 5 };

class Connection {
 public:
  explicit Connection(const std::string& path) {
    if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr) !=
        SQLITE_OK) {
      sqlite3_close(db_);
      db_ = nullptr;
      return;
    }
    sqlite3_busy_timeout(db_, kBusyTimeoutMs);
  }
  ~Connection() { sqlite3_close(db_); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  sqlite3* get() const { return db_; }
  bool exec(const char* sql) const {
    return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
  }

 private:
  sqlite3* db_ = nullptr;
};

struct Statement {
  Statement(sqlite3* db, const char* sql) { sqlite3_prepare_v2(db, sql, -1, &statement, nullptr); }
  ~Statement() { sqlite3_finalize(statement); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  sqlite3_stmt* statement = nullptr;
};

bool bindKey(sqlite3_stmt* statement, std::string_view key) {
  return sqlite3_bind_text64(statement, 1, key.data(), key.size(), SQLITE_TRANSIENT, SQLITE_UTF8) ==
         SQLITE_OK;
}

bool writeRow(sqlite3* db, std::string_view key, const PreferenceValue& value) {
  Statement s(db, "INSERT OR REPLACE INTO preferences (key, type, value) VALUES (?1, ?2, ?3)");
  if (s.statement == nullptr || !bindKey(s.statement, key)) return false;
  const auto type = static_cast<StoredType>(value.index() + 1);
  sqlite3_bind_int(s.statement, 2, static_cast<int>(type));
  std::visit(
      [&](const auto& v) {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, bool>) {
          sqlite3_bind_int(s.statement, 3, v ? 1 : 0);
        } else if constexpr (std::is_same_v<T, std::int64_t>) {
          sqlite3_bind_int64(s.statement, 3, v);
        } else if constexpr (std::is_same_v<T, double>) {
          sqlite3_bind_double(s.statement, 3, v);
        } else if constexpr (std::is_same_v<T, std::string>) {
          sqlite3_bind_text64(s.statement, 3, v.data(), v.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
        } else {
          sqlite3_bind_blob64(s.statement, 3, v.data(), v.size(), SQLITE_TRANSIENT);
        }
      },
      value);
  return sqlite3_step(s.statement) == SQLITE_DONE;
}

bool deleteRow(sqlite3* db, std::string_view key) {
  Statement s(db, "DELETE FROM preferences WHERE key = ?1");
  return s.statement != nullptr && bindKey(s.statement, key) &&
         sqlite3_step(s.statement) == SQLITE_DONE;
}

}  // namespace

static_assert(std::variant_size_v<PreferenceValue> == 5, "type codes follow the variant's order");

std::optional<PreferenceValue> PreferenceTransaction::read(std::string_view key) {
  if (db_ == nullptr) return store_->object(key);
  Statement s(db_, "SELECT type, value FROM preferences WHERE key = ?1");
  if (s.statement == nullptr || !bindKey(s.statement, key) ||
      sqlite3_step(s.statement) != SQLITE_ROW) {
    return std::nullopt;
  }
  sqlite3_stmt* row = s.statement;
  const auto size = static_cast<std::size_t>(sqlite3_column_bytes(row, 1));
  switch (static_cast<StoredType>(sqlite3_column_int(row, 0))) {
    case StoredType::boolean:
      return PreferenceValue{sqlite3_column_int64(row, 1) != 0};
    case StoredType::real:
      return PreferenceValue{sqlite3_column_double(row, 1)};
    case StoredType::text: {
      const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(row, 1));
      return PreferenceValue{text ? std::string(text, size) : std::string()};
    }
    case StoredType::data: {
      const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(row, 1));
      return PreferenceValue{bytes ? Bytes(bytes, bytes + size) : Bytes()};
    }
    case StoredType::integer:
    default:
      return PreferenceValue{static_cast<std::int64_t>(sqlite3_column_int64(row, 1))};
  }
}

std::optional<PreferenceValue> PreferenceTransaction::object(std::string_view key) {
  if (const auto pending = writes_.find(key); pending != writes_.end()) return pending->second;
  return read(key);
}

std::int64_t PreferenceTransaction::integerForKey(std::string_view key) {
  const auto value = object(key);
  if (!value) return 0;
  if (const auto* b = std::get_if<bool>(&*value)) return *b ? 1 : 0;
  if (const auto* i = std::get_if<std::int64_t>(&*value)) return *i;
  if (const auto* d = std::get_if<double>(&*value)) {
    if (std::isnan(*d)) return 0;
    if (*d >= 9.2e18) return std::numeric_limits<std::int64_t>::max();
    if (*d <= -9.2e18) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(*d);
  }
  if (const auto* s = std::get_if<std::string>(&*value)) {
    std::int64_t parsed = 0;
    const auto [end, error] = std::from_chars(s->data(), s->data() + s->size(), parsed);
    return error == std::errc() && end == s->data() + s->size() ? parsed : 0;
  }
  return 0;
}

std::optional<Bytes> PreferenceTransaction::dataForKey(std::string_view key) {
  auto value = object(key);
  if (!value) return std::nullopt;
  if (auto* bytes = std::get_if<Bytes>(&*value)) return std::move(*bytes);
  return std::nullopt;
}

void PreferenceTransaction::set(std::string_view key, PreferenceValue value) {
  writes_.insert_or_assign(std::string(key), std::move(value));
}

void PreferenceTransaction::remove(std::string_view key) {
  writes_.insert_or_assign(std::string(key), std::nullopt);
}

bool updatePreferences(PreferenceStore& store,
                       const std::function<void(PreferenceTransaction&)>& change) {
  if (store.path().empty()) {
    PreferenceTransaction transaction(&store, nullptr);
    change(transaction);
    bool ok = true;
    for (const auto& [key, value] : transaction.writes_) {
      ok = (value ? store.set(key, *value) : store.remove(key)) && ok;
    }
    return ok;
  }
  // A connection of our own: the store's connection stays free for other threads' reads, and
  // the write lock taken here is what other processes wait on.
  Connection connection(store.path().string());
  if (connection.get() == nullptr || !connection.exec("BEGIN IMMEDIATE")) return false;
  PreferenceTransaction transaction(nullptr, connection.get());
  change(transaction);
  for (const auto& [key, value] : transaction.writes_) {
    if (!(value ? writeRow(connection.get(), key, *value) : deleteRow(connection.get(), key))) {
      connection.exec("ROLLBACK");
      return false;
    }
  }
  if (connection.exec("COMMIT")) return true;
  connection.exec("ROLLBACK");
  return false;
}

}  // namespace linkwash
