// How large a file is.
#include <kel/file.h>

#include <sys/stat.h>

#include "internal/report.h"

using kel::internal::fail;

int FileSizeGet(const char* path, uint64_t* size) {
  if (path == nullptr || size == nullptr)
    return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  struct stat status;
  if (::stat(path, &status) != 0)
    return fail(-1, errno, "%s: could not stat path %s", __func__, path);
  *size = static_cast<uint64_t>(status.st_size);
  return 0;
}

int is_big(const char* path) {
  constexpr off_t kBig = 2'000'000'000;
  if (path == nullptr) return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  struct stat status;
  if (::stat(path, &status) != 0)
    return fail(-1, errno, "%s: could not access path %s", __func__, path);
  return status.st_size > kBig ? 1 : 0;
}
