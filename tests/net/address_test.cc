// Resolution, the NAT proxy, and who is who.
#include <kel/address.h>

#include <thread>

#include "support/test.h"

namespace {

using namespace kel::testing;

using GetAddrInfo =
    Hooked<"getaddrinfo", int(const char*, const char*, const addrinfo*, addrinfo**)>;
using Sleep = Hooked<"sleep", unsigned(unsigned)>;
using Clock = Hooked<"clock_gettime", int(clockid_t, timespec*)>;
using Open = Hooked<"fopen", FILE*(const char*, const char*)>;

using List = std::unique_ptr<tq_addrinfo, decltype([](tq_addrinfo* l) { tq_freeaddrinfo(l); })>;
List resolve(const std::string& host, const char* port) {
  tq_addrinfo* list = nullptr;
  EXPECT_EQ(tq_getaddrinfo(host.c_str(), port, nullptr, &list), 0);
  return List(list);
}

int slept = 0, calls = 0;
std::atomic<time_t> passed = 0;  // seconds that the clock runs ahead
std::string config;

class Address : public ::testing::Test {
 protected:
  Address() { write_file(config = dir / "vq.conf", ""); }

  TempDir dir;
  ReportCapture reports;
  Open open{[](const char*, const char* mode) { return Open::real(config.c_str(), mode); }};
  Sleep sleep{[](unsigned) { return ++slept, 0u; }};
  Clock clock{[](clockid_t id, timespec* now) {
    const int result = Clock::real(id, now);
    return now->tv_sec += passed, result;
  }};
};

TEST_F(Address, TransientFailuresAreTriedAgainForAWhile) {
  tq_addrinfo* list = nullptr;
  const GetAddrInfo hook([](const char* h, const char* s, const addrinfo* a, addrinfo** r) {
    passed += ++calls > 3 ? 31 : 0;
    errno = EAGAIN;
    if (calls == 6) return EAI_SYSTEM;
    return calls < 6 ? EAI_AGAIN : GetAddrInfo::real(h, s, a, r);
  });
  EXPECT_EQ(tq_getaddrinfo("far", "7", nullptr, &list), EAI_AGAIN);
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(slept, 2);
  EXPECT_THAT(reports.take_texts(), ElementsAre(HasSubstr("try 1: "), HasSubstr("try 2: ")));
  EXPECT_EQ(tq_getaddrinfo("far", "7", nullptr, &list), EAI_AGAIN);
  EXPECT_EQ(calls, 5);
  EXPECT_THAT(reports.take_texts().back(), HasSubstr("EAI_AGAIN took too long for host far using"));
  EXPECT_EQ(resolve("127.0.0.1", "7")->family, AF_INET);
  EXPECT_EQ(calls, 7);
}

TEST_F(Address, TheProxyIsReadOnceInTwoMinutesAndNeedsBothSettings) {
  char host[256], port[10];
  std::filesystem::remove(config);
  EXPECT_FALSE(get_nat_qxproxy(host, sizeof host, port, sizeof port));
  write_file(config, "NAT_QXPROXY_HOST = alone");
  passed = 119;
  EXPECT_FALSE(get_nat_qxproxy(host, sizeof host, port, sizeof port));
  passed = 121;
  EXPECT_EQ(resolve("127.0.0.1", "1")->cvnetinfo, nullptr);
  EXPECT_THAT(reports.take_texts(),
              ElementsAre(HasSubstr("/vq.conf) open error "), HasSubstr("missed one of them.")));
  write_file(config, std::string(9000, 'y') +
                         "\n\t NAT_QXPROXY_HOST = old\r\nNAT_QXPROXY_HOST=\v relay=1 \nnone\n"
                         "NAT_QXPROXY_PORT\t=\t1080\f\nNAT_QXPROXY_PORT 1081\n");
  passed = 300;
  const List list = resolve(std::string(300, 'h'), "10082");
  EXPECT_EQ(list->cvnetinfo->desthost, std::string(255, 'h'));
  EXPECT_TRUE(get_nat_qxproxy(host, 4, port, sizeof port));
  EXPECT_STREQ(port, "1080");
  EXPECT_THAT(reports.take_texts(), Contains(HasSubstr("insufficient buffer")));

  const auto ask = [] {
    for (int k = 0; k < 100; ++k, passed += 60)
      EXPECT_STREQ(resolve("far", "7")->cvnetinfo->cvlinkhost, "relay=1");
  };
  std::thread other(ask), another(ask);
  other.join(), another.join();
}

TEST_F(Address, EveryAllocationOfAListCanFail) {
  const List list = resolve("127.0.0.1", "1");
  list->canonname = ::strdup("name");
  ASSERT_EQ(tq_getaddrinfo4cvnet("h", "1", "p", "2", &list->next), 0);
  const auto scenario = [&] {
    tq_addrinfo *copy = nullptr, *found = nullptr;
    const bool copied = tq_copyaddrinfo(list.get(), &copy) == 0;
    const bool resolved = tq_getaddrinfo("127.0.0.1", "1", nullptr, &found) == 0;
    EXPECT_TRUE(copied == (copy != nullptr) && resolved == (found != nullptr));
    tq_freeaddrinfo(copy), tq_freeaddrinfo(found);
  };
  EXPECT_EQ(fail_each_calloc(scenario), 3);
  EXPECT_EQ(fail_each_malloc(scenario), 3);
  EXPECT_EQ((fail_each<"strdup", char*(const char*)>(nullptr, ENOMEM, scenario)), 1);
}

TEST_F(Address, HostsAreTheSameByNameByAddressOrBecauseBothAreHere) {
  EXPECT_EQ(NetIsHostLocalByName("localhost"), 1);
  EXPECT_EQ(NetIsHostLocalByName("192.0.2.1"), 0);  // reserved for documentation
  EXPECT_EQ(NetSameHostByName("127.0.0.1", "127.0.0.2"), 1);
  EXPECT_EQ(NetSameHostByName("192.0.2.1", "127.0.0.1"), 0);
  EXPECT_EQ(NetSameHostByName("2001:db8::1", "2001:DB8:0::1"), 1);
  const List far = resolve("192.0.2.1", "1"), near = resolve("127.0.0.1", "1");
  far->canonname = ::strdup("Alias");
  near->canonname = ::strdup("aLIAS");
  EXPECT_EQ(NetSameHostByAddr(far.get(), near.get()), 1);
  EXPECT_THAT(reports.take(), IsEmpty());
  const GetAddrInfo hook([](auto...) { return EAI_FAIL; });
  EXPECT_FALSE(CanLookupHost("gone:7"));
  EXPECT_EQ(NetSameHostByName("gone", "lost"), -1);
  EXPECT_THAT(reports.take_texts().back(), HasSubstr("tq_getaddrinfo failed for host gone: "));
}

TEST_F(Address, HostAndPortAreToldApart) {
  const std::tuple<const char*, const char*, unsigned> rows[] = {
      {"server:10082", "server", 10082}, {"[fe80::1]:443", "fe80::1", 443},
      {"fe80::1", "fe80::1", 0},         {"host:70000/path", "host", 0},
      {"host:65535?q:1", "host", 65535}, {"host:-1", "host", 0},
      {"[fe80::1]", "[fe80::1]", 0},     {":80", "", 80}};
  char host[16];
  for (const auto& [input, expected, number] : rows) {
    unsigned port = 1;
    NetExtractHostAndPort(input, host, sizeof host, &port);
    EXPECT_STREQ(host, expected);
    EXPECT_EQ(port, number) << input;
  }
}

}  // namespace
