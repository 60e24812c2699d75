// How the link-tool commands get their cleaner and their statistics.
#include <iostream>

#include "tools/cli/link_commands.h"

namespace linkwash::cli {

Result<CommandLineCleaner> openCommandLineCleaner(const std::string& rulesFile,
                                                  const std::string& supplementaryFile) {
  SessionOptions options;
  if (!rulesFile.empty()) options.rulesFile = rulesFile;
  if (!supplementaryFile.empty()) options.supplementaryFile = supplementaryFile;
  auto opened = Session::open(std::move(options));
  if (!opened) return tl::unexpected(opened.error());
  CommandLineCleaner setup;
  setup.session = std::move(*opened);
  setup.engine = &setup.session->rulesEngine();
  setup.cleaner =
      std::make_unique<URLCleaner>(setup.session->makeCleaner(std::string(kCommandLineSurface)));
  return setup;
}

namespace {
constexpr std::size_t kCountBatch = 4096;
}

CleanCounter::CleanCounter() = default;

CleanCounter::~CleanCounter() { flush(); }

void CleanCounter::add(const CleanOutcome& outcome) {
  if (outcome.kind == CleanOutcome::Kind::cleaned) add(*outcome.result);
}

void CleanCounter::add(const CleanResult& result) {
  pending_.push_back(result);
  if (pending_.size() >= kCountBatch) flush();
}

void CleanCounter::flush() {
  if (pending_.empty()) return;
  if (!stats_) stats_ = std::make_unique<StatsTracker>(PreferenceStore::standard());
  if (!stats_->recordCleans(pending_)) {
    std::cerr << "linkwash: warning: could not update the statistics in "
              << PreferenceStore::standard()->path().string() << '\n';
  }
  pending_.clear();
}

std::string describeTrackingImpact(const CleanResult& result) {
  const auto report = result.trackingImpactReport();
  std::string text = "  tracking impact: " + std::string(rawValue(report.impactLevel)) +
                     " (confidence " + std::string(rawValue(report.confidence)) + ")\n";
  text += "    " + report.summary + "\n";
  text += "    " + report.explanation + "\n";
  return text;
}

}  // namespace linkwash::cli
