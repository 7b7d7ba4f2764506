// Adler-32 (RFC 1950), the library's one checksum.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kel::internal {

/// The checksum of no bytes.
inline constexpr std::uint32_t kAdler32Start = 1;

/// The checksum `adler` continued over `size` bytes.
std::uint32_t adler32(std::uint32_t adler, const void* data, std::size_t size) noexcept;

}  // namespace kel::internal
