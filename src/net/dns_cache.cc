// Names of peers. Lookups are remembered only once one of them was slow: until then every peer's
// name is a fresh one.
#include "net/dns_cache.h"

#include <kel/logging.h>
#include <kel/net.h>

#include <netdb.h>

#include <cstring>
#include <new>
#include <string>

#include "internal/report.h"

using namespace kel::internal;

std::map<std::string, std::string> g_DNS_Cache;
bool g_DNS_Cache_enabled = false;
unsigned int g_found_DNS_slow_count = 0;

namespace {

constexpr char kName[] = "NetWaitForRemote";
constexpr char kNameless[] = "<unknown host>";
constexpr double kSlow = 3.0;  // seconds
constexpr int kCode = 62;      // of reports

double last_clearing = precise_seconds();

void forget_when_due(unsigned interval) {
  const double now = precise_seconds();
  if (now - last_clearing <= interval) return;
  if (TraceOn()) __Trace("%s:.g_DNS_Cache %zu items will be clear up.", kName, g_DNS_Cache.size());
  g_DNS_Cache.clear();
  last_clearing = now;
}

/// Cuts the name to its room.
void store_name(const char* text, std::span<char> name) {
  const size_t length = ::strnlen(text, name.size() - 1);
  std::memcpy(name.data(), text, length);
  name[length] = '\0';
}

bool find_remembered(const char* address, std::span<char> name) {
  try {
    const auto found = g_DNS_Cache.find(address);
    if (found == g_DNS_Cache.end()) return false;
    store_name(found->second.c_str(), name);
    return true;
  } catch (const std::bad_alloc&) {
    return false;  // it is looked up instead
  }
}

/// Adds a name. In a full cache the neighbour in the order of addresses gives way, so that a
/// network of many callers drives out mostly its own.
void remember(const char* address, const char* name) {
  if (TraceOn()) __Trace("%s:.Adding DNS Cache Item, %s is mapped to %s", kName, address, name);
  try {
    const auto [added, is_new] = g_DNS_Cache.insert_or_assign(address, name);
    if (!is_new || g_DNS_Cache.size() <= KEL_NET_CACHED_NAMES) return;
    const auto next = std::next(added);
    g_DNS_Cache.erase(next != g_DNS_Cache.end() ? next : std::prev(added));
  } catch (const std::bad_alloc&) {
    fail_allocation(0, std::strlen(name), kName);
  }
}

/// False, after reports, when the peer has no name.
bool look_up(const Peer& peer, std::span<char> name) {
  char found[NI_MAXHOST];
  const int err = ::getnameinfo(reinterpret_cast<const sockaddr*>(&peer.socket_address), peer.size,
                                found, sizeof found, nullptr, 0, NI_NAMEREQD);
  if (err != 0) {
    store_name(kNameless, name);
    report_error(kCode, "%s: getnameinfo(): %s (err = %i)\n", kName, ::gai_strerror(err), err);
    InfoA(kCode, "%s: could not determine the hostname for %s by DNS", kName, peer.address);
    return false;
  }
  store_name(found, name);
  if (std::strlen(found) >= name.size())
    report_warning(kCode, "%s: remote hostname was truncated from %s to %s\n", kName, found,
                   name.data());
  if (TraceOn()) __Trace("%s: %s is mapped to %s", kName, peer.address, name.data());
  return true;
}

void report_slow_lookup(const Peer& peer, double seconds) {
  ++g_found_DNS_slow_count;
  report_warning(-1,
                 "%s: There might be DNS issue. It took %.3f seconds to resolve remote address "
                 "(%s, %u). %u times.",
                 kName, seconds, peer.address, peer.port, g_found_DNS_slow_count);
  report_warning(-1, "%s: PELK DNS Cache is.activated. It will help to fast DNS reverse lookup.",
                 kName);
}

}  // namespace

void kel::internal::find_peer_name(const Peer& peer, unsigned clear_interval,
                                   std::span<char> name) {
  forget_when_due(clear_interval);
  if (g_DNS_Cache_enabled && find_remembered(peer.address, name)) {
    InfoA(-1, "%s: PELK DNS Cache is.activated. %s is mapped to %s", kName, peer.address,
          name.data());
    return;
  }
  const double start = precise_seconds();
  const bool has_name = look_up(peer, name);
  const double seconds = precise_seconds() - start;
  const bool is_remembered = has_name && g_DNS_Cache_enabled;
  if (is_remembered) remember(peer.address, name.data());
  if (seconds <= kSlow) return;
  report_slow_lookup(peer, seconds);
  g_DNS_Cache_enabled = true;
  // A name server that does not answer costs its time once for each peer, not at each connection.
  if (!is_remembered) remember(peer.address, name.data());
}
