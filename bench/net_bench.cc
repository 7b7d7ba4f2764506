// Reply lines of 60 bytes over loopback TCP, a full window at a time: beside a poll and a read for
// each byte, as a line is read when nothing behind it may be taken, and beside fgets(), which takes
// what it gets.
#include <kel/net.h>

#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

constexpr int kLines = 400;
constexpr size_t kLength = 60;

/// A connection on which lines have come.
class Connection {
 public:
  Connection() {
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const where = reinterpret_cast<sockaddr*>(&address);
    there_ = ::socket(AF_INET, SOCK_STREAM, 0);
    if (::bind(listener, where, size) != 0 || ::listen(listener, 1) != 0 ||
        ::getsockname(listener, where, &size) != 0 || ::connect(there_, where, size) != 0)
      std::abort();
    here_ = ::accept(listener, nullptr, nullptr);
    ::close(listener);
    NetSetSocketOptions(there_, 0, 0, 0);
    for (int i = 0; i < kLines; ++i) lines_ += std::string(kLength, 'x') + "\r\n";
  }
  ~Connection() {
    ::close(here_);
    ::close(there_);
  }

  int here() const { return here_; }
  void fill() const {
    if (::send(there_, lines_.data(), lines_.size(), 0) != static_cast<ssize_t>(lines_.size()))
      std::abort();
    std::string all(lines_.size(), '\0');
    if (::recv(here_, all.data(), all.size(), MSG_PEEK | MSG_WAITALL) !=
        static_cast<ssize_t>(all.size()))
      std::abort();
  }

 private:
  int here_, there_;
  std::string lines_;
};

/// Runs `read`, which reads one line and tells its length, over windows of lines.
template <class Read>
void read_lines(benchmark::State& state, const Connection& connection, Read read) {
  for (auto _ : state) {
    state.PauseTiming();
    connection.fill();
    state.ResumeTiming();
    for (int i = 0; i < kLines; ++i)
      if (read() != kLength) state.SkipWithError("not the line that was sent");
  }
  state.SetItemsProcessed(state.iterations() * kLines);
}

void reply_kel(benchmark::State& state) {
  const Connection connection;
  const std::unique_ptr<NetContext> context(new NetContext{});
  context->connection = connection.here();
  read_lines(state, connection, [&] {
    return NetReadReply(context.get()) == KEL_NET_REPLY_OK ? std::strlen(context->replyBuffer) : 0;
  });
}

void reply_by_byte(benchmark::State& state) {
  const Connection connection;
  read_lines(state, connection, [&] {
    char line[KEL_NET_REPLY_SIZE];
    size_t length = 0;
    for (char c = 0; c != '\n'; line[length++] = c) {
      pollfd entry = {connection.here(), POLLIN, 0};
      if (::poll(&entry, 1, 60000) != 1 || ::read(connection.here(), &c, 1) != 1) return size_t{0};
    }
    benchmark::DoNotOptimize(line);
    return length - 2;
  });
}

void reply_fgets(benchmark::State& state) {
  const Connection connection;
  FILE* const stream = ::fdopen(::dup(connection.here()), "r");
  read_lines(state, connection, [&] {
    char line[KEL_NET_REPLY_SIZE];
    return std::fgets(line, sizeof line, stream) == nullptr ? 0 : std::strlen(line) - 2;
  });
  std::fclose(stream);
}

BENCHMARK(reply_kel)->Name("net_reply/60/kel");
BENCHMARK(reply_by_byte)->Name("net_reply/60/poll_and_read_a_byte");
BENCHMARK(reply_fgets)->Name("net_reply/60/fgets");

}  // namespace
