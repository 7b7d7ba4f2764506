// kel-lineserver: tells over TCP which chunks a repository of kel-dedup has.
#include <kel/daemon.h>
#include <kel/library.h>
#include <kel/logging.h>
#include <kel/net.h>

#include <sys/eventfd.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <utility>

#include "known_chunks.h"
#include "options.h"
#include "peers.h"
#include "protocol.h"
#include "session.h"
#include "stop_signals.h"

namespace lineserver {
namespace {

using Clock = std::chrono::steady_clock;

constexpr char kName[] = "kel-lineserver";
constexpr std::chrono::seconds kPatience{5};      // with peers, when the service ends
constexpr unsigned kNamesAreRememberedFor = 600;  // seconds

// For the signal handler.
NetContext* listening;
std::atomic<bool> stopping = false;

void stop(int) {
  stopping = true;
  std::atomic_ref(listening->shuttingDown).store(1);
}

struct CloseContext {
  void operator()(NetContext* context) const { NetClose(context); }
};
using ContextPtr = std::unique_ptr<NetContext, CloseContext>;

/// The pid file, which has to go also where the process leads no session.
class PidFile {
 public:
  ~PidFile() {
    if (is_held_) DaemonLockSimpleClear();
  }
  bool take(const std::string& folder) {
    is_held_ = DaemonLockSimple(folder.c_str(), kName) == 0;
    return is_held_;
  }

 private:
  bool is_held_ = false;
};

class Server {
 public:
  explicit Server(const Options& options)
      : options_(options),
        chunks_(options.repository, options.key_file, options.log),
        peers_(options.most_peers) {}

  /// No signal finds the context that is gone.
  ~Server() { set_stop_action(SIG_IGN); }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  /// Does what can fail at the terminal; false after a report.
  bool open() {
    if (!stop_) {
      ErrorA(errno, "%s: no event descriptor: %s", kName, std::strerror(errno));
      return false;
    }
    if (!chunks_.open() || DaemonLockSimpleTest(options_.pid_folder.c_str(), kName) != 0)
      return false;
    service_.reset(NetSetup(nullptr, options_.port));
    if (service_ == nullptr) return false;
    service_->allowedPeers = ::strdup(options_.allowed_peers.c_str());
    service_->timeout = 1;
    service_->cacheClearInterval = kNamesAreRememberedFor;
    service_->idleCallback = [](void*) { return stopping ? -1 : 0; };
    return service_->allowedPeers != nullptr;
  }

  /// The exit status, after a signal or a failure.
  int run() {
    if (DaemonInit(options_.foreground) != 0) return 1;
    PidFile pid_file;
    if (!pid_file.take(options_.pid_folder)) return 1;
    listening = service_.get();
    set_stop_action(stop);
    ::signal(SIGPIPE, SIG_IGN);
    chunks_.follow();
    InfoA(-1, "%s serves %s on port %u", kName, options_.repository.c_str(), service_->port);
    const bool well = serve();
    InfoA(-1, "%s ends", kName);
    return well ? 0 : 1;
  }

 private:
  static void set_stop_action(void (*action)(int)) {
    struct sigaction settings = {};  // no restart: a signal ends the wait for peers
    settings.sa_handler = action;
    for (const int signal : {SIGTERM, SIGINT}) ::sigaction(signal, &settings, nullptr);
  }

  /// False when waiting for peers has become impossible.
  bool serve() {
    Clock::time_point deadline = Clock::time_point::max();
    for (;;) {
      const int sock = NetWaitForRemote(service_.get());
      const int error = errno;
      service_->connection = -1;
      if (sock >= 0) welcome(dedup::Descriptor(sock));
      if (sock < 0 && (error == EBADF || error == EINVAL)) {
        ErrorA(error, "%s: cannot wait for peers: %s", kName, std::strerror(error));
        return false;
      }
      if (!stopping) continue;
      if (deadline == Clock::time_point::max()) {
        deadline = Clock::now() + kPatience;
        ::eventfd_write(stop_.get(), 1);
      }
      // Not before a second without late peers.
      if ((error == ECANCELED && peers_.is_empty()) || Clock::now() > deadline) return true;
    }
  }

  /// The range is one of IPv4: where there is one, peers that have no IPv4 address are outside.
  bool may_enter(int sock) const {
    sockaddr_in6 address = {};
    socklen_t size = sizeof address;
    return options_.allowed_peers.empty() ||
           (::getpeername(sock, reinterpret_cast<sockaddr*>(&address), &size) == 0 &&
            (address.sin6_family == AF_INET || IN6_IS_ADDR_V4MAPPED(&address.sin6_addr)));
  }

  void welcome(dedup::Descriptor sock) {
    std::string peer =
        std::string(service_->remoteHost) + " port " + std::to_string(service_->remotePort);
    if (!may_enter(sock.get())) {
      AuthA(-1, "denied %s, who came by IPv6", peer.c_str());
      turn_away(sock.get(), kDenied);
    } else if (!peers_.add(sock, [this, peer](int fd) { answer(fd, peer); })) {
      WarningA(-1, "%s has to come later, there are too many peers", peer.c_str());
      turn_away(sock.get(), kFull);
    }
  }

  /// Closing must not wait for a peer that takes nothing: others want to come in.
  static void turn_away(int sock, const char* farewell) {
    const linger off = {};
    ::setsockopt(sock, SOL_SOCKET, SO_LINGER, &off, sizeof off);
    NetSend(sock, "%s", farewell);
  }

  void answer(int sock, const std::string& peer) {
    options_.log.use();
    try {
      Session session(sock, stop_.get(), chunks_, std::chrono::seconds(options_.idle_seconds));
      session.run();
      InfoA(-1, "%s asked %lu times, for %lu known chunks", peer.c_str(),
            static_cast<unsigned long>(session.lines()),
            static_cast<unsigned long>(session.known()));
    } catch (const std::exception& problem) {
      ErrorA(-1, "%s could not be served: %s", peer.c_str(), problem.what());
    }
  }

  const Options options_;
  const dedup::Descriptor stop_{::eventfd(0, EFD_CLOEXEC)};  // readable when the service ends
  KnownChunks chunks_;
  ContextPtr service_;
  Peers peers_;
};

// The command line, for the usage: what calls it knows the program's name only.
int argument_count;
char** arguments;

void usage(const char* program) {
  std::fputs(
      "Tells over TCP which chunks a repository of kel-dedup has: a fingerprint a line, an\n"
      "answer a line. SIGTERM ends it.\n",
      stdout);
  print_options(stdout, program, argument_count, arguments);
}

int run(int argc, char** argv) {
  Options options;
  if (!read_options(argc, argv, options)) {
    ErrorA(-1, "%s: see %s --help", kName, kName);
    return 1;
  }
  Server server(options);
  return server.open() ? server.run() : 1;
}

}  // namespace
}  // namespace lineserver

int main(int argc, char** argv) {
  lineserver::argument_count = argc;
  lineserver::arguments = argv;
  const tqutil::LibAutoInit library(lineserver::kName);
  _checkCommonArgs(&argc, argv, lineserver::usage, GetKELVersion(), __DATE__, __TIME__, "Release");
  try {
    return lineserver::run(argc, argv);
  } catch (const std::exception& problem) {
    ErrorA(-1, "%s: %s", lineserver::kName, problem.what());
    return 1;
  }
}
