// A gear hash: each byte shifts the hash by one bit and adds a random number of its own, so that
// the hash depends on the last 64 bytes. A chunk ends where the bits under a mask are all zero; a
// mask of more bits before the usual size and of fewer behind it draws the sizes together.
#include "chunker.h"

#include <algorithm>
#include <array>

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

/// A mask under which one hash in `count`, a power of two, is zero; of the highest bits, which the
/// most bytes have reached.
constexpr uint64_t one_in(uint64_t count) { return ~(~uint64_t{0} / count); }
static_assert(one_in(uint64_t{1} << 16) == 0xffff000000000000);

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
      // Less likely than the usual size asks for, then more likely.
      hard_mask_(one_in(usual * 4)),
      easy_mask_(one_in(usual / 4)) {}

size_t Chunker::first_chunk(const unsigned char* data, size_t size) const {
  if (size <= smallest_) return size;
  const size_t usual = std::min(size, usual_);
  const size_t largest = std::min(size, largest_);
  uint64_t hash = 0;
  const size_t cut = find_cut(data, smallest_, usual, hard_mask_, hash);
  return cut < usual ? cut : find_cut(data, usual, largest, easy_mask_, hash);
}

}  // namespace dedup
