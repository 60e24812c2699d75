// The payload selector, the notification texts and switches, and the basic link finder.
#include <gtest/gtest.h>

#include "core/clipboard/notification_manager.h"
#include "core/clipboard/paste_payload_selector.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

TEST(PastePayloadSelectorTest, PicksTheStringThatHoldsAllOthers) {
  const auto finder = basicClipboardLinkFinder();
  const std::string big = std::string(70000, 'x') + " https://a.example/";
  struct Case {
    std::vector<std::string> strings;
    std::optional<std::string> expected;
  };
  const std::vector<Case> cases = {
      {{}, std::nullopt},
      {{"", ""}, ""},
      {{"https://a.example/", "https://a.example/"}, "https://a.example/"},
      {{"Title https://a.example/x", "https://a.example/x"}, "Title https://a.example/x"},
      // The bare link is covered through the links found in the other text, not by containment.
      {{"<https://a.example/x>", " https://a.example/x\n"}, "<https://a.example/x>"},
      {{"see https://a.example/%7e", "https://a.example/~"}, std::nullopt},
      {{"one thing", "another"}, std::nullopt},
      {{big, "https://a.example/"}, big},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(PastePayloadSelector::select(c.strings, finder), c.expected)
        << (c.strings.empty() ? "" : c.strings[0].substr(0, 40));
  }
}

TEST(ClipboardLinkFinderTest, FindsWebLinksConservatively) {
  const auto finder = basicClipboardLinkFinder();
  struct Case {
    std::string text;
    std::vector<std::string> links;  // {"<refused>"} when the text is refused
  };
  const std::vector<Case> cases = {
      {"Go to https://a.example/x.", {"https://a.example/x"}},
      {"(see https://a.example/wiki/A_(b)) and [http://b.example/]",
       {"https://a.example/wiki/A_(b)", "http://b.example/"}},
      {"HTTPS://A.example/ ftp://b.example/ https://user@c.example/", {"HTTPS://A.example/"}},
      {"a\xE2\x80\x8B https://a.example/", {"<refused>"}},
      {"\xE2\x80\xAE https://a.example/", {"<refused>"}},
      {std::string(65537, ' '), {"<refused>"}},
  };
  for (const auto& c : cases) {
    auto links = finder.blockLinks(c.text);
    std::vector<std::string> urls;
    if (!links) urls.push_back("<refused>");
    for (const auto& link : links.value_or(std::vector<TextLink>{})) {
      urls.push_back(link.url);
      EXPECT_EQ(c.text.substr(link.begin, link.end - link.begin), link.url);
    }
    EXPECT_EQ(urls, c.links) << c.text.substr(0, 40);
  }
}

TEST(NotificationManagerTest, BodiesNameTheTrackersAndTheResolution) {
  auto body = [](std::vector<std::string> removed, std::optional<std::string> host = {},
                 std::optional<PrivacyRedirectInfo> redirect = {}) {
    CleanResult result;
    result.removedQueryParameters = std::move(removed);
    result.privacyRedirect = std::move(redirect);
    if (host) {
      CleanOperation op;
      op.kind = CleanOperationKind::networkResolution;
      op.contactedHost = host;
      result.operations.push_back(op);
    }
    return NotificationManager::notificationBody(result);
  };
  EXPECT_EQ(body({"utm_source"}), "Removed 1 tracker: utm_source");
  EXPECT_EQ(body({"a", "b"}), "Removed 2 trackers: a, b");
  EXPECT_EQ(body({"utm_source", "fbclid", "c", "d"}),
            "Removed 4 trackers: utm_source, fbclid, +2 more");
  EXPECT_EQ(body({}, "A.CO"), "Resolved direct Amazon product link");
  EXPECT_EQ(body({}, "www.threads.net"), "Resolved direct Threads link");
  EXPECT_EQ(body({"x"}, "instagram.com"), "Removed 1 tracker: x\nResolved direct Instagram link");
  EXPECT_EQ(body({}, std::nullopt,
                 PrivacyRedirectInfo{PrivacyRedirectService::xTwitter, "x.com", "nitter.example"}),
            "Rewritten for privacy: nitter.example");
  EXPECT_EQ(body({}), "Link cleaned");

  CommandRiskResult risk;
  EXPECT_EQ(NotificationManager::commandWarningBody(risk, true),
            "Linkwash found a risky terminal command pattern. Clipboard replaced with commented "
            "text.");
}

TEST(NotificationManagerTest, EachKindFollowsItsOwnSwitch) {
  testing::TempHome home;
  auto store = PreferenceStore::open(home.path() / "prefs.sqlite3");
  auto center = std::make_shared<RecordingNotificationCenter>();
  NotificationManager manager(store, center);
  manager.setEnabled(false);
  manager.sendCleanNotification(CleanResult{});
  manager.sendCommandWarningNotification(CommandRiskResult{}, false);
  ASSERT_EQ(center->posted().size(), 1u);
  EXPECT_EQ(center->posted()[0].title, "Risky command copied");
  EXPECT_EQ(center->posted()[0].identifier.size(), 36u);

  store->set(NotificationManager::kCommandWarningsEnabledKey, PreferenceValue{false});
  NotificationManager reread(store, center);
  EXPECT_FALSE(reread.isEnabled());
  EXPECT_FALSE(reread.areCommandWarningsEnabled());
}

}  // namespace
}  // namespace linkwash
