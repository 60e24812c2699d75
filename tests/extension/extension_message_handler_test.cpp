// The host's action table, driven in process against the shipped rules and real preferences in a
// temporary home.
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/stats/missed_tracker_report.h"
#include "extension/extension_message_handler.h"
#include "platform/pasteboard/memory_pasteboard.h"
#include "platform/resources/resource_bundle.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

// The handler's shared objects live as long as the process, so every test of this binary shares
// one home; each test starts from a known state instead (see HandlerTest::SetUp).
class HostHome : public ::testing::Environment {
 public:
  void SetUp() override { home_ = std::make_unique<testing::TempHome>(); }
  void TearDown() override { home_.reset(); }

 private:
  std::unique_ptr<testing::TempHome> home_;
};
[[maybe_unused]] auto* const kHostHome = ::testing::AddGlobalTestEnvironment(new HostHome);

constexpr const char* kTrackedLink = "https://www.amazon.com/dp/B01?tag=x&utm_source=y";
constexpr const char* kTrackedLinkCleaned = "https://www.amazon.com/dp/B01";

class HandlerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto store = sharedStandardStore();
    for (std::string_view key :
         {PrivacyRedirectSettings::kXRedirectChoiceKey,
          PrivacyRedirectSettings::kXRedirectEnabledKey,
          PrivacyRedirectSettings::kRedditRedirectEnabledKey, DomainExceptionStore::kStorageKey}) {
      store->remove(key);
    }
    sharedExceptionStore().refresh();
    sharedLastCleanRecorder().clear();
  }

  Json ask(const Json& message) const { return handler_.handle(message); }

  std::shared_ptr<MemoryPasteboard> pasteboard_ = std::make_shared<MemoryPasteboard>();
  ExtensionMessageHandler handler_{pasteboard_};
};

TEST_F(HandlerTest, AnythingButAKnownActionIsAnUnknownAction) {
  const Json empty = {{"error", "Unknown action: "}};
  EXPECT_EQ(ask(Json::object()), empty);
  EXPECT_EQ(ask(Json::array({"cleanURL"})), empty);
  EXPECT_EQ(ask(Json("cleanURL")), empty);
  EXPECT_EQ(ask(Json()), empty);
  EXPECT_EQ(ask({{"action", 7}, {"url", kTrackedLink}}), empty);
  EXPECT_EQ(ask({{"action", "CleanURL"}}), (Json{{"error", "Unknown action: CleanURL"}}));
  EXPECT_EQ(ask({{"action", "cleanURL "}}), (Json{{"error", "Unknown action: cleanURL "}}));
  EXPECT_EQ(ask({{"action", "recordStat"}, {"anything", 1}}), (Json{{"recorded", true}}));
}

TEST_F(HandlerTest, CleanURLAnswersByOutcome) {
  const Json cleaned = ask({{"action", "cleanURL"}, {"url", kTrackedLink}});
  EXPECT_EQ(cleaned, (Json{{"cleaned", true},
                           {"cleanedURL", kTrackedLinkCleaned},
                           {"paramsRemoved", 2},
                           {"removedQueryParameters", {"tag", "utm_source"}}}));
  ASSERT_TRUE(sharedLastCleanRecorder().current());
  EXPECT_EQ(sharedLastCleanRecorder().current()->surface, kExtensionSurface);

  const Json notCleaned = {{"cleaned", false}};
  EXPECT_EQ(ask({{"action", "cleanURL"}, {"url", "https://en.wikipedia.org/wiki/URL"}}),
            notCleaned);
  EXPECT_EQ(ask({{"action", "cleanURL"}, {"url", "ftp://example.com/?utm_source=x"}}), notCleaned);
  EXPECT_EQ(ask({{"action", "cleanURL"}, {"url", 42}}), notCleaned);
  EXPECT_EQ(ask({{"action", "cleanURL"}}), notCleaned);

  ask({{"action", "setDomainDisabled"}, {"host", "amazon.com"}, {"disabled", true}});
  EXPECT_EQ(ask({{"action", "cleanURL"}, {"url", kTrackedLink}}),
            (Json{{"cleaned", false}, {"skippedDisabled", true}, {"host", "amazon.com"}}));
}

TEST_F(HandlerTest, RedirectedCleansCarryTheRedirectAndTheCurrentChoice) {
  handler_.setPrivacyRedirectStage(
      [](std::string_view link,
         const PrivacyRedirectSettings&) -> std::optional<PrivacyRedirectResult> {
        if (link.find("reddit.com") == std::string_view::npos) return std::nullopt;
        return PrivacyRedirectResult{std::string(link), "https://safereddit.com/r/cpp",
                                     PrivacyRedirectService::reddit, "www.reddit.com",
                                     "safereddit.com"};
      });
  ask({{"action", "setXRedirectChoice"}, {"choice", "twitterViewer"}});
  const Json reply = ask({{"action", "cleanURL"}, {"url", "https://www.reddit.com/r/cpp"}});
  EXPECT_EQ(reply["cleaned"], true);
  EXPECT_EQ(reply["cleanedURL"], "https://safereddit.com/r/cpp");
  EXPECT_EQ(reply["xRedirectVerified"], false);
  EXPECT_EQ(reply["xRedirectChoice"], "twitterViewer");
  EXPECT_EQ(reply["privacyRedirect"], (Json{{"service", "reddit"},
                                            {"originalHost", "www.reddit.com"},
                                            {"frontendHost", "safereddit.com"}}));

  // Without a redirect none of the three keys appear.
  const Json plain = ask({{"action", "cleanURL"}, {"url", kTrackedLink}});
  EXPECT_FALSE(plain.contains("xRedirectVerified"));
  EXPECT_FALSE(plain.contains("privacyRedirect"));
}

TEST_F(HandlerTest, DomainSwitchesNormalizeHostsAndRefuseBadFlags) {
  EXPECT_EQ(
      ask({{"action", "setDomainDisabled"}, {"host", " WWW.Example.COM"}, {"disabled", true}}),
      (Json{{"ok", true}, {"host", "example.com"}, {"disabled", true}}));
  EXPECT_EQ(ask({{"action", "isDomainDisabled"}, {"url", "https://www.example.com/page"}}),
            (Json{{"host", "example.com"}, {"disabled", true}}));
  EXPECT_EQ(ask({{"action", "isDomainDisabled"}, {"host", "sub.example.com"}}),
            (Json{{"host", "sub.example.com"}, {"disabled", false}}));
  EXPECT_EQ(ask({{"action", "isDomainDisabled"}}), (Json{{"disabled", false}}));
  EXPECT_EQ(ask({{"action", "isDomainDisabled"}, {"url", "not a link"}}),
            (Json{{"disabled", false}}));

  const Json refused = {{"ok", false}, {"error", "Missing host or disabled flag"}};
  EXPECT_EQ(ask({{"action", "setDomainDisabled"}, {"host", "a.org"}, {"disabled", "true"}}),
            refused);
  EXPECT_EQ(ask({{"action", "setDomainDisabled"}, {"host", "a.org"}}), refused);
  EXPECT_EQ(ask({{"action", "setDomainDisabled"}, {"disabled", true}}), refused);
  EXPECT_EQ(ask({{"action", "setDomainDisabled"}, {"url", "mailto:a@a.org"}, {"disabled", true}}),
            refused);
  EXPECT_FALSE(sharedExceptionStore().isDisabled("a.org"));

  // An empty host falls through to the link's host.
  EXPECT_EQ(ask({{"action", "setDomainDisabled"},
                 {"host", ""},
                 {"url", "https://www.example.com/x"},
                 {"disabled", false}}),
            (Json{{"ok", true}, {"host", "example.com"}, {"disabled", false}}));
  EXPECT_FALSE(sharedExceptionStore().isDisabled("example.com"));
}

TEST_F(HandlerTest, LastCleanIsOfferedOnItsOwnSiteAndTakenOnce) {
  EXPECT_EQ(ask({{"action", "getLastClean"}}), (Json{{"available", false}}));
  EXPECT_EQ(ask({{"action", "applyLastClean"}}), (Json{{"applied", false}}));

  EXPECT_EQ(ask({{"action", "recordContentClean"}, {"originalURL", "https://www.shop.com/?a=1"}}),
            (Json{{"recorded", false}}));
  EXPECT_EQ(ask({{"action", "recordContentClean"},
                 {"originalURL", "https://www.shop.com/?a=1"},
                 {"cleanedURL", 5}}),
            (Json{{"recorded", false}}));
  EXPECT_FALSE(sharedLastCleanRecorder().current());

  EXPECT_EQ(ask({{"action", "recordContentClean"},
                 {"originalURL", "https://www.shop.com/?a=1"},
                 {"cleanedURL", "https://www.shop.com/"}}),
            (Json{{"recorded", true}}));
  EXPECT_EQ(sharedLastCleanRecorder().current()->surface, kContentScriptSurface);

  const Json available = {{"available", true},
                          {"originalURL", "https://www.shop.com/?a=1"},
                          {"cleanedURL", "https://www.shop.com/"}};
  EXPECT_EQ(ask({{"action", "getLastClean"}}), available);
  EXPECT_EQ(ask({{"action", "getLastClean"}, {"host", "WWW.SHOP.COM"}}), available);
  EXPECT_EQ(ask({{"action", "getLastClean"}, {"url", "https://shop.com/cart"}}), available);
  EXPECT_EQ(ask({{"action", "getLastClean"}, {"host", "other.com"}}), (Json{{"available", false}}));

  EXPECT_EQ(ask({{"action", "applyLastClean"}}),
            (Json{{"applied", true}, {"originalURL", "https://www.shop.com/?a=1"}}));
  EXPECT_EQ(ask({{"action", "applyLastClean"}}), (Json{{"applied", false}}));

  // A record whose link has no host is offered on any page.
  ask({{"action", "recordContentClean"}, {"originalURL", "opaque text"}, {"cleanedURL", "text"}});
  EXPECT_EQ(ask({{"action", "getLastClean"}, {"host", "anything.org"}})["available"], true);
}

TEST_F(HandlerTest, XRedirectChoiceIsStoredOnlyWhenValidAndTheFlagAlwaysOff) {
  auto store = sharedStandardStore();
  EXPECT_EQ(ask({{"action", "getXRedirectChoice"}}), (Json{{"ok", true}, {"choice", "off"}}));
  EXPECT_EQ(ask({{"action", "setXRedirectChoice"}, {"choice", "twitterViewer"}}),
            (Json{{"ok", true}, {"choice", "twitterViewer"}}));
  EXPECT_EQ(store->object(PrivacyRedirectSettings::kXRedirectChoiceKey),
            PreferenceValue{std::string("twitterViewer")});

  for (const Json& bad : {Json("Nitter"), Json(""), Json(1), Json()}) {
    Json message = {{"action", "setXRedirectChoice"}};
    if (!bad.is_null()) message["choice"] = bad;
    EXPECT_EQ(ask(message), (Json{{"ok", false}})) << bad.dump();
  }
  EXPECT_EQ(ask({{"action", "getXRedirectChoice"}}),
            (Json{{"ok", true}, {"choice", "twitterViewer"}}));

  for (const char* action : {"getXRedirectEnabled", "setXRedirectEnabled"}) {
    store->set(PrivacyRedirectSettings::kXRedirectEnabledKey, PreferenceValue{true});
    EXPECT_EQ(ask({{"action", action}, {"enabled", true}}),
              (Json{{"ok", true}, {"enabled", false}}));
    EXPECT_EQ(store->object(PrivacyRedirectSettings::kXRedirectEnabledKey), PreferenceValue{false});
  }
}

TEST_F(HandlerTest, MissedReportDescribesTheCleanOrTheGivenLinks) {
  EXPECT_EQ(ask({{"action", "buildMissedReport"}, {"note", "x"}}),
            (Json{{"ok", false}, {"error", "Missing originalURL"}}));

  const Json tracked = ask({{"action", "buildMissedReport"}, {"originalURL", kTrackedLink}});
  EXPECT_EQ(tracked["ok"], true);
  EXPECT_EQ(tracked["subject"], "[Missed Tracker] www.amazon.com - Linux - v" + appVersion());
  const std::string body = tracked["body"];
  EXPECT_NE(body.find("Cleaned URL:\n" + std::string(kTrackedLinkCleaned) + "\n"),
            std::string::npos);
  EXPECT_NE(body.find("\"surface\" : \"Browser Extension\""), std::string::npos);
  EXPECT_EQ(tracked["mailtoURL"].get<std::string>().rfind("mailto:", 0), 0u);
  EXPECT_EQ(sharedLastCleanRecorder().current()->surface, kExtensionReportSurface);

  // Nothing to clean: the page's own idea of the cleaned link and the note are reported.
  const Json given = ask({{"action", "buildMissedReport"},
                          {"originalURL", "https://news.example/a?id=7"},
                          {"cleanedURL", "https://news.example/a"},
                          {"note", "id is a tracker"}});
  const std::string givenBody = given["body"];
  EXPECT_NE(givenBody.find("Cleaned URL:\nhttps://news.example/a\n"), std::string::npos);
  EXPECT_NE(givenBody.find("User note:\nid is a tracker\n"), std::string::npos);
}

// The mailto link grows by a fixed amount per character of the path and the note. A plain note
// character counts twice (text and appendix) and a "/" five times (the appendix escapes it), so
// together they reach any length exactly.
TEST_F(HandlerTest, MailtoLinkIsIncludedUpToExactlyTheLimit) {
  auto reportFor = [&](std::size_t pathLength, std::size_t plain, std::size_t slashes) {
    return ask({{"action", "buildMissedReport"},
                {"originalURL", "https://pad.example/" + std::string(pathLength, 'p')},
                {"note", "n" + std::string(plain, 'n') + std::string(slashes, '/')}});
  };
  auto mailtoLength = [&](std::size_t path, std::size_t plain,
                          std::size_t slashes) -> std::optional<std::size_t> {
    const Json reply = reportFor(path, plain, slashes);
    if (!reply.contains("mailtoURL")) return std::nullopt;
    return reply["mailtoURL"].get<std::string>().size();
  };

  const std::size_t base = mailtoLength(0, 0, 0).value();
  const std::size_t perPlain = mailtoLength(0, 1, 0).value() - base;
  const std::size_t perSlash = mailtoLength(0, 0, 1).value() - base;
  std::size_t low = 0;
  std::size_t high = MissedTrackerReport::kMailtoLengthLimit;
  while (low + 1 < high) {  // the longest path that still gets a link
    const std::size_t middle = (low + high) / 2;
    (mailtoLength(middle, 0, 0) ? low : high) = middle;
  }
  // One character short of that leaves room for a few notes' worth of padding.
  const std::size_t path = low - 1;
  const std::size_t gap =
      MissedTrackerReport::kMailtoLengthLimit - mailtoLength(path, 0, 0).value();

  auto padding = [&](std::size_t extra) -> std::optional<std::pair<std::size_t, std::size_t>> {
    for (std::size_t slashes = 0; slashes * perSlash <= extra; ++slashes) {
      if ((extra - slashes * perSlash) % perPlain == 0) {
        return std::pair{(extra - slashes * perSlash) / perPlain, slashes};
      }
    }
    return std::nullopt;
  };
  const auto atLimit = padding(gap);
  const auto overLimit = padding(gap + 1);
  ASSERT_TRUE(atLimit && overLimit) << perPlain << " " << perSlash << " " << gap;

  EXPECT_EQ(mailtoLength(path, atLimit->first, atLimit->second),
            MissedTrackerReport::kMailtoLengthLimit);
  const Json over = reportFor(path, overLimit->first, overLimit->second);
  EXPECT_EQ(over["ok"], true);
  EXPECT_TRUE(over["subject"].is_string() && over["body"].is_string());
  EXPECT_FALSE(over.contains("mailtoURL"));
}

TEST_F(HandlerTest, CopyMissedReportPutsOnlyTheBodyOnThePasteboard) {
  pasteboard_->simulateCopy({PasteboardItem{"previous", "https://previous.example/"}});
  const auto before = pasteboard_->changeCount();

  EXPECT_EQ(ask({{"action", "copyMissedReport"}, {"originalURL", 3}}),
            (Json{{"ok", false}, {"error", "Missing originalURL"}}));
  EXPECT_EQ(pasteboard_->changeCount(), before);
  EXPECT_EQ(pasteboard_->items(),
            (std::vector<PasteboardItem>{{"previous", "https://previous.example/"}}));

  EXPECT_EQ(ask({{"action", "copyMissedReport"}, {"originalURL", kTrackedLink}, {"note", "hi"}}),
            (Json{{"ok", true}}));
  EXPECT_EQ(pasteboard_->changeCount(), before + 1);
  const auto items = pasteboard_->items();
  ASSERT_EQ(items.size(), 1u);
  EXPECT_FALSE(items[0].url);
  ASSERT_TRUE(items[0].text);
  EXPECT_EQ(items[0].text->rfind("Linkwash Missed Tracker Report\n\nUser note:\nhi\n", 0), 0u);
}

}  // namespace
}  // namespace linkwash
