// `linkwash clean`: cleans links given as arguments, or streams standard input one link per line
// (built for pipelines of millions of lines: constant memory, buffered output).
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/strings.h"
#include "core/cleaning/url_cleaner.h"
#include "tools/cli/commands.h"
#include "tools/cli/engine_setup.h"

namespace linkwash::cli {
namespace {

constexpr auto kSaveInterval = std::chrono::seconds(5);
constexpr std::string_view kSurface = "linuxCommandLine";

std::atomic<int> stopSignal{0};

extern "C" void onStopSignal(int signal) { stopSignal.store(signal); }

// No SA_RESTART: a blocked read returns at once, so the counts are saved before we exit.
void installStopHandlers() {
  struct sigaction action {};
  action.sa_handler = onStopSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

enum class Format { plain, json, explain };

struct CleanOptions {
  std::vector<std::string> urls;
  bool json = false;
  bool explain = false;
  std::string rulesFile;
  std::string supplementaryFile;
  unsigned jobs = 0;  // 0: the number of cores when standard input is a file, else 1
};

std::string jsonLine(const Json& json) {
  JsonWriteOptions options;
  options.escapeSlashes = false;
  return writeJson(json, options);
}

std::string describeOutcome(const CleanOutcome& outcome, std::string_view line) {
  std::string text(trimWhitespaceAndNewlines(line));
  text += '\n';
  switch (outcome.kind) {
    case CleanOutcome::Kind::invalid:
      return text + "  not cleaned: only http:// and https:// links are cleaned\n";
    case CleanOutcome::Kind::unchanged:
      return text + "  unchanged: no rule applies to this link\n";
    case CleanOutcome::Kind::skippedDisabled:
      return text + "  skipped: cleaning is switched off for " + outcome.host +
             " (turn it back on with: linkwash sites enable " + outcome.host + ")\n";
    case CleanOutcome::Kind::cleaned:
      break;
  }
  const CleanResult& r = *outcome.result;
  text += "  -> " + r.cleanedURL + "\n";
  text += "  removals: " + std::to_string(r.paramsRemoved);
  if (!r.removedQueryParameters.empty()) {
    text += " (";
    for (std::size_t i = 0; i < r.removedQueryParameters.size(); ++i) {
      text += (i ? ", " : "") + r.removedQueryParameters[i];
    }
    text += ")";
  }
  text += "\n  steps:\n";
  for (std::size_t i = 0; i < r.operations.size(); ++i) {
    const CleanOperation& op = r.operations[i];
    text += "    " + std::to_string(i + 1) + ". " + std::string(rawValue(op.kind));
    if (op.note) text += " (" + *op.note + ")";
    if (!op.removedParameters.empty()) {
      text += " removed";
      for (const auto& name : op.removedParameters) text += " " + name;
    }
    text += "\n       " + op.inputURL + "\n    -> " + op.outputURL + "\n";
  }
  text += "  matched rules:\n";
  for (const auto& id : r.matchedRuleIDs) text += "    " + id + "\n";
  if (r.privacyRedirect) {
    text += "  privacy frontend: " + r.privacyRedirect->originalHost + " -> " +
            r.privacyRedirect->frontendHost + "\n";
  }
  return text;
}

std::string render(const CleanOutcome& outcome, std::string_view line, Format format) {
  if (format == Format::explain) return describeOutcome(outcome, line);
  if (format == Format::json) {
    Json json = Json::object();
    switch (outcome.kind) {
      case CleanOutcome::Kind::cleaned:
        return jsonLine(encodeCleanResult(*outcome.result)) + "\n";
      case CleanOutcome::Kind::skippedDisabled:
        json["outcome"] = "skippedDisabled";
        json["host"] = outcome.host;
        break;
      case CleanOutcome::Kind::unchanged:
        json["outcome"] = "unchanged";
        break;
      case CleanOutcome::Kind::invalid:
        json["outcome"] = "invalid";
        break;
    }
    json["url"] = std::string(line);
    return jsonLine(json) + "\n";
  }
  if (outcome.kind == CleanOutcome::Kind::cleaned) return outcome.result->cleanedURL + "\n";
  return std::string(line) + "\n";
}

// One engine and cleaner per thread: the engine has no lock, and its match counts must not be
// shared between threads. Setup stays in this one function so it is easy to swap.
struct CleanerSet {
  std::unique_ptr<RulesEngine> engine;
  std::unique_ptr<DomainExceptionStore> exceptions;
  std::unique_ptr<LastCleanRecorder> recorder;
  std::unique_ptr<URLCleaner> cleaner;
};

Result<CleanerSet> openCleaner(const CleanOptions& options) {
  CleanerSet set;
  if (!options.rulesFile.empty()) {
    auto opened = openRulesEngineFrom(options.rulesFile,
                                      options.supplementaryFile.empty()
                                          ? std::nullopt
                                          : std::optional<std::string>(options.supplementaryFile));
    if (!opened) return fail(opened.error().message);
    set.engine = std::move(*opened);
  } else {
    set.engine = openRulesEngine();
  }
  auto defaults = PreferenceStore::standard();
  auto group = PreferenceStore::suite(kAppGroupIdentifier);
  set.exceptions = std::make_unique<DomainExceptionStore>(defaults);
  set.recorder = std::make_unique<LastCleanRecorder>();
  set.cleaner = std::make_unique<URLCleaner>(
      *set.engine, set.exceptions.get(), set.recorder.get(), std::string(kSurface),
      PrivacyRedirectSettings::fromStore(*defaults, group.get()));
  // Saving after every link would make a stream crawl; counts are saved on a timer and at the end.
  set.cleaner->setMatchCountSaving(URLCleaner::MatchCountSaving::deferred);
  return set;
}

// Every match count of an engine's catalog in one fixed order (each category, then its
// entries), so counts gathered by one engine can be added to another loaded the same way.
void readCounts(const RulesEngine& engine, std::vector<std::int64_t>& out) {
  out.clear();
  for (const auto& category : engine.categories()) {
    out.push_back(category->matchCount);
    for (const auto& entry : category->rules) out.push_back(entry->matchCount);
  }
}

void addCounts(RulesEngine& engine,
               const std::vector<std::pair<std::uint32_t, std::int64_t>>& add) {
  std::vector<std::int64_t*> slots;
  for (const auto& category : engine.categories()) {
    slots.push_back(&category->matchCount);
    for (const auto& entry : category->rules) slots.push_back(&entry->matchCount);
  }
  for (const auto& [index, delta] : add) {
    if (index < slots.size()) *slots[index] += delta;
  }
}

// A block of whole input lines and what cleaning them printed.
struct Batch {
  std::string input;
  std::string output;
  std::vector<std::pair<std::uint32_t, std::int64_t>> countChanges;  // for the main engine
  bool done = false;
};

void cleanBatch(URLCleaner& cleaner, Format format, Batch& batch) {
  batch.output.clear();
  std::string_view rest(batch.input);
  while (!rest.empty()) {
    const std::size_t newline = rest.find('\n');
    std::string_view text = rest.substr(0, newline);
    rest.remove_prefix(newline == std::string_view::npos ? rest.size() : newline + 1);
    const CleanOutcome outcome = cleaner.cleanWithOutcome(text);
    if (format != Format::plain) {
      batch.output += render(outcome, text, format);
    } else {
      batch.output += outcome.kind == CleanOutcome::Kind::cleaned
                          ? std::string_view(outcome.result->cleanedURL)
                          : text;
      batch.output += '\n';
    }
  }
}

// Reads standard input in large blocks, cut after the last complete line; the final line of the
// input may lack its line break.
class LineReader {
 public:
  // False at the end of input or on a stop signal, with nothing put in `into`.
  bool next(std::string& into) {
    into.swap(carry_);
    carry_.clear();
    while (!eof_) {
      const std::size_t before = into.size();
      into.resize(before + kBlock);
      const ssize_t got = read(STDIN_FILENO, into.data() + before, kBlock);
      if (got < 0 && errno == EINTR && stopSignal.load() == 0) {
        into.resize(before);
        continue;
      }
      into.resize(before + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
      if (got <= 0) {
        eof_ = true;
        break;
      }
      const std::size_t last = into.rfind('\n');
      if (last != std::string::npos && last >= before) {
        carry_.assign(into, last + 1);
        into.resize(last + 1);
        return true;
      }
    }
    return !into.empty();
  }
  // True when a read would not block (so cleaned lines may wait for more input).
  static bool inputReady() {
    pollfd fd{STDIN_FILENO, POLLIN, 0};
    return poll(&fd, 1, 0) == 1;
  }

 private:
  static constexpr std::size_t kBlock = 1 << 16;
  std::string carry_;
  bool eof_ = false;
};

unsigned defaultJobs() {
  // Only a file already on disk is worth the extra engines; a pipe or terminal may bring a few
  // lines at a time, and those are answered soonest by the one engine already loaded.
  struct stat status {};
  if (fstat(STDIN_FILENO, &status) != 0 || !S_ISREG(status.st_mode)) return 1;
  cpu_set_t set;
  if (sched_getaffinity(0, sizeof set, &set) == 0) return std::max(1, CPU_COUNT(&set));
  return std::max(1u, std::thread::hardware_concurrency());
}

class Writer {
 public:
  explicit Writer(bool interactive) : interactive_(interactive) {}
  void write(std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    if (interactive_) std::fflush(stdout);
  }

 private:
  bool interactive_;
};

int streamClean(CleanerSet& primary, const CleanOptions& options, Format format, unsigned jobs) {
  installStopHandlers();
  const bool interactive = isatty(STDOUT_FILENO) == 1;
  static char buffer[1 << 16];
  if (!interactive) std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
  Writer writer(interactive);
  LineReader reader;
  auto lastSave = std::chrono::steady_clock::now();
  auto saveWhenDue = [&] {
    const auto now = std::chrono::steady_clock::now();
    if (now - lastSave >= kSaveInterval) {
      primary.engine->saveMatchCounts();
      lastSave = now;
    }
  };

  if (jobs <= 1) {
    Batch batch;
    while (stopSignal.load() == 0 && reader.next(batch.input)) {
      cleanBatch(*primary.cleaner, format, batch);
      writer.write(batch.output);
      if (!LineReader::inputReady()) std::fflush(stdout);
      saveWhenDue();
    }
  } else {
    // Workers clean batches in any order; the main thread reads, and prints batches in input
    // order, adding each worker's match counts to the main engine as it goes.
    std::mutex mutex;
    std::condition_variable workReady, batchDone;
    std::deque<Batch*> queue;
    bool closing = false;
    unsigned failed = 0;   // workers that could not load the rules
    std::mutex openMutex;  // loading sets process-wide things (the diagnostics sink)
    auto work = [&] {
      auto set = [&] {
        std::lock_guard lock(openMutex);
        return openCleaner(options);
      }();
      if (!set) {
        {
          std::lock_guard lock(mutex);
          ++failed;
        }
        batchDone.notify_all();
        return;
      }
      std::vector<std::int64_t> counted, now;
      readCounts(*set->engine, counted);
      for (;;) {
        Batch* batch = nullptr;
        {
          std::unique_lock lock(mutex);
          workReady.wait(lock, [&] { return closing || !queue.empty(); });
          if (queue.empty()) return;
          batch = queue.front();
          queue.pop_front();
        }
        cleanBatch(*set->cleaner, format, *batch);
        readCounts(*set->engine, now);
        for (std::size_t i = 0; i < now.size() && i < counted.size(); ++i) {
          if (now[i] != counted[i]) {
            batch->countChanges.emplace_back(static_cast<std::uint32_t>(i), now[i] - counted[i]);
          }
        }
        counted.swap(now);
        {
          std::lock_guard lock(mutex);
          batch->done = true;
        }
        batchDone.notify_all();
      }
    };
    // Workers start with the stop signals blocked, so a stop always interrupts the main
    // thread's read.
    sigset_t stopSignals, previous;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, &previous);
    std::vector<std::thread> workers;
    for (unsigned i = 0; i < jobs; ++i) workers.emplace_back(work);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    const std::size_t maxInFlight = 4 * static_cast<std::size_t>(jobs);
    std::deque<std::unique_ptr<Batch>> inFlight, spare;
    auto finishFront = [&] {
      Batch& front = *inFlight.front();
      bool orphaned = false;
      {
        std::unique_lock lock(mutex);
        batchDone.wait(lock, [&] { return front.done || failed == jobs; });
        orphaned = !front.done;
      }
      // No worker could load the rules (they changed under us): the main engine cleans.
      if (orphaned) cleanBatch(*primary.cleaner, format, front);
      writer.write(front.output);
      addCounts(*primary.engine, front.countChanges);
      spare.push_back(std::move(inFlight.front()));
      inFlight.pop_front();
      saveWhenDue();
    };
    for (;;) {
      while (!inFlight.empty() && (inFlight.size() >= maxInFlight || !LineReader::inputReady())) {
        finishFront();  // nothing to read right now: print what is cleaned before blocking
      }
      if (!LineReader::inputReady()) std::fflush(stdout);
      std::unique_ptr<Batch> batch;
      if (spare.empty()) {
        batch = std::make_unique<Batch>();
      } else {
        batch = std::move(spare.back());
        spare.pop_back();
      }
      if (stopSignal.load() != 0 || !reader.next(batch->input)) break;
      batch->done = false;
      batch->countChanges.clear();
      {
        std::lock_guard lock(mutex);
        queue.push_back(batch.get());
      }
      workReady.notify_one();
      inFlight.push_back(std::move(batch));
    }
    while (!inFlight.empty()) finishFront();
    {
      std::lock_guard lock(mutex);
      closing = true;
    }
    workReady.notify_all();
    for (auto& worker : workers) worker.join();
  }
  std::fflush(stdout);
  primary.engine->saveMatchCounts();
  if (const int signal = stopSignal.load(); signal != 0) return 128 + signal;
  return 0;
}

int runClean(const CleanOptions& options) {
  auto primary = openCleaner(options);
  if (!primary) {
    std::cerr << "linkwash clean: " << primary.error().message << '\n';
    return 1;
  }
  const Format format =
      options.explain ? Format::explain : (options.json ? Format::json : Format::plain);
  if (!options.urls.empty()) {
    for (const auto& url : options.urls) {
      std::cout << render(primary->cleaner->cleanWithOutcome(url), url, format);
    }
    primary->engine->saveMatchCounts();
    return 0;
  }
  return streamClean(*primary, options, format, options.jobs > 0 ? options.jobs : defaultJobs());
}

}  // namespace

void addCleanCommand(CLI::App& app, int& exitCode) {
  auto options = std::make_shared<CleanOptions>();
  CLI::App* clean = app.add_subcommand(
      "clean", "Remove tracking parameters, redirect wrappers and tracking path segments");
  clean->add_option("URL", options->urls,
                    "Links to clean; with none, standard input is read one link per line");
  clean->add_flag("--json", options->json,
                  "One JSON object per line: the clean result, or {\"outcome\":...} when the link "
                  "was not changed");
  clean->add_flag("--explain", options->explain,
                  "Describe each clean for a person: steps, removed parameters, matched rules");
  clean
      ->add_option("-j,--jobs", options->jobs,
                   "Clean standard input on this many threads, output still in input order "
                   "(default: every core when standard input is a file, else 1)")
      ->check(CLI::Range(1u, 256u));
  auto* rules = clean->add_option("--rules", options->rulesFile,
                                  "Clean with this ClearURLs-format provider file for this run");
  clean
      ->add_option("--supplementary", options->supplementaryFile,
                   "A supplementary provider file to add to --rules")
      ->needs(rules);
  clean->footer(
      "A link that is not changed is printed exactly as it came, so the output has one line per "
      "input line. Sites switched off with `linkwash sites disable` are left alone.\n\n"
      "Streaming: input is read in large blocks and cleaned on every core (--jobs); output keeps "
      "the input order, is flushed after every block on a terminal and as soon as no more input "
      "is waiting. Rule match counts are saved every few seconds and at the end; an interrupt "
      "(Ctrl-C) or SIGTERM stops after the lines already read and still saves them.\n\n"
      "Examples:\n"
      "  linkwash clean 'https://example.com/?utm_source=x&id=1'\n"
      "  linkwash clean --explain 'https://www.google.com/url?q=https://example.com/'\n"
      "  linkwash clean < links.txt > clean-links.txt\n"
      "  linkwash clean --json --rules my-rules.json < links.txt");
  clean->callback([options, &exitCode] { exitCode = runClean(*options); });
}

}  // namespace linkwash::cli
