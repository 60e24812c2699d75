#include "platform/regex/case_mapping.h"

#include <unicode/ucasemap.h>

#include <algorithm>
#include <memory>

#include "base/strings.h"

namespace linkwash {

std::string unicodeLowercase(std::string_view text) {
  const bool ascii = std::all_of(text.begin(), text.end(),
                                 [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  if (ascii || !isValidUtf8(text)) return asciiLower(text);
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<UCaseMap, decltype(&ucasemap_close)> map(ucasemap_open("", 0, &status),
                                                           ucasemap_close);
  if (U_FAILURE(status)) return asciiLower(text);
  std::string out(text.size() + 16, '\0');
  for (int attempt = 0; attempt < 2; ++attempt) {
    status = U_ZERO_ERROR;
    const int32_t length =
        ucasemap_utf8ToLower(map.get(), out.data(), static_cast<int32_t>(out.size()), text.data(),
                             static_cast<int32_t>(text.size()), &status);
    if (status == U_BUFFER_OVERFLOW_ERROR) {
      out.resize(static_cast<std::size_t>(length));
      continue;
    }
    if (U_FAILURE(status)) return asciiLower(text);
    out.resize(static_cast<std::size_t>(length));
    return out;
  }
  return asciiLower(text);
}

}  // namespace linkwash

#include <unicode/uniset.h>
#include <unicode/unistr.h>

#include <mutex>

namespace linkwash {
namespace {

// Code points that ICU's case-insensitive matching can equate with ASCII text.
const icu::UnicodeSet& foldsToAscii() {
  static const icu::UnicodeSet* set = [] {
    UErrorCode status = U_ZERO_ERROR;
    icu::UnicodeSet candidates(icu::UnicodeString(u"[:Changes_When_Casefolded:]"), status);
    auto* result = new icu::UnicodeSet();
    if (U_FAILURE(status)) {
      result->add(0x80, 0x10FFFF);  // without the property data, trust nothing non-ASCII
      return result;
    }
    // Also everything case-equivalent to an ASCII letter (closure covers simple mappings).
    icu::UnicodeSet ascii(0x41, 0x5A);
    ascii.add(0x61, 0x7A);
    ascii.closeOver(USET_CASE_INSENSITIVE);
    for (int32_t i = 0; i < ascii.getRangeCount(); ++i) {
      for (UChar32 c = ascii.getRangeStart(i); c <= ascii.getRangeEnd(i); ++c) {
        if (c >= 0x80) result->add(c);
      }
    }
    for (int32_t i = 0; i < candidates.getRangeCount(); ++i) {
      for (UChar32 c = candidates.getRangeStart(i); c <= candidates.getRangeEnd(i); ++c) {
        if (c < 0x80) continue;
        icu::UnicodeString folded(c);
        folded.foldCase();
        for (int32_t k = 0; k < folded.length(); ++k) {
          if (folded.charAt(k) < 0x80) {
            result->add(c);
            break;
          }
        }
      }
    }
    result->freeze();
    return result;
  }();
  return *set;
}

}  // namespace

bool asciiShadow(std::string_view text, std::string& out) {
  out.clear();
  const icu::UnicodeSet& danger = foldsToAscii();
  for (std::size_t i = 0; i < text.size();) {
    const auto b = static_cast<unsigned char>(text[i]);
    if (b < 0x80) {
      if (b < 0x20) return false;
      out += static_cast<char>(b);
      ++i;
      continue;
    }
    std::size_t len = (b & 0xE0) == 0xC0 ? 2 : (b & 0xF0) == 0xE0 ? 3 : (b & 0xF8) == 0xF0 ? 4 : 0;
    if (len == 0 || i + len > text.size() || !isValidUtf8(text.substr(i, len))) return false;
    UChar32 c = b & (len == 2 ? 0x1F : len == 3 ? 0x0F : 0x07);
    for (std::size_t k = 1; k < len; ++k)
      c = (c << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
    if (c == 0x85 || c == 0x2028 || c == 0x2029 || danger.contains(c)) return false;
    out += '\x01';
    i += len;
  }
  return true;
}

}  // namespace linkwash
