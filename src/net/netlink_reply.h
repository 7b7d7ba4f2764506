// Routes from the kernel over rtnetlink (rtnetlink(7)). What arrives is read by functions over
// bytes that trust no length in them; the socket and its exchanges are on top.
#pragma once

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>

namespace kel::internal {

using Bytes = std::span<const unsigned char>;

constexpr std::size_t length_of(const nlmsghdr& header) noexcept { return header.nlmsg_len; }
constexpr std::size_t length_of(const rtattr& header) noexcept { return header.rta_len; }

/// Takes a record, a header that begins with the length of both and a payload, off the front of
/// `rest`. False at the end, and with bytes left in `rest` when they are no record.
template <class Header>
bool take_record(Bytes* rest, Header* header, Bytes* payload) noexcept {
  static_assert(sizeof(Header) % NLMSG_ALIGNTO == 0 && NLMSG_ALIGNTO == RTA_ALIGNTO);
  if (rest->size() < sizeof(Header)) return false;
  std::memcpy(header, rest->data(), sizeof(Header));
  const std::size_t length = length_of(*header);
  if (length < sizeof(Header) || length > rest->size()) return false;
  *payload = rest->subspan(sizeof(Header), length - sizeof(Header));
  *rest = rest->subspan(std::min<std::size_t>(NLMSG_ALIGN(length), rest->size()));
  return true;
}

/// Copies the start of `bytes`; false when there are too few.
template <class T>
bool copy_front(Bytes bytes, T* value) noexcept {
  if (bytes.size() < sizeof(T)) return false;
  std::memcpy(value, bytes.data(), sizeof(T));
  return true;
}

/// An IPv4 route. Interfaces are indices, 0 for none; addresses have network order.
struct Route {
  std::uint32_t table = 0;
  unsigned prefix = 0;  ///< length; 0 for a default route
  bool cloned = false;  ///< from the kernel's cache
  in_addr_t destination = 0;
  std::uint32_t output = 0;
  std::optional<in_addr_t> gateway;
  bool has_other_hop =
      false;             ///< several next hops, a next-hop object, a gateway of another family
  in_addr_t source = 0;  ///< preferred source address
  std::uint32_t priority = 0;
};

/// Keeps an attribute in `route`; false when it is too short.
inline bool keep_attribute(unsigned type, Bytes value, Route* route) noexcept {
  in_addr_t gateway = 0;
  switch (type) {
    case RTA_TABLE:
      return copy_front(value, &route->table);
    case RTA_DST:
      return copy_front(value, &route->destination);
    case RTA_OIF:
      return copy_front(value, &route->output);
    case RTA_GATEWAY:
      if (!copy_front(value, &gateway)) return false;
      route->gateway = gateway;
      return true;
    case RTA_PREFSRC:
      return copy_front(value, &route->source);
    case RTA_PRIORITY:
      return copy_front(value, &route->priority);
    case RTA_MULTIPATH:
    case RTA_NH_ID:
    case RTA_VIA:
      route->has_other_hop = true;
      return true;
    default:
      return true;
  }
}

/// Reads the payload of an RTM_NEWROUTE message; none when it is malformed or not IPv4.
inline std::optional<Route> read_route(Bytes payload) noexcept {
  rtmsg message;
  if (!copy_front(payload, &message) || message.rtm_family != AF_INET || message.rtm_dst_len > 32)
    return std::nullopt;
  Route route;
  route.table = message.rtm_table;
  route.prefix = message.rtm_dst_len;
  route.cloned = (message.rtm_flags & RTM_F_CLONED) != 0;
  Bytes rest = payload.subspan(sizeof message);
  rtattr attribute;
  Bytes value;
  while (take_record(&rest, &attribute, &value))
    if (!keep_attribute(attribute.rta_type & NLA_TYPE_MASK, value, &route)) return std::nullopt;
  if (!rest.empty()) return std::nullopt;
  return route;
}

/// The answer to one request, datagram by datagram.
class Reply {
 public:
  enum State {
    kOpen,      ///< more is to come
    kComplete,  ///< the answer has ended
    kFailed,    ///< error() tells why: what the kernel said, or EBADMSG
  };

  explicit Reply(std::uint32_t sequence) noexcept : sequence_(sequence) {}

  int error() const noexcept { return error_; }
  /// The table changed while it was being sent: routes may be missing.
  bool interrupted() const noexcept { return interrupted_; }

  /// Reads what a datagram holds for this request, and hands each route with the message's payload
  /// to `on_route(route, payload)`, which returns 0 or an error number.
  template <class OnRoute>
  State read(Bytes datagram, OnRoute on_route) {
    State state = kOpen;
    nlmsghdr header;
    Bytes payload;
    while (state == kOpen && take_record(&datagram, &header, &payload))
      if (header.nlmsg_seq == sequence_) state = read_message(header, payload, on_route);
    return state == kOpen && !datagram.empty() ? fail(EBADMSG) : state;
  }

 private:
  State fail(int error) noexcept {
    error_ = error;
    return kFailed;
  }

  /// The end of a dump and an acknowledgement hold an error number, 0 or negative.
  State end(Bytes payload) noexcept {
    std::int32_t code = 0;
    if (!copy_front(payload, &code) || code > 0 || code == INT32_MIN) return fail(EBADMSG);
    return code == 0 ? kComplete : fail(-code);
  }

  template <class OnRoute>
  State read_message(const nlmsghdr& header, Bytes payload, OnRoute& on_route) {
    if ((header.nlmsg_flags & NLM_F_DUMP_INTR) != 0) interrupted_ = true;
    switch (header.nlmsg_type) {
      case NLMSG_NOOP:
        return kOpen;
      case NLMSG_DONE:
      case NLMSG_ERROR:
        return end(payload);
      case RTM_NEWROUTE:
        break;
      default:
        return fail(EBADMSG);
    }
    const bool is_dump = (header.nlmsg_flags & NLM_F_MULTI) != 0;
    if (const std::optional<Route> route = read_route(payload)) {
      if (const int error = on_route(*route, payload); error != 0) return fail(error);
    } else if (!is_dump) {
      return fail(EBADMSG);
    }
    return is_dump ? kOpen : kComplete;
  }

  std::uint32_t sequence_;
  int error_ = 0;
  bool interrupted_ = false;
};

}  // namespace kel::internal
