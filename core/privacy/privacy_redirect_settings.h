// The user's privacy-frontend choices (X/Twitter to TwitterViewer or a Nitter-compatible instance,
// Reddit to a Redlib-style frontend), how they are read from the preference stores (with the
// migration from the older boolean keys), their JSON form, and the record of one redirect.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/result.h"
#include "core/privacy/privacy_redirect_info.h"
#include "platform/json/json_writer.h"
#include "platform/prefs/preference_store.h"

namespace linkwash {

enum class XRedirectChoice { off, nitter, twitterViewer };

// "off", "nitter", "twitterViewer".
std::string_view rawValue(XRedirectChoice choice);
// Exact match only: "Nitter" is not a choice.
std::optional<XRedirectChoice> xRedirectChoiceFromRaw(std::string_view raw);

struct PrivacyRedirectSettings {
  // Preference keys. The last three are legacy booleans, only read to migrate older settings.
  static constexpr std::string_view kXRedirectChoiceKey = "privacyRedirects_xRedirectChoice";
  static constexpr std::string_view kNitterServiceIDKey = "privacyRedirects_nitterServiceID";
  static constexpr std::string_view kNitterAutomaticKey = "privacyRedirects_nitterAutomatic";
  static constexpr std::string_view kRedditRedirectEnabledKey =
      "privacyRedirects_redditRedirectEnabled";
  static constexpr std::string_view kRedditFrontendBaseURLKey =
      "privacyRedirects_redditFrontendBaseURL";
  static constexpr std::string_view kNitterEnabledKey = "privacyRedirects_nitterEnabled";
  static constexpr std::string_view kTwitterViewerEnabledKey =
      "privacyRedirects_twitterViewerEnabled";
  static constexpr std::string_view kXRedirectEnabledKey = "privacyRedirects_xRedirectEnabled";

  static constexpr std::string_view kTwitterViewerBaseURL = "https://twitterviewer.net";
  static constexpr std::string_view kTwitterViewerPrivacyPolicyURL =
      "https://twitterviewer.net/privacy";
  static constexpr std::string_view kDefaultRedditFrontendBaseURL = "https://safereddit.com";
  static constexpr std::string_view kTwitterViewerLabel = "TwitterViewer (Beta)";

  XRedirectChoice xRedirectChoice = XRedirectChoice::off;
  std::string nitterServiceID;   // `id` of the catalog service the user picked; empty when none
  bool nitterAutomatic = false;  // automatic instance selection and failover allowed
  bool redditRedirectEnabled = false;
  std::string redditFrontendBaseURL = std::string(kDefaultRedditFrontendBaseURL);  // as typed
  // Retired: always false, never read or encoded, but still compared.
  bool xRedirectEnabled = false;

  bool nitterEnabled() const { return xRedirectChoice == XRedirectChoice::nitter; }
  bool twitterViewerEnabled() const { return xRedirectChoice == XRedirectChoice::twitterViewer; }
  bool operator==(const PrivacyRedirectSettings&) const = default;

  // Everything off, with the default Reddit frontend.
  static PrivacyRedirectSettings disabled();

  // Reads the settings. The three Nitter keys (the legacy Nitter boolean included) come from
  // `nitterDefaults` when given, everything else from `defaults`. A stored choice that is one of
  // the raw values wins; otherwise the legacy booleans decide (Nitter before TwitterViewer).
  static PrivacyRedirectSettings fromStore(const PreferenceStore& defaults,
                                           const PreferenceStore* nitterDefaults);

  // Settings from the legacy booleans. The choice is `xRedirectChoice` when given, else nitter
  // when `nitterEnabled`, else twitterViewer when `twitterViewerEnabled`, else off. The
  // `xRedirectEnabled` argument is accepted and ignored.
  static PrivacyRedirectSettings fromLegacy(bool xRedirectEnabled, bool twitterViewerEnabled,
                                            bool redditRedirectEnabled,
                                            std::string redditFrontendBaseURL, bool nitterEnabled,
                                            std::string nitterServiceID, bool nitterAutomatic,
                                            std::optional<XRedirectChoice> xRedirectChoice);
};

// Exactly five keys, in this order: "xRedirectChoice", "nitterServiceID", "nitterAutomatic",
// "redditRedirectEnabled", "redditFrontendBaseURL". The legacy booleans are never written.
Json encodePrivacyRedirectSettings(const PrivacyRedirectSettings& settings);
// Every key is optional (null counts as absent) and takes its default; without
// "xRedirectChoice" the legacy "nitterEnabled" / "twitterViewerEnabled" decide the choice.
// "xRedirectEnabled" is never read. Fails on a value of the wrong type, an unknown choice, or a
// document that is not an object.
Result<PrivacyRedirectSettings> decodePrivacyRedirectSettings(const Json& json);

// One redirect the redirector made (not encoded; a clean result carries its info()).
struct PrivacyRedirectResult {
  std::string originalURL;
  std::string redirectedURL;
  PrivacyRedirectService service = PrivacyRedirectService::xTwitter;
  std::string originalHost;  // lower-cased
  std::string frontendHost;  // lower-cased

  PrivacyRedirectInfo info() const { return {service, originalHost, frontendHost}; }
  bool operator==(const PrivacyRedirectResult&) const = default;
};

}  // namespace linkwash
