#include "core/cleaning/url_cleaner.h"

#include <algorithm>
#include <array>
#include <chrono>

#include "base/strings.h"
#include "core/privacy/privacy_catalog_store.h"
#include "core/privacy/privacy_redirector.h"
#include "platform/regex/case_mapping.h"
#include "platform/url/url_components.h"

namespace linkwash {
namespace {

constexpr int kMaxUnwrapDepth = 5;
constexpr std::array<std::string_view, 4> kRedditChallengeParams = {"solution", "js_challenge",
                                                                    "token", "jsc_orig_r"};
constexpr std::array<std::string_view, 5> kGoogleLocalStateMarkers = {
    "lkt=", "lpg=", "trex=", "rc_ludocids:", "trex_id:"};
constexpr std::string_view kGoogleLocalStateName = "#google-local-state";
constexpr std::string_view kGoogleLocalStateRuleID = "Analytics:google_search:local_fragment";

struct RawQueryItem {
  std::string name;  // percent-decoded (as written when it does not decode)
  std::optional<std::string> value;
  std::string_view segment;  // exactly as it stood between the "&"
};

// isHostOrSubdomain on a host as written, ignoring ASCII case.
bool endsWithDomainI(std::string_view host, std::string_view domain) {
  if (host.size() < domain.size() ||
      !asciiIEquals(host.substr(host.size() - domain.size()), domain))
    return false;
  return host.size() == domain.size() || host[host.size() - domain.size() - 1] == '.';
}

bool isHostOrSubdomain(std::string_view host, std::string_view domain) {
  if (host == domain) return true;
  return host.size() > domain.size() && endsWith(host, domain) &&
         host[host.size() - domain.size() - 1] == '.';
}

std::string decodedOrRaw(std::string_view text) {
  auto decoded = percentDecode(text);
  return decoded ? std::move(*decoded) : std::string(text);
}

std::vector<RawQueryItem> splitQuery(std::string_view query) {
  std::vector<RawQueryItem> items;
  for (std::string_view segment : split(query, '&')) {
    RawQueryItem item;
    item.segment = segment;
    const std::size_t eq = segment.find('=');
    if (eq == std::string_view::npos) {
      item.name = decodedOrRaw(segment);
    } else {
      item.name = decodedOrRaw(segment.substr(0, eq));
      item.value = decodedOrRaw(segment.substr(eq + 1));
    }
    items.push_back(std::move(item));
  }
  return items;
}

// The host compared against the pipeline's host tables, lower-cased as a person reads it.
std::string lowercasedHost(const URLComponents& components) {
  const auto& raw = components.percentEncodedHost();
  if (!raw) return {};
  const bool plain =
      std::none_of(raw->begin(), raw->end(), [](char c) { return c == '%' || (c & 0x80) != 0; });
  if (plain) return asciiLower(*raw);
  auto decoded = components.host();
  return decoded ? unicodeLowercase(*decoded) : std::string();
}

std::optional<PrivacyRedirectResult> defaultPrivacyStage(std::string_view link,
                                                         const PrivacyRedirectSettings& settings) {
  // Only Nitter-compatible redirects consult the catalog; every other choice skips even the
  // stat() that checks for a newly installed one.
  auto catalog =
      settings.xRedirectChoice == XRedirectChoice::nitter ? privacyCatalogInUse() : nullptr;
  return PrivacyRedirector(std::move(catalog), currentUnixSeconds()).redirect(link, settings);
}

// Everything one pass gathers before it becomes a CleanResult.
struct PassState {
  std::vector<std::string> removedQueryParameters;
  std::vector<std::string> matchedRuleIDs;
  std::set<RuleCategoryType> matchedCategories;
  std::vector<CleanOperation> operations;
  std::int64_t stripped = 0;
  bool pathChanged = false;
  bool fragmentRemoved = false;
};

}  // namespace

bool isRawFormHost(std::string_view host) {
  return host == "a.co" || host == "x.com" || host == "airbnb.com" || host == "www.airbnb.com" ||
         host == "music.youtube.com" || isHostOrSubdomain(host, "instagram.com") ||
         isHostOrSubdomain(host, "threads.com") || isHostOrSubdomain(host, "threads.net");
}

URLCleaner::URLCleaner(RulesEngine& rulesEngine, DomainExceptionStore* exceptionStore,
                       LastCleanRecorder* lastCleanRecorder, std::string surface,
                       PrivacyRedirectSettings privacyRedirectSettings)
    : engine_(rulesEngine),
      exceptions_(exceptionStore),
      recorder_(lastCleanRecorder),
      surface_(std::move(surface)),
      settings_(std::move(privacyRedirectSettings)),
      privacyStage_(defaultPrivacyStage) {}

CleanOutcome URLCleaner::cleanWithOutcome(std::string_view urlString) {
  const std::string link(trimWhitespaceAndNewlines(urlString));
  const auto components = URLComponents::parse(link);
  if (!components) return CleanOutcome::invalid();
  if (!startsWith(link, "http://") && !startsWith(link, "https://")) return CleanOutcome::invalid();
  if (exceptions_ != nullptr) {
    // The same host DomainExceptionStore::normalizedHost would find, from the parse we have.
    if (auto host = components->host(); host && !host->empty()) {
      std::string normalized = DomainExceptionStore::normalize(*host);
      if (exceptions_->isDisabled(normalized)) {
        return CleanOutcome::skippedDisabled(std::move(normalized));
      }
    }
  }
  if (nothingToClean(*components, link)) return CleanOutcome::unchanged();
  auto result = cleaningPass(link, 0);
  if (!result) return CleanOutcome::unchanged();
  if (saving_ == MatchCountSaving::everyClean) engine_.saveMatchCounts();
  if (recorder_ != nullptr) recorder_->record(result->originalURL, result->cleanedURL, surface_);
  return CleanOutcome::cleaned(std::move(*result));
}

std::optional<CleanResult> URLCleaner::clean(std::string_view urlString) {
  auto outcome = cleanWithOutcome(urlString);
  if (outcome.kind != CleanOutcome::Kind::cleaned) return std::nullopt;
  return std::move(outcome.result);
}

bool URLCleaner::nothingToClean(const URLComponents& components, std::string_view link) {
  // Most links carry nothing any rule could change. When the engine proves that, and neither the
  // Reddit and Google special cases nor a privacy frontend applies, the pass would hand back the
  // link itself: answer without building it. The plain strategy keeps the full pass, so the two
  // can be compared.
  if (engine_.strategy() != MatchStrategy::indexed) return false;
  const auto& host = components.percentEncodedHost();
  if (host && (endsWithDomainI(*host, "reddit.com") || endsWithDomainI(*host, "google.com") ||
               std::any_of(host->begin(), host->end(),
                           [](char c) { return c == '%' || (c & 0x80) != 0; }))) {
    return false;
  }
  const auto& query = components.percentEncodedQuery();
  if (!engine_.rulesLeaveUnchanged(
          link, query ? std::optional<std::string_view>(*query) : std::nullopt)) {
    return false;
  }
  return !privacyStage_ || !privacyStage_(link, settings_);
}

std::optional<CleanResult> URLCleaner::cleaningPass(const std::string& input, int depth) {
  thread_local std::vector<const CompiledProvider*> matched;
  std::vector<const CompiledProvider*> providers;
  engine_.matchingProviders(input, matched);
  for (const CompiledProvider* provider : matched) {
    if (!engine_.isException(input, *provider)) providers.push_back(provider);
  }

  // Redirect wrappers: the first web destination ends the pass at this level.
  if (engine_.isCategoryEnabled(RuleCategoryType::redirectUnwrapping)) {
    for (const CompiledProvider* provider : providers) {
      auto destination = engine_.extractRedirection(input, *provider);
      if (!destination) continue;
      std::vector<std::string> ids;
      for (const auto& redirection : provider->redirectionRegexes) {
        ids.push_back(redirection.ruleID);
        engine_.recordMatch(redirection.ruleID, RuleCategoryType::redirectUnwrapping);
      }
      CleanOperation unwrap{
          CleanOperationKind::offlineWrapperUnwrap, input, *destination, {}, false, std::nullopt,
          std::string(kWrapperUnwrapNote)};
      std::optional<CleanResult> inner;
      if (depth < kMaxUnwrapDepth) inner = cleaningPass(*destination, depth + 1);
      CleanResult result;
      result.originalURL = input;
      result.matchedRuleIDs = std::move(ids);
      result.matchedCategories = {RuleCategoryType::redirectUnwrapping};
      result.operations.push_back(std::move(unwrap));
      if (inner) {
        result.cleanedURL = std::move(inner->cleanedURL);
        result.paramsRemoved = inner->paramsRemoved + 1;
        result.removedQueryParameters = std::move(inner->removedQueryParameters);
        result.matchedRuleIDs.insert(result.matchedRuleIDs.end(), inner->matchedRuleIDs.begin(),
                                     inner->matchedRuleIDs.end());
        result.matchedCategories.insert(inner->matchedCategories.begin(),
                                        inner->matchedCategories.end());
        result.cleanedOriginalURL = std::move(inner->cleanedOriginalURL);
        result.privacyRedirect = std::move(inner->privacyRedirect);
        for (auto& operation : inner->operations) result.operations.push_back(std::move(operation));
      } else {
        result.cleanedURL = *destination;
        result.paramsRemoved = 1;
      }
      return result;
    }
  }

  PassState state;
  // Path rules: each provider's raw rules run on the output of the previous provider's.
  std::string link = input;
  for (const CompiledProvider* provider : providers) {
    if (provider->rawRuleRegexes.empty()) continue;
    std::string after = engine_.applyRawRules(link, *provider);
    if (after == link) continue;
    state.operations.push_back(CleanOperation{CleanOperationKind::offlinePathRewrite,
                                              link,
                                              after,
                                              {},
                                              false,
                                              std::nullopt,
                                              std::string(kPathRewriteNote)});
    state.matchedCategories.insert(provider->category);
    for (const auto& rule : provider->rawRuleRegexes) {
      state.matchedRuleIDs.push_back(rule.ruleID);
      engine_.recordMatch(rule.ruleID, provider->category);
    }
    state.pathChanged = true;
    link = std::move(after);
  }

  auto components = URLComponents::parse(link);
  if (!components) return std::nullopt;
  const std::string host = lowercasedHost(*components);
  const std::optional<std::string> query = components->percentEncodedQuery();
  std::vector<RawQueryItem> items = query ? splitQuery(*query) : std::vector<RawQueryItem>{};

  const bool rawForm = isRawFormHost(host);
  bool redditChallenge = false;
  if (isHostOrSubdomain(host, "reddit.com")) {
    bool solution = false, token = false;
    for (const auto& item : items) {
      if (item.name == "js_challenge" && item.value == "1") redditChallenge = true;
      if (item.name == "jsc_orig_r") redditChallenge = true;
      solution |= item.name == "solution";
      token |= item.name == "token";
    }
    redditChallenge |= solution && token;
  }
  bool googleSearch = false;
  if (isHostOrSubdomain(host, "google.com") && components->percentEncodedPath() == "/search") {
    for (const auto& item : items) googleSearch |= item.name == "q";
  }

  // Decide each parameter; the first rule that claims it wins.
  std::vector<const RawQueryItem*> kept;
  kept.reserve(items.size());
  for (const auto& item : items) {
    std::optional<std::string> ruleID;
    RuleCategoryType category = RuleCategoryType::analytics;
    const bool isChallengeParam =
        std::find(kRedditChallengeParams.begin(), kRedditChallengeParams.end(), item.name) !=
        kRedditChallengeParams.end();
    if (redditChallenge && isChallengeParam &&
        engine_.isCategoryEnabled(RuleCategoryType::socialMedia)) {
      ruleID = "Social Media:reddit_js_challenge:" + item.name;
      category = RuleCategoryType::socialMedia;
    } else if (googleSearch && item.name == "client" &&
               engine_.isCategoryEnabled(RuleCategoryType::analytics)) {
      ruleID = "Analytics:google_search:" + item.name;
      category = RuleCategoryType::analytics;
    } else {
      if (auto match = engine_.firstStrippingRule(item.name, providers)) {
        ruleID = std::string(match->ruleID);
        category =
            match->referral ? RuleCategoryType::referralMarketing : match->provider->category;
      }
      if (!ruleID) {
        if (auto fallback = engine_.shouldStripParamFallback(item.name)) {
          ruleID = std::string(fallback->ruleID);
          category = fallback->category;
        }
      }
    }
    if (!ruleID) {
      kept.push_back(&item);
      continue;
    }
    state.removedQueryParameters.push_back(item.name);
    engine_.recordMatch(*ruleID, category);
    state.matchedRuleIDs.push_back(std::move(*ruleID));
    state.matchedCategories.insert(category);
    ++state.stripped;
  }

  std::string cleaned = link;
  if (state.stripped > 0) {
    if (rawForm) {
      std::optional<std::string> rest;
      for (const RawQueryItem* item : kept) {
        rest = rest ? *rest + "&" : std::string();
        *rest += item->segment;
      }
      components->setPercentEncodedQuery(std::move(rest));
    } else if (kept.empty()) {
      components->setQueryItems(std::nullopt);
    } else {
      std::vector<URLQueryItem> remaining;
      remaining.reserve(kept.size());
      for (const RawQueryItem* item : kept) remaining.push_back({item->name, item->value});
      components->setQueryItems(remaining);
    }
    cleaned = components->string().value_or(link);
    state.operations.push_back(CleanOperation{CleanOperationKind::localParameterRemoval, link,
                                              cleaned, state.removedQueryParameters, false,
                                              std::nullopt, std::nullopt});
  }

  if (googleSearch && engine_.isCategoryEnabled(RuleCategoryType::analytics)) {
    const auto& fragment = components->percentEncodedFragment();
    const bool hasMarker =
        fragment && !fragment->empty() &&
        std::any_of(
            kGoogleLocalStateMarkers.begin(), kGoogleLocalStateMarkers.end(),
            [&](std::string_view marker) { return fragment->find(marker) != std::string::npos; });
    if (hasMarker) {
      components->setPercentEncodedFragment(std::nullopt);
      const std::string before = cleaned;
      cleaned = components->string().value_or(cleaned);
      state.removedQueryParameters.emplace_back(kGoogleLocalStateName);
      state.matchedRuleIDs.emplace_back(kGoogleLocalStateRuleID);
      state.matchedCategories.insert(RuleCategoryType::analytics);
      engine_.recordMatch(kGoogleLocalStateRuleID, RuleCategoryType::analytics);
      state.operations.push_back(CleanOperation{CleanOperationKind::localParameterRemoval,
                                                before,
                                                cleaned,
                                                {std::string(kGoogleLocalStateName)},
                                                false,
                                                std::nullopt,
                                                std::nullopt});
      state.fragmentRemoved = true;
    }
  }

  std::string finalURL = cleaned;
  std::optional<std::string> cleanedOriginalURL;
  std::optional<PrivacyRedirectInfo> privacyRedirect;
  if (privacyStage_) {
    if (auto redirect = privacyStage_(cleaned, settings_)) {
      finalURL = redirect->redirectedURL;
      cleanedOriginalURL = cleaned;
      privacyRedirect = redirect->info();
      state.operations.push_back(CleanOperation{CleanOperationKind::privacyRedirect,
                                                cleaned,
                                                finalURL,
                                                {},
                                                false,
                                                std::nullopt,
                                                std::string(kPrivacyRedirectNote)});
    }
  }

  if (finalURL == input) return std::nullopt;
  CleanResult result;
  result.originalURL = input;
  result.cleanedURL = std::move(finalURL);
  result.paramsRemoved = state.stripped + (state.pathChanged && state.stripped == 0 ? 1 : 0) +
                         (state.fragmentRemoved ? 1 : 0);
  result.removedQueryParameters = std::move(state.removedQueryParameters);
  result.matchedRuleIDs = std::move(state.matchedRuleIDs);
  result.matchedCategories = std::move(state.matchedCategories);
  result.cleanedOriginalURL = std::move(cleanedOriginalURL);
  result.privacyRedirect = std::move(privacyRedirect);
  result.operations = std::move(state.operations);
  return result;
}

CleanResult URLCleaner::resultAfterNetworkResolution(
    std::string_view originalURL, std::string_view resolvedURL, std::string_view contactedHost,
    const std::optional<CleanResult>& priorResult) {
  const CleanResult* prior =
      priorResult && priorResult->originalURL == originalURL ? &*priorResult : nullptr;
  auto outcome = cleanWithOutcome(resolvedURL);
  const CleanResult* resolved =
      outcome.kind == CleanOutcome::Kind::cleaned ? &*outcome.result : nullptr;

  CleanResult result;
  result.originalURL = std::string(originalURL);
  result.cleanedURL = resolved ? resolved->cleanedURL : std::string(resolvedURL);
  result.paramsRemoved =
      (prior ? prior->paramsRemoved : 0) + (resolved ? resolved->paramsRemoved : 0);
  for (const CleanResult* part : {prior, resolved}) {
    if (part == nullptr) continue;
    result.removedQueryParameters.insert(result.removedQueryParameters.end(),
                                         part->removedQueryParameters.begin(),
                                         part->removedQueryParameters.end());
    result.matchedRuleIDs.insert(result.matchedRuleIDs.end(), part->matchedRuleIDs.begin(),
                                 part->matchedRuleIDs.end());
    result.matchedCategories.insert(part->matchedCategories.begin(), part->matchedCategories.end());
  }
  if (resolved) {
    result.cleanedOriginalURL = resolved->cleanedOriginalURL;
    result.privacyRedirect = resolved->privacyRedirect;
  }
  if (prior) result.operations = prior->operations;
  result.operations.push_back(CleanOperation{CleanOperationKind::networkResolution,
                                             prior ? prior->cleanedURL : std::string(originalURL),
                                             std::string(resolvedURL),
                                             {},
                                             true,
                                             std::string(contactedHost),
                                             std::string(kNetworkResolutionNote)});
  if (resolved) {
    result.operations.insert(result.operations.end(), resolved->operations.begin(),
                             resolved->operations.end());
  }
  return result;
}

}  // namespace linkwash
