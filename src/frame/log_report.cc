// The entry points: each one level, all one routine.
#include <kel/logging.h>

#include <cstdlib>

#include "internal/report.h"

namespace kel::internal {

void report_error(int code, const char* format, ...) {
  va_list args;
  va_start(args, format);
  log_message(code, KEL_LOG_ERR, format, args);
  va_end(args);
}

void report_warning(int code, const char* format, ...) {
  va_list args;
  va_start(args, format);
  log_message(code, KEL_LOG_WARN, format, args);
  va_end(args);
}

void detail::report_failure(int code, const char* format, va_list args) {
  if (code != -1) errno = code;
  log_message(code, KEL_LOG_ERR, format, args);
}

}  // namespace kel::internal

using kel::internal::log_message;

void ErrorA(int code, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  log_message(code, KEL_LOG_ERR, fmt, args);
  va_end(args);
}

void WarningA(int code, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  log_message(code, KEL_LOG_WARN, fmt, args);
  va_end(args);
}

void NoticeA(int code, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  log_message(code, KEL_LOG_NOTICE, fmt, args);
  va_end(args);
}

void InfoA(int code, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  log_message(code, KEL_LOG_INFO, fmt, args);
  va_end(args);
}

void AuthA(int code, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  log_message(code, KEL_LOG_AUTH, fmt, args);
  va_end(args);
}

void ErrorExitA(int code, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  log_message(code, KEL_LOG_CRIT, fmt, args);
  va_end(args);
  std::exit(1);
}

void __Trace(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  log_message(-1, KEL_LOG_TRACE, fmt, args);
  va_end(args);
}

void kelLog(int code, int level, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  log_message(code, level, fmt, args);
  va_end(args);
}

void ErrorVA(const char* fmt, va_list ap) { log_message(-1, KEL_LOG_YARL_ERROR, fmt, ap); }
void WarningVA(const char* fmt, va_list ap) { log_message(-1, KEL_LOG_YARL_WARNING, fmt, ap); }
void InfoVA(const char* fmt, va_list ap) { log_message(-1, KEL_LOG_YARL_INFO, fmt, ap); }
void DebugVA(const char* fmt, va_list ap) { log_message(-1, KEL_LOG_YARL_DEBUG, fmt, ap); }
void __YarlLogTraceVA(const char* fmt, va_list ap) { log_message(-1, KEL_LOG_YARL_TRACE, fmt, ap); }
void __TraceVA(const char* fmt, va_list ap) { log_message(-1, KEL_LOG_TRACE, fmt, ap); }
