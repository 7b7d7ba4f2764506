// Mutual exclusion of threads and processes at once.
#include <kel/daemon.h>
#include <kel/logging.h>
#include <kel/runtime.h>

#include <fcntl.h>

#include <boost/interprocess/sync/file_lock.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <new>

#include "internal/handles.h"
#include "internal/report.h"

namespace {

using FileLock = boost::interprocess::file_lock;
using kel::internal::fail;
using kel::internal::report_error;

constexpr int kAttempts = 20;          // to open the file, a second apart
constexpr std::time_t kLongWait = 60;  // seconds that are worth a report

/// The lock object lives in plain bytes, so that the public header does without Boost's.
FileLock& lock_in(unsigned char (&room)[sizeof(int)]) {
  static_assert(sizeof(FileLock) == sizeof(int) && alignof(FileLock) <= alignof(int));
  return *std::launder(reinterpret_cast<FileLock*>(room));
}

/// Makes the file where there is none. It is closed again before it is locked: closing drops locks.
bool make_file(const std::string& path) {
  for (int attempt = 1;; ++attempt) {
    if (kel::internal::UniqueFile{std::fopen(path.c_str(), "abe")}) return true;
    report_error(-1, "%s: failed to create file %s", "Lock", path.c_str());
    KelSleep(1);
    if (attempt == kAttempts) return false;
  }
}

/// Keeps the lock's descriptor, which is all there is in it, from programs that are started.
void close_on_exec(const unsigned char (&room)[sizeof(int)]) {
  int fd;
  std::memcpy(&fd, room, sizeof fd);
  ::fcntl(fd, F_SETFD, FD_CLOEXEC);
}

/// Waits for the lock; a signal does not end the wait.
void lock_whole(FileLock& lock) {
  for (;;) {
    try {
      return lock.lock();
    } catch (const boost::interprocess::interprocess_exception& e) {
      if (e.get_native_error() != EINTR) throw;
    }
  }
}

}  // namespace

KelFileLock::KelFileLock(std::mutex& mutex) : mutex_(mutex) {
  mutex_.lock();
  new (file_lock_) FileLock;
  constructed_ = std::time(nullptr);
}

KelFileLock::~KelFileLock() {
  Unlock();
  std::destroy_at(&lock_in(file_lock_));
  mutex_.unlock();
}

bool KelFileLock::Lock(const std::string& path) try {
  Unlock();
  if (!make_file(path)) return false;
  FileLock& lock = lock_in(file_lock_);
  FileLock(path.c_str()).swap(lock);
  close_on_exec(file_lock_);
  lock_whole(lock);
  locked_ = true;
  const std::time_t waited = std::time(nullptr) - constructed_;
  if (waited > kLongWait)
    InfoA(-1, "%s: %zu seconds was taken to acquire file lock", "Lock",
          static_cast<std::size_t>(waited));
  return true;
} catch (const std::exception& e) {
  return fail(false, -1, "%s: caught exception %s", "Lock", e.what());
}

void KelFileLock::Unlock() noexcept {
  if (!locked_) return;
  locked_ = false;
  const kel::internal::ErrnoGuard keep;
  // Closing the file releases it.
  FileLock().swap(lock_in(file_lock_));
}
