#include <kel/iprange.h>
#include <kel/net.h>

#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <future>
#include <thread>

#include "support/own_network.h"

namespace {

using namespace kel::testing;

constexpr const char* kHost = "203.0.113.7";

/// Two interfaces in one network, with the default route through the first, and one in another.
class Routes : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!network.allowed()) GTEST_SKIP() << "no network of our own, or no ip and python3";
    network.add("eth0", "10.0.0.1/24");
    network.add("eth1", "10.0.0.2/24");
    network.add("eth2", "10.9.0.1/24");
    network.ip("route add default via 10.0.0.254 dev eth0 metric 100");
    open_before = open_descriptors();
  }
  void TearDown() override { EXPECT_EQ(open_descriptors(), open_before); }

  /// The routes of a table as sorted lines, with what there is to say of each.
  std::string table(const std::string& which = "main") const {
    return network.ask("-d route show table " + which,
                       "*sorted(r.pop('dst') + str(r) for r in all if not r.update(flags=0))");
  }
  /// Where the traffic to `host` leaves.
  std::string way(const std::string& host) const {
    return network.ask("route get " + host, "r['dev'] + ' ' + r.get('gateway', '-') for r in all");
  }

  const OwnNetwork network = {};
  ReportCapture reports;
  size_t open_before = 0;
};

TEST_F(Routes, HostRouteIsAddedAndDeletedOnlyWhereItChangesTheWay) {
  const std::string before = table();
  for (const char* own : {"eth0", "eth0:1"}) EXPECT_EQ(NetAddRoute(kHost, nullptr, own), 0);
  EXPECT_EQ(NetDelRoute(kHost, nullptr, "eth1"), 0);
  EXPECT_EQ(table(), before);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(NetAddRoute(kHost, "10.0.0.2", "eth1"), 0);
  EXPECT_EQ(NetAddRoute("10.0.0.77", nullptr, "eth1"), 0);
  EXPECT_EQ(way(kHost) + way("10.0.0.77"), "eth1 10.0.0.254\neth1 -\n");
  for (const char* host : {kHost, "10.0.0.77"}) EXPECT_EQ(NetDelRoute(host, nullptr, "eth1"), 0);
  EXPECT_EQ(table(), before);

  for (const char* name : {"eth1567890123456", "eth7"})
    EXPECT_EQ(NetAddRoute(kHost, nullptr, name), -1);
  EXPECT_EQ(NetAddRoute("10.1", nullptr, "eth1"), -1);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(EINVAL, "get_best_route: Invalid argument."),
                          error(ENODEV, "route_ops: create socket Error, errno=19."),
                          error(EINVAL, "get_best_route: inet_pton(10.1) failed.")));
  EXPECT_EQ(NetDelRoute(kHost, nullptr, "eth0"), -1);
  EXPECT_EQ(errno, ESRCH) << "it leaves there, but by no route of its own";
  network.ip("route del default");
  EXPECT_EQ(NetAddRoute(kHost, nullptr, "eth1"), -1);
  EXPECT_EQ(errno, ENETUNREACH);
}

TEST_F(Routes, ResetMovesSharedDefaultsAndMakesOwnRoutesAnewAsTheyWere) {
  for (const char* route :
       {"198.51.100.0/24 dev eth1 src 10.0.0.2 metric 7 mtu 1400 proto 99",
        "198.18.0.0/24 nexthop via 10.0.0.8 dev eth0 nexthop via 10.0.0.9 dev eth1",
        "blackhole 198.19.0.0/24", "198.20.0.0/24 dev eth1 table 99", "198.21.0.0/24 via 10.0.0.9",
        "default via 10.9.0.254 dev eth2 metric 300"})
    network.ip(std::string("route add ") + route);
  std::string expected = table() + table("99");
  expected.replace(expected.find("eth0", expected.find("default")), 4, "eth1");
  EXPECT_EQ(way("10.0.0.77"), "eth0 -\n");
  EXPECT_EQ(NetSetRestoreRoute("10.0.0.2"), 0);
  EXPECT_EQ(table() + table("99"), expected);
  EXPECT_EQ(way("10.0.0.77"), "eth1 -\n") << "its own route is the first of its equals now";
  network.ip("addr add 10.0.0.3/24 dev eth2p");  // shares the network, but has no broadcast address
  for (const char* name : {"eth2p", "eth7"}) EXPECT_EQ(NetResetRoutingtable(name), 0);
  EXPECT_EQ(way("8.8.8.8"), "eth1 10.0.0.254\n");
  EXPECT_THAT(reports.take(), IsEmpty());
}

/// A host behind a router, which eth1 alone leads to. It closes its one peer.
class FarHost {
 public:
  explicit FarHost(const OwnNetwork& near) {
    std::promise<pid_t> there;
    std::promise<void> connected;
    std::promise<NetContext*> listening;
    thread_ = std::thread([&] {
      const OwnNetwork far;
      there.set_value(::gettid());
      connected.get_future().wait();
      for (const char* line : {"link set eth1p up", "addr add 10.0.0.254/24 dev eth1p",
                               "addr add 203.0.113.7/32 dev lo"})
        far.ip(line);
      NetContext* const service = NetSetupLocal(0);
      listening.set_value(service);
      ::close(::accept(service->listenSockets[0], nullptr, nullptr));
      NetClose(service);
      closed_.set_value();
      end_.get_future().wait();  // the interface goes with the network
    });
    near.ip("link set eth1p netns " + std::to_string(there.get_future().get()));
    connected.set_value();
    port_ = listening.get_future().get()->port;
  }
  ~FarHost() {
    end_.set_value();
    thread_.join();
  }
  /// Until nothing listens any more.
  void wait() { closed_.get_future().wait(); }
  std::string port() const { return std::to_string(port_); }

 private:
  std::promise<void> closed_;
  std::promise<void> end_;
  uint16_t port_ = 0;
  std::thread thread_;
};

TEST_F(Routes, ConnectionsFromAnInterfaceTakeAHostRouteThatAFailureTakesBack) {
  FarHost host(network);
  NetConnectOptions options = {};
  std::strcpy(options.localInterface, "10.0.0.2");
  std::strcpy(options.routeTarget, kHost);
  std::strcpy(options.routeInterfaceAddress, "10.0.0.2");
  std::strcpy(options.routeInterfaceName, "eth1");
  const auto connect = [&] {
    tq_addrinfo* list = nullptr;
    EXPECT_EQ(tq_getaddrinfo(kHost, host.port().c_str(), nullptr, &list), 0);
    const int sock = NetConnectByAddr(list, &options);
    const int code = errno;
    tq_freeaddrinfo(list);
    ::close(sock);
    return sock >= 0 ? 0 : code;
  };
  const std::string before = table();
  EXPECT_EQ(connect(), 0);
  EXPECT_EQ(way(kHost), "eth1 10.0.0.254\n");
  host.wait();
  EXPECT_EQ(connect(), ECONNREFUSED) << "it has gone, and the route still led there";
  EXPECT_EQ(table(), before);
}

using Receive = Hooked<"recvfrom", ssize_t(int, void*, size_t, int, sockaddr*, socklen_t*)>;
ssize_t (*tamper)(nlmsghdr* first, ssize_t size);  // with what the kernel sent

TEST_F(Routes, AnswersThatMakeNoSenseChangeNothing) {
  const Receive hook([](int fd, void* buf, size_t size, int flags, sockaddr* from, socklen_t* len) {
    return tamper(static_cast<nlmsghdr*>(buf), Receive::real(fd, buf, size, flags, from, len));
  });
  const std::pair<int, decltype(tamper)> cases[] = {
      {EMSGSIZE, [](nlmsghdr*, ssize_t) { return ssize_t{40000}; }},
      {EBADMSG, [](nlmsghdr*, ssize_t size) { return size - 3; }},
      {EAGAIN, [](nlmsghdr* first, ssize_t size) {  // a table that never keeps still
         return first->nlmsg_flags |= NLM_F_DUMP_INTR, size;
       }}};
  for (const auto& [code, how] : cases) {
    tamper = how;
    EXPECT_EQ(NetResetRoutingtable("eth1") + NetAddRoute(kHost, nullptr, "eth1"), -2);
    EXPECT_EQ(errno, code);
    EXPECT_EQ(reports.take().front(),
              error(code, "NetResetRoutingtable: Read of response from socket failed"));
  }
  EXPECT_EQ(way("10.0.0.77") + way(kHost), "eth0 -\neth0 10.0.0.254\n");
}

TEST_F(Routes, EveryStepCanFailAndLeavesADefaultRoute) {
  const auto reset = [&] {
    for (const char* route : {"flush table main", "add 10.0.0.0/24 dev eth0",
                              "add default via 10.0.0.254", "append 10.0.0.0/24 dev eth1"})
      network.ip(std::string("route ") + route);
    NetResetRoutingtable("eth1");
    EXPECT_THAT(way("8.8.8.8"), EndsWith("10.0.0.254\n"));
  };
  fail_each<"sendmsg", ssize_t(int, const msghdr*, int)>(ssize_t{-1}, EIO, reset);
  const auto unsent = [](const char* what) {
    return HasSubstr(std::string(" of ") + what + " to");
  };
  EXPECT_THAT(reports.take_texts(),
              ElementsAre(unsent("request"), unsent("gateway deletion message"),
                          unsent("deletion message"), unsent("route message")));
  fail_each<"ioctl", int(int, unsigned long, void*)>(-1, EIO, reset);
  EXPECT_THAT(reports.take_texts(),
              ElementsAre("_compare_net: ioctl SIOCGIFCONF failed",
                          "_compare_net: ioctl SIOCGIFBRDADDR failed, interface = eth1",
                          "_compare_net: ioctl SIOCGIFBRDADDR failed, interface = eth0",
                          "add_default_gateway: ioctl add default gateway, errno=5"));
  fail_each<"socket", int(int, int, int)>(-1, EMFILE, reset);
  fail_each<"realloc", void*(void*, size_t)>(static_cast<void*>(nullptr), ENOMEM, reset);
  EXPECT_THAT(reports.take_texts(), ElementsAre(EndsWith("Creation failed"),
                                                EndsWith("Creation failed"), EndsWith("memory")));
}

}  // namespace
