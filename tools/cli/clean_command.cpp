// `linkwash clean`: cleans links given as arguments, or streams standard input one link per line
// (built for pipelines of millions of lines: constant memory, buffered output).
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "base/strings.h"
#include "core/cleaning/url_cleaner.h"
#include "tools/cli/commands.h"
#include "tools/cli/link_commands.h"
#include "tools/cli/settings_access.h"

namespace linkwash::cli {
namespace {

constexpr auto kSaveInterval = std::chrono::seconds(5);

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
  bool text = false;
  bool count = false;
  std::string rulesFile;
  std::string supplementaryFile;
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
  return text + describeTrackingImpact(r);
}

// `ending` is the input line's own line ending, given back with every format.
std::string render(const CleanOutcome& outcome, std::string_view line, Format format,
                   std::string_view ending = "\n") {
  if (format == Format::explain) return describeOutcome(outcome, line);
  if (format == Format::json) {
    Json json = Json::object();
    switch (outcome.kind) {
      case CleanOutcome::Kind::cleaned:
        return jsonLine(encodeCleanResult(*outcome.result)) + std::string(ending);
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
    return jsonLine(json) + std::string(ending);
  }
  if (outcome.kind == CleanOutcome::Kind::cleaned) {
    return outcome.result->cleanedURL + std::string(ending);
  }
  return std::string(line) + std::string(ending);
}

int runClean(const CleanOptions& options) {
  if (options.text) {
    return runCleanText(
        {options.urls, options.explain, options.rulesFile, options.supplementaryFile});
  }
  SessionOptions sessionOptions;
  if (!options.rulesFile.empty()) sessionOptions.rulesFile = options.rulesFile;
  if (!options.supplementaryFile.empty())
    sessionOptions.supplementaryFile = options.supplementaryFile;
  auto opened = Session::open(std::move(sessionOptions));
  if (!opened) {
    std::cerr << "linkwash clean: " << opened.error().message << '\n';
    return 1;
  }
  Session& session = **opened;
  warnIfCountsAreNotKept(session.standardStore());
  RulesEngine* engine = &session.rulesEngine();
  URLCleaner cleaner = session.makeCleaner(std::string(kCommandLineSurface));
  // Saving after every link would make a stream crawl; counts are saved on a timer and at the end.
  cleaner.setMatchCountSaving(URLCleaner::MatchCountSaving::deferred);
  const Format format =
      options.explain ? Format::explain : (options.json ? Format::json : Format::plain);

  // Links a person names are counted in the statistics; a stream only when asked, since a
  // pipeline's millions of links are not someone's browsing.
  std::optional<CleanCounter> counter;
  if (!options.urls.empty() || options.count) counter.emplace();
  if (!options.urls.empty()) {
    for (const auto& url : options.urls) {
      const CleanOutcome outcome = cleaner.cleanWithOutcome(url);
      counter->add(outcome);
      std::cout << render(outcome, url, format);
    }
    engine->saveMatchCounts();
    return 0;
  }

  installStopHandlers();
  const bool interactive = isatty(STDOUT_FILENO) == 1;
  static char buffer[1 << 16];
  if (!interactive) std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
  char* line = nullptr;
  std::size_t capacity = 0;
  auto lastSave = std::chrono::steady_clock::now();
  std::uint64_t sinceSave = 0;
  ssize_t length = 0;
  while (stopSignal.load() == 0 && (length = getline(&line, &capacity, stdin)) >= 0) {
    std::string_view text(line, static_cast<std::size_t>(length));
    // Each line keeps its own ending, so a file with CR LF lines stays one.
    std::string_view ending = "\n";
    if (endsWith(text, "\r\n")) {
      ending = "\r\n";
      text.remove_suffix(2);
    } else if (endsWith(text, "\n")) {
      text.remove_suffix(1);
    }
    const CleanOutcome outcome = cleaner.cleanWithOutcome(text);
    if (counter) counter->add(outcome);
    const std::string out = render(outcome, text, format, ending);
    if (std::fwrite(out.data(), 1, out.size(), stdout) != out.size()) break;  // reported by main
    if (interactive) std::fflush(stdout);
    // Checking the clock every few hundred lines keeps the timer off the per-line cost.
    if (++sinceSave >= 256) {
      sinceSave = 0;
      const auto now = std::chrono::steady_clock::now();
      if (now - lastSave >= kSaveInterval) {
        engine->saveMatchCounts();
        lastSave = now;
      }
    }
  }
  std::free(line);
  std::fflush(stdout);
  engine->saveMatchCounts();
  if (const int signal = stopSignal.load(); signal != 0) return 128 + signal;
  return 0;
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
                  "Describe each clean for a person: steps, removed parameters, matched rules, "
                  "tracking impact");
  clean->add_flag("--text", options->text,
                  "Treat the arguments as files (none: standard input) of whole text and clean "
                  "every link inside it, leaving all other bytes as they are; with --explain, "
                  "describe each link found instead of printing the text");
  clean->add_flag("--count", options->count,
                  "Count the links of a standard-input stream in the statistics (links given as "
                  "arguments and --text are always counted)");
  auto* rules = clean->add_option("--rules", options->rulesFile,
                                  "Clean with this ClearURLs-format provider file for this run");
  clean
      ->add_option("--supplementary", options->supplementaryFile,
                   "A supplementary provider file to add to --rules")
      ->needs(rules);
  clean->footer(
      "A link that is not changed is printed exactly as it came, so the output has one line per "
      "input line. Sites switched off with `linkwash sites disable` are left alone.\n\n"
      "Streaming: output is flushed after every line on a terminal and written in large blocks "
      "otherwise. Rule match counts are saved every few seconds and at the end; an interrupt "
      "(Ctrl-C) or SIGTERM stops after the current line and still saves them.\n\n"
      "Examples:\n"
      "  linkwash clean 'https://example.com/?utm_source=x&id=1'\n"
      "  linkwash clean --explain 'https://www.google.com/url?q=https://example.com/'\n"
      "  linkwash clean < links.txt > clean-links.txt\n"
      "  linkwash clean --json --rules my-rules.json < links.txt");
  clean->callback([options, &exitCode] { exitCode = runClean(*options); });
}

}  // namespace linkwash::cli
