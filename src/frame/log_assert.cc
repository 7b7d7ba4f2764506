// Last words of a broken process: backtrace and assertion report.
#include <kel/logging.h>

#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <sys/utsname.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "build_info.h"
#include "frame/log_sink.h"
#include "frame/version.h"
#include "internal/handles.h"
#include "internal/transfer.h"

FILE* kelLogFile(void) { return stderr; }

int kelLogBacktrace(void) {
  constexpr int kMaxFrames = 200;
  std::fputs("\nProgram backtrace:\n", stderr);
  std::fflush(stderr);
  void* frames[kMaxFrames];
  const int console = fileno(stderr);
  backtrace_symbols_fd(frames, backtrace(frames, kMaxFrames), console);
  return fsync(console);
}

void __kel_assert_fail(const char* expression, const char* file, unsigned line,
                       const char* function) {
  struct utsname host = {};
  uname(&host);
  char report[1024];
  std::snprintf(report, sizeof report,
                "The following bug was detected: Assertion failed\n\nTested expression: %s\n"
                "Function: %s\nFile    : %s\nLine    : %u\nProgram : %.63s\nVersion : %s\n"
                "Build at: %s, %s\nCompiler: %s, Version %i.%i\nOS\t: %s %s on %s\n",
                expression, function, file, line, program_invocation_short_name,
                kel::internal::kProductVersion, KEL_BUILD_DATE, KEL_BUILD_TIME,
                kel::internal::kCompilerName, kel::internal::kCompilerMajor,
                kel::internal::kCompilerMinor, host.sysname, host.release, host.machine);
  if (std::fputs(report, stderr) < 0 || stderr != stdout) {
    // Standard error may be closed or redirected; its device may still be there.
    const kel::internal::UniqueFd device{open("/dev/stderr", O_WRONLY | O_CLOEXEC)};
    if (device)
      kel::internal::transfer_whole(std::strlen(report), [&](size_t done, size_t remaining) {
        return write(device.get(), report + done, remaining);
      });
  }
  syslog(LOG_CRIT, "%s", report);
  kel::internal::rescue_log_lines();
  std::abort();
}
