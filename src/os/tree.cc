// Making directories: one, or every one of a path.
#include <kel/path.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "internal/report.h"
#include "os/wide_path.h"

namespace {

using kel::internal::fail;
using kel::internal::fail_quietly;
using kel::internal::WidePath;

constexpr size_t kCapacity = 4096;
constexpr mode_t kDefaultMode = 0755;

bool make_directory(const char* path, mode_t mode) {
  return ::mkdir(path, mode) == 0 || errno == EEXIST;
}

/// A tree that is being made: the same failures in both widths, reported or not.
struct Maker {
  const char* name;  // of the function in reports
  bool log;

  int refuse(int code, const char* text) const {
    return log ? fail(0, code, "%s: %s", name, text) : fail_quietly(0, code);
  }

  /// Makes each directory of `path` in turn, with its separator behind it.
  int make_each(const char* path, mode_t mode) const {
    char prefix[kCapacity];
    size_t done = 0;
    if (*path == '/') prefix[done++] = '/';
    for (const char* from = path + std::strspn(path, "/"); *from != '\0';) {
      const size_t length = std::strcspn(from, "/");
      if (done + length >= kCapacity) return refuse(ENAMETOOLONG, "destination path too long");
      std::memcpy(prefix + done, from, length);
      done += length;
      if (done + 1 >= kCapacity) return refuse(ENAMETOOLONG, "path too long with slash");
      prefix[done++] = '/';
      prefix[done] = '\0';
      if (!make_directory(prefix, mode)) return refuse(errno, "could not create directory");
      from += length;
      from += std::strspn(from, "/");
    }
    return 1;
  }

  int make(const char* path, mode_t mode) const {
    if (path == nullptr) return refuse(EINVAL, "invalid NULL path");
    if (mode == 0) mode = kDefaultMode;
    if (make_directory(path, mode)) return 1;
    const int error = errno;
    if (::strnlen(path, kCapacity) == kCapacity)
      return refuse(ENAMETOOLONG, "source path too long");
    if (std::strchr(path, '/') == nullptr) return refuse(error, "could not create directory");
    return make_each(path, mode);
  }

  int make(const wchar_t* path, mode_t mode) const {
    if (path == nullptr) return refuse(EINVAL, "invalid NULL path");
    const WidePath converted(path, log ? name : nullptr);
    return converted ? make(converted.c_str(), mode) : 0;
  }
};

}  // namespace

int CreateDirA(const char* path, mode_t mode) {
  if (path == nullptr) return fail_quietly(0, EINVAL);
  return make_directory(path, mode) ? 1 : 0;
}

int CreateDirW(const wchar_t* path, mode_t mode) {
  const WidePath converted(path, __func__);
  return converted ? CreateDirA(converted.c_str(), mode) : 0;
}

int CreateDirLoggingOptionalA(const char* path, mode_t mode) { return CreateDirA(path, mode); }
int CreateDirLoggingOptionalW(const wchar_t* path, mode_t mode) { return CreateDirW(path, mode); }

int DeleteDirA(const char* path) {
  if (path == nullptr) return fail_quietly(0, EINVAL);
  return ::rmdir(path) == 0 || errno == ENOENT ? 1 : 0;
}

int DeleteDirW(const wchar_t* path) {
  const WidePath converted(path, __func__);
  return converted ? DeleteDirA(converted.c_str()) : 0;
}

int CreateTreeLoggingOptionalA(const char* path, mode_t mode, bool log) {
  return Maker{__func__, log}.make(path, mode);
}
int CreateTreeLoggingOptionalW(const wchar_t* path, mode_t mode, bool log) {
  return Maker{__func__, log}.make(path, mode);
}

int CreateTreeA(const char* path, mode_t mode) {
  return CreateTreeLoggingOptionalA(path, mode, true);
}
int CreateTreeW(const wchar_t* path, mode_t mode) {
  return CreateTreeLoggingOptionalW(path, mode, true);
}
