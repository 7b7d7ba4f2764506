// libdeflate's vector code, and a wider loop for processors that can multiply and add 64 bytes at a
// time, where it takes about half the time.
#include "internal/adler32.h"

#include <immintrin.h>
#include <libdeflate.h>

#include <algorithm>
#include <iterator>
#include <numeric>

namespace kel::internal {
namespace {

#define KEL_WIDE [[gnu::target("avx512f,avx512bw,avx512vnni")]]

constexpr std::uint32_t kModulus = 65521;
constexpr std::size_t kVector = 64;
constexpr std::size_t kStep = 4 * kVector;
/// Steps between reductions: 32 KiB, with which no 32-bit sum below can overflow. The greatest is
/// `before`, whose lanes add up to at most 4080 * 16 * (0 + 1 + ... + 127), about 2^29.
constexpr std::size_t kMaxSteps = 128;

/// How often each byte of a vector is counted in the second sum, once for itself and for each byte
/// behind it.
struct alignas(kVector) Weights {
  constexpr Weights() {
    for (std::size_t i = 0; i < kVector; ++i) of[i] = static_cast<signed char>(kVector - i);
  }
  signed char of[kVector]{};
};
constexpr Weights kWeights;

KEL_WIDE inline std::uint64_t total(__m512i lanes) noexcept {
  std::uint32_t of[16];
  _mm512_storeu_si512(of, lanes);
  return std::accumulate(std::begin(of), std::end(of), std::uint64_t{0});
}

KEL_WIDE inline __m512i add4(const __m512i (&lanes)[4]) noexcept {
  return _mm512_add_epi32(_mm512_add_epi32(lanes[0], lanes[1]),
                          _mm512_add_epi32(lanes[2], lanes[3]));
}

/// Four vectors a step, each with sums of its own, so that no addition waits for the one before.
KEL_WIDE std::uint32_t adler32_wide(std::uint32_t adler, const unsigned char* data,
                                    std::size_t size) noexcept {
  const __m512i ones = _mm512_set1_epi8(1);
  const __m512i weights = _mm512_load_si512(kWeights.of);
  std::uint64_t first = adler & 0xffff;
  std::uint64_t second = adler >> 16;
  while (size >= kStep) {
    const std::size_t steps = std::min(size / kStep, kMaxSteps);
    __m512i plain[4] = {};     // of the bytes at each place of the steps
    __m512i weighted[4] = {};  // the same, by their weights within their vector
    __m512i before = {};       // of what `plain` was before each step
    for (std::size_t i = 0; i < steps; ++i, data += kStep) {
      before = _mm512_add_epi32(before, add4(plain));
#pragma GCC unroll 4
      for (std::size_t k = 0; k < 4; ++k) {
        const __m512i bytes = _mm512_loadu_si512(data + k * kVector);
        plain[k] = _mm512_dpbusd_epi32(plain[k], bytes, ones);
        weighted[k] = _mm512_dpbusd_epi32(weighted[k], bytes, weights);
      }
    }
    second += steps * kStep * first + kStep * total(before) + total(add4(weighted));
    for (std::size_t k = 0; k < 4; ++k) {
      const std::uint64_t sum = total(plain[k]);
      first += sum;
      second += (3 - k) * kVector * sum;  // the vectors behind it in its step
    }
    first %= kModulus;
    second %= kModulus;
    size -= steps * kStep;
  }
  return libdeflate_adler32(static_cast<std::uint32_t>(second << 16 | first), data, size);
}

bool has_wide() noexcept {
  return __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vnni");
}

}  // namespace

std::uint32_t adler32(std::uint32_t adler, const void* data, std::size_t size) noexcept {
  if (size >= kStep && has_wide())
    return adler32_wide(adler, static_cast<const unsigned char*>(data), size);
  return libdeflate_adler32(adler, data, size);
}

}  // namespace kel::internal
