// PrivacyCatalogUpdater: the two steps a person triggers to update the privacy services catalog.
// check() fetches the update manifest and, when it names a newer catalog, downloads and fully
// verifies it without installing; install() then installs that verified download into the shared
// store. Progress and outcome are reported through status(), whose texts are shown as they are.
//
//   PrivacyCatalogUpdater updater(PrivacyCatalogStore::shared());
//   updater.check();                              // "Verified version 4 ready to install"
//   if (updater.availableVersion()) updater.install();
//   std::puts(updater.status().c_str());          // "Verified catalog installed"
//
// Downloads never follow a redirect, and a failed check or install never touches the installed
// catalog.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "core/privacy/privacy_catalog_store.h"
#include "core/privacy/privacy_services_catalog.h"

namespace linkwash {

class PrivacyCatalogUpdater {
 public:
  static constexpr std::string_view kNotChecked = "Not checked";
  static constexpr std::string_view kChecking = "Checking signed catalog";
  static constexpr std::string_view kUpToDate = "Verified catalog is up to date";
  static constexpr std::string_view kRejected =
      "Update rejected or unavailable. Last verified catalog retained.";
  static constexpr std::string_view kInstalled = "Verified catalog installed";
  static constexpr std::string_view kInstallFailed =
      "Install failed. Last verified catalog retained.";
  // "Verified version " + version + " ready to install".
  static std::string readyToInstall(std::uint64_t version);

  using Clock = std::function<std::uint64_t()>;

  // A verified download waiting for install().
  struct Pending {
    std::string manifest;
    std::string payload;
    std::string signature;
    std::uint64_t version = 0;
  };

  // `fallback` is the catalog that applies while nothing is installed (normally the shipped
  // one); `clock` gives the current time in Unix seconds. Reads the installed catalog at once.
  explicit PrivacyCatalogUpdater(
      PrivacyCatalogStore store,
      std::shared_ptr<const VerifiedPrivacyCatalog> fallback = PrivacyServicesCatalog::bundled(),
      Clock clock = currentUnixSeconds);

  PrivacyCatalogUpdater(const PrivacyCatalogUpdater&) = delete;
  PrivacyCatalogUpdater& operator=(const PrivacyCatalogUpdater&) = delete;

  // Observable state. The getters may be called from any thread, also while a check runs.
  std::string status() const;
  std::optional<std::uint64_t> availableVersion() const;
  bool busy() const;
  // The installed catalog as last read from the store; null when none verifies.
  std::shared_ptr<const VerifiedPrivacyCatalog> installed() const;
  // What redirects use: the installed catalog, else the fallback.
  std::shared_ptr<const VerifiedPrivacyCatalog> catalogInUse() const;
  std::optional<Pending> pending() const;
  const PrivacyCatalogStore& store() const { return store_; }
  std::uint64_t now() const { return clock_(); }

  // Called after every change of the state above, on the thread that changed it.
  void setOnChange(std::function<void()> onChange);

  // Blocking; run them on a worker thread where a caller must stay responsive. A call while
  // another check or install runs returns at once and changes nothing.
  void check();
  // Requires a pending download; without one it does nothing.
  void install();
  // Reads the installed catalog from the store again (another process may have installed).
  void reload();

 private:
  // Runs `change` under the lock, then notifies.
  template <typename Change>
  void update(Change change);
  void notify();
  bool begin(std::string_view status);
  bool checkFromNetwork();
  // Tells the update-awareness state what a check found or an install put in place.
  void reportToAwareness(std::optional<std::uint64_t> newest,
                         std::optional<std::uint64_t> installed) const;

  PrivacyCatalogStore store_;
  std::shared_ptr<const VerifiedPrivacyCatalog> fallback_;
  Clock clock_;

  mutable std::mutex mutex_;
  std::string status_{kNotChecked};
  std::optional<std::uint64_t> availableVersion_;
  bool busy_ = false;
  std::shared_ptr<const VerifiedPrivacyCatalog> installed_;
  std::optional<Pending> pending_;
  std::function<void()> onChange_;
};

}  // namespace linkwash
