// Listening contexts: made for all addresses or for those in a range, and closed.
#include <kel/logging.h>
#include <kel/net.h>
#include <kel/strings.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <span>

#include "internal/handles.h"
#include "internal/report.h"

using namespace kel::internal;

namespace {

constexpr char kAnyHost[] = "0.0.0.0";

/// Lets the kernel answer ARP only on the interface that carries an address, now and after a start.
constexpr char kQuietArp[] =
    "if ! (grep 'net.ipv4.conf.all.arp_ignore=1' /etc/sysctl.conf );  then "
    "echo net.ipv4.conf.all.arp_ignore=1 >> /etc/sysctl.conf;  "
    "sysctl net.ipv4.conf.all.arp_ignore=1; fi; "
    "if ! (grep 'net.ipv4.conf.all.arp_announce=2' /etc/sysctl.conf ); then "
    "echo net.ipv4.conf.all.arp_announce=2 >> /etc/sysctl.conf;  "
    "sysctl net.ipv4.conf.all.arp_announce=2; fi;";

struct FreeInterfaces {
  void operator()(NetInterface** list) const noexcept { NetFreeIfaceList(list); }
};
using InterfaceList = std::unique_ptr<NetInterface*, FreeInterfaces>;

struct CloseContext {
  void operator()(NetContext* context) const noexcept { NetClose(context); }
};
using ContextPtr = std::unique_ptr<NetContext, CloseContext>;

/// The port that `sock` listens on; `asked` unless the system chose it.
uint16_t listening_port(int sock, unsigned asked) {
  sockaddr_in6 address = {};  // the port lies where sockaddr_in has it
  socklen_t size = sizeof address;
  if (asked != 0 || ::getsockname(sock, reinterpret_cast<sockaddr*>(&address), &size) != 0)
    return static_cast<uint16_t>(asked);
  return ntohs(address.sin6_port);
}

/// A context that owns the sockets and the records; null after a report.
NetContext* new_context(std::span<UniqueFd> sockets, InterfaceList interfaces, unsigned port,
                        const char* function) {
  ContextPtr context{static_cast<NetContext*>(std::calloc(1, sizeof(NetContext)))};
  if (context == nullptr)
    return fail_allocation<NetContext*>(nullptr, sizeof(NetContext), function);
  context->connection = -1;
  context->bindHost = ::strdup(kAnyHost);
  if (context->bindHost == nullptr)
    return fail_allocation<NetContext*>(nullptr, sizeof kAnyHost, function);
  const size_t size = sockets.size() * sizeof(int);
  context->listenSockets = static_cast<int*>(std::malloc(size));
  if (context->listenSockets == nullptr)
    return fail_allocation<NetContext*>(nullptr, size, function);

  context->port = listening_port(sockets.front().get(), port);
  context->highestDescriptor = -1;
  for (UniqueFd& sock : sockets) {
    context->highestDescriptor = std::max(context->highestDescriptor, sock.get());
    context->listenSockets[context->socketCount++] = sock.release();
  }
  context->interfaces = interfaces.release();
  while (context->interfaces[context->interfaceCount] != nullptr) ++context->interfaceCount;
  return context.release();
}

/// Those of `sockets` that are open, moved to the front.
std::span<UniqueFd> open_ones(std::span<UniqueFd> sockets) {
  const auto closed = std::partition(sockets.begin(), sockets.end(),
                                     [](const UniqueFd& sock) { return bool{sock}; });
  return {sockets.begin(), closed};
}

}  // namespace

NetContext* NetSetupLocal(unsigned int port) {
  int a, b;
  if (NetBindAndListen(nullptr, port, &a, &b) != 0)
    return fail<NetContext*>(nullptr, -1,
                             "%s: NetBindAndListen returned error, unable to bind to localhost:%d",
                             __func__, static_cast<int>(port));
  UniqueFd sockets[] = {UniqueFd(a), UniqueFd(b)};
  InterfaceList interfaces{iflist_create(1)};
  if (interfaces == nullptr)
    return fail_allocation<NetContext*>(nullptr, sizeof(NetInterface), __func__);
  NetInterface& all = **interfaces;
  kelstrcpy(all.name, "noiprange", sizeof all.name);
  kelstrcpy(all.address, kAnyHost, sizeof all.address);
  return new_context(open_ones(sockets), std::move(interfaces), port, __func__);
}

NetContext* NetSetupFromIPRange(const char* iprange, unsigned int port) {
  if (iprange == nullptr || *iprange == '\0') return nullptr;
  InterfaceList interfaces{NetGetIPAddrListFromIPRange(iprange)};
  if (interfaces == nullptr) return nullptr;
  int a;
  if (NetBindAndListen(nullptr, port, &a, nullptr) != 0)
    return fail<NetContext*>(nullptr, -1,
                             "%s: NetBindAndListen returned error, unable to bind to localhost:%d",
                             __func__, static_cast<int>(port));
  UniqueFd sockets[] = {UniqueFd(a)};
  NetContext* context = new_context(sockets, std::move(interfaces), port, __func__);
  if (context == nullptr) return nullptr;
  const ErrnoGuard keep;
  const int status = std::system(kQuietArp);
  if (TraceOn()) __Trace("%s: sysctl exited with %d", __func__, status);
  return context;
}

NetContext* NetSetup(const char* iprange, unsigned int port) {
  NetContext* context = NetSetupFromIPRange(iprange, port);
  return context != nullptr ? context : NetSetupLocal(port);
}

void NetClose(NetContext* ctx) {
  if (ctx == nullptr)
    return static_cast<void>(fail(0, EINVAL, "%s: invalid NULL parameter", __func__));
  const ErrnoGuard keep;
  for (int i = 0; i < ctx->socketCount; ++i) const UniqueFd listening(ctx->listenSockets[i]);
  const UniqueFd connection(ctx->connection);
  std::free(ctx->listenSockets);
  std::free(ctx->bindHost);
  std::free(ctx->allowedPeers);
  NetFreeIfaceList(ctx->interfaces);
  std::free(ctx);
}

int NetStart(void) { return 0; }
void NetStop(void) {}
