// Reading whole files into memory.
#include <kel/file.h>
#include <kel/safeio.h>

#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "internal/report.h"
#include "os/file_reader.h"

namespace {

using kel::internal::ErrnoGuard;
using kel::internal::fail;
using kel::internal::open_reader;
using kel::internal::UniqueFd;

constexpr char kName[] = "__doLoad";

/// Makes room for `needed` bytes, in the caller's buffer or in a new one.
bool provide(size_t needed, void** buf, size_t* bufsize) {
  if (*bufsize != 0)
    return *bufsize >= needed || fail(false, ENOMEM, "%s: buffer too small", kName);
  *buf = std::malloc(needed == 0 ? 1 : needed);
  if (*buf == nullptr) return fail(false, ENOMEM, "%s: could not allocate memory", kName);
  *bufsize = needed;
  return true;
}

/// Reads `size` bytes, 0 for all, and puts `extra` zero bytes behind what it read.
ssize_t load(int fd, size_t size, void** buf, size_t* bufsize, size_t extra) {
  if (size == 0) {
    const off_t end = ::lseek(fd, 0, SEEK_END);
    if (end < 0 || ::lseek(fd, 0, SEEK_SET) < 0) return fail(-1, errno, "%s: seek failed", kName);
    size = static_cast<size_t>(end);
  }
  const bool allocates = *bufsize == 0;
  size_t needed;
  if (__builtin_add_overflow(size, extra, &needed))
    return fail(-1, ENOMEM, "%s: could not allocate memory", kName);
  if (!provide(needed, buf, bufsize)) return -1;
  const ssize_t got = safe_read(fd, *buf, size);
  if (got >= 0) {
    std::fill_n(static_cast<char*>(*buf) + got, extra, '\0');
    return got;
  }
  if (!allocates) return -1;
  const ErrnoGuard keep;
  std::free(*buf);
  *buf = nullptr;
  *bufsize = 0;
  return fail(-1, errno, "%s: failed to read file", kName);
}

/// The contents of an open file in a new buffer; `len` as the exported functions take it.
void* load_new(int fd, size_t* len, size_t extra) {
  void* buf = nullptr;
  size_t bufsize = 0;
  const ssize_t got = load(fd, len == nullptr ? 0 : *len, &buf, &bufsize, extra);
  if (got < 0) return nullptr;
  if (len != nullptr) *len = static_cast<size_t>(got);
  return buf;
}

}  // namespace

ssize_t FileLoadToBuffer(const char* path, size_t size, void** buf, size_t* bufsize) {
  if (buf == nullptr || bufsize == nullptr)
    return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  const UniqueFd fd = open_reader(path);
  if (!fd) return fail(-1, errno, "%s: could not open file %s", __func__, path);
  return load(fd.get(), size, buf, bufsize, 0);
}

void* FileToBuffer(const char* path, size_t* len) {
  const UniqueFd fd = open_reader(path);
  if (!fd) return fail<void*>(nullptr, errno, "%s: could not open file %s", __func__, path);
  return load_new(fd.get(), len, 0);
}

char* FileToText(const char* path, size_t* len) {
  const UniqueFd fd = open_reader(path);
  return fd ? static_cast<char*>(load_new(fd.get(), len, 1)) : nullptr;
}
