#include "os/daemon_file.h"

#include <kel/safeio.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal/handles.h"
#include "internal/report.h"
#include "internal/transfer.h"

namespace kel::internal {
namespace {

void remove_own_files() {
  if (::getsid(0) != ::getpid()) return;
  pid_file().remove_own();
  lock_file().remove_own();
}

}  // namespace

bool DaemonFile::set_path(const char* dir, const char* name) noexcept {
  forget();
  char working[kPathSize] = "";
  const bool relative = dir == nullptr || (*dir != '/' && *dir != '\0');
  if (relative && ::getcwd(working, sizeof working) == nullptr)
    return fail_quietly(false, errno == ERANGE ? ENAMETOOLONG : errno);
  const char* slash = relative && dir != nullptr ? "/" : "";
  const int length = std::snprintf(path_, sizeof path_, "%s%s%s/%s.pid", working, slash,
                                   dir == nullptr ? "" : dir, name);
  if (length >= 0 && static_cast<std::size_t>(length) < sizeof path_) return true;
  forget();
  return fail_quietly(false, ENAMETOOLONG);
}

DaemonFile::Written DaemonFile::write_own_pid(int flags) noexcept {
  UniqueFd fd(retry_interrupted(
      [&] { return ::open(path_, O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0644); }));
  if (!fd) return Written::not_opened;
  char line[16];
  const int length = std::snprintf(line, sizeof line, "%i\n", ::getpid());
  const bool whole = safe_write(fd.get(), line, static_cast<std::size_t>(length)) == length;
  if (::close(fd.release()) == 0 && whole) return Written::whole;
  const ErrnoGuard keep;
  ::unlink(path_);
  return Written::opened;
}

bool DaemonFile::read_line(char (&line)[kLineSize]) const noexcept {
  const UniqueFd fd(::open(path_, O_RDONLY | O_CLOEXEC));
  return fd && read_first_line(fd.get(), line);
}

void DaemonFile::remove_own() noexcept {
  char line[kLineSize];
  if (path_[0] != '\0' && read_line(line) && pid_of(line) == ::getpid()) ::unlink(path_);
}

DaemonFile& pid_file() noexcept {
  static DaemonFile file;
  return file;
}

DaemonFile& lock_file() noexcept {
  static DaemonFile file;
  return file;
}

void remove_daemon_files_at_exit() noexcept {
  static const int registered = std::atexit(remove_own_files);
  static_cast<void>(registered);
}

bool read_first_line(int fd, char (&line)[DaemonFile::kLineSize]) noexcept {
  const ssize_t length = safe_read(fd, line, sizeof line - 1);
  line[length > 0 ? length : 0] = '\0';
  line[std::strcspn(line, "\n")] = '\0';
  return length >= 0;
}

int pid_of(const char* line) noexcept {
  const long value = std::strtol(line, nullptr, 10);
  return value > 0 && value <= INT_MAX ? static_cast<int>(value) : 0;
}

}  // namespace kel::internal
