// The basic link finder and the text rebuilding shared by the clipboard monitor.
#include "core/clipboard/clipboard_links.h"

#include <algorithm>
#include <cctype>

namespace linkwash {
namespace {

constexpr std::size_t kMaximumTextBytes = 65536;

char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool startsWithNoCase(std::string_view text, std::size_t at, std::string_view prefix) {
  if (text.size() - at < prefix.size()) return false;
  for (std::size_t i = 0; i < prefix.size(); ++i) {
    if (lower(text[at + i]) != prefix[i]) return false;
  }
  return true;
}

// Control characters other than tab and line breaks, DEL, zero-width and bidirectional
// formatting characters: rewriting text that holds them could change what the user sees.
bool hasRefusedCharacters(std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    auto c = static_cast<unsigned char>(text[i]);
    if ((c < 0x20 && c != '\t' && c != '\n' && c != '\r') || c == 0x7f) return true;
    if (c == 0xe2 && i + 2 < text.size()) {
      auto b1 = static_cast<unsigned char>(text[i + 1]);
      auto b2 = static_cast<unsigned char>(text[i + 2]);
      // U+200B..U+200F, U+202A..U+202E, U+2066..U+2069
      if (b1 == 0x80 && ((b2 >= 0x8b && b2 <= 0x8f) || (b2 >= 0xaa && b2 <= 0xae))) return true;
      if (b1 == 0x81 && b2 >= 0xa6 && b2 <= 0xa9) return true;
    }
  }
  return false;
}

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f'; }

std::optional<std::vector<TextLink>> findLinks(std::string_view text) {
  if (text.size() > kMaximumTextBytes || hasRefusedCharacters(text)) return std::nullopt;
  std::vector<TextLink> links;
  std::size_t i = 0;
  while (i < text.size()) {
    std::size_t schemeLength = startsWithNoCase(text, i, "https://")  ? 8
                               : startsWithNoCase(text, i, "http://") ? 7
                                                                      : 0;
    bool atBoundary = i == 0 || !std::isalnum(static_cast<unsigned char>(text[i - 1]));
    if (schemeLength == 0 || !atBoundary) {
      ++i;
      continue;
    }
    std::size_t end = i;
    while (end < text.size() && !isSpace(text[end]) && text[end] != '<' && text[end] != '>' &&
           text[end] != '"' && text[end] != '\'') {
      ++end;
    }
    while (end > i + schemeLength) {
      char last = text[end - 1];
      std::string_view candidate = text.substr(i, end - i);
      if (last == '.' || last == ',' || last == ';' || last == '!' || last == '?') {
        --end;
      } else if ((last == ')' && std::count(candidate.begin(), candidate.end(), '(') <
                                     std::count(candidate.begin(), candidate.end(), ')')) ||
                 (last == ']' && std::count(candidate.begin(), candidate.end(), '[') <
                                     std::count(candidate.begin(), candidate.end(), ']'))) {
        --end;
      } else {
        break;
      }
    }
    std::string_view link = text.substr(i, end - i);
    std::string_view rest = link.substr(schemeLength);
    std::string_view authority = rest.substr(0, rest.find_first_of("/?#"));
    bool valid = !authority.empty() && authority.find('@') == std::string_view::npos &&
                 link.find('\\') == std::string_view::npos &&
                 link.find("://", schemeLength) == std::string_view::npos;
    if (valid) links.push_back(TextLink{std::string(link), i, end});
    i = std::max(end, i + 1);
  }
  return links;
}

}  // namespace

ClipboardLinkFinder basicClipboardLinkFinder() {
  ClipboardLinkFinder finder;
  finder.blockLinks = findLinks;
  finder.singleLink = [](std::string_view text) -> std::optional<TextLink> {
    auto links = findLinks(text);
    if (!links || links->empty()) return std::nullopt;
    return links->front();
  };
  return finder;
}

std::string replaceLinks(
    std::string_view text, const std::vector<TextLink>& links,
    const std::function<std::string(std::size_t, const TextLink&)>& replacement) {
  std::string out;
  out.reserve(text.size());
  std::size_t at = 0;
  for (std::size_t index = 0; index < links.size(); ++index) {
    const auto& link = links[index];
    out.append(text.substr(at, link.begin - at));
    out.append(replacement(index, link));
    at = link.end;
  }
  out.append(text.substr(at));
  return out;
}

ShareLinkSupport noShareLinkSupport() {
  ShareLinkSupport support;
  support.needsResolution = [](std::string_view) { return false; };
  support.hasService = [](std::string_view) { return false; };
  support.resolve = [](const std::string&) -> std::optional<ResolvedLink> { return std::nullopt; };
  return support;
}

}  // namespace linkwash
