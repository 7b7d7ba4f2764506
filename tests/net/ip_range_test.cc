#include <kel/iprange.h>

#include <arpa/inet.h>

#include <bit>

#include "support/test.h"

namespace {

using namespace kel::testing;

TEST(RangeList, NamesWhatIsWrong) {
  ReportCapture reports;
  for (const auto& [element, text] :
       {std::pair{"1.2.3.4", "getmasklen: invalid parameter: does not contain '/'"},
        {"1.2.3.4/-1", "getmasklen: no digit found"},
        {"/99999999999999999999", "getmasklen: invalid input: 99999999999999999999"},
        {"1.2.3.4/33", "getmasklen: mask not 0-32 (33)"},
        {"1.2.3.4.5/24", "iprange_create: IP address format is invalid."},
        {"1.256.3.4/8", "iprange_create : could not convert ip address to address"}}) {
    EXPECT_TRUE(iprange_create(element) == nullptr && errno == EINVAL);
    EXPECT_THAT(reports.take(), ElementsAre(error(EINVAL, text)));
  }
  EXPECT_EQ(iprange_list_create("1.2.3.4,1.2.3.4         1"), nullptr);
  EXPECT_THAT(reports.take(), ElementsAre(error(69,
                                                "iprange_list_create: 1.2.3.4,1.2.3.4         1: "
                                                "IP Range format error: 1.2.3.4         1")));
  const auto failed = [&] {
    errno = 0;
    const int single = NetIsSingleIP("10.1.2.3/16 , 1.2.3.4");
    EXPECT_EQ(single, errno == ENOMEM ? -1 : 0);
  };
  EXPECT_EQ(fail_each_malloc(failed), 5);
  EXPECT_THAT(reports.take_texts(),
              Contains("iprange_list_create: Add the node into IP range list failed 1.2.3.4/32"));
  EXPECT_EQ(NetIsSingleIP("1.2.3.4/32") - NetIsSingleIP("1.2.3.4/31") + NetIsSingleIP(","), 0);
  EXPECT_THAT(reports.take_texts(),
              ElementsAre("iprange_create: IP address format is invalid.",
                          "iprange_list_create: get ip range address failed /32",
                          "NetIsSingleIP: Parse ip range string failed ,"));
}

TEST(RangeCheck, NamesWhatIsWrongWhenAsked) {
  ReportCapture reports;
  const auto refuses = [&](const char* ranges, const char* ip, int code, const char* text) {
    EXPECT_FALSE(NetCheckIPRange(ranges, ip, false)) << text;
    errno = 0;
    EXPECT_FALSE(NetCheckIPRange(ranges, ip, true));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_THAT(reports.take(), ElementsAre(error(code, std::string("NetCheckIPRange: ") + text)));
  };
  refuses("10.0.0.0/8", "10.1.256.3", 63, "bad IP address: 10.1.256.3");
  refuses("10.0.0.0/8", "10.1.2", 64, "incomplete IP address: 10.1.2");
  refuses("10.1 , 10.x/8 ,1", nullptr, 63, "bad IP address: 10.x/8");
  refuses("10.1,", nullptr, 63, "bad IP address: ");
  refuses("1.0/4294967304", nullptr, 65,
          "incorrect netmask value, must be between 0 and 32. Actual value: 1.0/2147483647");
  refuses("9, 10.8/12", nullptr, 67,
          "Incorrect IP range (field 2 must be a multiple of 16). Actual value: 9, 10.8/12");
  refuses("10/8", "11.0.0.1", 68, "Bad match: 11.0.0.1 outside 10.0.0.0/255.0.0.0");
  EXPECT_TRUE(NetCheckIPRange("", "nonsense", true));
}

/// Answers lines "RANGES;IP" with the networks of the list form, the first of them that holds the
/// address, and the access form's answers with and without it.
constexpr char kPeer[] = R"(
import ipaddress, sys
def network(element, access):
    a, slash, n = element.strip(' \t').partition('/')
    if slash and not n.isdigit(): raise ValueError    # a mask, which the module takes too
    fields = a.split('.')
    if access: a = '.'.join(fields + ['0'] * (4 - len(fields)))
    return ipaddress.ip_network(f'{a}/{n if slash else 8 * len(fields) if access else 32}', access)
def check(text, ip):
    try: return int(any(ip in network(e, True) for e in text.split(',')))
    except ValueError: return 0
for line in sys.stdin:
    text, ip = line.rstrip('\n').split(';')
    ip = ipaddress.ip_address(ip)
    try: found = [network(e, False) for e in text.split(',')]
    except ValueError: found = []
    print(*found, *[n for n in found if ip in n][:1], check(text, ip))
)";

std::string answer(const std::string& text, const std::string& ip) {
  std::string line;
  const auto tell = [&](const void* element) {
    const auto* range = static_cast<const iprange_t*>(element);
    line += range->text + ('/' + std::to_string(std::popcount(range->mask))) + ' ';
  };
  iprange_list_t* list = iprange_list_create(text.c_str());
  for (void* e = kelListFirst(list); e != nullptr; e = kelListNext(list)) tell(e);
  if (list && iprange_list_lookup(list, ntohl(inet_addr(ip.c_str()))))
    tell(iprange_list_lookup(list, ntohl(inet_addr(ip.c_str()))));
  iprange_list_destroy(list);
  return line + (NetCheckIPRange(text.c_str(), ip.c_str(), false) ? "1\n" : "0\n");
}

TEST(Ranges, AgreeWithPythonOverRandomTextsAndAddresses) {
  if (std::system("python3 -c 'import ipaddress'") != 0) GTEST_SKIP() << "no python3";
  std::mt19937 random(84);
  const auto pick = [&](std::initializer_list<const char*> from, bool rarely = false) {
    return std::string(rarely && random() % 40 != 0 ? "" : from.begin()[random() % from.size()]);
  };
  const auto address = [&](size_t fields) {
    std::string text = pick({"10", "172", "0"});
    while (--fields > 0) text += '.' + pick({"0", "0", "0", "0", "1", "128", "192", "255"});
    return text;
  };
  std::string texts, expected;
  for (int i = 0; i < 20000; ++i) {
    std::string text;
    for (size_t elements = 1 + random() % 3; elements > 0; --elements) {
      text += pick({"", " ", "\t "}) + address(random() % 3 == 0 ? 1 + random() % 5 : 4);
      text += pick({"6", ".256", ".01", "x"}, true);
      if (random() % 3 != 0)
        text += '/' + std::to_string(random() % 34) + pick({"/", "x", " 1"}, true);
      text += pick({"", " "}) + (elements > 1 ? "," : pick({",", " ,", "/033"}, true));
    }
    const std::string ip = address(4);
    texts += text + ';' + ip + '\n';
    expected += answer(text, ip);
  }
  const TempDir dir;
  write_file(dir / "peer", kPeer);
  write_file(dir / "texts", texts);
  write_file(dir / "ours", expected);
  // Lines that differ, beside their texts.
  const std::string compare = "cd " + dir.path().string() + " && python3 peer <texts >theirs && " +
                              "paste -d'|' texts ours >1 && paste -d'|' texts theirs | diff 1 -";
  EXPECT_EQ(std::system(compare.c_str()), 0);
}

}  // namespace
