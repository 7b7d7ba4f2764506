// UTF-8 and UTF-16 one character at a time, and the check for well-formed UTF-8.
#include <kel/charconv.h>

#include <algorithm>
#include <cerrno>

#include "internal/report.h"
#include "internal/text_traits.h"
#include "text/utf8_blocks.h"
#include "text/utf8_forms.h"

namespace {

using namespace kel::internal;

constexpr int kMaxBytes = 4;

struct ByteRange {
  unsigned char low, high;
};

/// Well-formed byte sequences, as table 3-7 of the Unicode Standard has them.
struct Row {
  unsigned count;
  ByteRange bytes[kMaxBytes];
};
constexpr Row kWellFormed[] = {
    {1, {{0x00, 0x7F}}},
    {2, {{0xC2, 0xDF}, {0x80, 0xBF}}},
    {3, {{0xE0, 0xE0}, {0xA0, 0xBF}, {0x80, 0xBF}}},
    {3, {{0xE1, 0xEC}, {0x80, 0xBF}, {0x80, 0xBF}}},
    {3, {{0xED, 0xED}, {0x80, 0x9F}, {0x80, 0xBF}}},
    {3, {{0xEE, 0xEF}, {0x80, 0xBF}, {0x80, 0xBF}}},
    {4, {{0xF0, 0xF0}, {0x90, 0xBF}, {0x80, 0xBF}, {0x80, 0xBF}}},
    {4, {{0xF1, 0xF3}, {0x80, 0xBF}, {0x80, 0xBF}, {0x80, 0xBF}}},
    {4, {{0xF4, 0xF4}, {0x80, 0x8F}, {0x80, 0xBF}, {0x80, 0xBF}}},
};

bool matches(const Row& row, const unsigned char* s, std::size_t n) {
  if (row.count > n) return false;
  for (unsigned i = 0; i < row.count; ++i)
    if (s[i] < row.bytes[i].low || s[i] > row.bytes[i].high) return false;
  return true;
}

/// The length of the well-formed sequence at `s`; 0 when there is none within `n` bytes.
unsigned well_formed_length(const unsigned char* s, std::size_t n) {
  for (const Row& row : kWellFormed)
    if (matches(row, s, n)) return row.count;
  return 0;
}

/// How many of `n` bytes are worth handing to a report, which cuts its texts.
int shown(std::size_t n) { return static_cast<int>(std::min<std::size_t>(n, 2048)); }

}  // namespace

int is_valid_utf8_char(const unsigned char* s, unsigned n) {
  if (s == nullptr) return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  const unsigned length = well_formed_length(s, n);
  if (length != 0) return static_cast<int>(length);
  report_error(errno, "%s: not a valid utf8 char: %.*s", __func__, shown(n),
               reinterpret_cast<const char*>(s));
  return fail_quietly(-1, EILSEQ);
}

int is_valid_utf8_string(const unsigned char* s, int n) {
  if (n == 0) return 0;
  if (s == nullptr || n < 0) return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  const int code = errno;
  const auto size = static_cast<std::size_t>(n);
  auto [at, characters] = check_blocks<WellFormed>(s, size);
  for (; at < size; ++characters) {
    const unsigned left = static_cast<unsigned>(size - at);
    const int length = is_valid_utf8_char(s + at, left);
    if (length < 0) {
      report_error(code, "%s: not a valid utf8 string: %.*s", __func__, shown(left),
                   reinterpret_cast<const char*>(s + at));
      return -1;
    }
    at += static_cast<std::size_t>(length);
  }
  return static_cast<int>(characters);
}

int validate_utf16_codeunit(const uint16_t* u) {
  if (u[0] < 0xD800 || u[0] > 0xDFFF) return 1;
  return u[0] < 0xDC00 && u[1] >= 0xDC00 && u[1] <= 0xDFFF ? 2 : 0;
}

int wc_to_utf16(wchar_t c, uint16_t out[2]) {
  const std::uint32_t code = code_of(c);
  if (code < 0x10000) {
    out[0] = static_cast<std::uint16_t>(code);
    return 1;
  }
  out[0] = static_cast<std::uint16_t>((code >> 10) + 0xD7C0);
  out[1] = static_cast<std::uint16_t>((code & 0x3FF) + 0xDC00);
  return 2;
}

unsigned char* wc_to_utf8c(wchar_t c, unsigned char* out) { return put_utf8(code_of(c), out); }

int wc_to_utf8c_len(wchar_t c) { return static_cast<int>(utf8_size(code_of(c))); }

const unsigned char* utf8c_to_wc_nochecks(const unsigned char* s, wchar_t* out) {
  return get_utf8(s, out);
}
