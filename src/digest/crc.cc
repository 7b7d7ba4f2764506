// The checksum of memory, of files and of file tails.
#include <kel/crc.h>

#include <fcntl.h>
#include <unistd.h>

#include "internal/adler32.h"
#include "internal/handles.h"
#include "internal/report.h"
#include "internal/transfer.h"

namespace {

using kel::internal::adler32;
using kel::internal::fail;
using kel::internal::kAdler32Start;
using kel::internal::retry_interrupted;
using kel::internal::Transfer;
using kel::internal::transfer_whole;
using kel::internal::UniqueFd;

/// From the file's position to its end.
uint32_t checksum_rest(int fd, const char* path) {
  constexpr size_t kBlock = 96 << 10;  // few calls, and read again from a near cache
  alignas(4096) unsigned char block[kBlock];
  uint32_t adler = kAdler32Start;
  for (;;) {
    const Transfer read = transfer_whole(
        kBlock, [&](size_t done, size_t left) { return ::read(fd, block + done, left); });
    if (read.failed)
      return fail(KEL_CRC_READ_ERROR, errno, "%s: failed to read file: %s", "CRCFromFileCommon",
                  path);
    adler = adler32(adler, block, read.done);
    if (read.done < kBlock) return adler;
  }
}

uint32_t checksum_file(const char* path, off_t offset, int whence, const char* function) {
  if (path == nullptr) return fail(0u, EINVAL, "%s: invalid NULL parameter", function);
  const UniqueFd fd(retry_interrupted([path] { return ::open(path, O_RDONLY | O_CLOEXEC); }));
  if (!fd) return fail(0u, errno, "%s: failed to open file: %s", function, path);
  if (offset > 0 && ::lseek(fd.get(), offset, whence) == -1)
    return fail(0u, errno, "%s: failed to seek file: %s", function, path);
  return checksum_rest(fd.get(), path);
}

}  // namespace

uint32_t CRCAppend(uint32_t adler, const void* data, size_t len) {
  return data == nullptr ? kAdler32Start : adler32(adler, data, len);
}

uint32_t CRCFromFile(const char* path) { return checksum_file(path, 0, SEEK_SET, __func__); }

uint32_t CRCFromPartFile(const char* path, off_t offset, int whence) {
  return checksum_file(path, offset, whence, __func__);
}
