// Owners of what the C library hands out. release() marks the one line where ownership leaves.
#pragma once

#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

#include "internal/report.h"

namespace kel::internal {

/// Lets no cancellation of the thread happen while it lives: what must not stop half-way, and what
/// destructors call (nothing may unwind out of those).
class CancelGuard {
 public:
  CancelGuard() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &saved_); }
  ~CancelGuard() { pthread_setcancelstate(saved_, nullptr); }
  CancelGuard(const CancelGuard&) = delete;
  CancelGuard& operator=(const CancelGuard&) = delete;

 private:
  int saved_ = PTHREAD_CANCEL_ENABLE;
};

/// Owns a file descriptor; closing keeps errno.
class UniqueFd {
 public:
  UniqueFd() noexcept = default;
  explicit UniqueFd(int fd) noexcept : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~UniqueFd() {
    if (fd_ >= 0) {
      const ErrnoGuard keep;
      const CancelGuard whole;
      ::close(fd_);
    }
  }

  explicit operator bool() const noexcept { return fd_ >= 0; }
  int get() const noexcept { return fd_; }
  int release() noexcept { return std::exchange(fd_, -1); }

 private:
  int fd_ = -1;
};

struct FileCloser {
  void operator()(FILE* stream) const noexcept {
    const ErrnoGuard keep;
    const CancelGuard whole;
    std::fclose(stream);
  }
};
using UniqueFile = std::unique_ptr<FILE, FileCloser>;

struct Free {
  void operator()(void* block) const noexcept { std::free(block); }
};
/// Owns a block from malloc, calloc or realloc.
template <class T>
using MallocPtr = std::unique_ptr<T, Free>;

}  // namespace kel::internal
