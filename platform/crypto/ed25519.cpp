// Ed25519 over OpenSSL's EVP interface (raw keys, one-shot DigestSign/DigestVerify).
#include "platform/crypto/ed25519.h"

#include <algorithm>
#include <memory>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>

namespace linkwash {
namespace {

struct PkeyDeleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct PkeyCtxDeleter {
  void operator()(EVP_PKEY_CTX* ctx) const { EVP_PKEY_CTX_free(ctx); }
};
struct MdCtxDeleter {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyDeleter>;
using PkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, PkeyCtxDeleter>;
using MdCtxPtr = std::unique_ptr<EVP_MD_CTX, MdCtxDeleter>;

// A refused key or signature is an ordinary answer here, so whatever OpenSSL queued while
// refusing it must not linger for the next OpenSSL user on this thread (a TLS session, say).
class ErrorQueueGuard {
 public:
  ErrorQueueGuard() { ERR_set_mark(); }
  ~ErrorQueueGuard() { ERR_pop_to_mark(); }
  ErrorQueueGuard(const ErrorQueueGuard&) = delete;
  ErrorQueueGuard& operator=(const ErrorQueueGuard&) = delete;
};

PkeyPtr rawPublicKey(std::span<const std::uint8_t> key) {
  if (key.size() != kEd25519PublicKeySize) return nullptr;
  return PkeyPtr(EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, key.data(), key.size()));
}

std::span<const std::uint8_t> asBytes(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

}  // namespace

bool ed25519AcceptsPublicKey(std::span<const std::uint8_t> key) {
  ErrorQueueGuard guard;
  return rawPublicKey(key) != nullptr;
}

bool ed25519Verify(std::span<const std::uint8_t> publicKey, std::span<const std::uint8_t> message,
                   std::span<const std::uint8_t> signature) {
  ErrorQueueGuard guard;
  if (signature.size() != kEd25519SignatureSize) return false;
  PkeyPtr key = rawPublicKey(publicKey);
  MdCtxPtr ctx(EVP_MD_CTX_new());
  if (!key || !ctx) return false;
  if (EVP_DigestVerifyInit(ctx.get(), nullptr, nullptr, nullptr, key.get()) != 1) return false;
  return EVP_DigestVerify(ctx.get(), signature.data(), signature.size(), message.data(),
                          message.size()) == 1;
}

bool ed25519Verify(std::span<const std::uint8_t> publicKey, std::string_view message,
                   std::span<const std::uint8_t> signature) {
  return ed25519Verify(publicKey, asBytes(message), signature);
}

std::optional<Ed25519SigningKey> Ed25519SigningKey::generate() {
  ErrorQueueGuard guard;
  PkeyCtxPtr ctx(EVP_PKEY_CTX_new_id(EVP_PKEY_ED25519, nullptr));
  if (!ctx || EVP_PKEY_keygen_init(ctx.get()) != 1) return std::nullopt;
  EVP_PKEY* generated = nullptr;
  if (EVP_PKEY_keygen(ctx.get(), &generated) != 1) return std::nullopt;
  PkeyPtr key(generated);

  Ed25519Seed seed{};
  std::size_t length = seed.size();
  if (EVP_PKEY_get_raw_private_key(key.get(), seed.data(), &length) != 1 || length != seed.size()) {
    OPENSSL_cleanse(seed.data(), seed.size());
    return std::nullopt;
  }
  auto result = fromSeed(seed);
  OPENSSL_cleanse(seed.data(), seed.size());
  return result;
}

std::optional<Ed25519SigningKey> Ed25519SigningKey::fromSeed(std::span<const std::uint8_t> seed) {
  ErrorQueueGuard guard;
  if (seed.size() != kEd25519SeedSize) return std::nullopt;
  PkeyPtr key(EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, seed.data(), seed.size()));
  if (!key) return std::nullopt;
  Ed25519PublicKey publicKey{};
  std::size_t length = publicKey.size();
  if (EVP_PKEY_get_raw_public_key(key.get(), publicKey.data(), &length) != 1 ||
      length != publicKey.size()) {
    return std::nullopt;
  }
  Ed25519Seed ownSeed{};
  std::copy(seed.begin(), seed.end(), ownSeed.begin());
  Ed25519SigningKey result(ownSeed, publicKey);
  OPENSSL_cleanse(ownSeed.data(), ownSeed.size());
  return result;
}

Ed25519SigningKey::~Ed25519SigningKey() { OPENSSL_cleanse(seed_.data(), seed_.size()); }

std::optional<Ed25519Signature> Ed25519SigningKey::sign(
    std::span<const std::uint8_t> message) const {
  ErrorQueueGuard guard;
  PkeyPtr key(EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, seed_.data(), seed_.size()));
  MdCtxPtr ctx(EVP_MD_CTX_new());
  if (!key || !ctx) return std::nullopt;
  if (EVP_DigestSignInit(ctx.get(), nullptr, nullptr, nullptr, key.get()) != 1) {
    return std::nullopt;
  }
  Ed25519Signature signature{};
  std::size_t length = signature.size();
  if (EVP_DigestSign(ctx.get(), signature.data(), &length, message.data(), message.size()) != 1 ||
      length != signature.size()) {
    return std::nullopt;
  }
  return signature;
}

std::optional<Ed25519Signature> Ed25519SigningKey::sign(std::string_view message) const {
  return sign(asBytes(message));
}

}  // namespace linkwash
