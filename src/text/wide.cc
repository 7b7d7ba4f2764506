// Sets whose characters keep their value as wide text, and the locale's multi-byte text.
#include <kel/charconv.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cwchar>

#include "internal/report.h"
#include "internal/text_traits.h"
#include "text/new_text.h"

namespace {

using namespace kel::internal;

/// A set that is the beginning of Unicode, in one direction.
struct PlainSet {
  std::uint32_t last;        // its highest character
  int refusal;               // the code of a character above that
  const char* refusal_text;  // null when every character belongs to the set
  bool reports_no_room;
};
constexpr PlainSet kLatin1ToWide = {0xFF, EINVAL, nullptr, true};
constexpr PlainSet kAsciiToWide = {0x7F, EINVAL, "invalid character", true};
constexpr PlainSet kWideToAscii = {0x7F, EILSEQ, "illegal character", false};

template <class To, class From>
To* convert_plain(const PlainSet& set, const char* function, To* dst, const From* src,
                  std::size_t n) {
  if (dst == nullptr || src == nullptr || n == 0) {
    if (dst != nullptr && n != 0) dst[0] = 0;
    return fail<To*>(nullptr, EINVAL, "%s: invalid NULL parameter", function);
  }
  for (std::size_t i = 0; i < n; ++i) {
    const std::uint32_t code = code_of(src[i]);
    if (code > set.last) {
      dst[0] = 0;
      return fail<To*>(nullptr, set.refusal, "%s: %s", function, set.refusal_text);
    }
    dst[i] = static_cast<To>(code);
    if (code == 0) return dst;
  }
  dst[0] = 0;
  return set.reports_no_room ? fail<To*>(nullptr, EINVAL, "%s: string too long", function)
                             : fail_quietly<To*>(nullptr, ENOBUFS);
}

/// As convert_plain() into new memory.
template <class To, class From>
To* new_plain(const PlainSet& set, const char* function, const From* src) {
  if (src == nullptr) return fail<To*>(nullptr, EINVAL, "%s: invalid NULL parameter", function);
  const From* end = src;
  while (*end != 0) ++end;
  const auto length = static_cast<std::size_t>(end - src);
  auto text = new_text<To>(length, function);
  if (text == nullptr || convert_plain(set, function, text.get(), src, length + 1) == nullptr)
    return nullptr;
  return text.release();
}

constexpr std::size_t kBadSequence = SIZE_MAX;

/// What mbsrtowcs() and wcsrtombs() do, from the initial state: `src` becomes null when its
/// terminator was reached within `n`.
std::size_t convert_multibyte(wchar_t* dst, const char** src, std::size_t n) {
  std::mbstate_t state{};
  return std::mbsrtowcs(dst, src, n, &state);
}
std::size_t convert_multibyte(char* dst, const wchar_t** src, std::size_t n) {
  std::mbstate_t state{};
  return std::wcsrtombs(dst, src, n, &state);
}

template <class To, class From>
To* convert_locale(const char* function, const From* src, To* dst, std::size_t n, int flags) {
  if (src == nullptr) return fail<To*>(nullptr, EINVAL, "%s: invalid NULL parameter", function);
  const From* rest = src;
  std::size_t length = convert_multibyte(dst, &rest, n);
  if (dst != nullptr && length != kBadSequence && rest == nullptr) return dst;
  if (dst != nullptr && n != 0) dst[0] = 0;
  if (length == kBadSequence) return nullptr;
  if ((flags & KEL_CONVERT_ALLOCATE) == 0) return fail_quietly<To*>(nullptr, ENOBUFS);

  rest = src;
  if (dst != nullptr) length = convert_multibyte(static_cast<To*>(nullptr), &rest, 0);
  if (length == kBadSequence)
    return fail<To*>(nullptr, errno, "%s: could not determine number of bytes to convert",
                     function);
  auto text = new_text<To>(length, function);
  if (text == nullptr) return nullptr;
  rest = src;
  convert_multibyte(text.get(), &rest, length + 1);
  return text.release();
}

}  // namespace

wchar_t* iso8859_1towcs_buf(wchar_t* dst, const unsigned char* src, unsigned n) {
  return convert_plain(kLatin1ToWide, __func__, dst, src, n);
}
wchar_t* ascii7towcs_buf(wchar_t* dst, const char* src, int n) {
  return convert_plain(kAsciiToWide, __func__, dst, src, static_cast<std::size_t>(std::max(n, 0)));
}
char* wcstoascii7_buf(char* dst, const wchar_t* src, unsigned n) {
  return convert_plain(kWideToAscii, __func__, dst, src, n);
}

wchar_t* iso8859_1towcs_malloced(const unsigned char* src) {
  return new_plain<wchar_t>(kLatin1ToWide, __func__, src);
}
wchar_t* ascii7towcs_malloced(const char* src) {
  return new_plain<wchar_t>(kAsciiToWide, __func__, src);
}
char* wcstoascii7_malloced(const wchar_t* src) {
  return new_plain<char>(kWideToAscii, __func__, src);
}

wchar_t* mbsconvert(const char* src, wchar_t* dst, size_t n, int flags) {
  return convert_locale("__towc", src, dst, n, flags);
}
char* wcsconvert(const wchar_t* src, char* dst, size_t n, int flags) {
  return convert_locale(__func__, src, dst, n, flags);
}
