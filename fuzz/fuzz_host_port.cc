// Any text as host and port: the host is a part of the text, also in a buffer that is too small,
// and what was told apart can be put together again.
#include <kel/address.h>

#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(std::string(reinterpret_cast<const char*>(data), size).c_str());
  std::vector<char> whole(input.size() + 1), part(1 + input.size() / 2);
  unsigned port = 70000, port_again = 70000;
  NetExtractHostAndPort(input.c_str(), whole.data(), whole.size(), &port);
  NetExtractHostAndPort(input.c_str(), part.data(), part.size(), nullptr);
  const std::string host = whole.data();
  require(port < 65536 && host.size() <= input.size());
  require(host.compare(0, part.size() - 1, part.data()) == 0);
  require(input.find(host) != input.npos && host.find_first_of("/?") == host.npos);

  if (port == 0) return 0;
  const bool bracketed = host.find(':') != host.npos;
  const std::string joined = (bracketed ? "[" + host + "]" : host) + ":" + std::to_string(port);
  std::vector<char> again(joined.size() + 1);
  NetExtractHostAndPort(joined.c_str(), again.data(), again.size(), &port_again);
  if (joined.size() < 4096) require(host == again.data() && port == port_again);
  return 0;
}
