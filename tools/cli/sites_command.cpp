// `linkwash sites`: the sites on which cleaning is switched off. Shared with the browser host.
#include <iostream>
#include <memory>
#include <string>

#include "base/strings.h"
#include "core/cleaning/domain_exception_store.h"
#include "tools/cli/commands.h"

namespace linkwash::cli {
namespace {

// A link names its host; anything else is taken as a host name.
std::optional<std::string> hostOf(const std::string& hostOrURL) {
  const std::string_view text = trimWhitespaceAndNewlines(hostOrURL);
  if (startsWith(text, "http://") || startsWith(text, "https://")) {
    return DomainExceptionStore::normalizedHost(text);
  }
  if (text.empty() || text.find_first_of("/?#@ ") != std::string_view::npos) return std::nullopt;
  return DomainExceptionStore::normalize(text);
}

int runSwitch(const std::string& hostOrURL, bool disable) {
  auto host = hostOf(hostOrURL);
  if (!host || host->empty()) {
    std::cerr << "linkwash sites " << (disable ? "disable" : "enable") << ": \"" << hostOrURL
              << "\" is neither a host name (example.com) nor an http(s) link\n";
    return 1;
  }
  DomainExceptionStore store(PreferenceStore::standard());
  if (disable) {
    if (!store.disable(*host)) {
      std::cerr << "linkwash sites disable: a site name is at most "
                << DomainExceptionStore::kMaxHostBytes << " bytes long\n";
      return 1;
    }
    std::cout << "cleaning is off for " << *host << '\n';
  } else {
    store.enable(*host);
    std::cout << "cleaning is on for " << *host << '\n';
  }
  return 0;
}

}  // namespace

void addSitesCommand(CLI::App& app, int& exitCode) {
  CLI::App* sites = app.add_subcommand(
      "sites", "Switch cleaning off or on for whole sites (shared with the browser extension)");
  sites->require_subcommand(1);
  sites->footer(
      "A site is its host without one leading \"www.\": switching off www.example.com switches "
      "off example.com; other subdomains are separate sites.\n\nExamples:\n"
      "  linkwash sites disable example.com\n"
      "  linkwash sites disable 'https://www.example.com/some/page'\n"
      "  linkwash sites list");
  auto target = std::make_shared<std::string>();

  sites->add_subcommand("list", "Show the sites on which cleaning is off")->callback([&exitCode] {
    DomainExceptionStore store(PreferenceStore::standard());
    for (const auto& site : store.disabledDomains()) std::cout << site.host << '\n';
    exitCode = 0;
  });
  for (bool disable : {true, false}) {
    CLI::App* sw = sites->add_subcommand(
        disable ? "disable" : "enable",
        disable ? "Leave links on this site untouched" : "Clean links on this site again");
    sw->add_option("HOST-or-URL", *target, "A host name such as example.com, or a link on the site")
        ->required();
    sw->callback([target, disable, &exitCode] { exitCode = runSwitch(*target, disable); });
  }
}

}  // namespace linkwash::cli
