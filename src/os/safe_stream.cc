// Stream transfers, and flushing a stream together with the descriptor under it.
#include <kel/safeio.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "internal/ascii.h"
#include "internal/report.h"

namespace {

using kel::internal::ErrnoGuard;
using kel::internal::fail_quietly;
using kel::internal::is_digit;
using kel::internal::report_error;

constexpr size_t kFailed = static_cast<size_t>(-1);

/// What tells a reading transfer from a writing one in the reports.
struct StreamRules {
  const char* name;
  const char* verb;
  const char* direction;
};

constexpr StreamRules kFread = {"safe_fread", "read", "from"};
constexpr StreamRules kFwrite = {"safe_fwrite", "write", "to"};

/// Whether a descriptor is open under the stream: fileno(3) alone does not notice one that was
/// closed behind the stream's back. Keeps errno.
bool has_descriptor(FILE* fp) {
  const ErrnoGuard keep;
  const int fd = ::fileno(fp);
  return fd != -1 && ::fcntl(fd, F_GETFD) != -1;
}

void clear_interruption(FILE* fp) {
  errno = 0;
  ::clearerr(fp);
}

/// Ends a transfer that moved nothing and is not at the end of the file; errno tells why.
size_t fail_transfer(const StreamRules& rules) {
  report_error(errno, "%s could not %s %s file due to error: %s", rules.name, rules.verb,
               rules.direction, std::strerror(errno));
  return kFailed;
}

/// Calls `step(done, remaining)`, which returns what fread(3) would, until `count` bytes moved.
template <class Step>
size_t move_whole(const StreamRules& rules, FILE* fp, size_t count, Step step) {
  size_t done = 0;
  while (done < count) {
    const size_t moved = step(done, count - done);
    done += moved;
    if (moved != 0) continue;
    if (::feof(fp)) break;
    if (!has_descriptor(fp)) {
      errno = EBADF;
      report_error(errno, "%s: invalid stream", rules.name);
      return fail_transfer(rules);
    }
    if (errno != EINTR) {
      report_error(errno, "%s: could not %s", rules.name, rules.verb);
      return fail_transfer(rules);
    }
    clear_interruption(fp);
  }
  return done;
}

/// Flushes the stream, then its descriptor with `sync`.
int flush_through(FILE* fp, int (*sync)(int)) {
  if (::fflush(fp) != 0) return -1;
  const int fd = ::fileno(fp);
  return fd == -1 ? -1 : sync(fd);
}

}  // namespace

size_t safe_fread(FILE* fp, void* buf, size_t count) {
  return move_whole(kFread, fp, count, [=](size_t done, size_t left) {
    return ::fread(static_cast<char*>(buf) + done, 1, left, fp);
  });
}

size_t safe_fwrite(FILE* fp, const void* buf, size_t count) {
  return move_whole(kFwrite, fp, count, [=](size_t done, size_t left) {
    return ::fwrite(static_cast<const char*>(buf) + done, 1, left, fp);
  });
}

int safe_fflush(FILE* fp) {
  int result;
  while ((result = ::fflush(fp)) != 0 && errno == EINTR) clear_interruption(fp);
  return result;
}

int safe_ffsync(FILE* fp) {
  int result;
  while ((result = flush_through(fp, ::fsync)) != 0 && errno == EINTR) clear_interruption(fp);
  return result;
}

int safe_ffdatasync(FILE* fp) {
  int result;
  while ((result = flush_through(fp, ::fdatasync)) != 0 && errno == EINTR) {
  }
  return result;
}

int safe_fclose(FILE* fp) { return ::fclose(fp); }

int ffsync(FILE* fp) { return flush_through(fp, ::fsync); }

int ffdatasync(FILE* fp) { return flush_through(fp, ::fdatasync); }

int fftruncate(FILE* fp, off_t length) {
  const int fd = ::fileno(fp);
  return fd == -1 ? -1 : ::ftruncate(fd, length);
}

char* fread_uint(FILE* fp, char* buf, size_t bufsize, size_t* len) {
  size_t stored = 0;
  while (stored < bufsize) {
    const int c = ::getc(fp);
    if (c == EOF) {
      if (::ferror(fp)) return fail_quietly<char*>(nullptr, EIO);
      break;
    }
    if (!is_digit(c)) {
      if (::ungetc(c, fp) == EOF) return fail_quietly<char*>(nullptr, EIO);
      break;
    }
    buf[stored++] = static_cast<char>(c);
  }
  if (len != nullptr) *len = stored;
  return buf;
}
