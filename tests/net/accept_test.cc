// The accept loop with real peers, which stand in the queue before they are waited for.
#include <kel/net.h>

#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <deque>
#include <thread>

#include "support/test.h"

namespace {

using namespace kel::testing;
using namespace std::string_literals;

using Clock = Hooked<"clock_gettime", int(clockid_t, timespec*)>;
using Poll = Hooked<"poll", int(pollfd*, nfds_t, int)>;
using Lookup =
    Hooked<"getnameinfo", int(const sockaddr*, socklen_t, char*, socklen_t, char*, socklen_t, int)>;

std::vector<int> limits;  // of waits
long added_seconds, lookup_seconds, lookups;
int lookup_result;
std::string lookup_name;

int count_lookup(const sockaddr*, socklen_t, char* name, socklen_t size, char*, socklen_t, int) {
  ++lookups;
  added_seconds += lookup_seconds;
  ::strncpy(name, lookup_name.c_str(), size);
  return lookup_result;
}
int shift_clock(clockid_t id, timespec* now) {
  const int result = Clock::real(id, now);
  now->tv_sec += added_seconds;
  return result;
}

/// A client's end.
class Client {
 public:
  explicit Client(const NetContext& service, const char* from = "127.0.0.1") {
    addrinfo numeric = {AI_NUMERICHOST, 0, SOCK_STREAM, 0, 0, nullptr, nullptr, nullptr}, *found;
    EXPECT_EQ(::getaddrinfo(from, nullptr, &numeric, &found), 0);
    fd = ::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(::bind(fd, found->ai_addr, found->ai_addrlen), 0);
    in_port_t& number = reinterpret_cast<sockaddr_in*>(found->ai_addr)->sin_port;
    number = htons(service.port);
    EXPECT_EQ(::connect(fd, found->ai_addr, found->ai_addrlen), 0) << std::strerror(errno);
    EXPECT_EQ(::getsockname(fd, found->ai_addr, &found->ai_addrlen), 0);
    port = ntohs(number);
    ::freeaddrinfo(found);
  }
  ~Client() { ::close(fd); }
  /// Everything that the service says, up to its end.
  std::string read() const {
    char text[100];
    return {text, static_cast<size_t>(std::max<ssize_t>(::recv(fd, text, 100, MSG_WAITALL), 0))};
  }
  /// Goes without a farewell.
  void vanish() {
    const linger reset = {1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    ::shutdown(fd, SHUT_WR);
    ::close(std::exchange(fd, -1));
  }
  int fd;
  uint16_t port;
};

template <class Value = int>
Value option(int sock, int level, int name) {
  Value value{};
  socklen_t size = sizeof value;
  EXPECT_EQ(::getsockopt(sock, level, name, &value, &size), 0);
  return value;
}

class AcceptLoop : public ::testing::Test {
 protected:
  AcceptLoop() {
    added_seconds = lookup_seconds = lookups = lookup_result = 0;
    lookup_name = "peer.example";
    service_->cacheClearInterval = 3600;
  }
  ~AcceptLoop() override { NetClose(service_); }
  void allow(const char* range) {
    std::free(service_->allowedPeers);
    service_->allowedPeers = ::strdup(range);
  }
  /// 0 when a peer comes in, which is then closed; else the error.
  int serve() {
    if (NetWaitForRemote(service_) == -1) return errno;
    return ::close(std::exchange(service_->connection, -1));
  }
  /// The name of a peer, and whether that took a lookup.
  std::pair<std::string, bool> name_next() {
    const Client client(*service_);
    const long before = lookups;
    EXPECT_EQ(serve(), 0);
    return {service_->remoteHost, lookups != before};
  }

  ReportCapture reports_;
  NetContext* service_ = NetSetupLocal(0);
  const Lookup lookup_{count_lookup};
  const Clock clock_{shift_clock};
};

TEST_F(AcceptLoop, HandsOutPeersWithNamePortAndOptions) {
  const bool is_for_both = option(*service_->listenSockets, SOL_SOCKET, SO_DOMAIN) == AF_INET6;
  for (const char* from : {"127.0.0.1", "::1"}) {
    if (from == "::1"s && !is_for_both) GTEST_SKIP() << "no IPv6 here";
    allow(from == "::1"s ? "10.0.0.0/8" : "127.0.0.1");
    const Client client(*service_, from);
    const int sock = NetWaitForRemote(service_);
    EXPECT_EQ(service_->connection, sock);
    EXPECT_EQ(service_->remoteHost, lookup_name);
    EXPECT_EQ(service_->remotePort, client.port);
    EXPECT_EQ(option(sock, SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(option(sock, IPPROTO_TCP, TCP_KEEPIDLE), 210);
    EXPECT_EQ(option<linger>(sock, SOL_SOCKET, SO_LINGER).l_linger, 5);
    EXPECT_EQ(::fcntl(sock, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(::fcntl(sock, F_GETFL) & O_NONBLOCK, 0);
    ::close(std::exchange(service_->connection, -1));
  }
}

TEST_F(AcceptLoop, SendsAwayWhoIsOutsideTheRangeOrLate) {
  for (const char* range : {"127.0.0.2,nonsense", "10.0.0.0/8,127.0.0.2"}) {
    allow(range);
    Client vanished(*service_);
    vanished.vanish();
    const Client outside(*service_), inside(*service_, "127.0.0.2");
    EXPECT_EQ(::send(outside.fd, "HELLO", 5, 0), 5);
    EXPECT_EQ(serve(), 0);
    EXPECT_EQ(service_->remotePort, inside.port);
    EXPECT_EQ(outside.read(), "ABRT  Access Denied\n");
    EXPECT_THAT(reports_.take_texts(),
                Contains("NetWaitForRemote: Denied connection from 127.0.0.1, remote port " +
                         std::to_string(outside.port)));
  }
  service_->shuttingDown = 1;
  const Client outside(*service_), late(*service_, "127.0.0.2");
  EXPECT_EQ(serve(), ESHUTDOWN);
  EXPECT_EQ(service_->connection, -1);
  EXPECT_EQ(outside.read(), "ABRT  Access Denied\n");
  EXPECT_EQ(late.read(), "BYE  Service Shutting Down, try again later\n");
}

TEST_F(AcceptLoop, EndsWhenTheCallbackOrAFailureSaysSo) {
  int expiries = 0;
  service_->timeout = 5;
  service_->idleData = &expiries;
  service_->idleCallback = [](void* count) { return ++*static_cast<int*>(count) == 3 ? -1 : 0; };
  {
    const Poll hook([](pollfd*, nfds_t, int limit) { return limits.push_back(limit), 0; });
    EXPECT_EQ(serve(), ECANCELED);
    EXPECT_THAT(limits, ElementsAre(5000, 5000, 5000));
  }
  service_->timeout = 0;
  for (const auto& [error, result] : {std::pair(EINTR, 0), {EAGAIN, 0}, {EPROTO, EPROTO}}) {
    const Client client(*service_);
    const Fault<"accept4", int(int, sockaddr*, socklen_t*, int)> fault(1, -1, error);
    EXPECT_EQ(serve(), result);
  }
  const Client client(*service_);
  EXPECT_EQ(fail_each_calloc([&] { EXPECT_THAT(serve(), ::testing::AnyOf(0, ENOMEM)); }), 1);
  ::close(std::exchange(*service_->listenSockets, 1000));
  EXPECT_EQ(serve(), EBADF);
}

TEST_F(AcceptLoop, RemembersNamesOnceALookupWasSlow) {
  EXPECT_EQ(name_next(), std::pair("peer.example"s, true));
  lookup_seconds = 4;
  EXPECT_EQ(name_next(), std::pair("peer.example"s, true));
  EXPECT_THAT(reports_.take_texts(), Contains(HasSubstr("DNS issue. It took 4.0")));
  lookup_name = std::string(300, 'n');
  EXPECT_EQ(name_next(), std::pair("peer.example"s, false));
  added_seconds += 3601;
  EXPECT_EQ(name_next(), std::pair(std::string(256, 'n'), true));
  service_->cacheClearInterval = 0;
  lookup_result = EAI_AGAIN;  // a failure that was slow is remembered too
  EXPECT_EQ(name_next(), std::pair("<unknown host>"s, true));
  service_->cacheClearInterval = 3600;
  EXPECT_EQ(name_next(), std::pair("<unknown host>"s, false));
  EXPECT_EQ(g_found_DNS_slow_count, 3U);

  lookup_seconds = lookup_result = 0;
  for (int i = 0; i < KEL_NET_CACHED_NAMES; ++i) g_DNS_Cache["128." + std::to_string(i)] = "";
  g_DNS_Cache.erase("127.0.0.1");
  EXPECT_TRUE(name_next().second);
  EXPECT_EQ(g_DNS_Cache.size(), size_t{KEL_NET_CACHED_NAMES});
  g_DNS_Cache.clear();
  const Hooked<"_Znwm", void*(size_t)> no_memory([](size_t) -> void* { throw std::bad_alloc(); });
  EXPECT_TRUE(name_next().second && name_next().second);
}

TEST_F(AcceptLoop, HoldsUnderTenThousandPeersAndAShutdownAmongTwoHundred) {
  allow("127.0.0.1");
  std::thread peers([&] {
    for (int i = 0; i < 10'000; ++i) {
      Client client(*service_, i % 3 == 1 ? "127.0.0.2" : "127.0.0.1");
      if (i % 5 == 0)
        client.vanish();
      else
        EXPECT_EQ(client.read(), i % 3 == 1 ? "ABRT  Access Denied\n" : "");
    }
  });
  while (lookups < 10'000) EXPECT_EQ(serve(), 0);
  peers.join();

  std::deque<Client> crowd;
  for (int i = 0; i < 200; ++i) crowd.emplace_back(*service_);
  for (int i = 0; i < 200; ++i) {
    service_->shuttingDown = i >= 100;
    EXPECT_EQ(serve(), i < 100 ? 0 : ESHUTDOWN);
    EXPECT_EQ(crowd[i].read().substr(0, 3), i < 100 ? "" : "BYE");
  }
}

TEST_F(AcceptLoop, WaitsForADescriptorWithoutRunningHot) {
  const Client client(*service_);
  rlimit saved;
  ::getrlimit(RLIMIT_NOFILE, &saved);
  const rlimit none = {static_cast<rlim_t>(client.fd) + 1, saved.rlim_max};
  ::setrlimit(RLIMIT_NOFILE, &none);
  const std::time_t start = ::time(nullptr);
  int calls = 0;
  for (; ::time(nullptr) < start + 2; ++calls) EXPECT_EQ(serve(), EMFILE);
  EXPECT_LT(calls, 25);
  ::setrlimit(RLIMIT_NOFILE, &saved);
  EXPECT_EQ(serve(), 0);
}

}  // namespace
