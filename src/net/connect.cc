// Connections to address lists: from a local interface, over a host route, or through a relay.
#include "net/connect.h"

#include <kel/library.h>
#include <kel/logging.h>
#include <kel/strings.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "internal/handles.h"
#include "internal/report.h"
#include "net/resolve.h"
#include "net/wait.h"

using namespace kel::internal;

namespace {

constexpr char kName[] = "NetConnectByAddr";
constexpr int kFatalId = 92;
constexpr unsigned kChunkPort = 10082;
constexpr size_t kAttemptedSize = 2049;

/// A socket address as numbers.
class AddressText {
 public:
  explicit AddressText(const struct sockaddr* address) {
    if (get_ip_str(address, text_, sizeof text_) == nullptr)
      std::strcpy(text_, "<unknown address>");
  }
  const char* get() const { return text_; }

 private:
  char text_[INET6_ADDRSTRLEN + 1];
};

unsigned port_of(const struct sockaddr* address) {
  static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));
  return ntohs(reinterpret_cast<const sockaddr_in*>(address)->sin_port);
}

/// What went wrong on the way to a host.
class Failures {
 public:
  /// Notes what kept an attempt from being made.
  void note_obstacle(int error) {
    if (error_ == 0) error_ = error;
  }
  void add(const char* address, unsigned port, int error) {
    if (error != ENETUNREACH || error_ == 0) error_ = error;
    if (attempted_[0] == '\0') port_ = port;
    char item[sizeof cvnetinfo::cvlinkhost + 1];
    std::snprintf(item, sizeof item, "%s ", address);
    kelstrcat(attempted_, item, sizeof attempted_);
  }

  /// Reports what there was; -1 with the error in errno.
  int report() const {
    // A list may have had nothing to connect to.
    const int error = error_ == 0 ? EADDRNOTAVAIL : error_;
    errno = error;
    const char* const text = std::strerror(error);
    report_error(-1, "%s: Failed to connect to host: %s (%d)", kName, text, error);
    if (attempted_[0] != '\0')
      kelSetFatalError(kName, kFatalId,
                       "Failed to connect to %s on port %d using the following interface(s): [ %s "
                       "] (%s) Ensure storage server services are running and operational. ",
                       port_ == kChunkPort ? "chunkd" : "vaultd", static_cast<int>(port_),
                       attempted_, text);
    return fail_quietly(-1, error);
  }

 private:
  int error_ = 0;
  unsigned port_ = 0;
  char attempted_[kAttemptedSize] = "";
};

/// One connection to `remote` from `local`, or from anywhere when that is null.
class Attempt {
 public:
  Attempt(const tq_addrinfo& remote, const tq_addrinfo* local, const NetConnectOptions& options)
      : remote_(remote), local_(local), options_(options) {}

  bool bind(int sock) const {
    if (local_ == nullptr) return true;
    const AddressText text(local_->addr);
    if (::bind(sock, local_->addr, local_->addrlen) == 0) {
      InfoA(-1, "%s: bind to local interface %s successful", kName, text.get());
      return true;
    }
    constexpr char kFormat[] = "%s: Could not bind to local %s: bind failed (%s)";
    if (TraceOn()) __Trace(kFormat, kName, text.get(), std::strerror(errno));
    WarningA(-1, kFormat, kName, text.get(), std::strerror(errno));
    return false;
  }

  bool connect(int sock) const {
    if (has_route())
      NetAddRoute(options_.routeTarget, options_.routeInterfaceAddress,
                  options_.routeInterfaceName);
    if (connect_whole(sock, remote_.addr, remote_.addrlen) == 0) {
      trace_success(sock);
      return true;
    }
    const ErrnoGuard keep;
    if (TraceOn())
      __Trace("%s: Unable to connect to interface %s: %s (%i)", kName,
              AddressText(remote_.addr).get(), std::strerror(errno), errno);
    if (local_ != nullptr && has_route())
      NetDelRoute(options_.routeTarget, options_.routeInterfaceAddress,
                  options_.routeInterfaceName);
    return false;
  }

 private:
  bool has_route() const {
    return options_.routeInterfaceAddress[0] != '\0' && options_.routeInterfaceName[0] != '\0';
  }
  void trace_success(int sock) const {
    if (!TraceOn()) return;
    sockaddr_storage local = {};
    socklen_t size = sizeof local;
    ::getsockname(sock, reinterpret_cast<struct sockaddr*>(&local), &size);
    __Trace("%s: Connected to remote interface %s using local interface %s", kName,
            AddressText(remote_.addr).get(),
            AddressText(reinterpret_cast<struct sockaddr*>(&local)).get());
  }

  const tq_addrinfo& remote_;
  const tq_addrinfo* local_;
  const NetConnectOptions& options_;
};

/// The addresses of the local interface; none when none is named, or after a report.
AddressList resolve_local(const char* name) {
  tq_addrinfo* list = nullptr;
  const int err = *name == '\0' ? 0 : resolve_here(name, nullptr, nullptr, &list);
  if (err != 0)
    report_error(-1, "%s: tq_getaddrinfo failed for local interface %s: %s", kName, name,
                 ::gai_strerror(err));
  return AddressList{list};
}

/// A connection to one entry, from each local address in turn; -1 when there is none.
int connect_to(const tq_addrinfo& remote, const NetConnectOptions& options, Failures* failures) {
  const AddressList locals = resolve_local(options.localInterface);
  const tq_addrinfo* local = locals.get();
  do {
    UniqueFd sock(new_client_socket(remote.family, options));
    if (!sock) {
      failures->note_obstacle(errno);
      InfoA(-1, "%s: socket() returned error", kName);
      return -1;
    }
    const Attempt attempt(remote, local, options);
    if (!attempt.bind(sock.get()))
      failures->note_obstacle(errno);
    else if (attempt.connect(sock.get()))
      return sock.release();
    else
      failures->add(AddressText(remote.addr).get(), port_of(remote.addr), errno);
    if (local != nullptr) local = local->next;
  } while (local != nullptr);
  return -1;
}

int connect_to_relay(const cvnetinfo& relay, const NetConnectOptions& options, Failures* failures) {
  const int sock = connect_through_relay(relay, options);
  if (sock == -1) {
    const int error = errno;
    failures->add(relay.cvlinkhost, destination_port(relay), error);
  }
  return sock;
}

}  // namespace

int kel::internal::new_client_socket(int family, const NetConnectOptions& options) {
  const int sock = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (sock != -1)
    NetSetSocketOptions(sock, options.flags, options.sendBuffer, options.receiveBuffer);
  return sock;
}

int kel::internal::connect_whole(int sock, const struct sockaddr* address, socklen_t size) {
  if (::connect(sock, address, size) == 0) return 0;
  if (errno != EINTR) return -1;
  // The attempt goes on; calling again would only tell that.
  short happened;
  if (poll_one(sock, POLLOUT, -1, &happened) == -1) return -1;
  int error = 0;
  socklen_t length = sizeof error;
  if (::getsockopt(sock, SOL_SOCKET, SO_ERROR, &error, &length) != 0) return -1;
  return error == 0 ? 0 : fail_quietly(-1, error);
}

int NetConnectByAddr(const tq_addrinfo* addrs, const NetConnectOptions* opts) {
  if (addrs == nullptr) {
    errno = EINVAL;
    return fail(-1, -1, "%s: Invalid argument, addr is NULL", kName);
  }
  static constexpr NetConnectOptions kPlain = {};
  const NetConnectOptions& options = opts == nullptr ? kPlain : *opts;
  Failures failures;
  for (; addrs != nullptr; addrs = addrs->next) {
    int sock = -1;
    if (addrs->cvnetinfo != nullptr)
      sock = connect_to_relay(*addrs->cvnetinfo, options, &failures);
    else if (addrs->addr != nullptr)
      sock = connect_to(*addrs, options, &failures);
    if (sock != -1) return sock;
  }
  return failures.report();
}
