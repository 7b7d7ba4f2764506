// Requests to the kernel over rtnetlink (rtnetlink(7)) and the exchange of datagrams for each.
#pragma once

#include <cerrno>
#include <cstdint>
#include <optional>

#include "internal/handles.h"
#include "net/netlink_reply.h"

namespace kel::internal {

/// A socket to the kernel's routing tables.
class RouteSocket {
 public:
  enum Result {
    kDone,
    kNotSent,
    kNoAnswer,  ///< nothing could be received
    kRefused,   ///< the kernel refused the request, or its answer is not understood
  };

  /// False with errno.
  bool open() noexcept;

  /// Sends a request, `payload` behind a header that this fills, and reads its answer; errno is set
  /// unless it was kDone. A dump that was interrupted is EAGAIN.
  template <class OnRoute>
  Result exchange(std::uint16_t type, int flags, Bytes payload, OnRoute on_route) {
    if (!send(type, flags, payload)) return kNotSent;
    Reply reply(sequence_);
    for (;;) {
      const std::optional<Bytes> datagram = receive();
      if (!datagram) return kNoAnswer;
      const Reply::State state = reply.read(*datagram, on_route);
      if (state == Reply::kOpen) continue;
      errno = state == Reply::kFailed ? reply.error() : EAGAIN;
      return state == Reply::kComplete && !reply.interrupted() ? kDone : kRefused;
    }
  }

  /// A request that is answered by an acknowledgement only.
  Result change(std::uint16_t type, int flags, Bytes payload) {
    return exchange(type, flags | NLM_F_ACK, payload, [](const Route&, Bytes) { return EBADMSG; });
  }

 private:
  bool send(std::uint16_t type, int flags, Bytes payload) noexcept;
  /// The next datagram from the kernel, valid until the one after.
  std::optional<Bytes> receive() noexcept;

  UniqueFd fd_;
  std::uint32_t sequence_ = 0;
  unsigned char datagram_[32768];  // the kernel never sends more at once
};

}  // namespace kel::internal
