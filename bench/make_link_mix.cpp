// Writes the benchmark link mix, one link per line: linkwash_make_link_mix COUNT > links.txt
#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench/link_mix.h"

int main(int argc, char** argv) {
  const std::size_t count = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1000000;
  // Generate in slices so a million links never sit in memory at once.
  constexpr std::size_t kSlice = 100000;
  for (std::size_t done = 0, slice = 0; done < count; ++slice) {
    const std::size_t n = std::min(kSlice, count - done);
    auto links = linkwash::bench::makeLinkMix(n, 20261123 + static_cast<std::uint32_t>(slice));
    if (links.empty()) {
      std::fprintf(stderr, "linkwash_make_link_mix: cannot read the link corpus\n");
      return 1;
    }
    for (const auto& link : links) std::printf("%s\n", link.c_str());
    done += n;
  }
  return 0;
}
