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

namespace detail {
constexpr unsigned char continuation(std::uint32_t code) noexcept {
  return static_cast<unsigned char>(0x80 | (code & 0x3F));
}
}  // namespace detail

/// Writes `code` and returns the place after it.
constexpr unsigned char* put_utf8(std::uint32_t code, unsigned char* out) noexcept {
  if (code < 0x80) {
    *out = static_cast<unsigned char>(code);
    return out + 1;
  }
  if (code < 0x800) {
    out[0] = static_cast<unsigned char>(0xC0 | code >> 6);
    out[1] = detail::continuation(code);
    return out + 2;
  }
  if (code < 0x10000) {
    out[0] = static_cast<unsigned char>(0xE0 | code >> 12);
    out[1] = detail::continuation(code >> 6);
    out[2] = detail::continuation(code);
    return out + 3;
  }
  if (code < 0x200000) {
    out[0] = static_cast<unsigned char>(0xF0 | code >> 18);
    out[1] = detail::continuation(code >> 12);
    out[2] = detail::continuation(code >> 6);
    out[3] = detail::continuation(code);
    return out + 4;
  }
  const std::size_t size = utf8_size(code);
  code &= 0x7FFFFFFF;
  for (std::size_t i = size - 1; i != 0; --i, code >>= 6) out[i] = detail::continuation(code);
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
  const unsigned lead = *s;
  if (lead < 0xC0) {
    *code = static_cast<Code>(lead);
    return s + 1;
  }
  if (lead < 0xE0) {
    *code = static_cast<Code>((lead & 0x1F) << 6 | (s[1] & 0x3F));
    return s + 2;
  }
  if (lead < 0xF0) {
    *code = static_cast<Code>((lead & 0x0F) << 12 | (s[1] & 0x3F) << 6 | (s[2] & 0x3F));
    return s + 3;
  }
  if (lead < 0xF8) {
    *code = static_cast<Code>((lead & 0x07) << 18 | (s[1] & 0x3F) << 12 | (s[2] & 0x3F) << 6 |
                              (s[3] & 0x3F));
    return s + 4;
  }
  const std::size_t size = utf8_form(*s);
  std::uint32_t value = size == 1 ? lead : lead & (0x7FU >> size);
  for (std::size_t i = 1; i < size; ++i) value = value << 6 | (s[i] & 0x3FU);
  *code = static_cast<Code>(value);
  return s + size;
}

}  // namespace kel::internal
