// Shared pieces of the link-tool commands (clean --text, resolve, map, archive, share, stats,
// status): the cleaner they work with, the counting of cleans, and the tracking-impact lines of
// `--explain`.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/result.h"
#include "core/cleaning/domain_exception_store.h"
#include "core/cleaning/last_clean_recorder.h"
#include "core/cleaning/url_cleaner.h"
#include "core/session/session.h"
#include "core/stats/stats_tracker.h"
#include "platform/prefs/preference_store.h"

namespace linkwash::cli {

inline constexpr std::string_view kCommandLineSurface = "linuxCommandLine";

// A cleaner wired the way `linkwash clean` wires it, over a session of its own.
struct CommandLineCleaner {
  std::unique_ptr<Session> session;
  RulesEngine* engine = nullptr;
  std::unique_ptr<URLCleaner> cleaner;
};

// The shipped or installed rules, or `rulesFile` (plus `supplementaryFile`) when given.
Result<CommandLineCleaner> openCommandLineCleaner(const std::string& rulesFile = {},
                                                  const std::string& supplementaryFile = {});

// Counts cleans for the statistics in batches (one store transaction per batch), so a long run
// costs little; whatever is left is counted on flush() or destruction.
class CleanCounter {
 public:
  CleanCounter();
  ~CleanCounter();
  CleanCounter(const CleanCounter&) = delete;
  CleanCounter& operator=(const CleanCounter&) = delete;
  void add(const CleanOutcome& outcome);
  void add(const CleanResult& result);
  void flush();

 private:
  std::unique_ptr<StatsTracker> stats_;
  std::vector<CleanResult> pending_;
};

// "  tracking impact: High (confidence High)\n    Removed ...\n    Helps ...\n".
std::string describeTrackingImpact(const CleanResult& result);

// `linkwash clean --text [FILE...]`.
struct TextCleanOptions {
  std::vector<std::string> files;
  bool explain = false;
  std::string rulesFile;
  std::string supplementaryFile;
};
int runCleanText(const TextCleanOptions& options);

}  // namespace linkwash::cli
