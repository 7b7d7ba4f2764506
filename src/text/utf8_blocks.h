// Checks UTF-8 in blocks of sixteen bytes with SSE2, which every x86-64 has. A rule says which
// bytes have to be continuations, given the bytes before them, and which are wrong for other
// reasons; where a block breaks it, the caller goes on byte by byte and finds out what is wrong.
#pragma once

#include <emmintrin.h>

#include <cstddef>
#include <cstdint>

#include "text/utf8_forms.h"

namespace kel::internal {

struct Utf8Block {
  static constexpr std::size_t kSize = sizeof(__m128i);

  __m128i bytes;
  __m128i before[5];  // what stands 1 to 5 bytes before each byte; zero before the text

  static __m128i all(int byte) { return _mm_set1_epi8(static_cast<char>(byte)); }
  static __m128i load(const unsigned char* from) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
  }
  /// All ones in the bytes that are at least `limit`, unsigned.
  static __m128i at_least(__m128i bytes, int limit) {
    return _mm_cmpeq_epi8(_mm_max_epu8(bytes, all(limit)), bytes);
  }
  static __m128i equal(__m128i bytes, int value) { return _mm_cmpeq_epi8(bytes, all(value)); }

  __m128i continuations() const { return _mm_cmplt_epi8(bytes, all(0xC0)); }
  /// The bytes `distance` before begin a form that reaches as far as this one.
  __m128i reached_from(int distance, int lead) const {
    return at_least(before[distance - 1], lead);
  }
  /// All ones where the byte before is `lead`.
  __m128i after(int lead) const { return equal(before[0], lead); }
};

/// Sequences that are well-formed by the Unicode Standard, table 3-7.
struct WellFormed {
  static constexpr int kReach = 3;

  static __m128i must_continue(const Utf8Block& block) {
    return _mm_or_si128(_mm_or_si128(block.reached_from(1, 0xC0), block.reached_from(2, 0xE0)),
                        block.reached_from(3, 0xF0));
  }
  static __m128i wrong(const Utf8Block& block) {
    const __m128i never =
        _mm_or_si128(Utf8Block::equal(_mm_or_si128(block.bytes, Utf8Block::all(1)), 0xC1),
                     Utf8Block::at_least(block.bytes, 0xF5));
    // The second byte has narrower bounds after these four. It is a continuation, or the block is
    // refused anyway, so one side of them is enough.
    const __m128i below_90 = below(block, 0x90);
    const __m128i below_a0 = below(block, 0xA0);
    const __m128i low = _mm_or_si128(_mm_and_si128(block.after(0xE0), below_a0),
                                     _mm_and_si128(block.after(0xF0), below_90));
    const __m128i high = _mm_or_si128(_mm_andnot_si128(below_a0, block.after(0xED)),
                                      _mm_andnot_si128(below_90, block.after(0xF4)));
    return _mm_or_si128(never, _mm_or_si128(low, high));
  }

 private:
  static __m128i below(const Utf8Block& block, int limit) {
    return _mm_cmplt_epi8(block.bytes, Utf8Block::all(limit));
  }
};

/// A lead byte and the right number of continuations, up to six bytes.
struct AnyForm {
  static constexpr int kReach = 5;

  static __m128i must_continue(const Utf8Block& block) {
    return _mm_or_si128(WellFormed::must_continue(block),
                        _mm_or_si128(block.reached_from(4, 0xF8), block.reached_from(5, 0xFC)));
  }
  static __m128i wrong(const Utf8Block& block) { return Utf8Block::at_least(block.bytes, 0xFE); }
};

struct Utf8Prefix {
  std::size_t size;        // bytes of the text that were checked; the next one begins a character
  std::size_t characters;  // in them
};

/// Checks `text` from its start, as far as whole blocks keep the rule.
template <class Rule>
Utf8Prefix check_blocks(const unsigned char* text, std::size_t size) {
  const __m128i zero = _mm_setzero_si128();
  __m128i continued = zero;  // continuations so far, in two halves
  std::size_t at = 0;
  int open = 0;  // nonzero when a form may reach out of the last block
  for (; size - at >= Utf8Block::kSize; at += Utf8Block::kSize) {
    Utf8Block block;
    block.bytes = Utf8Block::load(text + at);
    const int high = _mm_movemask_epi8(block.bytes);
    if ((high | open) == 0) continue;
    if (at == 0) {
      block.before[0] = _mm_slli_si128(block.bytes, 1);
      block.before[1] = _mm_slli_si128(block.bytes, 2);
      block.before[2] = _mm_slli_si128(block.bytes, 3);
      block.before[3] = _mm_slli_si128(block.bytes, 4);
      block.before[4] = _mm_slli_si128(block.bytes, 5);
    } else {
      for (int distance = 1; distance <= 5; ++distance)
        block.before[distance - 1] = Utf8Block::load(text + at - distance);
    }
    const __m128i continuations = block.continuations();
    const __m128i broken =
        _mm_or_si128(_mm_xor_si128(continuations, Rule::must_continue(block)), Rule::wrong(block));
    if (_mm_movemask_epi8(_mm_cmpeq_epi8(broken, zero)) != 0xFFFF) break;
    continued = _mm_add_epi64(continued,
                              _mm_sad_epu8(_mm_and_si128(continuations, Utf8Block::all(1)), zero));
    open = high >> (Utf8Block::kSize - Rule::kReach);
  }
  const auto continuations = static_cast<std::size_t>(
      _mm_cvtsi128_si64(continued) + _mm_cvtsi128_si64(_mm_unpackhi_epi64(continued, continued)));
  std::size_t characters = at - continuations;
  if (open != 0) {  // back to the start of the last character, which may go on
    --characters;
    do {
      --at;
    } while (is_utf8_continuation(text[at]));
  }
  return {at, characters};
}

}  // namespace kel::internal
