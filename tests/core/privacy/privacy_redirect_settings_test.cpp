// Privacy redirect settings read from real preference stores (including the migration from the
// legacy booleans and the separate store for the Nitter keys), and their JSON form.
#include "core/privacy/privacy_redirect_settings.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/test_support.h"

namespace linkwash {
namespace {

using Settings = PrivacyRedirectSettings;

class PrivacyRedirectSettingsStoreTest : public ::testing::Test {
 protected:
  testing::TempHome home_;
  std::shared_ptr<PreferenceStore> defaults_ =
      PreferenceStore::open(home_.path() / "standard.sqlite3");
  std::shared_ptr<PreferenceStore> group_ = PreferenceStore::open(home_.path() / "group.sqlite3");
};

TEST_F(PrivacyRedirectSettingsStoreTest, EmptyStoreReadsAsDisabled) {
  const Settings read = Settings::fromStore(*defaults_, nullptr);
  EXPECT_EQ(read, Settings::disabled());
  EXPECT_EQ(read.xRedirectChoice, XRedirectChoice::off);
  EXPECT_EQ(read.redditFrontendBaseURL, "https://safereddit.com");
  EXPECT_EQ(Settings::fromStore(*defaults_, group_.get()), Settings::disabled());
}

TEST_F(PrivacyRedirectSettingsStoreTest, StoredChoiceWinsOverLegacyBooleans) {
  using Entries = std::vector<std::pair<std::string_view, PreferenceValue>>;
  const std::string_view nitterKey = Settings::kNitterEnabledKey;
  const std::string_view viewerKey = Settings::kTwitterViewerEnabledKey;
  const std::string_view choiceKey = Settings::kXRedirectChoiceKey;
  using enum XRedirectChoice;
  const struct {
    const char* name;
    Entries defaults, group;
    XRedirectChoice expected;
  } cases[] = {
      {"legacy nitter in the group store", {}, {{nitterKey, true}}, nitter},
      {"legacy nitter in the wrong store", {{nitterKey, true}}, {}, off},
      {"legacy viewer", {{viewerKey, true}}, {}, twitterViewer},
      {"legacy viewer in the wrong store", {}, {{viewerKey, true}}, off},
      {"both legacy", {{viewerKey, true}}, {{nitterKey, true}}, nitter},
      {"legacy as text", {{viewerKey, std::string("YES")}}, {}, twitterViewer},
      {"retired flag ignored", {{Settings::kXRedirectEnabledKey, true}}, {}, off},
      {"stored off wins",
       {{choiceKey, std::string("off")}, {viewerKey, true}},
       {{nitterKey, true}},
       off},
      {"stored viewer wins",
       {{choiceKey, std::string("twitterViewer")}},
       {{nitterKey, true}},
       twitterViewer},
      {"wrong case is unknown",
       {{choiceKey, std::string("Nitter")}, {viewerKey, true}},
       {},
       twitterViewer},
      {"choice in the group store is not read", {}, {{choiceKey, std::string("nitter")}}, off},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    for (const auto& [key, value] : c.defaults) ASSERT_TRUE(defaults_->set(key, value));
    for (const auto& [key, value] : c.group) ASSERT_TRUE(group_->set(key, value));
    EXPECT_EQ(Settings::fromStore(*defaults_, group_.get()).xRedirectChoice, c.expected);
    for (const auto& [key, value] : c.defaults) ASSERT_TRUE(defaults_->remove(key));
    for (const auto& [key, value] : c.group) ASSERT_TRUE(group_->remove(key));
  }
}

TEST_F(PrivacyRedirectSettingsStoreTest, NitterKeysComeFromTheGroupStoreWhenGiven) {
  ASSERT_TRUE(defaults_->set(Settings::kXRedirectChoiceKey, std::string("nitter")));
  ASSERT_TRUE(defaults_->set(Settings::kRedditRedirectEnabledKey, true));
  ASSERT_TRUE(defaults_->set(Settings::kRedditFrontendBaseURLKey, std::string("not a url")));
  ASSERT_TRUE(defaults_->set(Settings::kNitterServiceIDKey, std::string("from-defaults")));
  ASSERT_TRUE(defaults_->set(Settings::kNitterAutomaticKey, true));
  ASSERT_TRUE(group_->set(Settings::kNitterServiceIDKey, std::string("xcancel")));
  ASSERT_TRUE(group_->set(Settings::kRedditRedirectEnabledKey, false));

  const Settings split = Settings::fromStore(*defaults_, group_.get());
  EXPECT_TRUE(split.nitterEnabled());
  EXPECT_FALSE(split.twitterViewerEnabled());
  EXPECT_EQ(split.nitterServiceID, "xcancel");
  EXPECT_FALSE(split.nitterAutomatic);
  EXPECT_TRUE(split.redditRedirectEnabled);
  EXPECT_EQ(split.redditFrontendBaseURL, "not a url");  // validated by the redirector, not here

  const Settings single = Settings::fromStore(*defaults_, nullptr);
  EXPECT_EQ(single.nitterServiceID, "from-defaults");
  EXPECT_TRUE(single.nitterAutomatic);
}

TEST(PrivacyRedirectSettingsJsonTest, EncodesExactlyFiveKeysAndRoundTrips) {
  EXPECT_EQ(writeJson(encodePrivacyRedirectSettings(Settings::disabled())),
            R"({"xRedirectChoice":"off","nitterServiceID":"","nitterAutomatic":false,)"
            R"("redditRedirectEnabled":false,"redditFrontendBaseURL":"https:\/\/safereddit.com"})");

  Settings nitter = Settings::fromLegacy(false, false, true, "https://r.example", false, "xcancel",
                                         true, XRedirectChoice::nitter);
  const Json encoded = encodePrivacyRedirectSettings(nitter);
  EXPECT_EQ(encoded.size(), 5u);
  EXPECT_FALSE(encoded.contains("nitterEnabled"));
  for (const Settings& settings : {Settings::disabled(), nitter}) {
    const auto decoded = decodePrivacyRedirectSettings(encodePrivacyRedirectSettings(settings));
    ASSERT_TRUE(decoded) << decoded.error().message;
    EXPECT_EQ(*decoded, settings);
  }

  // The retired flag is never encoded, is always false when made, yet still takes part in
  // equality.
  EXPECT_FALSE(Settings::fromLegacy(true, false, false, "", false, "", false, std::nullopt)
                   .xRedirectEnabled);
  Settings flagged = Settings::disabled();
  flagged.xRedirectEnabled = true;
  EXPECT_NE(flagged, Settings::disabled());
  EXPECT_EQ(encodePrivacyRedirectSettings(flagged),
            encodePrivacyRedirectSettings(Settings::disabled()));
}

TEST(PrivacyRedirectSettingsJsonTest, DecodesOptionalKeysWithLegacyFallback) {
  const auto decode = [](const char* text) {
    const auto json = parseJson(text);
    EXPECT_TRUE(json) << text;
    return decodePrivacyRedirectSettings(json ? *json : Json());
  };
  Settings viewer = Settings::disabled();
  viewer.xRedirectChoice = XRedirectChoice::twitterViewer;
  EXPECT_EQ(decode(R"({"twitterViewerEnabled": true})"), viewer);
  EXPECT_EQ(decode("{}"), Settings::disabled());
  EXPECT_EQ(decode(R"({"xRedirectChoice":"off","nitterEnabled":true,"xRedirectEnabled":"junk"})"),
            Settings::disabled());
  EXPECT_EQ(decode(R"({"nitterEnabled":true,"twitterViewerEnabled":true})")->xRedirectChoice,
            XRedirectChoice::nitter);
  EXPECT_EQ(decode(R"({"xRedirectChoice":null,"redditFrontendBaseURL":null})"),
            Settings::disabled());

  const char* refused[] = {
      R"({"xRedirectChoice":"Nitter"})",
      R"({"xRedirectChoice":1})",
      R"({"nitterAutomatic":1})",
      R"({"redditRedirectEnabled":"true"})",
      R"({"redditFrontendBaseURL":5})",
      R"({"nitterServiceID":false})",
      R"({"twitterViewerEnabled":"YES"})",
      R"({"nitterEnabled":0})",
      "[]",
      R"("off")",
  };
  for (const char* text : refused) EXPECT_FALSE(decode(text)) << text;
}

}  // namespace
}  // namespace linkwash
