#include "core/rules/internal/match_index.h"

#include <algorithm>
#include <cstring>

#include <hs/hs.h>

#include "base/strings.h"
#include "platform/regex/case_mapping.h"
#include "platform/regex/regex.h"

namespace linkwash::internal {
namespace {

constexpr unsigned kFlags =
    HS_FLAG_CASELESS | HS_FLAG_PREFILTER | HS_FLAG_SINGLEMATCH | HS_FLAG_ALLOWEMPTY;
constexpr unsigned kLiteralFlags = HS_FLAG_CASELESS | HS_FLAG_SINGLEMATCH;
constexpr unsigned kExactFlags = HS_FLAG_CASELESS | HS_FLAG_SINGLEMATCH | HS_FLAG_ALLOWEMPTY;
constexpr std::string_view kMagic = "LWPF4";

bool isMeta(char c) {
  switch (c) {
    case '\\':
    case '^':
    case '$':
    case '.':
    case '|':
    case '?':
    case '*':
    case '+':
    case '(':
    case ')':
    case '[':
    case ']':
    case '{':
    case '}':
      return true;
    default:
      return false;
  }
}

// Escapes that mean the same thing to both engines on printable-ASCII subjects.
bool isPortableEscape(char c) {
  if (std::strchr("dDwWsSbB", c) != nullptr) return true;
  // An escaped punctuation character is that character in both engines.
  return c >= 0x21 && c <= 0x7E && !std::isalnum(static_cast<unsigned char>(c));
}

int onMatch(unsigned int id, unsigned long long, unsigned long long, unsigned int, void* context) {
  auto* hits = static_cast<std::vector<std::uint32_t>*>(context);
  hits->push_back(id);
  return 0;
}

void appendU32(std::string& out, std::uint32_t value) {
  out.append(reinterpret_cast<const char*>(&value), sizeof value);
}

bool readU32(std::string_view& in, std::uint32_t& value) {
  if (in.size() < sizeof value) return false;
  std::memcpy(&value, in.data(), sizeof value);
  in.remove_prefix(sizeof value);
  return true;
}

}  // namespace

bool hasPortableSyntax(std::string_view p) {
  if (!isPrintableAscii(p)) return false;
  bool inClass = false;
  for (std::size_t i = 0; i < p.size(); ++i) {
    const char c = p[i];
    if (c == '\\') {
      if (i + 1 >= p.size() || !isPortableEscape(p[i + 1])) return false;
      ++i;
      continue;
    }
    if (inClass) {
      // ICU reads "[" inside a class as a nested set and "&&" / "--" as set operations.
      if (c == '[') return false;
      if ((c == '&' || c == '-') && i + 1 < p.size() && p[i + 1] == c) return false;
      if (c == ']') inClass = false;
      continue;
    }
    if (c == '[') {
      inClass = true;
      std::size_t next = i + 1;
      if (next < p.size() && p[next] == '^') ++next;
      // A leading "]" or ":" reads differently in the two engines.
      if (next < p.size() && (p[next] == ']' || p[next] == ':')) return false;
      i = next - 1;
      continue;
    }
    if (c == '(' && i + 1 < p.size() && p[i + 1] == '?') {
      // Only plain non-capturing groups; flags, comments, lookaround and named groups differ.
      if (i + 2 >= p.size() || p[i + 2] != ':') return false;
    }
  }
  return !inClass;
}

namespace {

// A literal every web link carries says nothing about which rule might match.
bool isWeakLiteral(std::string_view literal) {
  static constexpr std::string_view kEveryLink = "https://www.";
  return asciiLower(kEveryLink).find(asciiLower(literal)) != std::string::npos ||
         asciiLower("http://www.").find(asciiLower(literal)) != std::string::npos;
}

// Ranks a literal set: the shortest member decides how selective the set is.
std::size_t strength(const std::vector<std::string>& set) {
  std::size_t shortest = SIZE_MAX;
  for (const auto& literal : set) shortest = std::min(shortest, literal.size());
  return set.empty() ? 0 : shortest;
}

// Index of the character after the group or class that starts at `i`; npos when unbalanced.
std::size_t skipGroup(std::string_view p, std::size_t i) {
  const bool isClass = p[i] == '[';
  int depth = 0;
  bool inClass = false;
  for (; i < p.size(); ++i) {
    if (p[i] == '\\') {
      ++i;
      continue;
    }
    if (inClass) {
      if (p[i] == ']') {
        inClass = false;
        if (isClass) return i + 1;
      }
      continue;
    }
    if (p[i] == '[') {
      inClass = true;
      // A "]" or "^]" right after "[" is a member, not the end.
      if (i + 1 < p.size() && p[i + 1] == '^') ++i;
      if (i + 1 < p.size() && p[i + 1] == ']') ++i;
    } else if (p[i] == '(') {
      ++depth;
    } else if (p[i] == ')' && --depth == 0) {
      return i + 1;
    }
  }
  return std::string_view::npos;
}

// Splits at the "|" that stand outside every group and class.
std::vector<std::string_view> topLevelAlternatives(std::string_view p) {
  std::vector<std::string_view> out;
  std::size_t start = 0;
  for (std::size_t i = 0; i < p.size();) {
    if (p[i] == '\\') {
      i += 2;
    } else if (p[i] == '(' || p[i] == '[') {
      const std::size_t next = skipGroup(p, i);
      if (next == std::string_view::npos) return {};
      i = next;
    } else if (p[i] == '|') {
      out.push_back(p.substr(start, i - start));
      start = ++i;
    } else {
      ++i;
    }
  }
  out.push_back(p.substr(start));
  return out;
}

std::optional<std::vector<std::string>> literalsOf(std::string_view p, std::size_t minimum,
                                                   int depth);

// The best literal set of one concatenation (no top-level "|").
// With `all`, every set found is also kept there: each one is required on its own.
std::optional<std::vector<std::string>> literalsOfSequence(
    std::string_view p, std::size_t minimum, int depth,
    std::vector<std::vector<std::string>>* all = nullptr) {
  std::vector<std::string> best;
  std::string run;
  auto consider = [&](std::vector<std::string> set) {
    if (set.empty() || strength(set) < minimum) return;
    for (const auto& literal : set) {
      if (isWeakLiteral(literal)) return;
    }
    if (all != nullptr) all->push_back(set);
    // Later factors win ties: host names come after the scheme.
    if (strength(set) >= strength(best)) best = std::move(set);
  };
  auto endRun = [&] {
    if (!run.empty()) consider({run});
    run.clear();
  };
  auto quantifierAt = [&](std::size_t i) -> char {
    return i < p.size() && (p[i] == '?' || p[i] == '*' || p[i] == '+' || p[i] == '{') ? p[i] : '\0';
  };
  for (std::size_t i = 0; i < p.size();) {
    const char c = p[i];
    if (c == '(' || c == '[') {
      endRun();
      const std::size_t next = skipGroup(p, i);
      if (next == std::string_view::npos) return std::nullopt;
      const char quantifier = quantifierAt(next);
      // A group that must occur at least once contributes the literals of its alternatives.
      if (c == '(' && (quantifier == '\0' || quantifier == '+')) {
        std::string_view inner = p.substr(i + 1, next - i - 2);
        if (startsWith(inner, "?:")) inner.remove_prefix(2);
        if (auto set = literalsOf(inner, minimum, depth + 1)) consider(std::move(*set));
      }
      i = next;
      continue;
    }
    if (c == '?' || c == '*' || c == '+' || c == '{') {
      endRun();
      if (c == '{') {
        const std::size_t close = p.find('}', i);
        if (close == std::string_view::npos) return std::nullopt;
        i = close + 1;
      } else {
        ++i;
      }
      if (i < p.size() && (p[i] == '?' || p[i] == '+')) ++i;  // lazy or possessive
      continue;
    }
    std::optional<char> literal;
    std::size_t width = 1;
    if (c == '\\') {
      if (i + 1 >= p.size()) return std::nullopt;
      width = 2;
      if (!std::isalnum(static_cast<unsigned char>(p[i + 1]))) literal = p[i + 1];
    } else if (c != '^' && c != '$' && c != '.' && c != ')' && c != '|') {
      literal = c;
    }
    // A quantified character may be absent or repeated: it cannot be part of a run.
    if (!literal || quantifierAt(i + width) != '\0') {
      endRun();
      i += width;
      continue;
    }
    run += *literal;
    i += width;
  }
  endRun();
  if (best.empty()) return std::nullopt;
  return best;
}

std::optional<std::vector<std::string>> literalsOf(std::string_view p, std::size_t minimum,
                                                   int depth) {
  if (depth > 8) return std::nullopt;
  const auto alternatives = topLevelAlternatives(p);
  if (alternatives.empty()) return std::nullopt;
  if (alternatives.size() == 1) return literalsOfSequence(p, minimum, depth);
  // Every alternative must bring its own literals, or a match could avoid them all.
  std::vector<std::string> all;
  for (auto alternative : alternatives) {
    auto set = literalsOfSequence(alternative, minimum, depth);
    if (!set) return std::nullopt;
    all.insert(all.end(), set->begin(), set->end());
  }
  return all;
}

}  // namespace

std::optional<std::vector<std::string>> requiredLiterals(std::string_view pattern,
                                                         std::size_t minimum) {
  if (!hasPortableSyntax(pattern)) return std::nullopt;
  return literalsOf(pattern, minimum, 0);
}

std::vector<std::vector<std::string>> requiredLiteralSets(std::string_view pattern,
                                                          std::size_t minimum) {
  if (!hasPortableSyntax(pattern)) return {};
  if (topLevelAlternatives(pattern).size() != 1) {
    auto best = literalsOf(pattern, minimum, 0);
    return best ? std::vector<std::vector<std::string>>{std::move(*best)}
                : std::vector<std::vector<std::string>>{};
  }
  std::vector<std::vector<std::string>> all;
  if (!literalsOfSequence(pattern, minimum, 0, &all)) return {};
  return all;
}

bool matchesEverything(std::string_view pattern) {
  return pattern.empty() || pattern == ".*" || pattern == ".*?";
}

bool isUnicodeSensitive(std::string_view p) {
  for (std::size_t i = 0; i + 1 < p.size(); ++i) {
    if (p[i] != '\\') continue;
    if (std::strchr("wWsSdDbB", p[i + 1]) != nullptr) return true;
    ++i;
  }
  return false;
}

std::optional<std::string_view> anchoredLiteral(std::string_view p) {
  if (p.size() < 3 || p.front() != '^' || p.back() != '$') return std::nullopt;
  const std::string_view body = p.substr(1, p.size() - 2);
  if (!isPrintableAscii(body)) return std::nullopt;
  if (std::any_of(body.begin(), body.end(), isMeta)) return std::nullopt;
  return body;
}

std::size_t PrefilterSet::CaseInsensitiveHash::operator()(std::string_view text) const noexcept {
  std::size_t h = 1469598103934665603ull;
  for (char c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
    h = (h ^ static_cast<unsigned char>(c)) * 1099511628211ull;
  }
  return h;
}

bool PrefilterSet::CaseInsensitiveEqual::operator()(std::string_view a,
                                                    std::string_view b) const noexcept {
  return asciiIEquals(a, b);
}

PrefilterSet::PrefilterSet() = default;

PrefilterSet::~PrefilterSet() {
  if (scratch_ != nullptr) hs_free_scratch(scratch_);
  if (db_ != nullptr) hs_free_database(db_);
}

void PrefilterSet::classifyLiterals(const std::vector<std::string>& patterns, bool literalHash,
                                    std::vector<bool>& taken) {
  count_ = patterns.size();
  taken.assign(patterns.size(), false);
  for (std::uint32_t i = 0; i < patterns.size(); ++i) {
    if (matchesEverything(patterns[i])) {
      everything_.push_back(i);
      taken[i] = true;
    }
  }
  if (!literalHash) return;
  for (std::uint32_t i = 0; i < patterns.size(); ++i) {
    if (taken[i]) continue;
    if (auto literal = anchoredLiteral(patterns[i])) {
      literals_[std::string(*literal)].push_back(i);
      taken[i] = true;
      ++literalCount_;
    }
  }
}

bool PrefilterSet::compileDatabase(const std::vector<std::string>& patterns,
                                   std::vector<std::uint32_t> ids, bool exactMode) {
  // Each pattern is first offered whole, in exact mode: on printable-ASCII subjects Vectorscan
  // then decides it exactly as ICU would, and ICU is never asked. A pattern Vectorscan refuses in
  // exact mode is searched through its required literal when it has one, or in prefilter mode.
  struct Expression {
    std::string text;
    unsigned flags;
  };
  auto fallbackExpressions = [&](std::uint32_t pattern) {
    std::vector<Expression> out;
    if (auto literals = requiredLiterals(patterns[pattern])) {
      for (const auto& literal : *literals) {
        out.push_back({Regex::escapedPattern(literal), kLiteralFlags});
      }
    } else {
      out.push_back({patterns[pattern], kFlags});
    }
    return out;
  };
  std::vector<std::vector<Expression>> perPattern(ids.size());
  std::vector<std::uint8_t> exact(ids.size(), exactMode ? 1 : 0);
  for (std::uint32_t k = 0; k < ids.size(); ++k) {
    if (exactMode) {
      perPattern[k].push_back({patterns[ids[k]], kExactFlags});
    } else {
      perPattern[k] = fallbackExpressions(ids[k]);
    }
  }
  // Vectorscan refuses some expressions; demote each offender (exact, then prefilter, then
  // always a candidate) and retry, so one odd rule does not cost the index for all the others.
  while (!ids.empty()) {
    std::vector<const char*> expressions;
    std::vector<unsigned> flags, hsIds, owner;
    for (std::size_t k = 0; k < ids.size(); ++k) {
      for (const auto& expression : perPattern[k]) {
        expressions.push_back(expression.text.c_str());
        flags.push_back(expression.flags);
        hsIds.push_back(static_cast<unsigned>(k));
        owner.push_back(static_cast<unsigned>(k));
      }
    }
    hs_database_t* db = nullptr;
    hs_compile_error_t* error = nullptr;
    const hs_error_t rc = hs_compile_multi(expressions.data(), flags.data(), hsIds.data(),
                                           static_cast<unsigned>(expressions.size()), HS_MODE_BLOCK,
                                           nullptr, &db, &error);
    if (rc == HS_SUCCESS) {
      db_ = db;
      dbIds_ = std::move(ids);
      exact_ = std::move(exact);
      return hs_alloc_scratch(db_, &scratch_) == HS_SUCCESS;
    }
    const int badExpression = error != nullptr ? error->expression : -1;
    hs_free_compile_error(error);
    if (badExpression < 0 || static_cast<std::size_t>(badExpression) >= owner.size()) {
      for (auto id : ids) always_.push_back(id);
      return true;
    }
    const std::size_t bad = owner[static_cast<std::size_t>(badExpression)];
    if (exact[bad]) {
      exact[bad] = 0;
      perPattern[bad] = fallbackExpressions(ids[bad]);
      continue;
    }
    always_.push_back(ids[bad]);
    ids.erase(ids.begin() + static_cast<std::ptrdiff_t>(bad));
    exact.erase(exact.begin() + static_cast<std::ptrdiff_t>(bad));
    perPattern.erase(perPattern.begin() + static_cast<std::ptrdiff_t>(bad));
  }
  return true;
}

std::unique_ptr<PrefilterSet> PrefilterSet::build(const std::vector<std::string>& patterns,
                                                  bool literalHash, bool exact) {
  auto set = std::make_unique<PrefilterSet>();
  std::vector<bool> taken;
  set->classifyLiterals(patterns, literalHash, taken);
  std::vector<std::uint32_t> ids;
  for (std::uint32_t i = 0; i < patterns.size(); ++i) {
    if (taken[i]) continue;
    if (hasPortableSyntax(patterns[i])) {
      ids.push_back(i);
    } else {
      set->always_.push_back(i);
    }
  }
  if (!set->compileDatabase(patterns, std::move(ids), exact)) return nullptr;
  std::sort(set->always_.begin(), set->always_.end());
  set->findUnicodeSensitive(patterns);
  return set;
}

hs_scratch* PrefilterSet::acquireScratch() const {
  if (!scratchBusy_.test_and_set(std::memory_order_acquire)) return scratch_;
  // Another thread is scanning: give this one a scratch of its own.
  hs_scratch_t* clone = nullptr;
  if (hs_clone_scratch(scratch_, &clone) != HS_SUCCESS) return nullptr;
  return clone;
}

void PrefilterSet::releaseScratch(hs_scratch* scratch) const {
  if (scratch == scratch_) {
    scratchBusy_.clear(std::memory_order_release);
  } else if (scratch != nullptr) {
    hs_free_scratch(scratch);
  }
}

void PrefilterSet::findUnicodeSensitive(const std::vector<std::string>& patterns) {
  unicodeSensitive_.clear();
  for (auto id : dbIds_) {
    if (isUnicodeSensitive(patterns[id])) unicodeSensitive_.push_back(id);
  }
}

void PrefilterSet::candidates(std::string_view subject, std::vector<std::uint8_t>& candidates,
                              std::vector<std::uint32_t>* ids) const {
  mark(subject, candidates);
  if (ids == nullptr) return;
  ids->clear();
  // Most subjects leave almost every entry zero: skip eight at a time.
  const std::uint8_t* data = candidates.data();
  std::size_t i = 0;
  for (; i + 8 <= candidates.size(); i += 8) {
    std::uint64_t word;
    std::memcpy(&word, data + i, sizeof word);
    if (word == 0) continue;
    for (std::size_t k = i; k < i + 8; ++k) {
      if (data[k] != 0) ids->push_back(static_cast<std::uint32_t>(k));
    }
  }
  for (; i < candidates.size(); ++i) {
    if (data[i] != 0) ids->push_back(static_cast<std::uint32_t>(i));
  }
}

void PrefilterSet::mark(std::string_view subject, std::vector<std::uint8_t>& candidates) const {
  candidates.assign(count_, 0);
  for (auto id : everything_) candidates[id] = kCertain;
  if (!isPrintableAscii(subject)) {
    thread_local std::string shadow;
    if (!asciiShadow(subject, shadow)) {
      for (auto& candidate : candidates) candidate = std::max(candidate, kPossible);
      return;
    }
    // An anchored ASCII literal cannot equal text with a character outside ASCII, so only the
    // database and the patterns it cannot judge here remain.
    for (auto id : unicodeSensitive_) candidates[id] = kPossible;
    for (auto id : always_) candidates[id] = kPossible;
    scan(shadow, candidates, false);
    return;
  }
  for (auto id : always_) candidates[id] = kPossible;
  if (!literals_.empty()) {
    if (auto it = literals_.find(subject); it != literals_.end()) {
      for (auto id : it->second) candidates[id] = kCertain;
    }
  }
  scan(subject, candidates, true);
}

void PrefilterSet::scan(std::string_view subject, std::vector<std::uint8_t>& candidates,
                        bool exactSubject) const {
  if (db_ == nullptr) return;
  if (subject.empty()) {
    // Whether a scan of no bytes reports empty matches is not worth relying on.
    for (auto id : dbIds_) candidates[id] = std::max(candidates[id], kPossible);
    return;
  }
  thread_local std::vector<std::uint32_t> hits;
  hits.clear();
  hs_scratch* scratch = acquireScratch();
  const hs_error_t rc = scratch == nullptr
                            ? HS_NOMEM
                            : hs_scan(db_, subject.data(), static_cast<unsigned>(subject.size()), 0,
                                      scratch, onMatch, &hits);
  releaseScratch(scratch);
  if (rc != HS_SUCCESS) {
    // Without a scan result nothing may be ruled out.
    for (auto id : dbIds_) candidates[id] = kPossible;
    return;
  }
  for (auto hsId : hits) {
    // An exact hit on text ICU reads the same way is ICU's answer; anything else only says
    // "possible". A hit never lowers what the literal map already proved.
    std::uint8_t& slot = candidates[dbIds_[hsId]];
    slot = std::max(slot, exactSubject && exact_[hsId] ? kCertain : kPossible);
  }
}

std::string PrefilterSet::serialize() const {
  std::string out(kMagic);
  appendU32(out, static_cast<std::uint32_t>(count_));
  appendU32(out, static_cast<std::uint32_t>(always_.size()));
  for (auto id : always_) appendU32(out, id);
  appendU32(out, static_cast<std::uint32_t>(dbIds_.size()));
  for (auto id : dbIds_) appendU32(out, id);
  out.append(reinterpret_cast<const char*>(exact_.data()), exact_.size());
  if (db_ != nullptr) {
    char* bytes = nullptr;
    std::size_t length = 0;
    if (hs_serialize_database(db_, &bytes, &length) != HS_SUCCESS) return {};
    out.append(bytes, length);
    std::free(bytes);
  }
  return out;
}

std::unique_ptr<PrefilterSet> PrefilterSet::restore(const std::vector<std::string>& patterns,
                                                    bool literalHash, std::string_view data) {
  if (!startsWith(data, kMagic)) return nullptr;
  data.remove_prefix(kMagic.size());
  auto set = std::make_unique<PrefilterSet>();
  std::vector<bool> taken;
  set->classifyLiterals(patterns, literalHash, taken);
  std::uint32_t count = 0, alwaysCount = 0, dbCount = 0;
  if (!readU32(data, count) || count != patterns.size()) return nullptr;
  if (!readU32(data, alwaysCount) || alwaysCount > count) return nullptr;
  std::vector<bool> seen = taken;
  auto readIds = [&](std::uint32_t n, std::vector<std::uint32_t>& ids) {
    for (std::uint32_t k = 0; k < n; ++k) {
      std::uint32_t id = 0;
      // Every pattern must be classified exactly once, or the set could miss candidates.
      if (!readU32(data, id) || id >= count || seen[id]) return false;
      seen[id] = true;
      ids.push_back(id);
    }
    return true;
  };
  if (!readIds(alwaysCount, set->always_)) return nullptr;
  if (!readU32(data, dbCount) || dbCount > count || !readIds(dbCount, set->dbIds_)) return nullptr;
  if (data.size() < dbCount) return nullptr;
  set->exact_.assign(data.begin(), data.begin() + dbCount);
  data.remove_prefix(dbCount);
  if (std::any_of(set->exact_.begin(), set->exact_.end(), [](auto e) { return e > 1; })) {
    return nullptr;
  }
  if (std::find(seen.begin(), seen.end(), false) != seen.end()) return nullptr;
  set->findUnicodeSensitive(patterns);
  if (dbCount > 0) {
    hs_database_t* db = nullptr;
    if (hs_deserialize_database(data.data(), data.size(), &db) != HS_SUCCESS) return nullptr;
    set->db_ = db;
    if (hs_alloc_scratch(db, &set->scratch_) != HS_SUCCESS) return nullptr;
  } else if (!data.empty()) {
    return nullptr;
  }
  return set;
}

}  // namespace linkwash::internal
