// Id files: one number and its checksum, written in one piece over the old ones.
#include <kel/crc.h>
#include <kel/logging.h>
#include <kel/safeio.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstring>

#include "internal/adler32.h"
#include "internal/bytes.h"
#include "internal/handles.h"
#include "internal/report.h"
#include "internal/transfer.h"

namespace {

using kel::internal::adler32;
using kel::internal::fail;
using kel::internal::kAdler32Start;
using kel::internal::load_le;
using kel::internal::retry_interrupted;
using kel::internal::store_le;
using kel::internal::UniqueFd;

constexpr size_t kIdSize = 8;
constexpr size_t kChecksumSize = 4;
constexpr size_t kRecordSize = kIdSize + kChecksumSize;
constexpr char kNull[] = "%s: invalid NULL parameter";

/// The file's contents.
using Record = std::array<unsigned char, kRecordSize>;

uint32_t checksum_of_id(const Record& record) {
  return adler32(kAdler32Start, record.data(), kIdSize);
}

Record make_record(uint64_t value) {
  Record record;
  store_le(record.data(), value);
  store_le(&record[kIdSize], checksum_of_id(record));
  return record;
}

/// Puts the record into the file; not yet flushed.
bool put_record(const char* path, const char* name, uint64_t value, int fd) {
  if (::lseek(fd, 0, SEEK_SET) == -1)
    return fail(false, errno, "%s: Could not seek to begin of file %s to update %s to %lu (%s)",
                "WriteId", path, name, value, std::strerror(errno));
  const Record record = make_record(value);
  const ssize_t written = safe_write(fd, record.data(), record.size());
  if (written == static_cast<ssize_t>(record.size())) return true;
  if (written >= 0) errno = EIO;  // a device that takes no more
  return fail(false, errno, "%s: Could not update %s in file %s to %lu (%s)", "WriteId", name, path,
              value, std::strerror(errno));
}

/// Replaces a descriptor that does not take writes by a new one of the same file, if that is valid.
bool reopen(const char* path, const char* name, int* fd) {
  uint64_t stored = 0;
  const int again = OpenId(path, name, &stored, 0);
  if (again == -1)
    return fail(false, errno, "%s: Could not reopen %s in file %s (%s)", "WriteId", name, path,
                std::strerror(errno));
  InfoA(-1, "%s: reopen file %s successfully.", "WriteId", path);
  ::close(*fd);
  *fd = again;
  return true;
}

/// Opens the file for a new record, at most as long as one. What it holds stays until it is
/// overwritten: emptying it first would lose the id to a crash before the write.
UniqueFd open_to_store(const char* path) {
  UniqueFd fd(
      retry_interrupted([path] { return ::open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600); }));
  struct stat status;
  if (fd && ::fstat(fd.get(), &status) == 0 &&
      (!S_ISREG(status.st_mode) || status.st_size <= static_cast<off_t>(kRecordSize) ||
       safe_ftruncate(fd.get(), kRecordSize) == 0))
    return fd;
  return {};
}

}  // namespace

int OpenId(const char* path, const char* name, uint64_t* value, uint64_t minimum) {
  if (path == nullptr || name == nullptr || value == nullptr)
    return fail(-1, EINVAL, kNull, __func__);
  UniqueFd fd(retry_interrupted([path] { return ::open(path, O_RDWR | O_CLOEXEC); }));
  if (!fd)
    return fail(-1, errno, "%s: Could not open %s to read the current %s.", __func__, path, name);
  return ReadId(path, name, value, fd.get(), minimum) == 0 ? fd.release() : -1;
}

int ReadId(const char* path, const char* name, uint64_t* value, int fd, uint64_t minimum) {
  if (path == nullptr || name == nullptr) return fail(-1, EINVAL, kNull, __func__);
  if (fd == -1 || value == nullptr)
    return fail(-1, EINVAL, "%s: Can not read %s from file %s: %s", __func__, name, path,
                std::strerror(EINVAL));
  if (::lseek(fd, 0, SEEK_SET) == -1)
    return fail(-1, errno, "%s: Could not seek to begin of file %s to read %s: %s", __func__, path,
                name, std::strerror(errno));
  Record record = {};
  const ssize_t got = safe_read(fd, record.data(), record.size());
  if (got < static_cast<ssize_t>(kIdSize)) {
    if (got >= 0) errno = ENODATA;
    return fail(-1, errno, "%s: Could not read %s from file %s: %s", __func__, name, path,
                std::strerror(errno));
  }
  const auto id = load_le<uint64_t>(record.data());
  *value = id;
  const auto stored = load_le<uint32_t>(&record[kIdSize]);
  if (got == static_cast<ssize_t>(kRecordSize) && stored != checksum_of_id(record))
    return fail(-1, ERANGE, "%s: Invalid CRC value %u in file %s. The file is corrupt.", __func__,
                stored, path);
  if (id < minimum)
    return fail(-1, ERANGE,
                "%s: Invalid reserved %s value %lu in file %s. The file is corrupt. Minimum "
                "allowed values is %lu.",
                __func__, name, id, path, minimum);
  return 0;
}

int WriteId(const char* path, const char* name, uint64_t value, int* fd) {
  if (path == nullptr || name == nullptr) return fail(-1, EINVAL, kNull, __func__);
  if (fd == nullptr || *fd == -1)
    return fail(-1, EINVAL, "%s: Can not update %s in file %s to %lu (%s)", __func__, name, path,
                value, std::strerror(EINVAL));
  if (!put_record(path, name, value, *fd) &&
      !(reopen(path, name, fd) && put_record(path, name, value, *fd)))
    return -1;
  if (safe_fdatasync(*fd) != 0)
    return fail(-1, errno, "Could not data sync file %s when %s = %lu (%s)", path, name, value,
                std::strerror(errno));
  return 0;
}

int NextId(const char* path, const char* name, uint64_t* value, int* fd) {
  if (value == nullptr) return fail(-1, EINVAL, kNull, __func__);
  if (WriteId(path, name, *value + 1, fd) != 0) return -1;
  ++*value;
  if (*value % 10 != 0) return 0;
  uint64_t stored = 0;
  if (ReadId(path, name, &stored, *fd, 0) != 0) return -1;
  if (stored == *value) return 0;
  return fail(-1, ERANGE, "%s = %lu in file %s is inconsistent with %lu in memory (%s)", name,
              stored, path, *value, std::strerror(ERANGE));
}

int WriteIdToPath(const char* path, const char* name, uint64_t value) {
  if (path == nullptr || name == nullptr) return fail(-1, EINVAL, kNull, __func__);
  UniqueFd opened = open_to_store(path);
  if (!opened)
    return fail(-1, errno, "%s: Could not create the file %s to store %s %lu: %s.", __func__, path,
                name, value, std::strerror(errno));
  int fd = opened.release();  // WriteId() may replace it
  const int result = WriteId(path, name, value, &fd);
  opened = UniqueFd(fd);
  if (result != 0) return -1;
  if (::close(opened.release()) != 0)
    return fail(-1, errno,
                "%s: Could not close the file %s after storing %s %lu: %s. The file may now be "
                "corrupt.",
                __func__, path, name, value, std::strerror(errno));
  return 0;
}
