#include <kel/iprange.h>

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include "net/own_network.h"
#include "support/refusals.h"

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

  const OwnNetwork network;
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

  const auto add = [](const char* host, const char* name) {
    return [=] { return NetAddRoute(host, nullptr, name) == -1; };
  };
  expect_refused(reports,
                 {{EINVAL, "route_ops: invalid argument.", add(nullptr, "eth1")},
                  {EINVAL, "get_best_route: Invalid argument.", add(kHost, "eth1567890123456")},
                  {EINVAL, "get_best_route: inet_pton(10.1) failed.", add("10.1", "eth1")},
                  {ENODEV, "route_ops: create socket Error, errno=19.", add(kHost, "eth7")}});
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

using Receive = Hooked<"recvfrom", ssize_t(int, void*, size_t, int, sockaddr*, socklen_t*)>;
std::function<ssize_t(unsigned char*, ssize_t)> tamper;  // with what the kernel sent

TEST_F(Routes, AnswersThatMakeNoSenseChangeNothing) {
  const std::string before = table();
  const Receive hook([](int fd, void* buf, size_t size, int flags, sockaddr* from, socklen_t* len) {
    return tamper(static_cast<unsigned char*>(buf), Receive::real(fd, buf, size, flags, from, len));
  });
  const auto put = [](unsigned char* to, auto value) { std::memcpy(to, &value, sizeof value); };
  const std::pair<int, decltype(tamper)> cases[] = {
      {EBADMSG, [](unsigned char*, ssize_t size) { return size - 3; }},
      {EBADMSG, [&](unsigned char* data, ssize_t size) { return put(data, ~0U), size; }},
      {EMSGSIZE, [](unsigned char*, ssize_t) { return 40000; }},
      {ENOBUFS, [](unsigned char*, ssize_t) { return errno = ENOBUFS, -1; }}};
  for (const auto& [code, answer] : cases) {
    tamper = answer;
    EXPECT_EQ(NetResetRoutingtable("eth1") + NetAddRoute(kHost, nullptr, "eth1"), -2);
    EXPECT_THAT(
        reports.take(),
        ElementsAre(error(code, "NetResetRoutingtable: Read of response from socket failed"),
                    error(code, code == EBADMSG ? "read_nlsocket: Error in recieved packet"
                                                : "read_nlsocket: SOCK READ: "),
                    error(code, "get_best_route: read socket failed.")));
  }
  tamper = [&](unsigned char* data, ssize_t size) {  // the length of the first attribute
    return put(data + sizeof(nlmsghdr) + sizeof(rtmsg), uint16_t{3}), size;
  };
  EXPECT_EQ(NetAddRoute(kHost, nullptr, "eth1"), -1);
  tamper = [&](unsigned char* data, ssize_t size) {
    return put(data + offsetof(nlmsghdr, nlmsg_flags), uint16_t{NLM_F_MULTI | NLM_F_DUMP_INTR}),
           size;
  };
  EXPECT_EQ(NetResetRoutingtable("eth1"), -1) << "a table that never keeps still";
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(table(), before);
}

TEST_F(Routes, EveryStepCanFailAndLeavesADefaultRoute) {
  const auto reset = [&] {
    for (const char* route : {"flush table main", "add 10.0.0.0/24 dev eth0",
                              "add default via 10.0.0.254", "append 10.0.0.0/24 dev eth1"})
      network.ip(std::string("route ") + route);
    NetResetRoutingtable("eth1");
    EXPECT_THAT(way("8.8.8.8"), EndsWith("10.0.0.254\n"));
  };
  const std::string own = "NetResetRoutingtable: ";
  const auto unsent = [&](const char* what) {
    return own + "Write of " + what + " to socket failed";
  };
  fail_each<"sendmsg", ssize_t(int, const msghdr*, int)>(ssize_t{-1}, EIO, reset);
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
  EXPECT_THAT(reports.take_texts(),
              ElementsAre(own + "Socket Creation failed", own + "Socket Creation failed",
                          own + "could not allocate memory"));
}

}  // namespace
