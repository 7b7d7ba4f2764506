// The routes of an interface put in order: its own made anew, shared default gateways moved to it.
#include <kel/iprange.h>
#include <kel/logging.h>

#include <sys/ioctl.h>

#include <climits>
#include <cstdlib>

#include "internal/handles.h"
#include "net/interface_table.h"
#include "net/netlink.h"
#include "net/routes.h"

using namespace kel::internal;

namespace {

constexpr const char* kName = "NetResetRoutingtable";
constexpr int kDumps = 8;  // how often a table that keeps changing is read

/// Routes as the kernel sent them, so that nothing is lost when they go back: the payloads of their
/// messages, each behind a header that holds the length.
class RouteStore {
 public:
  void clear() { size_ = 0; }
  Bytes all() const { return {bytes_.get(), size_}; }

  /// False when there is no memory.
  bool add(Bytes payload) {
    nlmsghdr header = {};
    header.nlmsg_len = static_cast<uint32_t>(sizeof header + payload.size());
    const size_t size = NLMSG_ALIGN(header.nlmsg_len);
    if (!reserve(size_ + size)) return false;
    // What only the kernel sets, and refuses to be told.
    rtmsg message;
    std::memcpy(&message, payload.data(), sizeof message);
    message.rtm_flags &= RTNH_F_PERVASIVE | RTNH_F_ONLINK;
    unsigned char* to = bytes_.get() + size_;
    std::memcpy(to, &header, sizeof header);
    std::memcpy(to + sizeof header, payload.data(), payload.size());
    std::memcpy(to + sizeof header, &message, sizeof message);
    size_ += size;
    return true;
  }

 private:
  bool reserve(size_t size) {
    if (size <= capacity_) return true;
    const size_t capacity = std::max<size_t>(2 * size, 4096);
    void* grown = std::realloc(bytes_.get(), capacity);
    if (grown == nullptr) return false;
    [[maybe_unused]] const void* moved = bytes_.release();
    bytes_.reset(static_cast<unsigned char*>(grown));
    capacity_ = capacity;
    return true;
  }

  MallocPtr<unsigned char> bytes_;
  size_t size_ = 0;
  size_t capacity_ = 0;
};

bool is_own(const Route& route, uint32_t index) {
  return route.output == index && !route.gateway.has_value();
}

/// Whether the default gateway might move to the interface from another one.
bool is_foreign_default(const Route& route, uint32_t index) {
  return route.prefix == 0 && route.destination == 0 && route.gateway.has_value() &&
         route.output != index;
}

/// Keeps the routes of the main table that concern the interface; false after a report.
bool collect(RouteSocket& socket, uint32_t index, RouteStore* store) {
  rtmsg request = {};
  request.rtm_family = AF_INET;
  request.rtm_table = RT_TABLE_MAIN;
  const Bytes bytes(reinterpret_cast<const unsigned char*>(&request), sizeof request);
  const auto keep = [=](const Route& route, Bytes payload) {
    const bool known =
        route.table == RT_TABLE_MAIN && !route.cloned && !route.has_other_hop && route.output != 0;
    const bool wanted = known && (is_own(route, index) || is_foreign_default(route, index));
    return !wanted || store->add(payload) ? 0 : ENOMEM;
  };
  auto result = RouteSocket::kRefused;
  for (int i = 0; i < kDumps; ++i) {
    store->clear();
    result = socket.exchange(RTM_GETROUTE, NLM_F_DUMP, bytes, keep);
    if (result != RouteSocket::kRefused || errno != EAGAIN) break;
  }
  if (result == RouteSocket::kDone) return true;
  if (result == RouteSocket::kNotSent)
    return fail(false, errno, "%s: Write of request to socket failed", kName);
  if (result == RouteSocket::kRefused && errno == ENOMEM)
    return fail(false, errno, "%s: could not allocate memory", kName);
  return fail(false, errno, "%s: Read of response from socket failed", kName);
}

bool make_anew(RouteSocket& socket, Bytes payload) {
  if (socket.change(RTM_DELROUTE, 0, payload) != RouteSocket::kDone)
    return fail(false, errno, "%s: Write of deletion message to socket failed", kName);
  if (socket.change(RTM_NEWROUTE, NLM_F_CREATE, payload) != RouteSocket::kDone)
    return fail(false, errno, "%s: Write of route message to socket failed", kName);
  return true;
}

/// The broadcast address of the first address of an interface; 0 when it has none, or after a
/// report.
uint32_t broadcast_of(int socket, const InterfaceTable& table, const char* name,
                      const char* function) {
  for (ifreq entry : table.entries()) {
    if (std::strcmp(entry.ifr_name, name) != 0) continue;
    // The address goes along, and picks one of several.
    if (::ioctl(socket, SIOCGIFBRDADDR, &entry) == 0) return address_of(entry.ifr_broadaddr);
    return fail(0u, errno, "%s: ioctl SIOCGIFBRDADDR failed, interface = %s", function, name);
  }
  return 0;
}

/// 1 when two interfaces are known to share their network, else 0; -1 after a report.
int compare_networks(int socket, const char* first, const char* second) {
  constexpr const char* kCompare = "_compare_net";
  InterfaceTable table;
  if (!table.read(socket)) return fail(-1, errno, "%s: ioctl SIOCGIFCONF failed", kCompare);
  const uint32_t one = broadcast_of(socket, table, first, kCompare);
  const uint32_t other = broadcast_of(socket, table, second, kCompare);
  if (TraceOn() != 0) {
    __Trace("%s: netmask1=%X\n", kCompare, one);
    __Trace("%s: netmask2=%X\n", kCompare, other);
  }
  return one != 0 && one == other ? 1 : 0;
}

bool add_default_gateway(int socket, const Route& route, const char* ifname) {
  constexpr const char* kAdd = "add_default_gateway";
  const IoctlRoute wanted = {
      .target = INADDR_ANY,
      .is_host = false,
      .gateway = route.gateway,
      .ifname = ifname,
      .metric = static_cast<short>(route.priority < SHRT_MAX ? route.priority + 1 : 0)};
  if (request_route(socket, SIOCADDRT, wanted) != 0 && errno != EEXIST)
    return fail(false, errno, "%s: ioctl add default gateway, errno=%d\n", kAdd, errno);
  if (TraceOn() != 0) __Trace("%s: ioctl add default gateway success.", kAdd);
  return true;
}

/// Moves a default route to `ifname` when that shares the network of the route's interface.
bool move_default(RouteSocket& socket, const Route& route, Bytes payload, const char* ifname) {
  char other[IF_NAMESIZE];
  if (if_indextoname(route.output, other) == nullptr) return true;  // gone, with its routes
  const UniqueFd requests = request_socket();
  if (!requests) return fail(false, errno, "%s: Socket Creation failed", kName);
  const int shared = compare_networks(requests.get(), ifname, other);
  if (shared != 1) return shared == 0;
  if (!add_default_gateway(requests.get(), route, ifname)) return false;
  if (socket.change(RTM_DELROUTE, 0, payload) != RouteSocket::kDone)
    return fail(false, errno, "%s: Write of gateway deletion message to socket failed", kName);
  return true;
}

}  // namespace

int NetResetRoutingtable(const char* ifname) {
  if (ifname == nullptr) return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  const uint32_t index = if_nametoindex(ifname);  // 0, which no route has, when there is none
  RouteSocket socket;
  if (!socket.open()) return fail(-1, errno, "%s: Socket Creation failed", __func__);
  RouteStore store;
  // All is read before anything changes.
  if (!collect(socket, index, &store)) return -1;
  Bytes rest = store.all();
  nlmsghdr header;
  Bytes payload;
  while (take_record(&rest, &header, &payload)) {
    const std::optional<Route> route = read_route(payload);
    if (!route) continue;
    const bool done = is_own(*route, index) ? make_anew(socket, payload)
                                            : move_default(socket, *route, payload, ifname);
    if (!done) return -1;
  }
  return 0;
}

int NetSetRestoreRoute(const char* rangeText) {
  char ip[INET_ADDRSTRLEN];
  char ifname[IF_NAMESIZE];
  return NetGetIFFromIPRange(rangeText, ip, sizeof ip, ifname, sizeof ifname) == 0
             ? NetResetRoutingtable(ifname)
             : -1;
}
