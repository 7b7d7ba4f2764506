// Whole strings between UTF-8 and wide text: measured first, so that the memory is exact, and
// written by loops that need no checks any more.
#include <kel/charconv.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "internal/report.h"
#include "internal/text_traits.h"
#include "text/new_text.h"
#include "text/utf8_blocks.h"
#include "text/utf8_forms.h"

namespace {

using namespace kel::internal;

/// The size of the sequence at `s`, which ends before a terminator; 0 when it is none.
std::size_t sequence_size(const unsigned char* s) {
  const std::size_t size = utf8_form(*s);
  if (size == 1) return *s < 0x80 ? 1 : 0;
  for (std::size_t i = 1; i < size; ++i)
    if (!is_utf8_continuation(s[i])) return 0;
  return size;
}

/// Sixteen characters below 0x80.
void widen_ascii(__m128i bytes, wchar_t* out) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i low = _mm_unpacklo_epi8(bytes, zero);
  const __m128i high = _mm_unpackhi_epi8(bytes, zero);
  auto* const to = reinterpret_cast<__m128i*>(out);
  _mm_storeu_si128(to, _mm_unpacklo_epi16(low, zero));
  _mm_storeu_si128(to + 1, _mm_unpackhi_epi16(low, zero));
  _mm_storeu_si128(to + 2, _mm_unpacklo_epi16(high, zero));
  _mm_storeu_si128(to + 3, _mm_unpackhi_epi16(high, zero));
}

/// Decodes whole sequences up to `end`.
wchar_t* decode(const unsigned char* s, const unsigned char* end, wchar_t* out) {
  while (s != end) {
    if (*s < 0x80) {
      while (static_cast<std::size_t>(end - s) >= Utf8Block::kSize) {
        const __m128i bytes = Utf8Block::load(s);
        if (_mm_movemask_epi8(bytes) != 0) break;
        widen_ascii(bytes, out);
        s += Utf8Block::kSize;
        out += Utf8Block::kSize;
      }
      for (; s != end && *s < 0x80; ++s) *out++ = *s;
    } else {
      s = get_utf8(s, out++);
    }
  }
  return out;
}

/// The bytes of `count` characters as UTF-8.
std::size_t encoded_size(const wchar_t* w, std::size_t count) {
  constexpr std::size_t kLanes = sizeof(__m128i) / sizeof(wchar_t);
  constexpr std::size_t kMaxRun = std::size_t{1} << 28;  // keeps the lanes' sums below 2^32
  std::size_t size = 0;
  for (const wchar_t* const end = w + count; w != end;) {
    const std::size_t run = std::min(static_cast<std::size_t>(end - w), kMaxRun) / kLanes * kLanes;
    if (run == 0) {
      for (; w != end; ++w) size += utf8_size(code_of(*w));
      break;
    }
    size += run;
    __m128i more = _mm_setzero_si128();  // bytes beyond the first
    for (const wchar_t* const run_end = w + run; w != run_end; w += kLanes) {
      const __m128i codes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(w));
      // What has bit 31 set takes six bytes, as the largest code does.
      const __m128i signs = _mm_srai_epi32(codes, 31);
      const __m128i largest = _mm_srli_epi32(signs, 1);
      const __m128i signless = _mm_or_si128(_mm_andnot_si128(signs, codes), largest);
      for (const int last : {0x7F, 0x7FF, 0xFFFF, 0x1FFFFF, 0x3FFFFFF})
        more = _mm_sub_epi32(more, _mm_cmpgt_epi32(signless, _mm_set1_epi32(last)));
    }
    std::uint32_t sums[kLanes];
    _mm_storeu_si128(reinterpret_cast<__m128i*>(sums), more);
    for (const std::uint32_t sum : sums) size += sum;
  }
  return size;
}

}  // namespace

wchar_t* utf8towcs_malloced(const char* utf8) {
  if (utf8 == nullptr)
    return fail<wchar_t*>(nullptr, EINVAL, "%s: invalid NULL parameter", __func__);
  const auto* const text = reinterpret_cast<const unsigned char*>(utf8);
  const std::size_t size = std::strlen(utf8);
  auto [at, characters] = check_blocks<AnyForm>(text, size);
  for (; at < size; ++characters) {
    const std::size_t step = sequence_size(text + at);
    if (step == 0)
      return fail<wchar_t*>(nullptr, EINVAL, "%s: failed to convert utf8 to wide: %s", __func__,
                            utf8 + at);
    at += step;
  }
  auto wide = new_text<wchar_t>(characters, __func__);
  if (wide == nullptr) return nullptr;
  *decode(text, text + size, wide.get()) = L'\0';
  return wide.release();
}

char* wcstoutf8_malloced(const wchar_t* w) {
  if (w == nullptr) return fail<char*>(nullptr, EINVAL, "%s: invalid NULL parameter", __func__);
  const std::size_t count = std::wcslen(w);
  auto text = new_text<char>(encoded_size(w, count), __func__);
  if (text == nullptr) return nullptr;
  auto* out = reinterpret_cast<unsigned char*>(text.get());
  for (const wchar_t* const end = w + count; w != end; ++w) out = put_utf8(code_of(*w), out);
  *out = '\0';
  return text.release();
}

void utf8free(void* p) { std::free(p); }
