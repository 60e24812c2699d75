// Checks, downloads, verifies and installs signed rule releases, and decides when automatic
// checks are due.
#include "core/updates/rules_updater.h"

#include <ctime>
#include <system_error>

#include "base/diagnostics.h"
#include "core/clipboard/command_guard.h"
#include "core/rules/rules_engine.h"
#include "core/signing/signature_verification.h"
#include "platform/crypto/sha256.h"
#include "platform/fs/files.h"
#include "platform/fs/paths.h"
#include "platform/prefs/preference_store.h"
#include "platform/resources/resource_bundle.h"

namespace linkwash {
namespace {

namespace fs = std::filesystem;
using File = RuleUpdateManifest::File;

constexpr std::string_view kCheckFailedPrefix = "Could not check for rule updates: ";

std::string httpStatusText(long status) { return "HTTP " + std::to_string(status); }

std::string feedRejectedText() {
  return RuleUpdateError::invalidManifest(std::string(kSignedRuleFeedRejected)).errorDescription();
}

}  // namespace

// --- Cadence and schedule -------------------------------------------------------------------

std::string_view rawValue(RuleUpdateCadence cadence) {
  switch (cadence) {
    case RuleUpdateCadence::never:
      return "never";
    case RuleUpdateCadence::daily:
      return "daily";
    case RuleUpdateCadence::weekly:
      return "weekly";
    case RuleUpdateCadence::monthly:
      return "monthly";
  }
  return "never";
}

std::optional<RuleUpdateCadence> ruleUpdateCadenceFromRawValue(std::string_view raw) {
  for (RuleUpdateCadence cadence : kAllRuleUpdateCadences) {
    if (rawValue(cadence) == raw) return cadence;
  }
  return std::nullopt;
}

std::string_view displayName(RuleUpdateCadence cadence) {
  switch (cadence) {
    case RuleUpdateCadence::never:
      return "Never";
    case RuleUpdateCadence::daily:
      return "Daily";
    case RuleUpdateCadence::weekly:
      return "Weekly";
    case RuleUpdateCadence::monthly:
      return "Monthly";
  }
  return "Never";
}

std::optional<std::chrono::seconds> interval(RuleUpdateCadence cadence) {
  switch (cadence) {
    case RuleUpdateCadence::never:
      return std::nullopt;
    case RuleUpdateCadence::daily:
      return std::chrono::seconds(86400);
    case RuleUpdateCadence::weekly:
      return std::chrono::seconds(604800);
    case RuleUpdateCadence::monthly:
      return std::chrono::seconds(2592000);
  }
  return std::nullopt;
}

bool isDue(RuleUpdateCadence cadence, std::optional<Timestamp> lastCheck, Timestamp now) {
  const auto every = interval(cadence);
  if (!every) return false;
  if (!lastCheck) return true;
  return now - *lastCheck >= *every;
}

std::optional<Timestamp> RuleUpdateBackgroundSchedule::earliestBeginDate(
    RuleUpdateCadence cadence, std::optional<Timestamp> lastAutomaticCheck, Timestamp now) {
  const auto every = interval(cadence);
  if (!every) return std::nullopt;
  if (!lastAutomaticCheck) return now;
  const Timestamp next = *lastAutomaticCheck + *every;
  return next < now ? now : next;
}

std::vector<AutomaticRuleUpdateAction> AutomaticRuleUpdatePlan::actions(bool isDue,
                                                                        bool updateAvailable) {
  if (!isDue) return {};
  if (!updateAvailable) return {AutomaticRuleUpdateAction::check};
  return {AutomaticRuleUpdateAction::check, AutomaticRuleUpdateAction::install};
}

bool backgroundTaskSucceeded(AutomaticRuleUpdateResult result) {
  return result == AutomaticRuleUpdateResult::notDue || result == AutomaticRuleUpdateResult::busy ||
         result == AutomaticRuleUpdateResult::succeeded;
}

// --- Status ---------------------------------------------------------------------------------

std::string formatDisplayDate(Timestamp time) {
  static constexpr std::array<std::string_view, 12> kMonths = {
      "Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm local{};
  if (localtime_r(&seconds, &local) == nullptr) return formatISO8601(time);
  const int hour12 = local.tm_hour % 12 == 0 ? 12 : local.tm_hour % 12;
  std::string minutes = std::to_string(local.tm_min);
  if (minutes.size() < 2) minutes.insert(0, "0");
  return std::string(kMonths[static_cast<std::size_t>(local.tm_mon) % 12]) + " " +
         std::to_string(local.tm_mday) + ", " + std::to_string(local.tm_year + 1900) + " at " +
         std::to_string(hour12) + ":" + minutes + (local.tm_hour < 12 ? " AM" : " PM");
}

RulesUpdateStatus RulesUpdateStatus::updateAvailable(RuleUpdateManifest manifest) {
  std::string version = manifest.currentVersion;
  return {Kind::updateAvailable, std::move(manifest), std::move(version), std::nullopt};
}

RulesUpdateStatus RulesUpdateStatus::upToDate(std::string version) {
  return {Kind::upToDate, std::nullopt, std::move(version), std::nullopt};
}

RulesUpdateStatus RulesUpdateStatus::installed(std::string version, Timestamp date) {
  return {Kind::installed, std::nullopt, std::move(version), date};
}

RulesUpdateStatus RulesUpdateStatus::failed(std::string message) {
  return {Kind::failed, std::nullopt, std::move(message), std::nullopt};
}

std::string RulesUpdateStatus::displayText() const {
  switch (kind) {
    case Kind::updateAvailable:
      return "Rules update available: " + (manifest ? manifest->currentVersion : text);
    case Kind::upToDate:
      return "Rules are up to date: " + text;
    case Kind::installed:
      return "Installed rules " + text + " at " + formatDisplayDate(date.value_or(Timestamp{}));
    case Kind::failed:
      return text;
    case Kind::idle:
      return "";
    case Kind::checkingManifest:
      return "Checking\u2026";
    case Kind::downloading:
      return "Downloading\u2026";
    case Kind::validating:
      return "Validating\u2026";
    case Kind::installing:
      return "Installing\u2026";
  }
  return "";
}

bool RulesUpdateStatus::isBusy() const {
  return kind == Kind::checkingManifest || kind == Kind::downloading || kind == Kind::validating ||
         kind == Kind::installing;
}

// --- The updater: state ---------------------------------------------------------------------

RulesUpdater::RulesUpdater(RulesEngine& engine, std::shared_ptr<PreferenceStore> defaults,
                           Options options)
    : engine_(engine),
      defaults_(std::move(defaults)),
      manifestURLOverride_(std::move(options.manifestURLOverride)),
      root_(options.root.empty() ? SignedRuleFeed::Store::defaultRoot() : std::move(options.root)),
      trust_(options.trust ? std::move(*options.trust) : VerifiedRuleBundleLoader::trustedKeys()),
      shippedManifest_(options.shippedManifest
                           ? std::move(options.shippedManifest)
                           : ResourceBundle::cleanLinkResources().read("manifest", "json")),
      clock_(std::move(options.clock)) {
  std::optional<RuleUpdateManifest> shipped;
  if (shippedManifest_) shipped = RuleUpdateManifest::decode(*shippedManifest_);
  floor_ = shipped && RulesVersion::parse(shipped->currentVersion)
               ? shipped->currentVersion
               : std::string(kHighestRulesVersion);
}

Timestamp RulesUpdater::now() const {
  if (clock_) return clock_();
  return std::chrono::time_point_cast<std::chrono::seconds>(std::chrono::system_clock::now());
}

void RulesUpdater::setDate(std::string_view key, Timestamp date) {
  // ISO 8601 text, so that `linkwash defaults read` shows it as a date.
  defaults_->set(key, PreferenceValue{formatISO8601(date)});
}

std::optional<Timestamp> RulesUpdater::date(std::string_view key) const {
  const auto text = defaults_->stringForKey(key);
  if (!text) return std::nullopt;
  return parseISO8601(*text);
}

std::optional<std::string> RulesUpdater::installedVersion() const {
  return defaults_->stringForKey(kInstalledVersionKey);
}

std::optional<std::string> RulesUpdater::installedCommandGuardVersion() const {
  return defaults_->stringForKey(kInstalledCommandGuardVersionKey);
}

std::optional<Timestamp> RulesUpdater::lastUpdateDate() const { return date(kLastUpdateDateKey); }

std::optional<Timestamp> RulesUpdater::lastAutomaticCheckDate() const {
  return date(kLastAutomaticCheckDateKey);
}

RuleUpdateCadence RulesUpdater::automaticUpdateCadence() const {
  const auto raw = defaults_->stringForKey(kAutomaticUpdateCadenceKey);
  return raw ? ruleUpdateCadenceFromRawValue(*raw).value_or(RuleUpdateCadence::never)
             : RuleUpdateCadence::never;
}

RuleUpdateChannel RulesUpdater::selectedChannel() const {
  const auto raw = defaults_->stringForKey(kSelectedChannelKey);
  return raw ? ruleUpdateChannelFromRawValue(*raw).value_or(RuleUpdateChannel::stable)
             : RuleUpdateChannel::stable;
}

void RulesUpdater::setAutomaticUpdateCadence(RuleUpdateCadence cadence) {
  defaults_->set(kAutomaticUpdateCadenceKey, PreferenceValue{std::string(rawValue(cadence))});
}

void RulesUpdater::setSelectedChannel(RuleUpdateChannel channel) {
  defaults_->set(kSelectedChannelKey, PreferenceValue{std::string(rawValue(channel))});
}

std::string RulesUpdater::effectiveManifestURL() const {
  return manifestURLOverride_ ? *manifestURLOverride_ : manifestURL(selectedChannel());
}

std::optional<std::string> RulesUpdater::verifiedInstalledVersion() const {
  auto verified = store().current(floor_);
  if (!verified) return std::nullopt;
  return std::move(verified->manifest.currentVersion);
}

std::optional<RuleUpdateManifest> RulesUpdater::activeManifest() const {
  const auto bytes = files::readFile(root_ / "active" / "manifest.json");
  if (!bytes) return std::nullopt;
  return RuleUpdateManifest::decode(*bytes);
}

void RulesUpdater::setStatus(RulesUpdateStatus status) {
  status_ = std::move(status);
  if (statusObserver_) statusObserver_(status_);
}

// --- Check ----------------------------------------------------------------------------------

void RulesUpdater::checkForUpdates() {
  if (status_.isBusy()) return;
  // What an earlier check found is no longer news once this one starts, whatever it finds.
  availableManifest_.reset();
  pendingProof_.reset();
  setStatus(RulesUpdateStatus::of(RulesUpdateStatus::Kind::checkingManifest));

  const std::string manifestAddress = effectiveManifestURL();
  const std::string signatureAddress = signatureURL(manifestAddress);
  if (!SignedRuleFeed::isAllowedFeedURL(manifestAddress) ||
      !SignedRuleFeed::isAllowedFeedURL(signatureAddress)) {
    setStatus(RulesUpdateStatus::failed(feedRejectedText()));
    return;
  }

  // Either the body, or the reason the check failed (after kCheckFailedPrefix).
  const auto fetch = [this](const std::string& url,
                            std::size_t limit) -> tl::expected<std::string, std::string> {
    HttpRequest request(url);
    request.maxBytes = limit;
    request.headers = {{"Accept", "application/json"}, {"User-Agent", "Linkwash/" + appVersion()}};
    auto response = http_.get(request);
    if (!response) return tl::unexpected(response.error().message);
    // A redirect comes back as it is and fails here: the feed is never followed elsewhere.
    if (response->status < 200 || response->status > 299) {
      return tl::unexpected(httpStatusText(response->status));
    }
    return std::move(response->body);
  };

  auto manifest = fetch(manifestAddress, kMaxRuleManifestSize);
  if (manifest && manifest->empty()) manifest = tl::unexpected(std::string("empty manifest"));
  if (!manifest) {
    setStatus(RulesUpdateStatus::failed(std::string(kCheckFailedPrefix) + manifest.error()));
    return;
  }
  auto signature = fetch(signatureAddress, kMaxSignatureEnvelopeSize);
  if (!signature) {
    setStatus(RulesUpdateStatus::failed(std::string(kCheckFailedPrefix) + signature.error()));
    return;
  }

  SignedRuleFeed::Proof proof{std::move(*manifest), std::move(*signature)};
  auto verified = SignedRuleFeed::verifyRelease(proof, trust_);
  if (!verified) {
    fail(verified.error());
    return;
  }

  const auto installed = installedVersion();
  const auto installedParsed = installed ? RulesVersion::parse(*installed) : std::nullopt;
  const auto offered = RulesVersion::parse(verified->currentVersion);
  if (!installedParsed || *offered > *installedParsed) {
    availableManifest_ = *verified;
    pendingProof_ = std::move(proof);
    setStatus(RulesUpdateStatus::updateAvailable(std::move(*verified)));
  } else {
    setStatus(RulesUpdateStatus::upToDate(*installed));
  }
}

// --- Install --------------------------------------------------------------------------------

RuleUpdateResult<std::string> RulesUpdater::download(const File& file) {
  const auto unexpectedSize = [&file] {
    return tl::unexpected(RuleUpdateError::network("Unexpected byte count for " + file.path));
  };
  if (!SignedRuleFeed::isAllowedFeedURL(file.url) || !file.bytes || *file.bytes < 0) {
    return tl::unexpected(RuleUpdateError::invalidManifest(std::string(kSignedRuleFeedRejected)));
  }
  const auto expected = static_cast<std::size_t>(*file.bytes);
  HttpRequest request(file.url);
  // A body longer than the signed size is cut off at once instead of being held.
  request.maxBytes = expected;
  request.headers = {{"User-Agent", "Linkwash/" + appVersion()}};
  if (progressObserver_) {
    request.progress = [this, &file](std::size_t received, std::optional<std::size_t> total) {
      progressObserver_(DownloadProgress{file.path, received, total});
    };
  }
  auto response = http_.get(request);
  if (!response) {
    if (response.error().kind == HttpErrorKind::tooLarge) return unexpectedSize();
    return tl::unexpected(RuleUpdateError::network(response.error().message));
  }
  if (response->status < 200 || response->status > 299) {
    return tl::unexpected(RuleUpdateError::network(httpStatusText(response->status)));
  }
  if (response->body.size() != expected) return unexpectedSize();
  return std::move(response->body);
}

void RulesUpdater::installAvailableUpdate() {
  if (!availableManifest_ || !pendingProof_ || status_.isBusy()) return;
  setStatus(RulesUpdateStatus::of(RulesUpdateStatus::Kind::downloading));

  const RuleUpdateManifest manifest = *availableManifest_;
  DownloadedRuleFiles downloaded;
  downloaded.manifestData = pendingProof_->manifest;
  downloaded.signatureData = pendingProof_->signature;
  for (const File& file : manifest.files) {
    auto data = download(file);
    if (!data) return fail(data.error());
    switch (file.kind) {
      case File::Kind::clearurls:
        downloaded.clearURLsData = std::move(*data);
        break;
      case File::Kind::linkwashSupplementary:
        downloaded.supplementaryData = std::move(*data);
        break;
      case File::Kind::commandGuard:
        downloaded.commandGuardData = std::move(*data);
        break;
    }
  }
  installVerified(manifest, downloaded);
}

void RulesUpdater::installRelease(const DownloadedRuleFiles& files) {
  if (status_.isBusy()) return;
  setStatus(RulesUpdateStatus::of(RulesUpdateStatus::Kind::validating));
  auto manifest = SignedRuleFeed::verifyRelease({files.manifestData, files.signatureData}, trust_);
  if (!manifest) return fail(manifest.error());
  installVerified(*manifest, files);
}

void RulesUpdater::installVerified(const RuleUpdateManifest& manifest,
                                   const DownloadedRuleFiles& files) {
  if (status_.kind != RulesUpdateStatus::Kind::validating) {
    setStatus(RulesUpdateStatus::of(RulesUpdateStatus::Kind::validating));
  }
  for (const File& file : manifest.files) {
    const std::string* data = nullptr;
    switch (file.kind) {
      case File::Kind::clearurls:
        data = &files.clearURLsData;
        break;
      case File::Kind::linkwashSupplementary:
        data = &files.supplementaryData;
        break;
      case File::Kind::commandGuard:
        if (files.commandGuardData) data = &*files.commandGuardData;
        break;
    }
    if (data == nullptr) return fail(RuleUpdateError::missingFile(file.path));
    if (!file.bytes || static_cast<std::size_t>(*file.bytes) != data->size() ||
        hexLower(sha256(*data)) != file.sha256) {
      return fail(RuleUpdateError::hashMismatch(file.path));
    }
  }
  if (auto checked =
          SignedRuleFeed::checkFiles(manifest, files.clearURLsData, files.supplementaryData);
      !checked) {
    return fail(checked.error());
  }
  if (auto valid = RulesEngine::validateRuleBundle(files.clearURLsData, files.supplementaryData);
      !valid) {
    return fail(RuleUpdateError::invalidRules(valid.error().message));
  }
  // The signed release rules admit only the two rule files, so this is for manifests that may
  // one day carry the command guard's rules as well.
  std::optional<std::string> commandGuardVersion;
  if (manifest.commandGuardFile()) {
    if (!files.commandGuardData || !CommandGuard::decodeRuleBundle(*files.commandGuardData)) {
      return setStatus(RulesUpdateStatus::failed("Command Guard rules were invalid."));
    }
    commandGuardVersion = CommandGuard::ruleBundleVersion(*files.commandGuardData);
  }

  setStatus(RulesUpdateStatus::of(RulesUpdateStatus::Kind::installing));
  const SignedRuleFeed::Record record{
      {files.manifestData, files.signatureData}, files.clearURLsData, files.supplementaryData};
  if (auto installed = store().install(record, floor_); !installed) {
    return fail(installed.error());
  }
  if (commandGuardVersion) {
    if (auto written = files::writeFileAtomically(CommandGuard::defaultInstalledRulesURL(),
                                                  *files.commandGuardData);
        !written) {
      return fail(RuleUpdateError::fileSystem(written.error().message));
    }
  }

  VerifiedRuleBundleLoader::load(engine_, root_, shippedManifest_, trust_);
  const Timestamp installedAt = now();
  setDate(kLastUpdateDateKey, installedAt);
  defaults_->set(kInstalledVersionKey, PreferenceValue{manifest.currentVersion});
  if (commandGuardVersion) {
    defaults_->set(kInstalledCommandGuardVersionKey, PreferenceValue{*commandGuardVersion});
  }
  availableManifest_.reset();
  pendingProof_.reset();
  setStatus(RulesUpdateStatus::installed(manifest.currentVersion, installedAt));
}

RuleUpdateResult<RulesUpdater::DownloadedRuleFiles> RulesUpdater::readReleaseDirectory(
    const fs::path& dir) {
  DownloadedRuleFiles release;
  // The folder is the user's: anything in it may be a device, a FIFO or far too large, so every
  // file is read only when it is a regular file within the size a release allows.
  const auto read = [](const fs::path& path,
                       std::uint64_t limit) -> RuleUpdateResult<std::optional<std::string>> {
    std::error_code ec;
    if (!fs::exists(fs::symlink_status(path, ec))) return std::optional<std::string>();
    auto bytes = files::readUserFile(path, limit);
    if (!bytes) return tl::unexpected(RuleUpdateError::fileSystem(bytes.error().message));
    return std::optional<std::string>(std::move(*bytes));
  };
  auto manifest = read(dir / "manifest.json", kMaxRuleManifestSize);
  if (!manifest) return tl::unexpected(manifest.error());
  if (!*manifest) return tl::unexpected(RuleUpdateError::missingFile("manifest.json"));
  auto signature = read(dir / "manifest.sig", kMaxSignatureEnvelopeSize);
  if (!signature) return tl::unexpected(signature.error());
  if (!*signature) return tl::unexpected(RuleUpdateError::missingFile("manifest.sig"));
  // Only to find the files; the install verifies the signature before trusting any of it. A
  // manifest that could never install is refused before any file it names is looked up.
  const auto decoded = RuleUpdateManifest::decode(**manifest);
  if (!decoded) {
    return tl::unexpected(RuleUpdateError::invalidManifest(std::string(kSignedRuleFeedRejected)));
  }
  if (auto valid = decoded->validate(1); !valid) return tl::unexpected(valid.error());
  if (!RulesVersion::parse(decoded->currentVersion)) {
    return tl::unexpected(RuleUpdateError::invalidManifest(std::string(kSignedRuleFeedRejected)));
  }
  const auto find = [&](std::string_view name) -> RuleUpdateResult<std::optional<std::string>> {
    // A name that could leave the folder is never used as a path.
    if (name.empty() || name.find('/') != std::string_view::npos ||
        name.find("..") != std::string_view::npos) {
      return std::optional<std::string>();
    }
    for (const fs::path& candidate : {dir / name, dir / decoded->currentVersion / name,
                                      dir / ".." / decoded->currentVersion / name}) {
      auto bytes = read(candidate, SignedRuleFeed::kMaxRuleFileBytes);
      if (!bytes || *bytes) return bytes;
    }
    return std::optional<std::string>();
  };
  for (const File& file : decoded->files) {
    auto found = find(file.path);
    if (!found) return tl::unexpected(found.error());
    auto& bytes = *found;
    if (!bytes) return tl::unexpected(RuleUpdateError::missingFile(file.path));
    switch (file.kind) {
      case File::Kind::clearurls:
        release.clearURLsData = std::move(*bytes);
        break;
      case File::Kind::linkwashSupplementary:
        release.supplementaryData = std::move(*bytes);
        break;
      case File::Kind::commandGuard:
        release.commandGuardData = std::move(*bytes);
        break;
    }
  }
  release.manifestData = std::move(**manifest);
  release.signatureData = std::move(**signature);
  return release;
}

// --- Automatic updates and start-up ---------------------------------------------------------

AutomaticRuleUpdateResult RulesUpdater::performAutomaticUpdateIfDueNow(Timestamp at) {
  cancelRequested_ = false;
  if (!isDue(automaticUpdateCadence(), lastAutomaticCheckDate(), at)) {
    return AutomaticRuleUpdateResult::notDue;
  }
  if (status_.isBusy()) return AutomaticRuleUpdateResult::busy;
  setDate(kLastAutomaticCheckDateKey, at);
  checkForUpdates();
  if (cancelRequested_) return AutomaticRuleUpdateResult::cancelled;
  if (status_.kind == RulesUpdateStatus::Kind::updateAvailable) installAvailableUpdate();
  switch (status_.kind) {
    case RulesUpdateStatus::Kind::upToDate:
    case RulesUpdateStatus::Kind::installed:
      return AutomaticRuleUpdateResult::succeeded;
    default:
      return AutomaticRuleUpdateResult::failed;
  }
}

void RulesUpdater::migrateLegacyRules() {
  const fs::path legacy = paths::applicationSupport() / kLegacyApplicationIdentifier /
                          SignedRuleFeed::kClearURLsFileName;
  std::error_code ec;
  if (!fs::is_regular_file(legacy, ec)) return;
  const fs::path target = root_ / "active" / SignedRuleFeed::kClearURLsFileName;
  if (fs::exists(target, ec)) return;  // moved by an earlier start
  if (!ec) fs::create_directories(target.parent_path(), ec);
  if (!ec) fs::rename(legacy, target, ec);
  if (ec == std::errc::cross_device_link) {
    ec.clear();
    fs::copy_file(legacy, target, ec);
    if (!ec) fs::remove(legacy, ec);
  }
  if (ec) diagnostic("RulesUpdater: legacy rules migration skipped \u2014 " + ec.message());
}

std::optional<std::string> RulesUpdater::loadPreferringAppSupport() {
  migrateLegacyRules();
  auto version = VerifiedRuleBundleLoader::load(engine_, root_, shippedManifest_, trust_);
  if (version) {
    defaults_->set(kInstalledVersionKey, PreferenceValue{*version});
  } else {
    defaults_->remove(kInstalledVersionKey);
  }
  return version;
}

}  // namespace linkwash
