// The name of a chunk: the SHA-512/256 of its bytes.
#pragma once

#include <kel/digest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <span>

namespace dedup {

using Bytes = std::span<const unsigned char>;

struct Fingerprint {
  std::array<unsigned char, 32> bytes;

  friend bool operator==(const Fingerprint&, const Fingerprint&) = default;
};

/// Of at most 4 GiB, as the library takes it.
inline Fingerprint fingerprint_of(Bytes data) {
  SHA256Context context;
  SHA256Initialize(&context);
  SHA256Append(&context, data.data(), static_cast<uint32_t>(data.size()));
  SHA256Finalize(&context);
  Fingerprint result;
  std::memcpy(result.bytes.data(), context.digest, result.bytes.size());
  return result;
}

}  // namespace dedup
