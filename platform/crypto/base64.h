// Standard base64 (RFC 4648 alphabet, "=" padding), with a canonical decoder for signed data in
// which every byte string must have exactly one accepted spelling.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "base/strings.h"

namespace linkwash {

std::string base64Encode(std::span<const std::uint8_t> bytes);
std::string base64Encode(std::string_view bytes);

// Decodes padded base64: length a multiple of four, only the 64 alphabet characters, "=" only as
// the last one or two characters. Nothing on anything else (no blanks or line breaks). Like the
// common platform decoders it ignores the unused low bits of the last character, so several
// texts can give the same bytes; use base64DecodeCanonical where that matters.
std::optional<Bytes> base64Decode(std::string_view text);

// As base64Decode, but also nothing unless encoding the result again gives back `text` exactly.
std::optional<Bytes> base64DecodeCanonical(std::string_view text);

}  // namespace linkwash
