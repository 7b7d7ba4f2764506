// The options that every TCP socket of the library gets.
#include <kel/logging.h>
#include <kel/net.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "internal/report.h"

using namespace kel::internal;

namespace {

constexpr int kIdleBeforeProbes = 210;  // seconds
constexpr int kSynRetries = 4;
constexpr int kLingerTime = 1;  // seconds

void set_option(int sock, int level, int option, const char* name, unsigned value) {
  if (::setsockopt(sock, level, option, &value, sizeof value) != 0)
    report_warning(errno, "TCP: setsockopt(%s) failed (%s)", name, std::strerror(errno));
  else if (TraceOn())
    __Trace("TCP: %s set", name);
}

void set_linger(int sock, const char* function) {
  const struct linger linger = {1, kLingerTime};
  if (::setsockopt(sock, SOL_SOCKET, SO_LINGER, &linger, sizeof linger) != 0)
    report_warning(errno, "%s: TCP: setsockopt(SO_LINGER) failed (%s)", function,
                   std::strerror(errno));
  else if (TraceOn())
    __Trace("TCP: %s set", "SO_LINGER");
}

int read_size(int sock, int option) {
  int size = 0;
  socklen_t length = sizeof size;
  ::getsockopt(sock, SOL_SOCKET, option, &size, &length);
  return size;
}

}  // namespace

int NetSetSocketOptions(int sock, int flags, unsigned int sndbuf, unsigned int rcvbuf) {
  if (sock == -1) return fail(-1, EINVAL, "%s: invalid socket", __func__);
  if ((flags & KEL_NET_NAGLE) == 0) set_option(sock, IPPROTO_TCP, TCP_NODELAY, "TCP_NODELAY", 1);
  if ((flags & KEL_NET_KEEPALIVE) != 0) {
    set_option(sock, SOL_SOCKET, SO_KEEPALIVE, "SO_KEEPALIVE", 1);
    set_option(sock, IPPROTO_TCP, TCP_KEEPIDLE, "TCP_KEEPIDLE", kIdleBeforeProbes);
  }
  if (sndbuf != 0) set_option(sock, SOL_SOCKET, SO_SNDBUF, "SO_SNDBUF", sndbuf);
  if (rcvbuf != 0) set_option(sock, SOL_SOCKET, SO_RCVBUF, "SO_RCVBUF", rcvbuf);
  set_option(sock, IPPROTO_TCP, TCP_SYNCNT, "TCP_SYNCNT", kSynRetries);
  if ((flags & KEL_NET_LINGER) != 0) set_linger(sock, __func__);
  if (TraceOn()) {
    __Trace("%s: TCP: using a %i byte receive buffer.", __func__, read_size(sock, SO_RCVBUF));
    __Trace("%s: TCP: using a %i byte send buffer.", __func__, read_size(sock, SO_SNDBUF));
  }
  return 0;
}
