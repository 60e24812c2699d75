// JSON reading and writing. nlohmann/json parses; our own writer produces the exact bytes the
// original encoder wrote (escapes, number forms, key order, pretty layout), because signatures
// and stored formats depend on those bytes.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace linkwash {

using Json = nlohmann::ordered_json;

struct JsonWriteOptions {
  bool sortedKeys = false;    // keys in byte order; otherwise in the object's own order
  bool escapeSlashes = true;  // "/" written as "\/" (the original encoder's default)
  bool pretty = false;        // two-space indent, "key" : value
};

// Parses without throwing; nothing on malformed input or on arrays and objects nested more than
// 512 deep. Duplicate keys keep the last value (callers that must refuse them re-encode and
// compare bytes).
std::optional<Json> parseJson(std::string_view text);

// Strings escape `"`, `\`, "/" (unless told not to) and control characters (\b \f \n \r \t by
// name, others as \u00xx); UTF-8 text is copied, and each byte that is not part of UTF-8 is
// written as U+FFFD, so the output is always valid JSON text. Non-finite
// doubles and binary values, which no record holds, are written as null.
std::string writeJson(const Json& value, const JsonWriteOptions& options = {});

// Canonical form: sorted keys, no blanks, "/" not escaped.
std::string canonicalJson(const Json& value);

// A double in its shortest form that reads back, without a trailing ".0" ("1", "0.0001",
// "1e-05", "1e+16"): plain decimal from 1e-4 up to 2^53 in magnitude, exponent form outside
// ("9.007199254740994e+15"). Non-finite values give "nan", "inf" or "-inf".
std::string formatDouble(double value);

}  // namespace linkwash
