// The process's flags, and the system log behind them.
#include <kel/logging.h>

#include <pthread.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include "internal/atomic_field.h"
#include "internal/process_stat.h"
#include "internal/report.h"

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
  kel::internal::read_process_name(0, name);
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
