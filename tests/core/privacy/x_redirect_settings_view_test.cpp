// The X/Twitter settings screen as a view model: first-appearance migration, bindings to the two
// real preference stores, and the exact texts and picker rows for each choice and catalog state.
#include "core/privacy/x_redirect_settings_view.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "core/privacy/privacy_redirector.h"
#include "tests/core/privacy/catalog_release.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

using testing::catalogOf;
using testing::kGenerated;
using testing::nitterService;
using View = XRedirectSettingsView;
using Settings = PrivacyRedirectSettings;

constexpr std::uint64_t kNow = kGenerated + 60;

std::shared_ptr<const VerifiedPrivacyCatalog> share(const PrivacyServicesCatalog& catalog) {
  return std::make_shared<const VerifiedPrivacyCatalog>(*testing::verifyCatalog(catalog));
}

// XCancel without a display name, an eligible instance with one, and a paused instance.
PrivacyServicesCatalog sampleCatalog() {
  auto xcancel = nitterService("xcancel");
  xcancel.destination = "https://xcancel.com";
  auto poast = nitterService("nitter-poast");
  poast.displayName = "nitter.poast.org";
  auto paused = nitterService("paused-one");
  paused.state = "paused";
  return catalogOf({xcancel, poast, paused});
}

class XRedirectSettingsViewTest : public ::testing::Test {
 protected:
  // The view over the test stores, with `catalog` as the catalog in use (null: none) at `now`.
  std::unique_ptr<View> makeView(std::shared_ptr<const VerifiedPrivacyCatalog> catalog,
                                 std::uint64_t now = kNow) {
    updaters_.push_back(std::make_unique<PrivacyCatalogUpdater>(
        PrivacyCatalogStore(home_.path() / "PrivacyServices", testing::catalogKeyFile()),
        std::move(catalog), [now] { return now; }));
    return std::make_unique<View>(*defaults_, group_.get(), *updaters_.back(),
                                  [this] { ++changes_; });
  }

  testing::TempHome home_;
  std::shared_ptr<PreferenceStore> defaults_ =
      PreferenceStore::open(home_.path() / "standard.sqlite3");
  std::shared_ptr<PreferenceStore> group_ = PreferenceStore::open(home_.path() / "group.sqlite3");
  std::vector<std::unique_ptr<PrivacyCatalogUpdater>> updaters_;
  int changes_ = 0;
};

TEST_F(XRedirectSettingsViewTest, FirstAppearanceStoresTheChoiceOlderSettingsImply) {
  group_->set(Settings::kNitterEnabledKey, PreferenceValue{true});
  auto view = makeView(share(sampleCatalog()));
  EXPECT_FALSE(defaults_->object(Settings::kXRedirectChoiceKey));
  view->appear();
  EXPECT_EQ(defaults_->stringForKey(Settings::kXRedirectChoiceKey), "nitter");
  EXPECT_EQ(changes_, 1);

  // A stored choice is never rewritten, not even an unknown one.
  defaults_->set(Settings::kXRedirectChoiceKey, PreferenceValue{std::string("Nitter")});
  view->appear();
  EXPECT_EQ(defaults_->stringForKey(Settings::kXRedirectChoiceKey), "Nitter");
  EXPECT_EQ(changes_, 2);
  const View::Content content = view->content();
  EXPECT_EQ(content.choice, "Nitter");
  EXPECT_FALSE(content.caption);
  EXPECT_FALSE(content.nitter) << "an unknown value selects no option";

  // Without any older settings the choice becomes "off".
  group_->remove(Settings::kNitterEnabledKey);
  defaults_->remove(Settings::kXRedirectChoiceKey);
  view->appear();
  EXPECT_EQ(defaults_->stringForKey(Settings::kXRedirectChoiceKey), "off");
}

TEST_F(XRedirectSettingsViewTest, EachChoiceShowsItsOwnPartsAndStoresOnlyChanges) {
  auto view = makeView(share(sampleCatalog()));
  View::Content content = view->content();
  EXPECT_EQ(content.choice, "off") << "the binding's default";
  EXPECT_EQ(content.choiceOptions.size(), 3u);
  EXPECT_TRUE(content.caption);
  EXPECT_FALSE(content.privacyPolicy);
  EXPECT_FALSE(content.nitter);

  view->setChoice(XRedirectChoice::twitterViewer);
  view->setChoice(XRedirectChoice::twitterViewer);
  EXPECT_EQ(changes_, 1) << "no change, no notification";
  EXPECT_EQ(view->content().privacyPolicy->url, "https://twitterviewer.net/privacy");

  view->setChoice(XRedirectChoice::nitter);
  content = view->content();
  ASSERT_TRUE(content.nitter);
  std::vector<View::Option> rows = {
      {"Choose an instance", ""}, {"xcancel", "xcancel"}, {"nitter.poast.org", "nitter-poast"}};
  EXPECT_EQ(content.nitter->instanceRows, rows);
  EXPECT_EQ(content.nitter->selectedInstance, "");
  EXPECT_EQ(content.nitter->status, PrivacyRedirector::kStatusUnavailable);
  EXPECT_FALSE(content.nitter->catalogUnavailable);

  view->setSelectedInstance("nitter-poast");
  EXPECT_EQ(group_->stringForKey(Settings::kNitterServiceIDKey), "nitter-poast")
      << "the Nitter keys live in the second store";
  EXPECT_EQ(view->content().nitter->selectedInstance, "nitter-poast");
  view->setAutomatic(true);
  EXPECT_TRUE(group_->boolForKey(Settings::kNitterAutomaticKey));
  EXPECT_TRUE(view->content().nitter->automatic);

  // A paused service keeps its own row: the picker never shows another instance instead.
  view->setAutomatic(false);
  view->setSelectedInstance("paused-one");
  rows.push_back({"Selected instance unavailable", "paused-one"});
  EXPECT_EQ(view->content().nitter->instanceRows, rows);
  EXPECT_EQ(changes_, 6);
}

TEST_F(XRedirectSettingsViewTest, AMissingOrStaleCatalogMakesRedirectsVisiblyUnavailable) {
  defaults_->set(Settings::kXRedirectChoiceKey, PreferenceValue{std::string("nitter")});
  group_->set(Settings::kNitterServiceIDKey, PreferenceValue{std::string("xcancel")});
  // Every review 90 days and one second old.
  const std::uint64_t stale = testing::kReviewed + PrivacyServicesCatalog::kMaximumReviewAge + 1;
  std::vector<std::unique_ptr<View>> views;
  views.push_back(makeView(nullptr));
  views.push_back(makeView(share(sampleCatalog()), stale));
  for (const auto& view : views) {
    const View::Content content = view->content();
    ASSERT_TRUE(content.nitter);
    const std::vector<View::Option> rows = {{"Choose an instance", ""},
                                            {"Selected instance unavailable", "xcancel"}};
    EXPECT_EQ(content.nitter->instanceRows, rows);
    EXPECT_EQ(content.nitter->catalogUnavailable, PrivacyServicesArchive::kUnavailable);
    EXPECT_EQ(content.nitter->status, PrivacyRedirector::kStatusUnavailable);
  }
  // One second earlier the same catalog is fresh and XCancel is back.
  auto fresh = makeView(share(sampleCatalog()), stale - 1);
  EXPECT_EQ(fresh->content().nitter->instanceRows.size(), 3u);
}

}  // namespace
}  // namespace linkwash
