// The names of the cipher types, as tools and logs show them.
#pragma once

#include <iterator>

namespace kel::internal {

inline constexpr const char* kCipherDescriptions[] = {"Blowfish", "AES-256-CFB", "AES-256-OFB",
                                                      "AES-256-CTR"};

constexpr const char* cipher_description(int type) noexcept {
  constexpr auto kCount = static_cast<int>(std::size(kCipherDescriptions));
  return type >= 0 && type < kCount ? kCipherDescriptions[type] : "Unknown";
}

}  // namespace kel::internal
