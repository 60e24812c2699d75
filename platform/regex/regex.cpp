// Regex on ICU's regular expression engine. Subjects other than plain ASCII stay UTF-8: ICU reads
// them through a UTF-8 UText, whose native indexes are byte offsets, so they are never converted.
#include "platform/regex/regex.h"

#include <unicode/regex.h>
#include <unicode/unistr.h>
#include <unicode/utext.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <string>
#include <utility>
#include <variant>

namespace linkwash {
namespace {

// ICU counts time in units of 10,000 backtracking state saves, roughly 0.1 ms each in an
// optimised build. Ordinary rule patterns use a fraction of one unit on a URL and a few on a
// 64 KiB subject; this stops a catastrophic pattern after some 20-40 ms of CPU.
constexpr int32_t kTimeLimit = 200;
// Backtracking stack ceiling; ICU's own default, ample for any 64 KiB subject a rule can see.
constexpr int32_t kStackLimitBytes = 8 * 1024 * 1024;
// Longer subjects run on a temporary matcher, so the cached matcher never keeps a backtracking
// stack grown for a huge input. The same bound caps the per-thread ASCII buffer below.
constexpr std::size_t kCachedSubjectLimit = 16 * 1024;

// ICU matches much faster (two to three times on unanchored scans) when the whole subject is one
// UTF-16 chunk than through a UTF-8 UText. For ASCII, which most URLs and parameter names are,
// widening is a trivial copy and UTF-16 indexes equal byte offsets, so such subjects take that
// path. Returns false, leaving the buffer's contents unspecified, when a byte is not ASCII.
bool widenAscii(std::string_view subject, std::u16string& buffer) {
  if (buffer.size() < subject.size()) {
    buffer.resize(subject.size());
  }
  unsigned char seen = 0;
  char16_t* out = buffer.data();
  for (const char c : subject) {
    const auto byte = static_cast<unsigned char>(c);
    seen |= byte;
    *out++ = byte;
  }
  return seen < 0x80;
}

thread_local RegexWorkBudget* currentBudget = nullptr;

// ICU calls this after every unit of work of a match; answering false stops the match.
UBool U_CALLCONV chargeCurrentBudget(const void* /*context*/, int32_t /*steps*/) {
  RegexWorkBudget* budget = RegexWorkBudget::current();
  return budget == nullptr || budget->charge();
}

std::unique_ptr<icu::RegexMatcher> makeMatcher(const icu::RegexPattern& pattern) {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::RegexMatcher> matcher(pattern.matcher(status));
  if (matcher == nullptr || U_FAILURE(status)) {
    return nullptr;
  }
  matcher->setTimeLimit(kTimeLimit, status);
  matcher->setStackLimit(kStackLimitBytes, status);
  matcher->setMatchCallback(chargeCurrentBudget, nullptr, status);
  if (U_FAILURE(status)) {
    return nullptr;
  }
  return matcher;
}

RegexMatch readMatch(const icu::RegexMatcher& matcher, std::size_t groupCount) {
  RegexMatch match;
  match.ranges.reserve(groupCount + 1);
  for (std::size_t group = 0; group <= groupCount; ++group) {
    UErrorCode status = U_ZERO_ERROR;
    const int64_t begin = matcher.start64(static_cast<int32_t>(group), status);
    const int64_t end = matcher.end64(static_cast<int32_t>(group), status);
    if (U_FAILURE(status) || begin < 0 || end < begin) {
      match.ranges.emplace_back(std::nullopt);
    } else {
      match.ranges.emplace_back(
          RegexRange{static_cast<std::size_t>(begin), static_cast<std::size_t>(end)});
    }
  }
  return match;
}

void appendUtf8(std::string& out, UChar32 c) {
  if (c < 0 || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
    c = 0xFFFD;
  }
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

// Length of the UTF-8 sequence a lead byte announces (1 for anything malformed, so a stray
// byte is copied on its own).
std::size_t utf8SequenceLength(unsigned char lead) {
  if (lead >= 0xF0 && lead <= 0xF4) return 4;
  if (lead >= 0xE0) return lead <= 0xEF ? 3 : 1;
  if (lead >= 0xC2) return 2;
  return 1;
}

std::optional<UChar32> parseHex(std::string_view text) {
  UChar32 value = 0;
  for (const char c : text) {
    int digit = 0;
    if (c >= '0' && c <= '9') {
      digit = c - '0';
    } else if (c >= 'a' && c <= 'f') {
      digit = c - 'a' + 10;
    } else if (c >= 'A' && c <= 'F') {
      digit = c - 'A' + 10;
    } else {
      return std::nullopt;
    }
    value = value * 16 + digit;
  }
  return value;
}

bool isAsciiDigit(char c) { return c >= '0' && c <= '9'; }

// A replacement template split into literal text and group references, read once per call.
// The rules are ICU's: "\" takes the next character literally ("\uhhhh" and "\Uhhhhhhhh" name a
// code point), "$" is followed by a group number (digits consumed while the number stays a valid
// group) or "{name}". Anything ICU would refuse makes the whole template invalid.
using TemplatePiece = std::variant<std::string, std::size_t>;

std::optional<std::vector<TemplatePiece>> parseTemplate(std::string_view text,
                                                        std::size_t groupCount,
                                                        const icu::RegexPattern& pattern) {
  std::vector<TemplatePiece> pieces;
  std::string literal;
  auto flushLiteral = [&] {
    if (!literal.empty()) {
      pieces.emplace_back(std::move(literal));
      literal.clear();
    }
  };
  std::size_t i = 0;
  while (i < text.size()) {
    const char c = text[i];
    if (c == '\\') {
      ++i;
      if (i == text.size()) {
        break;  // a trailing backslash is dropped
      }
      const char next = text[i];
      if (next == 'u' || next == 'U') {
        const std::size_t digits = next == 'u' ? 4 : 8;
        if (i + 1 + digits <= text.size()) {
          if (auto code = parseHex(text.substr(i + 1, digits))) {
            appendUtf8(literal, *code);
            i += 1 + digits;
            continue;
          }
        }
      }
      const std::size_t length =
          std::min(utf8SequenceLength(static_cast<unsigned char>(next)), text.size() - i);
      literal.append(text.substr(i, length));
      i += length;
    } else if (c == '$') {
      ++i;
      if (i < text.size() && text[i] == '{') {
        const std::size_t close = text.find('}', i + 1);
        if (close == std::string_view::npos || close == i + 1) {
          return std::nullopt;
        }
        const std::string_view name = text.substr(i + 1, close - i - 1);
        UErrorCode status = U_ZERO_ERROR;
        const int32_t group = pattern.groupNumberFromName(
            icu::UnicodeString::fromUTF8(icu::StringPiece(name.data(), name.size())), status);
        if (U_FAILURE(status) || group <= 0) {
          return std::nullopt;
        }
        flushLiteral();
        pieces.emplace_back(static_cast<std::size_t>(group));
        i = close + 1;
      } else if (i < text.size() && isAsciiDigit(text[i])) {
        std::size_t group = static_cast<std::size_t>(text[i] - '0');
        if (group > groupCount) {
          return std::nullopt;
        }
        ++i;
        while (i < text.size() && isAsciiDigit(text[i]) &&
               group * 10 + static_cast<std::size_t>(text[i] - '0') <= groupCount) {
          group = group * 10 + static_cast<std::size_t>(text[i] - '0');
          ++i;
        }
        flushLiteral();
        pieces.emplace_back(group);
      } else {
        return std::nullopt;
      }
    } else {
      literal += c;
      ++i;
    }
  }
  flushLiteral();
  return pieces;
}

}  // namespace

std::optional<std::string_view> RegexMatch::group(std::string_view subject, std::size_t i) const {
  if (i >= ranges.size() || !ranges[i] || ranges[i]->end > subject.size()) {
    return std::nullopt;
  }
  return subject.substr(ranges[i]->begin, ranges[i]->end - ranges[i]->begin);
}

struct Regex::Impl {
  std::string pattern;
  std::unique_ptr<icu::RegexPattern> compiled;
  std::size_t groupCount = 0;

  // One matcher is kept for reuse. Whoever sets `busy` owns it and its UText until the flag is
  // cleared; a caller that finds it taken builds a temporary matcher instead of waiting.
  std::atomic<bool> busy{false};
  std::unique_ptr<icu::RegexMatcher> cached;
  UText cachedText = UTEXT_INITIALIZER;

  Impl() = default;
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;
  ~Impl() { utext_close(&cachedText); }

  // A matcher set on one subject for the duration of one call.
  class Session {
   public:
    Session(Impl& impl, std::string_view subject) {
      if (subject.size() > static_cast<std::size_t>(INT32_MAX)) {
        return;
      }
      if (const RegexWorkBudget* budget = RegexWorkBudget::current();
          budget != nullptr && budget->exhausted()) {
        return;
      }
      UText* text = &localText_;
      if (subject.size() <= kCachedSubjectLimit &&
          !impl.busy.exchange(true, std::memory_order_acquire)) {
        owner_ = &impl;
        if (impl.cached == nullptr) {
          impl.cached = makeMatcher(*impl.compiled);
        }
        matcher_ = impl.cached.get();
        text = &impl.cachedText;
      } else {
        temporary_ = makeMatcher(*impl.compiled);
        matcher_ = temporary_.get();
      }
      if (matcher_ == nullptr) {
        return;
      }
      // Only this thread reads the buffer, and only until the session ends; no Regex call
      // runs inside another, so one buffer per thread is enough.
      thread_local std::u16string wide;
      UErrorCode status = U_ZERO_ERROR;
      const auto length = static_cast<int64_t>(subject.size());
      if (subject.size() <= kCachedSubjectLimit && widenAscii(subject, wide)) {
        utext_openUChars(text, wide.data(), length, &status);
      } else {
        utext_openUTF8(text, subject.empty() ? "" : subject.data(), length, &status);
      }
      if (U_FAILURE(status)) {
        matcher_ = nullptr;
        return;
      }
      matcher_->reset(text);
    }

    ~Session() {
      if (owner_ != nullptr) {
        owner_->busy.store(false, std::memory_order_release);
      }
      utext_close(&localText_);
    }

    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Null when no matcher could be set up; callers treat that as no match.
    icu::RegexMatcher* matcher() const { return matcher_; }

    // A match that ran out of time or stack may have left a very large backtracking stack in
    // the matcher; the cached one is dropped rather than keep that memory.
    void failed() {
      if (owner_ != nullptr && matcher_ != nullptr) {
        matcher_ = nullptr;
        owner_->cached.reset();
      }
    }

   private:
    Impl* owner_ = nullptr;
    std::unique_ptr<icu::RegexMatcher> temporary_;
    icu::RegexMatcher* matcher_ = nullptr;
    UText localText_ = UTEXT_INITIALIZER;
  };
};

RegexWorkBudget::RegexWorkBudget(std::int32_t units)
    : limit_(units), outer_(std::exchange(currentBudget, this)) {}

RegexWorkBudget::~RegexWorkBudget() { currentBudget = outer_; }

RegexWorkBudget* RegexWorkBudget::current() { return currentBudget; }

bool RegexWorkBudget::exhausted() const {
  for (const RegexWorkBudget* budget = this; budget != nullptr; budget = budget->outer_) {
    if (budget->exhausted_) return true;
  }
  return false;
}

bool RegexWorkBudget::charge() {
  bool spent = false;
  for (RegexWorkBudget* budget = this; budget != nullptr; budget = budget->outer_) {
    if (++budget->used_ >= budget->limit_) budget->exhausted_ = true;
    spent = spent || budget->exhausted_;
  }
  return !spent;
}

Regex::Regex(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Regex::Regex(Regex&&) noexcept = default;
Regex& Regex::operator=(Regex&&) noexcept = default;
Regex::~Regex() = default;

std::optional<Regex> Regex::compile(std::string_view pattern, RegexOptions options) {
  if (pattern.size() > static_cast<std::size_t>(INT32_MAX)) {
    return std::nullopt;
  }
  const uint32_t flags = options == RegexOptions::caseInsensitive ? UREGEX_CASE_INSENSITIVE : 0;
  UErrorCode status = U_ZERO_ERROR;
  UParseError parseError;
  std::unique_ptr<icu::RegexPattern> compiled(
      icu::RegexPattern::compile(icu::UnicodeString::fromUTF8(icu::StringPiece(
                                     pattern.data(), static_cast<int32_t>(pattern.size()))),
                                 flags, parseError, status));
  if (compiled == nullptr || U_FAILURE(status)) {
    return std::nullopt;
  }
  auto impl = std::make_unique<Impl>();
  impl->cached = makeMatcher(*compiled);
  if (impl->cached == nullptr) {
    return std::nullopt;
  }
  impl->pattern = std::string(pattern);
  impl->groupCount = static_cast<std::size_t>(impl->cached->groupCount());
  impl->compiled = std::move(compiled);
  return Regex(std::move(impl));
}

const std::string& Regex::pattern() const { return impl_->pattern; }

std::size_t Regex::captureGroupCount() const { return impl_->groupCount; }

bool Regex::search(std::string_view subject) const {
  Impl::Session session(*impl_, subject);
  icu::RegexMatcher* matcher = session.matcher();
  if (matcher == nullptr) {
    return false;
  }
  UErrorCode status = U_ZERO_ERROR;
  const bool found = matcher->find(status);
  if (U_FAILURE(status)) {
    session.failed();
    return false;
  }
  return found;
}

std::optional<RegexMatch> Regex::firstMatch(std::string_view subject) const {
  Impl::Session session(*impl_, subject);
  icu::RegexMatcher* matcher = session.matcher();
  if (matcher == nullptr) {
    return std::nullopt;
  }
  UErrorCode status = U_ZERO_ERROR;
  const bool found = matcher->find(status);
  if (U_FAILURE(status)) {
    session.failed();
    return std::nullopt;
  }
  if (!found) {
    return std::nullopt;
  }
  return readMatch(*matcher, impl_->groupCount);
}

std::vector<RegexMatch> Regex::allMatches(std::string_view subject) const {
  std::vector<RegexMatch> matches;
  Impl::Session session(*impl_, subject);
  icu::RegexMatcher* matcher = session.matcher();
  if (matcher == nullptr) {
    return matches;
  }
  // ICU's find() continues after the previous match and steps past an empty one. The time
  // limit covers the whole loop, so running out of it midway counts as no match at all.
  UErrorCode status = U_ZERO_ERROR;
  while (matcher->find(status)) {
    matches.push_back(readMatch(*matcher, impl_->groupCount));
  }
  if (U_FAILURE(status)) {
    session.failed();
    matches.clear();
  }
  return matches;
}

std::string Regex::replaceAll(std::string_view subject, std::string_view replacement) const {
  const auto pieces = parseTemplate(replacement, impl_->groupCount, *impl_->compiled);
  if (!pieces) {
    return std::string(subject);
  }
  const std::vector<RegexMatch> matches = allMatches(subject);
  if (matches.empty()) {
    return std::string(subject);
  }
  std::string out;
  out.reserve(subject.size());
  std::size_t copied = 0;
  for (const RegexMatch& match : matches) {
    const RegexRange whole = *match.ranges[0];
    out.append(subject.substr(copied, whole.begin - copied));
    for (const TemplatePiece& piece : *pieces) {
      if (const auto* text = std::get_if<std::string>(&piece)) {
        out += *text;
      } else if (auto group = match.group(subject, std::get<std::size_t>(piece))) {
        out += *group;
      }
    }
    copied = whole.end;
  }
  out.append(subject.substr(copied));
  return out;
}

std::string Regex::escapedPattern(std::string_view literal) {
  std::string out;
  out.reserve(literal.size() * 2);
  for (const char c : literal) {
    switch (c) {
      case '*':
      case '?':
      case '+':
      case '[':
      case '(':
      case ')':
      case '{':
      case '}':
      case '^':
      case '$':
      case '|':
      case '\\':
      case '.':
      case '/':
        out += '\\';
        break;
      default:
        break;
    }
    out += c;
  }
  return out;
}

}  // namespace linkwash
