// `linkwash-publish`: makes signing keys and signed rule releases for a rules feed, and checks a
// published tree as the app would. Argument parsing only; the work is in publisher.cpp.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <iostream>

#include "core/updates/signed_rule_feed.h"
#include "tools/publish/catalog_commands.h"
#include "tools/publish/publisher.h"

namespace {

using namespace linkwash;

constexpr const char* kExamples = R"(Examples:
  # Once: a key pair. Keep the private key file secret and out of every repository.
  linkwash-publish keygen --out ~/keys/linkwash-rules.key --key-id rules-2026
  # Add the printed "id":"base64" entry to resources/rule-feed-keys.json and rebuild the app.

  # Each release: sign the rule files into the tree your HTTPS server serves as /linkwash/rules/.
  linkwash-publish sign-rules --key ~/keys/linkwash-rules.key --key-id rules-2026 \
      --rules data.min.json --supplementary linkwash-supplementary.json \
      --version 2026.03.14.1 --out /srv/www/linkwash/rules --notes "Amazon tracking tags"

  # Before and after uploading: check the tree exactly as the app will.
  linkwash-publish verify /srv/www/linkwash/rules --keys resources/rule-feed-keys.json
)";

std::optional<RuleUpdateChannel> channelOption(const std::string& text) {
  return ruleUpdateChannelFromRawValue(text);
}

int report(const Error& error) {
  std::fprintf(stderr, "linkwash-publish: %s\n", error.message.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "Makes the signing keys and signed rule releases of a Linkwash rules feed, and checks a "
      "published feed as the app would."};
  app.name("linkwash-publish");
  app.footer(kExamples);
  app.require_subcommand(1);
  int exitCode = 0;

  publish::KeygenOptions keygen;
  keygen.keyId = publish::defaultKeyId();
  auto* keygenCommand = app.add_subcommand(
      "keygen",
      "Write a new Ed25519 private key (mode 0600) and print the entry for rule-feed-keys.json");
  keygenCommand->add_option("--out", keygen.out, "Private key file to create (never overwritten)")
      ->required();
  keygenCommand->add_option("--key-id", keygen.keyId, "Key ID: 1 to 64 of a-z, 0-9 and -")
      ->capture_default_str();
  keygenCommand->add_flag("--force", keygen.force, "Allow a path inside a git work tree");
  keygenCommand->callback([&] {
    auto entry = publish::generateKey(keygen);
    if (!entry) {
      exitCode = report(entry.error());
      return;
    }
    std::printf("%s\n", entry->c_str());
    std::fprintf(stderr,
                 "Private key written to %s. Keep it secret.\n"
                 "Add the line above to resources/rule-feed-keys.json (one line, entries sorted "
                 "by ID, separated by \",\", no blanks, no trailing newline).\n",
                 keygen.out.c_str());
  });

  publish::SignOptions sign;
  sign.host = std::string(rulesHost());
  std::string signChannel = "stable";
  std::string publishedAt;
  auto* signCommand = app.add_subcommand(
      "sign-rules", "Sign a rules release into the tree served as https://HOST/linkwash/rules/");
  signCommand->add_option("--key", sign.key, "Private key file from keygen")->required();
  signCommand->add_option("--key-id", sign.keyId, "ID of that key in rule-feed-keys.json")
      ->required();
  signCommand->add_option("--rules", sign.rules, "Provider file (data.min.json)")->required();
  signCommand->add_option("--supplementary", sign.supplementary,
                          "Supplementary provider file (default: the shipped one)");
  signCommand->add_option("--version", sign.version, "Release version, e.g. 2026.03.14.1")
      ->required();
  signCommand->add_option("--out", sign.out, "Root of the published tree")->required();
  signCommand->add_option("--channel", signChannel, "stable or beta")
      ->check(CLI::IsMember({"stable", "beta"}))
      ->capture_default_str();
  signCommand->add_option("--host", sign.host, "Host the app downloads from (its build setting)")
      ->capture_default_str();
  signCommand->add_option("--notes", sign.notes, "A line of release notes (repeatable)");
  signCommand->add_option("--min-app-version", sign.minAppVersion,
                          "Lowest app version that may install the release");
  signCommand->add_option("--published-at", publishedAt,
                          "Publication time, e.g. 2026-03-14T12:00:00Z (default: now)");
  signCommand->callback([&] {
    sign.channel = *channelOption(signChannel);
    if (!publishedAt.empty()) {
      sign.publishedAt = parseISO8601(publishedAt);
      if (!sign.publishedAt) {
        exitCode = report(Error{"--published-at must look like 2026-03-14T12:00:00Z"});
        return;
      }
    }
    auto release = publish::signRules(sign);
    if (!release) {
      exitCode = report(release.error());
      return;
    }
    std::printf("Signed %s rules %s with key %s for https://%s/linkwash/rules/\n",
                std::string(rawValue(sign.channel)).c_str(),
                release->manifest.currentVersion.c_str(), sign.keyId.c_str(), sign.host.c_str());
    for (const auto& path : release->written) std::printf("  %s\n", path.c_str());
  });

  publish::VerifyOptions verify;
  verify.host = std::string(rulesHost());
  std::string verifyChannel = "stable";
  auto* verifyCommand =
      app.add_subcommand("verify", "Check a published tree exactly as the app would");
  verifyCommand->add_option("dir", verify.dir, "Root of the published tree")->required();
  verifyCommand->add_option("--keys", verify.keys, "Trusted key file (rule-feed-keys.json)")
      ->required();
  verifyCommand->add_option("--channel", verifyChannel, "stable or beta")
      ->check(CLI::IsMember({"stable", "beta"}))
      ->capture_default_str();
  verifyCommand->add_option("--host", verify.host, "Host the app downloads from")
      ->capture_default_str();
  verifyCommand->callback([&] {
    verify.channel = *channelOption(verifyChannel);
    auto manifest = publish::verifyTree(verify);
    if (!manifest) {
      exitCode = report(manifest.error());
      return;
    }
    std::printf("OK: %s rules %s, published %s\n", std::string(rawValue(verify.channel)).c_str(),
                manifest->currentVersion.c_str(), formatISO8601(manifest->publishedAt).c_str());
  });

  publish::addCatalogCommands(app, exitCode);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  }
  std::fflush(stdout);
  return exitCode;
}
