#include "platform/json/json_members.h"

namespace linkwash {

bool readJsonString(const Json& object, const char* key, std::string& out) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return false;
  out = it->get<std::string>();
  return true;
}

bool readOptionalJsonString(const Json& object, const char* key, std::optional<std::string>& out) {
  const auto it = object.find(key);
  if (it == object.end() || it->is_null()) return true;
  if (!it->is_string()) return false;
  out = it->get<std::string>();
  return true;
}

bool readJsonStrings(const Json& object, const char* key, std::vector<std::string>& out,
                     JsonPresence presence) {
  const auto it = object.find(key);
  if (it == object.end() || it->is_null()) return presence == JsonPresence::optional;
  if (!it->is_array()) return false;
  out.reserve(out.size() + it->size());
  for (const auto& item : *it) {
    if (!item.is_string()) return false;
    out.push_back(item.get<std::string>());
  }
  return true;
}

}  // namespace linkwash
