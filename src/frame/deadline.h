// Waiting for a lock, but not for ever.
#pragma once

#include <unistd.h>

#include <chrono>
#include <mutex>

namespace kel::internal {

/// A limit for waiting for locks whose holder may never come back: one that forked away, or the
/// very thread that a signal interrupted.
class Deadline {
 public:
  explicit Deadline(std::chrono::milliseconds wait)
      : at_(std::chrono::steady_clock::now() + wait) {}

  /// The mutex, locked, or a lock that holds nothing when the time is up.
  std::unique_lock<std::mutex> lock(std::mutex& mutex) const {
    std::unique_lock held(mutex, std::try_to_lock);
    while (!held && std::chrono::steady_clock::now() < at_) {
      ::usleep(100);
      static_cast<void>(held.try_lock());
    }
    return held;
  }

 private:
  std::chrono::steady_clock::time_point at_;
};

}  // namespace kel::internal
