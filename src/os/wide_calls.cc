// System calls for wide paths: each is its narrow call behind one conversion.
#include <kel/wide.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "internal/handles.h"
#include "internal/report.h"
#include "os/wide_path.h"

namespace {

using kel::internal::fail;
using kel::internal::MallocPtr;
using kel::internal::WidePath;

constexpr size_t kBadSequence = static_cast<size_t>(-1);

/// What `call` returns for the path in bytes, or `failure` when it has none.
template <class Result, class Call>
Result on(const char* function, Result failure, const wchar_t* path, Call call) {
  const WidePath converted(path, function);
  return converted ? call(converted.c_str()) : failure;
}

template <class Result, class Call>
Result on_both(const char* function, Result failure, const wchar_t* a, const wchar_t* b,
               Call call) {
  return on(function, failure, a, [&](const char* first) {
    return on(function, failure, b, [&](const char* second) { return call(first, second); });
  });
}

/// As on_both(), for functions of the C library that take no null pointers.
template <class Call>
FILE* on_mode(const char* function, const wchar_t* text, const wchar_t* mode, Call call) {
  if (text == nullptr || mode == nullptr)
    return fail<FILE*>(nullptr, EINVAL, "%s: invalid NULL parameter", function);
  return on_both<FILE*>(function, nullptr, text, mode, call);
}

}  // namespace

int wcsmkdir(const wchar_t* path, mode_t mode) {
  return on(__func__, -1, path, [=](const char* p) { return ::mkdir(p, mode); });
}
int wcsrmdir(const wchar_t* path) { return on(__func__, -1, path, ::rmdir); }
int wcschdir(const wchar_t* path) { return on(__func__, -1, path, ::chdir); }

int wcsopen(const wchar_t* path, int flags, mode_t mode) {
  return on(__func__, -1, path, [=](const char* p) { return ::open(p, flags, mode); });
}
int wcscreat(const wchar_t* path, mode_t mode) {
  return on(__func__, -1, path, [=](const char* p) { return ::creat(p, mode); });
}
FILE* wcsfopen(const wchar_t* path, const wchar_t* mode) {
  return on_mode(__func__, path, mode, ::fopen);
}
int wcsmkfifo(const wchar_t* path, mode_t mode) {
  return on(__func__, -1, path, [=](const char* p) { return ::mkfifo(p, mode); });
}
int wcsmknod(const wchar_t* path, mode_t mode, dev_t dev) {
  return on(__func__, -1, path, [=](const char* p) { return ::mknod(p, mode, dev); });
}

int wcssystem(const wchar_t* command) {
  // NOLINTNEXTLINE(cert-env33-c): running the caller's command is what it is for
  return on(__func__, -1, command, [](const char* c) { return std::system(c); });
}
FILE* wcspopen(const wchar_t* command, const wchar_t* mode) {
  return on_mode(__func__, command, mode, ::popen);
}

int wcsaccess(const wchar_t* path, int mode) {
  return on(__func__, -1, path, [=](const char* p) { return ::access(p, mode); });
}
int wcsstat(const wchar_t* path, struct stat* status) {
  return on(__func__, -1, path, [=](const char* p) { return ::stat(p, status); });
}
int wcslstat(const wchar_t* path, struct stat* status) {
  return on(__func__, -1, path, [=](const char* p) { return ::lstat(p, status); });
}
int wcsstatvfs(const wchar_t* path, struct statvfs* status) {
  return on(__func__, -1, path, [=](const char* p) { return ::statvfs(p, status); });
}

int wcsrename(const wchar_t* from, const wchar_t* to) {
  return on_both(__func__, -1, from, to, ::rename);
}
int wcsremove(const wchar_t* path) { return on(__func__, -1, path, ::remove); }
int wcsunlink(const wchar_t* path) { return on(__func__, -1, path, ::unlink); }
int wcslink(const wchar_t* target, const wchar_t* path) {
  return on_both(__func__, -1, target, path, ::link);
}
int wcssymlink(const wchar_t* target, const wchar_t* path) {
  return on_both(__func__, -1, target, path, ::symlink);
}

int wcstruncate(const wchar_t* path, off_t length) {
  return on(__func__, -1, path, [=](const char* p) { return ::truncate(p, length); });
}
int wcsutimes(const wchar_t* path, const struct timeval times[2]) {
  return on(__func__, -1, path, [=](const char* p) { return ::utimes(p, times); });
}
int wcsutime(const wchar_t* path, const struct utimbuf* times) {
  return on(__func__, -1, path, [=](const char* p) { return ::utime(p, times); });
}
int wcschown(const wchar_t* path, uid_t uid, gid_t gid) {
  return on(__func__, -1, path, [=](const char* p) { return ::chown(p, uid, gid); });
}
int wcslchown(const wchar_t* path, uid_t uid, gid_t gid) {
  return on(__func__, -1, path, [=](const char* p) { return ::lchown(p, uid, gid); });
}
int wcschmod(const wchar_t* path, mode_t mode) {
  return on(__func__, -1, path, [=](const char* p) { return ::chmod(p, mode); });
}

ssize_t wcsreadlink(const wchar_t* path, wchar_t* buf, size_t len) {
  const char* const function = __func__;
  return on(function, ssize_t{-1}, path, [=](const char* p) -> ssize_t {
    char target[PATH_MAX];
    const ssize_t size = ::readlink(p, target, len == 0 ? 0 : sizeof target - 1);
    if (size < 0) return -1;
    target[size] = '\0';
    const char* from = target;
    std::mbstate_t state{};
    const size_t written = std::mbsrtowcs(buf, &from, len, &state);
    if (written == kBadSequence) return fail(-1, errno, "%s: could not convert path", function);
    return static_cast<ssize_t>(written);
  });
}

wchar_t* wcsgetcwd(wchar_t* buf, size_t len) {
  using kel::internal::working_directory;
  if (buf != nullptr) return working_directory(buf, len) > 0 ? buf : nullptr;
  char bytes[kel::internal::kWorkingDirectorySize];
  if (working_directory(bytes, sizeof bytes) == 0) return nullptr;
  const char* from = bytes;
  std::mbstate_t state{};
  const size_t length = std::mbsrtowcs(nullptr, &from, 0, &state);
  if (length == kBadSequence)
    return fail<wchar_t*>(nullptr, errno, "%s: could not determine buffer size", __func__);
  const size_t size = (length + 1) * sizeof(wchar_t);
  auto* const text = static_cast<wchar_t*>(std::malloc(size));
  if (text == nullptr) return kel::internal::fail_allocation<wchar_t*>(nullptr, size, __func__);
  std::mbsrtowcs(text, &from, length + 1, &state);
  return text;
}

void wcsfree(void* text) { std::free(text); }
