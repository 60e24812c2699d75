#include "core/cleaning/url_cleaner.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>

#include "base/strings.h"
#include "platform/regex/case_mapping.h"

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

// The rule that claimed a query parameter.
struct StripDecision {
  std::string ruleID;
  RuleCategoryType category = RuleCategoryType::analytics;
};

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

// The special cases that depend on where a query stands rather than on rules.
struct QueryContext {
  bool redditChallenge = false;  // a Reddit anti-bot challenge link
  bool googleSearch = false;     // a Google results page
};

QueryContext classifyQuery(const URLComponents& components,
                           const std::vector<RawQueryItem>& items) {
  QueryContext context;
  const std::string host = lowercasedHost(components);
  if (isHostOrSubdomain(host, "reddit.com")) {
    bool solution = false, token = false;
    for (const auto& item : items) {
      if (item.name == "js_challenge" && item.value == "1") context.redditChallenge = true;
      if (item.name == "jsc_orig_r") context.redditChallenge = true;
      solution |= item.name == "solution";
      token |= item.name == "token";
    }
    context.redditChallenge |= solution && token;
  }
  if (isHostOrSubdomain(host, "google.com") && components.percentEncodedPath() == "/search") {
    context.googleSearch = std::any_of(items.begin(), items.end(),
                                       [](const RawQueryItem& item) { return item.name == "q"; });
  }
  return context;
}

bool hasGoogleLocalState(const std::optional<std::string>& fragment) {
  return fragment && !fragment->empty() &&
         std::any_of(
             kGoogleLocalStateMarkers.begin(), kGoogleLocalStateMarkers.end(),
             [&](std::string_view marker) { return fragment->find(marker) != std::string::npos; });
}

// The first rule that claims a parameter: the pipeline's own special cases, then the providers'
// rules, then the fallback rules.
std::optional<StripDecision> strippingRule(const RulesEngine& engine, const RawQueryItem& item,
                                           const QueryContext& context,
                                           const std::vector<const CompiledProvider*>& providers) {
  const bool isChallengeParam =
      std::find(kRedditChallengeParams.begin(), kRedditChallengeParams.end(), item.name) !=
      kRedditChallengeParams.end();
  if (context.redditChallenge && isChallengeParam &&
      engine.isCategoryEnabled(RuleCategoryType::socialMedia)) {
    return StripDecision{"Social Media:reddit_js_challenge:" + item.name,
                         RuleCategoryType::socialMedia};
  }
  if (context.googleSearch && item.name == "client" &&
      engine.isCategoryEnabled(RuleCategoryType::analytics)) {
    return StripDecision{"Analytics:google_search:" + item.name, RuleCategoryType::analytics};
  }
  if (auto match = engine.firstStrippingRule(item.name, providers)) {
    return StripDecision{std::string(match->ruleID), match->referral
                                                         ? RuleCategoryType::referralMarketing
                                                         : match->provider->category};
  }
  if (auto fallback = engine.shouldStripParamFallback(item.name)) {
    return StripDecision{std::string(fallback->ruleID), fallback->category};
  }
  return std::nullopt;
}

}  // namespace

// Everything one pass gathers before it becomes a CleanResult.
struct URLCleaner::PassState {
  std::string input;  // the link the pass started from
  std::string link;   // the link as the stages so far left it
  std::vector<std::string> removedQueryParameters;
  std::vector<std::string> matchedRuleIDs;
  std::set<RuleCategoryType> matchedCategories;
  std::vector<CleanOperation> operations;
  std::int64_t stripped = 0;
  bool pathChanged = false;
  bool fragmentRemoved = false;
  std::optional<std::string> cleanedOriginalURL;
  std::optional<PrivacyRedirectInfo> privacyRedirect;

  void noteMatch(RulesEngine& engine, std::string ruleID, RuleCategoryType category) {
    engine.recordMatch(ruleID, category);
    matchedRuleIDs.push_back(std::move(ruleID));
    matchedCategories.insert(category);
  }
};

URLCleaner::URLCleaner(RulesEngine& rulesEngine, DomainExceptionStore* exceptionStore,
                       LastCleanRecorder* lastCleanRecorder, std::string surface,
                       PrivacyRedirectSettings privacyRedirectSettings)
    : engine_(rulesEngine),
      exceptions_(exceptionStore),
      recorder_(lastCleanRecorder),
      surface_(std::move(surface)),
      settings_(std::move(privacyRedirectSettings)) {}

CleanOutcome URLCleaner::cleanWithOutcome(std::string_view urlString) {
  const std::string link(trimWhitespaceAndNewlines(urlString));
  // Bytes that are not text are no link a person could mean; such input passes through as it is.
  if (!isValidUtf8(link)) return CleanOutcome::invalid();
  auto components = URLComponents::parse(link);
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
  auto result = cleaningPass(link, 0, std::move(components));
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

std::optional<CleanResult> URLCleaner::cleaningPass(const std::string& input, int depth,
                                                    std::optional<URLComponents> parsed) {
  const Providers providers = activeProviders(input);
  if (engine_.isCategoryEnabled(RuleCategoryType::redirectUnwrapping)) {
    // The first destination ends the pass: the wrapper's own parameters are not examined.
    if (auto unwrapped = unwrapRedirect(input, providers, depth)) return unwrapped;
  }
  PassState state;
  state.input = input;
  state.link = input;
  applyPathRules(providers, state);
  if (state.pathChanged || !parsed) parsed = URLComponents::parse(state.link);
  if (!parsed) return std::nullopt;
  URLComponents& components = *parsed;
  const bool googleSearch = stripQuery(components, providers, state);
  if (googleSearch) dropGoogleLocalState(components, state);
  offerPrivacyRedirect(state);
  if (state.link == input) return std::nullopt;
  return finishPass(std::move(state));
}

URLCleaner::Providers URLCleaner::activeProviders(std::string_view link) const {
  thread_local Providers matched;
  Providers providers;
  engine_.matchingProviders(link, matched);
  for (const CompiledProvider* provider : matched) {
    if (!engine_.isException(link, *provider)) providers.push_back(provider);
  }
  return providers;
}

std::optional<CleanResult> URLCleaner::unwrapRedirect(const std::string& input,
                                                      const Providers& providers, int depth) {
  for (const CompiledProvider* provider : providers) {
    auto destination = engine_.extractRedirection(input, *provider);
    if (!destination) continue;
    CleanResult result;
    result.originalURL = input;
    result.matchedCategories = {RuleCategoryType::redirectUnwrapping};
    for (const auto& redirection : provider->redirectionRegexes) {
      result.matchedRuleIDs.push_back(redirection.ruleID);
      engine_.recordMatch(redirection.ruleID, RuleCategoryType::redirectUnwrapping);
    }
    CleanOperation operation;
    operation.kind = CleanOperationKind::offlineWrapperUnwrap;
    operation.inputURL = input;
    operation.outputURL = *destination;
    operation.note = std::string(kWrapperUnwrapNote);
    result.operations.push_back(std::move(operation));
    std::optional<CleanResult> inner;
    if (depth < kMaxUnwrapDepth) inner = cleaningPass(*destination, depth + 1, std::nullopt);
    if (!inner) {
      result.cleanedURL = std::move(*destination);
      result.paramsRemoved = 1;
      return result;
    }
    result.cleanedURL = std::move(inner->cleanedURL);
    result.paramsRemoved = inner->paramsRemoved + 1;
    result.removedQueryParameters = std::move(inner->removedQueryParameters);
    result.matchedRuleIDs.insert(result.matchedRuleIDs.end(), inner->matchedRuleIDs.begin(),
                                 inner->matchedRuleIDs.end());
    result.matchedCategories.insert(inner->matchedCategories.begin(),
                                    inner->matchedCategories.end());
    result.cleanedOriginalURL = std::move(inner->cleanedOriginalURL);
    result.privacyRedirect = std::move(inner->privacyRedirect);
    for (auto& step : inner->operations) result.operations.push_back(std::move(step));
    return result;
  }
  return std::nullopt;
}

void URLCleaner::applyPathRules(const Providers& providers, PassState& state) {
  // Each provider's raw rules run on the output of the previous provider's.
  for (const CompiledProvider* provider : providers) {
    if (provider->rawRuleRegexes.empty()) continue;
    std::string after = engine_.applyRawRules(state.link, *provider);
    if (after == state.link) continue;
    CleanOperation operation;
    operation.kind = CleanOperationKind::offlinePathRewrite;
    operation.inputURL = state.link;
    operation.outputURL = after;
    operation.note = std::string(kPathRewriteNote);
    state.operations.push_back(std::move(operation));
    for (const auto& rule : provider->rawRuleRegexes) {
      state.noteMatch(engine_, rule.ruleID, provider->category);
    }
    state.pathChanged = true;
    state.link = std::move(after);
  }
}

bool URLCleaner::stripQuery(URLComponents& components, const Providers& providers,
                            PassState& state) {
  const std::optional<std::string>& query = components.percentEncodedQuery();
  const std::vector<RawQueryItem> items = query ? splitQuery(*query) : std::vector<RawQueryItem>{};
  const QueryContext context = classifyQuery(components, items);
  // Kept parameters are joined back exactly as they were written: decoding and re-encoding
  // would change values such as "q=C%2B%2B" that the site reads byte for byte.
  std::optional<std::string> kept;
  for (const RawQueryItem& item : items) {
    auto decision = strippingRule(engine_, item, context, providers);
    if (!decision) {
      if (kept) {
        *kept += '&';
      } else {
        kept.emplace();
      }
      *kept += item.segment;
      continue;
    }
    state.removedQueryParameters.push_back(item.name);
    state.noteMatch(engine_, std::move(decision->ruleID), decision->category);
    ++state.stripped;
  }
  if (state.stripped > 0) {
    components.setPercentEncodedQuery(std::move(kept));
    std::string cleaned = components.string().value_or(state.link);
    CleanOperation operation;
    operation.kind = CleanOperationKind::localParameterRemoval;
    operation.inputURL = state.link;
    operation.outputURL = cleaned;
    operation.removedParameters = state.removedQueryParameters;
    state.operations.push_back(std::move(operation));
    state.link = std::move(cleaned);
  }
  return context.googleSearch;
}

void URLCleaner::dropGoogleLocalState(URLComponents& components, PassState& state) {
  if (!engine_.isCategoryEnabled(RuleCategoryType::analytics)) return;
  if (!hasGoogleLocalState(components.percentEncodedFragment())) return;
  components.setPercentEncodedFragment(std::nullopt);
  std::string cleaned = components.string().value_or(state.link);
  state.removedQueryParameters.emplace_back(kGoogleLocalStateName);
  state.noteMatch(engine_, std::string(kGoogleLocalStateRuleID), RuleCategoryType::analytics);
  CleanOperation operation;
  operation.kind = CleanOperationKind::localParameterRemoval;
  operation.inputURL = state.link;
  operation.outputURL = cleaned;
  operation.removedParameters = {std::string(kGoogleLocalStateName)};
  state.operations.push_back(std::move(operation));
  state.link = std::move(cleaned);
  state.fragmentRemoved = true;
}

void URLCleaner::offerPrivacyRedirect(PassState& state) {
  if (!privacyStage_) return;
  auto redirect = privacyStage_(state.link, settings_);
  if (!redirect) return;
  CleanOperation operation;
  operation.kind = CleanOperationKind::privacyRedirect;
  operation.inputURL = state.link;
  operation.outputURL = redirect->redirectedURL;
  operation.note = std::string(kPrivacyRedirectNote);
  state.operations.push_back(std::move(operation));
  state.privacyRedirect = redirect->info();
  state.cleanedOriginalURL = std::exchange(state.link, std::move(redirect->redirectedURL));
}

CleanResult URLCleaner::finishPass(PassState state) {
  // A path rewrite counts as one removal only when no parameter was stripped with it.
  const std::int64_t removals = state.stripped +
                                (state.pathChanged && state.stripped == 0 ? 1 : 0) +
                                (state.fragmentRemoved ? 1 : 0);
  CleanResult result;
  result.originalURL = std::move(state.input);
  result.cleanedURL = std::move(state.link);
  result.paramsRemoved = removals;
  result.removedQueryParameters = std::move(state.removedQueryParameters);
  result.matchedRuleIDs = std::move(state.matchedRuleIDs);
  result.matchedCategories = std::move(state.matchedCategories);
  result.cleanedOriginalURL = std::move(state.cleanedOriginalURL);
  result.privacyRedirect = std::move(state.privacyRedirect);
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
  CleanOperation operation;
  operation.kind = CleanOperationKind::networkResolution;
  operation.inputURL = prior ? prior->cleanedURL : std::string(originalURL);
  operation.outputURL = std::string(resolvedURL);
  operation.networkUsed = true;
  operation.contactedHost = std::string(contactedHost);
  operation.note = std::string(kNetworkResolutionNote);
  result.operations.push_back(std::move(operation));
  if (resolved) {
    result.operations.insert(result.operations.end(), resolved->operations.begin(),
                             resolved->operations.end());
  }
  return result;
}

}  // namespace linkwash
