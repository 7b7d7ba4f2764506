// Lines of text: one out, one in. A line is looked for ahead of the socket's position, and then
// taken whole and alone.
#include <kel/logging.h>
#include <kel/net.h>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "internal/report.h"
#include "internal/transfer.h"
#include "net/line.h"
#include "net/wait.h"

using namespace kel::internal;

namespace {

constexpr size_t kSentSize = 1024;  // of a line that is sent, LF and terminator included
constexpr size_t kLongest = 16382;  // characters of a reply
constexpr size_t kShortest = 2;
constexpr int kPatience = 60'000;  // milliseconds without a byte
/// Most lines fit the first look ahead; a larger one would copy what belongs to the lines behind.
constexpr size_t kFirstLook = 512;
constexpr size_t kLook = 4096;
constexpr char kSendName[] = "NetSend";    // in reports
constexpr char kWaitName[] = "NetSelect";  // in reports about waits
constexpr int kGoOn = -1;                  // no result yet

std::atomic<bool> pipe_broke = false;
static_assert(std::atomic<bool>::is_always_lock_free);

void note_broken_pipe(int) { pipe_broke.store(true, std::memory_order_relaxed); }

void set_broken_pipe_action(void (*action)(int)) {
  struct sigaction settings = {};
  settings.sa_handler = action;
  settings.sa_flags = SA_RESTART;
  ::sigaction(SIGPIPE, &settings, nullptr);
}

/// The line that is being read, in the caller's cleared buffer.
class Line {
 public:
  explicit Line(char* text) : text_(text) {}

  /// Takes from the front of `bytes` what belongs to the line; how many bytes that were.
  size_t take(const char* bytes, size_t count) {
    begun_ = begun_ || count != 0;
    const char* at = bytes;
    const char* const end = bytes + count;
    while (at != end && result_ == kGoOn) {
      const auto left = static_cast<size_t>(end - at);
      const void* const found = std::memchr(at, cr_ ? '\n' : '\r', left);
      const char* const stop = found == nullptr ? end : static_cast<const char*>(found);
      at = store(at, stop);
      if (result_ != kGoOn || at == end) break;
      ++at;
      if (cr_) result_ = length_ < kShortest ? KEL_NET_REPLY_TOO_SHORT : KEL_NET_REPLY_OK;
      cr_ = true;
    }
    return static_cast<size_t>(at - bytes);
  }

  int result() const { return result_; }
  /// The result when the peer closes now.
  int when_closed() const { return begun_ ? KEL_NET_REPLY_CUT : KEL_NET_REPLY_ERROR; }
  size_t next_look() const { return begun_ ? kLook : kFirstLook; }

 private:
  /// Appends a piece of text less its NULs and CRs; where it stopped, which is before the end when
  /// the line is too long.
  const char* store(const char* at, const char* end) {
    const auto size = static_cast<size_t>(end - at);
    const bool is_plain =
        std::memchr(at, '\0', size) == nullptr && (!cr_ || std::memchr(at, '\r', size) == nullptr);
    if (is_plain && length_ + size < kLongest) {
      std::memcpy(text_ + length_, at, size);
      length_ += size;
      return end;
    }
    while (at != end && result_ == kGoOn) {
      const char c = *at++;
      if (c == '\0' || c == '\r') continue;
      text_[length_++] = c;
      if (length_ == kLongest) result_ = KEL_NET_REPLY_TOO_LONG;
    }
    return at;
  }

  char* text_;
  size_t length_ = 0;
  bool cr_ = false;
  bool begun_ = false;
  int result_ = kGoOn;
};

/// Reads one line from a descriptor, without taking what follows.
class LineReader {
 public:
  LineReader(int fd, char* text) : fd_(fd), line_(text) {}

  int read() {
    for (;;) {
      int result = is_socket_ ? read_ahead() : read_byte();
      if (result == kWait) result = wait();
      if (result != kGoOn) return result;
    }
  }

 private:
  static constexpr int kWait = -2;  // as a result: there is nothing yet

  /// Looks at what has come, and takes from the socket what belongs to the line.
  int read_ahead() {
    char window[kLook];
    const ssize_t ahead = ::recv(fd_, window, line_.next_look(), MSG_PEEK | MSG_DONTWAIT);
    if (ahead <= 0) return without_bytes(ahead);
    const size_t used = line_.take(window, static_cast<size_t>(ahead));
    // TCP drops the bytes without copying them once more.
    const Transfer taken = transfer_whole(used, [&](size_t done, size_t left) {
      return ::recv(fd_, window + done, left, MSG_DONTWAIT | MSG_TRUNC);
    });
    return taken.done == used ? line_.result() : KEL_NET_REPLY_ERROR;
  }

  int read_byte() {
    char byte;
    const ssize_t got = ::read(fd_, &byte, 1);
    if (got <= 0) return without_bytes(got);
    line_.take(&byte, 1);
    return line_.result() == kGoOn ? kWait : line_.result();
  }

  /// The result after a call that returned 0 or failed.
  int without_bytes(ssize_t got) {
    if (got == 0) return fail_quietly(line_.when_closed(), ECONNRESET);
    if (errno == EAGAIN || errno == EINTR) return kWait;
    if (is_socket_ && errno == ENOTSOCK) is_socket_ = false;
    // The wait tells what is wrong with a descriptor that is none.
    else if (!is_socket_ || errno != EBADF)
      return fail(KEL_NET_REPLY_ERROR, errno, "%s: invalid pipe", kWaitName);
    return kWait;
  }

  int wait() {
    if (!catches_) set_broken_pipe_action(note_broken_pipe);
    catches_ = true;
    switch (await_input(fd_, kPatience)) {
      case Input::kFailed:
        return KEL_NET_REPLY_ERROR;
      case Input::kExpired:
        return fail(KEL_NET_REPLY_EXPIRED, ETIMEDOUT, "%s: poll timed out after all retries",
                    kWaitName);
      default:
        return kGoOn;
    }
  }

  int fd_;
  Line line_;
  bool is_socket_ = true;
  bool catches_ = false;  // SIGPIPE: nothing can raise it while nobody waits
};

}  // namespace

int kel::internal::send_line(int sock, int flags, std::string_view line) {
  const ssize_t sent =
      retry_interrupted([&] { return ::send(sock, line.data(), line.size(), flags); });
  if (sent == -1 && errno == ENOTSOCK)
    return static_cast<int>(
        retry_interrupted([&] { return ::write(sock, line.data(), line.size()); }));
  if (sent == -1) return fail(-1, errno, "%s: could not send on socket", kSendName);
  return static_cast<int>(sent);
}

int NetSend(int sock, const char* format, ...) {
  if (format == nullptr) return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  char line[kSentSize];
  constexpr size_t kText = kSentSize - 1;  // the LF stands where the terminator of a full text does
  va_list args;
  va_start(args, format);
  const int wanted = std::vsnprintf(line, kText, format, args);
  va_end(args);
  if (wanted < 0) return fail(-1, errno, "%s: could not format line", __func__);
  size_t size = std::min(static_cast<size_t>(wanted), kText - 1);
  line[size++] = '\n';
  return send_line(sock, 0, {line, size});
}

int NetReadReply(NetContext* ctx) {
  if (ctx == nullptr)
    return fail(KEL_NET_REPLY_ERROR, EINVAL, "%s: invalid NULL parameter", __func__);
  std::memset(ctx->replyBuffer, 0, sizeof ctx->replyBuffer);
  const int result = LineReader(ctx->connection, ctx->replyBuffer).read();
  const bool stays_caught = result == KEL_NET_REPLY_EXPIRED || result == KEL_NET_REPLY_TOO_LONG;
  set_broken_pipe_action(stays_caught ? note_broken_pipe : SIG_IGN);
  if (pipe_broke.load(std::memory_order_relaxed)) {
    pipe_broke.store(false, std::memory_order_relaxed);
    if (TraceOn()) __Trace("%s: interrupted by SIGPIPE", __func__);
  }
  return result;
}
