// The process's flags, and the system log behind them.
#include <kel/logging.h>

#include <pthread.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "frame/log_context.h"
#include "internal/atomic_field.h"
#include "internal/handles.h"
#include "internal/report.h"
#include "internal/text_traits.h"

using kel::internal::load_field;
using kel::internal::store_field;

LogConfig logconf;

namespace {

volatile sig_atomic_t alarm_seen = 0;
pthread_t probing_thread;

/// Breaks the send that the probe waits in, whichever thread the signal came to, and again until it
/// gives up: syslog(3) answers a first failure with a second attempt, which blocks like the first.
void record_alarm(int signal) {
  const kel::internal::ErrnoGuard keep;
  alarm_seen = signal;
  if (pthread_equal(pthread_self(), probing_thread) == 0)
    pthread_kill(probing_thread, signal);
  else
    alarm(1);
}

}  // namespace

namespace kel::internal {

void read_process_name(char (&name)[kProcessNameSize]) noexcept {
  char word[kProcessNameSize] = "";
  if (const UniqueFile stat{std::fopen("/proc/self/stat", "re")})
    if (std::fscanf(stat.get(), "%*d %63s", word) != 1) word[0] = '\0';
  copy_cut(name, word[0] == '(' ? word + 1 : word);
  const size_t length = std::strlen(name);
  if (length != 0 && name[length - 1] == ')') name[length - 1] = '\0';
}

}  // namespace kel::internal

void LogConfig::Init(int newFlags, int newSyslogFlags, bool force) {
  if (force) SetFlags(newFlags, newSyslogFlags);
  if (load_field(initialized)) return;
  SetFlags(newFlags, newSyslogFlags);
  const bool wanted = newSyslogFlags != 0 && (newSyslogFlags & KEL_LOG_SILENT) == 0;
  store_field(syslogOpen, wanted && SupportSyslog());
  store_field(initialized, true);
}

void LogConfig::SetFlags(int newFlags, int newSyslogFlags) {
  store_field(syslogFlags, newSyslogFlags);
  store_field(flags, newFlags);
  store_field(traceOn, (newFlags & KEL_LOG_TRACE) != 0);
  const int level = (newFlags & KEL_LOG_SILENT) != 0           ? 0
                    : (newFlags & KEL_LOG_SEVERE_CONSOLE) != 0 ? 1
                                                               : 2;
  store_field(consoleLevel, level);
}

void LogConfig::Reset() {
  if (load_field(syslogOpen)) closelog();
  const LogConfig initial;
  store_field(initialized, initial.initialized);
  store_field(syslogOpen, initial.syslogOpen);
  store_field(syslogFlags, initial.syslogFlags);
  store_field(flags, initial.flags);
  store_field(consoleLevel, initial.consoleLevel);
  store_field(traceOn, initial.traceOn);
}

bool LogConfig::SupportSyslog() {
  static char name[kel::internal::kProcessNameSize];  // openlog() keeps the pointer
  kel::internal::read_process_name(name);
  openlog(name, LOG_PID | LOG_NDELAY, LOG_LOCAL4);
  probing_thread = pthread_self();
  struct sigaction on_alarm = {};
  on_alarm.sa_handler = record_alarm;  // no SA_RESTART: the alarm must break a blocking send
  sigaction(SIGALRM, &on_alarm, nullptr);
  alarm_seen = 0;
  alarm(1);
  syslog(LOG_DEBUG, "DEBUG : syslog opened");
  alarm(0);
  const bool answered = alarm_seen == 0;
  if (!answered) closelog();
  signal(SIGALRM, SIG_DFL);
  return answered;
}

int kelLogDestroy(void) {
  logconf.Reset();
  return 0;
}

int kelLogSetFlags(int flags, int syslogFlags) {
  logconf.SetFlags(flags, syslogFlags);
  return (flags & KEL_LOG_TRACE) != 0;
}

void kelLogGetFlags(int* flags, int* syslogFlags) {
  if (flags != nullptr) *flags = load_field(logconf.flags);
  if (syslogFlags != nullptr) *syslogFlags = load_field(logconf.syslogFlags);
}

int TraceOn(void) { return load_field(logconf.traceOn); }
