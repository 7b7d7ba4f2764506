#include <kel/iprange.h>

#include <arpa/inet.h>

#include <bit>
#include <fstream>

#include "support/test.h"

namespace {

using namespace kel::testing;

TEST(RangeList, NamesWhatIsWrong) {
  ReportCapture reports;
  const auto refuses = [&](const std::string& text, int code, const char* why) {
    EXPECT_EQ(NetIsSingleIP(text.c_str()), -1);
    const std::vector<Report> all = reports.take();
    EXPECT_EQ(all.front(), error(code, why));
    EXPECT_EQ(all.back(), error(EINVAL, "NetIsSingleIP: Parse ip range string failed " + text));
  };
  refuses("1.2.3.4/-1", EINVAL, "getmasklen: no digit found");
  refuses("1.2.3.4/8x", EINVAL, "getmasklen: invalid input: 8x");
  refuses("1.2.3.4/33", EINVAL, "getmasklen: mask not 0-32 (33)");
  refuses("1.2.3.4,", EINVAL, "iprange_create: IP address format is invalid.");
  refuses("1.256.3.4/8", EINVAL, "iprange_create : could not convert ip address to address");
  refuses(
      "9.9.9.9,1.2.3.4         1", 69,
      "iprange_list_create: 9.9.9.9,1.2.3.4         1: IP Range format error: 1.2.3.4         1");
  int refused = 0;
  EXPECT_EQ(fail_each_malloc([&] { refused += NetIsSingleIP("10.1.2.3/16 , 1.2.3.4"); }), 5);
  EXPECT_EQ(refused, -5) << "and 0 when none failed";
  EXPECT_EQ(NetIsSingleIP("1.2.3.4/32") - NetIsSingleIP("1.2.3.4/31"), 1);
}

TEST(RangeCheck, NamesWhatIsWrongWhenAsked) {
  ReportCapture reports;
  const auto refuses = [&](const char* ranges, const char* ip, int code, const std::string& why) {
    errno = 0;
    for (const bool report : {false, true}) EXPECT_FALSE(NetCheckIPRange(ranges, ip, report));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_THAT(reports.take(), ElementsAre(error(code, "NetCheckIPRange: " + why)));
  };
  refuses("10.0.0.0/8", "10.1.256.3", 63, "bad IP address: 10.1.256.3");
  refuses("10.0.0.0/8", "10.1.2", 64, "incomplete IP address: 10.1.2");
  refuses("10.1 , 10.x/8 ,1", nullptr, 63, "bad IP address: 10.x/8");
  refuses("1.0/4294967304", nullptr, 65,
          "incorrect netmask value, must be between 0 and 32. Actual value: 1.0/2147483647");
  refuses("9, 10.8/12", nullptr, 67,
          "Incorrect IP range (field 2 must be a multiple of 16). Actual value: 9, 10.8/12");
  refuses("10/8", "11.0.0.1", 68, "Bad match: 11.0.0.1 outside 10.0.0.0/255.0.0.0");
  EXPECT_TRUE(NetCheckIPRange("", "nonsense", true));
}

/// Prints lines "RANGES;IP;ANSWER": the networks of the list form, the first of them that holds the
/// address, and the access form's answer.
constexpr char kPeer[] = R"(
import ipaddress, random
def network(element, access):
    a, slash, n = element.strip(' \t').partition('/')
    if slash and not n.isdigit(): raise ValueError    # a mask, which the module takes too
    fields = a.split('.')
    if access: a = '.'.join(fields + ['0'] * (4 - len(fields)))
    return ipaddress.ip_network(f'{a}/{n if slash else 8 * len(fields) if access else 32}', access)
def check(text, ip):
    try: return int(any(ip in network(e, True) for e in text.split(',')))
    except ValueError: return 0
def pick(*of, rarely=False): return '' if rarely and random.random() > .03 else random.choice(of)
def address(fields): return '.'.join([pick('10', '0')] + [pick(*'0000', '1', '128', '255') for _ in range(fields - 1)])
def element():
    text = pick('', ' ', '\t ') + address(pick(1, 2, 3, *[4] * 8, 5)) + pick('6', '.256', '.01', 'x', rarely=True)
    return text + pick('', f'/{random.randrange(34)}') + pick('/', 'x', ' 1', ',', rarely=True) + pick('', ' ')
random.seed(84)
for _ in range(20000):
    text, ip = ','.join(element() for _ in range(pick(1, 2, 3))), ipaddress.ip_address(address(4))
    try: found = [network(e, False) for e in text.split(',')]
    except ValueError: found = []
    print(text, ip, ' '.join(map(str, found + [n for n in found if ip in n][:1] + [check(text, ip)])), sep=';')
)";

std::string answer(const std::string& text, const std::string& ip) {
  std::string line;
  const auto tell = [&](const void* element) {
    const auto* range = static_cast<const iprange_t*>(element);
    if (range) line += range->text + ('/' + std::to_string(std::popcount(range->mask))) + ' ';
  };
  if (iprange_list_t* list = iprange_list_create(text.c_str())) {
    for (void* e = kelListFirst(list); e != nullptr; e = kelListNext(list)) tell(e);
    tell(iprange_list_lookup(list, ntohl(inet_addr(ip.c_str()))));
    iprange_list_destroy(list);
  }
  return line + (NetCheckIPRange(text.c_str(), ip.c_str(), false) ? '1' : '0');
}

TEST(Ranges, AgreeWithPythonOverRandomTextsAndAddresses) {
  const TempDir dir;
  write_file(dir / "peer", kPeer);
  if (std::system(("python3 " + (dir / "peer") + " >" + (dir / "lines")).c_str()) != 0)
    GTEST_SKIP() << "no python3";
  const ReportCapture quiet;
  std::ifstream lines(dir / "lines");
  size_t count = 0;
  for (std::string text, ip, expected; std::getline(lines, text, ';'); ++count) {
    ASSERT_TRUE(std::getline(lines, ip, ';') && std::getline(lines, expected));
    ASSERT_EQ(answer(text, ip), expected) << text << " and " << ip;
  }
  EXPECT_EQ(count, 20000u);
}

}  // namespace
