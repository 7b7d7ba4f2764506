// Going into the background, and leaving the process id behind.
#include <kel/daemon.h>
#include <kel/logging.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "frame/log_sink.h"
#include "internal/report.h"
#include "os/daemon_file.h"

namespace {

using kel::internal::DaemonFile;
using kel::internal::fail;

constexpr char kDetach[] = "detach";  // the name in reports

/// Puts "/dev/null" in the place of the standard files; 0 or -1.
int drop_standard_files() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) ::close(fd);
  if (::open("/dev/null", O_RDWR) == STDIN_FILENO && ::dup(STDIN_FILENO) == STDOUT_FILENO &&
      ::dup(STDIN_FILENO) == STDERR_FILENO)
    return 0;
  return fail(-1, errno, "%s: failed to redirect stdin: /dev/null: %s", kDetach,
              std::strerror(errno));
}

/// Goes on in a child; -1 when there is none, or none that is whole.
int detach() {
  // What is buffered would be lost with the child's standard files, or be written twice.
  std::fflush(nullptr);
  kel::internal::flush_log_files();
  const pid_t child = ::fork();
  if (child < 0)
    return fail(-1, errno, "%s: DaemonInit: fork() failed: %s", kDetach, std::strerror(errno));
  if (child > 0) ::_exit(0);
  kellog_reset_for_fork();
  ::umask(0);
  return drop_standard_files();
}

}  // namespace

int DaemonInit(bool foreground) {
  const int result = foreground ? 0 : detach();
  const kel::internal::ErrnoGuard keep;
  ::umask(022);
  ::setsid();
  return result;
}

void DaemonLogPID(const char* dir, const char* name) {
  using Written = DaemonFile::Written;
  if (dir == nullptr || name == nullptr) {
    fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
    return;
  }
  struct Place {
    const char* dir;
    int flags;
  };
  DaemonFile& file = kel::internal::pid_file();
  Written written = Written::not_opened;
  // Anyone may have put a link into /tmp.
  for (const Place& place : {Place{dir, 0}, Place{nullptr, 0}, Place{"/tmp", O_NOFOLLOW}}) {
    if (file.set_path(place.dir, name)) written = file.write_own_pid(O_TRUNC | place.flags);
    if (written != Written::not_opened) break;
  }
  if (written == Written::whole) {
    kel::internal::remove_daemon_files_at_exit();
    return;
  }
  file.forget();
  if (written == Written::opened)
    fail(-1, errno, "%s: could not write pid file for %s", __func__, name);
  else
    fail(-1, errno, "%s: could not open file for pid %s", __func__, name);
}
