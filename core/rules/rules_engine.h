// RulesEngine: the one object holding the compiled rule data, the rule catalog with its
// switches and match counts, and every matching operation the cleaning pipeline uses.
//
//   RulesEngine engine(PreferenceStore::standard());
//   engine.loadBundledRules();
//   for (const CompiledProvider* p : engine.matchingProviders(url)) {
//     if (engine.isException(url, *p)) continue;
//     if (auto rule = engine.shouldStripParam("utm_source", *p)) { ... }
//   }
//
// Matching is answered through an index that only narrows the candidates (ICU decides every
// match), so indexed answers always equal plain ones; MatchStrategy::plain keeps the
// straightforward path for cross-checking. The engine has no lock: use one engine per thread or
// guard it. Answers follow the catalog's current switches without recompiling.
#pragma once

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "core/rules/provider_file.h"
#include "core/rules/rule_catalog.h"
#include "platform/prefs/preference_store.h"

namespace linkwash {

namespace internal {
class PrefilterSet;
}

enum class MatchStrategy { indexed, plain };

struct FallbackRule {
  Regex regex;
  std::string ruleID;
  RuleCategoryType category;
  std::string regexText;  // the ICU pattern text, for indexing
  bool isCustom = false;
};

struct FallbackMatch {
  std::string_view ruleID;
  RuleCategoryType category;
};

// How the last load built its index, for diagnostics and benchmarks.
struct IndexStats {
  bool fromCache = false;
  std::size_t literalPatterns = 0;
  std::size_t prefilterPatterns = 0;
  std::size_t alwaysCandidatePatterns = 0;
};

class RulesEngine {
 public:
  explicit RulesEngine(std::shared_ptr<PreferenceStore> defaults,
                       MatchStrategy strategy = MatchStrategy::indexed);
  ~RulesEngine();
  RulesEngine(const RulesEngine&) = delete;
  RulesEngine& operator=(const RulesEngine&) = delete;

  static constexpr std::string_view kEnabledStateKey = "rulesEngine_enabledState";
  static constexpr std::string_view kCustomRulesKey = "rulesEngine_customRules";
  static constexpr std::string_view kMatchCountsKey = "rulesEngine_matchCounts";
  static constexpr std::string_view kStatsCollectionKey = "stats_collection_enabled";

  // --- Loading ---------------------------------------------------------------------------
  // The shipped provider file plus the newest supplementary file (an installed copy in an app
  // group container wins over the shipped one when it is newer).
  void loadBundledRules();
  // Replaces the providers with those of one provider file. Undecodable data changes nothing
  // and prints "Warning: Could not decode rules JSON".
  void load(std::string_view data);
  // Appends the providers of a supplementary file; undecodable data changes nothing.
  void loadSupplementary(std::string_view data);
  void loadRuleBundle(std::string_view clearURLsData,
                      std::optional<std::string_view> supplementaryData);
  // Checks a candidate pair before installation; the error names the reason
  // ("ClearURLs JSON could not be decoded", "Supplementary JSON could not be decoded",
  // "No providers compiled").
  [[nodiscard]] static Result<void> validateRuleBundle(
      std::string_view clearURLsData, std::optional<std::string_view> supplementaryData);

  // --- Catalog and persistence -------------------------------------------------------------
  const RuleCatalog& categories() const { return categories_; }
  void saveEnabledStates();
  void saveMatchCounts();
  void saveCustomRules();
  void resetMatchCounts();
  void reloadPersistedState();
  void addCustomRule(std::string_view pattern, std::string_view displayName,
                     RuleCategoryType category);
  void removeCustomRule(std::string_view id);
  std::optional<std::string> exportRules() const;
  // Applies category switches and custom rules from an export; undecodable data changes nothing
  // (the answer is false then).
  bool importRules(std::string_view data);
  void resetToDefaults();
  // The first category of `type`, or null.
  RuleCategory* category(RuleCategoryType type) const { return firstCategory_[index(type)]; }
  // The entry with this ID in the first category of `type`, or null.
  RuleEntry* entry(std::string_view ruleID, RuleCategoryType type) const;
  // Finds an entry by ID in any category.
  RuleEntry* findEntry(std::string_view ruleID) const;

  // --- Matching ------------------------------------------------------------------------------
  std::vector<const CompiledProvider*> matchingProviders(std::string_view url) const;
  // The same, into a caller's vector (cleared first), so a hot loop allocates nothing.
  void matchingProviders(std::string_view url, std::vector<const CompiledProvider*>& out) const;
  bool isException(std::string_view url, const CompiledProvider& provider) const;
  std::optional<std::string> extractRedirection(std::string_view url,
                                                const CompiledProvider& provider) const;
  std::string applyRawRules(std::string_view url, const CompiledProvider& provider) const;
  // The rule ID that strips parameter `name` for `provider`; the view lives as long as the load.
  std::optional<std::string_view> shouldStripParam(std::string_view name,
                                                   const CompiledProvider& provider) const;
  bool shouldStripParamBool(std::string_view name, const CompiledProvider& provider) const {
    return shouldStripParam(name, provider).has_value();
  }
  // The first enabled rule of `providers` (in their order, each provider's rules before its
  // referral rules) that strips `name`: the answer of calling shouldStripParam on each provider
  // in turn, found by walking only the index's candidates.
  struct ParamRuleMatch {
    std::string_view ruleID;
    const CompiledProvider* provider = nullptr;
    bool referral = false;
  };
  std::optional<ParamRuleMatch> firstStrippingRule(
      std::string_view name, const std::vector<const CompiledProvider*>& providers) const;

  // True when no rule can change `link` (whose percent-encoded query, as the URL parser splits
  // it, is `query`): no selected, non-excepted provider unwraps it or rewrites its path, and no
  // provider or fallback rule strips one of its query parameters. The answer of walking those
  // operations one by one, without building anything; the pipeline's own special cases are not
  // included.
  bool rulesLeaveUnchanged(std::string_view link, std::optional<std::string_view> query) const;

  std::optional<FallbackMatch> shouldStripParamFallback(std::string_view name) const;
  bool shouldStripParamFallbackBool(std::string_view name) const {
    return shouldStripParamFallback(name).has_value();
  }
  bool isCategoryEnabled(RuleCategoryType type) const;
  bool isRuleEnabled(std::string_view ruleID, RuleCategoryType type) const;
  // Counts a match in memory (saveMatchCounts writes it). Does nothing while statistics
  // collection is off; the switch is read from the store on construction and on
  // reloadPersistedState().
  void recordMatch(std::string_view ruleID, RuleCategoryType type);

  const std::vector<CompiledProvider>& compiledProviders() const { return compiledProviders_; }
  const std::vector<FallbackRule>& fallbackRules() const { return fallbackRules_; }
  const std::shared_ptr<PreferenceStore>& defaults() const { return defaults_; }
  MatchStrategy strategy() const { return strategy_; }
  const IndexStats& indexStats() const { return indexStats_; }

 private:
  // Literal sets every match of a pattern must meet (a match contains at least one member of
  // each set; lower-cased); empty when none is proven.
  using LiteralGate = std::vector<std::vector<std::string>>;
  struct ProviderSlots {
    std::uint32_t paramBegin = 0;      // first global id of the provider's "rules"
    std::uint32_t referralBegin = 0;   // first global id of its "referralMarketing"
    std::uint32_t exceptionBegin = 0;  // first id of its exceptions in the URL set
    std::vector<LiteralGate> redirectionGates;
    std::vector<LiteralGate> rawRuleGates;
  };
  // False only when `subject` certainly holds no match of the gated pattern.
  static bool mayMatch(const LiteralGate& gate, std::string_view subject);

  void postLoad();
  void rebuildCatalog();
  void rebuildFallbackRules();
  void applyPersistedState();
  void loadCustomRules();
  void removeCustomRules();
  void appendCustomRule(std::shared_ptr<RuleEntry> entry, RuleCategoryType into);
  void reindexCatalog();
  void rebuildIndex();
  void rebuildFallbackIndexIfNeeded() const;
  std::string normalForm(std::string_view url) const;
  // True when the normal form of `url` is `url` itself, decided without parsing it.
  static bool isPlainlyNormal(std::string_view url);
  // Candidate bits of the URL set for `url`; `normal` points at its normal form. Both live in a
  // per-thread memo until the next call on this thread.
  const std::vector<std::uint8_t>* urlCandidates(std::string_view url,
                                                 const std::string** normal) const;
  const std::vector<std::uint8_t>* paramCandidates(
      std::string_view name, const std::vector<std::uint32_t>** ids = nullptr) const;
  // The provider's position when it belongs to this engine's current load and is indexed.
  std::optional<std::size_t> providerIndex(const CompiledProvider& provider) const {
    const CompiledProvider* first = compiledProviders_.data();
    if (slots_.size() != compiledProviders_.size() || &provider < first ||
        &provider >= first + compiledProviders_.size()) {
      return std::nullopt;
    }
    return static_cast<std::size_t>(&provider - first);
  }

  std::shared_ptr<PreferenceStore> defaults_;
  MatchStrategy strategy_;
  RuleCatalog categories_;
  std::vector<CompiledProvider> compiledProviders_;
  std::vector<FallbackRule> fallbackRules_;
  bool statsCollectionEnabled_ = true;

  std::array<RuleCategory*, 8> firstCategory_{};
  std::array<std::map<std::string_view, RuleEntry*, std::less<>>, 8> entryIndex_;

  // Index of the current load; `generation_` keys the per-thread memo of the last subject.
  std::uint64_t generation_ = 0;
  std::vector<ProviderSlots> slots_;
  std::vector<std::uint32_t> paramOwner_;             // global parameter-rule id -> provider index
  std::unique_ptr<internal::PrefilterSet> urlSet_;    // URL patterns, then exceptions
  std::unique_ptr<internal::PrefilterSet> paramSet_;  // rules and referral rules
  mutable std::unique_ptr<internal::PrefilterSet> fallbackSet_;
  mutable std::vector<std::string> fallbackIndexedPatterns_;
  mutable std::uint64_t fallbackGeneration_ = 0;
  IndexStats indexStats_;
};

}  // namespace linkwash
