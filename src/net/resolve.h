// Address lists with an owner, and resolution that never answers with a relay.
#pragma once

#include <kel/address.h>

#include <ctime>
#include <memory>

#include "internal/report.h"

namespace kel::internal {

struct FreeAddresses {
  void operator()(tq_addrinfo* list) const noexcept { tq_freeaddrinfo(list); }
};
/// Owns an address list.
using AddressList = std::unique_ptr<tq_addrinfo, FreeAddresses>;

/// tq_getaddrinfo() whether or not there is a NAT proxy: for addresses that sockets of this host
/// are bound to, which no proxy can stand in for.
int resolve_here(const char* host, const char* service, const struct addrinfo* hints,
                 tq_addrinfo** res);

/// Seconds on a clock that nobody sets.
inline std::time_t steady_seconds() noexcept {
  struct timespec now = {};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}

}  // namespace kel::internal
