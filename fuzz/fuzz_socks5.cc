// Any bytes as the answers of a relay: believed only when they are a whole grant, after which
// exactly what follows is left for the connection.

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "fuzz_target.h"
#include "net/socks5.h"

namespace {

/// Bytes of the grant that `answers` begin with; 0 when they do not.
size_t granted(const std::string& answers) {
  const auto at = [&](size_t i) { return static_cast<unsigned char>(answers[i]); };
  if (answers.size() < 7 || at(0) != 5 || at(1) != 0 || at(3) != 0 || at(5) != 3) return 0;
  const size_t size = size_t{7} + at(6) + 2;
  return at(6) == 0 || answers.size() < size ? 0 : size;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  const std::string answers(reinterpret_cast<const char*>(data), size);
  int ends[2];
  require(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
  require(::write(ends[1], answers.data(), size) == static_cast<ssize_t>(size));
  ::shutdown(ends[1], SHUT_WR);

  const bool connected =
      kel::internal::socks5_handshake(ends[0], "far.example", 443, 10000, "fuzz");
  const size_t grant = granted(answers);
  require(connected == (grant != 0));
  if (connected) {
    std::string left(size + 1, '\0');
    const ssize_t got = ::read(ends[0], left.data(), left.size());
    require(got >= 0 && answers.substr(grant) == left.substr(0, static_cast<size_t>(got)));
  }
  ::close(ends[0]);
  ::close(ends[1]);
  return 0;
}
