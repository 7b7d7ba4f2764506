// The archive stream format as numbers, shared by its writer and its reader.
#pragma once

#include <kel/crypt.h>
#include <kel/magic.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kel::internal::stream {

inline constexpr std::size_t kHeaderSize = KEL_MAGIC_SIZE;
inline constexpr std::size_t kBlockHeaderSize = 8;
/// What follows the trailer's mark and its pad word: four ignored bytes and the total.
inline constexpr std::size_t kTrailerRest = 12;
inline constexpr std::size_t kTrailerSize = kBlockHeaderSize + kTrailerRest;
/// Stands where a block has its length.
inline constexpr std::uint32_t kTrailerMark = 0xFFFFFFFF;
inline constexpr std::uint64_t kBlockUnit = 4096;

/// Largest piece that is handed to a cipher at once: their lengths are ints.
inline constexpr std::size_t kMaxCipherPiece = 0x40000000;

/// An LZO chunk begins with a word: this bit, and the length of its data when uncompressed.
inline constexpr std::uint32_t kLzoCompressed = 0x80000000;
inline constexpr std::size_t kLzoWordSize = 4;
inline constexpr std::uint32_t kLzoMaxLength = 0x7FFFFFFF;

enum Result : int {
  kComplete = 1,
  kOk = 0,
  kSystemError = -1,
  kBadState = -2,
  kDataError = -3,
  kNoMemory = -4,
  kNoProgress = -5,
  kVersionError = -6,
  kBadKey = -31,
};

/// Moves up to `size` bytes from `from` to the output window; how many.
inline std::size_t put_output(c_stream_t& c, const unsigned char* from, std::size_t size) {
  const std::size_t moved = std::min<std::size_t>(size, c.avail_out);
  if (moved != 0) std::memcpy(c.next_out, from, moved);
  c.next_out += moved;
  c.avail_out -= static_cast<unsigned>(moved);
  c.total_out += moved;
  return moved;
}

inline void consume_input(c_stream_t& c, std::size_t size) {
  c.next_in += size;
  c.avail_in -= static_cast<unsigned>(size);
  c.total_in += size;
}

/// Why Cipher::NewCipher() gave nothing for `type`.
inline int new_cipher_failure(int type) { return type >= 0 && type <= 3 ? kNoMemory : kBadState; }

}  // namespace kel::internal::stream
