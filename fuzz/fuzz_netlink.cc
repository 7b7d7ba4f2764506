// Answers of the kernel to a request for routes, in any bytes and in two datagrams of exactly their
// size: nothing is read beyond them, an answer ends once, and each route's payload lies inside.
#include <cstdint>
#include <vector>

#include "fuzz_target.h"
#include "net/netlink_reply.h"

namespace {

using kel::internal::Bytes;
using kel::internal::Reply;
using kel::internal::Route;

constexpr uint32_t kSequence = 1;

}  // namespace

/// The first byte tells where the second datagram begins, in units of 4 bytes.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const size_t cut = std::min<size_t>(4U * data[0], size - 1);
  const std::vector<unsigned char> datagrams[] = {{data + 1, data + 1 + cut},
                                                  {data + 1 + cut, data + size}};
  Reply reply(kSequence);
  size_t routes = 0;
  for (const std::vector<unsigned char>& datagram : datagrams) {
    const Bytes bytes(datagram);
    const Reply::State state = reply.read(bytes, [&](const Route& route, Bytes payload) {
      require(payload.data() >= bytes.data() && payload.size() >= sizeof(rtmsg) &&
              payload.data() + payload.size() <= bytes.data() + bytes.size());
      require(route.prefix <= 32);
      return ++routes < 100 ? 0 : ENOMEM;
    });
    require((state == Reply::kFailed) == (reply.error() != 0) && reply.error() >= 0);
    if (state != Reply::kOpen) break;
  }
  return 0;
}
