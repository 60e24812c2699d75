// Session: the objects every Linkwash program shares, opened the same way in each of them.
//
// A program opens one session per process and keeps it: the standard and app group preference
// stores, the rules engine (loaded through the verified loader on first use: the installed
// signed release, else the shipped rules), the site exceptions, the last-clean recorder and the
// privacy catalog store. Cleaners are made by the session, so each surface gets the same wiring,
// the privacy stage included.
//
//   auto session = Session::open();
//   if (!session) fail(session.error().message);
//   URLCleaner cleaner = (*session)->makeCleaner("linuxCommandLine");
//   cleaner.cleanWithOutcome("https://a.com/?utm_source=x");
//
// Thread safety: the stores, the exception store and the recorder have their own locks; the rules
// engine has none, so callers that share a session across threads serialise engine use (the
// browser host does it with engineMutex()).
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "base/result.h"
#include "core/cleaning/domain_exception_store.h"
#include "core/cleaning/last_clean_recorder.h"
#include "core/cleaning/url_cleaner.h"
#include "core/privacy/privacy_catalog_store.h"
#include "core/privacy/privacy_redirect_settings.h"
#include "core/rules/rules_engine.h"
#include "core/updates/rules_updater.h"
#include "platform/prefs/preference_store.h"

namespace linkwash {

// The suite shared by every surface of the tool (the rules updater's state and the Nitter
// instance choice live there).
inline constexpr std::string_view kAppGroupIdentifier = "group.com.morvellabs.linkwash";

struct SessionOptions {
  // Provider files to clean with for this session instead of the installed or shipped rules. Both
  // are read and decoded when the session opens; a failure there fails open().
  std::optional<std::string> rulesFile;
  std::optional<std::string> supplementaryFile;  // only together with rulesFile
};

class Session {
 public:
  // Opens the stores and, with explicit rule files, loads them. Fails only on those files.
  [[nodiscard]] static Result<std::unique_ptr<Session>> open(SessionOptions options = {});

  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  PreferenceStore& standardStore() { return *standard_; }
  PreferenceStore& groupStore() { return *group_; }
  // For the objects that keep a store alive themselves.
  const std::shared_ptr<PreferenceStore>& standardStoreHandle() const { return standard_; }
  const std::shared_ptr<PreferenceStore>& groupStoreHandle() const { return group_; }

  // Loaded on first use (so commands that never clean do not pay for compiling the rules).
  RulesEngine& rulesEngine();
  // The rules updater on the group store, over the session's engine. Made on first use; it loads
  // the engine itself when one of its operations needs rules, so status and settings cost no
  // rule loading.
  RulesUpdater& rulesUpdater();
  DomainExceptionStore& exceptions() { return *exceptions_; }
  LastCleanRecorder& lastCleanRecorder() { return recorder_; }
  const PrivacyCatalogStore& privacyCatalogStore() const { return catalogStore_; }

  // Read fresh from the stores on every call, so a change made by another program counts.
  PrivacyRedirectSettings redirectSettings() const;

  // A cleaner for `surface` over the session's engine, exceptions and recorder, with the current
  // redirect settings and the session's privacy stage.
  URLCleaner makeCleaner(std::string surface);

  // Picks up what other programs changed since this session read it: the engine's category
  // switches and custom rules, and the list of switched-off sites.
  void reloadPersistedState();

  // The stage the session's cleaners redirect with; by default the redirector over the installed
  // verified catalog (else the shipped one). Replaced by tests and embedders.
  void setPrivacyRedirectStage(PrivacyRedirectStage stage) { privacyStage_ = std::move(stage); }

  // Serialises use of the rules engine, which has no lock of its own.
  std::mutex& engineMutex() { return engineMutex_; }

 private:
  Session(std::shared_ptr<PreferenceStore> standard, std::shared_ptr<PreferenceStore> group);

  std::shared_ptr<PreferenceStore> standard_;
  std::shared_ptr<PreferenceStore> group_;
  std::unique_ptr<RulesEngine> engine_;
  bool rulesGiven_ = false;  // explicit rule files were loaded by open()
  std::once_flag engineLoaded_;
  std::unique_ptr<RulesUpdater> updater_;
  std::unique_ptr<DomainExceptionStore> exceptions_;
  LastCleanRecorder recorder_;
  PrivacyCatalogStore catalogStore_;
  PrivacyRedirectStage privacyStage_;
  std::mutex engineMutex_;
};

// The privacy stage over the catalog in use (the installed verified catalog, else the shipped one).
PrivacyRedirectStage catalogPrivacyStage();

}  // namespace linkwash
