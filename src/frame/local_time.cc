#include "frame/local_time.h"

#include <memory>
#include <mutex>

#include "frame/deadline.h"

namespace kel::internal {
namespace {

std::mutex time_mutex;
thread_local bool held = false;

}  // namespace

struct tm local_time(time_t when) noexcept {
  const std::lock_guard lock(time_mutex);
  struct tm local = {};
  localtime_r(&when, &local);
  return local;
}

void hold_local_time() noexcept {
  auto lock = Deadline(std::chrono::milliseconds(100)).lock(time_mutex);
  held = lock.owns_lock();
  lock.release();
}

void release_local_time() noexcept {
  if (held) time_mutex.unlock();
  held = false;
}

void renew_local_time_in_child() noexcept {
  std::construct_at(&time_mutex);
  held = false;
}

}  // namespace kel::internal
