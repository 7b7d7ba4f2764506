// How large and how full a file system is.
#include <kel/os.h>

#include <climits>

#include "internal/report.h"
#include "internal/text_traits.h"
#include "os/bounded_statistics.h"
#include "os/wide_path.h"

namespace {

using kel::internal::block_unit;
using kel::internal::bounded_statvfs;
using kel::internal::fail;
using kel::internal::TextTraits;
using kel::internal::WidePath;

constexpr size_t kPathSize = 4096;

/// As many bytes as `blocks` take, at most INT64_MAX: some file systems claim to have no end.
int64_t in_bytes(uint64_t blocks, const struct statvfs& status) {
  int64_t bytes = 0;
  return __builtin_mul_overflow(blocks, block_unit(status), &bytes) ? INT64_MAX : bytes;
}

int64_t total(const struct statvfs& status) { return in_bytes(status.f_blocks, status); }

int64_t used(const struct statvfs& status) {
  return in_bytes(status.f_blocks > status.f_bfree ? status.f_blocks - status.f_bfree : 0, status);
}

int64_t available(const struct statvfs& status) { return in_bytes(status.f_bavail, status); }

using Measure = int64_t (*)(const struct statvfs&);

int64_t measure(const char* path, const char*, Measure what) {
  struct statvfs status;
  return bounded_statvfs(path, &status) == 0 ? what(status) : 0;
}

int64_t measure(const wchar_t* path, const char* function, Measure what) {
  const WidePath narrow(path, function);
  return narrow ? measure(narrow.c_str(), function, what) : 0;
}

/// `bad_path` for a path that cannot be one, 0 where the file system does not tell.
template <class Char>
int64_t measure_path(const Char* path, const char* function, Measure what, int64_t bad_path) {
  if (path == nullptr) return fail(bad_path, EINVAL, "%s: invalid NULL parameter", function);
  if (TextTraits<Char>::length(path, kPathSize) == kPathSize)
    return fail(bad_path, ENAMETOOLONG, "%s: path too long", function);
  return measure(path, function, what);
}

}  // namespace

int64_t OSGetFSSizeA(const char* path) { return measure_path(path, __func__, total, -1); }
int64_t OSGetFSSizeW(const wchar_t* path) { return measure_path(path, __func__, total, -1); }

int64_t OSGetFSUsedSizeA(const char* path) { return measure_path(path, __func__, used, 0); }
int64_t OSGetFSUsedSizeW(const wchar_t* path) { return measure_path(path, __func__, used, 0); }

int64_t OSGetFSAvailSizeA(const char* path) { return measure_path(path, __func__, available, -1); }
int64_t OSGetFSAvailSizeW(const wchar_t* path) {
  return measure_path(path, __func__, available, -1);
}
