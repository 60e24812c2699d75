// PrefilterSet: answers "which of these ICU patterns might match this subject?" with a superset
// of the true answer, so the engine runs ICU only on the few candidates. It never decides a match.
//
// Each pattern is classified once:
//   - a pattern that matches every subject (".*", "") is a certain match;
//   - an anchored literal ("^" + plain ASCII text + "$") goes into a case-insensitive hash map;
//   - a pattern whose syntax means the same in ICU and in Vectorscan goes into one Vectorscan
//     database, whole in exact mode when Vectorscan accepts it (a hit on a printable-ASCII
//     subject is then certain), otherwise through its required literals or in prefilter mode
//     (which may over-approximate, never under);
//   - anything else is always a candidate.
// Subjects with non-ASCII text are scanned as their ASCII shadow (each non-ASCII character one
// placeholder byte); patterns whose classes (\w, \s, \d, \b) read non-ASCII text differently
// are then candidates regardless. Subjects where ICU's case folding or line-terminator rules
// could matter (the Kelvin sign, "ß", U+2028, control characters) make every pattern a candidate.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

struct hs_database;
struct hs_scratch;

namespace linkwash::internal {

class PrefilterSet {
 public:
  PrefilterSet();
  ~PrefilterSet();
  PrefilterSet(const PrefilterSet&) = delete;
  PrefilterSet& operator=(const PrefilterSet&) = delete;

  // Builds the set from ICU pattern texts (case-insensitive). `literalHash` enables the hash
  // map for anchored literals (only meaningful for whole-name parameter patterns).
  // `exact`: offer patterns to Vectorscan whole in exact mode first (slower scans of long
  // subjects, but ICU is then rarely asked); otherwise only literals and prefilter mode.
  static std::unique_ptr<PrefilterSet> build(const std::vector<std::string>& patterns,
                                             bool literalHash, bool exact = true);

  std::size_t size() const { return count_; }

  // Sets candidates[i] to kPossible for every pattern that might match `subject`, kCertain for
  // anchored literals that equal it (ICU would match them: no need to ask), 0 for the others.
  // `candidates` is resized to size(). Allocates nothing once `candidates` has its size.
  static constexpr std::uint8_t kPossible = 1;
  static constexpr std::uint8_t kCertain = 2;
  // With `ids`, also lists the positions of the non-zero entries in ascending order.
  void candidates(std::string_view subject, std::vector<std::uint8_t>& candidates,
                  std::vector<std::uint32_t>* ids = nullptr) const;

  // Serialised form of everything derived from the patterns (the compiled database and the
  // classification), for the on-disk cache. `restore` refuses data that is not for `patterns`.
  std::string serialize() const;
  static std::unique_ptr<PrefilterSet> restore(const std::vector<std::string>& patterns,
                                               bool literalHash, std::string_view data);

  // Counts for reporting: how the patterns were classified.
  std::size_t literalCount() const { return literalCount_; }
  std::size_t prefilterCount() const { return dbIds_.size(); }
  std::size_t alwaysCount() const { return always_.size(); }

 private:
  struct CaseInsensitiveHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const noexcept;
  };
  struct CaseInsensitiveEqual {
    using is_transparent = void;
    bool operator()(std::string_view a, std::string_view b) const noexcept;
  };

  void classifyLiterals(const std::vector<std::string>& patterns, bool literalHash,
                        std::vector<bool>& taken);
  bool compileDatabase(const std::vector<std::string>& patterns, std::vector<std::uint32_t> ids,
                       bool exact);
  void findUnicodeSensitive(const std::vector<std::string>& patterns);
  // `exactSubject`: the subject is the text itself (printable ASCII), not its ASCII shadow.
  void scan(std::string_view subject, std::vector<std::uint8_t>& candidates,
            bool exactSubject) const;
  void mark(std::string_view subject, std::vector<std::uint8_t>& candidates) const;
  hs_scratch* acquireScratch() const;
  void releaseScratch(hs_scratch* scratch) const;

  std::size_t count_ = 0;
  std::size_t literalCount_ = 0;
  std::unordered_map<std::string, std::vector<std::uint32_t>, CaseInsensitiveHash,
                     CaseInsensitiveEqual>
      literals_;
  std::vector<std::uint32_t> always_;
  std::vector<std::uint32_t> everything_;        // match every subject: certain without asking
  std::vector<std::uint32_t> unicodeSensitive_;  // indexed, but not on non-ASCII subjects
  std::vector<std::uint32_t> dbIds_;             // Vectorscan expression id -> pattern index
  std::vector<std::uint8_t> exact_;              // per expression id: compiled whole, exactly
  hs_database* db_ = nullptr;
  hs_scratch* scratch_ = nullptr;
  mutable std::atomic_flag scratchBusy_ = ATOMIC_FLAG_INIT;
};

// True when ICU and Vectorscan read `pattern` the same way on printable-ASCII subjects under
// case-insensitive matching: ASCII only, and only escapes and constructs both engines share.
bool hasPortableSyntax(std::string_view pattern);

// True for the patterns that find a (possibly empty) match in every subject: "", ".*", ".*?".
bool matchesEverything(std::string_view pattern);

// True when `pattern` uses a class whose meaning on non-ASCII text differs between the engines.
bool isUnicodeSensitive(std::string_view pattern);

// A set of plain texts such that every match of `pattern` contains at least one of them (each at
// least `minimum` long, none that every web link carries, such as "https://"). Searching for
// those literals finds a superset of the pattern's matches, and literal sets are what Vectorscan
// scans fastest. Nothing when no useful set can be proven (for example ".*").
std::optional<std::vector<std::string>> requiredLiterals(std::string_view pattern,
                                                         std::size_t minimum = 3);

// Every literal set requiredLiterals considers for `pattern`, each of which every match must
// meet (a match contains at least one member of each set); empty when none is proven.
std::vector<std::vector<std::string>> requiredLiteralSets(std::string_view pattern,
                                                          std::size_t minimum = 3);

// The text L when `pattern` is "^" + L + "$" and L holds no regex syntax and only ASCII.
std::optional<std::string_view> anchoredLiteral(std::string_view pattern);

}  // namespace linkwash::internal
