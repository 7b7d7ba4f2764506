// Connections as the exported functions make them.
#pragma once

#include <kel/net.h>

namespace kel::internal {

/// A TCP socket for the family, with the options applied; -1 with errno, unreported.
int new_client_socket(int family, const NetConnectOptions& options);

/// connect(2), seen to its end when a signal interrupts it; 0 or -1.
int connect_whole(int sock, const struct sockaddr* address, socklen_t size);

/// The port that a relay is asked for; 0 when its text is none.
uint16_t destination_port(const cvnetinfo& relay);

/// NetConnectByAddr4Cvnet() on an entry that has its record, with options for the socket.
int connect_through_relay(const cvnetinfo& relay, const NetConnectOptions& options);

}  // namespace kel::internal
