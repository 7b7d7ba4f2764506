// Owns a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace dedup {

class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }

  explicit operator bool() const { return fd_ >= 0; }
  int get() const { return fd_; }
  /// Gives the descriptor to another owner.
  int release() { return std::exchange(fd_, -1); }
  /// Closes now; 0 or -1, as close(2).
  int close() { return ::close(release()); }

 private:
  int fd_ = -1;
};

}  // namespace dedup
