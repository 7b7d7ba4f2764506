// Big- and little-endian loads and stores at any alignment.
#pragma once

#include <bit>
#include <concepts>
#include <cstring>

namespace kel::internal {

template <std::unsigned_integral T>
constexpr T byte_swap(T value) noexcept {
  if constexpr (sizeof(T) == 1)
    return value;
  else if constexpr (sizeof(T) == 2)
    return static_cast<T>(__builtin_bswap16(value));
  else if constexpr (sizeof(T) == 4)
    return __builtin_bswap32(value);
  else
    return __builtin_bswap64(value);
}

static_assert(std::endian::native == std::endian::little, "the library is for x86-64");

template <std::unsigned_integral T>
T load_be(const void* from) noexcept {
  T value;
  std::memcpy(&value, from, sizeof value);
  return byte_swap(value);
}

template <std::unsigned_integral T>
void store_be(void* to, T value) noexcept {
  value = byte_swap(value);
  std::memcpy(to, &value, sizeof value);
}

template <std::unsigned_integral T>
T load_le(const void* from) noexcept {
  T value;
  std::memcpy(&value, from, sizeof value);
  return value;
}

template <std::unsigned_integral T>
void store_le(void* to, T value) noexcept {
  std::memcpy(to, &value, sizeof value);
}

}  // namespace kel::internal
