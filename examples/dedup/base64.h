// Bytes as Base64 text, for databases and JSON.
#pragma once

#include <kel/base64.h>

#include <string>
#include <string_view>
#include <vector>

#include "fingerprint.h"

namespace dedup {

inline Bytes bytes_of(std::string_view text) {
  return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

inline void write_base64(Bytes bytes, std::string& text) {
  text.resize(KEL_BASE64_SIZE(bytes.size()));
  text.resize(bytes.empty() ? 0
                            : Base64Encode(bytes.data(), bytes.size(), text.data(), text.size()));
}

inline std::string base64_of(Bytes bytes) {
  std::string text;
  write_base64(bytes, text);
  return text;
}

/// False when the text is no Base64; `bytes` are then of no use.
inline bool read_base64(const std::string& text, std::vector<unsigned char>& bytes) {
  bytes.resize(text.size() / 4 * 3 + 4);
  const size_t size = Base64Decode(text.c_str(), bytes.data(), bytes.size());
  if (size == KEL_BASE64_FAILURE) return false;
  bytes.resize(size);
  return true;
}

}  // namespace dedup
