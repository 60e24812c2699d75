// The rule update manifest and its signature envelope on arbitrary bytes (manifest, NUL,
// envelope): decoding must round-trip through the encoders, and the whole release check must
// refuse without crashing.
#include <cstdint>
#include <string>

#include "core/signing/signature_verification.h"
#include "core/updates/signed_rule_feed.h"
#include "fuzz/fuzz_support.h"

using namespace linkwash;

namespace {

// The shipped feed key, so inputs that reach the signature steps find a real key to check.
constexpr std::string_view kKeyFile =
    R"({"linkwash-rules-1":"ZLjBkvGX56Jf/71lNCafZNKztKAaQORMo1Kgi27DIIY="})";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto [manifest, envelope] = fuzz::parts<2>(data, size);

  if (const auto decoded = RuleUpdateManifest::decode(manifest)) {
    const std::string encoded = decoded->encode();
    const auto again = RuleUpdateManifest::decode(encoded);
    if (!again || *again != *decoded) fuzz::broken("manifest does not survive encode", manifest);
    (void)decoded->validate(1);
  }
  if (const auto decoded = decodeSignatureEnvelope(envelope)) {
    const auto again = decodeSignatureEnvelope(canonical(*decoded));
    if (!again || *again != *decoded) fuzz::broken("envelope does not survive canonical", envelope);
  }

  const SignedRuleFeed::Proof proof{std::string(manifest), std::string(envelope)};
  if (SignedRuleFeed::verifyRelease(proof, kKeyFile, "1.1", "rules.linkwash.example")) {
    fuzz::broken("an unsigned release passed", manifest);
  }
  return 0;
}
