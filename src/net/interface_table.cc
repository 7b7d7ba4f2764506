// SIOCGIFCONF with a buffer that grows until the kernel leaves room in it.
#include "net/interface_table.h"

#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstdlib>

#include "internal/report.h"

namespace kel::internal {
namespace {

constexpr std::size_t kFirstSize = 1280;        // bytes: 32 entries
constexpr std::size_t kLargestSize = 1U << 30;  // ifc_len is an int
constexpr int kTableAllocation = 140;

}  // namespace

bool InterfaceTable::read(int socket) {
  for (std::size_t size = kFirstSize; size <= kLargestSize; size *= 2) {
    entries_.reset(static_cast<ifreq*>(std::calloc(1, size)));
    if (entries_ == nullptr) {
      errno = ENOMEM;
      report_error(kTableAllocation, "%s: calloc failed for %lu bytes (NetGetIfList())\n",
                   "NetGetIfaceList", size);
      return fail_quietly(false, ENOMEM);
    }
    ifconf request = {};
    request.ifc_len = static_cast<int>(size);
    request.ifc_req = entries_.get();
    if (::ioctl(socket, SIOCGIFCONF, &request) != 0) return false;
    const auto used = static_cast<std::size_t>(request.ifc_len);
    if (used + sizeof(ifreq) > size) continue;
    const std::span<ifreq> all(entries_.get(), used / sizeof(ifreq));
    for (const ifreq& entry : all)
      if (entry.ifr_addr.sa_family == AF_INET) all[count_++] = entry;
    return true;
  }
  return fail_quietly(false, EOVERFLOW);
}

UniqueFd request_socket() noexcept {
  return UniqueFd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

}  // namespace kel::internal
