// Moving a file: by its name where that can be done, else by a copy.
#include <kel/file.h>
#include <kel/logging.h>
#include <kel/safeio.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "internal/handles.h"
#include "internal/report.h"

namespace {

using kel::internal::ErrnoGuard;
using kel::internal::fail;
using kel::internal::MallocPtr;
using kel::internal::report_error;

constexpr int kAttempts = 6;

/// Whether both paths lead to one directory entry, as through two mounts of one file system.
bool is_one_entry(const struct stat& from, const struct stat& to) {
  return from.st_dev == to.st_dev && from.st_ino == to.st_ino && from.st_nlink == 1;
}

/// Flushes the directory of a new file, as far as it can be done: not every file system can.
void flush_directory_of(const char* path) {
  const ErrnoGuard keep;
  const char* slash = std::strrchr(path, '/');
  if (slash == nullptr) {
    dirfsync(".", true);
    return;
  }
  const MallocPtr<char> dir(::strndup(path, static_cast<size_t>(slash - path) + 1));
  if (dir != nullptr) dirfsync(dir.get(), true);
}

/// The way that is left across file systems. The copy removes its own unfinished file.
bool move_by_copy(const char* function, const char* src, const char* dst, unsigned int mode) {
  if (FileCopy(src, dst, mode) < 0) return fail(false, errno, "%s: copy failed", function);
  flush_directory_of(dst);
  if (::unlink(src) == 0) return true;
  const ErrnoGuard keep;
  ::unlink(dst);
  keep.restore();
  return fail(false, errno, "%s: remove failed", function);
}

bool move(const char* function, const char* src, const char* dst, unsigned int mode) {
  if (::rename(src, dst) == 0) return true;
  const int error = errno;
  struct stat from, to;
  if (::lstat(src, &from) != 0) return move_by_copy(function, src, dst, mode);  // reports it
  if (::lstat(dst, &to) == 0) {
    if (is_one_entry(from, to)) return true;
    InfoA(error, "Destination file (%s) exists,now try to remove it.", dst);
    if (::unlink(dst) != 0) return fail(false, errno, "%s: remove file(%s) failed!", function, dst);
  }
  if (::rename(src, dst) == 0) {
    InfoA(-1, "Second attempt rename succeed!");
    return true;
  }
  return move_by_copy(function, src, dst, mode);
}

void wait_a_second() {
  const ErrnoGuard keep;
  for (unsigned left = 1; left != 0;) left = ::sleep(left);
}

}  // namespace

int FileMove(const char* src, const char* dst, unsigned int mode) {
  if (src == nullptr || dst == nullptr)
    return fail(0, EINVAL, "%s: invalid NULL parameter", __func__);
  return move(__func__, src, dst, mode) ? 1 : 0;
}

int FileMoveWithRetry(const char* src, const char* dst, unsigned int mode) {
  if (src == nullptr || dst == nullptr)
    return fail(0, EINVAL, "%s: invalid NULL parameter", __func__);
  for (int attempt = 1;; ++attempt) {
    if (move(__func__, src, dst, mode)) return 1;
    report_error(errno, "%s: move %s to %s failed (%s), retry in 1 second!", __func__, src, dst,
                 std::strerror(errno));
    if (attempt == kAttempts) return 0;
    wait_a_second();
  }
}

int acsrename(const char* src, const char* dst) { return ::rename(src, dst); }
