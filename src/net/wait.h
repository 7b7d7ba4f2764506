// Waiting for one descriptor.
#pragma once

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>

namespace kel::internal {

/// poll(2) of one descriptor, in spite of signals, for `limit` milliseconds at most (below 0: for
/// ever). The result is poll's; `*happened` receives its events.
inline int poll_one(int fd, short events, long limit, short* happened) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point start = Clock::now();
  for (long left = limit;;) {
    struct pollfd entry = {fd, events, 0};
    const int result = ::poll(&entry, 1, static_cast<int>(std::clamp(left, -1L, long{INT_MAX})));
    *happened = entry.revents;
    if (result != -1 || errno != EINTR) return result;
    if (limit < 0) continue;
    const std::chrono::duration<long, std::milli> passed =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    left = std::max(limit - passed.count(), 0L);
  }
}

enum class Input { kReady, kExpired, kFailed };

/// Waits for input on `sock`, `limit` as above. Failures are reported as those of NetSelect().
Input await_input(int sock, long limit);

}  // namespace kel::internal
