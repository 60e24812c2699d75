// Small helpers shared by the fuzz targets.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace linkwash::fuzz {

// Splits an input into N parts at its first N-1 NUL bytes (missing parts are empty), so one input
// can carry a document together with its signature or key file.
template <std::size_t N>
std::array<std::string_view, N> parts(const std::uint8_t* data, std::size_t size) {
  std::array<std::string_view, N> out{};
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  for (std::size_t i = 0; i + 1 < N; ++i) {
    const std::size_t nul = rest.find('\0');
    if (nul == std::string_view::npos) {
      out[i] = rest;
      return out;
    }
    out[i] = rest.substr(0, nul);
    rest.remove_prefix(nul + 1);
  }
  out[N - 1] = rest;
  return out;
}

// Reports a broken property with the input that broke it and stops, so libFuzzer keeps the input.
[[noreturn]] inline void broken(const char* what, std::string_view input) {
  std::fprintf(stderr, "%s: \"%.*s\"\n", what, static_cast<int>(input.size()), input.data());
  std::abort();
}

}  // namespace linkwash::fuzz
