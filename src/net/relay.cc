// Connections through a SOCKS5 relay.
#include <kel/logging.h>
#include <kel/net.h>

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>

#include "internal/ascii.h"
#include "internal/handles.h"
#include "internal/report.h"
#include "net/connect.h"
#include "net/resolve.h"
#include "net/socks5.h"

using namespace kel::internal;

namespace {

constexpr char kName[] = "NetConnectByAddr4Cvnet";
constexpr long kHandshakeLimit = 120'000;  // milliseconds; a relay's own attempt takes up to these

template <size_t Size>
std::string_view text_of(const char (&field)[Size]) {
  return {field, ::strnlen(field, Size)};
}

/// A socket that is connected to the relay itself; none after a report.
UniqueFd connect_relay(const cvnetinfo& relay, const NetConnectOptions& options) {
  struct addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  struct addrinfo* found = nullptr;
  const int err = ::getaddrinfo(relay.cvlinkhost, relay.cvlinkport, &hints, &found);
  if (err != 0) {
    if (err != EAI_SYSTEM) errno = EHOSTUNREACH;
    report_error(kRelayCode, "%s: error on getaddrinfo with %s and %s, returns %d", kName,
                 relay.cvlinkhost, relay.cvlinkport, err);
    return UniqueFd();
  }
  const auto release = [](struct addrinfo* list) {
    const ErrnoGuard keep;
    ::freeaddrinfo(list);
  };
  const std::unique_ptr<struct addrinfo, decltype(release)> list{found};
  for (; found != nullptr; found = found->ai_next) {
    UniqueFd sock(new_client_socket(found->ai_family, options));
    if (!sock) {
      report_error(kRelayCode, "%s: error on create socket", kName);
      continue;
    }
    const int result = connect_whole(sock.get(), found->ai_addr, found->ai_addrlen);
    if (result == 0) return sock;
    report_error(kRelayCode, "%s: error on connect socket %d, returns %d", kName, sock.get(),
                 result);
  }
  return UniqueFd();
}

}  // namespace

uint16_t kel::internal::destination_port(const cvnetinfo& relay) {
  unsigned port = 0;
  for (const char c : text_of(relay.destport)) {
    if (!is_digit(c) || port > 6553) return 0;
    port = 10 * port + static_cast<unsigned>(c - '0');
  }
  return port > 65535 ? 0 : static_cast<uint16_t>(port);
}

int kel::internal::connect_through_relay(const cvnetinfo& relay, const NetConnectOptions& options) {
  const std::string_view host = text_of(relay.desthost);
  const uint16_t port = destination_port(relay);
  const bool has_host = !host.empty() && host.size() <= kLongestRelayedName;
  if (!has_host || port == 0) {
    report_error(kRelayCode,
                 has_host ? "%s: dest request: no port number!"
                          : "%s: dest request: host name should have 1 to 255 characters!",
                 kName);
    return fail_quietly(-1, EINVAL);
  }
  UniqueFd sock = connect_relay(relay, options);
  const bool stands = sock && socks5_handshake(sock.get(), host, port, kHandshakeLimit, kName);
  return stands ? sock.release() : -1;
}

int NetConnectByAddr4Cvnet(const tq_addrinfo* addr) {
  if (addr == nullptr || addr->cvnetinfo == nullptr) {
    errno = EINVAL;
    return fail(-1, -1, "%s: Invalid argument, addr or addr->cvnetinfo is NULL", kName);
  }
  return connect_through_relay(*addr->cvnetinfo, {});
}
