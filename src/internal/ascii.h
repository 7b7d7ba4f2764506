// Character classes and case of ASCII, whatever the locale says.
#pragma once

namespace kel::internal {

template <class Char>
constexpr bool is_digit(Char c) noexcept {
  return c >= Char('0') && c <= Char('9');
}

template <class Char>
constexpr Char to_lower(Char c) noexcept {
  return c >= Char('A') && c <= Char('Z') ? static_cast<Char>(c - Char('A') + Char('a')) : c;
}

template <class Char>
constexpr Char to_upper(Char c) noexcept {
  return c >= Char('a') && c <= Char('z') ? static_cast<Char>(c - Char('a') + Char('A')) : c;
}

}  // namespace kel::internal
