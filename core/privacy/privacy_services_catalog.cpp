// Decoding and the acceptance rules of the privacy services catalog. Every rule is all-or-nothing:
// a catalog that breaks any of them is refused whole and the catalog in use stays.
#include "core/privacy/privacy_services_catalog.h"

#include <algorithm>
#include <set>
#include <utility>

#include "base/strings.h"
#include "core/signing/signature_verification.h"
#include "platform/regex/regex.h"
#include "platform/resources/resource_bundle.h"

#include "platform/json/json_members.h"

namespace linkwash {
namespace {

using Service = PrivacyServicesCatalog::Service;

// An https URL with a lower-case host of plain labels, no port, no user info, and an optional
// path of unreserved characters: nothing that two URL parsers could read differently.
constexpr std::string_view kHttpsURLPattern =
    "^https://[a-z0-9]+(?:[.-][a-z0-9]+)*(?:/[A-Za-z0-9._~/-]*)?$";
// The same with no path beyond one "/": what a frontend's origin looks like.
constexpr std::string_view kHttpsOriginPattern = "^https://[a-z0-9]+(?:[.-][a-z0-9]+)*/?$";

// ICU's "$" also matches before a final line break, so a match only counts when it covers the
// whole text.
bool matchesWhole(const Regex& regex, std::string_view text) {
  const auto match = regex.firstMatch(text);
  if (!match || match->ranges.empty() || !match->ranges[0]) return false;
  return match->ranges[0]->begin == 0 && match->ranges[0]->end == text.size();
}

const Regex& httpsURLRegex() {
  static const Regex regex = *Regex::compile(kHttpsURLPattern);
  return regex;
}

const Regex& httpsOriginRegex() {
  static const Regex regex = *Regex::compile(kHttpsOriginPattern);
  return regex;
}

bool isValidID(std::string_view id) {
  if (id.empty() || id.size() > PrivacyServicesCatalog::kMaxIDLength) return false;
  return std::all_of(id.begin(), id.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
  });
}

bool isState(std::string_view state) {
  return state == PrivacyServicesCatalog::kStateActive ||
         state == PrivacyServicesCatalog::kStatePaused ||
         state == PrivacyServicesCatalog::kStateRetired;
}

bool isFamily(std::string_view family) {
  return family == PrivacyServicesCatalog::kFamilyNitter ||
         family == PrivacyServicesCatalog::kFamilyBirdMakeup ||
         family == PrivacyServicesCatalog::kFamilyOther;
}

// Text shown to people: not blank, within its limit, and on one line.
bool isDisplayText(std::string_view text, std::size_t limit) {
  if (text.size() > limit || trimWhitespaceAndNewlines(text).empty()) return false;
  return std::none_of(text.begin(), text.end(),
                      [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; });
}

bool isHttpsURL(std::string_view text) {
  return text.size() <= PrivacyServicesCatalog::kMaxURLLength &&
         matchesWhole(httpsURLRegex(), text);
}

bool listsExactlyTheXTwitterHosts(const std::vector<std::string>& hosts) {
  return std::equal(hosts.begin(), hosts.end(), kXTwitterHosts.begin(), kXTwitterHosts.end());
}

bool coversTheXTwitterHosts(const std::vector<std::string>& hosts) {
  const std::set<std::string_view> listed(hosts.begin(), hosts.end());
  const std::set<std::string_view> expected(kXTwitterHosts.begin(), kXTwitterHosts.end());
  return listed == expected;
}

bool isSchema1ServiceValid(const Service& service) {
  return !service.displayName && !service.family && !service.history && service.id == "xcancel" &&
         isState(service.state) &&
         service.shapes ==
             std::vector<std::string>{std::string(PrivacyServicesCatalog::kShapeStatus)} &&
         listsExactlyTheXTwitterHosts(service.sourceHosts) &&
         service.destination == kXCancelBaseURL;
}

bool isSchema2ServiceValid(const Service& service) {
  if (!isValidID(service.id)) return false;
  if (service.family && !isFamily(*service.family)) return false;
  if (!isState(service.state)) return false;
  if (service.shapes.empty()) return false;
  const std::set<std::string_view> shapes(service.shapes.begin(), service.shapes.end());
  if (shapes.size() != service.shapes.size()) return false;
  for (const auto& shape : shapes) {
    if (shape != PrivacyServicesCatalog::kShapeProfile &&
        shape != PrivacyServicesCatalog::kShapeStatus) {
      return false;
    }
  }
  if (!coversTheXTwitterHosts(service.sourceHosts)) return false;
  if (!matchesWhole(httpsURLRegex(), service.destination)) return false;
  if (!isHttpsURL(service.operatorURL) || !isHttpsURL(service.sourceURL)) return false;
  if (!isDisplayText(service.reason, PrivacyServicesCatalog::kMaxNoteLength)) return false;
  if (service.displayName &&
      !isDisplayText(*service.displayName, PrivacyServicesCatalog::kMaxDisplayNameLength)) {
    return false;
  }
  return !service.history ||
         isDisplayText(*service.history, PrivacyServicesCatalog::kMaxNoteLength);
}

// A trailing "/" names the same origin, so it may come and go between versions.
std::string_view withoutTrailingSlash(std::string_view url) {
  if (endsWith(url, "/")) url.remove_suffix(1);
  return url;
}

// --- Decoding
// -------------------------------------------------------------------------------------

bool readUnsigned(const Json& object, const char* key, std::uint64_t& out) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_number_unsigned()) return false;
  out = it->get<std::uint64_t>();
  return true;
}

std::optional<Service> decodeService(const Json& json) {
  if (!json.is_object()) return std::nullopt;
  Service service;
  const bool ok =
      readOptionalJsonString(json, "displayName", service.displayName) &&
      readOptionalJsonString(json, "family", service.family) &&
      readOptionalJsonString(json, "history", service.history) &&
      readJsonString(json, "destination", service.destination) &&
      readJsonString(json, "id", service.id) &&
      readJsonString(json, "operatorURL", service.operatorURL) &&
      readJsonString(json, "reason", service.reason) &&
      readUnsigned(json, "reviewed", service.reviewed) &&
      readJsonStrings(json, "shapes", service.shapes, JsonPresence::required) &&
      readJsonStrings(json, "sourceHosts", service.sourceHosts, JsonPresence::required) &&
      readJsonString(json, "sourceURL", service.sourceURL) &&
      readJsonString(json, "state", service.state);
  if (!ok) return std::nullopt;
  return service;
}

Json encodeService(const Service& service) {
  Json json = Json::object();
  if (service.displayName) json["displayName"] = *service.displayName;
  if (service.family) json["family"] = *service.family;
  if (service.history) json["history"] = *service.history;
  json["destination"] = service.destination;
  json["id"] = service.id;
  json["operatorURL"] = service.operatorURL;
  json["reason"] = service.reason;
  json["reviewed"] = service.reviewed;
  json["shapes"] = service.shapes;
  json["sourceHosts"] = service.sourceHosts;
  json["sourceURL"] = service.sourceURL;
  json["state"] = service.state;
  return json;
}

tl::unexpected<Error> rejected() { return fail(std::string(kPrivacyCatalogRejected)); }

}  // namespace

bool PrivacyServicesCatalog::Service::supports(std::string_view shape) const {
  return std::find(shapes.begin(), shapes.end(), shape) != shapes.end();
}

std::optional<PrivacyServicesCatalog> PrivacyServicesCatalog::decode(std::string_view payload) {
  const auto json = parseJson(payload);
  if (!json || !json->is_object()) return std::nullopt;
  PrivacyServicesCatalog catalog;
  const auto automaticFailover = json->find("automaticFailover");
  if (automaticFailover == json->end() || !automaticFailover->is_boolean()) return std::nullopt;
  catalog.automaticFailover = automaticFailover->get<bool>();
  if (!readUnsigned(*json, "generated", catalog.generated) ||
      !readJsonString(*json, "kind", catalog.kind) ||
      !readJsonString(*json, "product", catalog.product) ||
      !readUnsigned(*json, "schema", catalog.schema) ||
      !readUnsigned(*json, "version", catalog.version)) {
    return std::nullopt;
  }
  const auto services = json->find("services");
  if (services == json->end() || !services->is_array()) return std::nullopt;
  for (const auto& item : *services) {
    auto service = decodeService(item);
    if (!service) return std::nullopt;
    catalog.services.push_back(std::move(*service));
  }
  return catalog;
}

Json encodePrivacyServicesCatalog(const PrivacyServicesCatalog& catalog) {
  Json json = Json::object();
  json["automaticFailover"] = catalog.automaticFailover;
  json["generated"] = catalog.generated;
  json["kind"] = catalog.kind;
  json["product"] = catalog.product;
  json["schema"] = catalog.schema;
  Json services = Json::array();
  for (const auto& service : catalog.services) services.push_back(encodeService(service));
  json["services"] = std::move(services);
  json["version"] = catalog.version;
  return json;
}

std::string canonical(const PrivacyServicesCatalog& catalog) {
  return canonicalJson(encodePrivacyServicesCatalog(catalog));
}

bool PrivacyServicesCatalog::satisfiesContentRules(const PrivacyServicesCatalog& catalog) {
  if (catalog.product != kProduct || catalog.kind != kKind) return false;
  if (catalog.schema != 1 && catalog.schema != 2) return false;
  if (catalog.version == 0 || catalog.version >= kVersionLimit) return false;
  if (catalog.generated < kEarliestTime || catalog.generated > kLatestGenerated) return false;
  if (catalog.automaticFailover) return false;
  if (catalog.services.empty() || catalog.services.size() > kMaxServices) return false;
  if (catalog.schema == 1) {
    if (catalog.services.size() != 1 || !isSchema1ServiceValid(catalog.services.front())) {
      return false;
    }
  } else {
    std::set<std::string_view> ids;
    for (const auto& service : catalog.services) {
      if (!isSchema2ServiceValid(service) || !ids.insert(service.id).second) return false;
    }
  }
  return std::all_of(catalog.services.begin(), catalog.services.end(),
                     [](const Service& service) { return service.reviewed >= kEarliestTime; });
}

bool PrivacyServicesCatalog::continues(const PrivacyServicesCatalog& next,
                                       std::string_view nextBytes, const Verified& previous) {
  const PrivacyServicesCatalog& before = previous.catalog();
  if (next.schema < before.schema || next.version < before.version ||
      next.generated < before.generated) {
    return false;
  }
  // The same version is only ever a re-delivery of the same document.
  if (next.version == before.version) return nextBytes == previous.bytes();
  for (const auto& old : before.services) {
    const auto it = std::find_if(next.services.begin(), next.services.end(),
                                 [&](const Service& service) { return service.id == old.id; });
    if (it == next.services.end() || it->reviewed < old.reviewed) return false;
    // A user's explicit selection is an id; letting a listed id move to another server would
    // send their links somewhere they never chose.
    if (before.schema >= 2 &&
        withoutTrailingSlash(it->destination) != withoutTrailingSlash(old.destination)) {
      return false;
    }
  }
  return true;
}

Result<PrivacyServicesCatalog::Verified> PrivacyServicesCatalog::verify(std::string_view payload,
                                                                        std::string_view envelope,
                                                                        std::string_view keyFile,
                                                                        const Verified* previous) {
  // Size, printable ASCII, key file, envelope and signature come first, so nothing unsigned is
  // decoded.
  if (!verifyCatalogSignature(payload, envelope, keyFile)) return rejected();
  auto catalog = decode(payload);
  if (!catalog || canonical(*catalog) != payload) return rejected();
  if (!satisfiesContentRules(*catalog)) return rejected();
  if (previous && !continues(*catalog, payload, *previous)) return rejected();
  return Verified(std::move(*catalog), std::string(payload));
}

std::optional<PrivacyServicesCatalog::Verified> PrivacyServicesCatalog::fromBundle(
    const ResourceBundle& bundle) {
  const auto payload = bundle.read("privacy-services", "json");
  const auto envelope = bundle.read("privacy-services", "sig");
  const auto keys = bundle.read("privacy-services-keys", "json");
  if (!payload || !envelope || !keys) return std::nullopt;
  auto verified = verify(*payload, *envelope, *keys, nullptr);
  if (!verified) return std::nullopt;
  return std::move(*verified);
}

std::shared_ptr<const PrivacyServicesCatalog::Verified> PrivacyServicesCatalog::bundled() {
  static const std::shared_ptr<const Verified> catalog = []() -> std::shared_ptr<const Verified> {
    const auto bundle = ResourceBundle::locate();
    if (!bundle) return nullptr;
    auto verified = fromBundle(*bundle);
    if (!verified) return nullptr;
    return std::make_shared<const Verified>(std::move(*verified));
  }();
  return catalog;
}

// --- Verified catalog ----------------------------------------------------------------------------

bool PrivacyServicesCatalog::Verified::fresh(std::uint64_t now) const {
  if (now < catalog_.generated) return false;
  return std::all_of(catalog_.services.begin(), catalog_.services.end(), [&](const Service& s) {
    return now >= s.reviewed && now - s.reviewed <= kMaximumReviewAge;
  });
}

PrivacyServicesCatalog::Verified::Verified(PrivacyServicesCatalog catalog, std::string bytes)
    : catalog_(std::move(catalog)), bytes_(std::move(bytes)) {
  for (const auto& service : catalog_.services) {
    if (isEligible(catalog_, service)) eligible_.push_back(service);
  }
}

bool PrivacyServicesCatalog::Verified::isEligible(const PrivacyServicesCatalog& catalog,
                                                  const Service& service) {
  if (catalog.schema != 2) return false;
  if (service.state != kStateActive) return false;
  if (service.id != "xcancel" && service.family != kFamilyNitter) return false;
  if (!matchesWhole(httpsOriginRegex(), service.destination)) return false;
  // A frontend is never the original site, whatever the catalog says.
  std::string_view host = withoutTrailingSlash(service.destination);
  host.remove_prefix(std::string_view("https://").size());
  const bool original =
      std::find(kXTwitterHosts.begin(), kXTwitterHosts.end(), host) != kXTwitterHosts.end() ||
      endsWith(host, ".x.com") || endsWith(host, ".twitter.com");
  return !original;
}

bool PrivacyServicesCatalog::Verified::eligible(std::string_view id) const {
  return std::any_of(eligible_.begin(), eligible_.end(),
                     [&](const Service& service) { return service.id == id; });
}

const std::vector<Service>& PrivacyServicesCatalog::Verified::choices(std::uint64_t now) const {
  // A stale review means nobody vouches for the instances any more: offer none.
  static const std::vector<Service> kNone;
  return fresh(now) ? eligible_ : kNone;
}

// --- Archive -------------------------------------------------------------------------------------

PrivacyServicesArchive PrivacyServicesArchive::bundled(std::uint64_t now) {
  return verified(PrivacyServicesCatalog::bundled().get(), now);
}

PrivacyServicesArchive PrivacyServicesArchive::verified(
    const PrivacyServicesCatalog::Verified* catalog, std::uint64_t now) {
  PrivacyServicesArchive archive;
  if (catalog && catalog->fresh(now)) archive.services_ = catalog->catalog().services;
  return archive;
}

std::vector<Service> PrivacyServicesArchive::nitterServices() const {
  std::vector<Service> out;
  std::copy_if(services_.begin(), services_.end(), std::back_inserter(out),
               [](const Service& s) { return s.family == PrivacyServicesCatalog::kFamilyNitter; });
  return out;
}

std::vector<Service> PrivacyServicesArchive::otherServices() const {
  std::vector<Service> out;
  std::copy_if(services_.begin(), services_.end(), std::back_inserter(out),
               [](const Service& s) { return s.family != PrivacyServicesCatalog::kFamilyNitter; });
  return out;
}

}  // namespace linkwash
