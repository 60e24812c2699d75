// `linkwash redirect`: the privacy-frontend settings screen on the command line. It shows the
// settings view model's texts and rows and changes the same stored values the browser host reads.
#include <iostream>
#include <memory>
#include <string>

#include "base/strings.h"
#include "core/privacy/privacy_catalog_store.h"
#include "core/privacy/privacy_catalog_updater.h"
#include "core/privacy/privacy_redirector.h"
#include "core/privacy/x_redirect_settings_view.h"
#include "tools/cli/commands.h"
#include "tools/cli/settings_access.h"

namespace linkwash::cli {
namespace {

using View = XRedirectSettingsView;

// The stores and catalog the screen works on, those of the session every program opens.
struct Screen {
  std::unique_ptr<Session> session = openSession();
  PrivacyCatalogUpdater updater{session->privacyCatalogStore()};
  // The browser host reads the stores on every request, so nobody needs telling of a change.
  View view{session->standardStore(), &session->groupStore(), updater, [] {}};

  Screen() { view.appear(); }
};

void printRow(bool selected, const std::string& label, const std::string& value) {
  std::cout << "  " << (selected ? "(*) " : "( ) ") << label;
  if (!value.empty()) {
    const std::size_t width = 40;
    std::cout << std::string(label.size() < width ? width - label.size() : 1, ' ') << value;
  }
  std::cout << '\n';
}

void render(const Screen& screen) {
  const View::Content content = screen.view.content();
  std::cout << View::kChoiceTitle << '\n';
  for (const auto& option : content.choiceOptions) {
    printRow(option.value == content.choice, option.label, option.value);
  }
  if (content.caption) std::cout << *content.caption << '\n';
  if (content.privacyPolicy) {
    std::cout << content.privacyPolicy->title << ": " << content.privacyPolicy->url << '\n';
  }
  if (content.nitter) {
    const View::NitterSection& nitter = *content.nitter;
    std::cout << '\n' << View::kInstancePickerTitle << '\n';
    for (const auto& row : nitter.instanceRows) {
      printRow(row.value == nitter.selectedInstance, row.label, row.value);
    }
    std::cout << View::kInstanceCaption << '\n';
    std::cout << (nitter.automatic ? "[x] " : "[ ] ") << View::kAutomaticTitle << '\n';
    std::cout << nitter.status << '\n';
    if (nitter.catalogUnavailable) std::cout << *nitter.catalogUnavailable << '\n';
    std::cout << nitter.listCaption << '\n';
  }

  const auto settings = screen.session->redirectSettings();
  const auto frontend = PrivacyRedirector::normalizedFrontendBaseURL(
      settings.redditFrontendBaseURL, PrivacyRedirectSettings::kDefaultRedditFrontendBaseURL);
  std::cout << "\nReddit links: "
            << (settings.redditRedirectEnabled ? "redirected to " + frontend.value_or("(none)")
                                               : std::string("stay on Reddit"))
            << '\n';
}

std::optional<bool> onOff(const std::string& text) {
  if (text == "on") return true;
  if (text == "off") return false;
  return std::nullopt;
}

int runShow() {
  Screen screen;
  render(screen);
  return 0;
}

int runSetChoice(const std::string& raw) {
  const auto choice = xRedirectChoiceFromRaw(raw);
  if (!choice) {
    std::cerr << "linkwash redirect set-choice: \"" << raw
              << "\" is not one of off, nitter, twitterViewer\n";
    return 1;
  }
  Screen screen;
  if (!storeKeepsSettings(screen.session->standardStore(), "redirect x") ||
      !storeKeepsSettings(screen.session->groupStore(), "redirect x")) {
    return 1;
  }
  screen.view.setChoice(*choice);
  render(screen);
  return 0;
}

int runSetInstance(const std::string& id) {
  Screen screen;
  if (!storeKeepsSettings(screen.session->standardStore(), "redirect x") ||
      !storeKeepsSettings(screen.session->groupStore(), "redirect x")) {
    return 1;
  }
  // As in the picker: an eligible service, no selection, or the selection already stored.
  const auto services = screen.view.eligibleServices();
  bool offered = id.empty() || id == screen.view.selectedInstance();
  std::string eligible;
  for (const auto& service : services) {
    offered = offered || service.id == id;
    eligible += (eligible.empty() ? "" : ", ") + service.id;
  }
  if (!offered) {
    std::cerr << "linkwash redirect set-instance: \"" << id
              << "\" is not a verified eligible instance now; eligible: "
              << (eligible.empty() ? "none" : eligible) << '\n';
    return 1;
  }
  screen.view.setSelectedInstance(id);
  render(screen);
  return 0;
}

int runAutomatic(const std::string& value) {
  const auto automatic = onOff(value);
  if (!automatic) {
    std::cerr << "linkwash redirect automatic: say on or off\n";
    return 1;
  }
  Screen screen;
  if (!storeKeepsSettings(screen.session->standardStore(), "redirect x") ||
      !storeKeepsSettings(screen.session->groupStore(), "redirect x")) {
    return 1;
  }
  screen.view.setAutomatic(*automatic);
  render(screen);
  return 0;
}

int runReddit(const std::string& value, const std::optional<std::string>& frontend) {
  const auto enabled = onOff(value);
  if (!enabled) {
    std::cerr << "linkwash redirect reddit: say on or off\n";
    return 1;
  }
  // The typed text is stored as it is (the redirector normalises it on use), but only text that
  // normalises to a frontend on its own, so a typo never silently means the default frontend.
  if (frontend && !PrivacyRedirector::normalizedFrontendBaseURL(*frontend, std::nullopt)) {
    std::cerr << "linkwash redirect reddit: \"" << *frontend
              << "\" is not an http(s) base URL without user, query or fragment\n";
    return 1;
  }
  Screen screen;
  if (!storeKeepsSettings(screen.session->standardStore(), "redirect reddit")) return 1;
  bool saved = screen.session->standardStore().set(
      PrivacyRedirectSettings::kRedditRedirectEnabledKey, PreferenceValue{*enabled});
  if (frontend) {
    saved = screen.session->standardStore().set(PrivacyRedirectSettings::kRedditFrontendBaseURLKey,
                                                PreferenceValue{*frontend}) &&
            saved;
  }
  if (!saved) return failedToSave("redirect reddit", "the Reddit redirect");
  render(screen);
  return 0;
}

}  // namespace

void addRedirectCommand(CLI::App& app, int& exitCode) {
  CLI::App* redirect = app.add_subcommand(
      "redirect",
      "Show or change where cleaned X/Twitter and Reddit links are redirected (shared with the "
      "browser extension)");
  redirect->footer(
      "Without a subcommand, shows the settings. Nitter-compatible instances come from the "
      "signed privacy services catalog (see `linkwash catalog`); when it is missing or out of "
      "date those redirects stop, and tracker cleaning goes on as before.\n\nExamples:\n"
      "  linkwash redirect\n"
      "  linkwash redirect set-choice nitter\n"
      "  linkwash redirect set-instance xcancel\n"
      "  linkwash redirect automatic on\n"
      "  linkwash redirect reddit on --frontend safereddit.com");
  redirect->callback([redirect, &exitCode] {
    if (redirect->get_subcommands().empty()) exitCode = runShow();
  });

  auto text = std::make_shared<std::string>();
  auto frontend = std::make_shared<std::optional<std::string>>();

  CLI::App* setChoice =
      redirect->add_subcommand("set-choice", "Choose what happens to X/Twitter links");
  setChoice->add_option("CHOICE", *text, "off, nitter or twitterViewer")->required();
  setChoice->callback([text, &exitCode] { exitCode = runSetChoice(*text); });

  CLI::App* setInstance = redirect->add_subcommand(
      "set-instance", "Pick the Nitter-compatible instance by its ID (\"\" for none)");
  setInstance->add_option("ID", *text, "A service ID from the catalog, such as xcancel")
      ->required();
  setInstance->callback([text, &exitCode] { exitCode = runSetInstance(*text); });

  CLI::App* automatic = redirect->add_subcommand(
      "automatic", "Allow automatic instance selection and failover (on or off)");
  automatic->add_option("ON-OFF", *text, "on or off")->required();
  automatic->callback([text, &exitCode] { exitCode = runAutomatic(*text); });

  CLI::App* reddit = redirect->add_subcommand("reddit", "Redirect Reddit links (on or off)");
  reddit->add_option("ON-OFF", *text, "on or off")->required();
  reddit->add_option("--frontend", *frontend, "Base URL of the Reddit frontend");
  reddit->callback([text, frontend, &exitCode] { exitCode = runReddit(*text, *frontend); });
}

}  // namespace linkwash::cli
