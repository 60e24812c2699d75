// Key generation, release signing and tree verification for `linkwash-publish`.
#include "tools/publish/publisher.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>

#include "core/rules/rules_engine.h"
#include "core/signing/signature_verification.h"
#include "core/updates/signed_rule_feed.h"
#include "platform/crypto/base64.h"
#include "platform/crypto/ed25519.h"
#include "platform/crypto/sha256.h"
#include "platform/fs/files.h"
#include "platform/json/json_writer.h"
#include "platform/resources/resource_bundle.h"

namespace linkwash::publish {
namespace {

namespace fs = std::filesystem;

bool isKeyId(std::string_view id) {
  return !id.empty() && id.size() <= 64 && std::all_of(id.begin(), id.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
  });
}

std::string keyEntry(std::string_view id, const Ed25519PublicKey& key) {
  return "\"" + std::string(id) + "\":\"" + base64Encode(key) + "\"";
}

// The folder holding ".git" above `file`, if any: a private key there is one `git add` away
// from being published.
std::optional<fs::path> enclosingGitWorkTree(const fs::path& file) {
  std::error_code ec;
  fs::path folder = fs::weakly_canonical(fs::absolute(file, ec), ec).parent_path();
  while (!folder.empty()) {
    if (fs::exists(folder / ".git", ec)) return folder;
    if (folder == folder.parent_path()) break;
    folder = folder.parent_path();
  }
  return std::nullopt;
}

// Creates `path` with mode 0600 and the given content; fails if it exists.
Result<void> writeNewPrivateFile(const fs::path& path, std::string_view content) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) {
    if (errno == EEXIST) return fail(path.string() + " already exists; not overwriting a key");
    return fail("cannot create " + path.string() + ": " + std::strerror(errno));
  }
  bool ok = ::fchmod(fd, 0600) == 0;
  for (std::string_view rest = content; ok && !rest.empty();) {
    const ssize_t written = ::write(fd, rest.data(), rest.size());
    if (written < 0 && errno == EINTR) continue;
    ok = written > 0;
    if (ok) rest.remove_prefix(static_cast<std::size_t>(written));
  }
  ok = ok && ::fsync(fd) == 0;
  ok = ::close(fd) == 0 && ok;
  if (!ok) {
    const std::string reason = std::strerror(errno);
    ::unlink(path.c_str());
    return fail("cannot write " + path.string() + ": " + reason);
  }
  return {};
}

Result<std::string> readRuleFile(const fs::path& path) {
  auto data = files::readFile(path);
  if (!data) return fail("cannot read " + path.string());
  if (data->size() > static_cast<std::size_t>(SignedRuleFeed::kMaxRuleFileBytes)) {
    return fail(path.string() + " is larger than the 4194303 bytes a release may carry");
  }
  return std::move(*data);
}

RuleUpdateManifest::File describeFile(RuleUpdateManifest::File::Kind kind, std::string_view name,
                                      std::string_view data, const std::string& base,
                                      const std::string& version) {
  RuleUpdateManifest::File file;
  file.kind = kind;
  file.path = std::string(name);
  file.url = base + version + "/" + file.path;
  file.sha256 = hexLower(sha256(data));
  file.bytes = static_cast<std::int64_t>(data.size());
  return file;
}

fs::path channelFolder(const fs::path& root, RuleUpdateChannel channel) {
  return channel == RuleUpdateChannel::beta ? root / "beta" : root;
}

// Release files are shared by both channels, so an existing one may only be written again with
// the same bytes (promoting a beta release to stable).
Result<void> writeReleaseFile(const fs::path& path, std::string_view data) {
  if (auto existing = files::readFile(path)) {
    if (*existing == data) return {};
    return fail(path.string() + " already exists with other content; a published version " +
                "never changes");
  }
  auto written = files::writeFileAtomically(path, data);
  if (!written) return fail(written.error().message);
  ::chmod(path.c_str(), 0644);  // served to everyone
  return {};
}

// Says which step of the app's check a rejected release fails, for the person publishing it.
std::string explainRejection(const SignedRuleFeed::Proof& proof, std::string_view keys,
                             std::string_view host) {
  if (!parseKeyset(keys)) {
    return "the key file is not in the exact trusted-key form (one line, \"id\":\"base64\" "
           "entries in ascending ID order, no blanks, no trailing newline)";
  }
  if (!verifyProof(proof.manifest, proof.signature, keys)) {
    return "the signature does not verify with these keys (wrong key, edited manifest, or a "
           "non-canonical manifest.sig)";
  }
  const auto manifest = RuleUpdateManifest::decode(proof.manifest);
  if (!manifest) return "manifest.json does not decode as a rules manifest";
  if (auto valid = manifest->validate(1); !valid) return valid.error().errorDescription();
  if (manifest->schemaVersion != 1) return "schemaVersion must be 1";
  if (!RulesVersion::parse(manifest->currentVersion)) {
    return "currentVersion \"" + manifest->currentVersion + "\" is not a rules version";
  }
  if (manifest->minAppVersion && compareAppVersions(appVersion(), *manifest->minAppVersion) < 0) {
    return "the release needs app version " + *manifest->minAppVersion + "; this is " +
           appVersion();
  }
  if (manifest->files.size() != 2) return "a release names exactly two files";
  const std::string base = SignedRuleFeed::rulesBaseURL(host);
  for (const auto& file : manifest->files) {
    const std::string expected = base + manifest->currentVersion + "/" + file.path;
    if (file.url != expected) return "file URL " + file.url + " is not " + expected;
  }
  return "the files must be data.min.json and linkwash-supplementary.json with lower-case "
         "sha256 and bytes of at most 4194303";
}

}  // namespace

Result<Ed25519SigningKey> readPrivateKey(const std::filesystem::path& path,
                                         std::string_view keyId) {
  auto text = files::readFile(path);
  if (!text) return fail("cannot read key file " + path.string());
  const auto json = parseJson(*text);
  std::fill(text->begin(), text->end(), '\0');
  auto member = [&](const char* name) -> std::optional<std::string> {
    if (!json || !json->is_object()) return std::nullopt;
    const auto it = json->find(name);
    if (it == json->end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
  };
  const auto algorithm = member("algorithm");
  const auto storedId = member("keyID");
  auto seedText = member("seed");
  if (algorithm != kSignatureAlgorithm || !storedId || !seedText) {
    return fail(path.string() + " is not a key file written by `linkwash-publish keygen`");
  }
  if (*storedId != keyId) {
    return fail(path.string() + " holds key \"" + *storedId + "\", not \"" + std::string(keyId) +
                "\"");
  }
  auto seed = base64DecodeCanonical(*seedText);
  std::fill(seedText->begin(), seedText->end(), '\0');
  if (!seed || seed->size() != kEd25519SeedSize) return fail(path.string() + ": damaged seed");
  auto key = Ed25519SigningKey::fromSeed(*seed);
  std::fill(seed->begin(), seed->end(), 0);
  if (!key) return fail("OpenSSL refused the key in " + path.string());
  return std::move(*key);
}

std::string defaultKeyId() {
  const auto today = std::chrono::floor<std::chrono::days>(std::chrono::system_clock::now());
  const std::string date = formatISO8601(today).substr(0, 10);  // YYYY-MM-DD
  std::string digits;
  for (char c : date) {
    if (c != '-') digits += c;
  }
  return "rules-" + digits;
}

Result<std::string> generateKey(const KeygenOptions& options) {
  if (!isKeyId(options.keyId)) {
    return fail("key ID \"" + options.keyId + "\" must be 1 to 64 of a-z, 0-9 and -");
  }
  if (!options.force) {
    if (auto workTree = enclosingGitWorkTree(options.out)) {
      return fail(options.out.string() + " is inside the git work tree " + workTree->string() +
                  "; private keys stay out of repositories (use --force if you must)");
    }
  }
  auto key = Ed25519SigningKey::generate();
  if (!key) return fail("OpenSSL could not generate a key");
  Json json = Json::object();
  json["algorithm"] = std::string(kSignatureAlgorithm);
  json["keyID"] = options.keyId;
  json["seed"] = base64Encode(key->seed());
  std::string content = canonicalJson(json) + "\n";
  auto written = writeNewPrivateFile(options.out, content);
  std::fill(content.begin(), content.end(), '\0');
  if (!written) return tl::unexpected(written.error());
  return keyEntry(options.keyId, key->publicKey());
}

Result<SignedRelease> signRules(const SignOptions& options) {
  if (!RulesVersion::parse(options.version)) {
    return fail("version \"" + options.version +
                "\" must look like 2026.03.14.1 (date, then a release number without a leading "
                "zero)");
  }
  if (options.host.empty() || options.host.find_first_of("/ \t\r\n?#@") != std::string::npos) {
    return fail("host \"" + options.host + "\" must be a bare host name (and port)");
  }
  auto key = readPrivateKey(options.key, options.keyId);
  if (!key) return tl::unexpected(key.error());

  auto clear = readRuleFile(options.rules);
  if (!clear) return tl::unexpected(clear.error());
  std::string supplementary;
  if (options.supplementary) {
    auto read = readRuleFile(*options.supplementary);
    if (!read) return tl::unexpected(read.error());
    supplementary = std::move(*read);
  } else {
    const auto bundle = ResourceBundle::locate();
    auto shipped = bundle ? bundle->read("linkwash-supplementary", "json") : std::nullopt;
    if (!shipped) return fail("no --supplementary given and no shipped supplementary file found");
    supplementary = std::move(*shipped);
  }
  if (auto valid = RulesEngine::validateRuleBundle(*clear, supplementary); !valid) {
    return fail("the rules are not valid: " + valid.error().message);
  }

  const fs::path channelDir = channelFolder(options.out, options.channel);
  if (auto existing = files::readFile(channelDir / "manifest.json")) {
    const auto published = RuleUpdateManifest::decode(*existing);
    const auto publishedVersion =
        published ? RulesVersion::parse(published->currentVersion) : std::nullopt;
    if (publishedVersion && !(*RulesVersion::parse(options.version) > *publishedVersion)) {
      return fail("the " + std::string(rawValue(options.channel)) + " channel already publishes " +
                  published->currentVersion + "; apps never install an older or equal version");
    }
  }

  RuleUpdateManifest manifest;
  manifest.product = "Linkwash";
  manifest.kind = "rules";
  manifest.schemaVersion = 1;
  manifest.currentVersion = options.version;
  manifest.publishedAt = options.publishedAt.value_or(
      std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now()));
  manifest.minAppVersion = options.minAppVersion;
  const std::string base = SignedRuleFeed::rulesBaseURL(options.host);
  manifest.files = {
      describeFile(RuleUpdateManifest::File::Kind::clearurls, SignedRuleFeed::kClearURLsFileName,
                   *clear, base, options.version),
      describeFile(RuleUpdateManifest::File::Kind::linkwashSupplementary,
                   SignedRuleFeed::kSupplementaryFileName, supplementary, base, options.version)};
  manifest.notes = options.notes;

  SignedRuleFeed::Proof proof;
  proof.manifest = manifest.encode();
  if (proof.manifest.size() > kMaxRuleManifestSize) {
    return fail("the manifest would be larger than 65536 bytes (shorten the notes)");
  }
  const auto signature = key->sign(ruleManifestSignedMessage(proof.manifest));
  if (!signature) return fail("OpenSSL could not sign the manifest");
  proof.signature = canonical(
      SignatureEnvelope{std::string(kSignatureAlgorithm), options.keyId, base64Encode(*signature)});

  // Check the release exactly as an app trusting only this key would before publishing it.
  const std::string trust = "{" + keyEntry(options.keyId, key->publicKey()) + "}";
  const std::string runningVersion = options.minAppVersion.value_or(appVersion());
  auto verified = SignedRuleFeed::verifyRelease(proof, trust, runningVersion, options.host);
  if (!verified)
    return fail("the signed release does not verify: " +
                explainRejection(proof, trust, options.host));
  if (!SignedRuleFeed::checkFiles(*verified, *clear, supplementary)) {
    return fail("the release files do not match their manifest");
  }

  SignedRelease release{std::move(*verified), {}};
  const fs::path versionDir = options.out / options.version;
  const std::pair<std::string_view, const std::string*> releaseFiles[] = {
      {SignedRuleFeed::kClearURLsFileName, &*clear},
      {SignedRuleFeed::kSupplementaryFileName, &supplementary}};
  for (const auto& [name, data] : releaseFiles) {
    if (auto written = writeReleaseFile(versionDir / name, *data); !written) {
      return tl::unexpected(written.error());
    }
    release.written.push_back(versionDir / name);
  }
  // The signature first: an app that fetches between the two writes sees an old manifest with a
  // new signature, refuses it and keeps its rules, which is the safe side.
  for (const auto& [name, data] :
       {std::pair<const char*, const std::string*>{"manifest.sig", &proof.signature},
        {"manifest.json", &proof.manifest}}) {
    if (auto written = files::writeFileAtomically(channelDir / name, *data); !written) {
      return fail(written.error().message);
    }
    ::chmod((channelDir / name).c_str(), 0644);
    release.written.push_back(channelDir / name);
  }
  return release;
}

Result<RuleUpdateManifest> verifyTree(const VerifyOptions& options) {
  const auto keys = files::readFile(options.keys);
  if (!keys) return fail("cannot read key file " + options.keys.string());
  const fs::path channelDir = channelFolder(options.dir, options.channel);
  SignedRuleFeed::Proof proof;
  auto manifestBytes = files::readFile(channelDir / "manifest.json");
  auto signatureBytes = files::readFile(channelDir / "manifest.sig");
  if (!manifestBytes) return fail("cannot read " + (channelDir / "manifest.json").string());
  if (!signatureBytes) return fail("cannot read " + (channelDir / "manifest.sig").string());
  proof.manifest = std::move(*manifestBytes);
  proof.signature = std::move(*signatureBytes);

  auto manifest = SignedRuleFeed::verifyRelease(proof, *keys, appVersion(), options.host);
  if (!manifest) return fail("rejected: " + explainRejection(proof, *keys, options.host));

  std::string data[2];
  const RuleUpdateManifest::File* named[2] = {manifest->clearURLsFile(),
                                              manifest->supplementaryFile()};
  for (int i = 0; i < 2; ++i) {
    if (!SignedRuleFeed::isAllowedFeedURL(named[i]->url, options.host)) {
      return fail(named[i]->url + " is not a URL the app downloads from");
    }
    const fs::path local = options.dir / manifest->currentVersion / named[i]->path;
    auto bytes = files::readFile(local);
    if (!bytes) return fail("missing " + local.string());
    data[i] = std::move(*bytes);
    if (static_cast<std::int64_t>(data[i].size()) != *named[i]->bytes) {
      return fail(local.string() + " has " + std::to_string(data[i].size()) +
                  " bytes; the manifest says " + std::to_string(*named[i]->bytes));
    }
    if (hexLower(sha256(data[i])) != named[i]->sha256) {
      return fail(local.string() + " does not match its SHA-256 in the manifest");
    }
  }
  if (auto valid = RulesEngine::validateRuleBundle(data[0], data[1]); !valid) {
    return fail("the rules are not valid: " + valid.error().message);
  }
  return std::move(*manifest);
}

}  // namespace linkwash::publish
