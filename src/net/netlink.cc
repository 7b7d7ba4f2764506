// Datagrams to and from the kernel.
#include "net/netlink.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>

#include "internal/transfer.h"

namespace kel::internal {
namespace {

constexpr timeval kPatience = {.tv_sec = 5, .tv_usec = 0};  // the kernel answers at once

}  // namespace

bool RouteSocket::open() noexcept {
  fd_ = UniqueFd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  return fd_ && ::setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience) == 0;
}

bool RouteSocket::send(std::uint16_t type, int flags, Bytes payload) noexcept {
  nlmsghdr header = {};
  header.nlmsg_len = static_cast<std::uint32_t>(sizeof header + payload.size());
  header.nlmsg_type = type;
  header.nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
  header.nlmsg_seq = ++sequence_;
  iovec parts[] = {{&header, sizeof header},
                   {const_cast<unsigned char*>(payload.data()), payload.size()}};
  msghdr message = {};
  message.msg_iov = parts;
  message.msg_iovlen = 2;
  return retry_interrupted([&] { return static_cast<int>(::sendmsg(fd_.get(), &message, 0)); }) >=
         0;
}

std::optional<Bytes> RouteSocket::receive() noexcept {
  for (;;) {
    sockaddr_nl sender = {};
    socklen_t sender_size = sizeof sender;
    const ssize_t size = ::recvfrom(fd_.get(), datagram_, sizeof datagram_, MSG_TRUNC,
                                    reinterpret_cast<sockaddr*>(&sender), &sender_size);
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) return std::nullopt;
    if (sender.nl_pid != 0) continue;  // from another process
    if (static_cast<std::size_t>(size) <= sizeof datagram_)
      return Bytes(datagram_, static_cast<std::size_t>(size));
    errno = EMSGSIZE;
    return std::nullopt;
  }
}

}  // namespace kel::internal
