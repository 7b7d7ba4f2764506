// What KelLibDestroy() releases on floors above the frame.
#pragma once

namespace kel::internal {

/// Has KelLibDestroy() call `hook` before it closes the log, from now on. There is one: the INI
/// cache's.
void set_stop_hook(void (*hook)()) noexcept;

}  // namespace kel::internal
