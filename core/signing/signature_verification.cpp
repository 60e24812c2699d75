// Strict signature checks: our own field arithmetic decides which keys and R values are
// acceptable points; OpenSSL then does the standard verification.
#include "core/signing/signature_verification.h"

#include <algorithm>
#include <array>

#include "base/strings.h"
#include "platform/crypto/base64.h"
#include "platform/crypto/ed25519.h"
#include "platform/crypto/sha256.h"
#include "platform/json/json_writer.h"
#include "platform/regex/regex.h"

namespace linkwash {
namespace {

// --- Arithmetic modulo p = 2^255 - 19 ------------------------------------------------------------

constexpr int kLimbCount = 17;
constexpr int kLimbBits = 15;
constexpr std::uint64_t kLimbMask = (1u << kLimbBits) - 1;

// An element as 17 limbs of 15 bits, least significant first. Every operation returns it fully
// reduced (each limb below 2^15, the value below p), so equal elements have equal limbs.
struct FieldElement {
  std::array<std::uint32_t, kLimbCount> limbs{};
  bool operator==(const FieldElement&) const = default;
};

using WideLimbs = std::array<std::uint64_t, kLimbCount>;

constexpr FieldElement kP = {{0x7FED, 0x7FFF, 0x7FFF, 0x7FFF, 0x7FFF, 0x7FFF, 0x7FFF, 0x7FFF,
                              0x7FFF, 0x7FFF, 0x7FFF, 0x7FFF, 0x7FFF, 0x7FFF, 0x7FFF, 0x7FFF,
                              0x7FFF}};
constexpr FieldElement kZero = {};
constexpr FieldElement kOne = {{1}};

// For limbs that each fit in 15 bits.
bool isBelowP(const FieldElement& value) {
  for (int i = kLimbCount - 1; i >= 0; --i) {
    if (value.limbs[i] != kP.limbs[i]) return value.limbs[i] < kP.limbs[i];
  }
  return false;
}

// The 255 low bits of 32 little-endian bytes; the sign bit (bit 255) is dropped. Not reduced.
FieldElement fromBytes(std::span<const std::uint8_t, 32> bytes) {
  FieldElement element;
  std::uint32_t pending = 0;
  int pendingBits = 0;
  int limb = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const std::uint32_t byte = i + 1 == bytes.size() ? bytes[i] & 0x7F : bytes[i];
    pending |= byte << pendingBits;
    pendingBits += 8;
    if (pendingBits >= kLimbBits && limb < kLimbCount) {
      element.limbs[limb++] = pending & kLimbMask;
      pending >>= kLimbBits;
      pendingBits -= kLimbBits;
    }
  }
  return element;
}

// Raw pointers in the two hot loops below keep unoptimised (debug and sanitizer) builds usable:
// they run these loops about half a million times per second of tests.
FieldElement normalize(WideLimbs wide) {
  std::uint64_t* limbs = wide.data();
  bool carried = true;
  while (carried) {
    carried = false;
    for (int i = 0; i < kLimbCount; ++i) {
      const std::uint64_t carry = limbs[i] >> kLimbBits;
      if (carry == 0) continue;
      carried = true;
      limbs[i] &= kLimbMask;
      if (i + 1 < kLimbCount) {
        limbs[i + 1] += carry;
      } else {
        limbs[0] += carry * 19;  // 2^255 = 19 (mod p)
      }
    }
  }
  FieldElement element;
  for (int i = 0; i < kLimbCount; ++i) element.limbs[i] = static_cast<std::uint32_t>(limbs[i]);
  if (!isBelowP(element)) {
    // Now below 2^255, so one subtraction of p reduces it fully.
    std::int64_t borrow = 0;
    for (int i = 0; i < kLimbCount; ++i) {
      std::int64_t limbValue = static_cast<std::int64_t>(element.limbs[i]) - kP.limbs[i] - borrow;
      borrow = limbValue < 0 ? 1 : 0;
      if (limbValue < 0) limbValue += std::int64_t{1} << kLimbBits;
      element.limbs[i] = static_cast<std::uint32_t>(limbValue);
    }
  }
  return element;
}

FieldElement multiply(const FieldElement& a, const FieldElement& b) {
  // Each product is below 2^30 and each of the 33 partial sums collects at most 17 of them.
  std::uint64_t sums[2 * kLimbCount - 1] = {};
  const std::uint32_t* x = a.limbs.data();
  const std::uint32_t* y = b.limbs.data();
  for (int i = 0; i < kLimbCount; ++i) {
    const std::uint64_t xi = x[i];
    std::uint64_t* row = sums + i;
    for (int j = 0; j < kLimbCount; ++j) row[j] += xi * y[j];
  }
  WideLimbs wide{};
  for (int i = 0; i < kLimbCount; ++i) wide[i] = sums[i];
  for (int i = kLimbCount; i < 2 * kLimbCount - 1; ++i) wide[i - kLimbCount] += 19 * sums[i];
  return normalize(wide);
}

// multiply(a, a) with each cross product computed once and doubled: the exponentiation below
// squares 254 times per point.
FieldElement square(const FieldElement& a) {
  std::uint64_t sums[2 * kLimbCount - 1] = {};
  const std::uint32_t* x = a.limbs.data();
  for (int i = 0; i < kLimbCount; ++i) {
    const std::uint64_t xi = x[i];
    sums[2 * i] += xi * xi;
    const std::uint64_t twiceXi = 2 * xi;
    std::uint64_t* row = sums + i;
    for (int j = i + 1; j < kLimbCount; ++j) row[j] += twiceXi * x[j];
  }
  WideLimbs wide{};
  for (int i = 0; i < kLimbCount; ++i) wide[i] = sums[i];
  for (int i = kLimbCount; i < 2 * kLimbCount - 1; ++i) wide[i - kLimbCount] += 19 * sums[i];
  return normalize(wide);
}

// (p - 1) / 2 = 2^254 - 10: bits 4 to 253 set, bits 2 and 1 set, bits 3 and 0 clear.
bool halfPMinusOneBit(int bit) { return bit >= 4 || bit == 2 || bit == 1; }

// Euler's criterion: x^((p-1)/2) is 1 for a non-zero square, p - 1 for a non-square.
FieldElement legendrePower(const FieldElement& x) {
  FieldElement result = kOne;
  for (int bit = 253; bit >= 0; --bit) {
    result = square(result);
    if (halfPMinusOneBit(bit)) result = multiply(result, x);
  }
  return result;
}

std::array<std::uint8_t, 32> bytesFromHex(std::string_view hex) {
  std::array<std::uint8_t, 32> bytes{};
  auto nibble = [](char c) { return static_cast<std::uint8_t>(c <= '9' ? c - '0' : c - 'a' + 10); };
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = static_cast<std::uint8_t>(nibble(hex[2 * i]) << 4 | nibble(hex[2 * i + 1]));
  }
  return bytes;
}

// The Edwards curve constant d of Ed25519.
const FieldElement& curveD() {
  static const FieldElement d =
      fromBytes(bytesFromHex("a3785913ca4deb75abd841414d0a700098e879777940c78c73fe6f2bee6c0352"));
  return d;
}

// --- Point and scalar rules --------------------------------------------------------------------

// Encodings of the points of small order (orders 1, 2, 4 and 8), several also with the sign bit
// set. With such a key or R one signature can hold for many messages or many keys, so they are
// refused outright even where they decode.
bool isBlockedPointEncoding(std::span<const std::uint8_t> bytes) {
  static constexpr std::array<std::string_view, 8> kBlocked = {
      "0100000000000000000000000000000000000000000000000000000000000000",
      "c7176a703d4dd84fba3c0b760d10670f2a2053fa2c39ccc64ec7fd7792ac037a",
      "0000000000000000000000000000000000000000000000000000000000000080",
      "26e8958fc2b227b045c3f489f2ef98f0d5dfac05d3c63339b13802886d53fc05",
      "ecffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
      "26e8958fc2b227b045c3f489f2ef98f0d5dfac05d3c63339b13802886d53fc85",
      "0000000000000000000000000000000000000000000000000000000000000000",
      "c7176a703d4dd84fba3c0b760d10670f2a2053fa2c39ccc64ec7fd7792ac03fa",
  };
  const std::string hex = hexLower(bytes);
  return std::find(kBlocked.begin(), kBlocked.end(), hex) != kBlocked.end();
}

// The group order, 2^252 + 27742317777372353535851937790883648493, little-endian.
constexpr std::array<std::uint8_t, 32> kGroupOrder = {
    0xed, 0xd3, 0xf5, 0x5c, 0x1a, 0x63, 0x12, 0x58, 0xd6, 0x9c, 0xf7, 0xa2, 0xde, 0xf9, 0xde, 0x14,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x10};

// --- Key files and envelopes --------------------------------------------------------------------

bool isKeyId(std::string_view text) {
  if (text.empty() || text.size() > 64) return false;
  return std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
  });
}

const std::optional<Regex>& keyEntryPattern() {
  static const std::optional<Regex> pattern =
      Regex::compile(R"re(^"([a-z0-9-]{1,64})":"([A-Za-z0-9+/]{43}=)"$)re");
  return pattern;
}

std::span<const std::uint8_t> asBytes(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

}  // namespace

bool acceptsPublicPoint(std::span<const std::uint8_t> bytes) {
  if (bytes.size() != 32) return false;
  if (isBlockedPointEncoding(bytes)) return false;
  const FieldElement y = fromBytes(bytes.first<32>());
  if (!isBelowP(y)) return false;  // a second spelling of y - p

  // The curve -x^2 + y^2 = 1 + d x^2 y^2 gives x^2 = u / v.
  const FieldElement ySquared = square(y);
  WideLimbs uLimbs{};
  for (int i = 0; i < kLimbCount; ++i) uLimbs[i] = std::uint64_t{ySquared.limbs[i]} + kP.limbs[i];
  uLimbs[0] -= 1;
  const FieldElement u = normalize(uLimbs);

  const FieldElement dySquared = multiply(curveD(), ySquared);
  WideLimbs vLimbs{};
  for (int i = 0; i < kLimbCount; ++i) vLimbs[i] = dySquared.limbs[i];
  vLimbs[0] += 1;
  const FieldElement v = normalize(vLimbs);

  // u = 0 means x = 0: the identity or the point of order two, in either sign.
  if (u == kZero || v == kZero) return false;
  // u / v is a square exactly when u * v is (they differ by the square v^2).
  return legendrePower(multiply(u, v)) == kOne;
}

bool isCanonicalScalar(std::span<const std::uint8_t> bytes) {
  if (bytes.size() != kGroupOrder.size()) return false;
  for (int i = static_cast<int>(bytes.size()) - 1; i >= 0; --i) {
    if (bytes[i] != kGroupOrder[i]) return bytes[i] < kGroupOrder[i];
  }
  return false;  // equal to the order
}

std::optional<Keyset> parseKeyset(std::string_view data) {
  if (data.size() > kMaxKeyFileSize || !isPrintableAscii(data)) return std::nullopt;
  if (data.size() < 2 || data.front() != '{' || data.back() != '}') return std::nullopt;
  Keyset keys;
  const std::string_view body = data.substr(1, data.size() - 2);
  if (body.empty()) return keys;

  const auto entries = split(body, ',');
  if (entries.size() > kMaxKeysetEntries) return std::nullopt;
  const auto& pattern = keyEntryPattern();
  if (!pattern) return std::nullopt;
  std::string previousId;
  for (std::string_view entry : entries) {
    const auto match = pattern->firstMatch(entry);
    if (!match || match->ranges.size() < 3 || match->ranges[0] != RegexRange{0, entry.size()}) {
      return std::nullopt;
    }
    const auto id = match->group(entry, 1);
    const auto keyText = match->group(entry, 2);
    if (!id || !keyText) return std::nullopt;
    if (!keys.empty() && !(previousId < *id)) return std::nullopt;
    const auto key = base64DecodeCanonical(*keyText);
    if (!key || !acceptsPublicPoint(*key)) return std::nullopt;
    previousId = std::string(*id);
    keys.emplace(previousId, std::string(*keyText));
  }
  return keys;
}

std::optional<SignatureEnvelope> decodeSignatureEnvelope(std::string_view bytes) {
  const auto json = parseJson(bytes);
  if (!json || !json->is_object()) return std::nullopt;
  auto stringMember = [&](const char* name) -> std::optional<std::string> {
    const auto it = json->find(name);
    if (it == json->end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
  };
  auto algorithm = stringMember("algorithm");
  auto keyId = stringMember("keyID");
  auto signature = stringMember("signature");
  if (!algorithm || !keyId || !signature) return std::nullopt;
  return SignatureEnvelope{std::move(*algorithm), std::move(*keyId), std::move(*signature)};
}

std::string canonical(const SignatureEnvelope& envelope) {
  Json json = Json::object();
  json["algorithm"] = envelope.algorithm;
  json["keyID"] = envelope.keyID;
  json["signature"] = envelope.signature;
  return canonicalJson(json);
}

bool verifySignatureEnvelope(std::span<const std::uint8_t> message, std::string_view envelope,
                             const Keyset& keys) {
  if (envelope.size() > kMaxSignatureEnvelopeSize) return false;
  const auto decoded = decodeSignatureEnvelope(envelope);
  if (!decoded || canonical(*decoded) != envelope) return false;
  if (decoded->algorithm != kSignatureAlgorithm || !isKeyId(decoded->keyID)) return false;

  const auto keyText = keys.find(decoded->keyID);
  if (keyText == keys.end()) return false;
  const auto key = base64DecodeCanonical(keyText->second);
  if (!key || key->size() != kEd25519PublicKeySize) return false;
  const auto signature = base64DecodeCanonical(decoded->signature);
  if (!signature || signature->size() != kEd25519SignatureSize) return false;

  const std::span<const std::uint8_t> signatureBytes(*signature);
  if (!acceptsPublicPoint(*key) || !acceptsPublicPoint(signatureBytes.first(32)) ||
      !isCanonicalScalar(signatureBytes.last(32))) {
    return false;
  }
  return ed25519AcceptsPublicKey(*key) && ed25519Verify(*key, message, signatureBytes);
}

std::string ruleManifestSignedMessage(std::string_view manifest) {
  std::string message;
  message.reserve(kRuleManifestSignaturePrefix.size() + manifest.size());
  message.append(kRuleManifestSignaturePrefix);
  message.append(manifest);
  return message;
}

Result<void> verifyProof(std::string_view manifest, std::string_view envelope,
                         std::string_view keyFile) {
  auto rejected = [] { return fail(std::string(kSignedRuleFeedRejected)); };
  if (manifest.size() > kMaxRuleManifestSize || envelope.size() > kMaxSignatureEnvelopeSize) {
    return rejected();
  }
  const auto keys = parseKeyset(keyFile);
  if (!keys) return rejected();
  const std::string message = ruleManifestSignedMessage(manifest);
  if (!verifySignatureEnvelope(asBytes(message), envelope, *keys)) return rejected();
  return {};
}

bool verifyCatalogSignature(std::string_view payload, std::string_view envelope,
                            std::string_view keyFile) {
  if (payload.size() > kMaxCatalogPayloadSize || envelope.size() > kMaxSignatureEnvelopeSize) {
    return false;
  }
  if (!isPrintableAscii(payload)) return false;
  const auto keys = parseKeyset(keyFile);
  return keys && verifySignatureEnvelope(asBytes(payload), envelope, *keys);
}

std::string encodeHighestVersionRecord(std::string_view version) {
  Json json = Json::object();
  json["sha256"] = hexLower(sha256(version));
  json["version"] = std::string(version);
  return canonicalJson(json);
}

std::optional<std::string> decodeHighestVersionRecord(std::string_view bytes) {
  if (bytes.size() > 1024) return std::nullopt;
  const auto json = parseJson(bytes);
  if (!json || !json->is_object()) return std::nullopt;
  const auto digest = json->find("sha256");
  const auto version = json->find("version");
  if (digest == json->end() || version == json->end() || !digest->is_string() ||
      !version->is_string()) {
    return std::nullopt;
  }
  const auto& text = version->get_ref<const std::string&>();
  if (digest->get_ref<const std::string&>() != hexLower(sha256(text))) return std::nullopt;
  return text;
}

}  // namespace linkwash
