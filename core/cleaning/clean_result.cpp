#include "core/cleaning/clean_result.h"

#include "platform/json/json_members.h"

namespace linkwash {
namespace {

constexpr std::array<std::string_view, 6> kKindRaw = {
    "local_parameter_removal", "offline_wrapper_unwrap", "offline_path_rewrite",
    "privacy_redirect",        "network_resolution",     "functional_transformation",
};

Json stringArray(const std::vector<std::string>& items) {
  Json array = Json::array();
  for (const auto& item : items) array.push_back(item);
  return array;
}

}  // namespace

std::string_view rawValue(CleanOperationKind kind) {
  return kKindRaw[static_cast<std::size_t>(kind)];
}

std::optional<CleanOperationKind> cleanOperationKindFromRaw(std::string_view raw) {
  for (std::size_t i = 0; i < kKindRaw.size(); ++i) {
    if (kKindRaw[i] == raw) return static_cast<CleanOperationKind>(i);
  }
  return std::nullopt;
}

CleanResult CleanResult::appendingOperation(CleanOperation operation,
                                            std::optional<std::string> newCleanedURL) const {
  CleanResult copy = *this;
  copy.operations.push_back(std::move(operation));
  if (newCleanedURL) copy.cleanedURL = std::move(*newCleanedURL);
  return copy;
}

Json encodeCleanOperation(const CleanOperation& operation) {
  Json json = Json::object();
  json["kind"] = std::string(rawValue(operation.kind));
  json["inputURL"] = operation.inputURL;
  json["outputURL"] = operation.outputURL;
  json["removedParameters"] = stringArray(operation.removedParameters);
  json["networkUsed"] = operation.networkUsed;
  if (operation.contactedHost) json["contactedHost"] = *operation.contactedHost;
  if (operation.note) json["note"] = *operation.note;
  return json;
}

std::optional<CleanOperation> decodeCleanOperation(const Json& json) {
  if (!json.is_object()) return std::nullopt;
  CleanOperation operation;
  std::string kind;
  if (!readJsonString(json, "kind", kind)) return std::nullopt;
  auto parsed = cleanOperationKindFromRaw(kind);
  if (!parsed) return std::nullopt;
  operation.kind = *parsed;
  if (!readJsonString(json, "inputURL", operation.inputURL) ||
      !readJsonString(json, "outputURL", operation.outputURL)) {
    return std::nullopt;
  }
  auto removed = json.find("removedParameters");
  if (removed == json.end() || !removed->is_array()) return std::nullopt;
  if (!readJsonStrings(json, "removedParameters", operation.removedParameters,
                       JsonPresence::optional))
    return std::nullopt;
  auto network = json.find("networkUsed");
  if (network == json.end() || !network->is_boolean()) return std::nullopt;
  operation.networkUsed = network->get<bool>();
  if (!readOptionalJsonString(json, "contactedHost", operation.contactedHost) ||
      !readOptionalJsonString(json, "note", operation.note)) {
    return std::nullopt;
  }
  return operation;
}

Json encodeCleanResult(const CleanResult& result) {
  Json json = Json::object();
  json["originalURL"] = result.originalURL;
  json["cleanedURL"] = result.cleanedURL;
  json["paramsRemoved"] = result.paramsRemoved;
  json["removedQueryParameters"] = stringArray(result.removedQueryParameters);
  json["matchedRuleIDs"] = stringArray(result.matchedRuleIDs);
  Json categories = Json::array();
  for (auto category : result.matchedCategories)
    categories.push_back(std::string(rawValue(category)));
  json["matchedCategories"] = std::move(categories);
  if (result.cleanedOriginalURL) json["cleanedOriginalURL"] = *result.cleanedOriginalURL;
  if (result.privacyRedirect)
    json["privacyRedirect"] = encodePrivacyRedirectInfo(*result.privacyRedirect);
  Json operations = Json::array();
  for (const auto& operation : result.operations)
    operations.push_back(encodeCleanOperation(operation));
  json["operations"] = std::move(operations);
  return json;
}

std::optional<CleanResult> decodeCleanResult(const Json& json) {
  if (!json.is_object()) return std::nullopt;
  CleanResult result;
  if (!readJsonString(json, "originalURL", result.originalURL) ||
      !readJsonString(json, "cleanedURL", result.cleanedURL)) {
    return std::nullopt;
  }
  auto count = json.find("paramsRemoved");
  if (count == json.end() || !count->is_number_integer()) return std::nullopt;
  result.paramsRemoved = count->get<std::int64_t>();
  if (!readJsonStrings(json, "removedQueryParameters", result.removedQueryParameters,
                       JsonPresence::optional) ||
      !readJsonStrings(json, "matchedRuleIDs", result.matchedRuleIDs, JsonPresence::optional)) {
    return std::nullopt;
  }
  std::vector<std::string> categories;
  if (!readJsonStrings(json, "matchedCategories", categories, JsonPresence::optional))
    return std::nullopt;
  for (const auto& raw : categories) {
    auto type = ruleCategoryTypeFromRaw(raw);
    if (!type) return std::nullopt;
    result.matchedCategories.insert(*type);
  }
  if (!readOptionalJsonString(json, "cleanedOriginalURL", result.cleanedOriginalURL))
    return std::nullopt;
  if (auto it = json.find("privacyRedirect"); it != json.end() && !it->is_null()) {
    result.privacyRedirect = decodePrivacyRedirectInfo(*it);
    if (!result.privacyRedirect) return std::nullopt;
  }
  if (auto it = json.find("operations"); it != json.end() && !it->is_null()) {
    if (!it->is_array()) return std::nullopt;
    for (const auto& item : *it) {
      auto operation = decodeCleanOperation(item);
      if (!operation) return std::nullopt;
      result.operations.push_back(std::move(*operation));
    }
  }
  return result;
}

}  // namespace linkwash
