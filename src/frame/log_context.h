// A thread's logging context: found through a thread-specific key, made on first use.
#pragma once

#include <kel/logging.h>

#include <pthread.h>

namespace kel::internal {

/// The calling thread's context, made if it has none; never null.
kelLogCtx* log_context() noexcept;

/// Holds the log lock (recursive), which guards contexts and settings.
class LogLock {
 public:
  LogLock() noexcept;
  ~LogLock();
  LogLock(const LogLock&) = delete;
  LogLock& operator=(const LogLock&) = delete;
};

/// Makes the log lock anew, for a child after fork; 0 or an errno value.
int reset_log_lock() noexcept;

}  // namespace kel::internal
