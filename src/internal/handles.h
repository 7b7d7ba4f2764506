// Owners of what the C library hands out. release() marks the one line where ownership leaves.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

#include "internal/report.h"

namespace kel::internal {

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
