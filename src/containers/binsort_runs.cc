// One record in or out, and the life of a run file.
#include <kel/logging.h>

#include <stdio_ext.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "containers/binsort.h"

namespace kel::internal::binsort {
namespace {

constexpr char kNoNumber[] = "Could not read object number.";
constexpr char kNoObject[] = "Could not read object";
constexpr char kNotWritten[] = "Could not write object";
constexpr ssize_t kDefaultBuffering = -1;

}  // namespace

Reading read_record(const binary_sort_ctx& ctx, FILE* in, void** record, std::uint64_t* size) {
  *size = 0;
  errno = 0;
  *record = ctx.read_fn(ctx.cbctx, in, size);
  if (*record != nullptr) return Reading::kRecord;
  if (errno == 0) return Reading::kSkipped;
  return errno == ENOENT ? Reading::kEnd : Reading::kFailed;
}

bool fail_record(const binary_sort_ctx& ctx, const char* step, const char* helper, const char* what,
                 int code, int line) {
  const int cause = errno;
  if (ctx.quiet())
    return fail(false, code, "%s: Failed for unknown reason (line %d): %s", step, line,
                std::strerror(cause));
  if (what == kNoNumber)
    report_error(code, "%s: %s", helper, what);
  else
    report_error(code, "%s: %s: %s", helper, what, std::strerror(cause));
  return fail(false, code, "%s: %s failed", step, helper);
}

bool fail_setup(const binary_sort_ctx& ctx, int code, const char* format, ...) {
  if (!ctx.quiet()) {
    va_list args;
    va_start(args, format);
    log_message(code, KEL_LOG_ERR, format, args);
    va_end(args);
  }
  return fail_quietly(false, code);
}

bool Output::write(const Entry& entry) {
  used_ = true;
  if (ctx_.numbered()) {
    if (std::fwrite(&entry.number, sizeof entry.number, 1, stream_) != 1)
      return fail_record(ctx_, step_, kWrite, "Could not write object number", EFAULT);
    offset_ += sizeof entry.number;
  }
  const ssize_t written = ctx_.write_fn(ctx_.cbctx, entry.record, stream_, offset_);
  if (written < 0) return fail_record(ctx_, step_, kWrite, kNotWritten, EFAULT);
  offset_ += static_cast<std::uint64_t>(written);
  return true;
}

bool Output::finish() {
  return std::fflush(stream_) == 0 || fail_record(ctx_, step_, kWrite, kNotWritten, EFAULT);
}

RunFile& RunFile::operator=(RunFile&& other) noexcept {
  close();
  stream_ = std::move(other.stream_);
  buffer_ = std::move(other.buffer_);
  path_ = std::move(other.path_);
  size_ = other.size_;
  kept_ = other.kept_;
  level_ = other.level_;
  return *this;
}

bool RunFile::create(const binary_sort_ctx& ctx, std::uint64_t serial, unsigned level) {
  const std::size_t room = std::strlen(ctx.tmpdir.get()) + 64;
  MallocPtr<char> path(static_cast<char*>(std::malloc(room)));
  if (path == nullptr)
    return fail_setup(ctx, ENOMEM, "%s: Could not allocate %lubytes for temporary file name: %s",
                      kSort, room, std::strerror(ENOMEM));
  if (std::snprintf(path.get(), room, "%s/sort-%lu-%lu.tmp", ctx.tmpdir.get(),
                    static_cast<unsigned long>(getpid()), serial) < 0)
    return fail_setup(ctx, errno, "%s: Could not print temporary file name: %s", kSort,
                      std::strerror(errno));
  // 'e': a program that another thread starts meanwhile does not inherit the run.
  stream_.reset(std::fopen(path.get(), "w+be"));
  if (stream_ == nullptr)
    return fail_setup(ctx, errno, "%s: Could not open temporary file %s: %s", kSort, path.get(),
                      std::strerror(errno));
  path_ = std::move(path);
  level_ = level;
  kept_ = ctx.keeps_runs();
  // Nobody else has this stream, so that the caller's functions need not take its lock each time.
  __fsetlocking(stream_.get(), FSETLOCKING_BYCALLER);
  if (ctx.temp_buffer_size == kDefaultBuffering) return true;

  const auto size = static_cast<std::size_t>(ctx.temp_buffer_size);
  buffer_.reset(static_cast<char*>(std::malloc(size)));
  if (buffer_ == nullptr)
    return fail_setup(ctx, ENOMEM, "%s: Could not allocate memory for merge file: %s", kSort,
                      std::strerror(ENOMEM));
  if (std::setvbuf(stream_.get(), buffer_.get(), _IOFBF, size) != 0)
    return fail_setup(ctx, EIO, "%s: setvbuf failed: %s", kSort, std::strerror(EIO));
  return true;
}

void RunFile::close() noexcept {
  stream_.reset();
  buffer_.reset();
  if (path_ != nullptr && !kept_) {
    const ErrnoGuard keep;
    ::unlink(path_.get());
  }
  path_.reset();
}

void RunFile::discard() noexcept {
  kept_ = false;
  close();
}

bool RunFile::rewind(const binary_sort_ctx& ctx) {
  size_ = ::ftello(stream_.get());
  if (size_ >= 0 && ::fseeko(stream_.get(), 0, SEEK_SET) == 0) return true;
  return fail_record(ctx, kSort, kRead, kNoObject, EIO);
}

/// A read function that takes a damaged record for the end must not lose what follows it.
bool RunFile::reached_end() {
  return std::ferror(stream_.get()) == 0 && ::ftello(stream_.get()) == size_;
}

Reading RunFile::read_number(const binary_sort_ctx& ctx, std::uint64_t* number) {
  const std::size_t got = std::fread(number, 1, sizeof *number, stream_.get());
  if (got == sizeof *number) return Reading::kRecord;
  if (got == 0 && reached_end()) return Reading::kEnd;
  fail_record(ctx, kMerge, kRead, kNoNumber, EIO);
  return Reading::kFailed;
}

Reading RunFile::read(const binary_sort_ctx& ctx, std::uint64_t position, Record& record) {
  Entry entry{position, nullptr};
  std::uint64_t size;
  Reading reading;
  do {
    if (ctx.numbered()) {
      reading = read_number(ctx, &entry.number);
      if (reading != Reading::kRecord) return reading;
    }
    reading = read_record(ctx, stream_.get(), &entry.record, &size);
  } while (reading == Reading::kSkipped);
  if (reading == Reading::kEnd && (ctx.numbered() || !reached_end())) {
    errno = EIO;
    reading = Reading::kFailed;
  }
  if (reading == Reading::kFailed) fail_record(ctx, kMerge, kRead, kNoObject, errno);
  if (reading == Reading::kRecord) record.reset(entry);
  return reading;
}

}  // namespace kel::internal::binsort
