// PreferenceStore on SQLite: one table of (key, type, value) rows per database file, read afresh
// on every access so that several processes share live preferences.
#include "platform/prefs/preference_store.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <limits>
#include <map>
#include <system_error>
#include <thread>

#include "platform/fs/files.h"
#include "platform/fs/paths.h"

namespace linkwash {
namespace {

namespace fs = std::filesystem;

constexpr int kBusyTimeoutMs = 5000;

// Stored beside each value so that a bool stays a bool (SQLite keeps both as integers).
enum class StoredType : int { boolean = 1, integer = 2, real = 3, text = 4, data = 5 };

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS preferences ("
    "key TEXT PRIMARY KEY NOT NULL, type INTEGER NOT NULL, value) WITHOUT ROWID";

bool isBusy(int rc) {
  rc &= 0xFF;
  return rc == SQLITE_BUSY || rc == SQLITE_LOCKED;
}

// Runs setup statements. The busy handler covers ordinary waits, but switching a brand-new
// database to WAL while another process creates it can still report busy at once, so retry.
bool execute(sqlite3* db, const char* sql) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(kBusyTimeoutMs);
  for (;;) {
    int rc = sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
    if (rc == SQLITE_OK) return true;
    if (!isBusy(rc) || std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

// Resets a cached statement however the caller leaves, so that no read transaction stays open
// (an open one would hide other processes' later writes).
class StatementUse {
 public:
  explicit StatementUse(sqlite3_stmt* statement) : statement_(statement) {}
  ~StatementUse() {
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
  }
  StatementUse(const StatementUse&) = delete;
  StatementUse& operator=(const StatementUse&) = delete;

 private:
  sqlite3_stmt* statement_;
};

bool bindText(sqlite3_stmt* statement, int index, std::string_view text) {
  // SQLITE_STATIC: the statement is stepped and reset before `text` goes away.
  return sqlite3_bind_text64(statement, index, text.data(), text.size(), SQLITE_STATIC,
                             SQLITE_UTF8) == SQLITE_OK;
}

std::optional<PreferenceValue> decode(sqlite3_stmt* statement, int typeColumn, int valueColumn) {
  const int columnType = sqlite3_column_type(statement, valueColumn);
  auto text = [&] {
    const auto* bytes = sqlite3_column_text(statement, valueColumn);
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, valueColumn));
    return bytes == nullptr ? std::string()
                            : std::string(reinterpret_cast<const char*>(bytes), size);
  };
  auto blob = [&] {
    const auto* bytes =
        static_cast<const std::uint8_t*>(sqlite3_column_blob(statement, valueColumn));
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, valueColumn));
    return bytes == nullptr ? Bytes() : Bytes(bytes, bytes + size);
  };
  switch (static_cast<StoredType>(sqlite3_column_int(statement, typeColumn))) {
    case StoredType::boolean:
      return PreferenceValue{sqlite3_column_int64(statement, valueColumn) != 0};
    case StoredType::integer:
      return PreferenceValue{
          static_cast<std::int64_t>(sqlite3_column_int64(statement, valueColumn))};
    case StoredType::real:
      // SQLite stores NaN as NULL.
      if (columnType == SQLITE_NULL)
        return PreferenceValue{std::numeric_limits<double>::quiet_NaN()};
      return PreferenceValue{sqlite3_column_double(statement, valueColumn)};
    case StoredType::text:
      return PreferenceValue{text()};
    case StoredType::data:
      return PreferenceValue{blob()};
  }
  // A row written by another tool: go by SQLite's own type.
  switch (columnType) {
    case SQLITE_INTEGER:
      return PreferenceValue{
          static_cast<std::int64_t>(sqlite3_column_int64(statement, valueColumn))};
    case SQLITE_FLOAT:
      return PreferenceValue{sqlite3_column_double(statement, valueColumn)};
    case SQLITE_TEXT:
      return PreferenceValue{text()};
    case SQLITE_BLOB:
      return PreferenceValue{blob()};
    default:
      return std::nullopt;
  }
}

std::int64_t truncateToInteger(double value) {
  if (std::isnan(value)) return 0;
  constexpr double kLimit = 9223372036854775808.0;  // 2^63
  if (value >= kLimit) return std::numeric_limits<std::int64_t>::max();
  if (value < -kLimit) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(value);
}

// Numeric text: the whole string is a decimal number (an optional sign, digits, an optional
// fraction and exponent). Surrounding blanks, "inf" and "nan" are not numbers.
std::string_view withoutPlus(std::string_view text) {
  if (text.size() > 1 && text[0] == '+' && text[1] != '-' && text[1] != '+') text.remove_prefix(1);
  return text;
}

std::optional<double> parseDouble(std::string_view text) {
  text = withoutPlus(text);
  double value = 0;
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value);
  if (ec != std::errc() || ptr != end || !std::isfinite(value)) return std::nullopt;
  return value;
}

std::int64_t integerFromText(std::string_view text) {
  std::string_view digits = withoutPlus(text);
  std::int64_t value = 0;
  const char* end = digits.data() + digits.size();
  auto [ptr, ec] = std::from_chars(digits.data(), end, value);
  if (ptr == end && !digits.empty()) {
    if (ec == std::errc()) return value;
    if (ec == std::errc::result_out_of_range) {
      return digits[0] == '-' ? std::numeric_limits<std::int64_t>::min()
                              : std::numeric_limits<std::int64_t>::max();
    }
  }
  if (auto real = parseDouble(text)) return truncateToInteger(*real);
  return 0;
}

std::string doubleText(double value) {
  char buffer[64];
  auto [ptr, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
  return ec == std::errc() ? std::string(buffer, ptr) : std::string();
}

template <typename... F>
struct Overloaded : F... {
  using F::operator()...;
};
template <typename... F>
Overloaded(F...) -> Overloaded<F...>;

// The shared stores of standard() and suite(), by database path. Weak, so a store closes when
// its last user lets go. An entry only counts for the process that opened it (a connection must
// not cross fork()) and while the file it opened is still the one at that path (tests delete
// their homes). A stand-in is reused while held, so the warning is not repeated on every call.
struct SharedStore {
  std::weak_ptr<PreferenceStore> store;
  pid_t pid = 0;
  bool standIn = false;
  dev_t device = 0;
  ino_t inode = 0;
};

// Silent: whether a temporary store is acceptable depends on the command (one that only cleans
// goes on; one that changes a setting must fail), so callers check isTemporary() and say so.
std::shared_ptr<PreferenceStore> inMemoryStandIn() { return PreferenceStore::open(":memory:"); }

std::shared_ptr<PreferenceStore> sharedStore(const fs::path& path) {
  // Never destroyed, so a store requested during static destruction still finds its cache.
  static auto* mutex = new std::mutex;
  static auto* stores = new std::map<fs::path, SharedStore>;
  std::lock_guard lock(*mutex);
  struct stat info {};
  const bool exists = ::stat(path.c_str(), &info) == 0;
  if (auto found = stores->find(path); found != stores->end() && found->second.pid == ::getpid()) {
    const SharedStore& entry = found->second;
    const bool sameFile =
        exists && !entry.standIn && entry.device == info.st_dev && entry.inode == info.st_ino;
    if (sameFile || (entry.standIn && !exists)) {
      if (auto store = entry.store.lock()) return store;
    }
  }
  // Drop entries whose stores have closed, so a process that moves LINKWASH_HOME often (the
  // tests) does not collect them.
  std::erase_if(*stores, [](const auto& entry) { return entry.second.store.expired(); });
  SharedStore entry;
  entry.pid = ::getpid();
  auto store = PreferenceStore::open(path);
  if (store && ::stat(path.c_str(), &info) == 0) {
    entry.device = info.st_dev;
    entry.inode = info.st_ino;
  } else if (!store) {
    store = inMemoryStandIn();
    entry.standIn = true;
  }
  entry.store = store;
  (*stores)[path] = entry;
  return store;
}

}  // namespace

PreferenceStore::PreferenceStore(sqlite3* db, fs::path path) : db_(db), path_(std::move(path)) {}

PreferenceStore::~PreferenceStore() {
  for (sqlite3_stmt* statement : {selectOne_, upsert_, deleteOne_, selectAll_}) {
    sqlite3_finalize(statement);
  }
  sqlite3_close(db_);
}

std::shared_ptr<PreferenceStore> PreferenceStore::standard() {
  return sharedStore(paths::preferences() / "standard.sqlite3");
}

std::shared_ptr<PreferenceStore> PreferenceStore::suite(std::string_view name) {
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string_view::npos ||
      name.find('\0') != std::string_view::npos) {
    return inMemoryStandIn();
  }
  return sharedStore(paths::preferences() / (std::string(name) + ".sqlite3"));
}

std::shared_ptr<PreferenceStore> PreferenceStore::open(const fs::path& path) {
  if (path == ":memory:") return openDatabase(":memory:", fs::path());
  if (path.has_parent_path() && !files::createPrivateDirectories(path.parent_path())) {
    return nullptr;
  }
  // The database says which sites a person switched off; it is theirs alone whatever the
  // umask. SQLite gives its journal files the database's own mode.
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return nullptr;
  ::close(fd);
  return openDatabase(path.string(), path);
}

std::shared_ptr<PreferenceStore> PreferenceStore::openDatabase(const std::string& filename,
                                                               fs::path path) {
  sqlite3* db = nullptr;
  // The store's own mutex serialises use of the connection, so SQLite's is not needed.
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
  if (sqlite3_open_v2(filename.c_str(), &db, flags, nullptr) != SQLITE_OK) {
    sqlite3_close(db);
    return nullptr;
  }
  sqlite3_busy_timeout(db, kBusyTimeoutMs);
  // WAL lets readers in other processes go on while one writes. NORMAL sync keeps the database
  // consistent through any crash; a power cut may lose the last few writes, which preferences
  // can afford in exchange for not syncing on every switch the user flips.
  if (!execute(db, "PRAGMA journal_mode=WAL") || !execute(db, "PRAGMA synchronous=NORMAL") ||
      !execute(db, kSchema)) {
    sqlite3_close(db);
    return nullptr;
  }
  std::shared_ptr<PreferenceStore> store(new PreferenceStore(db, std::move(path)));
  if (!store->prepareStatements()) return nullptr;
  return store;
}

bool PreferenceStore::prepareStatements() {
  auto prepare = [&](const char* sql, sqlite3_stmt** statement) {
    return sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, statement, nullptr) ==
           SQLITE_OK;
  };
  return prepare("SELECT type, value FROM preferences WHERE key = ?1", &selectOne_) &&
         prepare("INSERT OR REPLACE INTO preferences (key, type, value) VALUES (?1, ?2, ?3)",
                 &upsert_) &&
         prepare("DELETE FROM preferences WHERE key = ?1", &deleteOne_) &&
         prepare("SELECT key, type, value FROM preferences ORDER BY key", &selectAll_);
}

std::optional<PreferenceValue> PreferenceStore::object(std::string_view key) const {
  std::lock_guard lock(mutex_);
  return readLocked(key);
}

std::optional<PreferenceValue> PreferenceStore::readLocked(std::string_view key) const {
  StatementUse use(selectOne_);
  if (!bindText(selectOne_, 1, key)) return std::nullopt;
  if (sqlite3_step(selectOne_) != SQLITE_ROW) return std::nullopt;
  return decode(selectOne_, 0, 1);
}

bool PreferenceStore::boolForKey(std::string_view key) const {
  auto value = object(key);
  if (!value) return false;
  return std::visit(Overloaded{
                        [](bool b) { return b; },
                        [](std::int64_t i) { return i != 0; },
                        [](double d) { return d != 0; },
                        [](const std::string& s) {
                          return asciiIEquals(s, "true") || asciiIEquals(s, "yes") || s == "1";
                        },
                        [](const Bytes&) { return false; },
                    },
                    *value);
}

std::int64_t PreferenceStore::integerForKey(std::string_view key) const {
  auto value = object(key);
  if (!value) return 0;
  return std::visit(Overloaded{
                        [](bool b) -> std::int64_t { return b ? 1 : 0; },
                        [](std::int64_t i) { return i; },
                        [](double d) { return truncateToInteger(d); },
                        [](const std::string& s) { return integerFromText(s); },
                        [](const Bytes&) -> std::int64_t { return 0; },
                    },
                    *value);
}

double PreferenceStore::doubleForKey(std::string_view key) const {
  auto value = object(key);
  if (!value) return 0;
  return std::visit(Overloaded{
                        [](bool b) { return b ? 1.0 : 0.0; },
                        [](std::int64_t i) { return static_cast<double>(i); },
                        [](double d) { return d; },
                        [](const std::string& s) { return parseDouble(s).value_or(0.0); },
                        [](const Bytes&) { return 0.0; },
                    },
                    *value);
}

std::optional<std::string> PreferenceStore::stringForKey(std::string_view key) const {
  auto value = object(key);
  if (!value) return std::nullopt;
  return std::visit(
      Overloaded{
          [](bool b) -> std::optional<std::string> { return b ? "1" : "0"; },
          [](std::int64_t i) -> std::optional<std::string> { return std::to_string(i); },
          [](double d) -> std::optional<std::string> { return doubleText(d); },
          [](const std::string& s) -> std::optional<std::string> { return s; },
          [](const Bytes&) -> std::optional<std::string> { return std::nullopt; },
      },
      *value);
}

std::optional<Bytes> PreferenceStore::dataForKey(std::string_view key) const {
  auto value = object(key);
  if (!value) return std::nullopt;
  if (auto* bytes = std::get_if<Bytes>(&*value)) return std::move(*bytes);
  return std::nullopt;
}

bool PreferenceStore::set(std::string_view key, const PreferenceValue& value) {
  std::lock_guard lock(mutex_);
  return writeLocked(key, value);
}

bool PreferenceStore::writeLocked(std::string_view key, const PreferenceValue& value) {
  StatementUse use(upsert_);
  if (!bindText(upsert_, 1, key)) return false;
  auto bindTyped = [&](StoredType type, auto bindValue) {
    return sqlite3_bind_int(upsert_, 2, static_cast<int>(type)) == SQLITE_OK &&
           bindValue() == SQLITE_OK;
  };
  const bool bound = std::visit(
      Overloaded{
          [&](bool b) {
            return bindTyped(StoredType::boolean,
                             [&] { return sqlite3_bind_int(upsert_, 3, b ? 1 : 0); });
          },
          [&](std::int64_t i) {
            return bindTyped(StoredType::integer,
                             [&] { return sqlite3_bind_int64(upsert_, 3, i); });
          },
          [&](double d) {
            return bindTyped(StoredType::real, [&] { return sqlite3_bind_double(upsert_, 3, d); });
          },
          [&](const std::string& s) {
            return bindTyped(StoredType::text,
                             [&] { return bindText(upsert_, 3, s) ? SQLITE_OK : SQLITE_ERROR; });
          },
          [&](const Bytes& bytes) {
            return bindTyped(StoredType::data, [&] {
              // A null pointer would bind NULL rather than an empty blob.
              if (bytes.empty()) return sqlite3_bind_zeroblob(upsert_, 3, 0);
              return sqlite3_bind_blob64(upsert_, 3, bytes.data(), bytes.size(), SQLITE_STATIC);
            });
          },
      },
      value);
  return bound && sqlite3_step(upsert_) == SQLITE_DONE;
}

bool PreferenceStore::remove(std::string_view key) {
  std::lock_guard lock(mutex_);
  return removeLocked(key);
}

bool PreferenceStore::removeLocked(std::string_view key) {
  StatementUse use(deleteOne_);
  return bindText(deleteOne_, 1, key) && sqlite3_step(deleteOne_) == SQLITE_DONE;
}

bool PreferenceStore::update(std::string_view key,
                             const std::function<Change(std::optional<PreferenceValue>&)>& edit) {
  std::lock_guard lock(mutex_);
  // IMMEDIATE takes the write lock before the read, so two processes editing the same list
  // queue up instead of both editing the value they read.
  if (!execute(db_, "BEGIN IMMEDIATE")) return false;
  std::optional<PreferenceValue> value = readLocked(key);
  bool stored = true;
  switch (edit(value)) {
    case Change::keep:
      break;
    case Change::write:
      stored = value ? writeLocked(key, *value) : removeLocked(key);
      break;
    case Change::remove:
      stored = removeLocked(key);
      break;
  }
  if (stored && sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK) return true;
  sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
  return false;
}

std::vector<std::pair<std::string, PreferenceValue>> PreferenceStore::all() const {
  std::lock_guard lock(mutex_);
  StatementUse use(selectAll_);
  std::vector<std::pair<std::string, PreferenceValue>> entries;
  while (sqlite3_step(selectAll_) == SQLITE_ROW) {
    const auto* key = sqlite3_column_text(selectAll_, 0);
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(selectAll_, 0));
    auto value = decode(selectAll_, 1, 2);
    if (key == nullptr || !value) continue;
    entries.emplace_back(std::string(reinterpret_cast<const char*>(key), size), std::move(*value));
  }
  return entries;
}

}  // namespace linkwash
