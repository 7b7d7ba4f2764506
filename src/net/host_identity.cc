// Who is who: names, addresses, and which of them are this host.
#include <kel/logging.h>
#include <kel/strings.h>

#include <netinet/in.h>
#include <strings.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "internal/handles.h"
#include "internal/report.h"
#include "net/resolve.h"

using namespace kel::internal;

namespace {

constexpr size_t kInputSize = 4096;

const sockaddr_in& as_ipv4(const tq_addrinfo& entry) {
  return *reinterpret_cast<const sockaddr_in*>(entry.addr);
}
const sockaddr_in6& as_ipv6(const tq_addrinfo& entry) {
  return *reinterpret_cast<const sockaddr_in6*>(entry.addr);
}

/// Whether `sock` can be bound to the entry's address, at any port.
bool can_bind(int sock, const tq_addrinfo& entry) {
  sockaddr_storage address = {};
  if (entry.addrlen > sizeof address) return false;
  std::memcpy(&address, entry.addr, entry.addrlen);
  if (address.ss_family == AF_INET)
    reinterpret_cast<sockaddr_in&>(address).sin_port = 0;
  else if (address.ss_family == AF_INET6)
    reinterpret_cast<sockaddr_in6&>(address).sin6_port = 0;
  if (::bind(sock, reinterpret_cast<const sockaddr*>(&address), entry.addrlen) == 0) return true;
  if (errno != EADDRINUSE && errno != EADDRNOTAVAIL)
    report_error(-1, "%s: could not bind to address (%d)", "is_addrinfo_local", errno);
  return errno == EADDRINUSE;
}

bool has_local(const tq_addrinfo* list) {
  for (; list != nullptr; list = list->next) {
    if (list->addr == nullptr) continue;
    const UniqueFd sock(::socket(list->family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!sock) return false;
    if (can_bind(sock.get(), *list)) return true;
  }
  return false;
}

/// Whether any entry of `a` and any of `b` are alike.
template <class Alike>
bool any_pair(const tq_addrinfo* a, const tq_addrinfo* b, Alike alike) {
  for (; a != nullptr; a = a->next)
    for (const tq_addrinfo* other = b; other != nullptr; other = other->next)
      if (alike(*a, *other)) return true;
  return false;
}

bool have_same_name(const tq_addrinfo& a, const tq_addrinfo& b) {
  return a.canonname != nullptr && b.canonname != nullptr &&
         ::strcasecmp(a.canonname, b.canonname) == 0;
}

bool have_same_address(const tq_addrinfo& a, const tq_addrinfo& b) {
  if (a.addr == nullptr || b.addr == nullptr || a.family != b.family) return false;
  if (a.family == AF_INET) return as_ipv4(a).sin_addr.s_addr == as_ipv4(b).sin_addr.s_addr;
  return a.family == AF_INET6 &&
         std::memcmp(&as_ipv6(a).sin6_addr, &as_ipv6(b).sin6_addr, sizeof(in6_addr)) == 0;
}

enum class Match { kNone, kShared, kLocals };

Match match(const tq_addrinfo* a, const tq_addrinfo* b) {
  if (any_pair(a, b, have_same_name) || any_pair(a, b, have_same_address)) return Match::kShared;
  return has_local(a) && has_local(b) ? Match::kLocals : Match::kNone;
}

int end_match(const char* function, Match found) {
  const int same = found == Match::kNone ? 0 : 1;
  if (TraceOn()) __Trace("%s: exiting with match == %d", function, same);
  return same;
}

int end_local(const char* function, bool local) {
  if (TraceOn()) __Trace("%s: exiting with is_local == %d", function, local ? 1 : 0);
  return local ? 1 : 0;
}

/// The addresses of `name`; null after a report, and `*err` is the reason.
AddressList resolve(const char* name, const char* function, int* err) {
  struct addrinfo hints = {};
  hints.ai_flags = AI_CANONNAME;
  tq_addrinfo* list = nullptr;
  *err = tq_getaddrinfo(name, nullptr, &hints, &list);
  if (*err != 0)
    report_error(-1, "%s: tq_getaddrinfo failed for host %s: %s", function, name,
                 ::gai_strerror(*err));
  return AddressList{list};
}

/// The number that `text` begins with, as far as it is a port.
unsigned parse_port(const char* text) {
  const ErrnoGuard keep;
  const long value = std::strtol(text, nullptr, 10);
  return value > 0 && value < 65536 ? static_cast<unsigned>(value) : 0;
}

}  // namespace

int NetSameHostByAddr(const tq_addrinfo* a, const tq_addrinfo* b) {
  const Match found = match(a, b);
  if (found == Match::kLocals && TraceOn()) __Trace("%s: matched as locals", __func__);
  return end_match(__func__, found);
}

int NetSameHostByName(const char* name1, const char* name2) {
  if (name1 == nullptr) return fail(-1, EINVAL, "%s: name1 is NULL", __func__);
  if (*name1 == '\0') return fail(-1, EINVAL, "%s: name1 is empty", __func__);
  if (name2 == nullptr) return fail(-1, EINVAL, "%s: name2 is NULL", __func__);
  if (*name2 == '\0') return fail(-1, EINVAL, "%s: name2 is empty", __func__);
  int err = 0;
  const AddressList first = resolve(name1, __func__, &err);
  const AddressList second = err == 0 ? resolve(name2, __func__, &err) : nullptr;
  if (err != 0) {
    if (TraceOn()) __Trace("%s: exiting unsuccessfully. error: %s", __func__, ::gai_strerror(err));
    return -1;
  }
  const Match found = match(first.get(), second.get());
  if (found == Match::kLocals && TraceOn())
    __Trace("%s: %s and %s matched as locals", __func__, name1, name2);
  return end_match(__func__, found);
}

int NetIsHostLocalByAddr(const tq_addrinfo* list) { return end_local(__func__, has_local(list)); }

int NetIsHostLocalByName(const char* name) {
  if (name == nullptr || *name == '\0')
    return fail(-1, EINVAL, "%s: name is %s", __func__, name == nullptr ? "NULL" : "empty");
  int err = 0;
  const AddressList list = resolve(name, __func__, &err);
  if (err != 0) {
    if (TraceOn()) __Trace("%s: exiting unsuccessfully", __func__);
    return -1;
  }
  return end_local(__func__, has_local(list.get()));
}

void NetExtractHostAndPort(const char* input, char* host, size_t hostlen, unsigned int* port) {
  if (port != nullptr) *port = 0;
  if (host != nullptr && hostlen != 0) *host = '\0';
  if (input == nullptr || host == nullptr)
    return static_cast<void>(fail(0, EINVAL, "%s: invalid NULL parameter", __func__));
  char work[kInputSize];
  kelstrcpy(work, input, sizeof work);
  work[std::strcspn(work, "/?")] = '\0';

  const char* name = work;
  unsigned number = 0;
  char* const colon = std::strrchr(work, ':');
  const bool only = colon != nullptr && std::strchr(work, ':') == colon;
  const bool bracketed = colon != nullptr && !only && colon[-1] == ']';
  if (only || bracketed) {
    number = parse_port(colon + 1);
    colon[bracketed ? -1 : 0] = '\0';
    if (bracketed && *name == '[') ++name;
  }
  kelstrcpy(host, name, hostlen);
  if (port != nullptr) *port = number;
  if (TraceOn())
    __Trace("%s: extracted host %s and port %u from input %s", __func__, name, number, input);
}

bool CanLookupHost(const char* input) {
  char host[kInputSize];
  NetExtractHostAndPort(input, host, sizeof host, nullptr);
  tq_addrinfo* list = nullptr;
  if (input == nullptr || tq_getaddrinfo(host, nullptr, nullptr, &list) != 0)
    return fail(false, -1, "%s: could not look up host %s", __func__, host);
  tq_freeaddrinfo(list);
  return true;
}
