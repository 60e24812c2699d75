// On-disk cache of compiled prefilter sets, so that loading a large rule file does not pay for
// compiling its index again. An entry is used only when its key (a digest of the exact pattern
// texts and the index format) and the digest of its own bytes both check out; anything else is
// rebuilt from the patterns.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "core/rules/internal/match_index.h"

namespace linkwash::internal {

std::unique_ptr<PrefilterSet> loadCachedPrefilter(const std::vector<std::string>& patterns,
                                                  bool literalHash, bool exact);
// Best effort: a cache that cannot be written is simply not used next time.
void storeCachedPrefilter(const std::vector<std::string>& patterns, bool literalHash, bool exact,
                          const PrefilterSet& set);

}  // namespace linkwash::internal
