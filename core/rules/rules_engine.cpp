#include "core/rules/rules_engine.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <map>

#include "base/diagnostics.h"
#include "base/strings.h"
#include "core/rules/internal/match_index.h"
#include "core/rules/internal/prefilter_cache.h"
#include "platform/fs/files.h"
#include "platform/fs/paths.h"
#include "platform/regex/case_mapping.h"
#include "platform/resources/resource_bundle.h"
#include "platform/url/url_components.h"

namespace linkwash {
namespace {

constexpr std::array<std::string_view, 2> kAppGroups = {"group.com.morvellabs.linkwash",
                                                        "group.com.brisel.linkwash"};

std::uint64_t nextGeneration() {
  static std::atomic<std::uint64_t> counter{0};
  return ++counter;
}

// The last subject looked up on this thread, with its candidate bits, so that the pipeline's
// repeated questions about one link or one parameter name cost one index scan.
struct SubjectMemo {
  std::uint64_t generation = 0;
  std::string key;
  std::string normal;
  std::vector<std::uint8_t> bits;
  std::vector<std::uint32_t> ids;  // the positions of the non-zero bits, ascending
};

constexpr std::uint8_t kCertain = internal::PrefilterSet::kCertain;

std::optional<Json> readJsonPreference(const PreferenceStore& store, std::string_view key) {
  auto data = store.dataForKey(key);
  if (!data) return std::nullopt;
  return parseJson(std::string_view(reinterpret_cast<const char*>(data->data()), data->size()));
}

void writeJsonPreference(PreferenceStore& store, std::string_view key, const Json& json) {
  store.set(key, toBytes(writeJson(json)));
}

std::optional<Regex> compileCustomRule(std::string_view pattern) {
  return Regex::compile("^" + Regex::escapedPattern(pattern) + "$", RegexOptions::caseInsensitive);
}

}  // namespace

RulesEngine::RulesEngine(std::shared_ptr<PreferenceStore> defaults, MatchStrategy strategy)
    : defaults_(std::move(defaults)), strategy_(strategy) {
  if (defaults_) {
    auto stored = defaults_->object(kStatsCollectionKey);
    statsCollectionEnabled_ = !stored || defaults_->boolForKey(kStatsCollectionKey);
  }
}

RulesEngine::~RulesEngine() = default;

// ---- Loading ---------------------------------------------------------------------------------

void RulesEngine::loadBundledRules() {
  const ResourceBundle& bundle = ResourceBundle::cleanLinkResources();
  auto shipped = bundle.url("data.min", "json");
  std::optional<std::string> bytes = shipped ? files::readFile(*shipped) : std::nullopt;
  if (!bytes) {
    diagnostic("Warning: Could not load bundled rules");
    return;
  }
  // The newest supplementary file wins, so an installed copy beats the shipped one once newer.
  std::vector<std::filesystem::path> candidates;
  for (auto group : kAppGroups) {
    candidates.push_back(paths::groupContainer(group) / "linkwash-supplementary.json");
  }
  if (auto resource = bundle.url("linkwash-supplementary", "json")) candidates.push_back(*resource);
  std::optional<std::filesystem::path> newest;
  std::filesystem::file_time_type newestTime{};
  for (const auto& candidate : candidates) {
    std::error_code ec;
    const auto time = std::filesystem::last_write_time(candidate, ec);
    if (ec) continue;
    if (!newest || time > newestTime) {
      newest = candidate;
      newestTime = time;
    }
  }
  load(*bytes);
  if (newest) {
    if (auto supplementary = files::readFile(*newest)) loadSupplementary(*supplementary);
  }
}

void RulesEngine::load(std::string_view data) {
  auto providers = decodeProvidersFile(data);
  if (!providers) {
    diagnostic("Warning: Could not decode rules JSON");
    return;
  }
  std::vector<CompiledProvider> compiled;
  compiled.reserve(providers->size());
  for (auto& named : *providers) {
    if (auto provider = compileProvider(std::move(named.name), std::move(named.provider))) {
      compiled.push_back(std::move(*provider));
    }
  }
  compiledProviders_ = std::move(compiled);
  postLoad();
}

void RulesEngine::loadSupplementary(std::string_view data) {
  auto providers = decodeProvidersFile(data);
  if (!providers) return;
  for (auto& named : *providers) {
    if (auto provider = compileProvider(std::move(named.name), std::move(named.provider))) {
      compiledProviders_.push_back(std::move(*provider));
    }
  }
  postLoad();
}

void RulesEngine::loadRuleBundle(std::string_view clearURLsData,
                                 std::optional<std::string_view> supplementaryData) {
  load(clearURLsData);
  if (supplementaryData) loadSupplementary(*supplementaryData);
}

Result<void> RulesEngine::validateRuleBundle(std::string_view clearURLsData,
                                             std::optional<std::string_view> supplementaryData) {
  if (!decodeProvidersFile(clearURLsData)) return fail("ClearURLs JSON could not be decoded");
  if (supplementaryData && !decodeProvidersFile(*supplementaryData)) {
    return fail("Supplementary JSON could not be decoded");
  }
  RulesEngine scratch(PreferenceStore::standard(), MatchStrategy::plain);
  scratch.loadRuleBundle(clearURLsData, supplementaryData);
  if (scratch.compiledProviders_.empty()) return fail("No providers compiled");
  return {};
}

void RulesEngine::postLoad() {
  rebuildCatalog();
  rebuildFallbackRules();
  reindexCatalog();
  applyPersistedState();
  loadCustomRules();
  rebuildIndex();
}

// ---- Catalog -----------------------------------------------------------------------------------

void RulesEngine::rebuildCatalog() {
  std::array<std::vector<std::shared_ptr<RuleEntry>>, 8> entries;
  std::array<std::map<std::string, bool, std::less<>>, 8> seen;
  auto add = [&](RuleCategoryType type, std::string id, const std::string& pattern,
                 std::string displayName, RuleEntry::RuleSource source) {
    if (!seen[index(type)].emplace(id, true).second) return;
    entries[index(type)].push_back(std::make_shared<RuleEntry>(
        RuleEntry{std::move(id), pattern, std::move(displayName), type, source, true, 0}));
  };
  for (const auto& compiled : compiledProviders_) {
    const Provider& p = compiled.provider;
    for (const auto& rule : p.rules) {
      add(compiled.category, makeRuleID(compiled.category, rule), rule, compiled.name + ": " + rule,
          RuleEntry::RuleSource::clearURLs);
    }
    for (const auto& rule : p.referralMarketing) {
      add(RuleCategoryType::referralMarketing,
          makeRuleID(RuleCategoryType::referralMarketing, rule), rule, compiled.name + ": " + rule,
          RuleEntry::RuleSource::clearURLs);
    }
    for (const auto& pattern : p.redirections) {
      add(RuleCategoryType::redirectUnwrapping,
          makeRuleID(RuleCategoryType::redirectUnwrapping, pattern), pattern,
          compiled.name + ": redirect", RuleEntry::RuleSource::clearURLs);
    }
    for (const auto& pattern : p.rawRules) {
      add(compiled.category, makeRuleID(compiled.category, pattern), pattern,
          compiled.name + ": path rule", RuleEntry::RuleSource::clearURLs);
    }
  }
  add(RuleCategoryType::analytics, "Analytics:utm_*", "utm_*", "utm_* (all UTM parameters)",
      RuleEntry::RuleSource::fallback);
  for (auto name : kFallbackParams) {
    if (startsWith(name, "utm_")) continue;
    const RuleCategoryType type = fallbackCategory(name);
    add(type, makeRuleID(type, name), std::string(name), std::string(name),
        RuleEntry::RuleSource::fallback);
  }
  categories_.clear();
  for (RuleCategoryType type : kAllRuleCategoryTypes) {
    categories_.push_back(
        std::make_shared<RuleCategory>(type, true, std::move(entries[index(type)])));
  }
}

void RulesEngine::rebuildFallbackRules() {
  fallbackRules_.clear();
  if (auto utm = Regex::compile("^utm_.*$", RegexOptions::caseInsensitive)) {
    fallbackRules_.push_back(FallbackRule{std::move(*utm), "Analytics:utm_*",
                                          RuleCategoryType::analytics, "^utm_.*$", false});
  }
  for (auto name : kFallbackParams) {
    if (startsWith(name, "utm_")) continue;
    std::string text = "^" + Regex::escapedPattern(name) + "$";
    auto regex = Regex::compile(text, RegexOptions::caseInsensitive);
    if (!regex) continue;
    const RuleCategoryType type = fallbackCategory(name);
    fallbackRules_.push_back(
        FallbackRule{std::move(*regex), makeRuleID(type, name), type, std::move(text), false});
  }
}

void RulesEngine::reindexCatalog() {
  firstCategory_.fill(nullptr);
  for (auto& map : entryIndex_) map.clear();
  for (const auto& category : categories_) {
    const std::size_t i = index(category->type);
    if (firstCategory_[i] != nullptr) continue;
    firstCategory_[i] = category.get();
    for (const auto& entry : category->rules) entryIndex_[i].emplace(entry->id, entry.get());
  }
}

void RulesEngine::applyPersistedState() {
  if (!defaults_) return;
  if (auto states = readJsonPreference(*defaults_, kEnabledStateKey);
      states && states->is_object()) {
    for (const auto& category : categories_) {
      auto it = states->find("cat:" + category->id);
      if (it != states->end() && it->is_boolean()) category->isEnabled = it->get<bool>();
      for (const auto& entry : category->rules) {
        auto rule = states->find("rule:" + entry->id);
        if (rule != states->end() && rule->is_boolean()) entry->isEnabled = rule->get<bool>();
      }
    }
  }
  if (auto counts = readJsonPreference(*defaults_, kMatchCountsKey);
      counts && counts->is_object()) {
    for (const auto& category : categories_) {
      auto it = counts->find("cat:" + category->id);
      if (it != counts->end() && it->is_number_integer())
        category->matchCount = it->get<std::int64_t>();
      for (const auto& entry : category->rules) {
        auto rule = counts->find("rule:" + entry->id);
        if (rule != counts->end() && rule->is_number_integer()) {
          entry->matchCount = rule->get<std::int64_t>();
        }
      }
    }
  }
}

void RulesEngine::appendCustomRule(std::shared_ptr<RuleEntry> entry, RuleCategoryType into) {
  RuleCategory* target = category(into);
  if (target == nullptr) return;
  if (auto regex = compileCustomRule(entry->pattern)) {
    fallbackRules_.push_back(FallbackRule{std::move(*regex), entry->id, entry->category,
                                          "^" + Regex::escapedPattern(entry->pattern) + "$", true});
  }
  target->rules.push_back(std::move(entry));
}

void RulesEngine::loadCustomRules() {
  if (!defaults_) return;
  auto stored = readJsonPreference(*defaults_, kCustomRulesKey);
  if (!stored || !stored->is_array()) return;
  std::vector<RuleEntry> decoded;
  for (const auto& item : *stored) {
    auto entry = decodeRuleEntry(item);
    if (!entry) return;  // an undecodable list adds nothing
    decoded.push_back(std::move(*entry));
  }
  for (auto& entry : decoded) {
    const RuleCategoryType type = entry.category;
    appendCustomRule(std::make_shared<RuleEntry>(std::move(entry)), type);
  }
  reindexCatalog();
}

void RulesEngine::removeCustomRules() {
  for (const auto& category : categories_) {
    std::erase_if(category->rules,
                  [](const auto& entry) { return entry->source == RuleEntry::RuleSource::custom; });
  }
  std::erase_if(fallbackRules_, [](const FallbackRule& rule) { return rule.isCustom; });
  reindexCatalog();
}

RuleEntry* RulesEngine::entry(std::string_view ruleID, RuleCategoryType type) const {
  const auto& map = entryIndex_[index(type)];
  auto it = map.find(ruleID);
  return it == map.end() ? nullptr : it->second;
}

RuleEntry* RulesEngine::findEntry(std::string_view ruleID) const {
  for (const auto& category : categories_) {
    for (const auto& entry : category->rules) {
      if (entry->id == ruleID) return entry.get();
    }
  }
  return nullptr;
}

void RulesEngine::saveEnabledStates() {
  if (!defaults_) return;
  Json states = Json::object();
  std::map<std::string, bool> sorted;
  for (const auto& category : categories_) {
    sorted["cat:" + category->id] = category->isEnabled;
    for (const auto& entry : category->rules) sorted["rule:" + entry->id] = entry->isEnabled;
  }
  for (auto& [key, value] : sorted) states[key] = value;
  writeJsonPreference(*defaults_, kEnabledStateKey, states);
}

void RulesEngine::saveMatchCounts() {
  if (!defaults_) return;
  // A missing key reads back as 0, so zero counts need not be written: the map stays small
  // even with thousands of rules, which matters because it is saved after every clean.
  std::map<std::string, std::int64_t> sorted;
  for (const auto& category : categories_) {
    if (category->matchCount != 0) sorted["cat:" + category->id] = category->matchCount;
    for (const auto& entry : category->rules) {
      if (entry->matchCount != 0) sorted["rule:" + entry->id] = entry->matchCount;
    }
  }
  Json counts = Json::object();
  for (auto& [key, value] : sorted) counts[key] = value;
  writeJsonPreference(*defaults_, kMatchCountsKey, counts);
}

void RulesEngine::saveCustomRules() {
  if (!defaults_) return;
  Json list = Json::array();
  for (const auto& category : categories_) {
    for (const auto& entry : category->rules) {
      if (entry->source == RuleEntry::RuleSource::custom) list.push_back(encodeRuleEntry(*entry));
    }
  }
  writeJsonPreference(*defaults_, kCustomRulesKey, list);
}

void RulesEngine::resetMatchCounts() {
  for (const auto& category : categories_) {
    category->matchCount = 0;
    for (const auto& entry : category->rules) entry->matchCount = 0;
  }
  if (defaults_) defaults_->remove(kMatchCountsKey);
}

void RulesEngine::reloadPersistedState() {
  removeCustomRules();
  if (defaults_) {
    auto stored = defaults_->object(kStatsCollectionKey);
    statsCollectionEnabled_ = !stored || defaults_->boolForKey(kStatsCollectionKey);
  }
  applyPersistedState();
  loadCustomRules();
}

void RulesEngine::addCustomRule(std::string_view pattern, std::string_view displayName,
                                RuleCategoryType type) {
  auto entry = std::make_shared<RuleEntry>(RuleEntry{makeRuleID(type, pattern),
                                                     std::string(pattern), std::string(displayName),
                                                     type, RuleEntry::RuleSource::custom, true, 0});
  appendCustomRule(std::move(entry), type);
  reindexCatalog();
  saveCustomRules();
  saveEnabledStates();
}

void RulesEngine::removeCustomRule(std::string_view id) {
  for (const auto& category : categories_) {
    std::erase_if(category->rules, [&](const auto& entry) {
      return entry->source == RuleEntry::RuleSource::custom && entry->id == id;
    });
  }
  std::erase_if(fallbackRules_,
                [&](const FallbackRule& rule) { return rule.isCustom && rule.ruleID == id; });
  reindexCatalog();
  saveCustomRules();
}

std::optional<std::string> RulesEngine::exportRules() const {
  Json list = Json::array();
  for (const auto& category : categories_) list.push_back(encodeRuleCategory(*category));
  return writeJson(list);
}

bool RulesEngine::importRules(std::string_view data) {
  auto json = parseJson(data);
  if (!json) return false;
  auto imported = decodeRuleCategories(*json);
  if (!imported) return false;
  for (auto& incoming : *imported) {
    RuleCategory* target = category(incoming.type);
    if (target == nullptr) continue;
    target->isEnabled = incoming.isEnabled;
    for (auto& rule : incoming.rules) {
      if (rule->source != RuleEntry::RuleSource::custom) continue;
      const bool present = std::any_of(target->rules.begin(), target->rules.end(),
                                       [&](const auto& e) { return e->id == rule->id; });
      if (present) continue;
      rule->matchCount = 0;  // counts in an export describe another installation
      appendCustomRule(rule, incoming.type);
    }
  }
  reindexCatalog();
  saveCustomRules();
  saveEnabledStates();
  return true;
}

void RulesEngine::resetToDefaults() {
  for (const auto& category : categories_) {
    category->isEnabled = true;
    for (const auto& entry : category->rules) entry->isEnabled = true;
  }
  removeCustomRules();
  if (defaults_) {
    defaults_->remove(kEnabledStateKey);
    defaults_->remove(kCustomRulesKey);
  }
}

// ---- Index -------------------------------------------------------------------------------------

void RulesEngine::rebuildIndex() {
  generation_ = nextGeneration();
  slots_.clear();
  paramOwner_.clear();
  urlSet_.reset();
  paramSet_.reset();
  indexStats_ = {};
  if (strategy_ == MatchStrategy::plain) return;
  std::vector<std::string> urlPatterns, exceptionPatterns, paramPatterns;
  for (const auto& compiled : compiledProviders_) {
    ProviderSlots slot;
    urlPatterns.push_back(compiled.urlRegex.pattern());
    slot.exceptionBegin = static_cast<std::uint32_t>(exceptionPatterns.size());
    for (const auto& regex : compiled.exceptionRegexes)
      exceptionPatterns.push_back(regex.pattern());
    slot.paramBegin = static_cast<std::uint32_t>(paramPatterns.size());
    for (const auto& rule : compiled.paramRegexes) paramPatterns.push_back(rule.regex.pattern());
    slot.referralBegin = static_cast<std::uint32_t>(paramPatterns.size());
    for (const auto& rule : compiled.referralParamRegexes) {
      paramPatterns.push_back(rule.regex.pattern());
    }
    paramOwner_.resize(paramPatterns.size(), static_cast<std::uint32_t>(slots_.size()));
    auto gate = [](const Regex& regex) {
      LiteralGate sets = internal::requiredLiteralSets(regex.pattern());
      for (auto& set : sets) {
        for (auto& literal : set) literal = asciiLower(literal);
      }
      return sets;
    };
    for (const auto& rule : compiled.redirectionRegexes) {
      slot.redirectionGates.push_back(gate(rule.regex));
    }
    for (const auto& rule : compiled.rawRuleRegexes) slot.rawRuleGates.push_back(gate(rule.regex));
    slots_.push_back(std::move(slot));
  }
  // URL patterns and exceptions see the same subject (the normal form), so one scan serves both.
  const auto exceptionOffset = static_cast<std::uint32_t>(urlPatterns.size());
  for (auto& slot : slots_) slot.exceptionBegin += exceptionOffset;
  urlPatterns.insert(urlPatterns.end(), exceptionPatterns.begin(), exceptionPatterns.end());

  bool fromCache = true;
  auto load = [&](const std::vector<std::string>& patterns, bool literalHash, bool exact) {
    auto cached = internal::loadCachedPrefilter(patterns, literalHash, exact);
    if (cached) return cached;
    fromCache = false;
    auto built = internal::PrefilterSet::build(patterns, literalHash, exact);
    if (built) internal::storeCachedPrefilter(patterns, literalHash, exact, *built);
    return built;
  };
  // Whole URL patterns and exceptions cost Vectorscan several times longer to compile than
  // their literals, which every first start after a rules update would pay; parameter names are
  // short, and there exact answers save the most ICU calls.
  urlSet_ = load(urlPatterns, false, false);
  paramSet_ = load(paramPatterns, true, true);
  indexStats_.fromCache = fromCache;
  for (const auto* set : {urlSet_.get(), paramSet_.get()}) {
    if (set == nullptr) continue;
    indexStats_.literalPatterns += set->literalCount();
    indexStats_.prefilterPatterns += set->prefilterCount();
    indexStats_.alwaysCandidatePatterns += set->alwaysCount();
  }
}

void RulesEngine::rebuildFallbackIndexIfNeeded() const {
  // Custom rules come and go on every reload; only rebuild when the pattern list really changed.
  const bool same =
      fallbackSet_ && fallbackIndexedPatterns_.size() == fallbackRules_.size() &&
      std::equal(fallbackRules_.begin(), fallbackRules_.end(), fallbackIndexedPatterns_.begin(),
                 [](const FallbackRule& r, const std::string& p) { return r.regexText == p; });
  if (same) return;
  fallbackIndexedPatterns_.clear();
  for (const auto& rule : fallbackRules_) fallbackIndexedPatterns_.push_back(rule.regexText);
  fallbackSet_ = internal::PrefilterSet::build(fallbackIndexedPatterns_, true);
  fallbackGeneration_ = nextGeneration();
}

bool RulesEngine::isPlainlyNormal(std::string_view url) {
  // Only the authority can change (credentials dropped, host lower-cased, port rewritten), and it
  // ends at the first "/", "?" or "#". Without "@", ":", "%", capitals or bytes outside ASCII in
  // it there is nothing to change, whatever else the parser makes of the text.
  const std::size_t scheme = url.find("://");
  if (scheme == std::string_view::npos || scheme == 0) return false;
  // Only a valid scheme makes this "://" the start of the authority ("//Host/?u=http://a" is a
  // reference without a scheme whose authority comes first).
  auto isAlpha = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
  if (!isAlpha(url[0]) ||
      !std::all_of(url.begin(), url.begin() + static_cast<std::ptrdiff_t>(scheme), [&](char c) {
        return isAlpha(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
      })) {
    return false;
  }
  const std::string_view rest = url.substr(scheme + 3);
  const std::string_view authority = rest.substr(0, rest.find_first_of("/?#"));
  return std::none_of(authority.begin(), authority.end(), [](char c) {
    return c == '@' || c == ':' || c == '%' || (c >= 'A' && c <= 'Z') || (c & 0x80) != 0;
  });
}

std::string RulesEngine::normalForm(std::string_view url) const {
  auto components = URLComponents::parse(url);
  if (!components || !components->percentEncodedHost()) return std::string(url);
  auto host = components->host();
  if (!host) return std::string(url);
  // Most links are already in normal form; recomposing them would only copy the text.
  const auto& port = components->portText();
  const bool canonicalPort = !port || (!port->empty() && (*port)[0] != '0');
  if (!components->percentEncodedUser() && !components->percentEncodedPassword() && canonicalPort &&
      *components->percentEncodedHost() == *host &&
      std::none_of(host->begin(), host->end(),
                   [](char c) { return (c >= 'A' && c <= 'Z') || (c & 0x80) != 0; })) {
    return std::string(url);
  }
  components->setUser(std::nullopt);
  components->setPassword(std::nullopt);
  components->setHost(unicodeLowercase(*host));
  auto recomposed = components->string();
  return recomposed ? std::move(*recomposed) : std::string(url);
}

const std::vector<std::uint8_t>* RulesEngine::urlCandidates(std::string_view url,
                                                            const std::string** normal) const {
  thread_local SubjectMemo memo;
  thread_local bool keyIsNormal = false;
  if (memo.generation != generation_ || memo.key != url) {
    memo.generation = generation_;
    memo.key.assign(url);
    keyIsNormal = isPlainlyNormal(url);
    if (!keyIsNormal) memo.normal = normalForm(url);
    if (urlSet_) urlSet_->candidates(keyIsNormal ? memo.key : memo.normal, memo.bits);
  }
  *normal = keyIsNormal ? &memo.key : &memo.normal;
  return urlSet_ ? &memo.bits : nullptr;
}

const std::vector<std::uint8_t>* RulesEngine::paramCandidates(
    std::string_view name, const std::vector<std::uint32_t>** ids) const {
  if (!paramSet_) return nullptr;
  thread_local SubjectMemo memo;
  if (memo.generation != generation_ || memo.key != name) {
    memo.generation = generation_;
    memo.key.assign(name);
    paramSet_->candidates(name, memo.bits, &memo.ids);
  }
  if (ids != nullptr) *ids = &memo.ids;
  return &memo.bits;
}

// ---- Matching ----------------------------------------------------------------------------------

std::vector<const CompiledProvider*> RulesEngine::matchingProviders(std::string_view url) const {
  std::vector<const CompiledProvider*> out;
  matchingProviders(url, out);
  return out;
}

void RulesEngine::matchingProviders(std::string_view url,
                                    std::vector<const CompiledProvider*>& out) const {
  out.clear();
  thread_local std::string plainNormal;
  const std::string* normalPointer = &plainNormal;
  const std::vector<std::uint8_t>* bits = nullptr;
  if (urlSet_) {
    bits = urlCandidates(url, &normalPointer);
  } else {
    plainNormal = normalForm(url);
  }
  const std::string& normal = *normalPointer;
  for (std::size_t i = 0; i < compiledProviders_.size(); ++i) {
    if (bits != nullptr && !(*bits)[i]) continue;
    const CompiledProvider& provider = compiledProviders_[i];
    const RuleCategory* cat = category(provider.category);
    if (cat != nullptr && !cat->isEnabled) continue;
    if ((bits != nullptr && (*bits)[i] == kCertain) || provider.urlRegex.search(normal)) {
      out.push_back(&provider);
    }
  }
}

bool RulesEngine::isException(std::string_view url, const CompiledProvider& provider) const {
  if (provider.exceptionRegexes.empty()) return false;
  thread_local std::string plainNormal;
  const std::string* normalPointer = &plainNormal;
  const auto slot = providerIndex(provider);
  const std::vector<std::uint8_t>* bits = nullptr;
  if (urlSet_ && slot) {
    bits = urlCandidates(url, &normalPointer);
  } else {
    plainNormal = normalForm(url);
  }
  const std::string& normal = *normalPointer;
  for (std::size_t k = 0; k < provider.exceptionRegexes.size(); ++k) {
    if (bits != nullptr) {
      const std::uint8_t bit = (*bits)[slots_[*slot].exceptionBegin + k];
      if (bit == 0) continue;
      if (bit == kCertain) return true;
    }
    if (provider.exceptionRegexes[k].search(normal)) return true;
  }
  return false;
}

bool RulesEngine::mayMatch(const LiteralGate& gate, std::string_view subject) {
  if (gate.empty()) return true;
  // ICU folds some characters outside ASCII onto ASCII letters (the Kelvin sign onto "k"), so
  // only ASCII text can be ruled out by an ASCII comparison.
  if (std::any_of(subject.begin(), subject.end(), [](char c) { return (c & 0x80) != 0; })) {
    return true;
  }
  auto same = [](char a, char b) {
    return (a >= 'A' && a <= 'Z' ? static_cast<char>(a + 32) : a) == b;
  };
  auto contains = [&](const std::string& literal) {
    return std::search(subject.begin(), subject.end(), literal.begin(), literal.end(), same) !=
           subject.end();
  };
  return std::all_of(gate.begin(), gate.end(), [&](const std::vector<std::string>& set) {
    return std::any_of(set.begin(), set.end(), contains);
  });
}

std::optional<std::string> RulesEngine::extractRedirection(std::string_view url,
                                                           const CompiledProvider& provider) const {
  if (!isCategoryEnabled(RuleCategoryType::redirectUnwrapping)) return std::nullopt;
  const auto slot = providerIndex(provider);
  for (std::size_t k = 0; k < provider.redirectionRegexes.size(); ++k) {
    const auto& redirection = provider.redirectionRegexes[k];
    if (slot && !mayMatch(slots_[*slot].redirectionGates[k], url)) continue;
    if (redirection.regex.captureGroupCount() < 1) continue;
    auto match = redirection.regex.firstMatch(url);
    if (!match || match->ranges.size() < 2 || !match->ranges[1]) continue;
    const std::string_view captured = *match->group(url, 1);
    auto decoded = percentDecode(captured);
    std::string target = decoded ? std::move(*decoded) : std::string(captured);
    if (startsWithAsciiI(target, "http://") || startsWithAsciiI(target, "https://")) return target;
  }
  return std::nullopt;
}

std::string RulesEngine::applyRawRules(std::string_view url,
                                       const CompiledProvider& provider) const {
  std::string current(url);
  const auto slot = providerIndex(provider);
  for (std::size_t k = 0; k < provider.rawRuleRegexes.size(); ++k) {
    if (slot && !mayMatch(slots_[*slot].rawRuleGates[k], current)) continue;
    current = provider.rawRuleRegexes[k].regex.replaceAll(current, "");
  }
  return current;
}

std::optional<std::string_view> RulesEngine::shouldStripParam(
    std::string_view name, const CompiledProvider& provider) const {
  const auto slot = providerIndex(provider);
  const std::vector<std::uint8_t>* bits = slot ? paramCandidates(name) : nullptr;
  for (std::size_t k = 0; k < provider.paramRegexes.size(); ++k) {
    if (bits != nullptr && !(*bits)[slots_[*slot].paramBegin + k]) continue;
    const PatternRegex& rule = provider.paramRegexes[k];
    if (!isRuleEnabled(rule.ruleID, provider.category)) continue;
    if ((bits != nullptr && (*bits)[slots_[*slot].paramBegin + k] == kCertain) ||
        rule.regex.search(name)) {
      return std::string_view(rule.ruleID);
    }
  }
  for (std::size_t k = 0; k < provider.referralParamRegexes.size(); ++k) {
    if (bits != nullptr && !(*bits)[slots_[*slot].referralBegin + k]) continue;
    const PatternRegex& rule = provider.referralParamRegexes[k];
    if (!isRuleEnabled(rule.ruleID, RuleCategoryType::referralMarketing)) continue;
    if ((bits != nullptr && (*bits)[slots_[*slot].referralBegin + k] == kCertain) ||
        rule.regex.search(name)) {
      return std::string_view(rule.ruleID);
    }
  }
  return std::nullopt;
}

std::optional<RulesEngine::ParamRuleMatch> RulesEngine::firstStrippingRule(
    std::string_view name, const std::vector<const CompiledProvider*>& providers) const {
  auto plain = [&]() -> std::optional<ParamRuleMatch> {
    for (const CompiledProvider* provider : providers) {
      if (auto id = shouldStripParam(name, *provider)) {
        return ParamRuleMatch{*id, provider, startsWith(*id, "Referral Marketing:")};
      }
    }
    return std::nullopt;
  };
  if (!paramSet_ || paramOwner_.empty()) return plain();
  // Which providers take part, by index; a provider from elsewhere means the slow path.
  thread_local std::vector<std::uint8_t> active;
  active.assign(compiledProviders_.size(), 0);
  for (const CompiledProvider* provider : providers) {
    auto index = providerIndex(*provider);
    if (!index) return plain();
    active[*index] = 1;
  }
  const std::vector<std::uint32_t>* ids = nullptr;
  const std::vector<std::uint8_t>& bits = *paramCandidates(name, &ids);
  // Global ids run provider by provider, each provider's rules before its referral rules: the
  // order in which the per-provider walk would try them.
  for (std::uint32_t id : *ids) {
    const std::uint32_t owner = paramOwner_[id];
    if (!active[owner]) continue;
    const CompiledProvider& provider = compiledProviders_[owner];
    const ProviderSlots& slot = slots_[owner];
    const bool referral = id >= slot.referralBegin;
    const PatternRegex& rule = referral ? provider.referralParamRegexes[id - slot.referralBegin]
                                        : provider.paramRegexes[id - slot.paramBegin];
    const RuleCategoryType type =
        referral ? RuleCategoryType::referralMarketing : provider.category;
    if (!isRuleEnabled(rule.ruleID, type)) continue;
    if (bits[id] == kCertain || rule.regex.search(name)) {
      return ParamRuleMatch{rule.ruleID, &provider, referral};
    }
  }
  return std::nullopt;
}

bool RulesEngine::rulesLeaveUnchanged(std::string_view link,
                                      std::optional<std::string_view> query) const {
  thread_local std::vector<const CompiledProvider*> matched, providers;
  matchingProviders(link, matched);
  providers.clear();
  for (const CompiledProvider* provider : matched) {
    if (!isException(link, *provider)) providers.push_back(provider);
  }
  // Any change at all answers the question, so the cheap checks go first: parameter names, then
  // path rules and wrappers, which ICU decides.
  if (query) {
    thread_local std::string decoded;
    std::string_view rest = *query;
    for (bool last = false; !last;) {
      const std::size_t amp = rest.find('&');
      last = amp == std::string_view::npos;
      const std::string_view segment = rest.substr(0, amp);
      std::string_view name = segment.substr(0, segment.find('='));
      if (name.find('%') != std::string_view::npos) {
        // Parameters are matched by their decoded name (as written when it does not decode).
        auto text = percentDecode(name);
        decoded.assign(text ? std::string_view(*text) : name);
        name = decoded;
      }
      if (firstStrippingRule(name, providers) || shouldStripParamFallback(name)) return false;
      if (!last) rest.remove_prefix(amp + 1);
    }
  }
  for (const CompiledProvider* provider : providers) {
    // None changing the link means each saw the link itself, as the chained rewrite would.
    if (!provider->rawRuleRegexes.empty() && applyRawRules(link, *provider) != link) return false;
    if (!provider->redirectionRegexes.empty() && extractRedirection(link, *provider)) return false;
  }
  return true;
}

std::optional<FallbackMatch> RulesEngine::shouldStripParamFallback(std::string_view name) const {
  const std::vector<std::uint8_t>* bits = nullptr;
  thread_local SubjectMemo memo;
  if (strategy_ == MatchStrategy::indexed) {
    rebuildFallbackIndexIfNeeded();
    if (fallbackSet_) {
      if (memo.generation != fallbackGeneration_ || memo.key != name) {
        memo.generation = fallbackGeneration_;
        memo.key.assign(name);
        fallbackSet_->candidates(name, memo.bits);
      }
      bits = &memo.bits;
    }
  }
  for (std::size_t k = 0; k < fallbackRules_.size(); ++k) {
    if (bits != nullptr && !(*bits)[k]) continue;
    const FallbackRule& rule = fallbackRules_[k];
    if (!isCategoryEnabled(rule.category) || !isRuleEnabled(rule.ruleID, rule.category)) continue;
    if ((bits != nullptr && (*bits)[k] == kCertain) || rule.regex.search(name)) {
      return FallbackMatch{rule.ruleID, rule.category};
    }
  }
  return std::nullopt;
}

bool RulesEngine::isCategoryEnabled(RuleCategoryType type) const {
  const RuleCategory* cat = category(type);
  return cat == nullptr || cat->isEnabled;
}

bool RulesEngine::isRuleEnabled(std::string_view ruleID, RuleCategoryType type) const {
  const RuleCategory* cat = category(type);
  if (cat == nullptr) return true;
  if (!cat->isEnabled) return false;
  const RuleEntry* found = entry(ruleID, type);
  return found == nullptr || found->isEnabled;
}

void RulesEngine::recordMatch(std::string_view ruleID, RuleCategoryType type) {
  if (!statsCollectionEnabled_) return;
  RuleCategory* cat = category(type);
  if (cat == nullptr) return;
  ++cat->matchCount;
  if (RuleEntry* found = entry(ruleID, type)) ++found->matchCount;
}

}  // namespace linkwash
