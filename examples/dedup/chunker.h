// Content-defined chunks: cuts that depend on the bytes around them and not on their position, so
// that an insertion changes the chunks beside it and no others.
#pragma once

#include <cstddef>
#include <cstdint>

namespace dedup {

inline constexpr size_t kSmallestUsualChunk = size_t{1} << 10;
inline constexpr size_t kLargestUsualChunk = size_t{1} << 20;
/// A chunk is at most 4 times as large as usual, and no smaller than a quarter.
inline constexpr size_t kLargestChunk = 4 * kLargestUsualChunk;

class Chunker {
 public:
  /// `usual` is a power of two from kSmallestUsualChunk to kLargestUsualChunk.
  explicit Chunker(size_t usual);

  size_t largest() const { return largest_; }
  /// The length of the first chunk of `size` bytes. With `size` below largest() there must be
  /// nothing behind the data.
  size_t first_chunk(const unsigned char* data, size_t size) const;

 private:
  size_t smallest_;
  size_t usual_;
  size_t largest_;
  uint64_t hard_mask_;
  uint64_t easy_mask_;
};

}  // namespace dedup
