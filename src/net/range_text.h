// The grammar that both forms of a range text share. Everything reads from null-terminated text, in
// place.
#pragma once

#include <algorithm>
#include <climits>
#include <cstdint>
#include <string_view>

#include "internal/ascii.h"

namespace kel::internal {

constexpr bool is_blank(char c) noexcept { return c == ' ' || c == '\t'; }

constexpr std::string_view trim_blanks(std::string_view text) noexcept {
  while (!text.empty() && is_blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && is_blank(text.back())) text.remove_suffix(1);
  return text;
}

/// For "%.*s".
constexpr int print_width(std::string_view text) noexcept {
  return static_cast<int>(std::min<std::size_t>(text.size(), INT_MAX));
}

/// The top `length` bits, 0 to 32.
constexpr std::uint32_t mask_of(unsigned length) noexcept {
  return static_cast<std::uint32_t>(0xffffffff00000000u >> length);
}

struct AddressFields {
  std::uint32_t address;  ///< host order; fields that are not there count as 0
  unsigned count;         ///< 0 to 4
  const char* end;        ///< behind the last field; at a digit when that one is no decimal byte
};

/// Reads as many dotted fields as there are, four at most. A field is 0 to 255 without leading
/// zeros; a dot belongs to the field behind it.
inline AddressFields read_fields(const char* text) noexcept {
  AddressFields fields{.address = 0, .count = 0, .end = text};
  while (fields.count < 4) {
    const char* next = fields.count == 0 ? text : fields.end + 1;
    if ((fields.count != 0 && *fields.end != '.') || !is_digit(*next)) break;
    unsigned value = static_cast<unsigned>(*next++ - '0');
    while (value != 0 && is_digit(*next) && value * 10 + (*next - '0') <= 255)
      value = value * 10 + static_cast<unsigned>(*next++ - '0');
    fields.address |= value << (24 - 8 * fields.count);
    ++fields.count;
    fields.end = next;
    if (is_digit(*next)) break;
  }
  return fields;
}

/// The decimal number at `*text`, INT_MAX when it is larger; moves `*text` behind its digits.
inline unsigned read_number(const char** text) noexcept {
  std::uint64_t value = 0;
  for (; is_digit(**text); ++*text)
    value = std::min<std::uint64_t>(value * 10 + static_cast<unsigned>(**text - '0'), INT_MAX);
  return static_cast<unsigned>(value);
}

}  // namespace kel::internal
