// Route requests by ioctl, the older of the kernel's two ways to change routes.
#pragma once

#include <net/if.h>
#include <net/route.h>
#include <netinet/in.h>

#include <optional>

namespace kel::internal {

struct IoctlRoute {
  in_addr_t target;  ///< network order; of a default route 0
  bool is_host;      ///< else a default route
  std::optional<in_addr_t> gateway;
  const char* ifname;  ///< shorter than IFNAMSIZ
  short metric;        ///< the priority plus 1; 0: the kernel's choice
};

/// Makes SIOCADDRT or SIOCDELRT of a route; 0, or -1 with errno.
int request_route(int socket, unsigned long request, const IoctlRoute& route) noexcept;

/// Whether `ifname` fits where the kernel reads a name; what is longer would be cut there, and the
/// rest might be the name of another interface.
bool is_interface_name(const char* ifname) noexcept;

}  // namespace kel::internal
