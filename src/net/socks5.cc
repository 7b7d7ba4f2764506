#include "net/socks5.h"

#include <kel/logging.h>

#include <sys/socket.h>

#include <chrono>

#include "internal/bytes.h"
#include "internal/report.h"
#include "internal/transfer.h"
#include "net/wait.h"

namespace kel::internal {
namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned char kVersion = 5;
constexpr unsigned char kNoAuthentication = 0;
constexpr unsigned char kConnect = 1;
constexpr unsigned char kHostName = 3;
constexpr unsigned char kGranted = 0;

/// Transfers on one socket, each whole, and all of them before one moment.
class Exchange {
 public:
  Exchange(int sock, long limit)
      : sock_(sock), end_(Clock::now() + std::chrono::milliseconds(limit)) {}

  bool send(const void* data, std::size_t size) const {
    return move(size, POLLOUT, [&](std::size_t done, std::size_t left) {
      return ::send(sock_, static_cast<const char*>(data) + done, left,
                    MSG_NOSIGNAL | MSG_DONTWAIT);
    });
  }
  bool receive(void* data, std::size_t size) const {
    return move(size, POLLIN, [&](std::size_t done, std::size_t left) {
      return ::recv(sock_, static_cast<char*>(data) + done, left, MSG_DONTWAIT);
    });
  }

 private:
  /// False with errno: ETIMEDOUT, or ECONNRESET when the relay closed.
  template <class Step>
  bool move(std::size_t size, short events, Step step) const {
    const Transfer moved = transfer_whole(size, [&](std::size_t done, std::size_t left) -> ssize_t {
      for (;;) {
        const auto time = std::chrono::ceil<std::chrono::milliseconds>(end_ - Clock::now());
        short happened;
        const int ready = time.count() <= 0 ? 0 : poll_one(sock_, events, time.count(), &happened);
        if (ready == 0) errno = ETIMEDOUT;
        if (ready <= 0) return -1;
        const ssize_t result = step(done, left);
        if (result != -1 || errno != EAGAIN) return result;
      }
    });
    if (!moved.failed && moved.done < size) errno = ECONNRESET;
    return moved.done == size;
  }

  int sock_;
  Clock::time_point end_;
};

bool choose_method(const Exchange& exchange, const char* function) {
  constexpr unsigned char kRequest[] = {kVersion, 1, kNoAuthentication};
  if (!exchange.send(kRequest, sizeof kRequest)) {
    ErrorA(kRelayCode, "%s: method request: send failed!", function);
    return false;
  }
  struct {
    unsigned char version, method;
  } answer;
  if (!exchange.receive(&answer, sizeof answer)) {
    ErrorA(kRelayCode, "%s: method response: read failed!", function);
    return false;
  }
  errno = EPROTO;
  if (answer.version != kVersion)
    ErrorA(kRelayCode, "%s: method response: read unexpected version value %X", function,
           answer.version);
  else if (answer.method != kNoAuthentication)
    ErrorA(kRelayCode, "%s: method response: read unexpected METHOD value %X", function,
           answer.method);
  return answer.version == kVersion && answer.method == kNoAuthentication;
}

bool request(const Exchange& exchange, std::string_view host, std::uint16_t port,
             const char* function) {
  unsigned char message[5 + kLongestRelayedName + 2] = {kVersion, kConnect, 0, kHostName,
                                                        static_cast<unsigned char>(host.size())};
  host.copy(reinterpret_cast<char*>(message + 5), kLongestRelayedName);
  store_be<std::uint16_t>(message + 5 + host.size(), port);
  if (exchange.send(message, 5 + host.size() + 2)) return true;
  ErrorA(kRelayCode, "%s: dest request: send failed!", function);
  return false;
}

bool read_answer(const Exchange& exchange, const char* function) {
  const auto read = [&](void* data, std::size_t size, const char* what) {
    if (exchange.receive(data, size)) return true;
    ErrorA(kRelayCode, "%s: dest response: read %s failed!", function, what);
    return false;
  };
  struct {
    unsigned char version, reply, reserved, type;
  } header;
  if (!read(&header, sizeof header, "header")) return false;
  if (header.reply != kGranted) {
    ErrorA(kRelayCode, "%s: dest response: connection is refused!", function);
    return fail_quietly(false, ECONNREFUSED);
  }
  if (header.type != kHostName) {
    ErrorA(kRelayCode, "%s: dest response: not the hostname type!", function);
    return fail_quietly(false, EPROTO);
  }
  unsigned char length;
  if (!read(&length, sizeof length, "length")) return false;
  if (length == 0) {
    ErrorA(kRelayCode, "%s: dest response: length should be positive!", function);
    return fail_quietly(false, EPROTO);
  }
  char host[kLongestRelayedName];
  unsigned char port[2];
  return read(host, length, "hostname") && read(port, sizeof port, "port");
}

}  // namespace

bool socks5_handshake(int sock, std::string_view host, std::uint16_t port, long limit,
                      const char* function) {
  const Exchange exchange(sock, limit);
  if (!choose_method(exchange, function) || !request(exchange, host, port, function) ||
      !read_answer(exchange, function))
    return false;
  if (TraceOn())
    __Trace("%s: succeed to set up connection and complete the socks5 protocol handshake!",
            function);
  return true;
}

}  // namespace kel::internal
