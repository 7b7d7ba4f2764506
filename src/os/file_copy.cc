// Copying a file, with compression and sums on the way.
#include <kel/digest.h>
#include <kel/file.h>
#include <kel/safeio.h>

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <atomic>
#include <mutex>
#include <utility>

#include "internal/adler32.h"
#include "internal/fips.h"
#include "internal/handles.h"
#include "internal/report.h"
#include "internal/transfer.h"
#include "os/file_reader.h"

namespace {

using kel::internal::adler32;
using kel::internal::ErrnoGuard;
using kel::internal::fail;
using kel::internal::fips_mode;
using kel::internal::kAdler32Start;
using kel::internal::open_reader;
using kel::internal::retry_interrupted;
using kel::internal::UniqueFd;

constexpr char kName[] = "_doCopy";  // of the copy itself in reports
constexpr size_t kBlock = 32768;
constexpr mode_t kDefaultMode = 0644;

std::atomic<int> copy_options = KEL_FILE_PLAIN;
std::atomic<uint32_t> last_checksum;
std::mutex last_md5_lock;
MD5Context last_md5;

bool is_usable(int options) {
  constexpr int kPacking = KEL_FILE_COMPRESS | KEL_FILE_UNCOMPRESS;
  if (options == KEL_FILE_PLAIN) return true;
  return options != 0 && (options & ~(KEL_FILE_MD5 | KEL_FILE_CRC | kPacking)) == 0 &&
         (options & kPacking) != kPacking;
}

/// The sums of the data that pass; they become the process's last ones when the copy succeeded.
class Sums {
 public:
  explicit Sums(int options)
      : md5_wanted_((options & KEL_FILE_MD5) != 0), crc_wanted_((options & KEL_FILE_CRC) != 0) {
    if (md5_wanted_) MD5Initialize(&md5_);
  }

  void add(const void* data, size_t size) {
    if (crc_wanted_) crc_ = adler32(crc_, data, size);
    if (md5_wanted_) MD5Append(&md5_, data, static_cast<uint32_t>(size));
  }

  void publish() {
    if (crc_wanted_) last_checksum = crc_;
    if (!md5_wanted_) return;
    MD5Finalize(&md5_);
    if (fips_mode()) return;
    const std::lock_guard lock(last_md5_lock);
    last_md5 = md5_;
  }

 private:
  bool md5_wanted_;
  bool crc_wanted_;
  uint32_t crc_ = kAdler32Start;
  MD5Context md5_ = {};
};

// What the two ends of a copy look like to it: read() and write() move what they can of a block and
// return what the system calls would; finish() tells whether all that was written has left.

class PlainFile {
 public:
  explicit PlainFile(int fd) : fd_(fd) {}
  ssize_t read(void* block) { return safe_read(fd_, block, kBlock); }
  ssize_t write(const void* block, size_t size) { return safe_write(fd_, block, size); }
  bool finish() { return true; }

 private:
  int fd_;
};

/// A gzip stream over a descriptor of its own, so that the file can be flushed once it is closed.
class GzipFile {
 public:
  GzipFile(int fd, const char* mode) {
    UniqueFd own(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
    if (!own) return;
    stream_ = ::gzdopen(own.get(), mode);
    if (stream_ == nullptr) {
      errno = ENOMEM;
      return;
    }
    own.release();
    ::gzbuffer(stream_, 4 * kBlock);
  }
  GzipFile(const GzipFile&) = delete;
  GzipFile& operator=(const GzipFile&) = delete;
  ~GzipFile() {
    const ErrnoGuard keep;
    close();
  }

  bool is_open() const { return stream_ != nullptr; }
  ssize_t read(void* block) {
    const int got = ::gzread(stream_, block, kBlock);
    return got > 0 || succeeded() ? got : -1;  // data that end too soon give 0 at first
  }
  ssize_t write(const void* block, size_t size) {
    const int put = ::gzwrite(stream_, block, static_cast<unsigned>(size));
    return put > 0 || succeeded() ? put : -1;
  }
  bool finish() { return is_success(close()); }

 private:
  /// Of a result of zlib; else errno tells why.
  static bool is_success(int code) {
    if (code == Z_MEM_ERROR)
      errno = ENOMEM;
    else if (code != Z_OK && code != Z_ERRNO)
      errno = EIO;
    return code == Z_OK;
  }
  bool succeeded() {
    int code;
    ::gzerror(stream_, &code);
    return is_success(code);
  }
  int close() { return stream_ == nullptr ? Z_OK : ::gzclose(std::exchange(stream_, nullptr)); }

  gzFile stream_ = nullptr;
};

struct Moved {
  ssize_t total;
  bool failed;  ///< errno tells why
};

template <class Source, class Target>
Moved pump(Source& source, Target& target, Sums& sums) {
  char block[kBlock];
  for (ssize_t total = 0;;) {
    const ssize_t got = source.read(block);
    if (got <= 0) return {total, got < 0 || !target.finish()};
    sums.add(block, static_cast<size_t>(got));
    const ssize_t put = target.write(block, static_cast<size_t>(got));
    if (put <= 0) return {total, put < 0 || !target.finish()};
    total += put;
  }
}

/// Lets the kernel move what it will; what it leaves, and every error, is left to the blocks.
ssize_t move_in_kernel(int source, int target) {
  constexpr size_t kMost = size_t{1} << 30;
  for (ssize_t total = 0;;) {
    const ssize_t moved = retry_interrupted(
        [=] { return ::copy_file_range(source, nullptr, target, nullptr, kMost, 0); });
    if (moved <= 0) return total;
    total += moved;
  }
}

/// Moves everything from one open file to the other; -1 after a report.
ssize_t move_all(int source, int target, int options) {
  if (!is_usable(options))
    return fail(-1, EINVAL, "%s: invalid input: %u", kName, static_cast<unsigned>(options));
  PlainFile plain_source(source), plain_target(target);
  Sums sums(options);
  Moved moved;
  if ((options & KEL_FILE_COMPRESS) != 0) {
    GzipFile packed(target, "wb");
    if (!packed.is_open()) return fail(-1, errno, "%s: could not open output file", kName);
    moved = pump(plain_source, packed, sums);
  } else if ((options & KEL_FILE_UNCOMPRESS) != 0) {
    GzipFile packed(source, "rb");
    if (!packed.is_open()) return fail(-1, errno, "%s: could not open input file", kName);
    moved = pump(packed, plain_target, sums);
  } else {
    const ssize_t before = options == KEL_FILE_PLAIN ? move_in_kernel(source, target) : 0;
    moved = pump(plain_source, plain_target, sums);
    moved.total += before;
  }
  if (moved.failed) return fail(-1, errno, "%s: encountered read/write errors", kName);
  if (safe_fsync(target) != 0) return fail(-1, errno, "%s: encountered other errors", kName);
  sums.publish();
  return moved.total;
}

/// As move_all(), and closes the target, which is when some file systems tell of lost data.
ssize_t copy(int source, UniqueFd target, int options) {
  const ssize_t total = move_all(source, target.get(), options);
  if (total >= 0 && ::close(target.release()) != 0)
    return fail(-1, errno, "%s: encountered other errors", kName);
  return total;
}

}  // namespace

int FileSetOptions(int options) {
  if ((options & KEL_FILE_COMPRESS) != 0 && (options & KEL_FILE_UNCOMPRESS) != 0)
    return fail(0, EINVAL, "%s: cannot have compress and uncompress set at the same time",
                __func__);
  copy_options = options;
  return 1;
}

ssize_t FileCopy(const char* src, const char* dst, unsigned int mode) {
  if (src == nullptr || dst == nullptr)
    return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  const UniqueFd source = open_reader(src);
  if (!source) return fail(-1, errno, "%s: could not open reader source %s", __func__, src);
  UniqueFd target(retry_interrupted([=] {
    return ::open(dst, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode == 0 ? kDefaultMode : mode);
  }));
  if (!target) return fail(-1, errno, "%s: could not open destination file %s", __func__, dst);
  const ssize_t copied = copy(source.get(), std::move(target), copy_options);
  if (copied >= 0) return copied;
  const ErrnoGuard keep;
  ::unlink(dst);
  return fail(-1, errno, "%s: copy failed", __func__);
}

char* FileGetStringMD5(char* out, size_t outlen) {
  MD5Context md5;
  {
    const std::lock_guard lock(last_md5_lock);
    md5 = last_md5;
  }
  return MD5GetString_r(&md5, out, outlen);
}

uint32_t FileGetValueCRC(void) { return last_checksum; }
