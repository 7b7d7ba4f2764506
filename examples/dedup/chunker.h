// Content-defined chunks: cuts that depend on the bytes around them and not on their position, so
// that an insertion changes the chunks beside it and no others.
#pragma once

#include <cstddef>

namespace dedup {

inline constexpr size_t kSmallestChunk = size_t{4} << 10;
inline constexpr size_t kUsualChunk = size_t{16} << 10;
inline constexpr size_t kLargestChunk = size_t{64} << 10;

/// The length of the first chunk of `size` bytes. With `size` below kLargestChunk there must be
/// nothing behind the data.
size_t first_chunk(const unsigned char* data, size_t size);

}  // namespace dedup
