// Update awareness: version syntax and order, the daily throttle, reconciling, labels, storage.
#include "core/awareness/update_awareness.h"

#include <gtest/gtest.h>

#include <limits>

#include "platform/prefs/preference_store.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

using U = UpdateClass;

TEST(UpdateVersionTest, AcceptsAndOrders) {
  for (auto bad : {"", "1.2.3.4.5.6.7", "1.a", "v1.2", "1..2", "1.", ".1", "-1", "1 .2"}) {
    EXPECT_FALSE(UpdateVersion::isAccepted(bad)) << bad;
  }
  EXPECT_FALSE(UpdateVersion::isAccepted(std::string(81, '1')));
  EXPECT_TRUE(UpdateVersion::isAccepted(std::string(80, '1')));
  EXPECT_EQ(UpdateVersion::compare("1.2", "1.2.0.0"), std::strong_ordering::equal);
  EXPECT_EQ(UpdateVersion::compare("1.10", "1.9"), std::strong_ordering::greater);
  EXPECT_EQ(UpdateVersion::compare("2026.05.01.3", "2026.05.02.1"), std::strong_ordering::less);
  EXPECT_FALSE(UpdateVersion::compare("1.2", "x"));
}

TEST(UpdateAwarenessStateTest, ThrottlesReconcilesAndLabels) {
  UpdateAwarenessState s;
  EXPECT_TRUE(s.beginAutomatic(U::rules, 1000));
  EXPECT_FALSE(s.beginAutomatic(U::rules, 1000 + 86399));
  EXPECT_TRUE(s.beginAutomatic(U::rules, 1000 + 86400));
  EXPECT_FALSE(s.beginAutomatic(U::catalog, -1));
  EXPECT_FALSE(s.beginAutomatic(U::catalog, std::numeric_limits<double>::quiet_NaN()));
  s.automaticChecks = false;
  EXPECT_FALSE(s.beginAutomatic(U::app, 5));
  EXPECT_FALSE(s.entries.count(U::app));

  s.reconcile(U::rules, "2026.05.01.3", std::nullopt);
  s.recordSuccess(U::rules, "2026.05.01.3", std::nullopt, 10);
  EXPECT_TRUE(s.available().empty());
  s.recordSuccess(U::rules, "2026.05.02.1", std::nullopt, 11);
  EXPECT_EQ(s.label(U::rules), "Rules 2026.05.02.1 available");
  const auto before = s;
  s.recordSuccess(U::rules, "1.2.3.4.5.6.7", std::nullopt, 12);
  s.recordSuccess(U::rules, "9", -1, 12);
  s.reconcile(U::rules, "v2", std::nullopt);
  EXPECT_EQ(s, before);

  s.reconcile(U::app, "2.1", 44);
  s.recordSuccess(U::app, "2.1", 45, 20);
  EXPECT_EQ(s.label(U::app), "Linkwash 2.1 (Build 45) available");
  EXPECT_EQ(s.available(), (std::vector{U::app, U::rules}));
  EXPECT_EQ(s.indicatorAccessibilityLabel(true, true), "Linkwash, Command Guard warning");
  EXPECT_EQ(s.indicatorAccessibilityLabel(false, false), "Linkwash, updates available");
  s.reconcile(U::app, "2.1", 45);
  s.reconcile(U::rules, "2026.05.02.1", std::nullopt);
  EXPECT_EQ(s.label(U::app), "Linkwash");
  EXPECT_EQ(s.indicatorAccessibilityLabel(false, false), "Linkwash, cleaning disabled");
  EXPECT_EQ(s.indicatorAccessibilityLabel(false, true), "Linkwash");
}

TEST(UpdateAwarenessTest, StoresOneStateAcrossOwners) {
  testing::TempHome home;
  UpdateAwareness first(PreferenceStore::standard());
  ASSERT_TRUE(first.recordCheck(U::catalog, std::string("7"), std::string("6"), 100));
  UpdateAwareness second(PreferenceStore::standard());
  ASSERT_TRUE(second.reconcileRunningApp("1.1.0", std::nullopt));
  first.refresh();
  EXPECT_EQ(first.state(), second.state());
  EXPECT_EQ(first.state().label(U::catalog), "Privacy Services catalog 7 available");
  EXPECT_EQ(first.state().entries.at(U::app).installedVersion, "1.1.0");
  const auto stored = PreferenceStore::standard()->dataForKey("updateAwareness.v1");
  ASSERT_TRUE(stored);
  EXPECT_EQ(decodeUpdateAwarenessState(*parseJson(toString(*stored))), first.state());
}

}  // namespace
}  // namespace linkwash
