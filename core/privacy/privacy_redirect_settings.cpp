// Reading, migrating and coding the privacy redirect preferences.
#include "core/privacy/privacy_redirect_settings.h"

#include <array>
#include <utility>

namespace linkwash {
namespace {

constexpr std::array<std::string_view, 3> kChoiceRaw = {"off", "nitter", "twitterViewer"};

// Absent (or null) gives nothing; a value of another type is an error.
template <typename T>
Result<std::optional<T>> optionalMember(const Json& json, const char* key) {
  const auto it = json.find(key);
  if (it == json.end() || it->is_null()) return std::optional<T>();
  if constexpr (std::is_same_v<T, bool>) {
    if (!it->is_boolean()) return fail(std::string("\"") + key + "\" is not a boolean");
  } else {
    if (!it->is_string()) return fail(std::string("\"") + key + "\" is not a string");
  }
  return std::optional<T>(it->template get<T>());
}

XRedirectChoice legacyChoice(std::optional<XRedirectChoice> choice, bool nitterEnabled,
                             bool twitterViewerEnabled) {
  if (choice) return *choice;
  if (nitterEnabled) return XRedirectChoice::nitter;
  if (twitterViewerEnabled) return XRedirectChoice::twitterViewer;
  return XRedirectChoice::off;
}

}  // namespace

std::string_view rawValue(XRedirectChoice choice) {
  return kChoiceRaw[static_cast<std::size_t>(choice)];
}

std::optional<XRedirectChoice> xRedirectChoiceFromRaw(std::string_view raw) {
  for (std::size_t i = 0; i < kChoiceRaw.size(); ++i) {
    if (kChoiceRaw[i] == raw) return static_cast<XRedirectChoice>(i);
  }
  return std::nullopt;
}

PrivacyRedirectSettings PrivacyRedirectSettings::disabled() { return PrivacyRedirectSettings{}; }

PrivacyRedirectSettings PrivacyRedirectSettings::fromStore(const PreferenceStore& defaults,
                                                           const PreferenceStore* nitterDefaults) {
  const PreferenceStore& nitter = nitterDefaults != nullptr ? *nitterDefaults : defaults;
  std::optional<XRedirectChoice> stored;
  if (auto raw = defaults.stringForKey(kXRedirectChoiceKey)) stored = xRedirectChoiceFromRaw(*raw);

  PrivacyRedirectSettings settings;
  // The legacy booleans are read only when no valid choice was stored: a stored choice wins.
  settings.xRedirectChoice = stored
                                 ? *stored
                                 : legacyChoice(std::nullopt, nitter.boolForKey(kNitterEnabledKey),
                                                defaults.boolForKey(kTwitterViewerEnabledKey));
  settings.redditRedirectEnabled = defaults.boolForKey(kRedditRedirectEnabledKey);
  settings.redditFrontendBaseURL = defaults.stringForKey(kRedditFrontendBaseURLKey)
                                       .value_or(std::string(kDefaultRedditFrontendBaseURL));
  settings.nitterServiceID = nitter.stringForKey(kNitterServiceIDKey).value_or("");
  settings.nitterAutomatic = nitter.boolForKey(kNitterAutomaticKey);
  return settings;
}

PrivacyRedirectSettings PrivacyRedirectSettings::fromLegacy(
    bool /*xRedirectEnabled*/, bool twitterViewerEnabled, bool redditRedirectEnabled,
    std::string redditFrontendBaseURL, bool nitterEnabled, std::string nitterServiceID,
    bool nitterAutomatic, std::optional<XRedirectChoice> xRedirectChoice) {
  PrivacyRedirectSettings settings;
  settings.xRedirectChoice = legacyChoice(xRedirectChoice, nitterEnabled, twitterViewerEnabled);
  settings.nitterServiceID = std::move(nitterServiceID);
  settings.nitterAutomatic = nitterAutomatic;
  settings.redditRedirectEnabled = redditRedirectEnabled;
  settings.redditFrontendBaseURL = std::move(redditFrontendBaseURL);
  return settings;
}

Json encodePrivacyRedirectSettings(const PrivacyRedirectSettings& settings) {
  Json json = Json::object();
  json["xRedirectChoice"] = std::string(rawValue(settings.xRedirectChoice));
  json["nitterServiceID"] = settings.nitterServiceID;
  json["nitterAutomatic"] = settings.nitterAutomatic;
  json["redditRedirectEnabled"] = settings.redditRedirectEnabled;
  json["redditFrontendBaseURL"] = settings.redditFrontendBaseURL;
  return json;
}

Result<PrivacyRedirectSettings> decodePrivacyRedirectSettings(const Json& json) {
  if (!json.is_object()) return fail("privacy redirect settings are not a JSON object");
  auto nitterEnabled = optionalMember<bool>(json, "nitterEnabled");
  if (!nitterEnabled) return tl::unexpected(nitterEnabled.error());
  auto twitterViewerEnabled = optionalMember<bool>(json, "twitterViewerEnabled");
  if (!twitterViewerEnabled) return tl::unexpected(twitterViewerEnabled.error());
  auto redditEnabled = optionalMember<bool>(json, "redditRedirectEnabled");
  if (!redditEnabled) return tl::unexpected(redditEnabled.error());
  auto redditBase = optionalMember<std::string>(json, "redditFrontendBaseURL");
  if (!redditBase) return tl::unexpected(redditBase.error());
  auto serviceID = optionalMember<std::string>(json, "nitterServiceID");
  if (!serviceID) return tl::unexpected(serviceID.error());
  auto automatic = optionalMember<bool>(json, "nitterAutomatic");
  if (!automatic) return tl::unexpected(automatic.error());
  auto choiceRaw = optionalMember<std::string>(json, "xRedirectChoice");
  if (!choiceRaw) return tl::unexpected(choiceRaw.error());

  std::optional<XRedirectChoice> choice;
  if (*choiceRaw) {
    choice = xRedirectChoiceFromRaw(**choiceRaw);
    if (!choice) return fail("\"xRedirectChoice\" \"" + **choiceRaw + "\" is not a known choice");
  }
  return PrivacyRedirectSettings::fromLegacy(
      false, twitterViewerEnabled->value_or(false), redditEnabled->value_or(false),
      redditBase->value_or(std::string(PrivacyRedirectSettings::kDefaultRedditFrontendBaseURL)),
      nitterEnabled->value_or(false), serviceID->value_or(""), automatic->value_or(false), choice);
}

}  // namespace linkwash
