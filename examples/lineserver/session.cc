#include "session.h"

#include <kel/net.h>
#include <kel/safeio.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <iterator>

#include "protocol.h"

namespace lineserver {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kLeaveTaking{1};

int milliseconds_until(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
  return static_cast<int>(std::max<int64_t>(left.count(), 0));
}

}  // namespace

void Session::run() {
  NetSetSocketOptions(sock_, KEL_NET_KEEPALIVE, 0, 0);
  // A peer that takes no answers is sent away like one that asks nothing.
  const timeval limit = {patience_.count(), 0};
  ::setsockopt(sock_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  for (;;) {
    const Input input = read_more();
    if (!send(answer_lines()) || input == Input::kEnd) return;
    if (input == Input::kStop) return take_leave(kShuttingDown);
    if (input == Input::kExpired) return take_leave(kIdle);
    if (unread_.size() >= kLongest) return take_leave(kTooLong);
  }
}

/// Waits until there is a whole line, or no room for more of it.
Session::Input Session::read_more() {
  const Clock::time_point deadline = Clock::now() + patience_;
  for (;;) {
    pollfd entries[] = {{sock_, POLLIN, 0}, {stop_, POLLIN, 0}};
    const int ready = ::poll(entries, std::size(entries), milliseconds_until(deadline));
    if (ready == 0) return Input::kExpired;
    if (ready > 0 && entries[0].revents == 0) return Input::kStop;
    char bytes[4 * kLongest];
    const ssize_t got = ready < 0 ? -1 : ::recv(sock_, bytes, sizeof bytes, MSG_DONTWAIT);
    if (got == -1 && (errno == EINTR || errno == EAGAIN)) continue;
    if (got <= 0) return Input::kEnd;
    unread_.append(bytes, static_cast<size_t>(got));
    if (entries[1].revents != 0) return Input::kStop;
    if (unread_.size() >= kLongest || unread_.find('\n') != std::string::npos) return Input::kMore;
  }
}

/// The answers to all whole lines that have come.
std::string Session::answer_lines() {
  std::string answers;
  size_t begin = 0;
  for (size_t end; (end = unread_.find('\n', begin)) != std::string::npos; begin = end + 1) {
    std::string_view line(unread_.data() + begin, end - begin);
    if (line.ends_with('\r')) line.remove_suffix(1);
    answers.append(answer(line)).append("\r\n");
  }
  unread_.erase(0, begin);
  return answers;
}

const char* Session::answer(std::string_view line) {
  ++lines_;
  dedup::Fingerprint chunk;
  const auto is_digit = [](unsigned char c) { return std::isxdigit(c) != 0; };
  if (line.size() != kDigits || !std::all_of(line.begin(), line.end(), is_digit) ||
      SHA256StringToDigest_r(line.data(), chunk.bytes.data()) == nullptr)
    return kNoFingerprint;
  if (!chunks_.contains(chunk)) return kUnknown;
  ++known_;
  return kKnown;
}

bool Session::send(const std::string& answers) const {
  const int size = static_cast<int>(answers.size());
  return write_n_bytes(sock_, answers.data(), size) == size;
}

/// Closing while the peer still sends would be a reset, which can overtake what was said.
void Session::take_leave(const char* farewell) const {
  if (NetSend(sock_, "%s", farewell) < 0) return;
  ::shutdown(sock_, SHUT_WR);
  const Clock::time_point deadline = Clock::now() + kLeaveTaking;
  pollfd entry = {sock_, POLLIN, 0};
  char ignored[4 * kLongest];
  while (::poll(&entry, 1, milliseconds_until(deadline)) > 0 &&
         ::recv(sock_, ignored, sizeof ignored, MSG_DONTWAIT) > 0)
    if (Clock::now() > deadline) return;
}

}  // namespace lineserver
