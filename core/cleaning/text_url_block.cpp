#include "core/cleaning/text_url_block.h"

#include <algorithm>

#include "base/strings.h"
#include "platform/url/url_components.h"

namespace linkwash {
namespace {

bool isSchemeByte(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '+' ||
         c == '.' || c == '-';
}

bool isAsciiLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// The matches of "(?i)[a-z][a-z0-9+.-]*://" from left to right, not overlapping, as a regex
// engine finds them: for each "://", the leftmost letter that starts an unbroken run of scheme
// characters up to it. Written out because a backtracking engine spends most of a large block
// retrying that pattern at every letter of ordinary prose.
std::vector<TextRange> schemeMatches(std::string_view text) {
  std::vector<TextRange> found;
  std::size_t searchFrom = 0;
  for (std::size_t k = text.find("://"); k != std::string_view::npos; k = text.find("://", k + 1)) {
    if (k < searchFrom) continue;
    std::size_t runStart = k;
    while (runStart > searchFrom && isSchemeByte(text[runStart - 1])) --runStart;
    std::size_t start = runStart;
    while (start < k && !isAsciiLetter(text[start])) ++start;
    if (start == k) continue;
    found.push_back({start, k + 3});
    searchFrom = k + 3;
  }
  return found;
}

bool isRefusedScalar(char32_t c) {
  if (c < 0x20) return c != 0x09 && c != 0x0A && c != 0x0D;
  return c == 0x7F || (c >= 0x200B && c <= 0x200F) || (c >= 0x202A && c <= 0x202E) ||
         (c >= 0x2066 && c <= 0x2069);
}

bool isTrailingPunctuation(char c) {
  return c == '.' || c == ',' || c == ';' || c == '!' || c == '?';
}

// Where a candidate link stops: white space (ASCII or Unicode) or a character that delimits
// attributes and tags in markup.
std::size_t candidateEnd(std::string_view text, std::size_t from) {
  std::size_t i = from;
  while (i < text.size()) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == '<' || c == '>' || c == '"' || c == '\'') break;
    if (c < 0x80) {
      if (c == ' ' || (c >= 0x09 && c <= 0x0D)) break;
      ++i;
      continue;
    }
    // Multi-byte: ask the shared trimmer whether this scalar is white space.
    std::size_t length = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : 2;
    length = std::min(length, text.size() - i);
    const std::string_view scalar = text.substr(i, length);
    if (trimWhitespaceAndNewlines(scalar).empty()) break;
    i += length;
  }
  return i;
}

std::string_view trimCandidate(std::string_view candidate) {
  while (!candidate.empty()) {
    const char last = candidate.back();
    if (isTrailingPunctuation(last)) {
      candidate.remove_suffix(1);
      continue;
    }
    // A closing bracket belongs to the link only when the link opened one for it, as in
    // Wikipedia's "Foo_(bar)"; otherwise it closes the prose around the link.
    if (last == ')' || last == ']') {
      const char open = last == ')' ? '(' : '[';
      const auto opens = std::count(candidate.begin(), candidate.end(), open);
      const auto closes = std::count(candidate.begin(), candidate.end(), last);
      if (opens < closes) {
        candidate.remove_suffix(1);
        continue;
      }
    }
    break;
  }
  return candidate;
}

bool isValidCandidate(std::string_view candidate, std::string_view textBefore) {
  if (!startsWithAsciiI(candidate, "https://") && !startsWithAsciiI(candidate, "http://")) {
    return false;
  }
  if (candidate.find('\\') != std::string_view::npos) return false;
  const auto components = URLComponents::parse(candidate);
  if (!components) return false;
  const auto& host = components->percentEncodedHost();
  if (!host || host->empty() || components->percentEncodedUser() ||
      components->percentEncodedPassword() || !components->string()) {
    return false;
  }
  if (!trimWhitespaceAndNewlines(textBefore).empty() && !components->percentEncodedQuery() &&
      !components->percentEncodedFragment() && isTrailingPunctuation(candidate.back())) {
    return false;
  }
  return true;
}

std::vector<TextURLBlock::Match> findLinks(std::string_view text) {
  std::vector<TextURLBlock::Match> found;
  std::size_t acceptedEnd = 0;
  for (const auto& schemeMatch : schemeMatches(text)) {
    const std::size_t start = schemeMatch.begin;
    if (start < acceptedEnd) continue;
    const std::string_view candidate =
        trimCandidate(text.substr(start, candidateEnd(text, start) - start));
    if (candidate.empty() || schemeMatches(candidate).size() != 1) continue;
    if (!isValidCandidate(candidate, text.substr(0, start))) continue;
    acceptedEnd = start + candidate.size();
    found.push_back({std::string(candidate), {start, acceptedEnd}});
  }
  return found;
}

}  // namespace

bool isAcceptableLinkText(std::string_view text) {
  if (text.size() > TextURLBlock::kMaximumBytes || !isValidUtf8(text)) return false;
  for (std::size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    char32_t scalar = c;
    std::size_t length = 1;
    if (c >= 0xF0) {
      length = 4;
      scalar = c & 0x07;
    } else if (c >= 0xE0) {
      length = 3;
      scalar = c & 0x0F;
    } else if (c >= 0xC0) {
      length = 2;
      scalar = c & 0x1F;
    }
    for (std::size_t k = 1; k < length; ++k) {
      scalar = (scalar << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
    }
    if (isRefusedScalar(scalar)) return false;
    i += length;
  }
  return true;
}

std::optional<TextURLBlock> TextURLBlock::make(std::string text) {
  if (!isAcceptableLinkText(text)) return std::nullopt;
  auto matches = findLinks(text);
  return TextURLBlock(std::move(text), std::move(matches));
}

std::vector<std::string> TextURLBlock::urls() const {
  std::vector<std::string> result;
  result.reserve(matches_.size());
  for (const auto& match : matches_) result.push_back(match.url);
  return result;
}

std::string TextURLBlock::replacingURLs(
    const std::function<std::string(std::size_t, std::string_view)>& replacement) const {
  // Asked last to first, as callers that edit in place expect; the text is then assembled in one
  // forward pass so that many links in a large block stay linear.
  std::vector<std::string> replacements(matches_.size());
  for (std::size_t i = matches_.size(); i-- > 0;) replacements[i] = replacement(i, matches_[i].url);
  std::string result;
  result.reserve(text_.size());
  std::size_t copied = 0;
  for (std::size_t i = 0; i < matches_.size(); ++i) {
    result.append(text_, copied, matches_[i].range.begin - copied);
    result += replacements[i];
    copied = matches_[i].range.end;
  }
  result.append(text_, copied, std::string::npos);
  return result;
}

std::optional<ClipboardLink> ClipboardLink::make(std::string text) {
  auto block = TextURLBlock::make(std::move(text));
  if (!block || block->matches().empty()) return std::nullopt;
  const auto& first = block->matches().front();
  return ClipboardLink{block->text(), first.url, first.range};
}

std::string ClipboardLink::replacingURL(std::string_view replacement) const {
  std::string result = text;
  result.replace(range.begin, range.end - range.begin, replacement);
  return result;
}

}  // namespace linkwash
