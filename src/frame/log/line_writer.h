// Lines on their way into one open log file: gathered, handed to the kernel whole, and kept or
// dropped whole when it does not take them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "internal/handles.h"

namespace kel::internal {

/// Not thread-safe.
class LineWriter {
 public:
  static constexpr size_t kCapacity = 16 << 10;

  /// Takes over `fd`, open for appending, of a file of `size` bytes.
  LineWriter(UniqueFd fd, uint64_t size);

  /// Adds a line. When there is no room the gathered lines are written first; a line that does not
  /// fit then either is dropped.
  void append(std::string_view line) noexcept;
  /// Writes what has gathered. What the kernel does not take stays.
  void flush() noexcept;
  /// Forgets what has gathered.
  void discard() noexcept { used_ = 0; }
  /// Goes on in another file; what has gathered goes there.
  void rebind(UniqueFd fd, uint64_t size) noexcept;

  /// The file's size once everything is written.
  uint64_t position() const noexcept { return written_ + used_; }
  /// For a file that others wrote to as well.
  void set_size(uint64_t size) noexcept { written_ = size; }
  bool pending() const noexcept { return used_ != 0; }
  /// Why the last write did not take all, else 0.
  int error() const noexcept { return error_; }
  int fd() const noexcept { return fd_.get(); }

 private:
  size_t write(const char* data, size_t size) noexcept;
  bool take_back(size_t size) noexcept;

  UniqueFd fd_;
  std::unique_ptr<char[]> gathered_;
  size_t used_ = 0;
  uint64_t written_;
  int error_ = 0;
};

}  // namespace kel::internal
