// Socket addresses as text.
#include <kel/net.h>
#include <kel/strings.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cerrno>

#include "internal/report.h"

using namespace kel::internal;

const char* get_ip_str(const struct sockaddr* sa, char* buf, size_t len) {
  if (sa == nullptr || buf == nullptr) return fail_quietly<const char*>(nullptr, EINVAL);
  const auto capacity = static_cast<socklen_t>(len);
  switch (sa->sa_family) {
    case AF_INET:
      return ::inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(sa)->sin_addr, buf,
                         capacity);
    case AF_INET6:
      return ::inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(sa)->sin6_addr, buf,
                         capacity);
    default:
      kelstrcpy(buf, "Unknown AF", len);
      return fail_quietly<const char*>(nullptr, EAFNOSUPPORT);
  }
}
