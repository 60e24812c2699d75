// The clipboard monitor's polling, guard, cleaning and share-link steps.
#include "core/clipboard/clipboard_monitor.h"

#include <ctime>
#include <utility>

#include "core/clipboard/paste_payload_selector.h"

namespace linkwash {
namespace {

std::optional<Json> storedJson(const PreferenceStore& defaults, std::string_view key) {
  auto data = defaults.dataForKey(key);
  if (!data) return std::nullopt;
  return parseJson(toString(*data));
}

void storeJson(PreferenceStore& defaults, std::string_view key, const Json& json) {
  defaults.set(key, PreferenceValue{toBytes(writeJson(json))});
}

bool boolSetting(const PreferenceStore& defaults, std::string_view key, bool fallback) {
  return defaults.object(key).has_value() ? defaults.boolForKey(key) : fallback;
}

std::string replaceRange(const std::string& text, const TextLink& link,
                         std::string_view replacement) {
  return text.substr(0, link.begin) + std::string(replacement) + text.substr(link.end);
}

}  // namespace

ClipboardMonitor::ClipboardMonitor(URLCleaner& urlCleaner, ClipboardStatsHooks statsTracker,
                                   NotificationManager& notificationManager,
                                   CommandGuard commandGuard,
                                   std::shared_ptr<PreferenceStore> defaults,
                                   std::shared_ptr<Pasteboard> pasteboard,
                                   LastCleanRecorder& lastCleanRecorder,
                                   DomainExceptionStore& exceptions,
                                   ClipboardMonitorOptions options)
    : urlCleaner_(urlCleaner),
      stats_(std::move(statsTracker)),
      notifications_(notificationManager),
      commandGuard_(std::move(commandGuard)),
      defaults_(std::move(defaults)),
      pasteboard_(std::move(pasteboard)),
      recorder_(lastCleanRecorder),
      exceptions_(exceptions),
      options_(std::move(options)) {
  reloadSettings();
  lastChangeCount_ = pasteboard_->changeCount();
  cleanedCountToday_ = defaults_->integerForKey(cleanedCountKey(options_.clock()));
  if (auto json = storedJson(*defaults_, kLastCleanedResultKey)) {
    lastCleanedResult_ = decodeCleanResult(*json);
  }
  // A stored warning survives a restart only while the risky command is still on the clipboard.
  auto text = readPasteboardText();
  if (!text || !commandGuard_.analyze(*text, commandGuardThreshold_)) removeStoredRisk();
  if (auto json = storedJson(*defaults_, kGuardLastRiskKey)) {
    lastCommandRisk_ = decodeCommandRiskResult(*json);
  }
}

ClipboardMonitor::~ClipboardMonitor() {
  for (auto& worker : workers_) {
    if (worker.joinable()) worker.join();
  }
}

void ClipboardMonitor::reloadSettings() {
  isCommandGuardEnabled_ = boolSetting(*defaults_, kGuardEnabledKey, true);
  auto threshold = defaults_->stringForKey(kGuardThresholdKey);
  commandGuardThreshold_ =
      threshold ? commandRiskSeverityFromRaw(*threshold).value_or(CommandRiskSeverity::warning)
                : CommandRiskSeverity::warning;
  shouldNeutralizeRiskyCommands_ = boolSetting(*defaults_, kGuardNeutralizeKey, false);
  automaticShareLinkResolution_ = boolSetting(*defaults_, kShareLinkResolutionKey, false);
  notifications_.reloadSettings();
}

void ClipboardMonitor::setCommandGuardEnabled(bool enabled) {
  isCommandGuardEnabled_ = enabled;
  defaults_->set(kGuardEnabledKey, PreferenceValue{enabled});
}

void ClipboardMonitor::setCommandGuardThreshold(CommandRiskSeverity threshold) {
  commandGuardThreshold_ = threshold;
  defaults_->set(kGuardThresholdKey, PreferenceValue{std::string(rawValue(threshold))});
}

void ClipboardMonitor::setShouldNeutralizeRiskyCommands(bool neutralize) {
  shouldNeutralizeRiskyCommands_ = neutralize;
  defaults_->set(kGuardNeutralizeKey, PreferenceValue{neutralize});
}

void ClipboardMonitor::setAutomaticShareLinkResolutionEnabled(bool enabled) {
  automaticShareLinkResolution_ = enabled;
  defaults_->set(kShareLinkResolutionKey, PreferenceValue{enabled});
}

std::string ClipboardMonitor::cleanedCountKey(std::chrono::system_clock::time_point time) {
  std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm local{};
  localtime_r(&seconds, &local);
  char date[16];
  std::strftime(date, sizeof date, "%Y-%m-%d", &local);
  return std::string(kCleanedCountKeyPrefix) + date;
}

void ClipboardMonitor::tick() {
  if (!running_) return;
  runFinishedWork();
  std::int64_t count = pasteboard_->changeCount();
  if (count == lastChangeCount_) return;
  lastChangeCount_ = count;
  if (count == ownWriteChangeCount_) return;
  // Settings may have been changed by another process since the last copy.
  reloadSettings();
  auto text = readPasteboardText();
  if (!text) return;
  if (commandGuardStep(*text)) return;
  clearLastCommandRisk();
  if (isEnabled_) linkStep(*text);
}

void ClipboardMonitor::cleanNow() {
  runFinishedWork();
  auto text = readPasteboardText();
  if (!text || commandGuardStep(*text)) return;
  linkStep(*text);
}

std::optional<std::string> ClipboardMonitor::readPasteboardText() const {
  std::vector<std::string> strings;
  for (const auto& item : pasteboard_->items()) {
    for (const auto* value : {&item.text, &item.url}) {
      if (!value->has_value()) continue;
      if ((*value)->size() > kMaximumPasteboardBytes) return std::nullopt;
      strings.push_back(**value);
    }
  }
  return PastePayloadSelector::select(strings, options_.linkFinder);
}

bool ClipboardMonitor::commandGuardStep(const std::string& text) {
  if (!isCommandGuardEnabled_) return false;
  auto risk = commandGuard_.analyze(text, commandGuardThreshold_);
  if (!risk) return false;
  if (shouldNeutralizeRiskyCommands_) {
    writePasteboard(CommandGuard::neutralizedCommand(text));
    if (stats_.recordCommandRisk) stats_.recordCommandRisk(*risk, true);
    notifications_.sendCommandWarningNotification(*risk, true);
    clearLastCommandRisk();
  } else {
    lastCommandRisk_ = *risk;
    storeJson(*defaults_, kGuardLastRiskKey, encodeCommandRiskResult(*risk));
    if (stats_.recordCommandRisk) stats_.recordCommandRisk(*risk, false);
    notifications_.sendCommandWarningNotification(*risk, false);
  }
  return true;
}

void ClipboardMonitor::linkStep(const std::string& text) {
  auto block = options_.linkFinder.blockLinks(text);
  auto single = options_.linkFinder.singleLink(text);
  bool multi = block && (block->size() > 1 ||
                         (block->size() == 1 && (!single || block->front().url != single->url)));
  if (multi) {
    multiLinkStep(text, std::move(*block));
  } else {
    singleLinkStep(text);
  }
}

void ClipboardMonitor::singleLinkStep(const std::string& text) {
  textBlockState_.reset();
  auto link = options_.linkFinder.singleLink(text);
  if (!link) return;
  CleanOutcome outcome = urlCleaner_.cleanWithOutcome(link->url);
  if (outcome.kind == CleanOutcome::Kind::skippedDisabled) {
    lastSkippedDomain_ = outcome.host;
    return;
  }
  lastSkippedDomain_.reset();
  if (outcome.kind != CleanOutcome::Kind::cleaned || !outcome.result) return;
  const CleanResult& result = *outcome.result;
  writePasteboard(replaceRange(text, *link, result.cleanedURL));
  clipboardRecovery_ = Recovery{result.originalURL, text};
  if (options_.shareLinks.needsResolution(result.cleanedURL)) {
    // Counted once the network answer is in (or never, if the user does not resolve it).
    publishLastCleanedResult(result);
    if (automaticShareLinkResolution_) resolvePendingShareLink();
    return;
  }
  recordClean(result);
}

void ClipboardMonitor::multiLinkStep(const std::string& text, std::vector<TextLink> links) {
  std::vector<std::optional<CleanResult>> results;
  results.reserve(links.size());
  for (const auto& link : links) {
    CleanOutcome outcome = urlCleaner_.cleanWithOutcome(link.url);
    results.push_back(outcome.kind == CleanOutcome::Kind::cleaned ? outcome.result : std::nullopt);
  }
  std::string output = replaceLinks(text, links, [&](std::size_t i, const TextLink& link) {
    return results[i] ? results[i]->cleanedURL : link.url;
  });
  if (output != text) {
    writePasteboard(output);
    const CleanResult* last = nullptr;
    for (const auto& result : results) {
      if (result) last = &*result;
    }
    if (last) clipboardRecovery_ = Recovery{last->originalURL, text};
    // Every cleaned link counts; one notification stands for the whole text.
    for (const auto& result : results) {
      if (result) recordClean(*result, result.has_value() && &*result == last);
    }
  }
  std::vector<std::size_t> shareLinks;
  for (std::size_t i = 0; i < links.size(); ++i) {
    const std::string& current = results[i] ? results[i]->cleanedURL : links[i].url;
    if (options_.shareLinks.needsResolution(current)) shareLinks.push_back(i);
  }
  textBlockState_ = TextBlockState{text, std::move(links), std::move(results), output};
  if (automaticShareLinkResolution_ && !shareLinks.empty()) resolveBlockShareLinks(shareLinks);
}

void ClipboardMonitor::resolveBlockShareLinks(const std::vector<std::size_t>& indices) {
  if (isResolvingShareLink_ || !textBlockState_) return;
  std::vector<std::string> targets;
  for (std::size_t i : indices) {
    const auto& result = textBlockState_->results[i];
    targets.push_back(result ? result->cleanedURL : textBlockState_->links[i].url);
  }
  std::int64_t noted = pasteboard_->changeCount();
  isResolvingShareLink_ = true;
  shareLinkResolutionError_.reset();
  auto resolve = options_.shareLinks.resolve;
  runInBackground([this, indices, targets, noted, resolve] {
    std::vector<std::optional<ResolvedLink>> answers;
    for (const auto& target : targets) answers.push_back(resolve(target));
    postToLoop([this, indices, answers, noted] {
      isResolvingShareLink_ = false;
      if (!textBlockState_) return;
      if (pasteboard_->changeCount() != noted) {
        shareLinkResolutionError_ = std::string(kClipboardChangedKeptMessage);
        return;
      }
      auto& state = *textBlockState_;
      bool someFailed = false;
      std::vector<std::string> replacement;
      for (std::size_t i = 0; i < state.links.size(); ++i) {
        replacement.push_back(state.results[i] ? state.results[i]->cleanedURL : state.links[i].url);
      }
      std::vector<CleanResult> finals;
      for (std::size_t k = 0; k < indices.size(); ++k) {
        std::size_t i = indices[k];
        if (!answers[k]) {
          someFailed = true;
          continue;
        }
        CleanResult final =
            urlCleaner_.resultAfterNetworkResolution(state.links[i].url, answers[k]->canonicalURL,
                                                     answers[k]->contactedHost, state.results[i]);
        replacement[i] = final.cleanedURL;
        state.results[i] = final;
        finals.push_back(std::move(final));
      }
      std::string output = replaceLinks(
          state.text, state.links, [&](std::size_t i, const TextLink&) { return replacement[i]; });
      if (output != state.output) {
        writePasteboard(output);
        state.output = output;
        for (std::size_t k = 0; k < finals.size(); ++k) {
          recorder_.record(finals[k].originalURL, finals[k].cleanedURL, kNetworkResolutionSurface);
          clipboardRecovery_ = Recovery{finals[k].originalURL, state.text};
          recordClean(finals[k], k + 1 == finals.size());
        }
      }
      if (someFailed) shareLinkResolutionError_ = std::string(kSomeUnresolvedMessage);
    });
  });
}

bool ClipboardMonitor::hasPendingShareLinkResolution() const {
  return lastCleanedResult_ && options_.shareLinks.needsResolution(lastCleanedResult_->cleanedURL);
}

void ClipboardMonitor::resolvePendingShareLink() {
  if (isResolvingShareLink_ || !lastCleanedResult_) return;
  const std::string pending = lastCleanedResult_->cleanedURL;
  if (!options_.shareLinks.hasService(pending)) return;
  auto text = readPasteboardText();
  auto link = text ? options_.linkFinder.singleLink(*text) : std::nullopt;
  if (!link || link->url != pending) {
    shareLinkResolutionError_ = std::string(kClipboardChangedCopyAgainMessage);
    return;
  }
  std::int64_t noted = pasteboard_->changeCount();
  isResolvingShareLink_ = true;
  shareLinkResolutionError_.reset();
  CleanResult prior = *lastCleanedResult_;
  auto resolve = options_.shareLinks.resolve;
  runInBackground([this, pending, prior, noted, text = *text, link = *link, resolve] {
    auto answer = resolve(pending);
    postToLoop([this, prior, noted, text, link, answer] {
      isResolvingShareLink_ = false;
      if (!answer) {
        shareLinkResolutionError_ = std::string(kResolutionFailedMessage);
        return;
      }
      if (pasteboard_->changeCount() != noted) {
        shareLinkResolutionError_ = std::string(kClipboardChangedKeptMessage);
        return;
      }
      CleanResult final = urlCleaner_.resultAfterNetworkResolution(
          prior.originalURL, answer->canonicalURL, answer->contactedHost, prior);
      writePasteboard(replaceRange(text, link, final.cleanedURL));
      recorder_.record(prior.originalURL, final.cleanedURL, kNetworkResolutionSurface);
      recordClean(final);
    });
  });
}

bool ClipboardMonitor::restoreLastOriginal() {
  auto record = recorder_.takeAndClear();
  if (!record) return false;
  // A link copied inside a text comes back with that text around it.
  bool wholeText = clipboardRecovery_ && clipboardRecovery_->url == record->originalURL;
  writePasteboard(wholeText ? clipboardRecovery_->text : record->originalURL);
  clipboardRecovery_.reset();
  textBlockState_.reset();
  lastCleanedResult_.reset();
  defaults_->remove(kLastCleanedResultKey);
  return true;
}

std::optional<std::string> ClipboardMonitor::disableLastDomain() {
  std::optional<std::string> link;
  if (lastCleanedResult_) {
    link = lastCleanedResult_->originalURL;
  } else if (auto record = recorder_.current()) {
    link = record->originalURL;
  }
  if (!link) return std::nullopt;
  auto host = DomainExceptionStore::normalizedHost(*link);
  if (!host) return std::nullopt;
  exceptions_.disable(*host);
  return host;
}

void ClipboardMonitor::clearLastCommandRisk() {
  lastCommandRisk_.reset();
  removeStoredRisk();
}

void ClipboardMonitor::copyText(const std::string& text) { writePasteboard(text); }

void ClipboardMonitor::removeStoredRisk() {
  if (defaults_->object(kGuardLastRiskKey)) defaults_->remove(kGuardLastRiskKey);
}

void ClipboardMonitor::recordFunctionalTransformation(const CleanOperation& operation) {
  if (!lastCleanedResult_) return;
  publishLastCleanedResult(lastCleanedResult_->appendingOperation(operation));
}

void ClipboardMonitor::reloadCommandGuard(CommandGuard commandGuard) {
  commandGuard_ = std::move(commandGuard);
}

void ClipboardMonitor::writePasteboard(const std::string& text) {
  pasteboard_->clearContents();
  pasteboard_->setString(text);
  ownWriteChangeCount_ = lastChangeCount_ = pasteboard_->changeCount();
}

void ClipboardMonitor::publishLastCleanedResult(const CleanResult& result) {
  lastCleanedResult_ = result;
  storeJson(*defaults_, kLastCleanedResultKey, encodeCleanResult(result));
}

void ClipboardMonitor::recordClean(const CleanResult& result, bool notify) {
  publishLastCleanedResult(result);
  std::string key = cleanedCountKey(options_.clock());
  // Read back first: the day may have turned, and another process may count too.
  cleanedCountToday_ = defaults_->integerForKey(key) + 1;
  defaults_->set(key, PreferenceValue{cleanedCountToday_});
  if (stats_.recordClean) stats_.recordClean(result);
  if (notify) notifications_.sendCleanNotification(result);
}

void ClipboardMonitor::postToLoop(std::function<void()> apply) {
  std::lock_guard lock(finishedMutex_);
  finished_.push_back(std::move(apply));
}

void ClipboardMonitor::runFinishedWork() {
  std::vector<std::function<void()>> ready;
  {
    std::lock_guard lock(finishedMutex_);
    ready.swap(finished_);
  }
  for (auto& apply : ready) apply();
}

void ClipboardMonitor::runInBackground(std::function<void()> work) {
  if (options_.runInBackground) {
    options_.runInBackground(std::move(work));
    return;
  }
  // A new resolution starts only after the previous one was applied, so earlier workers have
  // finished or are about to return.
  for (auto& worker : workers_) worker.join();
  workers_.clear();
  workers_.emplace_back(std::move(work));
}

}  // namespace linkwash
