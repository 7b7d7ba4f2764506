// Services, clients, the lines between them, and relays.
#include <kel/library.h>
#include <kel/net.h>

#include <netinet/tcp.h>
#include <poll.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <thread>

#include "support/mount_space.h"
#include "support/test.h"

namespace {

using namespace kel::testing;
using namespace std::string_literals;

using Connect = Hooked<"connect", int(int, const sockaddr*, socklen_t)>;
using Poll = Hooked<"poll", int(pollfd*, nfds_t, int)>;

using List = std::unique_ptr<tq_addrinfo, decltype([](tq_addrinfo* l) { tq_freeaddrinfo(l); })>;
List resolve(const char* host, const std::string& port) {
  tq_addrinfo* list = nullptr;
  EXPECT_EQ(tq_getaddrinfo(host, port.c_str(), nullptr, &list), 0);
  return List(list);
}

struct Fd {
  explicit Fd(int fd) : number(fd) {}
  Fd(Fd&& other) noexcept : number(std::exchange(other.number, -1)) {}
  ~Fd() { ::close(number); }
  int number;
};

/// Two ends of a socket, or of a pipe.
std::pair<Fd, Fd> make_ends(bool of_socket) {
  int ends[2];
  EXPECT_EQ(of_socket ? ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) : ::pipe(ends), 0);
  return {Fd(ends[0]), Fd(ends[1])};
}

/// `most` bytes, or fewer at the end.
std::string read_bytes(int fd, size_t most) {
  std::string bytes;
  for (char c; bytes.size() < most && ::read(fd, &c, 1) == 1;) bytes += c;
  return bytes;
}
void write_bytes(int fd, const std::string& bytes) {
  EXPECT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

/// A listener, and what it does with its one peer.
class Service {
 public:
  explicit Service(std::function<void(int peer)> serve) : context_(NetSetupLocal(0)) {
    thread_ = std::thread([this, serve] {
      const Fd peer(::accept(context_->listenSockets[0], nullptr, nullptr));
      if (peer.number >= 0) serve(peer.number);
    });
  }
  ~Service() {
    ::shutdown(context_->listenSockets[0], SHUT_RDWR);
    thread_.join();
    NetClose(context_);
  }
  std::string port() const { return std::to_string(context_->port); }

 private:
  NetContext* context_;
  std::thread thread_;
};

std::vector<int> limits;  // of the waits that were asked for

class Sockets : public ::testing::Test {
 protected:
  ~Sockets() override { EXPECT_EQ(open_descriptors(), open_before); }

  void expect_end(int fd, int result, int code, const char* report) {
    context->connection = fd;
    EXPECT_EQ(NetReadReply(context.get()), result);
    EXPECT_THAT(reports.take(), ElementsAre(error(code, report)));
    EXPECT_EQ(::signal(SIGPIPE, SIG_IGN) == SIG_IGN, result != KEL_NET_REPLY_EXPIRED);
  }
  static int connect_through(const std::string& port, const std::string& to = "10082") {
    tq_addrinfo* entry = nullptr;
    tq_getaddrinfo4cvnet("localhost", to.c_str(), "127.0.0.1", port.c_str(), &entry);
    return NetConnectByAddr(List(entry).get(), nullptr);
  }
  void expect_relay(int sock, int code, const std::string& report) {
    EXPECT_EQ(sock, -1);
    EXPECT_EQ(errno, code);
    EXPECT_THAT(reports.take(), Contains(error(9, "NetConnectByAddr4Cvnet: " + report)));
  }

  size_t open_before = open_descriptors();
  std::unique_ptr<NetContext> context{new NetContext{}};
  ReportCapture reports;
};

TEST_F(Sockets, GetTheOptionsThatTheFlagsAskFor) {
  const Fd sock(::socket(AF_INET, SOCK_STREAM, 0));
  EXPECT_EQ(NetSetSocketOptions(sock.number, KEL_NET_KEEPALIVE | KEL_NET_LINGER, 9000, 0), 0);
  const auto value = [&](int level, int option) {
    int number[2];
    socklen_t size = sizeof number;
    return ::getsockopt(sock.number, level, option, number, &size), number[0];
  };
  EXPECT_EQ(value(IPPROTO_TCP, TCP_NODELAY) + value(SOL_SOCKET, SO_LINGER), 2);
  EXPECT_EQ(value(IPPROTO_TCP, TCP_KEEPIDLE) + value(SOL_SOCKET, SO_SNDBUF), 18210);
  EXPECT_EQ(NetSetSocketOptions(make_ends(true).first.number, KEL_NET_NAGLE, 0, 0), 0);
  EXPECT_THAT(reports.take_texts(), ElementsAre(HasSubstr("setsockopt(TCP_SYNCNT) failed (")));
}

TEST_F(Sockets, ListenOnIpv6ThenIpv4AndSurviveEveryFailingCall) {
  int a, b;
  const auto scenario = [&] {
    if (NetBindAndListen("127.0.0.1", 0, &a, nullptr) == 0) return static_cast<void>(::close(a));
    EXPECT_EQ(errno, EACCES);
    EXPECT_THAT(reports.take_texts().back(), EndsWith("exhausted all possible interfaces"));
  };
  EXPECT_EQ((fail_each<"socket", int(int, int, int)>(-1, EACCES, scenario)), 1);
  EXPECT_EQ((fail_each<"bind", int(int, const sockaddr*, socklen_t)>(-1, EACCES, scenario)), 1);
  EXPECT_EQ((fail_each<"listen", int(int, int)>(-1, EACCES, scenario)), 1);
  // The first socket is the one for IPv6, where the host has that.
  const Fault<"listen", int(int, int)> refused(1, -1, EADDRINUSE);
  ASSERT_EQ(NetBindAndListen("", 0, &a, &b), 0);
  const Fd ipv4(b);
  EXPECT_THAT(reports.take_texts(), Contains(HasSubstr("Did not find any valid IPv6 addresses")));
}

TEST_F(Sockets, OfAContextServeAForeignClientAndAreClosed) {
  const auto scenario = [] {
    std::unique_ptr<NetContext, decltype(&NetClose)>(NetSetup("", 0), NetClose);
  };
  EXPECT_GE(fail_each_calloc(scenario), 2);
  NetContext* service = NetSetupLocal(0);
  const std::string script =
      "python3 -c \"import socket; s = socket.create_connection(('127.0.0.1', " +
      std::to_string(service->port) + ")); s.send(b'GOT ' + s.recv(5) + b'\\r\\n')\"";
  FILE* client = ::popen(script.c_str(), "r");
  service->connection = ::accept(service->highestDescriptor, nullptr, nullptr);
  EXPECT_EQ(NetSend(service->connection, "hell"), 5);
  EXPECT_EQ(NetReadReply(service), KEL_NET_REPLY_OK);
  EXPECT_STREQ(service->replyBuffer, "GOT hell\n");
  EXPECT_EQ(::pclose(client), 0);
  NetClose(service);
}

TEST_F(Sockets, ConnectFromALocalAddressOrTellWhatWasTried) {
  Service service([](int peer) { write_bytes(peer, "x"); });
  NetConnectOptions options = {};
  std::strcpy(options.localInterface, "127.0.0.9");
  {
    const Connect interrupted([](int sock, const sockaddr* address, socklen_t size) {
      EXPECT_EQ(Connect::real(sock, address, size), 0);
      return errno = EINTR, -1;
    });
    const Fd sock(NetConnectByAddr(resolve("127.0.0.1", service.port()).get(), &options));
    EXPECT_EQ(read_bytes(sock.number, 99), "x");
    EXPECT_THAT(reports.take_texts(), Contains(EndsWith("interface 127.0.0.9 successful")));
  }
  static int calls = 0;
  const Connect refused([](int, const sockaddr*, socklen_t) {
    return errno = ++calls == 1 ? ECONNREFUSED : ENETUNREACH, -1;
  });
  const List list = resolve("127.0.0.1", "10082");
  list->next = resolve("127.0.0.2", "7").release();
  std::strcpy(options.localInterface, "192.0.2.1");  // not of this host
  EXPECT_EQ(NetConnectByAddr(list.get(), &options), -1);
  EXPECT_EQ(errno, EADDRNOTAVAIL);
  EXPECT_EQ(NetConnectByAddr(list.get(), nullptr), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
  char record[512];
  kelGetFatalError(record, sizeof record);
  EXPECT_THAT(record, HasSubstr("connect to chunkd on port 10082 using the following interface(s): "
                                "[ 127.0.0.1 127.0.0.2  ] (Connection refused) Ensure"));
}

// In namespaces of its own, as the settings are changed for good.
TEST_F(Sockets, OfARangeQuietenArp) {
  const TempDir dir;
  const MountSpace space;
  if (!space.allowed() || ::unshare(CLONE_NEWNET) != 0 ||
      ::mount(dir.path().c_str(), "/etc", nullptr, MS_BIND, nullptr) != 0 ||
      std::system("ip link set lo up && ip addr add 127.0.0.5/8 dev lo && sysctl --version") != 0)
    GTEST_SKIP() << "namespaces are not permitted, or ip or sysctl is missing";
  for (int run = 0; run < 2; ++run) {
    NetContext* service = NetSetupFromIPRange("127.0.0.5, 10.0.0.0/8", 0);
    EXPECT_STREQ(service->interfaces[0]->address, "127.0.0.5");
    NetClose(service);
  }
  EXPECT_EQ(read_file("/etc/sysctl.conf"),
            "net.ipv4.conf.all.arp_ignore=1\nnet.ipv4.conf.all.arp_announce=2\n");
  ::umount2("/etc", MNT_DETACH);
}

struct Line {
  std::string sent;
  int result;
  std::string text, left = "";
};
const Line kLines[] = {{"OK\r\nnext", 0, "OK", "next"},
                       {"A\r\n", 4, "A"},
                       {"OK", 3, "OK"},
                       {"a\nb\r\n\r\n", 0, "a\nb", "\r\n"},
                       {"\0a\0b\r\0\n"s, 0, "ab"},
                       {"x\ry\n", 0, "xy"},
                       {std::string(16381, 'l') + "\r\nm", 0, std::string(16381, 'l'), "m"},
                       {std::string(16383, 'l') + "\r\n", 5, std::string(16382, 'l'), "l\r\n"}};

TEST_F(Sockets, TakeALineWholeAndAlone) {
  for (const Line& line : kLines)
    for (const bool of_socket : {true, false})
      for (const size_t piece : {line.sent.size(), size_t{1}}) {
        SCOPED_TRACE(line.sent.substr(0, 20) + (of_socket ? " socket" : " pipe"));
        auto [reader, writer] = make_ends(of_socket);
        std::thread sender([&line, piece, end = std::move(writer)] {
          for (size_t i = 0; i < line.sent.size(); i += piece)
            write_bytes(end.number, line.sent.substr(i, piece));
        });
        context->connection = reader.number;
        std::memset(context->replyBuffer, '#', sizeof context->replyBuffer);
        EXPECT_EQ(NetReadReply(context.get()), line.result);
        EXPECT_EQ(context->replyBuffer, line.text);
        EXPECT_EQ(read_bytes(reader.number, line.left.size() + 1), line.left);
        sender.join();
      }
}

TEST_F(Sockets, OfDeadSilentOrMissingPeersEndTheLine) {
  Service service([](int peer) {
    read_bytes(peer, 1);
    const linger reset = {1, 0};
    ::setsockopt(peer, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  });
  const Fd client(NetConnectByAddr(resolve("127.0.0.1", service.port()).get(), nullptr));
  reports.take();
  write_bytes(client.number, "x");
  expect_end(client.number, KEL_NET_REPLY_ERROR, ECONNRESET, "NetSelect: invalid pipe");
  expect_end(-1, KEL_NET_REPLY_ERROR, EPIPE, "NetSelect: invalid pipe");
  const Poll hook([](pollfd*, nfds_t, int limit) {
    limits.push_back(limit);
    ::raise(SIGPIPE);
    errno = EINTR;
    return limits.size() == 1 ? -1 : limits.size() < 6 ? 0 : 1;
  });
  expect_end(make_ends(true).first.number, KEL_NET_REPLY_EXPIRED, ETIMEDOUT,
             "NetSelect: poll timed out after all retries");
  EXPECT_EQ(NetCheckForInput(context.get()), 1);
  EXPECT_THAT(limits, ElementsAre(60000, 60000, 60000, 120000, 240000, -1));
  EXPECT_THAT(reports.take_texts().back(), EndsWith("increasing timeout to 480000, retrying."));
}

TEST_F(Sockets, SendLinesThatAreCutAndEndInOneNewline) {
  for (const bool of_socket : {true, false}) {
    const auto [there, here] = make_ends(of_socket);
    EXPECT_EQ(NetSend(here.number, "%s", std::string(2000, 't').c_str()), 1023);
    EXPECT_EQ(read_bytes(there.number, 1023), std::string(1022, 't') + "\n");
  }
}

TEST_F(Sockets, GoThroughARelayByNameAndLeaveTheStreamAlone) {
  Service relay([](int peer) {
    for (const char c : "\5\0\5\0\0\3\2ab\1\2OK\r\n"s) write_bytes(peer, {c});
    EXPECT_EQ(read_bytes(peer, 19), "\5\1\0\5\1\0\3\011localhost\x27\x62"s);
  });
  EXPECT_EQ(read_bytes(Fd(connect_through(relay.port())).number, 99), "OK\r\n");
}

TEST_F(Sockets, GiveARelayUpThatAnswersAnythingElse) {
  const std::tuple<std::string, int, const char*> rows[] = {
      {"", ECONNRESET, "method response: read failed!"},
      {"\5\2"s, EPROTO, "method response: read unexpected METHOD value 2"},
      {"\5\0\5\0\0"s, ECONNRESET, "dest response: read header failed!"},
      {"\5\0\5\5\0\3"s, ECONNREFUSED, "dest response: connection is refused!"},
      {"\5\0\5\0\0\1"s, EPROTO, "dest response: not the hostname type!"},
      {"\5\0\5\0\0\3\0"s, EPROTO, "dest response: length should be positive!"},
      {"\5\0\5\0\0\3\xff..."s, ECONNRESET, "dest response: read hostname failed!"}};
  for (const auto& [answers, code, report] : rows) {
    Service relay([&](int peer) {
      write_bytes(peer, answers);
      ::shutdown(peer, SHUT_WR);
      read_bytes(peer, 99);
    });
    expect_relay(connect_through(relay.port()), code, report);
  }
  Service silent([](int peer) { read_bytes(peer, 99); });
  const Poll hook([](pollfd* entry, nfds_t, int) { return (entry->events & POLLIN) != 0 ? 0 : 1; });
  expect_relay(connect_through(silent.port()), ETIMEDOUT, "method response: read failed!");
}

TEST_F(Sockets, RefuseARealRelayForItsKindOfAddress) {
  const std::string port = Service([](int) {}).port();
  const pid_t child = ::fork();
  if (child == 0) {
    ::execlp("microsocks", "microsocks", "-i", "127.0.0.1", "-p", port.c_str(), nullptr);
    ::_exit(127);
  }
  Service destination([](int peer) { read_bytes(peer, 1); });
  int status, sock, tries = 0;
  do {
    ::usleep(10000);  // it may still be starting
    if (::waitpid(child, &status, WNOHANG) == child) GTEST_SKIP() << "no microsocks";
    sock = connect_through(port, destination.port());
  } while (errno == ECONNREFUSED && ++tries < 200);
  expect_relay(sock, EPROTO, "dest response: not the hostname type!");
  ::kill(child, SIGTERM);
  ::waitpid(child, nullptr, 0);
}

}  // namespace
