// Regex: ICU regular expressions over UTF-8 text, the engine the rule files were written for.
//
// Offsets in matches are byte offsets into the UTF-8 subject. Every match is bounded by ICU's
// time and stack limits, so a hostile pattern or a very long subject cannot hang a request: a
// match that runs out of budget counts as no match.
//
//   auto re = Regex::compile("^utm_.*$", RegexOptions::caseInsensitive);
//   if (re && re->search("UTM_Source")) { ... }
//
// A compiled Regex is immutable and may be used from several threads at once. A moved-from
// Regex may only be destroyed or assigned to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace linkwash {

enum class RegexOptions { none = 0, caseInsensitive = 1 };

struct RegexRange {
  std::size_t begin = 0;
  std::size_t end = 0;
  bool operator==(const RegexRange&) const = default;
};

// One match: ranges[0] is the whole match, ranges[i] capture group i (absent when the group
// did not take part).
struct RegexMatch {
  std::vector<std::optional<RegexRange>> ranges;
  std::optional<std::string_view> group(std::string_view subject, std::size_t i) const;
};

// Caps the pattern work of everything the current thread matches while the budget is alive (one
// clean of one link, say), counted in ICU's work units of 10,000 backtracking steps (roughly
// 0.1 ms each), so the cap does not depend on the machine's speed or load. Once it is used up,
// every match on the thread answers "no match" at once and exhausted() turns true. Budgets nest:
// work done while an inner one is alive counts against it and every budget around it, and a
// match runs only while none of them is used up. Not movable: the thread refers to it by
// address.
class RegexWorkBudget {
 public:
  explicit RegexWorkBudget(std::int32_t units);
  ~RegexWorkBudget();
  RegexWorkBudget(const RegexWorkBudget&) = delete;
  RegexWorkBudget& operator=(const RegexWorkBudget&) = delete;

  // True once this budget or one around it is used up.
  bool exhausted() const;
  std::int32_t used() const { return used_; }

  // The budget of the current thread, null when there is none. For the matcher only.
  static RegexWorkBudget* current();
  // Counts one unit of work against this budget and those around it; false once any is used up.
  bool charge();

 private:
  std::int32_t limit_;
  std::int32_t used_ = 0;
  bool exhausted_ = false;
  RegexWorkBudget* outer_;
};

class Regex {
 public:
  // Nothing when ICU refuses the pattern (that decision is what drops a rule).
  static std::optional<Regex> compile(std::string_view pattern,
                                      RegexOptions options = RegexOptions::none);

  Regex(Regex&&) noexcept;
  Regex& operator=(Regex&&) noexcept;
  ~Regex();

  const std::string& pattern() const;
  std::size_t captureGroupCount() const;

  // True when the pattern is found anywhere in `subject`.
  bool search(std::string_view subject) const;
  std::optional<RegexMatch> firstMatch(std::string_view subject) const;
  // Non-overlapping matches from left to right; after an empty match the search resumes one
  // character further on. Running out of time or stack anywhere gives no matches at all.
  std::vector<RegexMatch> allMatches(std::string_view subject) const;
  // Replaces every match with `replacement`, an ICU template: "$n" names group n (further digits
  // are taken while the number stays a group of the pattern, so with one group "$10" is group 1
  // then "0"), "${name}" a named group, "\" takes the next character literally ("\uhhhh" and
  // "\Uhhhhhhhh" name a code point). A group that did not take part inserts nothing. A template
  // ICU would refuse ("$x", a group the pattern lacks), or a match that runs out of budget,
  // leaves `subject` unchanged. Text outside matches is copied byte for byte.
  std::string replaceAll(std::string_view subject, std::string_view replacement) const;

  // The pattern text that matches `literal` exactly: a backslash before each of
  // * ? + [ ( ) { } ^ $ | \ . /
  static std::string escapedPattern(std::string_view literal);

 private:
  struct Impl;
  explicit Regex(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace linkwash
