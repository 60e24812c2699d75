// The X/Twitter redirect settings screen as a view model: its bindings to the preference stores,
// the migration of older settings on first appearance, and the texts and rows it shows for the
// current choice, catalog and time. A front end (the CLI, a desktop window) renders content().
//
//   XRedirectSettingsView view(*defaults, group.get(), updater, [] { notifyExtension(); });
//   view.appear();
//   view.setChoice(XRedirectChoice::nitter);
//   for (const auto& row : view.content().instanceRows) show(row.label, row.value);
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/privacy/privacy_catalog_updater.h"
#include "core/privacy/privacy_redirect_settings.h"
#include "platform/prefs/preference_store.h"

namespace linkwash {

class XRedirectSettingsView {
 public:
  static constexpr std::string_view kChoiceTitle = "X/Twitter links";
  static constexpr std::string_view kChoiceAccessibilityIdentifier = "x-redirect-choice";
  static constexpr std::string_view kOffLabel = "Off";
  static constexpr std::string_view kTwitterViewerLabel =
      PrivacyRedirectSettings::kTwitterViewerLabel;
  static constexpr std::string_view kNitterLabel = "XCancel / Nitter / custom instance";

  static constexpr std::string_view kOffCaption =
      "X/Twitter links stay on their original site after normal tracker cleaning.";
  static constexpr std::string_view kTwitterViewerCaption =
      "TwitterViewer is experimental and may become unavailable. Its privacy policy says it uses "
      "analytics and server logs. Private, login-only, unsupported, and /i/status links stay on "
      "X/Twitter after normal tracker cleaning.";
  static constexpr std::string_view kTwitterViewerPolicyTitle = "TwitterViewer privacy policy";

  static constexpr std::string_view kInstancePickerTitle = "Nitter-compatible instance";
  static constexpr std::string_view kChooseInstanceLabel = "Choose an instance";
  static constexpr std::string_view kSelectedInstanceUnavailableLabel =
      "Selected instance unavailable";
  static constexpr std::string_view kInstanceCaption =
      "Only verified active Nitter-compatible instances are listed. Your explicit selection is "
      "never silently replaced.";
  static constexpr std::string_view kAutomaticTitle =
      "Allow automatic instance selection and failover";
  static constexpr std::string_view kStatusAccessibilityIdentifier = "nitter-selection-status";
  static constexpr std::string_view kNoInstancesCaption =
      "No verified eligible instances. Redirects are unavailable; ordinary tracker cleaning still "
      "works.";
  static constexpr std::string_view kInstancesCaption =
      "Public profiles and status links, including /i/status when supported by the selected "
      "instance. Existing selection, automatic mode, and service ID are preserved.";

  // A picker row: what is shown and the value stored when it is picked.
  struct Option {
    std::string label;
    std::string value;
    bool operator==(const Option&) const = default;
  };

  struct Link {
    std::string title;
    std::string url;
    bool operator==(const Link&) const = default;
  };

  // The Nitter-compatible part of the screen, shown for the choice "nitter".
  struct NitterSection {
    std::vector<Option> instanceRows;  // "Choose an instance", the eligible services, and
                                       // "Selected instance unavailable" for a lost selection
    std::string selectedInstance;      // the picker's value
    bool automatic = false;
    std::string status;       // the redirector's status line for the current settings
    std::string listCaption;  // kNoInstancesCaption or kInstancesCaption
    // PrivacyServicesArchive::kUnavailable while no verified catalog is fresh.
    std::optional<std::string> catalogUnavailable;
  };

  // Everything the screen shows at one moment.
  struct Content {
    std::vector<Option> choiceOptions;   // Off, TwitterViewer (Beta), XCancel / Nitter / ...
    std::string choice;                  // the stored choice string (the picker's value)
    std::optional<std::string> caption;  // for "off" and "twitterViewer"
    std::optional<Link> privacyPolicy;   // for "twitterViewer"
    std::optional<NitterSection> nitter;
  };

  // `defaults` holds the choice; `nitterDefaults` (null: `defaults`) the selected ID and the
  // automatic flag. Both stores and `updater` must outlive the view. `changed` runs after the
  // first appearance and after every change made through the setters.
  XRedirectSettingsView(PreferenceStore& defaults, PreferenceStore* nitterDefaults,
                        const PrivacyCatalogUpdater& updater, std::function<void()> changed);

  // First appearance: a store without any stored choice gets the choice its older settings
  // imply, so people who set up redirects before the choice existed keep them.
  void appear();

  // The bindings. Reads go to the stores every time.
  std::string choice() const;  // default "off"
  void setChoice(XRedirectChoice choice);
  std::string selectedInstance() const;  // default empty
  void setSelectedInstance(const std::string& id);
  bool automatic() const;
  void setAutomatic(bool automatic);

  // The eligible catalog services at the updater's current time, in catalog order.
  std::vector<PrivacyServicesCatalog::Service> eligibleServices() const;
  Content content() const;

 private:
  PreferenceStore& defaults_;
  PreferenceStore& nitterDefaults_;
  const PrivacyCatalogUpdater& updater_;
  std::function<void()> changed_;
};

}  // namespace linkwash
