// What differs between char and wchar_t, so that a narrow function and its wide twin are one
// template.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <cwchar>

namespace kel::internal {

template <class Char>
struct TextTraits;

template <>
struct TextTraits<char> {
  static std::size_t length(const char* s) noexcept { return std::strlen(s); }
  /// The length of `s`, or `max` when no terminator lies within the first `max` characters.
  static std::size_t length(const char* s, std::size_t max) noexcept { return ::strnlen(s, max); }
};

template <>
struct TextTraits<wchar_t> {
  static std::size_t length(const wchar_t* s) noexcept { return std::wcslen(s); }
  static std::size_t length(const wchar_t* s, std::size_t max) noexcept {
    return ::wcsnlen(s, max);
  }
};

/// A character's code, never negative.
constexpr std::uint32_t code_of(char c) noexcept { return static_cast<unsigned char>(c); }
constexpr std::uint32_t code_of(unsigned char c) noexcept { return c; }
constexpr std::uint32_t code_of(wchar_t c) noexcept { return static_cast<std::uint32_t>(c); }

/// Copies as much of `src` as fits, silently; null counts as empty. For the log's own fields, which
/// must not be cut through functions that report to the log.
template <std::size_t Capacity>
void copy_cut(char (&dst)[Capacity], const char* src) noexcept {
  const std::size_t length = src == nullptr ? 0 : ::strnlen(src, Capacity - 1);
  if (length != 0) std::memmove(dst, src, length);
  dst[length] = '\0';
}

}  // namespace kel::internal
