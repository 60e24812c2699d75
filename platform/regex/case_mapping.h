// Unicode case mapping for text that is compared the way people read it (host names).
#pragma once

#include <string>
#include <string_view>

namespace linkwash {

// Full Unicode lower-casing (root locale). ASCII text takes a fast path; invalid UTF-8 is
// lower-cased in its ASCII bytes only.
std::string unicodeLowercase(std::string_view text);

}  // namespace linkwash

namespace linkwash {

// For indexing text that ICU will match case-insensitively: the text with every non-ASCII code
// point replaced by the single byte 0x01, so byte positions count characters as ICU does.
// Nothing when that substitution could change a match: invalid UTF-8, control characters and
// line terminators (they move "$" and "."), and code points whose case folding contains ASCII
// (the Kelvin sign matches "k", "ß" matches "ss"). `out` is reused to avoid allocation.
bool asciiShadow(std::string_view text, std::string& out);

}  // namespace linkwash
