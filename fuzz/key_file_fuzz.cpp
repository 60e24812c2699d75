// Trusted key files on arbitrary bytes. Exactly one form of a key set is accepted, so whatever
// parses must be that form: writing the parsed set back gives the input byte for byte.
#include <cstdint>
#include <string>

#include "core/signing/signature_verification.h"
#include "fuzz/fuzz_support.h"

using namespace linkwash;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto keys = parseKeyset(text);
  if (!keys) return 0;
  std::string written = "{";
  for (const auto& [id, key] : *keys) {
    if (written.size() > 1) written += ',';
    written += "\"" + id + "\":\"" + key + "\"";
  }
  written += '}';
  if (written != text) fuzz::broken("a key file that is not in the one accepted form", text);
  return 0;
}
