// The 1- to 6-byte forms of UTF-8 for values of 31 bits (RFC 2279), which neither know surrogates
// nor over-long forms. Well-formed text is a matter of utf8.cc.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

namespace kel::internal {

/// The bytes of the form that holds `code`; bit 31 is ignored.
constexpr std::size_t utf8_size(std::uint32_t code) noexcept {
  if (code < 0x80) return 1;
  if (code < 0x800) return 2;
  if (code < 0x10000) return 3;
  if (code < 0x200000) return 4;
  return code < 0x4000000 ? 5 : 6;
}

/// Writes `code` and returns the place after it.
constexpr unsigned char* put_utf8(std::uint32_t code, unsigned char* out) noexcept {
  if (code < 0x80) {
    *out = static_cast<unsigned char>(code);
    return out + 1;
  }
  const std::size_t size = utf8_size(code);
  code &= 0x7FFFFFFF;
  for (std::size_t i = size - 1; i != 0; --i, code >>= 6)
    out[i] = static_cast<unsigned char>(0x80 | (code & 0x3F));
  out[0] = static_cast<unsigned char>(0xFF00 >> size | code);
  return out + size;
}

/// The bytes of the form that `lead` begins: 1 to 6; also 1 for a byte that begins none.
constexpr std::size_t utf8_form(unsigned char lead) noexcept {
  const int ones = std::countl_one(lead);
  return ones >= 2 && ones <= 6 ? static_cast<std::size_t>(ones) : 1;
}

constexpr bool is_utf8_continuation(unsigned char byte) noexcept { return (byte & 0xC0) == 0x80; }

/// Reads the form at `s` unchecked and returns the place after it.
template <class Code>
constexpr const unsigned char* get_utf8(const unsigned char* s, Code* code) noexcept {
  const std::size_t size = utf8_form(*s);
  std::uint32_t value = size == 1 ? *s : *s & (0x7FU >> size);
  for (std::size_t i = 1; i < size; ++i) value = value << 6 | (s[i] & 0x3FU);
  *code = static_cast<Code>(value);
  return s + size;
}

}  // namespace kel::internal
