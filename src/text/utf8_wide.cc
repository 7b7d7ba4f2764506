// Whole strings between UTF-8 and wide text: measured first, so that the memory is exact, and
// written by loops that need no checks any more.
#include <kel/charconv.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "internal/report.h"
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
  std::size_t size = 0;
  for (const wchar_t* c = w; *c != L'\0'; ++c) size += utf8_size(static_cast<std::uint32_t>(*c));
  auto text = new_text<char>(size, __func__);
  if (text == nullptr) return nullptr;
  auto* out = reinterpret_cast<unsigned char*>(text.get());
  for (; *w != L'\0'; ++w) out = put_utf8(static_cast<std::uint32_t>(*w), out);
  *out = '\0';
  return text.release();
}

void utf8free(void* p) { std::free(p); }
