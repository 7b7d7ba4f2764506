// Local time that a child may still ask for.
#pragma once

#include <ctime>

namespace kel::internal {

/// localtime_r(3) under a lock of our own. The C library's is not made anew in a child: had another
/// thread held it at the moment of the fork, the child's first date would wait for ever.
struct tm local_time(time_t when) noexcept;

/// Around a fork, on the forking thread: keeps others out of local_time(), waiting for them a tenth
/// of a second at most, and lets them in again.
void hold_local_time() noexcept;
void release_local_time() noexcept;
void renew_local_time_in_child() noexcept;

}  // namespace kel::internal
