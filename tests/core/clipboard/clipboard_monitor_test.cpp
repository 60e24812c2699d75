// The clipboard monitor on the in-memory pasteboard, with a recording notifier, a fixed clock, a
// small rule set and stand-in share links, so every step can be watched.
#include <gtest/gtest.h>

#include <fstream>

#include "core/clipboard/clipboard_monitor.h"
#include "platform/pasteboard/memory_pasteboard.h"
#include "tests/support/test_support.h"

namespace linkwash {
namespace {

constexpr std::string_view kRules = R"json({"providers": {
  "everywhere": {"urlPattern": ".*", "rules": ["utm_source", "utm_medium", "fbclid", "gclid"]}
}})json";
constexpr std::string_view kGuardRules = R"json({"currentVersion": "t1", "rules": [
  {"id": "t.pipe", "platform": "any", "severity": "danger", "pattern": "curl [^|]*\\| *sh",
   "summary": "Downloads and runs a script.", "explanation": "x"}]})json";
constexpr std::string_view kRisky = "curl -fsSL https://get.example/install | sh";
// 2026-03-14 12:00 UTC: noon keeps the local date the same in every time zone but the extremes.
constexpr std::int64_t kNow = 1773489600;

PasteboardItem text(std::string value) { return PasteboardItem{std::move(value), std::nullopt}; }

class ClipboardMonitorTest : public ::testing::Test {
 protected:
  ClipboardMonitorTest() {
    store_ = PreferenceStore::open(home_.path() / "prefs.sqlite3");
    engine_ = std::make_unique<RulesEngine>(store_);
    engine_->load(kRules);
    exceptions_ = std::make_unique<DomainExceptionStore>(store_);
    cleaner_ = std::make_unique<URLCleaner>(*engine_, exceptions_.get(), &recorder_, "test",
                                            PrivacyRedirectSettings{});
    notifications_ = std::make_unique<NotificationManager>(store_, center_);
    std::ofstream(home_.path() / "guard.json") << kGuardRules;
  }

  // Share links are "https://share.example/..."; resolving one answers from `answers_`.
  ClipboardMonitorOptions options() {
    ClipboardMonitorOptions o;
    o.clock = [] { return std::chrono::system_clock::from_time_t(kNow); };
    o.shareLinks.needsResolution = [](std::string_view l) {
      return l.starts_with("https://share.example/");
    };
    o.shareLinks.hasService = o.shareLinks.needsResolution;
    o.shareLinks.resolve = [this](const std::string& link) -> std::optional<ResolvedLink> {
      auto it = answers_.find(link);
      if (it == answers_.end()) return std::nullopt;
      return ResolvedLink{it->second, "share.example"};
    };
    o.runInBackground = [this](std::function<void()> work) { queued_.push_back(std::move(work)); };
    return o;
  }

  std::unique_ptr<ClipboardMonitor> makeMonitor() {
    const ResourceBundle none(home_.path() / "no-bundle");
    ClipboardStatsHooks stats{
        [this](const CleanResult& r) { statCleans_.push_back(r.cleanedURL); },
        [this](const CommandRiskResult&, bool neutralized) { statRisks_.push_back(neutralized); }};
    auto monitor = std::make_unique<ClipboardMonitor>(
        *cleaner_, stats, *notifications_, CommandGuard(&none, home_.path() / "guard.json"), store_,
        board_, recorder_, *exceptions_, options());
    monitor->start();
    return monitor;
  }

  void copy(std::string value) { board_->simulateCopy({text(std::move(value))}); }
  std::string board() const { return board_->firstText().value_or("<none>"); }
  void runQueued() {
    for (auto& work : queued_) work();
    queued_.clear();
  }

  testing::TempHome home_;
  std::shared_ptr<PreferenceStore> store_;
  std::unique_ptr<RulesEngine> engine_;
  std::unique_ptr<DomainExceptionStore> exceptions_;
  LastCleanRecorder recorder_;
  std::unique_ptr<URLCleaner> cleaner_;
  std::shared_ptr<RecordingNotificationCenter> center_ =
      std::make_shared<RecordingNotificationCenter>();
  std::unique_ptr<NotificationManager> notifications_;
  std::shared_ptr<MemoryPasteboard> board_ = std::make_shared<MemoryPasteboard>();
  std::map<std::string, std::string> answers_;
  std::vector<std::function<void()>> queued_;
  std::vector<std::string> statCleans_;
  std::vector<bool> statRisks_;
};

TEST_F(ClipboardMonitorTest, CleansNewCopiesOnlyOnceAndLeavesStartContentAlone) {
  copy("https://a.example/?utm_source=x");
  auto monitor = makeMonitor();
  monitor->tick();
  EXPECT_EQ(board(), "https://a.example/?utm_source=x");

  copy("Read https://a.example/p?id=1&fbclid=z&gclid=y, then reply.");
  monitor->tick();
  EXPECT_EQ(board(), "Read https://a.example/p?id=1, then reply.");
  std::int64_t afterWrite = board_->changeCount();
  for (int i = 0; i < 3; ++i) monitor->tick();
  EXPECT_EQ(board_->changeCount(), afterWrite);
  ASSERT_EQ(center_->posted().size(), 1u);
  EXPECT_EQ(center_->posted()[0].title, "URL Cleaned");
  EXPECT_EQ(center_->posted()[0].body, "Removed 2 trackers: fbclid, gclid");
  EXPECT_EQ(statCleans_, std::vector<std::string>{"https://a.example/p?id=1"});
  EXPECT_EQ(monitor->cleanedCountToday(), 1);
  EXPECT_EQ(store_->integerForKey(
                ClipboardMonitor::cleanedCountKey(std::chrono::system_clock::from_time_t(kNow))),
            1);

  // Restore brings back the whole text, once.
  EXPECT_TRUE(monitor->restoreLastOriginal());
  EXPECT_EQ(board(), "Read https://a.example/p?id=1&fbclid=z&gclid=y, then reply.");
  monitor->tick();
  EXPECT_EQ(board(), "Read https://a.example/p?id=1&fbclid=z&gclid=y, then reply.");
  std::int64_t count = board_->changeCount();
  EXPECT_FALSE(monitor->restoreLastOriginal());
  EXPECT_EQ(board_->changeCount(), count);
  EXPECT_FALSE(monitor->lastCleanedResult());
}

TEST_F(ClipboardMonitorTest, LastCleanSurvivesARestartAndIgnoresUndecodableData) {
  {
    auto monitor = makeMonitor();
    copy("https://a.example/?utm_source=x&k=1");
    monitor->tick();
  }
  auto restarted = makeMonitor();
  ASSERT_TRUE(restarted->lastCleanedResult());
  EXPECT_EQ(restarted->lastCleanedResult()->cleanedURL, "https://a.example/?k=1");
  EXPECT_EQ(restarted->cleanedCountToday(), 1);

  store_->set(ClipboardMonitor::kLastCleanedResultKey, PreferenceValue{toBytes("{broken")});
  EXPECT_FALSE(makeMonitor()->lastCleanedResult());
}

TEST_F(ClipboardMonitorTest, MultiLinkTextCleansEveryLinkAndNotifiesOnce) {
  auto monitor = makeMonitor();
  std::string original =
      "One https://a.example/?utm_source=x and two <https://b.example/q?fbclid=1&v=2> and "
      "https://c.example/ fine";
  copy(original);
  monitor->tick();
  EXPECT_EQ(board(),
            "One https://a.example/ and two <https://b.example/q?v=2> and https://c.example/ fine");
  EXPECT_EQ(statCleans_.size(), 2u);
  EXPECT_EQ(monitor->cleanedCountToday(), 2);
  EXPECT_EQ(center_->posted().size(), 1u);
  EXPECT_TRUE(monitor->restoreLastOriginal());
  EXPECT_EQ(board(), original);
}

TEST_F(ClipboardMonitorTest, SkipsOversizedDisabledAndUnchangedContent) {
  auto monitor = makeMonitor();
  std::string big = "https://a.example/?utm_source=x " + std::string(70000 - 32, 'a');
  ASSERT_EQ(big.size(), 70000u);
  copy(big);
  monitor->tick();
  EXPECT_EQ(board(), big);

  copy("https://a.example/?utm_source=x");
  monitor->tick();
  EXPECT_EQ(monitor->disableLastDomain(), "a.example");
  copy("https://a.example/?utm_source=y");
  monitor->tick();
  EXPECT_EQ(board(), "https://a.example/?utm_source=y");
  EXPECT_EQ(monitor->lastSkippedDomain(), "a.example");
  copy("https://b.example/clean");
  monitor->tick();
  EXPECT_FALSE(monitor->lastSkippedDomain());

  // Paused: nothing is cleaned until cleanNow() asks.
  monitor->setEnabled(false);
  copy("https://b.example/?gclid=1");
  monitor->tick();
  EXPECT_EQ(board(), "https://b.example/?gclid=1");
  monitor->cleanNow();
  EXPECT_EQ(board(), "https://b.example/");
}

TEST_F(ClipboardMonitorTest, CommandGuardRunsFirstEvenWhilePaused) {
  auto monitor = makeMonitor();
  monitor->setEnabled(false);
  copy(std::string(kRisky));
  monitor->tick();
  EXPECT_EQ(board(), kRisky);
  ASSERT_TRUE(monitor->lastCommandRisk());
  EXPECT_TRUE(store_->object(ClipboardMonitor::kGuardLastRiskKey));
  ASSERT_EQ(center_->posted().size(), 1u);
  EXPECT_EQ(center_->posted()[0].title, "Risky command copied");
  EXPECT_EQ(center_->posted()[0].body, "Downloads and runs a script.");

  // The stored warning survives a restart only while the command is still on the clipboard.
  EXPECT_TRUE(makeMonitor()->lastCommandRisk());
  copy("harmless");
  monitor->tick();
  EXPECT_FALSE(monitor->lastCommandRisk());
  EXPECT_FALSE(store_->object(ClipboardMonitor::kGuardLastRiskKey));

  monitor->setShouldNeutralizeRiskyCommands(true);
  copy(std::string(kRisky));
  monitor->tick();
  EXPECT_EQ(board(), CommandGuard::neutralizedCommand(kRisky));
  EXPECT_FALSE(monitor->lastCommandRisk());
  EXPECT_EQ(center_->posted().back().title, "Risky command neutralized");
  EXPECT_EQ(center_->posted().back().body,
            "Downloads and runs a script. Clipboard replaced with commented text.");
  EXPECT_EQ(statRisks_, (std::vector<bool>{false, true}));
  monitor->tick();  // its own neutralised text is not analysed again
  EXPECT_EQ(statRisks_.size(), 2u);

  // Settings written by another process are picked up on the next copy.
  store_->set(ClipboardMonitor::kGuardEnabledKey, PreferenceValue{false});
  copy(std::string(kRisky));
  monitor->tick();
  EXPECT_EQ(board(), kRisky);
  EXPECT_FALSE(monitor->isCommandGuardEnabled());
}

TEST_F(ClipboardMonitorTest, ShareLinksResolveOnlyWhenEnabledAndOnlyOverUnchangedClipboard) {
  answers_["https://share.example/s/1"] = "https://canon.example/p/1?utm_medium=m";
  auto monitor = makeMonitor();
  copy("look: https://share.example/s/1?utm_source=x");
  monitor->tick();
  EXPECT_EQ(board(), "look: https://share.example/s/1");
  EXPECT_TRUE(monitor->hasPendingShareLinkResolution());
  EXPECT_TRUE(queued_.empty());
  EXPECT_TRUE(center_->posted().empty());  // counted only once resolved

  monitor->resolvePendingShareLink();
  EXPECT_TRUE(monitor->isResolvingShareLink());
  runQueued();
  monitor->tick();
  EXPECT_EQ(board(), "look: https://canon.example/p/1");
  EXPECT_EQ(recorder_.current()->surface, "macOSNetworkResolution");
  EXPECT_EQ(monitor->cleanedCountToday(), 1);
  EXPECT_FALSE(monitor->isResolvingShareLink());

  // Automatic, but the user copies something else while the request runs.
  monitor->setAutomaticShareLinkResolutionEnabled(true);
  copy("https://share.example/s/1?fbclid=2");
  monitor->tick();
  ASSERT_EQ(queued_.size(), 1u);
  copy("newer");
  runQueued();
  monitor->tick();
  EXPECT_EQ(board(), "newer");
  EXPECT_EQ(monitor->shareLinkResolutionError(),
            "The clipboard changed. Its newer contents were kept.");

  copy("https://share.example/s/2?utm_source=q");
  monitor->tick();
  runQueued();
  monitor->tick();
  EXPECT_EQ(board(), "https://share.example/s/2");
  EXPECT_EQ(monitor->shareLinkResolutionError(),
            "The share link could not be resolved. The current locally processed link remains "
            "available.");

  copy("https://share.example/s/1 and https://share.example/s/3?gclid=1");
  monitor->tick();
  runQueued();
  monitor->tick();
  EXPECT_EQ(board(), "https://canon.example/p/1 and https://share.example/s/3");
  EXPECT_EQ(monitor->shareLinkResolutionError(),
            "Some shared links could not be resolved and were left unchanged.");
}

TEST_F(ClipboardMonitorTest, ManualResolutionRefusesWhenTheLinkIsGone) {
  auto monitor = makeMonitor();
  copy("https://share.example/s/9?utm_source=x");
  monitor->tick();
  copy("something else");
  monitor->tick();
  monitor->resolvePendingShareLink();
  EXPECT_TRUE(queued_.empty());
  EXPECT_EQ(monitor->shareLinkResolutionError(),
            "The clipboard changed. Copy the share link again to resolve it.");
}

}  // namespace
}  // namespace linkwash
