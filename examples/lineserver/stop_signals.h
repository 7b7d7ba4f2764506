// The signals that end the service.
#pragma once

#include <csignal>

namespace lineserver {

inline sigset_t stop_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT}) sigaddset(&signals, signal);
  return signals;
}

/// The thread that waits for peers takes them: they end its wait.
inline void leave_stop_signals_to_others() {
  const sigset_t signals = stop_signals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace lineserver
