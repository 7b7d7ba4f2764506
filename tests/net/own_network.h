// A network that only this process sees, for tests that make interfaces and change routes.
#pragma once

#include <fcntl.h>
#include <sched.h>

#include <cstdlib>

#include "support/test.h"

namespace kel::testing {

/// A network namespace for the calling thread and the commands that it starts.
class OwnNetwork {
 public:
  ~OwnNetwork() {
    ::setns(home_, CLONE_NEWNET);
    ::close(home_);
  }
  /// False where the process may not have a network of its own, or the tools for it are missing.
  bool allowed() const { return allowed_; }

  /// Makes an interface that is up, with an address as "10.0.0.1/24".
  void add(const std::string& name, const std::string& address) const {
    ip("link add " + name + " type veth peer name " + name + "p");
    ip("addr add " + address + " brd + dev " + name);
    for (const char* end : {" up", "p up"}) ip("link set " + name + end);
  }
  void ip(const std::string& arguments) const {
    EXPECT_EQ(std::system(("ip " + arguments).c_str()), 0) << "ip " << arguments;
  }
  /// The expression over the list `all` that "ip -j ARGUMENTS" prints, its elements a line each.
  std::string ask(const std::string& arguments, const std::string& expression) const {
    const TempDir dir;
    ip("-j " + arguments +
       " | python3 -c \"import json, sys; all = json.load(sys.stdin); print(*[" + expression +
       "], sep='\\n')\" >" + (dir / "out"));
    return read_file(dir / "out");
  }

 private:
  int home_ = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
  bool allowed_ =
      ::unshare(CLONE_NEWNET) == 0 && std::system(
                                          "command -v python3 >/dev/null && ip link set lo up && "
                                          "ip link add kel0 type veth && ip link del kel0") == 0;
};

}  // namespace kel::testing
