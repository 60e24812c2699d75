// Counts every heap allocation of the benchmark process, so benchmarks can report allocations
// per operation.
#pragma once

#include <cstdint>

namespace linkwash::bench {
std::uint64_t allocationCount();
}
