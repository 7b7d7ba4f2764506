// Hexadecimal text: lowercase out, either case in.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

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

/// Writes two digits for each of `count` bytes; no terminator.
inline void hex_encode(const unsigned char* bytes, std::size_t count, char* text) noexcept {
  for (std::size_t i = 0; i < count; ++i) {
    text[2 * i] = detail::kHexPairs[2 * std::size_t{bytes[i]}];
    text[2 * i + 1] = detail::kHexPairs[2 * std::size_t{bytes[i]} + 1];
  }
}

/// Reads `count` bytes from twice as many digits and returns that number of digits; else the
/// position of the first character that is none.
inline std::size_t hex_decode(const char* text, std::size_t count, unsigned char* bytes) noexcept {
  for (std::size_t i = 0; i < count; ++i) {
    const int high = hex_value(text[2 * i]);
    if (high < 0) return 2 * i;
    const int low = hex_value(text[2 * i + 1]);
    if (low < 0) return 2 * i + 1;
    bytes[i] = static_cast<unsigned char>(high << 4 | low);
  }
  return 2 * count;
}

}  // namespace kel::internal
