// Check and install of catalog updates over HTTPS, reduced to the updater's status texts.
#include "core/privacy/privacy_catalog_updater.h"

#include <utility>

#include "core/awareness/update_awareness.h"
#include "core/signing/signature_verification.h"
#include "platform/http/http_client.h"
#include "platform/prefs/preference_store.h"

namespace linkwash {
namespace {

std::shared_ptr<const VerifiedPrivacyCatalog> share(std::optional<VerifiedPrivacyCatalog> catalog) {
  if (!catalog) return nullptr;
  return std::make_shared<const VerifiedPrivacyCatalog>(std::move(*catalog));
}

// One file of the update, at most `maxBytes`; any failure is the same "nothing".
std::optional<std::string> fetch(const std::string& url, std::size_t maxBytes) {
  HttpRequest request(url);
  request.maxBytes = maxBytes;
  request.headers = {{"Accept", "application/json"}};
  auto body = download(std::move(request));
  if (!body) return std::nullopt;
  return std::move(*body);
}

}  // namespace

std::string PrivacyCatalogUpdater::readyToInstall(std::uint64_t version) {
  return "Verified version " + std::to_string(version) + " ready to install";
}

PrivacyCatalogUpdater::PrivacyCatalogUpdater(PrivacyCatalogStore store,
                                             std::shared_ptr<const VerifiedPrivacyCatalog> fallback,
                                             Clock clock)
    : store_(std::move(store)), fallback_(std::move(fallback)), clock_(std::move(clock)) {
  installed_ = share(store_.current());
}

std::string PrivacyCatalogUpdater::status() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return status_;
}

std::optional<std::uint64_t> PrivacyCatalogUpdater::availableVersion() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return availableVersion_;
}

bool PrivacyCatalogUpdater::busy() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return busy_;
}

std::shared_ptr<const VerifiedPrivacyCatalog> PrivacyCatalogUpdater::installed() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return installed_;
}

std::shared_ptr<const VerifiedPrivacyCatalog> PrivacyCatalogUpdater::catalogInUse() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return installed_ ? installed_ : fallback_;
}

std::optional<PrivacyCatalogUpdater::Pending> PrivacyCatalogUpdater::pending() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return pending_;
}

void PrivacyCatalogUpdater::setOnChange(std::function<void()> onChange) {
  std::lock_guard<std::mutex> guard(mutex_);
  onChange_ = std::move(onChange);
}

void PrivacyCatalogUpdater::notify() {
  std::function<void()> onChange;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    onChange = onChange_;
  }
  // Outside the lock, so an observer may read the getters.
  if (onChange) onChange();
}

template <typename Change>
void PrivacyCatalogUpdater::update(Change change) {
  {
    std::lock_guard<std::mutex> guard(mutex_);
    change();
  }
  notify();
}

bool PrivacyCatalogUpdater::begin(std::string_view status) {
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (busy_) return false;
    busy_ = true;
    status_ = std::string(status);
  }
  notify();
  return true;
}

void PrivacyCatalogUpdater::reportToAwareness(std::optional<std::uint64_t> newest,
                                              std::optional<std::uint64_t> installed) const {
  auto text = [](std::optional<std::uint64_t> v) {
    return v ? std::optional(std::to_string(*v)) : std::nullopt;
  };
  (void)UpdateAwareness(PreferenceStore::standard())
      .recordCheck(UpdateClass::catalog, text(newest), text(installed),
                   static_cast<double>(clock_()));
}

void PrivacyCatalogUpdater::reload() {
  auto installed = share(store_.current());
  update([&] { installed_ = std::move(installed); });
}

void PrivacyCatalogUpdater::check() {
  if (!begin(kChecking)) return;
  const bool ok = checkFromNetwork();
  update([&] {
    if (!ok) {
      status_ = std::string(kRejected);
      pending_.reset();
      availableVersion_.reset();
    }
    busy_ = false;
  });
}

// Everything of check() that can fail; false for the rejected status.
bool PrivacyCatalogUpdater::checkFromNetwork() {
  // The comparison is with what is installed now, whichever process installed it.
  auto installed = share(store_.current());
  update([&] { installed_ = installed; });

  const auto manifestBytes =
      fetch(PrivacyCatalogManifest::currentURL(store_.host()), PrivacyCatalogManifest::kMaxBytes);
  if (!manifestBytes) return false;
  const auto manifest = PrivacyCatalogManifest::parse(*manifestBytes, store_.host());
  if (!manifest) return false;
  reportToAwareness(manifest->version,
                    installed ? std::optional(installed->catalog().version) : std::nullopt);
  if (installed && manifest->version <= installed->catalog().version) {
    update([&] {
      status_ = std::string(kUpToDate);
      pending_.reset();
      availableVersion_.reset();
    });
    return true;
  }

  // Files larger than any acceptable one are refused before a byte is fetched.
  if (manifest->payload.bytes > kMaxCatalogPayloadSize ||
      manifest->signature.bytes > kMaxSignatureEnvelopeSize) {
    return false;
  }
  auto payload = fetch(manifest->payload.url, manifest->payload.bytes);
  if (!payload) return false;
  auto signature = fetch(manifest->signature.url, manifest->signature.bytes);
  if (!signature) return false;
  if (!store_.validate(*manifestBytes, *payload, *signature, clock_())) return false;

  const std::uint64_t version = manifest->version;
  update([&] {
    pending_ = Pending{*manifestBytes, std::move(*payload), std::move(*signature), version};
    availableVersion_ = version;
    status_ = readyToInstall(version);
  });
  return true;
}

void PrivacyCatalogUpdater::install() {
  std::optional<Pending> pending;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (busy_ || !pending_) return;
    busy_ = true;
    pending = pending_;
  }
  notify();
  const auto installed =
      store_.install(pending->manifest, pending->payload, pending->signature, clock_());
  auto current = installed ? share(store_.current()) : nullptr;
  update([&] {
    if (installed) {
      reportToAwareness(std::nullopt, pending->version);
      installed_ = std::move(current);
      pending_.reset();
      availableVersion_.reset();
      status_ = std::string(kInstalled);
    } else {
      status_ = std::string(kInstallFailed);
    }
    busy_ = false;
  });
}

}  // namespace linkwash
