// Typed reads of JSON object members for decoders of stored and downloaded records. Each answers
// false when the member has the wrong type (the caller then refuses the whole record).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/json/json_writer.h"

namespace linkwash {

// The member must be present and a string.
bool readJsonString(const Json& object, const char* key, std::string& out);
// Absent or null leaves `out` empty; otherwise it must be a string.
bool readOptionalJsonString(const Json& object, const char* key, std::optional<std::string>& out);

enum class JsonPresence { required, optional };
// An array of strings, appended to `out`. With JsonPresence::optional an absent or null member
// reads as no strings.
bool readJsonStrings(const Json& object, const char* key, std::vector<std::string>& out,
                     JsonPresence presence);

}  // namespace linkwash
