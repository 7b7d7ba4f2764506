// Ends a process before and after each of the library's calls of one function.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>

#include "support/import_hook.h"

namespace kel::testing {

/// Runs `scenario` in children that are killed before or after each of their calls of `Name`, until
/// one gets to its end; `check` looks at what each of them left.
template <Symbol Name, class R, class... Args>
void kill_at_each(const std::function<void()>& scenario, const std::function<void()>& check) {
  SCOPED_TRACE(Name.text);
  using Hook = Hooked<Name, R(Args...)>;
  static int countdown;
  int killed = 0;
  for (bool dies = true; dies; killed += dies) {
    const pid_t child = ::fork();
    if (child == 0) {
      countdown = killed + 1;
      const Hook hook([](Args... args) {
        if (--countdown == 0) ::raise(SIGKILL);
        const R result = Hook::real(args...);
        if (--countdown == 0) ::raise(SIGKILL);
        return result;
      });
      scenario();
      ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    dies = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    check();
  }
  EXPECT_GE(killed, 2);
}

}  // namespace kel::testing
