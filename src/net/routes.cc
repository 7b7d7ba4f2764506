// Host routes: through which interface the traffic to one host leaves.
#include "net/routes.h"

#include <kel/iprange.h>
#include <kel/logging.h>

#include <arpa/inet.h>
#include <sys/ioctl.h>

#include <cstring>

#include "internal/handles.h"
#include "net/interface_table.h"
#include "net/netlink.h"

namespace kel::internal {

int request_route(int socket, unsigned long request, const IoctlRoute& route) noexcept {
  char name[IFNAMSIZ] = {};
  std::memcpy(name, route.ifname, strnlen(route.ifname, sizeof name - 1));
  rtentry entry = {};
  entry.rt_dst = socket_address(route.target);
  entry.rt_genmask = socket_address(route.is_host ? INADDR_NONE : INADDR_ANY);
  entry.rt_flags = static_cast<unsigned short>(RTF_UP | (route.is_host ? RTF_HOST : 0));
  entry.rt_metric = route.metric;
  entry.rt_dev = name;
  if (route.gateway) {
    entry.rt_gateway = socket_address(*route.gateway);
    entry.rt_flags |= RTF_GATEWAY;
  }
  return ::ioctl(socket, request, &entry);
}

bool is_interface_name(const char* ifname) noexcept {
  const std::size_t length = strnlen(ifname, IFNAMSIZ);
  return length > 0 && length < IFNAMSIZ;
}

}  // namespace kel::internal

using namespace kel::internal;

namespace {

struct BestRoute {
  bool through_interface;
  std::optional<in_addr_t> gateway;
};

constexpr const char* kName = "get_best_route";

/// Asks for the route to one address.
bool ask_route(in_addr_t target, Route* best) {
  constexpr const char* kReader = "read_nlsocket";
  RouteSocket socket;
  if (!socket.open()) return fail(false, errno, "%s: create socket  failed.\n", kName);
  struct {
    rtmsg message;
    rtattr header;
    in_addr_t target;
  } request = {};
  request.message.rtm_family = AF_INET;
  request.message.rtm_dst_len = 32;
  request.header = {.rta_len = RTA_LENGTH(sizeof target), .rta_type = RTA_DST};
  request.target = target;
  const auto keep = [best](const Route& route, Bytes) {
    *best = route;
    return 0;
  };
  const auto* bytes = reinterpret_cast<const unsigned char*>(&request);
  switch (socket.exchange(RTM_GETROUTE, 0, Bytes(bytes, sizeof request), keep)) {
    case RouteSocket::kDone:
      return true;
    case RouteSocket::kNotSent:
      return fail(false, errno, "%s: send failed.\n", kName);
    case RouteSocket::kNoAnswer:
      report_error(errno, "%s: SOCK READ: ", kReader);
      break;
    case RouteSocket::kRefused:
      report_error(errno, "%s: Error in recieved packet", kReader);
  }
  return fail(false, errno, "%s: read socket failed.\n", kName);
}

std::optional<BestRoute> best_route(const char* target, const char* ifname, in_addr* address) {
  constexpr std::nullopt_t kNone = std::nullopt;
  if (!is_interface_name(ifname))
    return fail<std::optional<BestRoute>>(kNone, EINVAL, "%s: Invalid argument.\n", kName);
  if (inet_pton(AF_INET, target, address) != 1)
    return fail<std::optional<BestRoute>>(kNone, EINVAL, "%s: inet_pton(%s) failed.\n", kName,
                                          target);
  Route best;
  if (!ask_route(address->s_addr, &best)) return kNone;
  // By index, so that a label of an address stands for its interface.
  const bool same = best.output != 0 && best.output == if_nametoindex(ifname);
  return BestRoute{.through_interface = same, .gateway = best.gateway};
}

const char* or_null(const char* text) { return text != nullptr ? text : "NULL"; }

int change_host_route(unsigned long request, const char* target, const char* ifip,
                      const char* ifname) {
  constexpr const char* kOps = "route_ops";
  if (TraceOn() != 0)
    __Trace("%s: target=%s, ifip=%s, ifname=%s\n", kOps, or_null(target), or_null(ifip),
            or_null(ifname));
  if (target == nullptr || ifname == nullptr)
    return fail(-1, EINVAL, "%s: invalid argument.", kOps);
  in_addr address = {};
  const std::optional<BestRoute> best = best_route(target, ifname, &address);
  if (!best) return -1;
  if (best->through_interface == (request == SIOCADDRT)) return 0;
  const UniqueFd socket = request_socket();
  if (!socket) return fail(-1, errno, "%s: create socket Error.", kOps);
  const IoctlRoute route = {.target = address.s_addr,
                            .is_host = true,
                            .gateway = best->gateway,
                            .ifname = ifname,
                            .metric = 0};
  if (request_route(socket.get(), request, route) != 0)
    return fail(-1, errno, "%s: create socket Error, errno=%d.", kOps, errno);
  if (TraceOn() != 0) __Trace("%s: ioctl success.", kOps);
  return 0;
}

}  // namespace

int NetAddRoute(const char* target, const char* ifip, const char* ifname) {
  return change_host_route(SIOCADDRT, target, ifip, ifname);
}

int NetDelRoute(const char* target, const char* ifip, const char* ifname) {
  return change_host_route(SIOCDELRT, target, ifip, ifname);
}
