#include "core/rules/internal/prefilter_cache.h"

#include <cstdlib>

#include <hs/hs.h>

#include "base/strings.h"
#include "platform/crypto/sha256.h"
#include "platform/fs/files.h"
#include "platform/fs/paths.h"

namespace linkwash::internal {
namespace {

constexpr std::string_view kHeader = "linkwash-prefilter-cache 2\n";

std::string cacheKey(const std::vector<std::string>& patterns, bool literalHash, bool exact) {
  Sha256 hasher;
  hasher.update(kHeader);
  // The engine's build matters: a database from another Vectorscan release is not loadable.
  hasher.update(std::string_view(hs_version()));
  hasher.update(literalHash ? "L" : "N");
  hasher.update(exact ? "E" : "P");
  for (const auto& pattern : patterns) {
    const auto size = std::to_string(pattern.size());
    hasher.update(size);
    hasher.update(":");
    hasher.update(pattern);
  }
  const auto digest = hasher.finish();
  return hexLower(digest);
}

bool cacheDisabled() {
  const char* value = std::getenv("LINKWASH_NO_INDEX_CACHE");
  return value != nullptr && *value != '\0' && std::string_view(value) != "0";
}

std::filesystem::path cachePath(const std::string& key) {
  return paths::cache() / "index" / (key + ".bin");
}

}  // namespace

std::unique_ptr<PrefilterSet> loadCachedPrefilter(const std::vector<std::string>& patterns,
                                                  bool literalHash, bool exact) {
  if (cacheDisabled()) return nullptr;
  const std::string key = cacheKey(patterns, literalHash, exact);
  auto bytes = files::readFile(cachePath(key));
  if (!bytes) return nullptr;
  // Layout: header, key, digest of the payload (both hex, one line each), payload.
  std::string_view data(*bytes);
  if (!startsWith(data, kHeader)) return nullptr;
  data.remove_prefix(kHeader.size());
  if (data.size() < 130 || data.substr(0, 64) != key || data[64] != '\n' || data[129] != '\n') {
    return nullptr;
  }
  const std::string_view digest = data.substr(65, 64);
  const std::string_view payload = data.substr(130);
  if (hexLower(sha256(payload)) != digest) return nullptr;
  return PrefilterSet::restore(patterns, literalHash, payload);
}

void storeCachedPrefilter(const std::vector<std::string>& patterns, bool literalHash, bool exact,
                          const PrefilterSet& set) {
  if (cacheDisabled()) return;
  const std::string payload = set.serialize();
  if (payload.empty()) return;
  const std::string key = cacheKey(patterns, literalHash, exact);
  std::string file(kHeader);
  file += key + "\n" + hexLower(sha256(payload)) + "\n";
  file += payload;
  (void)files::writeFileAtomically(cachePath(key), file);
}

}  // namespace linkwash::internal
