// `linkwash resolve|map|archive|share`: the link tools. `resolve` is the only command that
// touches the network for a link, and only for the share links it supports.
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "base/strings.h"
#include "core/links/archive_links.h"
#include "core/links/map_link_transformer.h"
#include "core/links/share_link_resolver.h"
#include "platform/json/json_writer.h"
#include "tools/cli/commands.h"
#include "tools/cli/link_commands.h"

namespace linkwash::cli {
namespace {

std::string jsonText(const Json& json) {
  JsonWriteOptions options;
  options.escapeSlashes = false;
  return writeJson(json, options);
}

int runResolve(const std::string& url, bool json) {
  if (!ShareLinkResolutionPolicy::needsResolution(url)) {
    std::cerr << errorDescription(ShareLinkResolutionError::unsupported) << '\n';
    return 1;
  }
  const auto resolved = ShareLinkResolver::resolve(url);
  if (!resolved) {
    std::cerr << errorDescription(resolved.error()) << '\n';
    return 1;
  }
  auto setup = openCommandLineCleaner();
  if (!setup) {
    std::cerr << "linkwash resolve: " << setup.error().message << '\n';
    return 1;
  }
  const CleanResult result = setup->cleaner->resultAfterNetworkResolution(
      resolved->originalURL, resolved->canonicalURL, resolved->contactedHost, std::nullopt);
  CleanCounter().add(result);
  if (json) {
    Json out = encodeCleanResult(result);
    std::cout << jsonText(out) << '\n';
  } else {
    std::cout << result.cleanedURL << '\n';
  }
  return 0;
}

int runMap(const std::string& url) {
  const auto transformation = MapLinkTransformer::transform(url);
  if (!transformation) {
    std::cerr << "linkwash map: not an Apple Maps or Google Maps link with a place, a search or "
                 "directions\n";
    return 1;
  }
  std::cout << transformation->url << '\n';
  return 0;
}

int runArchive(const std::string& url) {
  const auto lookup = WaybackLinkBuilder::lookupURL(url);
  if (!lookup) {
    std::cerr << "linkwash archive: only http:// and https:// links can be looked up\n";
    return 1;
  }
  std::cout << *lookup << '\n';
  return 0;
}

int runShare(const std::string& url, const std::optional<std::string>& context) {
  auto setup = openCommandLineCleaner();
  if (!setup) {
    std::cerr << "linkwash share: " << setup.error().message << '\n';
    return 1;
  }
  const CleanOutcome outcome = setup->cleaner->cleanWithOutcome(url);
  if (outcome.kind == CleanOutcome::Kind::invalid) {
    std::cerr << "linkwash share: only http:// and https:// links are cleaned\n";
    return 1;
  }
  if (outcome.kind != CleanOutcome::Kind::cleaned) {
    std::cout << trimWhitespaceAndNewlines(url) << '\n';
    return 0;
  }
  if (const auto body = DualLinkShareBuilder::body(*outcome.result, context)) {
    std::cout << *body << '\n';
  } else {
    std::cout << outcome.result->cleanedURL << '\n';
  }
  return 0;
}

}  // namespace

void addLinkCommands(CLI::App& app, int& exitCode) {
  struct Options {
    std::string url;
    bool json = false;
    std::optional<std::string> context;
  };
  auto o = std::make_shared<Options>();

  CLI::App* resolve = app.add_subcommand(
      "resolve", "Resolve an Instagram, Threads or Amazon share link to its canonical link");
  resolve->add_option("URL", o->url, "The share link")->required();
  resolve->add_flag("--json", o->json, "Print the clean result as JSON");
  resolve->footer(
      "Makes one HTTPS request to the service that issued the link and follows at most four "
      "redirects within that service; no cookies are sent or kept. The canonical link is then "
      "cleaned and printed. Nothing else in Linkwash uses the network for a link.\n\nExamples:\n"
      "  linkwash resolve https://a.co/d/0abcDEF\n"
      "  linkwash resolve --json https://www.instagram.com/share/BAbc123");
  resolve->callback([o, &exitCode] { exitCode = runResolve(o->url, o->json); });

  CLI::App* map = app.add_subcommand(
      "map", "Convert an Apple Maps link to Google Maps, or a Google Maps link to Apple Maps");
  map->add_option("URL", o->url, "The map link")->required();
  map->footer(
      "Directions (with origin and walking, transit or driving mode), searches, places and "
      "coordinates convert; other map pages do not.\n\nExamples:\n"
      "  linkwash map 'https://maps.apple.com/?daddr=Eiffel+Tower&dirflg=w'\n"
      "  linkwash map 'https://www.google.com/maps/search/?api=1&query=Louvre'");
  map->callback([o, &exitCode] { exitCode = runMap(o->url); });

  CLI::App* archive =
      app.add_subcommand("archive", "Print the Wayback Machine lookup link for a link");
  archive->add_option("URL", o->url, "The link")->required();
  archive->callback([o, &exitCode] { exitCode = runArchive(o->url); });

  CLI::App* share = app.add_subcommand(
      "share", "Clean a link for sharing; with a privacy frontend, print both links");
  share->add_option("URL", o->url, "The link")->required();
  share->add_option("--context", o->context, "A line of text to put above the links");
  share->footer(
      "When the cleaned link was rewritten to a privacy frontend (see `linkwash redirect`), "
      "prints the original and the frontend link so the recipient can choose; otherwise the "
      "cleaned link.");
  share->callback([o, &exitCode] { exitCode = runShare(o->url, o->context); });
}

}  // namespace linkwash::cli
