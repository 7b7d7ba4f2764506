// What /proc/PID/stat tells.
#pragma once

#include <cstddef>

namespace kel::internal {

inline constexpr std::size_t kProcessNameSize = 64;

/// Reads the short name of process `pid` (0: this one), up to its first space; empty when that
/// cannot be read.
void read_process_name(int pid, char (&name)[kProcessNameSize]) noexcept;

/// Bytes of this process in memory; 0 when that cannot be read.
unsigned long resident_bytes() noexcept;

}  // namespace kel::internal
