// `linkwash clean --text`: cleans every link inside whole text (Markdown, HTML, chat logs) and
// leaves every other byte as it was. Text is taken in blocks of whole lines of at most 64 KiB;
// a line the link finder refuses (too long, not UTF-8, invisible or direction-changing
// characters) is passed through untouched with a warning, so one odd line never stops the rest.
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "base/strings.h"
#include "core/cleaning/text_url_block.h"
#include "tools/cli/link_commands.h"

namespace linkwash::cli {
namespace {

// HTML writes "&" inside attributes as "&amp;". Such a link is cleaned in its decoded form and
// written back encoded, or "&amp;id=1" would read as a parameter named "amp;id".
bool isHtmlEscaped(std::string_view link) {
  bool sawEntity = false;
  for (std::size_t i = link.find('&'); i != std::string_view::npos; i = link.find('&', i + 1)) {
    if (link.substr(i, 5) != "&amp;") return false;
    sawEntity = true;
  }
  return sawEntity;
}

std::string replaceAll(std::string text, std::string_view from, std::string_view to) {
  for (std::size_t i = text.find(from); i != std::string::npos; i = text.find(from, i + to.size()))
    text.replace(i, from.size(), to);
  return text;
}

std::string_view refusalReason(std::string_view line) {
  if (line.size() > TextURLBlock::kMaximumBytes) return "line longer than 65,536 bytes";
  if (!isValidUtf8(line)) return "not valid UTF-8";
  return "invisible or direction-changing characters";
}

class TextCleaner {
 public:
  TextCleaner(URLCleaner& cleaner, bool explain) : cleaner_(cleaner), explain_(explain) {}

  void run(std::FILE* input, const std::string& name) {
    name_ = name;
    lineNumber_ = 0;
    char* line = nullptr;
    std::size_t capacity = 0;
    ssize_t length = 0;
    while ((length = getline(&line, &capacity, input)) >= 0) {
      ++lineNumber_;
      const std::string_view text(line, static_cast<std::size_t>(length));
      if (!isAcceptableLinkText(text)) {
        flush();
        std::cerr << "linkwash clean: " << name_ << ":" << lineNumber_ << ": left unchanged ("
                  << refusalReason(text) << ")\n";
        write(text);
        continue;
      }
      if (block_.size() + text.size() > TextURLBlock::kMaximumBytes) flush();
      if (block_.empty()) blockFirstLine_ = lineNumber_;
      block_.append(text);
    }
    std::free(line);
    flush();
  }

  void finish() { counter_.flush(); }

 private:
  void write(std::string_view text) {
    if (!explain_) std::fwrite(text.data(), 1, text.size(), stdout);
  }

  void flush() {
    if (block_.empty()) return;
    auto block = TextURLBlock::make(std::move(block_));
    block_.clear();
    if (!block) return;  // cannot happen: every line was accepted on its own
    std::vector<std::string> reports(explain_ ? block->matches().size() : 0);
    const std::string out = block->replacingURLs([&](std::size_t index, std::string_view url) {
      const bool escaped = isHtmlEscaped(url);
      const std::string link =
          escaped ? replaceAll(std::string(url), "&amp;", "&") : std::string(url);
      const CleanOutcome outcome = cleaner_.cleanWithOutcome(link);
      counter_.add(outcome);
      if (explain_) reports[index] = describe(*block, index, outcome);
      if (outcome.kind != CleanOutcome::Kind::cleaned) return std::string(url);
      return escaped ? replaceAll(outcome.result->cleanedURL, "&", "&amp;")
                     : outcome.result->cleanedURL;
    });
    write(out);
    for (const auto& report : reports) std::fwrite(report.data(), 1, report.size(), stdout);
  }

  std::string describe(const TextURLBlock& block, std::size_t index, const CleanOutcome& outcome) {
    const auto& match = block.matches()[index];
    std::size_t line = blockFirstLine_;
    for (std::size_t i = 0; i < match.range.begin; ++i) line += block.text()[i] == '\n';
    std::string text = name_ + ":" + std::to_string(line) + ": " + match.url + "\n";
    switch (outcome.kind) {
      case CleanOutcome::Kind::cleaned:
        break;
      case CleanOutcome::Kind::skippedDisabled:
        return text + "  skipped: cleaning is switched off for " + outcome.host + "\n";
      default:
        return text + "  unchanged: no rule applies to this link\n";
    }
    const CleanResult& r = *outcome.result;
    text += "  -> " + r.cleanedURL + "\n";
    if (!r.removedQueryParameters.empty()) {
      text += "  removed:";
      for (const auto& name : r.removedQueryParameters) text += " " + name;
      text += "\n";
    }
    return text + describeTrackingImpact(r);
  }

  URLCleaner& cleaner_;
  const bool explain_;
  CleanCounter counter_;
  std::string name_;
  std::size_t lineNumber_ = 0;
  std::size_t blockFirstLine_ = 1;
  std::string block_;
};

}  // namespace

int runCleanText(const TextCleanOptions& options) {
  auto setup = openCommandLineCleaner(options.rulesFile, options.supplementaryFile);
  if (!setup) {
    std::cerr << "linkwash clean: " << setup.error().message << '\n';
    return 1;
  }
  // Counts are saved once at the end rather than after every link.
  setup->cleaner->setMatchCountSaving(URLCleaner::MatchCountSaving::deferred);
  static char buffer[1 << 16];
  std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
  TextCleaner text(*setup->cleaner, options.explain);
  int exitCode = 0;
  if (options.files.empty()) {
    text.run(stdin, "<stdin>");
  } else {
    for (const auto& file : options.files) {
      std::FILE* input = file == "-" ? stdin : std::fopen(file.c_str(), "rb");
      if (input == nullptr) {
        std::cerr << "linkwash clean: cannot read " << file << '\n';
        exitCode = 1;
        continue;
      }
      text.run(input, file == "-" ? "<stdin>" : file);
      if (input != stdin) std::fclose(input);
    }
  }
  std::fflush(stdout);
  setup->engine->saveMatchCounts();
  text.finish();
  return exitCode;
}

}  // namespace linkwash::cli
