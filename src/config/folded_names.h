// Names without regard to ASCII case: hashed and compared eight bytes at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "internal/bytes.h"

namespace kel::config {

namespace detail {

/// Turns every 'A' to 'Z' among eight bytes to lower case.
constexpr std::uint64_t fold(std::uint64_t bytes) noexcept {
  constexpr std::uint64_t kEach = 0x0101010101010101;
  const std::uint64_t low = bytes & (0x7F * kEach);
  const std::uint64_t from_a = low + (0x80 - 'A') * kEach;
  const std::uint64_t beyond_z = low + (0x7F - 'Z') * kEach;
  const std::uint64_t upper = (from_a ^ beyond_z) & ~bytes & (0x80 * kEach);
  return bytes | upper >> 2;
}

inline std::uint64_t load_folded(const char* at) noexcept {
  return fold(internal::load_le<std::uint64_t>(at));
}

/// The bytes of a text of 1 to 7 bytes; with its length they determine it.
inline std::uint64_t load_short(const char* at, std::size_t size) noexcept {
  if (size >= 4) {
    const std::uint64_t head = internal::load_le<std::uint32_t>(at);
    return fold(head | std::uint64_t{internal::load_le<std::uint32_t>(at + size - 4)} << 32);
  }
  const auto byte = [at](std::size_t i) {
    return std::uint64_t{static_cast<unsigned char>(at[i])};
  };
  return fold(byte(0) | byte(size / 2) << 8 | byte(size - 1) << 16);
}

inline std::uint64_t mix(std::uint64_t a, std::uint64_t b) noexcept {
  __extension__ using Wide = unsigned __int128;
  const Wide product = static_cast<Wide>(a) * b;
  return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

}  // namespace detail

/// Differs from process to process, so that nobody can prepare names that share a hash.
std::uint64_t hash_seed() noexcept;

/// Equal for names that differ in ASCII case only. `seed` may also tell name spaces apart.
inline std::uint64_t folded_hash(std::string_view name, std::uint64_t seed) noexcept {
  constexpr std::uint64_t kStep = 0x9E3779B97F4A7C15;
  constexpr std::uint64_t kEnd = 0xE7037ED1A0B428DB;
  const char* at = name.data();
  std::size_t left = name.size();
  std::uint64_t hash = seed ^ left;
  for (; left >= 8; at += 8, left -= 8) hash = detail::mix(hash ^ detail::load_folded(at), kStep);
  if (left != 0) hash = detail::mix(hash ^ detail::load_short(at, left), kStep);
  return detail::mix(hash, kEnd);
}

inline bool folded_equal(std::string_view a, std::string_view b) noexcept {
  if (a.size() != b.size()) return false;
  const std::size_t size = a.size();
  if (size == 0) return true;
  if (size < 8) return detail::load_short(a.data(), size) == detail::load_short(b.data(), size);
  for (std::size_t i = 0; i + 8 < size; i += 8)
    if (detail::load_folded(a.data() + i) != detail::load_folded(b.data() + i)) return false;
  return detail::load_folded(a.data() + size - 8) == detail::load_folded(b.data() + size - 8);
}

}  // namespace kel::config
