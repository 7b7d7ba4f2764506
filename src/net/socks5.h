// The client's side of a SOCKS5 handshake (RFC 1928).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kel::internal {

/// Asks the relay at the other end of `sock` for a connection to `host` (1 to 255 bytes) and
/// `port`; all of it may take `limit` milliseconds. What follows the relay's answer stays in the
/// socket.
///
/// True when the connection stands; false with errno after a report under `function`.
bool socks5_handshake(int sock, std::string_view host, std::uint16_t port, long limit,
                      const char* function);

/// The most bytes of a host name that a request can carry.
inline constexpr std::size_t kLongestRelayedName = 255;
/// The code under which relays are reported.
inline constexpr int kRelayCode = 9;

}  // namespace kel::internal
