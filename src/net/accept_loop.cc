// Waiting for the next peer that may come in.
#include <kel/logging.h>
#include <kel/net.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <span>
#include <string_view>
#include <utility>

#include "internal/atomic_field.h"
#include "internal/handles.h"
#include "internal/report.h"
#include "net/dns_cache.h"
#include "net/line.h"

using namespace kel::internal;

namespace {

constexpr char kName[] = "NetWaitForRemote";
constexpr int kIdleBeforeProbes = 210;  // seconds
constexpr int kLingerTime = 5;          // seconds
constexpr int kPause = 100;             // milliseconds
constexpr uint16_t kNoPort = 0xFFFF;

// Instead of a descriptor.
constexpr int kEnded = -1;
constexpr int kNobody = -2;

using Entries = std::span<struct pollfd>;

/// Keeps a loop that could do nothing from running hot.
void pause() {
  const ErrnoGuard keep;
  ::poll(nullptr, 0, kPause);
}

/// A peer that vanishes, or that another process takes, must not make accept(2) wait for the next.
void set_non_blocking(int sock) {
  const int flags = ::fcntl(sock, F_GETFL);
  if (flags != -1 && (flags & O_NONBLOCK) == 0) ::fcntl(sock, F_SETFL, flags | O_NONBLOCK);
}

int idle(const NetContext& ctx) {
  if (TraceOn()) __Trace("%s: poll(): timeout expired", kName);
  if (ctx.idleCallback == nullptr || ctx.idleCallback(ctx.idleData) != -1) return kNobody;
  return fail_quietly(kEnded, ECANCELED);
}

/// No socket has input, although there was an event.
int false_positive(Entries entries) {
  report_warning(77, "%s: poll() returned false positive...", kName);
  const auto is_closed = [](const pollfd& entry) { return (entry.revents & POLLNVAL) != 0; };
  if (std::ranges::any_of(entries, is_closed)) return fail_quietly(kEnded, EBADF);
  pause();
  return kNobody;
}

/// The first listening socket with a peer, or kNobody, or kEnded.
int await_peer(const NetContext& ctx, Entries entries) {
  const bool is_traced = TraceOn() != 0;
  const double start = is_traced ? precise_seconds() : 0;
  const long limit = ctx.timeout < 1 ? -1 : std::min(ctx.timeout * 1000L, long{INT_MAX});
  const int ready = ::poll(entries.data(), entries.size(), static_cast<int>(limit));
  if (is_traced) __Trace("%s: poll return %i, time=%.3f", kName, ready, precise_seconds() - start);
  if (ready == -1) {
    if (is_traced) __Trace("%s: poll(): %s", kName, std::strerror(errno));
    return kEnded;
  }
  if (ready == 0) return idle(ctx);
  const auto is_readable = [](const pollfd& entry) { return (entry.revents & POLLIN) != 0; };
  const auto found = std::ranges::find_if(entries, is_readable);
  return found == entries.end() ? false_positive(entries) : found->fd;
}

/// An IPv4 peer of an IPv6 socket is an IPv4 peer, so that the range holds for it.
void unmap(Peer* peer) {
  if (peer->socket_address.ss_family != AF_INET6) return;
  const auto mapped = reinterpret_cast<const sockaddr_in6&>(peer->socket_address);
  if (!IN6_IS_ADDR_V4MAPPED(&mapped.sin6_addr)) return;
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = mapped.sin6_port;
  std::memcpy(&address.sin_addr, mapped.sin6_addr.s6_addr + 12, sizeof address.sin_addr);
  std::memcpy(&peer->socket_address, &address, sizeof address);
  peer->size = sizeof address;
}

uint16_t port_of(const sockaddr_storage& address) {
  switch (address.ss_family) {
    case AF_INET:
      return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
    case AF_INET6:
      return ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
    default:
      return kNoPort;
  }
}

/// Takes a peer: its socket, or kNobody, or kEnded.
int accept_peer(int listening, Peer* peer) {
  const double start = precise_seconds();
  peer->size = sizeof peer->socket_address;
  const int sock = ::accept4(listening, reinterpret_cast<sockaddr*>(&peer->socket_address),
                             &peer->size, SOCK_CLOEXEC);
  if (sock == -1) {
    if (TraceOn()) __Trace("%s: accept(): %s", kName, std::strerror(errno));
    if (errno == EINTR || errno == EAGAIN) return kNobody;
    // The peer that could not be taken stays in the queue: a loop around this would try at once.
    if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) pause();
    return kEnded;
  }
  if (TraceOn()) __Trace("%s: accepted a connection, time=%.3f", kName, precise_seconds() - start);
  unmap(peer);
  if (get_ip_str(reinterpret_cast<const sockaddr*>(&peer->socket_address), peer->address,
                 sizeof peer->address) == nullptr) {
    report_error(-1, "%s: get_ip_str. Failed to turn sockaddr to IP string. Turn off DNS Cache",
                 kName);
    g_DNS_Cache_enabled = false;
  }
  peer->port = port_of(peer->socket_address);
  return sock;
}

/// Finds who the peer is.
void identify(NetContext* ctx, const Peer& peer) {
  const double start = precise_seconds();
  find_peer_name(peer, ctx->cacheClearInterval, ctx->remoteHost);
  ctx->remotePort = peer.port;
  if (TraceOn())
    __Trace("%s: remote address: (%s, %u), time=%.3f", kName, ctx->remoteHost, ctx->remotePort,
            precise_seconds() - start);
}

/// Whether the range lets the peer in.
bool may_enter(const NetContext& ctx, const Peer& peer) {
  switch (peer.socket_address.ss_family) {
    case AF_INET:
      return NetCheckIPRange(ctx.allowedPeers, peer.address, false);
    case AF_INET6:
      return true;
    default:
      return false;
  }
}

/// Tells a peer why it is not let in. One that has gone already raises no SIGPIPE.
void send_away(NetContext* ctx, std::string_view line) {
  send_line(ctx->connection, MSG_NOSIGNAL, line);
  // What the peer has sent would make closing a reset, which can overtake the line.
  char unread[1024];
  ::recv(ctx->connection, unread, sizeof unread, MSG_DONTWAIT | MSG_TRUNC);
  UniqueFd(std::exchange(ctx->connection, -1));
}

template <class Value>
void set_option(int sock, int level, int option, int code, const char* name, const Value& value) {
  if (::setsockopt(sock, level, option, &value, sizeof value) != 0)
    report_warning(code, "%s: setsockopt(%s) failed: %s\n", kName, name, std::strerror(errno));
}

void set_options(int sock) {
  set_option(sock, SOL_SOCKET, SO_KEEPALIVE, 60, "SO_KEEPALIVE", 1);
  set_option(sock, IPPROTO_TCP, TCP_KEEPIDLE, 60, "TCP_KEEPIDLE", kIdleBeforeProbes);
  set_option(sock, SOL_SOCKET, SO_LINGER, 61, "SO_LINGER", linger{1, kLingerTime});
}

/// Lets the peer in, or sends it away.
int admit(NetContext* ctx, const Peer& peer) {
  identify(ctx, peer);
  if (!may_enter(*ctx, peer)) {
    AuthA(268, "%s: Denied connection from %s, remote port %d\n", kName, peer.address, peer.port);
    send_away(ctx, "ABRT  Access Denied\n");
    return kNobody;
  }
  if (load_field(ctx->shuttingDown) != 0) {
    send_away(ctx, "BYE  Service Shutting Down, try again later\n");
    return fail_quietly(kEnded, ESHUTDOWN);
  }
  set_options(ctx->connection);
  return ctx->connection;
}

/// One wait, and what comes of it.
int wait_once(NetContext* ctx, Entries entries) {
  const int listening = await_peer(*ctx, entries);
  if (listening < 0) return listening;
  const double start = precise_seconds();
  Peer peer = {};
  const int sock = accept_peer(listening, &peer);
  if (sock < 0) return sock;
  ctx->connection = sock;
  const int result = admit(ctx, peer);
  if (result >= 0 && TraceOn())
    __Trace("%s: returning socket %i, time=%.3f", kName, result, precise_seconds() - start);
  return result;
}

}  // namespace

int NetWaitForRemote(NetContext* ctx) {
  if (ctx == nullptr) return fail(-1, EINVAL, "%s: invalid NULL parameter", kName);
  const auto count = static_cast<size_t>(std::max(ctx->socketCount, 0));
  const MallocPtr<pollfd> block{static_cast<pollfd*>(std::calloc(count, sizeof(pollfd)))};
  if (block == nullptr) return fail_allocation(-1, count * sizeof(pollfd), kName);
  const Entries entries(block.get(), count);
  for (size_t i = 0; i < count; ++i) {
    entries[i] = {ctx->listenSockets[i], POLLIN, 0};
    set_non_blocking(entries[i].fd);
  }
  int result;
  do result = wait_once(ctx, entries);
  while (result == kNobody);
  return result;
}
