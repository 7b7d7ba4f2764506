// The time base of GetTickCount().
#pragma once

namespace kel::internal {

/// Reads the system's clock ticks per second; GetTickCount() is 0 before.
void init_tick_count() noexcept;

}  // namespace kel::internal
