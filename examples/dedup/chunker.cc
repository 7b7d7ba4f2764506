// A gear hash: each byte shifts the hash by one bit and adds a random number of its own, so that
// the hash depends on the last 64 bytes. A chunk ends where the bits under a mask are all zero; a
// mask of more bits before the usual size and of fewer behind it draws the sizes together.
#include "chunker.h"

#include <algorithm>
#include <array>
#include <bit>

namespace dedup {
namespace {

/// The numbers of the bytes. They are part of the repository format in so far as other numbers
/// would find no chunk again.
constexpr std::array<uint64_t, 256> make_gear() {
  std::array<uint64_t, 256> gear{};
  uint64_t state = 0x6b656c2d64656475;
  for (uint64_t& number : gear) {
    state += 0x9e3779b97f4a7c15;
    uint64_t z = state;
    z = (z ^ z >> 30) * 0xbf58476d1ce4e5b9;
    z = (z ^ z >> 27) * 0x94d049bb133111eb;
    number = z ^ z >> 31;
  }
  return gear;
}

constexpr auto kGear = make_gear();

/// The `bits` highest bits: those that the most bytes have reached.
constexpr uint64_t high_bits(int bits) { return ~uint64_t{0} << (64 - bits); }

/// The first cut under `mask` in [from, to), or `to`.
size_t find_cut(const unsigned char* data, size_t from, size_t to, uint64_t mask, uint64_t& hash) {
  for (size_t i = from; i < to; ++i) {
    hash = (hash << 1) + kGear[data[i]];
    if ((hash & mask) == 0) return i + 1;
  }
  return to;
}

}  // namespace

Chunker::Chunker(size_t usual)
    : smallest_(usual / 4),
      usual_(usual),
      largest_(usual * 4),
      // 4 times less likely than the usual size asks for, and 4 times more likely.
      hard_mask_(high_bits(std::countr_zero(usual) + 2)),
      easy_mask_(high_bits(std::countr_zero(usual) - 2)) {}

size_t Chunker::first_chunk(const unsigned char* data, size_t size) const {
  if (size <= smallest_) return size;
  const size_t usual = std::min(size, usual_);
  const size_t largest = std::min(size, largest_);
  uint64_t hash = 0;
  const size_t cut = find_cut(data, smallest_, usual, hard_mask_, hash);
  return cut < usual ? cut : find_cut(data, usual, largest, easy_mask_, hash);
}

}  // namespace dedup
