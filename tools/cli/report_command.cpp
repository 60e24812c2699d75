// `linkwash report`: builds a missed-tracker report for a link so the user can review it and
// send it themselves. Nothing is sent.
#include <chrono>
#include <iostream>
#include <memory>
#include <string>

#include "core/cleaning/url_cleaner.h"
#include "core/stats/missed_tracker_report.h"
#include "platform/resources/resource_bundle.h"
#include "tools/cli/commands.h"

namespace linkwash::cli {
namespace {

struct ReportOptions {
  std::string url;
  std::string note;
  std::string cleaned;
  bool mailto = false;
};

int runReport(const ReportOptions& o) {
  auto session = openSession();
  RulesEngine* engine = &session->rulesEngine();
  URLCleaner cleaner = session->makeCleaner("linuxCommandLineReport");
  auto outcome = cleaner.cleanWithOutcome(o.url);
  CleanResult result;
  if (outcome.kind == CleanOutcome::Kind::cleaned) {
    result = *outcome.result;
  } else {
    result.originalURL = o.url;
    result.cleanedURL = o.cleaned.empty() ? o.url : o.cleaned;
  }
  const auto report = MissedTrackerReportBuilder::build(
      result, MissedTrackerReport::Platform::linux, operatingSystemVersionString(), appVersion(),
      appBuild(), MissedTrackerReport::Surface::manualClean,
      o.note.empty() ? std::nullopt : std::optional<std::string>(o.note),
      static_cast<std::int64_t>(engine->compiledProviders().size()), std::nullopt,
      std::chrono::system_clock::now());
  if (o.mailto) {
    auto mailto = report.mailtoURL();
    if (!mailto || !report.mailtoIsSafeLength()) {
      std::cerr << "linkwash report: the report is too long for a mailto: link ("
                << MissedTrackerReport::kMailtoLengthLimit
                << " characters at most); print it without --mailto and paste it into a mail\n";
      return 1;
    }
    std::cout << *mailto << '\n';
    return 0;
  }
  std::cout << "To: " << MissedTrackerReport::recipientEmail() << '\n'
            << "Subject: " << report.subject() << "\n\n"
            << report.bodyText() << '\n';
  return 0;
}

}  // namespace

void addReportCommand(CLI::App& app, int& exitCode) {
  auto o = std::make_shared<ReportOptions>();
  CLI::App* report = app.add_subcommand(
      "report", "Write a report of a tracker Linkwash missed, for you to review and send");
  report->add_option("URL", o->url, "The link that still carries a tracker")->required();
  report->add_option("--note", o->note, "What should have been removed (at most 500 characters)");
  report->add_option("--cleaned", o->cleaned,
                     "The cleaned link you got, when the link is not changed by the rules");
  report->add_flag("--mailto", o->mailto,
                   "Print a mailto: link that opens the report in a mail program");
  report->footer(
      "Nothing is sent automatically. The report holds the link before and after cleaning, the "
      "matched rules, the app and system versions and your note, plus a machine-readable copy.\n\n"
      "Examples:\n"
      "  linkwash report 'https://shop.example/item?trk=abc' --note 'trk is a tracker'\n"
      "  xdg-open \"$(linkwash report 'https://shop.example/item?trk=abc' --mailto)\"");
  report->callback([o, &exitCode] { exitCode = runReport(*o); });
}

}  // namespace linkwash::cli
