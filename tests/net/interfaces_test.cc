#include <kel/iprange.h>
#include <kel/library.h>

#include <set>

#include "net/own_network.h"
#include "support/refusals.h"

namespace {

using namespace kel::testing;

/// The names and addresses of a list, which is freed.
std::string lines_of(NetInterface** list) {
  std::string lines;
  for (NetInterface** i = list; list != nullptr && *i != nullptr; ++i) {
    char address[KEL_IPRANGE_TEXT_SIZE];
    EXPECT_EQ(NetGetIfaceAddr_r(*i, address, sizeof address), 0);
    lines += (*i)->name + ("\t" + std::string(address)) + '\n';
  }
  NetFreeIfaceList(list);
  return lines;
}

TEST(Interfaces, AgreeWithIpHoweverManyThereAre) {
  const OwnNetwork network;
  if (!network.allowed()) GTEST_SKIP() << "no network of our own, or no ip and python3";
  network.add("eth0", "10.1.0.1/24");
  network.ip("addr add 10.1.0.2/24 brd + label eth0:b dev eth0");
  network.ip("addr add fd00::1/64 dev eth0");
  std::string all;
  for (int count = 4; count <= 65; ++count) {
    network.ip("addr add 172.16." + std::to_string(count) + ".1/24 dev lo");
    if (count % 32 > 1 && count != 31) continue;  // there is room for 32, then for 64
    all = network.ask("-4 addr",
                      "a['label'] + '\\t' + a['local'] for i in all if i for a in "
                      "i['addr_info']");
    EXPECT_EQ(lines_of(NetGetIfaceList(nullptr)), all);
  }
  const TempDir dir;
  FILE* out = std::fopen((dir / "summary").c_str(), "w");
  OSTest(out);
  std::fclose(out);
  EXPECT_THAT(read_file(dir / "summary"),
              HasSubstr("\nSystem Network Interface List:\nName\tIP Address\n" + all + "Current"));
  EXPECT_EQ(lines_of(NetGetIfaceList("eth0:b")), "eth0:b\t10.1.0.2\n");
  EXPECT_EQ(lines_of(NetGetIfaceList("127.0.0.1")), "lo\t127.0.0.1\n");
  EXPECT_EQ(lines_of(NetGetIPAddrListFromIPRange("10.1.0.0/30, 10.0.0.0/8, 172.16.5.1")),
            "lo\t172.16.5.1\neth0\t10.1.0.1\neth0:b\t10.1.0.2\n");
  char ip[16], name[16];
  EXPECT_EQ(NetGetIFFromIPRange("10.1.0.2/32", ip, sizeof ip, name, sizeof name), 0);
  EXPECT_EQ(std::string(ip) + ' ' + name, "10.1.0.2 eth0:b");
  std::set<std::string> drawn;
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(NetGetRandomIPFromIPRange("10.0.0.0/8", ip, sizeof ip), 0);
    drawn.insert(ip);
  }
  EXPECT_EQ(drawn, (std::set<std::string>{"10.1.0.1", "10.1.0.2"}));

  ReportCapture reports;
  const size_t open_before = open_descriptors();
  const auto listed = [&] {
    errno = 0;
    const bool none = lines_of(NetGetIPAddrListFromIPRange("10.0.0.0/8")).empty();
    EXPECT_EQ(none, errno != 0);
  };
  EXPECT_EQ(fail_each_calloc(listed), 4);
  EXPECT_THAT(reports.take(), Each(::testing::Field(&Report::code, 140)));
  fail_each<"socket", int(int, int, int)>(-1, EMFILE, listed);
  fail_each<"ioctl", int(int, unsigned long, void*)>(-1, EPERM, listed);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(EMFILE, "NetGetIPAddrList: could not create socket"),
                          error(EPERM, "NetGetIPAddrList: could not list the interfaces"),
                          error(EPERM, "NetGetIPAddrList: could not list the interfaces"),
                          error(EPERM, "NetGetIPAddrList: could not list the interfaces")));
  EXPECT_EQ(open_descriptors(), open_before);
  const auto pick = [&](const char* text) {
    return [=, &ip, &name] { return NetGetIFFromIPRange(text, ip, sizeof ip, name, 16) == -1; };
  };
  const std::string choice = "NetGetIFFromIPRange: ";
  expect_refused(
      reports,
      {{ENOENT, "", [] { return NetGetIfaceList("eth7") == nullptr; }},
       {EINVAL, choice + "no single host: 10.1.0.1/31", pick("10.1.0.1/31")},
       {EADDRNOTAVAIL, choice + "no local interface has the address 9.9.9.9", pick("9.9.9.9")},
       {ENOENT, "NetGetRandomIPFromIPRange: Get random ip address failed.9.0.0.0/8",
        [&] { return NetGetRandomIPFromIPRange("9.0.0.0/8", ip, sizeof ip) == -1; }}});
}

}  // namespace
