// The accept loop beside bare ones: poll(2), accept4(2) and the same socket options, without and
// with the same name lookup. The peer is 127.0.0.1, whose name stands in /etc/hosts.
//
// "connection" is a whole connection, the client's part included; "service" the time between a peer
// in the queue and its socket.
#include <kel/logging.h>
#include <kel/net.h>

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>

namespace {

using Accept = int (*)(NetContext*);

int accept_barely(NetContext* service, sockaddr_in* peer) {
  pollfd entry = {*service->listenSockets, POLLIN, 0};
  if (poll(&entry, 1, -1) != 1) return -1;
  socklen_t size = sizeof *peer;
  const int sock = accept4(entry.fd, reinterpret_cast<sockaddr*>(peer), &size, SOCK_CLOEXEC);
  const int on = 1, idle = 210;
  const linger wait = {1, 5};
  setsockopt(sock, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
  setsockopt(sock, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle);
  setsockopt(sock, SOL_SOCKET, SO_LINGER, &wait, sizeof wait);
  return sock;
}

int accept_bare(NetContext* service) {
  sockaddr_in peer;
  return accept_barely(service, &peer);
}

int accept_and_look_up(NetContext* service) {
  sockaddr_in peer;
  const int sock = accept_barely(service, &peer);
  getnameinfo(reinterpret_cast<sockaddr*>(&peer), sizeof peer, service->remoteHost,
              sizeof service->remoteHost, nullptr, 0, NI_NAMEREQD);
  return sock;
}

/// `count` elements, the last of which holds the peer.
std::string ranges(int count) {
  std::string text;
  for (int i = 1; i < count; ++i)
    text += "10." + std::to_string(i / 256) + "." + std::to_string(i % 256) + ".0/24, ";
  return text + "127.0.0.0/8";
}

int connect_to(const sockaddr_in& address) {
  const int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  // Closing resets, so that no port is kept back for a while.
  const linger reset = {1, 0};
  setsockopt(sock, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  if (connect(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) abort();
  return sock;
}

void serve(benchmark::State& state, Accept accept_peer, int elements) {
  kelLogSet(nullptr, KEL_LOG_NONE, 0);
  int listening;
  if (NetBindAndListen("127.0.0.1", 0, &listening, nullptr) != 0) abort();
  sockaddr_in address;
  socklen_t size = sizeof address;
  getsockname(listening, reinterpret_cast<sockaddr*>(&address), &size);
  std::string allowed = ranges(elements);
  NetContext service = {};
  service.allowedPeers = allowed.data();
  service.listenSockets = &listening;
  service.socketCount = 1;
  const bool by_service = state.range(0) != 0;
  for (auto _ : state) {
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    const int client = connect_to(address);
    const auto queued = Clock::now();
    const int sock = accept_peer(&service);
    const auto accepted = Clock::now();
    if (sock < 0) abort();
    close(client);
    close(sock);
    const auto end = Clock::now();
    const std::chrono::duration<double> time = by_service ? accepted - queued : end - start;
    state.SetIterationTime(time.count());
  }
  close(listening);
}

const bool is_registered = [] {
  for (const int by_service : {0, 1}) {
    const std::string task = by_service ? "service" : "connection";
    const auto add = [&](const std::string& name, Accept accept_peer, int elements) {
      benchmark::RegisterBenchmark((task + name).c_str(), serve, accept_peer, elements)
          ->Arg(by_service)
          ->UseManualTime();
    };
    for (const int elements : {1, 10, 100, 1000}) {
      const std::string ranges = "/" + std::to_string(elements) + "_ranges";
      add(ranges + "/kel", NetWaitForRemote, elements);
      add(ranges + "/bare", accept_bare, 1);
      add(ranges + "/bare_and_lookup", accept_and_look_up, 1);
    }
  }
  return true;
}();

}  // namespace
