// Listening sockets: IPv6 before IPv4, and the first address that works.
#include <kel/logging.h>
#include <kel/net.h>

#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "internal/handles.h"
#include "internal/report.h"
#include "net/resolve.h"

using namespace kel::internal;

namespace {

constexpr char kName[] = "NetBindAndListen";
constexpr int kBacklog = 1024;
constexpr unsigned kLastPort = 65535;
constexpr int kCode = 70;  // of reports
constexpr int kNoAddressCode = 54;

struct Family {
  int number;
  const char* name;
};
constexpr Family kIpv6 = {AF_INET6, "IPv6"};
constexpr Family kIpv4 = {AF_INET, "IPv4"};

/// Where to listen, and the last thing that went wrong there.
struct Attempt {
  const char* host;  // null: all addresses
  unsigned port;
  int error = EADDRNOTAVAIL;

  const char* shown() const { return host == nullptr ? "<localhost>" : host; }
};

void allow_reuse(int sock, int option, int code, const char* name, const Attempt& attempt) {
  const int on = 1;
  if (::setsockopt(sock, SOL_SOCKET, option, &on, sizeof on) != 0)
    report_warning(code, "%s: %s: could not set %s flag: %s", kName, attempt.shown(), name,
                   std::strerror(errno));
}

/// A socket that listens on `address`; none after a report.
UniqueFd listen_on(const tq_addrinfo& address, const Family& family, Attempt* attempt) {
  const auto give_up = [&](const char* what) {
    attempt->error = errno;
    InfoA(kCode, "%s: %s: could not %s to this interface using %s (%s), will try next", kName,
          attempt->shown(), what, family.name, std::strerror(errno));
    return UniqueFd();
  };
  UniqueFd sock(::socket(family.number, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!sock) return give_up("create socket");
  allow_reuse(sock.get(), SO_REUSEPORT, 56, "SO_REUSEPORT", *attempt);
  allow_reuse(sock.get(), SO_REUSEADDR, 55, "SO_REUSEADDR", *attempt);
  if (::bind(sock.get(), address.addr, address.addrlen) != 0) return give_up("bind");
  InfoA(-1, "%s: bound myself to %s:%u using %s", kName, attempt->shown(), attempt->port,
        family.name);
  if (::listen(sock.get(), kBacklog) != 0) return give_up("listen");
  return sock;
}

UniqueFd listen_on_family(const tq_addrinfo* list, const Family& family, Attempt* attempt) {
  for (; list != nullptr; list = list->next) {
    if (list->family != family.number) continue;
    if (UniqueFd sock = listen_on(*list, family, attempt)) return sock;
  }
  InfoA(kNoAddressCode, "%s: Did not find any valid %s addresses to bind to", kName, family.name);
  return UniqueFd();
}

}  // namespace

int NetBindAndListen(const char* host, unsigned int port, int* sock_a, int* sock_b) {
  if (sock_a != nullptr) *sock_a = -1;
  if (sock_b != nullptr) *sock_b = -1;
  if (sock_a == nullptr) return fail(-1, EINVAL, "%s: invalid NULL parameter", kName);
  if (port > kLastPort) return fail(-1, EINVAL, "%s: invalid port %u", kName, port);

  Attempt attempt = {host == nullptr || *host == '\0' ? nullptr : host, port};
  struct addrinfo hints = {};
  hints.ai_family = sock_b == nullptr ? AF_INET : AF_UNSPEC;
  hints.ai_flags = attempt.host == nullptr ? AI_PASSIVE : 0;
  char service[8];
  std::snprintf(service, sizeof service, "%u", port);
  tq_addrinfo* found = nullptr;
  const int err = resolve_here(attempt.host, service, &hints, &found);
  if (err != 0) {
    report_error(kCode, "%s: tq_getaddrinfo failed for host %s: %s", kName,
                 attempt.host == nullptr ? "<unknown>" : attempt.host, ::gai_strerror(err));
    return -1;
  }
  const AddressList list{found};

  UniqueFd ipv6, ipv4;
  if (sock_b != nullptr) ipv6 = listen_on_family(list.get(), kIpv6, &attempt);
  if (ipv6)
    InfoA(-1,
          "%s: Handling all connections (including IPv4, if enabled) through the IPv6 socket using "
          "IP tunneling",
          kName);
  else
    ipv4 = listen_on_family(list.get(), kIpv4, &attempt);
  if (!ipv6 && !ipv4) {
    errno = attempt.error;
    report_error(kCode,
                 "%s: Failed to bind and listen to a socket, exhausted all possible interfaces",
                 kName);
    return -1;
  }
  if (sock_b == nullptr) {
    *sock_a = ipv4.release();
  } else {
    *sock_a = ipv6.release();
    *sock_b = ipv4.release();
  }
  return 0;
}
