// Names of peers, by a lookup or from what earlier lookups found.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <ctime>
#include <span>

namespace kel::internal {

struct Peer {
  sockaddr_storage socket_address;
  socklen_t size;                  // of that
  char address[INET6_ADDRSTRLEN];  // as text
  uint16_t port;                   // host order
};

/// Seconds on a clock that nobody sets.
inline double precise_seconds() noexcept {
  struct timespec now = {};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

/// Finds the name of a peer, "<unknown host>" when it has none; never fails. Reports are those of
/// NetWaitForRemote().
///
/// @param clear_interval  seconds after which names are forgotten
/// @param name            receives the name, cut
void find_peer_name(const Peer& peer, unsigned clear_interval, std::span<char> name);

}  // namespace kel::internal
