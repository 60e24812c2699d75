#include "core/awareness/update_awareness.h"

#include <chrono>
#include <cmath>

#include "base/strings.h"
#include "platform/prefs/preference_store.h"
#include "platform/prefs/preference_transaction.h"

namespace linkwash {
namespace {

constexpr double kAutomaticCheckInterval = 86400;

std::optional<std::vector<std::uint64_t>> versionPieces(std::string_view version) {
  if (version.empty() || version.size() > 80) return std::nullopt;
  for (char c : version) {
    if ((c < '0' || c > '9') && c != '.') return std::nullopt;
  }
  const auto parts = split(version, '.');
  if (parts.size() > 6) return std::nullopt;
  std::vector<std::uint64_t> pieces;
  for (auto part : parts) {
    if (part.empty()) return std::nullopt;
    // Leading zeros are skipped so that a long run of them cannot overflow; larger values
    // saturate, which keeps the order of any realistic version.
    std::uint64_t value = 0;
    for (char c : part) {
      const std::uint64_t digit = static_cast<std::uint64_t>(c - '0');
      value = value > (UINT64_MAX - digit) / 10 ? UINT64_MAX : value * 10 + digit;
    }
    pieces.push_back(value);
  }
  return pieces;
}

std::optional<UpdateClass> updateClassFromRaw(std::string_view raw) {
  for (auto c : kAllUpdateClasses) {
    if (rawValue(c) == raw) return c;
  }
  return std::nullopt;
}

bool isFinite(double value) { return std::isfinite(value); }

}  // namespace

std::string_view rawValue(UpdateClass updateClass) {
  switch (updateClass) {
    case UpdateClass::app:
      return "app";
    case UpdateClass::rules:
      return "rules";
    case UpdateClass::catalog:
      return "catalog";
  }
  return "";
}

std::string_view title(UpdateClass updateClass) {
  switch (updateClass) {
    case UpdateClass::app:
      return "Linkwash";
    case UpdateClass::rules:
      return "Rules";
    case UpdateClass::catalog:
      return "Privacy Services catalog";
  }
  return "";
}

bool UpdateVersion::isAccepted(std::string_view version) {
  return versionPieces(version).has_value();
}

std::optional<std::strong_ordering> UpdateVersion::compare(std::string_view a, std::string_view b) {
  const auto left = versionPieces(a);
  const auto right = versionPieces(b);
  if (!left || !right) return std::nullopt;
  for (std::size_t i = 0; i < std::max(left->size(), right->size()); ++i) {
    const std::uint64_t x = i < left->size() ? (*left)[i] : 0;
    const std::uint64_t y = i < right->size() ? (*right)[i] : 0;
    if (x != y) return x <=> y;
  }
  return std::strong_ordering::equal;
}

bool UpdateAwarenessState::beginAutomatic(UpdateClass updateClass, double now) {
  if (!automaticChecks || !isFinite(now) || now < 0) return false;
  if (auto it = entries.find(updateClass);
      it != entries.end() && it->second.lastAttempt &&
      now - *it->second.lastAttempt < kAutomaticCheckInterval) {
    return false;
  }
  entries[updateClass].lastAttempt = now;
  return true;
}

void UpdateAwarenessState::recordSuccess(UpdateClass updateClass, std::string_view version,
                                         std::optional<std::int64_t> build, double now) {
  if (!UpdateVersion::isAccepted(version) || !isFinite(now) || (build && *build < 0)) return;
  Entry& entry = entries[updateClass];
  entry.lastSuccess = now;
  entry.availableVersion = std::string(version);
  entry.availableBuild = build;
  if (entry.installedVersion) {
    const std::string installed = *entry.installedVersion;
    reconcile(updateClass, installed, entry.installedBuild);
  }
}

void UpdateAwarenessState::reconcile(UpdateClass updateClass, std::string_view version,
                                     std::optional<std::int64_t> build) {
  if (!UpdateVersion::isAccepted(version) || (build && *build < 0)) return;
  Entry& entry = entries[updateClass];
  entry.installedVersion = std::string(version);
  entry.installedBuild = build;
  if (!entry.availableVersion) return;
  const auto order = UpdateVersion::compare(*entry.availableVersion, version);
  if (!order) return;
  bool clear = false;
  if (*order == std::strong_ordering::less) {
    clear = true;
  } else if (*order == std::strong_ordering::equal) {
    // Rules and catalogs are identified by version alone; an app release of the same version
    // can still bring a newer build.
    if (updateClass != UpdateClass::app) {
      clear = true;
    } else if (!build) {
      clear = !entry.availableBuild || *entry.availableBuild < 1;
    } else {
      clear = *build >= entry.availableBuild.value_or(0);
    }
  }
  if (clear) {
    entry.availableVersion.reset();
    entry.availableBuild.reset();
  }
}

std::vector<UpdateClass> UpdateAwarenessState::available() const {
  std::vector<UpdateClass> result;
  for (auto c : kAllUpdateClasses) {
    if (auto it = entries.find(c); it != entries.end() && it->second.availableVersion) {
      result.push_back(c);
    }
  }
  return result;
}

std::string UpdateAwarenessState::label(UpdateClass updateClass) const {
  std::string text(title(updateClass));
  const auto it = entries.find(updateClass);
  if (it == entries.end() || !it->second.availableVersion) return text;
  text += " " + *it->second.availableVersion;
  if (it->second.availableBuild)
    text += " (Build " + std::to_string(*it->second.availableBuild) + ")";
  return text + " available";
}

std::string UpdateAwarenessState::indicatorAccessibilityLabel(bool commandWarning,
                                                              bool cleaningEnabled) const {
  if (commandWarning) return "Linkwash, Command Guard warning";
  if (!available().empty()) return "Linkwash, updates available";
  if (!cleaningEnabled) return "Linkwash, cleaning disabled";
  return "Linkwash";
}

Json encodeUpdateAwarenessState(const UpdateAwarenessState& state) {
  Json entries = Json::object();
  for (const auto& [updateClass, entry] : state.entries) {
    Json e = Json::object();
    if (entry.lastAttempt) e["lastAttempt"] = *entry.lastAttempt;
    if (entry.lastSuccess) e["lastSuccess"] = *entry.lastSuccess;
    if (entry.availableVersion) e["availableVersion"] = *entry.availableVersion;
    if (entry.availableBuild) e["availableBuild"] = *entry.availableBuild;
    if (entry.installedVersion) e["installedVersion"] = *entry.installedVersion;
    if (entry.installedBuild) e["installedBuild"] = *entry.installedBuild;
    entries[std::string(rawValue(updateClass))] = std::move(e);
  }
  Json json = Json::object();
  json["automaticChecks"] = state.automaticChecks;
  json["entries"] = std::move(entries);
  return json;
}

std::optional<UpdateAwarenessState> decodeUpdateAwarenessState(const Json& json) {
  if (!json.is_object()) return std::nullopt;
  UpdateAwarenessState state;
  if (auto it = json.find("automaticChecks"); it != json.end() && it->is_boolean()) {
    state.automaticChecks = it->get<bool>();
  }
  const auto entries = json.find("entries");
  if (entries == json.end() || !entries->is_object()) return state;
  for (const auto& item : entries->items()) {
    // A plain reference rather than a structured binding: clang 14 cannot capture those.
    const Json& value = item.value();
    const auto updateClass = updateClassFromRaw(item.key());
    if (!updateClass || !value.is_object()) continue;
    UpdateAwarenessState::Entry entry;
    auto number = [&](const char* key, std::optional<double>& out) {
      if (auto it = value.find(key); it != value.end() && it->is_number()) out = it->get<double>();
    };
    auto integer = [&](const char* key, std::optional<std::int64_t>& out) {
      if (auto it = value.find(key); it != value.end() && it->is_number_integer())
        out = it->get<std::int64_t>();
    };
    auto text = [&](const char* key, std::optional<std::string>& out) {
      if (auto it = value.find(key); it != value.end() && it->is_string())
        out = it->get<std::string>();
    };
    number("lastAttempt", entry.lastAttempt);
    number("lastSuccess", entry.lastSuccess);
    text("availableVersion", entry.availableVersion);
    integer("availableBuild", entry.availableBuild);
    text("installedVersion", entry.installedVersion);
    integer("installedBuild", entry.installedBuild);
    state.entries[*updateClass] = std::move(entry);
  }
  return state;
}

namespace {

UpdateAwarenessState decodeStored(const std::optional<Bytes>& data) {
  if (!data) return {};
  const auto json = parseJson(toString(*data));
  if (!json) return {};
  return decodeUpdateAwarenessState(*json).value_or(UpdateAwarenessState{});
}

}  // namespace

UpdateAwareness::UpdateAwareness(std::shared_ptr<PreferenceStore> defaults)
    : defaults_(std::move(defaults)) {
  refresh();
}

void UpdateAwareness::refresh() { state_ = decodeStored(defaults_->dataForKey(kStorageKey)); }

bool UpdateAwareness::update(const std::function<void(UpdateAwarenessState&)>& change) {
  UpdateAwarenessState updated;
  const bool ok = updatePreferences(*defaults_, [&](PreferenceTransaction& t) {
    updated = decodeStored(t.dataForKey(kStorageKey));
    const UpdateAwarenessState before = updated;
    change(updated);
    if (updated == before) return;
    JsonWriteOptions options;
    options.escapeSlashes = false;
    options.sortedKeys = true;
    t.set(kStorageKey,
          PreferenceValue{toBytes(writeJson(encodeUpdateAwarenessState(updated), options))});
  });
  if (ok) state_ = std::move(updated);
  return ok;
}

bool UpdateAwareness::reconcileRunningApp(std::string_view version,
                                          std::optional<std::int64_t> build) {
  return update([&](UpdateAwarenessState& s) { s.reconcile(UpdateClass::app, version, build); });
}

bool UpdateAwareness::recordCheck(UpdateClass updateClass, const std::optional<std::string>& newest,
                                  const std::optional<std::string>& installed, double now) {
  return update([&](UpdateAwarenessState& s) {
    if (installed) s.reconcile(updateClass, *installed, std::nullopt);
    if (newest) s.recordSuccess(updateClass, *newest, std::nullopt, now);
  });
}

double secondsSinceEpochNow() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

}  // namespace linkwash
