// Small string helpers shared by every subsystem. All work on UTF-8 bytes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace linkwash {

using Bytes = std::vector<std::uint8_t>;

// Removes white space and line breaks from both ends: Unicode Zs, U+0009..U+000D, U+0085,
// U+2028 and U+2029 (not U+200B or U+FEFF, which are not white space).
std::string_view trimWhitespaceAndNewlines(std::string_view text);

// ASCII-only lower-casing; other bytes are kept as they are.
std::string asciiLower(std::string_view text);
bool asciiIEquals(std::string_view a, std::string_view b);
bool startsWith(std::string_view text, std::string_view prefix);
bool endsWith(std::string_view text, std::string_view suffix);
// Case-insensitive (ASCII) prefix test.
bool startsWithAsciiI(std::string_view text, std::string_view prefix);

// Splits at every occurrence of `sep`, keeping empty pieces.
std::vector<std::string_view> split(std::string_view text, char sep);

// True when every byte is printable ASCII (0x20..0x7E).
bool isPrintableAscii(std::string_view text);

// True when `text` is well-formed UTF-8 (no overlongs, no surrogates, nothing above U+10FFFF).
bool isValidUtf8(std::string_view text);
// The length of the well-formed UTF-8 sequence starting at `at`; 0 when there is none.
std::size_t utf8SequenceLength(std::string_view text, std::size_t at);
// `text` with every byte that is not part of well-formed UTF-8 replaced by U+FFFD.
std::string validUtf8(std::string_view text);

std::string toString(const Bytes& bytes);
Bytes toBytes(std::string_view text);

}  // namespace linkwash
