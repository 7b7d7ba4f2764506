// Questions to a file system that may never answer.
#pragma once

#include <sys/statvfs.h>

#include <cstdint>

namespace kel::internal {

/// How long a file system has to answer, in seconds.
inline constexpr unsigned kAnswerTime = 5;

/// statvfs(3) of `path`, which is opened for reading, within kAnswerTime; 0, or -1 with errno
/// (ETIME when there was no answer, EINVAL for null), which is traced.
int bounded_statvfs(const char* path, struct statvfs* out);

/// Whether stat(2) of `path` succeeds within kAnswerTime; else errno tells why.
bool bounded_exists(const char* path);

/// The unit of the block counts: the fragment size, or the block size when that is 0.
inline std::uint64_t block_unit(const struct statvfs& status) noexcept {
  return status.f_frsize != 0 ? status.f_frsize : status.f_bsize;
}

}  // namespace kel::internal
