// Base64 encoding and strict decoding.
#include "platform/crypto/base64.h"

#include <array>

namespace linkwash {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr int kInvalid = -1;

constexpr std::array<int, 256> makeDecodeTable() {
  std::array<int, 256> table{};
  table.fill(kInvalid);
  for (int i = 0; i < 64; ++i) table[static_cast<unsigned char>(kAlphabet[i])] = i;
  return table;
}

constexpr std::array<int, 256> kDecodeTable = makeDecodeTable();

}  // namespace

std::string base64Encode(std::span<const std::uint8_t> bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const std::uint32_t group = (bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
    text.push_back(kAlphabet[(group >> 18) & 0x3F]);
    text.push_back(kAlphabet[(group >> 12) & 0x3F]);
    text.push_back(kAlphabet[(group >> 6) & 0x3F]);
    text.push_back(kAlphabet[group & 0x3F]);
  }
  const std::size_t rest = bytes.size() - i;
  if (rest == 1) {
    const std::uint32_t group = bytes[i] << 16;
    text.push_back(kAlphabet[(group >> 18) & 0x3F]);
    text.push_back(kAlphabet[(group >> 12) & 0x3F]);
    text.append("==");
  } else if (rest == 2) {
    const std::uint32_t group = (bytes[i] << 16) | (bytes[i + 1] << 8);
    text.push_back(kAlphabet[(group >> 18) & 0x3F]);
    text.push_back(kAlphabet[(group >> 12) & 0x3F]);
    text.push_back(kAlphabet[(group >> 6) & 0x3F]);
    text.push_back('=');
  }
  return text;
}

std::string base64Encode(std::string_view bytes) {
  return base64Encode(std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
}

std::optional<Bytes> base64Decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::size_t padding = 0;
  if (!text.empty() && text.back() == '=') padding = text[text.size() - 2] == '=' ? 2 : 1;
  const std::size_t dataChars = text.size() - padding;

  Bytes bytes;
  bytes.reserve(text.size() / 4 * 3);
  std::uint32_t accumulator = 0;
  int bits = 0;
  for (std::size_t i = 0; i < dataChars; ++i) {
    const int value = kDecodeTable[static_cast<unsigned char>(text[i])];
    if (value == kInvalid) return std::nullopt;  // also any "=" before the padding
    accumulator = (accumulator << 6) | static_cast<std::uint32_t>(value);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      bytes.push_back(static_cast<std::uint8_t>(accumulator >> bits));
      accumulator &= (1u << bits) - 1;
    }
  }
  return bytes;
}

std::optional<Bytes> base64DecodeCanonical(std::string_view text) {
  auto bytes = base64Decode(text);
  if (!bytes || base64Encode(*bytes) != text) return std::nullopt;
  return bytes;
}

}  // namespace linkwash
