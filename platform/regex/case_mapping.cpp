#include "platform/regex/case_mapping.h"

#include <unicode/ucasemap.h>

#include <algorithm>
#include <memory>

#include "core/base/strings.h"

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
