// `linkwash watch`: the clipboard daemon. Runs the clipboard monitor on the desktop clipboard in
// the foreground until SIGINT or SIGTERM, and answers `linkwash clipboard ...` on its socket.
#include <poll.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <iostream>

#include "core/cleaning/text_url_block.h"
#include "core/clipboard/clipboard_control.h"
#include "core/clipboard/clipboard_monitor.h"
#include "core/links/share_link_resolver.h"
#include "core/session/session.h"
#include "core/stats/stats_tracker.h"
#include "platform/notifications/dbus_notification_center.h"
#include "platform/pasteboard/desktop_pasteboard.h"
#include "tools/cli/commands.h"

namespace linkwash::cli {
namespace {

constexpr std::string_view kClipboardSurface = "linuxClipboard";

std::atomic<int> stopSignal{0};
void onStopSignal(int signal) { stopSignal = signal; }

// Everything the daemon runs with, set up in one place.
struct ClipboardServices {
  std::unique_ptr<Session> session;
  std::shared_ptr<PreferenceStore> defaults;
  std::unique_ptr<URLCleaner> cleaner;
  std::unique_ptr<StatsTracker> stats;
  std::unique_ptr<NotificationManager> notifications;
  std::unique_ptr<ClipboardMonitor> monitor;
};

// Links in copied text, found the way every surface finds them.
ClipboardLinkFinder textURLBlockFinder() {
  ClipboardLinkFinder finder;
  finder.blockLinks = [](std::string_view text) -> std::optional<std::vector<TextLink>> {
    auto block = TextURLBlock::make(std::string(text));
    if (!block) return std::nullopt;
    std::vector<TextLink> links;
    links.reserve(block->matches().size());
    for (const auto& match : block->matches())
      links.push_back({match.url, match.range.begin, match.range.end});
    return links;
  };
  finder.singleLink = [](std::string_view text) -> std::optional<TextLink> {
    auto link = ClipboardLink::make(std::string(text));
    if (!link) return std::nullopt;
    return TextLink{link->url, link->range.begin, link->range.end};
  };
  return finder;
}

// Share links are resolved over the network only through the resolver's own policy.
ShareLinkSupport resolverShareLinks() {
  ShareLinkSupport support;
  support.needsResolution = [](std::string_view link) {
    return ShareLinkResolutionPolicy::needsResolution(link);
  };
  support.hasService = [](std::string_view link) {
    return ShareLinkResolutionPolicy::service(link).has_value();
  };
  support.resolve = [](const std::string& link) -> std::optional<ResolvedLink> {
    auto resolved = ShareLinkResolver::resolve(link);
    if (!resolved) return std::nullopt;
    return ResolvedLink{resolved->canonicalURL, resolved->contactedHost};
  };
  return support;
}

std::unique_ptr<ClipboardServices> openClipboardServices(std::shared_ptr<Pasteboard> pasteboard) {
  auto services = std::make_unique<ClipboardServices>();
  auto opened = Session::open();
  if (!opened) return nullptr;
  services->session = std::move(*opened);
  Session& session = *services->session;
  services->defaults = session.standardStoreHandle();
  services->cleaner =
      std::make_unique<URLCleaner>(session.makeCleaner(std::string(kClipboardSurface)));
  services->stats = std::make_unique<StatsTracker>(services->defaults);
  StatsTracker* stats = services->stats.get();
  ClipboardStatsHooks statsHooks{
      [stats](const CleanResult& result) { (void)stats->recordClean(result); },
      [stats](const CommandRiskResult& result, bool neutralized) {
        (void)stats->recordCommandRisk(result, neutralized);
      }};
  services->notifications = std::make_unique<NotificationManager>(
      services->defaults, std::make_shared<DBusNotificationCenter>());
  services->notifications->requestPermission();
  ClipboardMonitorOptions options;
  options.linkFinder = textURLBlockFinder();
  options.shareLinks = resolverShareLinks();
  services->monitor = std::make_unique<ClipboardMonitor>(
      *services->cleaner, std::move(statsHooks), *services->notifications, CommandGuard(),
      services->defaults, std::move(pasteboard), session.lastCleanRecorder(), session.exceptions(),
      std::move(options));
  return services;
}

// What the user reads about a clean in `clipboard status`: the tracking impact's summary.
std::string impactSummary(const CleanResult& result) {
  return result.trackingImpactReport().summary;
}

Json statusReply(const ClipboardServices& services, const std::string& backend) {
  const ClipboardMonitor& monitor = *services.monitor;
  Json reply = Json::object();
  reply["ok"] = true;
  reply["backend"] = backend;
  reply["enabled"] = monitor.isEnabled();
  reply["cleanedToday"] = monitor.cleanedCountToday();
  if (const auto& last = monitor.lastCleanedResult()) {
    reply["lastClean"] = Json::object({{"originalURL", last->originalURL},
                                       {"cleanedURL", last->cleanedURL},
                                       {"summary", impactSummary(*last)}});
  }
  if (const auto& skipped = monitor.lastSkippedDomain()) reply["lastSkippedDomain"] = *skipped;
  if (const auto& risk = monitor.lastCommandRisk()) {
    const CommandRiskFinding* finding = risk->primaryFinding();
    reply["lastCommandRisk"] =
        Json::object({{"severity", std::string(rawValue(risk->severity))},
                      {"summary", finding ? finding->summary : std::string()}});
  }
  if (monitor.hasPendingShareLinkResolution()) {
    reply["pendingShareLink"] = monitor.lastCleanedResult()->cleanedURL;
  }
  reply["resolvingShareLink"] = monitor.isResolvingShareLink();
  if (const auto& error = monitor.shareLinkResolutionError()) reply["shareLinkError"] = *error;
  reply["settings"] =
      Json::object({{"guard", monitor.isCommandGuardEnabled()},
                    {"threshold", std::string(rawValue(monitor.commandGuardThreshold()))},
                    {"neutralize", monitor.shouldNeutralizeRiskyCommands()},
                    {"resolveShareLinks", monitor.automaticShareLinkResolutionEnabled()},
                    {"notifications", services.notifications->isEnabled()},
                    {"commandWarnings", services.notifications->areCommandWarningsEnabled()}});
  return reply;
}

Json handleControl(const Json& request, ClipboardServices& services, const std::string& backend) {
  ClipboardMonitor& monitor = *services.monitor;
  const std::string command = request.value("command", std::string());
  Json reply = Json::object({{"ok", true}});
  if (command == "status") return statusReply(services, backend);
  if (command == "restore") {
    reply["restored"] = monitor.restoreLastOriginal();
  } else if (command == "disable-site") {
    auto host = monitor.disableLastDomain();
    reply["host"] = host ? Json(*host) : Json(nullptr);
  } else if (command == "clean-now") {
    monitor.cleanNow();
  } else if (command == "resolve") {
    if (!monitor.hasPendingShareLinkResolution()) {
      return Json::object({{"ok", false}, {"error", "No share link is waiting to be resolved."}});
    }
    monitor.resolvePendingShareLink();
  } else if (command == "pause" || command == "resume") {
    monitor.setEnabled(command == "resume");
  } else if (command == "reload") {
    monitor.reloadSettings();
  } else if (command == "copy" && request.contains("text") && request["text"].is_string()) {
    monitor.copyText(request["text"].get<std::string>());
  } else {
    return Json::object({{"ok", false}, {"error", "Unknown command"}});
  }
  return reply;
}

// With --verbose, one line on stderr for everything a tick did.
class ActivityLog {
 public:
  explicit ActivityLog(const ClipboardMonitor& monitor) : monitor_(monitor) { remember(); }
  void report() {
    if (monitor_.cleanedCountToday() != count_ && monitor_.lastCleanedResult()) {
      std::cerr << "cleaned: " << monitor_.lastCleanedResult()->originalURL << " -> "
                << monitor_.lastCleanedResult()->cleanedURL << '\n';
    }
    if (monitor_.lastCommandRisk() && monitor_.lastCommandRisk() != risk_) {
      std::cerr << "risky command copied: " << rawValue(monitor_.lastCommandRisk()->severity)
                << '\n';
    }
    if (monitor_.shareLinkResolutionError() && monitor_.shareLinkResolutionError() != error_) {
      std::cerr << "share link: " << *monitor_.shareLinkResolutionError() << '\n';
    }
    remember();
  }

 private:
  void remember() {
    count_ = monitor_.cleanedCountToday();
    risk_ = monitor_.lastCommandRisk();
    error_ = monitor_.shareLinkResolutionError();
  }
  const ClipboardMonitor& monitor_;
  std::int64_t count_ = 0;
  std::optional<CommandRiskResult> risk_;
  std::optional<std::string> error_;
};

int runWatch(const std::string& backendName, bool verbose) {
  PasteboardBackend backend = backendName == "x11"       ? PasteboardBackend::x11
                              : backendName == "wayland" ? PasteboardBackend::wayland
                                                         : PasteboardBackend::automatic;
  ClipboardControlServer control;
  if (auto listening = control.listen(); !listening) {
    std::cerr << "linkwash watch: " << listening.error().message << '\n';
    return 0;  // one daemon per user is enough; a second start is not a failure
  }
  DesktopPasteboard desktop = openDesktopPasteboard(backend);
  if (!desktop.pasteboard) {
    std::cerr << "linkwash watch: no clipboard: " << desktop.failure << '\n';
    return 1;
  }
  if (!desktop.note.empty()) std::cerr << "linkwash watch: " << desktop.note << '\n';

  struct sigaction action {};
  action.sa_handler = onStopSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);

  auto services = openClipboardServices(desktop.pasteboard);
  if (!services) {
    std::cerr << "linkwash watch: cannot open the preferences\n";
    return 1;
  }
  ClipboardMonitor& monitor = *services->monitor;
  monitor.start();
  ActivityLog log(monitor);
  if (verbose) std::cerr << "linkwash watch: watching the " << desktop.backend << " clipboard\n";

  using Clock = std::chrono::steady_clock;
  auto nextTick = Clock::now();
  while (stopSignal == 0) {
    auto now = Clock::now();
    if (now >= nextTick) {
      monitor.tick();
      if (verbose) log.report();
      nextTick = std::max(nextTick + ClipboardMonitor::kPollInterval, now);
    }
    auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(nextTick - Clock::now());
    pollfd request{control.fd(), POLLIN, 0};
    if (poll(&request, 1, static_cast<int>(std::max<long>(wait.count(), 0))) > 0) {
      control.serveOne(
          [&](const Json& message) { return handleControl(message, *services, desktop.backend); });
      if (verbose) log.report();
    }
  }
  monitor.stop();
  if (verbose) std::cerr << "linkwash watch: stopped\n";
  return 0;
}

}  // namespace

void addWatchCommand(CLI::App& app, int& exitCode) {
  auto* watch = app.add_subcommand(
      "watch", "Protect the clipboard: clean copied links and flag risky commands (foreground)");
  auto backend = std::make_shared<std::string>("auto");
  auto verbose = std::make_shared<bool>(false);
  watch->add_option("--backend", *backend, "Clipboard to watch")
      ->check(CLI::IsMember({"auto", "x11", "wayland"}));
  watch->add_flag("--verbose", *verbose, "Print what happens on standard error");
  watch->callback([&exitCode, backend, verbose] { exitCode = runWatch(*backend, *verbose); });
}

}  // namespace linkwash::cli
