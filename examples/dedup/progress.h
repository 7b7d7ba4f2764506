// A line on the terminal that tells how far the work is; nothing when standard error is no
// terminal.
#pragma once

#include <chrono>
#include <cstdint>

namespace dedup {

class Progress {
 public:
  /// Quiet: there is no line at all.
  Progress(const char* verb, bool quiet);
  ~Progress() { clear(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void add_file() { ++files_; }
  /// Counts `bytes` and shows the line, ten times a second at most.
  void add_bytes(uint64_t bytes);
  /// Removes the line, for the output that follows.
  void clear();
  /// Seconds since the beginning.
  double seconds() const;

 private:
  using Clock = std::chrono::steady_clock;

  const char* verb_;
  bool shown_ = false;
  bool wanted_;
  uint64_t files_ = 0;
  uint64_t bytes_ = 0;
  Clock::time_point start_ = Clock::now();
  Clock::time_point next_ = start_;
};

}  // namespace dedup
