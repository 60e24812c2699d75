// Finding web links inside a block of text (prose, chat, Markdown, HTML) and swapping them for
// cleaned versions without touching anything else. The finder is conservative: it would rather
// miss a link than cut one wrongly or damage the text around it.
//
//   if (auto block = TextURLBlock::make(text)) {
//     std::string out = block->replacingURLs(
//         [&](std::size_t, std::string_view url) { return clean(url); });
//   }
//
// Both types refuse text larger than 65,536 bytes, text that is not UTF-8, and text holding
// control characters other than tab, line feed and carriage return, DEL, or the invisible and
// direction-changing characters U+200B..U+200F, U+202A..U+202E and U+2066..U+2069: rewriting such
// text could change what the reader sees without them noticing.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace linkwash {

// Byte offsets into the text, half-open.
struct TextRange {
  std::size_t begin = 0;
  std::size_t end = 0;
  bool operator==(const TextRange&) const = default;
};

class TextURLBlock {
 public:
  static constexpr std::size_t kMaximumBytes = 65536;

  struct Match {
    std::string url;  // exactly as written in the text
    TextRange range;
    bool operator==(const Match&) const = default;
  };

  // Nothing for refused text; otherwise the text with its links (possibly none), in text order
  // and never overlapping.
  static std::optional<TextURLBlock> make(std::string text);

  const std::string& text() const { return text_; }
  const std::vector<Match>& matches() const { return matches_; }
  std::vector<std::string> urls() const;

  // The text with every match replaced by `replacement(index, url)`. The function is called from
  // the last match to the first (indices count from 0 in text order).
  std::string replacingURLs(
      const std::function<std::string(std::size_t index, std::string_view url)>& replacement) const;

 private:
  TextURLBlock(std::string text, std::vector<Match> matches)
      : text_(std::move(text)), matches_(std::move(matches)) {}
  std::string text_;
  std::vector<Match> matches_;
};

// Text that carries a web link, with the link's position so it can be swapped in place. Takes the
// first link the block finder accepts.
struct ClipboardLink {
  std::string text;
  std::string url;
  TextRange range;

  // Nothing for refused text or text without an acceptable link.
  static std::optional<ClipboardLink> make(std::string text);
  std::string replacingURL(std::string_view replacement) const;
  bool operator==(const ClipboardLink&) const = default;
};

// True when the text is within the size limit, valid UTF-8 and free of the refused characters.
bool isAcceptableLinkText(std::string_view text);

}  // namespace linkwash
