#include "progress.h"

#include <unistd.h>

#include <cstdio>

#include "text.h"

namespace dedup {

Progress::Progress(const char* verb, bool quiet)
    : verb_(verb), wanted_(!quiet && ::isatty(STDERR_FILENO) == 1) {}

void Progress::add_bytes(uint64_t bytes) {
  bytes_ += bytes;
  if (!wanted_) return;
  const auto now = Clock::now();
  if (now < next_) return;
  next_ = now + std::chrono::milliseconds(100);
  const auto rate = static_cast<uint64_t>(static_cast<double>(bytes_) / (seconds() + 1e-9));
  // The cursor goes back to where a report may begin.
  std::fprintf(stderr, "\033[K%s %lu files, %s, %s/s\r", verb_, static_cast<unsigned long>(files_),
               size_text(bytes_).c_str(), size_text(rate).c_str());
  shown_ = true;
}

void Progress::clear() {
  if (shown_) std::fputs("\r\033[K", stderr);
  shown_ = false;
}

double Progress::seconds() const {
  return std::chrono::duration<double>(Clock::now() - start_).count();
}

}  // namespace dedup
