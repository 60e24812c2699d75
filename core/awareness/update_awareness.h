// Whether a newer app build, rule release or privacy-services catalog is available: one entry per
// kind with the last check attempt, the last successful check, the newest version seen and the
// version installed, plus the once-a-day throttle of automatic checks and the texts shown to the
// user. The value never reads a clock: every operation takes `now` (seconds since the epoch).
//
//   UpdateAwareness awareness(PreferenceStore::standard());
//   awareness.update([&](UpdateAwarenessState& s) { s.recordSuccess(UpdateClass::rules, v, {},
//   now); }); awareness.state().label(UpdateClass::rules);   // "Rules 2026.05.01.3 available"
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/json/json_writer.h"

namespace linkwash {

class PreferenceStore;

enum class UpdateClass { app, rules, catalog };
inline constexpr std::array<UpdateClass, 3> kAllUpdateClasses = {
    UpdateClass::app, UpdateClass::rules, UpdateClass::catalog};
// "app", "rules", "catalog".
std::string_view rawValue(UpdateClass updateClass);
// "Linkwash", "Rules", "Privacy Services catalog".
std::string_view title(UpdateClass updateClass);

// Versions of the form "1.2.3": 1 to 6 dot-separated decimal pieces, at most 80 bytes.
struct UpdateVersion {
  static bool isAccepted(std::string_view version);
  // Piece by piece as integers, a missing piece counting as 0 ("1.2" == "1.2.0"); nothing when
  // either side is not an accepted version.
  static std::optional<std::strong_ordering> compare(std::string_view a, std::string_view b);
};

struct UpdateAwarenessState {
  struct Entry {
    std::optional<double> lastAttempt;
    std::optional<double> lastSuccess;
    std::optional<std::string> availableVersion;
    std::optional<std::int64_t> availableBuild;
    std::optional<std::string> installedVersion;
    std::optional<std::int64_t> installedBuild;
    bool operator==(const Entry&) const = default;
  };

  bool automaticChecks = true;
  std::map<UpdateClass, Entry> entries;

  // Whether an automatic check may start now (at most one attempt per class per day); records
  // the attempt when it may.
  bool beginAutomatic(UpdateClass updateClass, double now);
  // A successful check that found `version` as the newest published one.
  void recordSuccess(UpdateClass updateClass, std::string_view version,
                     std::optional<std::int64_t> build, double now);
  // The installed version; drops an available version that is not newer.
  void reconcile(UpdateClass updateClass, std::string_view version,
                 std::optional<std::int64_t> build);

  std::vector<UpdateClass> available() const;
  // "Rules 2026.05.01.3 available", "Linkwash 2.1 (Build 45) available", or the title alone.
  std::string label(UpdateClass updateClass) const;
  std::string indicatorAccessibilityLabel(bool commandWarning, bool cleaningEnabled) const;

  bool operator==(const UpdateAwarenessState&) const = default;
};

Json encodeUpdateAwarenessState(const UpdateAwarenessState& state);
// Unknown classes and members of the wrong type are skipped.
std::optional<UpdateAwarenessState> decodeUpdateAwarenessState(const Json& json);

// The owner of the stored state ("updateAwareness.v1" in the standard store). Each update is
// one transaction, so the rules and catalog updaters of different processes never overwrite
// each other's entries.
class UpdateAwareness {
 public:
  static constexpr std::string_view kStorageKey = "updateAwareness.v1";

  explicit UpdateAwareness(std::shared_ptr<PreferenceStore> defaults);

  // The state as last loaded or written; an absent or undecodable value reads as a new state.
  const UpdateAwarenessState& state() const { return state_; }
  void refresh();
  // Applies `change` to the freshly read state and stores it; false when the store could not be
  // written.
  bool update(const std::function<void(UpdateAwarenessState&)>& change);

  // The app entry follows the running program: there is no release server to ask, so the
  // installed version is what runs.
  bool reconcileRunningApp(std::string_view version, std::optional<std::int64_t> build);

  // For the updaters: a successful check at `now` that found `newest` published while
  // `installed` is in use (either may be unknown). One transaction.
  bool recordCheck(UpdateClass updateClass, const std::optional<std::string>& newest,
                   const std::optional<std::string>& installed, double now);

 private:
  std::shared_ptr<PreferenceStore> defaults_;
  UpdateAwarenessState state_;
};

// The seconds-since-epoch form of the current time, for the operations above.
double secondsSinceEpochNow();

}  // namespace linkwash
