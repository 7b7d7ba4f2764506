// The kernel's list of local IPv4 addresses.
#pragma once

#include <net/if.h>
#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "internal/handles.h"

namespace kel::internal {

/// What the kernel says of the address in `entry`, host order.
inline std::uint32_t address_of(const sockaddr& entry) noexcept {
  sockaddr_in address;
  std::memcpy(&address, &entry, sizeof address);
  return ntohl(address.sin_addr.s_addr);
}

inline sockaddr socket_address(in_addr_t network_order) noexcept {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = network_order;
  sockaddr entry;
  std::memcpy(&entry, &address, sizeof entry);
  return entry;
}

class InterfaceTable {
 public:
  /// Asks the kernel through an IPv4 datagram socket; false with errno when it does not tell, or
  /// with ENOMEM after a report.
  bool read(int socket);

  std::span<const ifreq> entries() const { return {entries_.get(), count_}; }

 private:
  MallocPtr<ifreq> entries_;
  std::size_t count_ = 0;
};

/// A socket for requests about interfaces and routes.
UniqueFd request_socket() noexcept;

}  // namespace kel::internal
