// A realistic mix of links for benchmarks, built deterministically from the real-link corpus:
// clean links as they are, links with tracking parameters added, redirect wrappers, long queries
// and non-ASCII text, in roughly the proportions people paste them.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace linkwash::bench {

// The shared folder beside the checkout ($LINKWASH_SHARED_DIR overrides).
std::filesystem::path sharedDir();

// `count` links; empty when the corpus cannot be read.
std::vector<std::string> makeLinkMix(std::size_t count, std::uint32_t seed = 20261123);

// The lines of the file $LINKWASH_BENCH_CORPUS when it is set and readable, otherwise
// makeLinkMix(count).
std::vector<std::string> benchmarkLinks(std::size_t count);

}  // namespace linkwash::bench
