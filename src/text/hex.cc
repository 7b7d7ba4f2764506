// Upper-case hexadecimal. Sixteen bytes, or thirty-two digits, go through SSE2, which every x86-64
// has, and what is left through the tables.
#include "internal/hex.h"

#include <kel/base64.h>

#include <emmintrin.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <utility>

#include "internal/report.h"

namespace {

using kel::internal::fail;
using kel::internal::fail_quietly;
using kel::internal::hex_value;

constexpr size_t kBlock = sizeof(__m128i);

__m128i load(const void* from) { return _mm_loadu_si128(static_cast<const __m128i*>(from)); }
void store(void* to, __m128i block) { _mm_storeu_si128(static_cast<__m128i*>(to), block); }
__m128i all(int byte) { return _mm_set1_epi8(static_cast<char>(byte)); }
/// All ones in the bytes of `block` that are at most `limit`, unsigned.
__m128i at_most(__m128i block, int limit) {
  return _mm_cmpeq_epi8(_mm_min_epu8(block, all(limit)), block);
}

/// The digits of sixteen values of 0 to 15.
__m128i digits_of(__m128i nibbles) {
  const __m128i letters = _mm_cmpgt_epi8(nibbles, all(9));
  return _mm_add_epi8(_mm_add_epi8(nibbles, all('0')), _mm_and_si128(letters, all('A' - '0' - 10)));
}

void encode(const unsigned char* bytes, size_t count, char* text) {
  for (; count >= kBlock; count -= kBlock, bytes += kBlock, text += 2 * kBlock) {
    const __m128i block = load(bytes);
    const __m128i high = digits_of(_mm_and_si128(_mm_srli_epi16(block, 4), all(15)));
    const __m128i low = digits_of(_mm_and_si128(block, all(15)));
    store(text, _mm_unpacklo_epi8(high, low));
    store(text + kBlock, _mm_unpackhi_epi8(high, low));
  }
  for (; count != 0; --count, ++bytes, text += 2) {
    text[0] = __kel_hex_tab[*bytes >> 4];
    text[1] = __kel_hex_tab[*bytes & 15];
  }
}

/// Every character has a value: below 'A' its code minus 48, else that of its upper case minus 55.
struct AnyCharacter {
  static unsigned value(char c) {
    const unsigned upper = kelascii_toupper_table[static_cast<unsigned char>(c)];
    return upper < 'A' ? upper - '0' : upper - 'A' + 10;
  }
  static __m128i values(__m128i text) {
    const __m128i lower = at_most(_mm_sub_epi8(text, all('a')), 'z' - 'a');
    const __m128i upper = _mm_sub_epi8(text, _mm_and_si128(lower, all('a' - 'A')));
    const __m128i below = at_most(upper, 'A' - 1);
    return _mm_sub_epi8(upper, _mm_or_si128(_mm_and_si128(below, all('0')),
                                            _mm_andnot_si128(below, all('A' - 10))));
  }
};

/// Digits have their value, all other characters count as 0.
struct DigitOrZero {
  static unsigned value(char c) { return static_cast<unsigned>(std::max(hex_value(c), 0)); }
  static __m128i values(__m128i text) {
    const __m128i digit = _mm_sub_epi8(text, all('0'));
    const __m128i letter = _mm_sub_epi8(_mm_or_si128(text, all(0x20)), all('a'));
    return _mm_or_si128(_mm_and_si128(at_most(digit, 9), digit),
                        _mm_and_si128(at_most(letter, 5), _mm_add_epi8(letter, all(10))));
  }
};

/// Sixteen digits to eight bytes, in the low halves of eight words.
template <class Digits>
__m128i join_digits(__m128i text) {
  const __m128i values = Digits::values(text);
  const __m128i high = _mm_slli_epi16(values, 4);
  const __m128i low = _mm_srli_epi16(values, 8);
  return _mm_and_si128(_mm_add_epi8(high, low), _mm_set1_epi16(0xFF));
}

/// Decodes `count` bytes from twice as many digits; `bytes` may be where the text is.
template <class Digits>
void decode(const char* text, size_t count, unsigned char* bytes) {
  for (; count >= kBlock; count -= kBlock, text += 2 * kBlock, bytes += kBlock) {
    const __m128i first = join_digits<Digits>(load(text));
    const __m128i second = join_digits<Digits>(load(text + kBlock));
    store(bytes, _mm_packus_epi16(first, second));
  }
  for (; count != 0; --count, text += 2, ++bytes)
    *bytes = static_cast<unsigned char>((Digits::value(text[0]) << 4) + Digits::value(text[1]));
}

}  // namespace

size_t HexEncode(const void* src, char* dst, unsigned len) {
  if (dst == nullptr || (src == nullptr && len != 0)) return fail_quietly<size_t>(0, EINVAL);
  encode(static_cast<const unsigned char*>(src), len, dst);
  dst[2 * size_t{len}] = '\0';
  return 2 * size_t{len};
}

int HexDecode(char* text, int len) {
  if (text == nullptr || len < 1) return 0;
  const auto pairs = static_cast<size_t>(len) / 2;
  auto* const bytes = reinterpret_cast<unsigned char*>(text);
  decode<AnyCharacter>(text, pairs, bytes);
  size_t count = pairs;
  if (len % 2 != 0)
    bytes[count++] = static_cast<unsigned char>(AnyCharacter::value(text[len - 1]) << 4);
  std::fill(text + count, text + len, '\0');
  return static_cast<int>(count);
}

int hextobyte(const char* two) {
  if (two == nullptr) return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  const int high = hex_value(two[0]);
  if (high < 0) return fail(-1, EINVAL, "%s: invalid hex digit in position 0", __func__);
  const int low = hex_value(two[1]);
  if (low < 0) return fail(-1, EINVAL, "%s: invalid hex digit in position 1", __func__);
  return 16 * high + low;
}

void blob2hexstring(const unsigned char* data, size_t len, std::string& out) {
  try {
    out.resize(2 * len);
    encode(data, len, out.data());
  } catch (const std::exception&) {
    out.clear();
    errno = ENOMEM;
  }
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): by value is the interface
unsigned char* hexstring2blob(std::string hex, unsigned long& len) {
  const size_t count = hex.size() / 2;
  auto* const bytes = static_cast<unsigned char*>(std::calloc(std::max<size_t>(count, 1), 1));
  len = bytes == nullptr ? 0 : count;
  if (bytes != nullptr) decode<DigitOrZero>(hex.data(), count, bytes);
  return bytes;
}
