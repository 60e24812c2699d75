// The privacy services catalog on arbitrary bytes (payload, NUL, envelope): the record decoders
// must not crash, a decoded catalog must survive its canonical form, and a catalog that verifies
// must have been delivered in exactly that form.
#include <cstdint>
#include <string>

#include "core/privacy/privacy_catalog_store.h"
#include "core/privacy/privacy_services_catalog.h"
#include "fuzz/fuzz_support.h"

using namespace linkwash;

namespace {

// The shipped catalog key, so the shipped catalog and its signature (a seed) verify.
constexpr std::string_view kKeyFile =
    R"({"linkwash-catalog-1":"XLbMpznc4O3GMzDdIN4hXH/1BczuZTTFRGXZGGl2pN0="})";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto [payload, envelope] = fuzz::parts<2>(data, size);

  if (const auto catalog = PrivacyServicesCatalog::decode(payload)) {
    const auto again = PrivacyServicesCatalog::decode(canonical(*catalog));
    if (!again || *again != *catalog) fuzz::broken("catalog does not survive canonical", payload);
    (void)PrivacyServicesCatalog::satisfiesContentRules(*catalog);
  }
  if (auto verified = PrivacyServicesCatalog::verify(payload, envelope, kKeyFile, nullptr)) {
    const auto decoded = PrivacyServicesCatalog::decode(payload);
    if (!decoded || canonical(*decoded) != payload) {
      fuzz::broken("a catalog verified in a form other than canonical", payload);
    }
  }
  (void)PrivacyCatalogManifest::parse(payload);
  (void)PrivacyCatalogStore::Record::decode(payload);
  return 0;
}
