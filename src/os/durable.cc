// Renames and removals that survive a crash: the change, then a flush of the directory.
#include <kel/safeio.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "internal/handles.h"
#include "internal/report.h"

namespace {

using kel::internal::fail;
using kel::internal::report_error;
using kel::internal::UniqueFd;

/// Reports what could not be done with one path, unless quiet; errno tells why and stays.
int fail_step(bool quiet, const char* function, const char* what, const char* path) {
  if (!quiet)
    report_error(errno, "%s: Could not %s '%s': %s", function, what, path, std::strerror(errno));
  return -1;
}

/// Reports a path that names nothing.
int fail_path(const char* function, const char* parameter, const char* path) {
  return fail(-1, EINVAL, "%s: invalid argument for %s %s", function, parameter,
              path == nullptr ? "NULL pointer" : "<empty>");
}

bool names_nothing(const char* path) { return path == nullptr || *path == '\0'; }

}  // namespace

int safe_rename(const char* src_path, const char* dst_path) {
  if (names_nothing(src_path)) return fail_path(__func__, "src_path", src_path);
  if (names_nothing(dst_path)) return fail_path(__func__, "dst_path", dst_path);
  return ::rename(src_path, dst_path);
}

int dirfsync(const char* dir, bool quiet) {
  UniqueFd fd(::open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) return fail_step(quiet, __func__, "open directory", dir);
  if (safe_fsync(fd.get()) != 0) return fail_step(quiet, __func__, "fsync directory", dir);
  if (::close(fd.release()) == 0) return 0;
  if (!quiet)
    report_error(errno, "%s: Close after fsync of directory '%s' returned an error: %s", __func__,
                 dir, std::strerror(errno));
  return -1;
}

int rename_dirfsync(const char* src, const char* dst, const char* dir, bool quiet) {
  if (::rename(src, dst) == 0) return dirfsync(dir, quiet);
  if (!quiet)
    report_error(errno, "%s: Could not rename '%s' to '%s': %s", __func__, src, dst,
                 std::strerror(errno));
  return -1;
}

int unlink_dirfsync(const char* path, const char* dir, bool quiet) {
  if (::unlink(path) == 0) return dirfsync(dir, quiet);
  return fail_step(quiet, __func__, "unlink", path);
}
