// Any bytes as reply lines, over a socket or (the first bit) a pipe: each line agrees with one that
// is put together byte by byte, and the next begins right behind it.
#include <kel/net.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "fuzz_target.h"

namespace {

constexpr size_t kMost = 40000;  // fits the buffers of sockets and pipes

/// The result of reading a line from `bytes` at `*at`, which is moved behind it.
int model(const std::string& bytes, size_t* at, std::string* line) {
  bool cr = false;
  const size_t start = *at;
  line->clear();
  while (*at < bytes.size()) {
    const char c = bytes[(*at)++];
    if (c == '\n' && cr) return line->size() < 2 ? 4 : 0;
    if (c == '\r') cr = true;
    if (c != '\r' && c != '\0') *line += c;
    if (line->size() == 16382) return 5;
  }
  return *at == start ? 1 : 3;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > kMost) return 0;
  const std::string bytes(reinterpret_cast<const char*>(data + 1), size - 1);
  int ends[2];
  require((data[0] & 1 ? ::pipe(ends) : ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends)) == 0);
  require(::write(ends[1], bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
  ::close(ends[1]);

  static const std::unique_ptr<NetContext> context(new NetContext{});
  context->connection = ends[0];
  size_t at = 0;
  std::string line;
  for (int expected = 0; expected != 1;) {
    expected = model(bytes, &at, &line);
    require(NetReadReply(context.get()) == expected);
    require(context->replyBuffer == line);
  }
  ::close(ends[0]);
  return 0;
}
