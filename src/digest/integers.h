// Integers of four widths to raw or text form and back: one template each, for buffers
// (integers.cc) and streams (stream_integers.cc).
#pragma once

#include <algorithm>
#include <charconv>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <limits>

#include "internal/ascii.h"
#include "internal/bytes.h"
#include "internal/report.h"

namespace kel::internal {

/// The most digits that are looked at.
inline constexpr size_t kMaxDigits = 31;

/// The decimal digits of a number, not terminated.
struct Decimal {
  explicit Decimal(uint64_t value) noexcept
      : length(static_cast<size_t>(std::to_chars(text, text + sizeof text, value).ptr - text)) {}

  char text[std::numeric_limits<uint64_t>::digits10 + 1];
  size_t length;
};

template <class Result>
Result fail_text_of_16_bits(Result failure, const char* function) {
  return fail(failure, EINVAL, "%s: invalid binary value -- not tested", function);
}

template <class Result>
Result fail_size(Result failure, int code, const char* function) {
  return fail(failure, code, "%s: incompatible bufsize and value size", function);
}

template <std::unsigned_integral T>
size_t serialized_size(T value, int raw) noexcept {
  return raw != 0 ? sizeof value : Decimal(value).length;
}

template <std::unsigned_integral T>
size_t serialize_integer(void* buf, size_t size, T value, int raw, const char* function) {
  if (buf == nullptr) return fail(size_t{0}, EINVAL, "%s: invalid NULL parameter", function);
  if (raw != 0) {
    if (size < sizeof value) return fail_size(size_t{0}, ENOBUFS, function);
    store_be(buf, value);
    return sizeof value;
  }
  auto* text = static_cast<char*>(buf);
  const Decimal digits(value);
  if (size < digits.length) {
    if (size > 0) *text = '\0';
    return fail_size(size_t{0}, ENOBUFS, function);
  }
  std::memcpy(text, digits.text, digits.length);
  if (size > digits.length) text[digits.length] = '\0';
  return digits.length;
}

/// Whether a reading function got its arguments; else reports it.
inline bool is_readable(const void* value, const void* src, size_t size, bool is_byte,
                        const char* function) {
  if (value == nullptr) return fail(false, EINVAL, "%s: invalid NULL pvalue", function);
  if (src != nullptr && size != 0) return true;
  return is_byte ? fail(false, EINVAL, "%s: invalid NULL buf or 0 buf size", function)
                 : fail(false, EINVAL, "%s: invalid NULL buffer or empty buffer", function);
}

/// Reads the raw form; returns the bytes used, 0 on failure.
template <std::unsigned_integral T>
size_t parse_raw(T* value, const void* src, size_t size, const char* function) {
  if (size < sizeof *value) return fail_size(size_t{0}, EINVAL, function);
  *value = load_be<T>(src);
  return sizeof *value;
}

/// Reads the text form; returns the digits used, or 0 with the value 0.
template <std::unsigned_integral T>
size_t parse_text(T* value, const char* text, size_t size, const char* function) {
  if constexpr (sizeof(T) == 2) return fail_text_of_16_bits(size_t{0}, function);
  *value = 0;
  const char* end = text + std::min(size, kMaxDigits + 1);
  const auto length = static_cast<size_t>(std::find_if_not(text, end, is_digit<char>) - text);
  if (length == 0) return fail(size_t{0}, EINVAL, "%s: input contained no digits", function);
  uint64_t wide = 0;
  if (length > kMaxDigits || std::from_chars(text, text + length, wide).ec != std::errc())
    return fail(size_t{0}, EINVAL, "%s: had an error occur during kel_strtoull: %s", function,
                std::strerror(ERANGE));
  if (wide > std::numeric_limits<T>::max())
    return fail(size_t{0}, EINVAL, "%s: value is too large to be expressed as a uint%zu_t: %lu",
                function, 8 * sizeof(T), wide);
  *value = static_cast<T>(wide);
  return length;
}

template <std::unsigned_integral T>
T* deserialize_integer(T* value, const void* src, size_t size, int raw, size_t* used,
                       const char* function) {
  if (!is_readable(value, src, size, sizeof(T) == 1, function)) return nullptr;
  const size_t length = raw != 0 ? parse_raw(value, src, size, function)
                                 : parse_text(value, static_cast<const char*>(src), size, function);
  if (length == 0) return nullptr;
  if (used != nullptr) *used = length;
  return value;
}

}  // namespace kel::internal
