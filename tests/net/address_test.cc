// Resolution, the NAT proxy, and who is who.
#include <kel/address.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

#include <thread>

#include "support/refusals.h"
#include "support/test.h"

namespace {

using namespace kel::testing;

using GetAddrInfo =
    Hooked<"getaddrinfo", int(const char*, const char*, const addrinfo*, addrinfo**)>;
using Sleep = Hooked<"sleep", unsigned(unsigned)>;
using Clock = Hooked<"clock_gettime", int(clockid_t, timespec*)>;
using Open = Hooked<"fopen", FILE*(const char*, const char*)>;

struct FreeList {
  void operator()(tq_addrinfo* list) const { tq_freeaddrinfo(list); }
};
using List = std::unique_ptr<tq_addrinfo, FreeList>;

List resolve(const char* host, const char* service = nullptr) {
  addrinfo hints = {};
  hints.ai_flags = AI_CANONNAME;
  tq_addrinfo* list = nullptr;
  EXPECT_EQ(tq_getaddrinfo(host, service, &hints, &list), 0);
  return List(list);
}

int slept = 0;
int calls = 0;
time_t passed = 0;  // seconds that the clock runs ahead
std::string config;

class Address : public ::testing::Test {
 protected:
  Address() {
    config = dir / "vq.conf";
    slept = calls = 0;
    passed = 0;
  }

  TempDir dir;
  ReportCapture reports;
  Open open{[](const char*, const char* mode) { return Open::real(config.c_str(), mode); }};
  Sleep sleep{[](unsigned) { return ++slept, 0u; }};
  Clock clock{[](clockid_t id, timespec* now) {
    const int result = Clock::real(id, now);
    now->tv_sec += passed;
    return result;
  }};
};

TEST_F(Address, WhatTheResolverFoundIsCopiedWhole) {
  write_file(config, "");
  const List list = resolve("127.0.0.1", "10082");
  EXPECT_EQ(list->family, AF_INET);
  EXPECT_EQ(list->socktype, SOCK_STREAM);
  EXPECT_STREQ(list->canonname, "127.0.0.1");
  ASSERT_EQ(list->addrlen, sizeof(sockaddr_in));
  EXPECT_EQ(reinterpret_cast<sockaddr_in*>(list->addr)->sin_port, htons(10082));
  EXPECT_EQ(list->next, nullptr);
  tq_addrinfo* none = list.get();
  EXPECT_EQ(tq_getaddrinfo("localhost", "http", nullptr, &none), EAI_NONAME);  // no port number
  EXPECT_EQ(none, nullptr);
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST_F(Address, TransientFailuresAreTriedAgainForAWhile) {
  write_file(config, "");
  tq_addrinfo* list = nullptr;
  const std::string text = std::string(": ") + gai_strerror(EAI_AGAIN);
  const auto later = [&](const char* host, int n) {
    return error(-1, std::string("tq_getaddrinfo: getaddrinfo EAI_AGAIN for host ") + host +
                         " using service 7 try " + std::to_string(n) + text);
  };
  {
    const GetAddrInfo hook([](auto...) { return ++calls, EAI_AGAIN; });
    EXPECT_EQ(tq_getaddrinfo("far", "7", nullptr, &list), EAI_AGAIN);
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(slept, 2);
    EXPECT_THAT(reports.take(), ElementsAre(later("far", 1), later("far", 2)));
  }
  {
    const GetAddrInfo hook([](auto...) { return passed += 31, ++calls, EAI_AGAIN; });
    EXPECT_EQ(tq_getaddrinfo(nullptr, "7", nullptr, &list), EAI_AGAIN);
    EXPECT_EQ(calls, 5);
    EXPECT_THAT(reports.take(),
                ElementsAre(later("NULL", 1), error(-1,
                                                    "tq_getaddrinfo: EAI_AGAIN took too long "
                                                    "for host NULL using service 7" +
                                                        text)));
  }
  const GetAddrInfo hook([](const char* h, const char* s, const addrinfo* a, addrinfo** r) {
    errno = EAGAIN;
    return ++calls == 6 ? EAI_SYSTEM : GetAddrInfo::real(h, s, a, r);
  });
  EXPECT_EQ(tq_getaddrinfo("127.0.0.1", "7", nullptr, &list), 0);
  EXPECT_EQ(calls, 7);
  tq_freeaddrinfo(list);
}

TEST_F(Address, TheProxyIsReadOnceInTwoMinutesAndNeedsBothSettings) {
  char host[256], port[10];
  const std::string path = "/usr/quorv/brelvox/vq.conf";
  EXPECT_FALSE(get_nat_qxproxy(host, sizeof host, port, sizeof port));
  EXPECT_THAT(reports.take(),
              ElementsAre(error(-1, "get_nat_qxproxy: file (" + path + ") open error ")));
  write_file(config, "NAT_QXPROXY_HOST = alone");
  passed = 119;
  EXPECT_FALSE(get_nat_qxproxy(host, sizeof host, port, sizeof port));
  EXPECT_THAT(reports.take(), IsEmpty());
  passed = 121;
  EXPECT_EQ(resolve("127.0.0.1")->cvnetinfo, nullptr);
  EXPECT_THAT(reports.take_texts(), ElementsAre("get_nat_qxproxy: failed to get NAT_QXPROXY_HOST "
                                                "and NAT_QXPROXY_PORT, missed one of them."));

  write_file(config, "x = 1\n" + std::string(9000, 'y') +
                         "\n\t NAT_QXPROXY_HOST = old\r\nNAT_QXPROXY_HOST=\v relay=1 \nnone\n"
                         "NAT_QXPROXY_PORT\t=\t1080\f\nNAT_QXPROXY_PORT 1081\n");
  passed = 300;
  const List list = resolve(std::string(300, 'h').c_str(), "10082");
  ASSERT_NE(list->cvnetinfo, nullptr);
  EXPECT_EQ(list->addr, nullptr);
  EXPECT_EQ(list->cvnetinfo->desthost, std::string(255, 'h'));
  EXPECT_STREQ(list->cvnetinfo->destport, "10082");
  tq_addrinfo* copy = nullptr;
  ASSERT_EQ(tq_copyaddrinfo(list.get(), &copy), 0);
  EXPECT_STREQ(copy->cvnetinfo->cvlinkhost, "relay=1");
  EXPECT_STREQ(copy->cvnetinfo->cvlinkport, "1080");
  tq_freeaddrinfo(copy);
  EXPECT_TRUE(get_nat_qxproxy(host, 4, port, sizeof port));
  EXPECT_STREQ(host, "rel");
  EXPECT_THAT(reports.take_texts(), Contains(HasSubstr("insufficient buffer")));
}

TEST_F(Address, ThreadsAskForTheProxyWhileItChanges) {
  write_file(config, "NAT_QXPROXY_HOST = relay\nNAT_QXPROXY_PORT = 1080\n");
  const Clock ahead([](clockid_t, timespec* now) {
    static std::atomic<time_t> seconds = 0;
    now->tv_sec = seconds += 60;
    return 0;
  });
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([] {
      for (int k = 0; k < 200; ++k) {
        char host[256], port[10];
        ASSERT_TRUE(get_nat_qxproxy(host, sizeof host, port, sizeof port));
        ASSERT_STREQ(host, "relay");
        ASSERT_STREQ(port, "1080");
      }
    });
  for (std::thread& thread : threads) thread.join();
}

TEST_F(Address, EveryAllocationOfAListCanFail) {
  write_file(config, "");
  const List list = resolve("127.0.0.1", "1");
  list->next = resolve("127.0.0.2").release();
  ASSERT_EQ(tq_getaddrinfo4cvnet("h", "1", "p", "2", &list->next->next), 0);
  reports.take();
  const auto scenario = [&] {
    tq_addrinfo *copy = nullptr, *relay = nullptr, *found = nullptr;
    const bool whole = tq_copyaddrinfo(list.get(), &copy) == 0;
    EXPECT_EQ(copy != nullptr, whole);
    const int made = tq_getaddrinfo4cvnet("h", "1", "p", "2", &relay);
    const int got = tq_getaddrinfo("127.0.0.1", "1", nullptr, &found);
    const auto is_error = [](const Report& report) { return report.level == KEL_LOG_ERR; };
    EXPECT_EQ(whole && made == 0 && got == 0, std::ranges::none_of(reports.take(), is_error));
    for (tq_addrinfo* each : {copy, relay, found}) tq_freeaddrinfo(each);
  };
  EXPECT_EQ(fail_each_calloc(scenario), 6);
  EXPECT_EQ(fail_each_malloc(scenario), 4);
  EXPECT_EQ((fail_each<"strdup", char*(const char*)>(nullptr, ENOMEM, scenario)), 2);
}

TEST_F(Address, HostsAreTheSameByNameByAddressOrBecauseBothAreHere) {
  write_file(config, "");
  EXPECT_EQ(NetIsHostLocalByName("localhost"), 1);
  EXPECT_EQ(NetIsHostLocalByName("192.0.2.1"), 0);  // reserved for documentation
  EXPECT_EQ(NetSameHostByName("127.0.0.1", "127.0.0.2"), 1);
  EXPECT_EQ(NetSameHostByName("192.0.2.1", "192.0.2.1"), 1);
  EXPECT_EQ(NetSameHostByName("192.0.2.1", "192.0.2.2"), 0);
  EXPECT_EQ(NetSameHostByName("192.0.2.1", "127.0.0.1"), 0);
  EXPECT_EQ(NetSameHostByName("2001:db8::1", "2001:DB8:0::1"), 1);
  const List far = resolve("192.0.2.1"), near = resolve("127.0.0.1");
  EXPECT_EQ(NetSameHostByAddr(far.get(), near.get()), 0);
  std::strcpy(far->canonname, "Alias");
  std::strcpy(near->canonname, "aLIAS");
  EXPECT_EQ(NetSameHostByAddr(far.get(), near.get()), 1);
  EXPECT_EQ(NetSameHostByAddr(far.get(), nullptr), 0);
  EXPECT_TRUE(CanLookupHost("127.0.0.1:7/path"));
  EXPECT_THAT(reports.take(), IsEmpty());

  const GetAddrInfo hook([](auto...) { return EAI_FAIL; });
  EXPECT_FALSE(CanLookupHost("gone:7"));
  EXPECT_EQ(NetIsHostLocalByName("gone"), -1);
  EXPECT_EQ(NetSameHostByName("gone", "lost"), -1);
  const std::string text = std::string("gone: ") + gai_strerror(EAI_FAIL);
  EXPECT_THAT(reports.take_texts(),
              ElementsAre("CanLookupHost: could not look up host gone",
                          "NetIsHostLocalByName: tq_getaddrinfo failed for host " + text,
                          "NetSameHostByName: tq_getaddrinfo failed for host " + text));
  expect_refused(reports, {{EINVAL, "NetSameHostByName: name1 is NULL",
                            [] { return NetSameHostByName(nullptr, "a") == -1; }},
                           {EINVAL, "NetSameHostByName: name2 is empty",
                            [] { return NetSameHostByName("a", "") == -1; }},
                           {EINVAL, "tq_copyaddrinfo: invalid NULL parameter",
                            [] { return tq_copyaddrinfo(nullptr, nullptr) == -1; }},
                           {EINVAL, "tq_getaddrinfo: invalid NULL parameter", [] {
                              return tq_getaddrinfo("a", "1", nullptr, nullptr) == EAI_FAIL;
                            }}});
}

TEST_F(Address, HostAndPortAreToldApart) {
  struct Row {
    const char *input, *host;
    unsigned port;
  };
  for (const Row& row : {Row{"server:10082", "server", 10082},
                         {"[fe80::1]:443", "fe80::1", 443},
                         {"fe80::1", "fe80::1", 0},
                         {"host:70000/path", "host", 0},
                         {"host:65535?q:1", "host", 65535},
                         {"host:-1", "host", 0},
                         {"host/a:80", "host", 0},
                         {"[fe80::1]", "[fe80::1]", 0},
                         {":80", "", 80},
                         {"::", "::", 0},
                         {"", "", 0},
                         {"::1]:8x", "::1", 8}}) {
    char host[16];
    unsigned port = 1;
    NetExtractHostAndPort(row.input, host, sizeof host, &port);
    EXPECT_STREQ(host, row.host);
    EXPECT_EQ(port, row.port) << row.input;
  }
  EXPECT_THAT(reports.take(), IsEmpty());
  char host[8];
  NetExtractHostAndPort((std::string(5000, 'h') + ":80").c_str(), host, sizeof host, nullptr);
  EXPECT_STREQ(host, "hhhhhhh");
  EXPECT_EQ(reports.take().size(), 2);
}

}  // namespace
