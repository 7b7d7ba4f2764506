// LZO chunks: a word with the uncompressed length, then LZO1X data or the bytes themselves.
#pragma once

#include <cstddef>
#include <cstdint>

#include "internal/handles.h"

namespace kel::internal::stream {

/// The LZO1X-1 compressor of a level (its number of dictionary bits).
class LzoCompressor {
 public:
  static constexpr int kMinLevel = 6;
  static constexpr int kMaxLevel = 16;
  static constexpr int kDefaultLevel = 14;

  /// Room that make_chunk() needs for `length` bytes.
  static constexpr std::size_t worst_case(std::size_t length) { return length + length / 16 + 71; }
  /// Bytes of work memory that init() allocates.
  static std::size_t work_size(int level);

  /// Selects the compressor and allocates its work memory; false when that cannot be had.
  bool init(int level);
  /// Writes the chunk of `length` bytes, at most kLzoMaxLength, into `out`; its size, or 0 when the
  /// compressor failed.
  std::size_t make_chunk(const unsigned char* in, std::size_t length, unsigned char* out);

 private:
  int level_ = 0;
  MallocPtr<unsigned char> work_;
};

/// Decompresses to exactly `length` bytes at `out`; false when the data say otherwise.
bool lzo_decompress(const unsigned char* in, std::size_t size, unsigned char* out,
                    std::size_t length);

/// False when no LZO1X data of `size` bytes can expand to `length`: four bytes stand for at least
/// every 255 bytes of a match, and one for every literal.
constexpr bool lzo_can_expand(std::size_t size, std::size_t length) { return length / 255 <= size; }

}  // namespace kel::internal::stream
