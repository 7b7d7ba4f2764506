// The lock of a daemon: a file with the id of its owner, who is looked for before it counts.
#include <kel/daemon.h>
#include <kel/logging.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "internal/handles.h"
#include "internal/process_stat.h"
#include "internal/report.h"
#include "internal/transfer.h"
#include "os/daemon_file.h"

namespace {

using kel::internal::DaemonFile;
using kel::internal::fail_quietly;
using kel::internal::lock_file;
using kel::internal::pid_of;
using kel::internal::read_first_line;
using kel::internal::report_error;
using kel::internal::UniqueFd;

/// Refuses the lock: reports `text`, unless it is null or `function` is (quiet).
int refuse(const char* function, const char* text) {
  if (function != nullptr && text != nullptr) report_error(EEXIST, "%s: %s", function, text);
  return fail_quietly(-1, EEXIST);
}

enum class Owner { stranger, running, given_way };

/// What a living owner is to this process, by their names.
Owner judge_owner(int pid) {
  char own_name[kel::internal::kProcessNameSize];
  kel::internal::read_process_name(0, own_name);
  const std::string_view self = own_name;
  const std::string_view owner = OSGetProcName(pid);
  if (self == owner || (self == "chunkd" && owner == "bundlerd") ||
      (self == "bundlerd" && owner == "chunkd"))
    return Owner::running;
  return self == "sweepd" && owner == "chunkd" ? Owner::given_way : Owner::stranger;
}

/// Removes the file that `fd` was opened from; false when it is another by now. Whoever removes it
/// locks it first, so that nobody removes the new file of one who was faster.
bool remove_stale(int fd, const char* path) {
  kel::internal::retry_interrupted([=] { return ::flock(fd, LOCK_EX); });
  struct stat opened;
  struct stat present;
  if (::fstat(fd, &opened) != 0 || ::stat(path, &present) != 0) return false;
  if (opened.st_ino != present.st_ino || opened.st_dev != present.st_dev) return false;
  ::unlink(path);
  return true;
}

/// Reports under the name of `function`; null: not at all.
int test_lock(const char* dir, const char* name, const char* function) {
  const auto refuse_argument = [=](int code, const char* text) {
    if (function != nullptr) report_error(code, "%s: %s", function, text);
    return fail_quietly(-1, code);
  };
  if (dir == nullptr || name == nullptr) return refuse_argument(EINVAL, "invalid NULL parameter");
  DaemonFile& lock = lock_file();
  if (!lock.set_path(dir, name)) return refuse_argument(errno, "path too long");

  for (;;) {
    const UniqueFd fd(::open(lock.path(), O_RDONLY | O_CLOEXEC));
    if (!fd && errno == ENOENT) return 0;
    char line[DaemonFile::kLineSize];
    const int pid = fd && read_first_line(fd.get(), line) ? pid_of(line) : 0;
    if (pid == 0) return refuse(function, "Unknown error");

    const bool gone = ::kill(pid, 0) != 0;
    if (gone && errno != ESRCH) return refuse(function, "invalid signal, no permissions, etc");
    switch (gone ? Owner::stranger : judge_owner(pid)) {
      case Owner::running:
        if (function != nullptr)
          report_error(EEXIST, "%s (%u): Daemon already running", function,
                       static_cast<unsigned>(__LINE__));
        return fail_quietly(-1, EEXIST);
      case Owner::given_way:
        return refuse(function, nullptr);
      case Owner::stranger:
        break;
    }
    if (!remove_stale(fd.get(), lock.path())) continue;
    if (gone) lock.forget();
    return 0;
  }
}

}  // namespace

int DaemonLockSimple(const char* dir, const char* name) {
  using kel::internal::fail;
  using Written = DaemonFile::Written;
  if (dir == nullptr || name == nullptr)
    return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  if (DaemonLockSimpleTest(dir, name) != 0)
    return fail(-1, errno, "%s: lock already exists", __func__);
  DaemonFile& lock = lock_file();
  if (!lock.set_path(dir, name)) return fail(-1, errno, "%s: failed to open file", __func__);
  switch (lock.write_own_pid(O_EXCL)) {
    case Written::not_opened:
      return errno == EEXIST ? fail(-1, EEXIST, "%s: lock already exists", __func__)
                             : fail(-1, errno, "%s: failed to open file", __func__);
    case Written::opened:
      return fail(-1, errno, "%s: failed to write file", __func__);
    case Written::whole:
      break;
  }
  kel::internal::remove_daemon_files_at_exit();
  return 0;
}

int DaemonLockSimpleTest(const char* dir, const char* name) {
  return test_lock(dir, name, __func__);
}

int DaemonLockSimpleTestNoError(const char* dir, const char* name) {
  return test_lock(dir, name, nullptr);
}

const char* DaemonLockSimpleRead(void) {
  static char line[DaemonFile::kLineSize];
  if (lock_file().path()[0] == '\0') return "(not set)";
  return lock_file().read_line(line) ? line : "(not found)";
}

void DaemonLockSimpleClear(void) {
  if (lock_file().path()[0] != '\0') ::unlink(lock_file().path());
  lock_file().forget();
}
