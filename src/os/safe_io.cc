// Descriptor and socket transfers: one loop (internal/transfer.h) under six names, and the system
// calls that only need a retry.
#include <kel/safeio.h>

#include <sys/socket.h>
#include <unistd.h>

#include <climits>

#include "internal/report.h"
#include "internal/transfer.h"

namespace {

using kel::internal::fail;
using kel::internal::fail_quietly;
using kel::internal::retry_interrupted;
using kel::internal::transfer_whole;

bool is_buffer(const void* buf, size_t count) {
  return (buf != nullptr || count == 0) && count <= SSIZE_MAX;
}

char* at(void* buf, size_t done) { return static_cast<char*>(buf) + done; }
const char* at(const void* buf, size_t done) { return static_cast<const char*>(buf) + done; }

/// The bytes moved, or -1.
template <class Step>
ssize_t move_whole(size_t count, Step step) {
  const auto moved = transfer_whole(count, step);
  return moved.failed ? -1 : static_cast<ssize_t>(moved.done);
}

/// As move_whole() for the sockets' int counts, which may be negative.
template <class Step>
int move_whole_int(int n, Step step) {
  return n <= 0 ? 0 : static_cast<int>(move_whole(static_cast<size_t>(n), step));
}

}  // namespace

ssize_t safe_read(int fd, void* buf, size_t count) {
  if (!is_buffer(buf, count)) return fail(-1, EINVAL, "%s: invalid buffer", __func__);
  return move_whole(count,
                    [=](size_t done, size_t left) { return ::read(fd, at(buf, done), left); });
}

ssize_t safe_write(int fd, const void* buf, size_t count) {
  if (!is_buffer(buf, count)) return fail(-1, EINVAL, "%s: invalid buffer", __func__);
  const ssize_t written =
      move_whole(count, [=](size_t done, size_t left) { return ::write(fd, at(buf, done), left); });
  return written >= 0 ? written : fail(-1, errno, "%s: write failed", __func__);
}

ssize_t safe_pread(int fd, void* buf, size_t count, off_t offset) {
  if (!is_buffer(buf, count)) return fail(-1, EINVAL, "%s: invalid buffer", __func__);
  return move_whole(count, [=](size_t done, size_t left) {
    return ::pread(fd, at(buf, done), left, offset + static_cast<off_t>(done));
  });
}

ssize_t safe_pwrite(int fd, const void* buf, size_t count, off_t offset) {
  if (!is_buffer(buf, count)) return fail_quietly(-1, EINVAL);
  return move_whole(count, [=](size_t done, size_t left) {
    return ::pwrite(fd, at(buf, done), left, offset + static_cast<off_t>(done));
  });
}

int safe_fsync(int fd) {
  return retry_interrupted([=] { return ::fsync(fd); });
}

int safe_fdatasync(int fd) {
  return retry_interrupted([=] { return ::fdatasync(fd); });
}

int safe_ftruncate(int fd, off_t length) {
  return retry_interrupted([=] { return ::ftruncate(fd, length); });
}

int write_n_bytes(int sock, const void* buf, int n) {
  return move_whole_int(
      n, [=](size_t done, size_t left) { return ::send(sock, at(buf, done), left, 0); });
}

int read_n_bytes(int sock, void* buf, int n) {
  bool closed = false;
  const int received = move_whole_int(n, [&](size_t done, size_t left) {
    const ssize_t moved = ::recv(sock, at(buf, done), left, 0);
    closed = moved == 0;
    return moved;
  });
  if (received < 0) return fail(-1, -1, "read_n_bytes: Error happened in recv()");
  if (closed && errno == 0) errno = ECONNRESET;
  return received;
}
