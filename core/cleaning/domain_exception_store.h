// The sites the user switched cleaning off for, kept in the preference store and published so a
// screen can show them. Hosts are normalized so that "WWW.Example.com " and "example.com" are one
// entry.
//
//   DomainExceptionStore store(PreferenceStore::standard());
//   store.disableURL("https://www.example.com/page");  // "example.com"
//   store.isDisabled("EXAMPLE.com");                   // true
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "platform/json/json_writer.h"
#include "platform/prefs/preference_store.h"

namespace linkwash {

// One switched-off site. The host is stored as given (normalizing is the store's job).
struct DomainException {
  std::string host;
  bool operator==(const DomainException&) const = default;
};

// {"host": "..."}.
Json encodeDomainException(const DomainException& exception);
// Nothing unless `json` is an object whose "host" is a string (other keys are ignored).
std::optional<DomainException> decodeDomainException(const Json& json);

// Thread safety: isDisabled, isDisabledURL and disabledDomains read an immutable snapshot (taking
// only a pointer-sized lock, never the writers' mutex) and may run concurrently with the writers;
// the writers (disable, enable, refresh) serialize their load-modify-save on the store's own mutex,
// so two writers in one process never lose each other's change. Another process's change is seen
// after the next write or refresh().
class DomainExceptionStore {
 public:
  // Loads the stored list; missing or undecodable data reads as the empty list.
  explicit DomainExceptionStore(std::shared_ptr<PreferenceStore> defaults);
  DomainExceptionStore(const DomainExceptionStore&) = delete;
  DomainExceptionStore& operator=(const DomainExceptionStore&) = delete;

  // Holds the UTF-8 JSON array of {"host": ...} objects, in insertion order, as data.
  static constexpr std::string_view kStorageKey = "domainExceptions_disabledDomains";

  // Trims white space and line breaks, lowercases (Unicode), then removes one leading "www.".
  // Other subdomains, ports and trailing dots stay.
  static std::string normalize(std::string_view host);
  // The normalized host of an "http://" or "https://" link (scheme case-sensitive, after
  // trimming); nothing for other text, text that is not a URL, or a URL without a host.
  static std::optional<std::string> normalizedHost(std::string_view urlString);

  // Whether the normalized `host` is in the in-memory list; never reads the preference store.
  // Does not allocate for ASCII hosts of ordinary length.
  bool isDisabled(std::string_view host) const;
  // False when the link has no host (see normalizedHost).
  bool isDisabledURL(std::string_view urlString) const;

  // The longest host name DNS allows; longer site names are refused and skipped when loading.
  static constexpr std::size_t kMaxHostBytes = 253;

  // Reload, add the normalized host unless present, and only when the list changed save it and
  // publish it. False (nothing changes) when the normalized host is longer than kMaxHostBytes.
  bool disable(std::string_view host);
  // Reload, remove every entry with the normalized host, and only when the list changed save it
  // and publish it.
  void enable(std::string_view host);
  // disable/enable the link's normalized host; returns that host, or nothing (and does nothing)
  // when the link has none or disable refuses it.
  std::optional<std::string> disableURL(std::string_view urlString);
  std::optional<std::string> enableURL(std::string_view urlString);
  // Reloads the list from the preference store and publishes it.
  void refresh();

  // A copy of the published list, in insertion order.
  std::vector<DomainException> disabledDomains() const;

  // Called with the new list on the writer's thread whenever the list is published, while the
  // store's mutex is held: the observer may read the store but must not call its writers.
  void setObserver(std::function<void(const std::vector<DomainException>&)> observer);

 private:
  struct StringHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const noexcept {
      return std::hash<std::string_view>{}(text);
    }
  };
  struct Snapshot {
    std::vector<DomainException> list;
    std::unordered_set<std::string, StringHash, std::equal_to<>> hosts;
  };

  // Both run with mutex_ held.
  std::vector<DomainException> load();
  void publish(std::vector<DomainException> list);
  std::shared_ptr<const Snapshot> snapshot() const;

  std::shared_ptr<PreferenceStore> defaults_;
  // Replaced whole on every publish, never changed in place. It has a lock of its own, held only
  // to copy or swap the pointer, so readers never wait for a write to the database.
  // (ThreadSanitizer reports races inside GCC 12's std::atomic<std::shared_ptr>.)
  std::shared_ptr<const Snapshot> snapshot_;
  mutable std::mutex snapshotMutex_;
  std::function<void(const std::vector<DomainException>&)> observer_;
  std::optional<std::optional<Bytes>> loaded_;  // the stored data last decoded
  mutable std::mutex mutex_;  // serializes load-modify-save; guards observer_ and loaded_
};

}  // namespace linkwash
