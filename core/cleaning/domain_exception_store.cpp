// Per-site switches: normalization, the stored JSON list and the published snapshot.
#include "core/cleaning/domain_exception_store.h"

#include <algorithm>
#include <array>
#include <utility>

#include "base/strings.h"
#include "platform/regex/case_mapping.h"
#include "platform/url/url_components.h"

namespace linkwash {
namespace {

constexpr std::string_view kWwwPrefix = "www.";

std::string_view withoutWww(std::string_view host) {
  return startsWith(host, kWwwPrefix) ? host.substr(kWwwPrefix.size()) : host;
}

}  // namespace

Json encodeDomainException(const DomainException& exception) {
  Json json = Json::object();
  json["host"] = exception.host;
  return json;
}

std::optional<DomainException> decodeDomainException(const Json& json) {
  if (!json.is_object()) return std::nullopt;
  const auto host = json.find("host");
  if (host == json.end() || !host->is_string()) return std::nullopt;
  return DomainException{host->get<std::string>()};
}

DomainExceptionStore::DomainExceptionStore(std::shared_ptr<PreferenceStore> defaults)
    : defaults_(std::move(defaults)) {
  std::lock_guard lock(mutex_);
  publish(load());
}

std::string DomainExceptionStore::normalize(std::string_view host) {
  const std::string lowered = unicodeLowercase(trimWhitespaceAndNewlines(host));
  return std::string(withoutWww(lowered));
}

std::optional<std::string> DomainExceptionStore::normalizedHost(std::string_view urlString) {
  const std::string_view trimmed = trimWhitespaceAndNewlines(urlString);
  if (!startsWith(trimmed, "http://") && !startsWith(trimmed, "https://")) return std::nullopt;
  const auto components = URLComponents::parse(trimmed);
  if (!components) return std::nullopt;
  const auto host = components->host();
  if (!host || host->empty()) return std::nullopt;
  return normalize(*host);
}

bool DomainExceptionStore::isDisabled(std::string_view host) const {
  const std::shared_ptr<const Snapshot> current = snapshot();
  if (current->hosts.empty()) return false;
  // Every cleaned link asks, so an ordinary ASCII host is lowered on the stack; anything else
  // takes the full Unicode path.
  const std::string_view trimmed = trimWhitespaceAndNewlines(host);
  std::array<char, 256> buffer;
  const bool ascii = std::all_of(trimmed.begin(), trimmed.end(),
                                 [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  if (ascii && trimmed.size() <= buffer.size()) {
    std::transform(trimmed.begin(), trimmed.end(), buffer.begin(), [](char c) {
      return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    });
    return current->hosts.contains(withoutWww(std::string_view(buffer.data(), trimmed.size())));
  }
  return current->hosts.contains(normalize(trimmed));
}

bool DomainExceptionStore::isDisabledURL(std::string_view urlString) const {
  const auto host = normalizedHost(urlString);
  return host && isDisabled(*host);
}

bool DomainExceptionStore::disable(std::string_view host) {
  std::string normalized = normalize(host);
  if (normalized.size() > kMaxHostBytes) return false;
  std::lock_guard lock(mutex_);
  std::vector<DomainException> list = load();
  const bool present = std::any_of(list.begin(), list.end(),
                                   [&](const DomainException& e) { return e.host == normalized; });
  if (present) return true;
  list.push_back(DomainException{std::move(normalized)});
  // The store reports a write that did not reach the database, but the user's choice still holds
  // for this process, as it would have with a store that cannot report failures.
  Json json = Json::array();
  for (const DomainException& entry : list) json.push_back(encodeDomainException(entry));
  defaults_->set(kStorageKey, toBytes(writeJson(json)));
  publish(std::move(list));
  return true;
}

void DomainExceptionStore::enable(std::string_view host) {
  const std::string normalized = normalize(host);
  std::lock_guard lock(mutex_);
  std::vector<DomainException> list = load();
  const auto removed =
      std::erase_if(list, [&](const DomainException& e) { return e.host == normalized; });
  if (removed == 0) return;
  Json json = Json::array();
  for (const DomainException& entry : list) json.push_back(encodeDomainException(entry));
  defaults_->set(kStorageKey, toBytes(writeJson(json)));
  publish(std::move(list));
}

std::optional<std::string> DomainExceptionStore::disableURL(std::string_view urlString) {
  auto host = normalizedHost(urlString);
  if (host && !disable(*host)) return std::nullopt;
  return host;
}

std::optional<std::string> DomainExceptionStore::enableURL(std::string_view urlString) {
  auto host = normalizedHost(urlString);
  if (host) enable(*host);
  return host;
}

void DomainExceptionStore::refresh() {
  std::lock_guard lock(mutex_);
  // Callers refresh before every clean; decoding an unchanged list each time would make a clean
  // cost grow with the number of switched-off sites.
  const auto data = defaults_->dataForKey(kStorageKey);
  if (loaded_ && data == *loaded_) return;
  publish(load());
}

std::vector<DomainException> DomainExceptionStore::disabledDomains() const {
  return snapshot()->list;
}

void DomainExceptionStore::setObserver(
    std::function<void(const std::vector<DomainException>&)> observer) {
  std::lock_guard lock(mutex_);
  observer_ = std::move(observer);
}

std::vector<DomainException> DomainExceptionStore::load() {
  const auto data = defaults_->dataForKey(kStorageKey);
  loaded_ = data;
  if (!data) return {};
  const auto json = parseJson(toString(*data));
  if (!json || !json->is_array()) return {};
  std::vector<DomainException> list;
  list.reserve(json->size());
  for (const Json& item : *json) {
    auto entry = decodeDomainException(item);
    // One bad element spoils the whole list, as a decoder of the array would.
    if (!entry) return {};
    // No host is longer; a stored one that is can only be damage or an attack on every clean.
    if (entry->host.size() > kMaxHostBytes) continue;
    list.push_back(std::move(*entry));
  }
  return list;
}

void DomainExceptionStore::publish(std::vector<DomainException> list) {
  auto next = std::make_shared<Snapshot>();
  next->list = std::move(list);
  for (const DomainException& entry : next->list) next->hosts.insert(entry.host);
  {
    std::lock_guard pointerLock(snapshotMutex_);
    snapshot_ = next;
  }
  if (observer_) observer_(next->list);
}

std::shared_ptr<const DomainExceptionStore::Snapshot> DomainExceptionStore::snapshot() const {
  std::lock_guard pointerLock(snapshotMutex_);
  return snapshot_;
}

}  // namespace linkwash
