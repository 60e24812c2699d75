#include "base/strings.h"

#include <algorithm>

namespace linkwash {
namespace {

// Decodes one UTF-8 scalar at `i`; returns its length, or 0 when the bytes are not valid UTF-8.
std::size_t decodeScalar(std::string_view s, std::size_t i, char32_t& out) {
  const auto b0 = static_cast<unsigned char>(s[i]);
  if (b0 < 0x80) {
    out = b0;
    return 1;
  }
  std::size_t len = 0;
  char32_t min = 0;
  if ((b0 & 0xE0) == 0xC0) {
    len = 2, out = b0 & 0x1F, min = 0x80;
  } else if ((b0 & 0xF0) == 0xE0) {
    len = 3, out = b0 & 0x0F, min = 0x800;
  } else if ((b0 & 0xF8) == 0xF0) {
    len = 4, out = b0 & 0x07, min = 0x10000;
  } else {
    return 0;
  }
  if (i + len > s.size()) return 0;
  for (std::size_t k = 1; k < len; ++k) {
    const auto b = static_cast<unsigned char>(s[i + k]);
    if ((b & 0xC0) != 0x80) return 0;
    out = (out << 6) | (b & 0x3F);
  }
  if (out < min || out > 0x10FFFF || (out >= 0xD800 && out <= 0xDFFF)) return 0;
  return len;
}

bool isTrimmable(char32_t c) {
  if (c >= 0x09 && c <= 0x0D) return true;
  switch (c) {
    case 0x20:
    case 0x85:
    case 0xA0:
    case 0x1680:
    case 0x2028:
    case 0x2029:
    case 0x202F:
    case 0x205F:
    case 0x3000:
      return true;
    default:
      return c >= 0x2000 && c <= 0x200A;  // the Zs block of spaces
  }
}

}  // namespace

std::string_view trimWhitespaceAndNewlines(std::string_view text) {
  std::size_t begin = 0;
  while (begin < text.size()) {
    char32_t c = 0;
    const std::size_t len = decodeScalar(text, begin, c);
    if (len == 0 || !isTrimmable(c)) break;
    begin += len;
  }
  std::size_t end = text.size();
  while (end > begin) {
    // Step back to the start of the last scalar.
    std::size_t start = end - 1;
    while (start > begin && (static_cast<unsigned char>(text[start]) & 0xC0) == 0x80) --start;
    char32_t c = 0;
    const std::size_t len = decodeScalar(text, start, c);
    if (len != end - start || !isTrimmable(c)) break;
    end = start;
  }
  return text.substr(begin, end - begin);
}

std::string asciiLower(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  }
  return out;
}

bool asciiIEquals(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    char x = a[i], y = b[i];
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x + 32);
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y + 32);
    if (x != y) return false;
  }
  return true;
}

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

bool endsWith(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

bool startsWithAsciiI(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && asciiIEquals(text.substr(0, prefix.size()), prefix);
}

std::vector<std::string_view> split(std::string_view text, char sep) {
  std::vector<std::string_view> out;
  std::size_t start = 0;
  while (true) {
    const std::size_t pos = text.find(sep, start);
    if (pos == std::string_view::npos) {
      out.push_back(text.substr(start));
      return out;
    }
    out.push_back(text.substr(start, pos - start));
    start = pos + 1;
  }
}

bool isPrintableAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c <= 0x7E; });
}

bool isValidUtf8(std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    char32_t c = 0;
    const std::size_t len = decodeScalar(text, i, c);
    if (len == 0) return false;
    i += len;
  }
  return true;
}

std::size_t utf8SequenceLength(std::string_view text, std::size_t at) {
  char32_t c = 0;
  return decodeScalar(text, at, c);
}

std::string validUtf8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t len = utf8SequenceLength(text, i);
    if (len == 0) {
      out += "\xEF\xBF\xBD";
      ++i;
    } else {
      out.append(text, i, len);
      i += len;
    }
  }
  return out;
}

std::string toString(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

Bytes toBytes(std::string_view text) { return Bytes(text.begin(), text.end()); }

}  // namespace linkwash
