// The loop under every whole-buffer transfer: descriptors, positional calls, sockets.
#pragma once

#include <sys/types.h>

#include <cerrno>
#include <cstddef>

namespace kel::internal {

struct Transfer {
  std::size_t done;  ///< bytes moved, also when the transfer failed
  bool failed;       ///< a call failed with something else than EINTR; errno tells what
};

/// Calls `step(done, remaining)`, which moves at most `remaining` bytes at `done` and returns what
/// read(2) would, until `count` bytes have moved, it returns 0, or it fails. EINTR is retried.
template <class Step>
Transfer transfer_whole(std::size_t count, Step step) {
  std::size_t done = 0;
  while (done < count) {
    const ssize_t moved = step(done, count - done);
    if (moved > 0)
      done += static_cast<std::size_t>(moved);
    else if (moved == 0)
      break;
    else if (errno != EINTR)
      return {done, true};
  }
  return {done, false};
}

/// Repeats a call that returns -1 with errno EINTR when a signal interrupted it.
template <class Call>
auto retry_interrupted(Call call) {
  decltype(call()) result;
  do {
    result = call();
  } while (result == -1 && errno == EINTR);
  return result;
}

}  // namespace kel::internal
