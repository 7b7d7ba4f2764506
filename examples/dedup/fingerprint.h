// The name of a chunk: the SHA-512/256 of its bytes.
#pragma once

#include <kel/digest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <span>
#include <string>

namespace dedup {

using Bytes = std::span<const unsigned char>;

struct Fingerprint {
  std::array<unsigned char, 32> bytes;

  friend bool operator==(const Fingerprint&, const Fingerprint&) = default;
};

/// The fingerprint of all `pieces`, one behind the other.
inline Fingerprint fingerprint_of(std::initializer_list<Bytes> pieces) {
  SHA256Context context;
  SHA256Initialize(&context);
  for (const Bytes piece : pieces)
    if (!piece.empty()) SHA256Append(&context, piece.data(), piece.size());
  SHA256Finalize(&context);
  Fingerprint result;
  std::memcpy(result.bytes.data(), context.digest, result.bytes.size());
  return result;
}

inline Fingerprint fingerprint_of(Bytes data) { return fingerprint_of({data}); }

/// 64 hexadecimal digits.
inline std::string text_of(const Fingerprint& fingerprint) {
  char text[65];
  SHA256DigestToString_r(fingerprint.bytes.data(), text, sizeof text);
  return text;
}

}  // namespace dedup
