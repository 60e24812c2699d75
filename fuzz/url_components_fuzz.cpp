// libFuzzer target for URLComponents: cross-checks every input against Boost.URL and against
// our own recomposition, and aborts on any disagreement.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "base/strings.h"
#include "platform/url/url_components.h"
#include "tests/platform/url/url_oracle.h"

namespace {

using linkwash::URLComponents;
using linkwash::testing::partsOf;

[[noreturn]] void disagree(const char* what, std::string_view text) {
  std::fprintf(stderr, "%s: \"%.*s\"\n", what, static_cast<int>(text.size()), text.data());
  std::abort();
}

bool allValidUtf8(const std::vector<linkwash::URLQueryItem>& items) {
  for (const auto& item : items) {
    if (!linkwash::isValidUtf8(item.name)) return false;
    if (item.value && !linkwash::isValidUtf8(*item.value)) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto ours = URLComponents::parse(text);
  const auto theirs = linkwash::testing::boostPartsOf(text);
  if (theirs && !ours && !linkwash::testing::isDocumentedRejection(*theirs)) {
    disagree("Boost accepts, we reject", text);
  }
  if (!ours) return 0;
  if (theirs && partsOf(*ours) != *theirs) disagree("components differ from Boost", text);
  if (ours->string() != text) disagree("round trip", text);

  // The decoders must not fail on anything the parser let through.
  (void)ours->host(), (void)ours->user(), (void)ours->password(), (void)ours->path();
  (void)ours->fragment();

  // Rewriting the query keeps every other component and the items themselves.
  const auto items = ours->queryItems();
  URLComponents rewritten = *ours;
  rewritten.setQueryItems(items);
  const auto again = rewritten.string();
  if (!again) disagree("rewritten query gives no text", text);
  const auto reparsed = URLComponents::parse(*again);
  if (!reparsed) disagree("rewritten query does not parse", text);
  auto expected = partsOf(*ours);
  expected.port = ours->port() ? std::optional(std::to_string(*ours->port())) : std::nullopt;
  expected.query = reparsed->percentEncodedQuery();
  if (partsOf(*reparsed) != expected) disagree("rewriting the query changed the rest", text);
  if (items && allValidUtf8(*items) && reparsed->queryItems() != items) {
    disagree("rewriting the query changed its items", text);
  }
  return 0;
}
