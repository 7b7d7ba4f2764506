// Hexadecimal text: lowercase out, either case in. 16 bytes at a time with what every x86-64 has.
#pragma once

#include <emmintrin.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kel::internal {

inline constexpr char kHexDigits[] = "0123456789abcdef";

namespace detail {
constexpr std::array<std::int8_t, 256> make_hex_values() {
  std::array<std::int8_t, 256> values{};
  for (auto& v : values) v = -1;
  for (std::size_t i = 0; i < 10; ++i) values['0' + i] = static_cast<std::int8_t>(i);
  for (std::size_t i = 0; i < 6; ++i)
    values['a' + i] = values['A' + i] = static_cast<std::int8_t>(10 + i);
  return values;
}

/// The two digits of every byte value, back to back.
constexpr std::array<char, 512> make_hex_pairs() {
  std::array<char, 512> pairs{};
  for (std::size_t i = 0; i < 256; ++i) {
    pairs[2 * i] = kHexDigits[i >> 4];
    pairs[2 * i + 1] = kHexDigits[i & 15];
  }
  return pairs;
}

inline constexpr auto kHexValues = make_hex_values();
inline constexpr auto kHexPairs = make_hex_pairs();
}  // namespace detail

/// 0 to 15, or -1 when `c` is no hexadecimal digit.
constexpr int hex_value(char c) noexcept {
  return detail::kHexValues[static_cast<unsigned char>(c)];
}

namespace detail {
/// A vector with `value` in each of its bytes.
inline __m128i all_bytes(int value) noexcept { return _mm_set1_epi8(static_cast<char>(value)); }

/// Where `values` is at most `limit`, both unsigned: 0xff, else 0.
inline __m128i at_most(__m128i values, int limit) noexcept {
  return _mm_cmpeq_epi8(_mm_min_epu8(values, all_bytes(limit)), values);
}

/// The digits of 16 values from 0 to 15.
inline __m128i digits_of(__m128i values) noexcept {
  const __m128i letters = _mm_cmpgt_epi8(values, all_bytes(9));
  return _mm_add_epi8(_mm_add_epi8(values, all_bytes('0')),
                      _mm_and_si128(letters, all_bytes('a' - '0' - 10)));
}

/// Replaces 16 digits by their values and returns true, or returns false when one is none.
inline bool values_of(__m128i* digits) noexcept {
  const __m128i decimal = _mm_sub_epi8(*digits, all_bytes('0'));
  const __m128i letter = _mm_sub_epi8(_mm_or_si128(*digits, all_bytes(0x20)), all_bytes('a'));
  const __m128i is_decimal = at_most(decimal, 9);
  const __m128i is_letter = at_most(letter, 5);
  *digits = _mm_or_si128(_mm_and_si128(is_decimal, decimal),
                         _mm_and_si128(is_letter, _mm_add_epi8(letter, all_bytes(10))));
  return _mm_movemask_epi8(_mm_or_si128(is_decimal, is_letter)) == 0xffff;
}

/// The bytes of 16 values, in the low halves of 8 words.
inline __m128i join_values(__m128i values) noexcept {
  const __m128i high = _mm_slli_epi16(values, 12);
  const __m128i low = _mm_srli_epi16(values, 8);
  return _mm_or_si128(_mm_srli_epi16(high, 8), low);
}
}  // namespace detail

/// Writes two digits for each of `count` bytes; no terminator.
inline void hex_encode(const unsigned char* bytes, std::size_t count, char* text) noexcept {
  for (; count >= 16; count -= 16, bytes += 16, text += 32) {
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
    const __m128i low = detail::digits_of(_mm_and_si128(block, detail::all_bytes(15)));
    const __m128i high =
        detail::digits_of(_mm_and_si128(_mm_srli_epi16(block, 4), detail::all_bytes(15)));
    auto* to = reinterpret_cast<__m128i*>(text);
    _mm_storeu_si128(to, _mm_unpacklo_epi8(high, low));
    _mm_storeu_si128(to + 1, _mm_unpackhi_epi8(high, low));
  }
  for (; count > 0; --count, ++bytes, text += 2)
    std::memcpy(text, &detail::kHexPairs[2 * std::size_t{*bytes}], 2);
}

/// Reads `count` bytes from twice as many digits and returns that number of digits; else the
/// position of the first character that is none, before which everything has been stored. All the
/// characters must be readable, also those behind such a one.
inline std::size_t hex_decode(const char* text, std::size_t count, unsigned char* bytes) noexcept {
  const char* const start = text;
  for (; count >= 16; count -= 16, bytes += 16, text += 32) {
    const auto* from = reinterpret_cast<const __m128i*>(text);
    __m128i first = _mm_loadu_si128(from);
    __m128i second = _mm_loadu_si128(from + 1);
    // When one is no digit, the loop below finds the place.
    if (!detail::values_of(&first) || !detail::values_of(&second)) break;
    _mm_storeu_si128(reinterpret_cast<__m128i*>(bytes),
                     _mm_packus_epi16(detail::join_values(first), detail::join_values(second)));
  }
  for (; count > 0; --count, ++bytes, text += 2) {
    const int high = hex_value(text[0]);
    const int low = high < 0 ? -1 : hex_value(text[1]);
    if (low < 0) return static_cast<std::size_t>(text - start) + (high < 0 ? 0 : 1);
    *bytes = static_cast<unsigned char>(high << 4 | low);
  }
  return static_cast<std::size_t>(text - start);
}

}  // namespace kel::internal
