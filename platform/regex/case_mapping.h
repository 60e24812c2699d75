// Unicode case mapping for text that is compared the way people read it (host names).
#pragma once

#include <string>
#include <string_view>

namespace linkwash {

// Full Unicode lower-casing (root locale). ASCII text takes a fast path; invalid UTF-8 is
// lower-cased in its ASCII bytes only.
std::string unicodeLowercase(std::string_view text);

}  // namespace linkwash
