// Text, order and arithmetic of digests, once for both families: the family is the digest's size
// and a row of names.
#pragma once

#include <kel/logging.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>

#include "internal/bytes.h"
#include "internal/hex.h"
#include "internal/report.h"
#include "internal/text_traits.h"

namespace kel::internal {

template <size_t Size>
struct DigestFamily {
  const char* name;            // in messages
  bool shows_refused_text;     // in the messages about a bad character
  const char* serialize_name;  // of the exported functions that others of the family build on
  const char* deserialize_name;

  static constexpr size_t kTextSize = 2 * Size;
};

template <class Result>
Result fail_null(Result failure, const char* function) {
  return fail(failure, EINVAL, "%s: invalid NULL parameter", function);
}

/// As fail_null(), for functions without a result.
inline void report_null(const char* function) { fail_null(0, function); }

template <size_t Size>
unsigned char* fill_digest(unsigned char* digest, int value, const char* function) {
  if (digest == nullptr) return fail_null(digest, function);
  return static_cast<unsigned char*>(std::memset(digest, value, Size));
}

template <size_t Size>
unsigned char* increment(unsigned char* digest, const char* function) {
  if (digest == nullptr) return fail_null(digest, function);
  for (size_t i = Size; i-- > 0 && ++digest[i] == 0;) {
  }
  return digest;
}

template <size_t Size>
unsigned char* decrement(unsigned char* digest, const char* function) {
  if (digest == nullptr) return fail_null(digest, function);
  for (size_t i = Size; i-- > 0 && digest[i]-- == 0;) {
  }
  return digest;
}

inline uint32_t hash32(const unsigned char* digest, const char* function) {
  return digest == nullptr ? fail_null(0u, function) : load_be<uint32_t>(digest);
}

template <size_t Size>
size_t serialize(const DigestFamily<Size>& family, void* buf, size_t size,
                 const unsigned char* digest, int raw) {
  const size_t needed = raw != 0 ? Size : family.kTextSize;
  if (buf == nullptr || digest == nullptr || size < needed)
    return fail_null(size_t{0}, family.serialize_name);
  if (raw != 0) {
    std::memcpy(buf, digest, Size);
    return needed;
  }
  auto* text = static_cast<char*>(buf);
  hex_encode(digest, Size, text);
  if (size > needed) text[needed] = '\0';
  return needed;
}

template <size_t Size>
size_t deserialize(const DigestFamily<Size>& family, unsigned char* digest, const void* src,
                   size_t size, int raw) {
  const size_t needed = raw != 0 ? Size : family.kTextSize;
  if (digest == nullptr || src == nullptr || size < needed)
    return fail_null(size_t{0}, family.deserialize_name);
  if (raw != 0) {
    std::memcpy(digest, src, Size);
    return needed;
  }
  const auto* text = static_cast<const char*>(src);
  unsigned char parsed[Size];
  const size_t good = hex_decode(text, Size, parsed);
  if (good != needed) {
    const int which = good % 2 == 0 ? 1 : 2;
    return family.shows_refused_text
               ? fail(size_t{0}, EINVAL, "%s: c%d is a non-digit found. [%.*s]",
                      family.deserialize_name, which,
                      static_cast<int>(std::min<size_t>(size, INT_MAX)), text)
               : fail(size_t{0}, EINVAL, "%s: c%d is a non-digit found", family.deserialize_name,
                      which);
  }
  std::memcpy(digest, parsed, Size);
  return needed;
}

template <size_t Size>
char* to_string(const DigestFamily<Size>& family, const unsigned char* digest, char* buf,
                size_t size, const char* function) {
  if (digest == nullptr || buf == nullptr) return fail_null<char*>(nullptr, function);
  if (serialize(family, buf, size, digest, 0) == 0)
    return fail<char*>(nullptr, EINVAL, "%s: failed to serialize %s", function, family.name);
  if (size == family.kTextSize)
    return fail<char*>(nullptr, EINVAL, "%s: buffer too small for %s", function, family.name);
  return buf;
}

template <size_t Size>
unsigned char* from_string(const DigestFamily<Size>& family, const char* text,
                           unsigned char* digest, const char* function) {
  if (text == nullptr || digest == nullptr) return fail_null<unsigned char*>(nullptr, function);
  const size_t length = std::strlen(text);
  // Of a text that is too short nothing may be read behind its terminator, which is no digit.
  char padded[DigestFamily<Size>::kTextSize + 1] = {};
  if (length < family.kTextSize) {
    copy_cut(padded, text);
    text = padded;
  }
  if (deserialize(family, digest, text, std::max(length, family.kTextSize), 0) == 0)
    return fail<unsigned char*>(nullptr, EINVAL, "%s: failed to deserialize %s", function,
                                family.name);
  return digest;
}

/// Ends the process unless `text` is a digest in lowercase.
template <size_t Size>
void validate_or_exit(const DigestFamily<Size>& family, const char* text) {
  const size_t length = text == nullptr ? 0 : std::strlen(text);
  if (length != family.kTextSize)
    ErrorExitA(EINVAL, "%s is not a valid FP, it has %u instead of %u characters",
               text == nullptr ? "" : text, static_cast<unsigned>(length),
               static_cast<unsigned>(family.kTextSize));
  const char* bad = std::find_if_not(
      text, text + length, [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
  if (bad != text + length)
    ErrorExitA(EINVAL, "%s is not a valid FP, %c is not in the range [0-9a-f]", text, *bad);
}

/// Whether a one-shot function can work: data, and a buffer for the terminated text.
template <size_t Size>
bool are_usable(const DigestFamily<Size>& family, const void* data, size_t length, const char* buf,
                size_t size) {
  return (data != nullptr || length == 0) && buf != nullptr && size > family.kTextSize;
}

}  // namespace kel::internal
