// The X/Twitter redirect settings screen: bindings, first-appearance migration and content.
#include "core/privacy/x_redirect_settings_view.h"

#include <algorithm>
#include <utility>

#include "core/privacy/privacy_redirector.h"

namespace linkwash {

using Settings = PrivacyRedirectSettings;

XRedirectSettingsView::XRedirectSettingsView(PreferenceStore& defaults,
                                             PreferenceStore* nitterDefaults,
                                             const PrivacyCatalogUpdater& updater,
                                             std::function<void()> changed)
    : defaults_(defaults),
      nitterDefaults_(nitterDefaults != nullptr ? *nitterDefaults : defaults),
      updater_(updater),
      changed_(std::move(changed)) {}

void XRedirectSettingsView::appear() {
  if (!defaults_.object(Settings::kXRedirectChoiceKey)) {
    const auto migrated = Settings::fromStore(defaults_, &nitterDefaults_);
    defaults_.set(Settings::kXRedirectChoiceKey,
                  PreferenceValue{std::string(rawValue(migrated.xRedirectChoice))});
  }
  if (changed_) changed_();
}

std::string XRedirectSettingsView::choice() const {
  return defaults_.stringForKey(Settings::kXRedirectChoiceKey)
      .value_or(std::string(rawValue(XRedirectChoice::off)));
}

void XRedirectSettingsView::setChoice(XRedirectChoice choice) {
  const std::string raw(rawValue(choice));
  if (defaults_.stringForKey(Settings::kXRedirectChoiceKey) == raw) return;
  defaults_.set(Settings::kXRedirectChoiceKey, PreferenceValue{raw});
  if (changed_) changed_();
}

std::string XRedirectSettingsView::selectedInstance() const {
  return nitterDefaults_.stringForKey(Settings::kNitterServiceIDKey).value_or("");
}

void XRedirectSettingsView::setSelectedInstance(const std::string& id) {
  if (nitterDefaults_.stringForKey(Settings::kNitterServiceIDKey) == id) return;
  nitterDefaults_.set(Settings::kNitterServiceIDKey, PreferenceValue{id});
  if (changed_) changed_();
}

bool XRedirectSettingsView::automatic() const {
  return nitterDefaults_.boolForKey(Settings::kNitterAutomaticKey);
}

void XRedirectSettingsView::setAutomatic(bool automatic) {
  if (nitterDefaults_.object(Settings::kNitterAutomaticKey) &&
      nitterDefaults_.boolForKey(Settings::kNitterAutomaticKey) == automatic) {
    return;
  }
  nitterDefaults_.set(Settings::kNitterAutomaticKey, PreferenceValue{automatic});
  if (changed_) changed_();
}

std::vector<PrivacyServicesCatalog::Service> XRedirectSettingsView::eligibleServices() const {
  const auto catalog = updater_.catalogInUse();
  if (!catalog) return {};
  return catalog->choices(updater_.now());
}

XRedirectSettingsView::Content XRedirectSettingsView::content() const {
  Content content;
  content.choiceOptions = {
      {std::string(kOffLabel), std::string(rawValue(XRedirectChoice::off))},
      {std::string(kTwitterViewerLabel), std::string(rawValue(XRedirectChoice::twitterViewer))},
      {std::string(kNitterLabel), std::string(rawValue(XRedirectChoice::nitter))},
  };
  content.choice = choice();
  // A stored string that is not one of the choices selects no option and shows nothing more,
  // as a picker does with an unknown value.
  const auto selected = xRedirectChoiceFromRaw(content.choice);
  if (selected == XRedirectChoice::off) {
    content.caption = std::string(kOffCaption);
  } else if (selected == XRedirectChoice::twitterViewer) {
    content.caption = std::string(kTwitterViewerCaption);
    content.privacyPolicy = Link{std::string(kTwitterViewerPolicyTitle),
                                 std::string(Settings::kTwitterViewerPrivacyPolicyURL)};
  } else if (selected == XRedirectChoice::nitter) {
    const auto catalog = updater_.catalogInUse();
    const std::uint64_t now = updater_.now();
    const auto services =
        catalog ? catalog->choices(now) : std::vector<PrivacyServicesCatalog::Service>{};
    NitterSection nitter;
    nitter.selectedInstance = selectedInstance();
    nitter.automatic = automatic();
    nitter.instanceRows.push_back({std::string(kChooseInstanceLabel), ""});
    for (const auto& service : services)
      nitter.instanceRows.push_back({service.label(), service.id});
    const bool listed = std::any_of(
        services.begin(), services.end(),
        [&](const PrivacyServicesCatalog::Service& s) { return s.id == nitter.selectedInstance; });
    // The stored selection keeps its own row, so a service leaving the catalog never makes the
    // picker show (and then store) some other instance.
    if (!nitter.selectedInstance.empty() && !listed) {
      nitter.instanceRows.push_back(
          {std::string(kSelectedInstanceUnavailableLabel), nitter.selectedInstance});
    }
    nitter.status =
        PrivacyRedirector(catalog, now).status(Settings::fromStore(defaults_, &nitterDefaults_));
    nitter.listCaption = std::string(services.empty() ? kNoInstancesCaption : kInstancesCaption);
    if (!PrivacyServicesArchive::verified(catalog.get(), now).isAvailable()) {
      nitter.catalogUnavailable = std::string(PrivacyServicesArchive::kUnavailable);
    }
    content.nitter = std::move(nitter);
  }
  return content;
}

}  // namespace linkwash
