#include "core/session/session.h"

#include "core/privacy/privacy_redirector.h"
#include "core/updates/signed_rule_feed.h"
#include "platform/fs/files.h"

namespace linkwash {
namespace {

Result<std::string> readProviderFile(const std::string& path) {
  auto data = files::readFile(path);
  if (!data) return fail("cannot read " + path);
  if (!decodeProvidersFile(*data)) {
    return fail(path + " is not a provider file (expected {\"providers\": {...}})");
  }
  return std::move(*data);
}

}  // namespace

PrivacyRedirectStage catalogPrivacyStage() {
  return [](std::string_view link, const PrivacyRedirectSettings& settings) {
    // Only Nitter-compatible redirects consult the catalog; every other choice skips even the
    // stat() that checks for a newly installed one.
    auto catalog =
        settings.xRedirectChoice == XRedirectChoice::nitter ? privacyCatalogInUse() : nullptr;
    return PrivacyRedirector(std::move(catalog), currentUnixSeconds()).redirect(link, settings);
  };
}

Session::Session(std::shared_ptr<PreferenceStore> standard, std::shared_ptr<PreferenceStore> group)
    : standard_(std::move(standard)),
      group_(std::move(group)),
      engine_(std::make_unique<RulesEngine>(standard_)),
      exceptions_(std::make_unique<DomainExceptionStore>(standard_)),
      catalogStore_(PrivacyCatalogStore::shared()),
      privacyStage_(catalogPrivacyStage()) {}

Result<std::unique_ptr<Session>> Session::open(SessionOptions options) {
  std::unique_ptr<Session> session(
      new Session(PreferenceStore::standard(), PreferenceStore::suite(kAppGroupIdentifier)));
  if (options.rulesFile) {
    auto data = readProviderFile(*options.rulesFile);
    if (!data) return tl::unexpected(data.error());
    std::optional<std::string> supplementary;
    if (options.supplementaryFile) {
      auto read = readProviderFile(*options.supplementaryFile);
      if (!read) return tl::unexpected(read.error());
      supplementary = std::move(*read);
    }
    session->rulesGiven_ = true;
    session->engine_->loadRuleBundle(
        *data, supplementary ? std::optional<std::string_view>(*supplementary) : std::nullopt);
  } else if (options.supplementaryFile) {
    return fail("a supplementary rule file needs a rule file beside it");
  }
  return session;
}

RulesEngine& Session::rulesEngine() {
  std::call_once(engineLoaded_, [this] {
    if (!rulesGiven_) loadVerifiedRules(*engine_);
  });
  return *engine_;
}

RulesUpdater& Session::rulesUpdater() {
  if (!updater_) updater_ = std::make_unique<RulesUpdater>(*engine_, group_);
  return *updater_;
}

PrivacyRedirectSettings Session::redirectSettings() const {
  return PrivacyRedirectSettings::fromStore(*standard_, group_.get());
}

URLCleaner Session::makeCleaner(std::string surface) {
  URLCleaner cleaner(rulesEngine(), exceptions_.get(), &recorder_, std::move(surface),
                     redirectSettings());
  cleaner.setPrivacyRedirectStage(privacyStage_);
  return cleaner;
}

void Session::reloadPersistedState() {
  rulesEngine().reloadPersistedState();
  exceptions_->refresh();
}

}  // namespace linkwash
