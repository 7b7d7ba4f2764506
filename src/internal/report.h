// The one way to fail: report through the log, leave errno at the code, hand back the failure
// value.
#pragma once

#include <kel/export.h>

#include <cerrno>
#include <cstdarg>

namespace kel::internal {

/// Puts errno back to its value at construction when the scope ends.
class ErrnoGuard {
 public:
  ErrnoGuard() noexcept : saved_(errno) {}
  ~ErrnoGuard() { restore(); }
  ErrnoGuard(const ErrnoGuard&) = delete;
  ErrnoGuard& operator=(const ErrnoGuard&) = delete;

  void restore() const noexcept { errno = saved_; }

 private:
  int saved_;
};

/// Formats one message and sends it wherever `level` goes. Defined by the log (frame/log_line.cc).
void log_message(int code, int level, const char* format, va_list args) KEL_PRINTF(3, 0);

void report_error(int code, const char* format, ...) KEL_PRINTF(2, 3);
void report_warning(int code, const char* format, ...) KEL_PRINTF(2, 3);

namespace detail {
void report_failure(int code, const char* format, va_list args) KEL_PRINTF(2, 0);
}

/// Reports an error with `code`, sets errno to it (unless it is -1, "no code") and returns
/// `failure`, so that a failed check is one return statement.
template <class Result>
[[gnu::format(printf, 3, 4)]] Result fail(Result failure, int code, const char* format, ...) {
  va_list args;
  va_start(args, format);
  detail::report_failure(code, format, args);
  va_end(args);
  return failure;
}

/// As fail(), for the cases that are not worth a message.
template <class Result>
Result fail_quietly(Result failure, int code) noexcept {
  errno = code;
  return failure;
}

/// The code under which a failed allocation is reported.
inline constexpr int kAllocationFailure = 90;

/// Reports that `size` bytes could not be had by `function` and returns `failure`; errno is ENOMEM.
template <class Result>
Result fail_allocation(Result failure, size_t size, const char* function,
                       int line = __builtin_LINE(), const char* file = __builtin_FILE()) {
  errno = ENOMEM;
  report_error(kAllocationFailure, "Could not allocate %lu bytes (%s at line %i in %s)", size,
               function, line, file);
  return failure;
}

}  // namespace kel::internal
