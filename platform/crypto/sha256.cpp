// SHA-256 over OpenSSL's EVP interface.
#include "platform/crypto/sha256.h"

#include <cstdlib>

#include <openssl/evp.h>

namespace linkwash {
namespace {

// EVP digests fail only when OpenSSL cannot allocate; like std::bad_alloc elsewhere, that is not
// a state the program can recover from, and handing back a made-up digest would be worse.
void requireOk(int rc) {
  if (rc != 1) std::abort();
}

}  // namespace

struct Sha256::Impl {
  EVP_MD_CTX* ctx = nullptr;
  Impl() : ctx(EVP_MD_CTX_new()) {
    if (ctx == nullptr) std::abort();
    requireOk(EVP_DigestInit_ex(ctx, EVP_sha256(), nullptr));
  }
  ~Impl() { EVP_MD_CTX_free(ctx); }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;
};

Sha256::Sha256() : impl_(std::make_unique<Impl>()) {}
Sha256::Sha256(Sha256&&) noexcept = default;
Sha256& Sha256::operator=(Sha256&&) noexcept = default;
Sha256::~Sha256() = default;

void Sha256::update(std::span<const std::uint8_t> data) {
  requireOk(EVP_DigestUpdate(impl_->ctx, data.data(), data.size()));
}

void Sha256::update(std::string_view data) {
  requireOk(EVP_DigestUpdate(impl_->ctx, data.data(), data.size()));
}

Sha256Digest Sha256::finish() {
  Sha256Digest digest{};
  unsigned int length = 0;
  requireOk(EVP_DigestFinal_ex(impl_->ctx, digest.data(), &length));
  if (length != digest.size()) std::abort();
  requireOk(EVP_DigestInit_ex(impl_->ctx, EVP_sha256(), nullptr));
  return digest;
}

Sha256Digest sha256(std::span<const std::uint8_t> data) {
  Sha256Digest digest{};
  unsigned int length = 0;
  requireOk(EVP_Digest(data.data(), data.size(), digest.data(), &length, EVP_sha256(), nullptr));
  return digest;
}

Sha256Digest sha256(std::string_view data) {
  return sha256(std::span(reinterpret_cast<const std::uint8_t*>(data.data()), data.size()));
}

std::string hexLower(std::span<const std::uint8_t> bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (std::uint8_t byte : bytes) {
    text.push_back(kDigits[byte >> 4]);
    text.push_back(kDigits[byte & 0x0F]);
  }
  return text;
}

}  // namespace linkwash
