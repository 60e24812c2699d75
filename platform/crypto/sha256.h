// SHA-256 digests (FIPS 180-4) through OpenSSL, for checking downloaded files against the
// digests a signed manifest lists.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace linkwash {

using Sha256Digest = std::array<std::uint8_t, 32>;

Sha256Digest sha256(std::span<const std::uint8_t> data);
Sha256Digest sha256(std::string_view data);

// Incremental form for data that arrives in pieces. Not thread-safe; one object per stream. A
// moved-from object may only be assigned to or destroyed.
class Sha256 {
 public:
  Sha256();
  Sha256(Sha256&&) noexcept;
  Sha256& operator=(Sha256&&) noexcept;
  ~Sha256();

  void update(std::span<const std::uint8_t> data);
  void update(std::string_view data);
  // Returns the digest of everything added and starts over with nothing added.
  Sha256Digest finish();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Two lower-case hex digits per byte.
std::string hexLower(std::span<const std::uint8_t> bytes);

}  // namespace linkwash
