// Percent-encoding: one encoder for narrow and wide text, one reader of escapes under all decoders.
#include <kel/base64.h>
#include <kel/url.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <cwchar>

#include "internal/handles.h"
#include "internal/report.h"
#include "internal/text_traits.h"
#include "text/new_text.h"
#include "text/utf8_forms.h"

// clang-format off
const unsigned char __kel_url_allow_chars[96] = {
  0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 0,
  1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0,
  1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,
  1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 1,
  0, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,
  1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0,
};
// clang-format on

namespace {

using namespace kel::internal;

constexpr std::size_t kNarrowGrowth = 3;  // "%XX" for a byte
constexpr std::size_t kWideGrowth = 6;    // "%uXXXX" for a character

bool stands_for_itself(std::uint32_t code) {
  return code - 32 < sizeof __kel_url_allow_chars && __kel_url_allow_chars[code - 32] != 0;
}

char* put_escape(char* dst, std::uint32_t code) {
  *dst++ = '%';
  int shift = 4;
  if (code > 0xFF) {
    *dst++ = 'u';
    shift = 12;
  }
  for (; shift >= 0; shift -= 4) *dst++ = __kel_hex_tab[code >> shift & 15];
  return dst;
}

template <class Char>
char* encode(const Char* src, std::size_t limit, char* dst) {
  if (dst == nullptr) return nullptr;
  char* out = dst;
  if (src != nullptr) {
    for (; limit != 0 && *src != 0; --limit, ++src) {
      const std::uint32_t code = code_of(*src);
      if (stands_for_itself(code))
        *out++ = static_cast<char>(code);
      else
        out = put_escape(out, code);
    }
  }
  *out = '\0';
  return dst;
}

std::size_t limit_of(int n) { return static_cast<std::size_t>(std::max(n, 0)); }

/// What a character counts as in an escape; anything goes.
std::uint32_t digit_of(char c) {
  const std::uint32_t code = code_of(c);
  return code < 'A' ? code - '0' : (code & ~0x20U) - 'A' + 10;
}

enum class Escapes { kBytes, kBytesAndWide };

/// One character of encoded text, or the end of it.
struct Piece {
  std::uint32_t code;
  bool decoded;      // from an escape; else a character that stands for itself
  std::size_t size;  // bytes that it takes; 0 at the end, also before an escape that is cut short
};

template <Escapes kind>
Piece read_piece(const char* s) {
  if (*s == '\0') return {0, false, 0};
  if (*s == '+') return {' ', false, 1};
  if (*s != '%') return {code_of(*s), false, 1};
  const bool wide = s[1] == 'u';
  if (wide && kind == Escapes::kBytes) return {'%', false, 1};
  const char* const digits = wide ? s + 2 : s + 1;
  const std::size_t count = wide ? 4 : 2;
  if (::strnlen(digits, count) < count) return {0, false, 0};
  std::uint32_t code = 0;
  for (std::size_t i = 0; i < count; ++i) code = 16 * code + digit_of(digits[i]);
  return {code & (wide ? 0xFFFFU : 0xFFU), true, static_cast<std::size_t>(digits - s) + count};
}

/// Decodes `src` through `put(dst, piece)`, which returns where the next piece goes; an escape that
/// is cut short is copied with the terminator. `dst` may be `src` when no piece grows.
template <Escapes kind, class Char, class Put>
Char* decode(const char* src, Char* dst, Put put) {
  for (;;) {
    const Piece piece = read_piece<kind>(src);
    if (piece.size == 0) break;
    src += piece.size;
    dst = put(dst, piece);
  }
  do {
    *dst++ = static_cast<Char>(code_of(*src));
  } while (*src++ != '\0');
  return dst;
}

}  // namespace

char* URLEncode(const char* src, char* dst) { return encode(src, SIZE_MAX, dst); }
char* URLEncodeN(const char* src, char* dst, int n) { return encode(src, limit_of(n), dst); }
char* URLEncodeW(const wchar_t* src, char* dst) { return encode(src, SIZE_MAX, dst); }
char* URLEncodeNW(const wchar_t* src, char* dst, int n) { return encode(src, limit_of(n), dst); }

char* URLEncodeW_malloced(const wchar_t* src) {
  if (src == nullptr) return fail<char*>(nullptr, EINVAL, "%s: invalid NULL parameter", __func__);
  auto text = new_text<char>(kWideGrowth * std::wcslen(src), __func__);
  return text == nullptr ? nullptr : encode(src, SIZE_MAX, text.release());
}

char* URLDecode(char* s) {
  if (s == nullptr) return nullptr;
  decode<Escapes::kBytes>(s, s, [](char* dst, const Piece& piece) {
    *dst = static_cast<char>(piece.code);
    return dst + 1;
  });
  return s;
}

char* URLDecodeUTF8(char* s) {
  if (s == nullptr) return nullptr;
  decode<Escapes::kBytesAndWide>(s, s, [](char* dst, const Piece& piece) {
    if (piece.decoded)
      return reinterpret_cast<char*>(put_utf8(piece.code, reinterpret_cast<unsigned char*>(dst)));
    *dst = static_cast<char>(piece.code);
    return dst + 1;
  });
  return s;
}

wchar_t* URLDecodeW(const char* src, wchar_t* dst) {
  if (dst == nullptr) return nullptr;
  decode<Escapes::kBytesAndWide>(src == nullptr ? "" : src, dst,
                                 [](wchar_t* to, const Piece& piece) {
                                   *to = static_cast<wchar_t>(piece.code);
                                   return to + 1;
                                 });
  return dst;
}

wchar_t* URLDecodeW_malloced(const char* src) {
  if (src == nullptr)
    return fail<wchar_t*>(nullptr, EINVAL, "%s: invalid NULL parameter", __func__);
  auto text = new_text<wchar_t>(std::strlen(src), __func__);
  return text == nullptr ? nullptr : URLDecodeW(src, text.release());
}

int fprint_urlencoded(FILE* fp, const char* text) {
  if (fp == nullptr || text == nullptr)
    return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  const auto encoded = new_text<char>(kNarrowGrowth * std::strlen(text), __func__);
  if (encoded == nullptr) return -1;
  return std::fputs(URLEncode(text, encoded.get()), fp) < 0 ? -1 : 0;
}
