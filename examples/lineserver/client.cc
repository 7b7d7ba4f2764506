// kel-lineclient: asks a kel-lineserver which chunks are known.
#include <kel/address.h>
#include <kel/library.h>
#include <kel/logging.h>
#include <kel/net.h>
#include <kel/options.h>

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>

#include "protocol.h"

namespace lineserver {
namespace {

constexpr char kName[] = "kel-lineclient";

// As of grep(1).
constexpr int kAllKnown = 0;
constexpr int kSomeUnknown = 1;
constexpr int kTrouble = 2;

char* config;
char* host;
char* port;

opt_t config_option = {nullptr,
                       'c',
                       "config",
                       OPT_INIFILE,
                       "FILE",
                       nullptr,
                       nullptr,
                       nullptr,
                       0,
                       &config,
                       "An INI file with values for the options below."};
opt_t host_option = {nullptr,
                     'H',
                     "host",
                     OPT_TEXT,
                     "HOST",
                     "127.0.0.1",
                     "LineClient",
                     "Host",
                     0,
                     &host,
                     "Name or address of the server."};
opt_t port_option = {nullptr,      'p',    "port", OPT_TEXT, "NUMBER",       kDefaultPort,
                     "LineClient", "Port", 0,      &port,    "Its TCP port."};
opt_t* table[] = {&config_option, &host_option, &port_option, nullptr};

/// A connection to the server.
class Connection {
 public:
  Connection() { context_.connection = -1; }
  ~Connection() {
    if (context_.connection >= 0) ::close(context_.connection);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// False after a report.
  bool open() {
    tq_addrinfo* addresses = nullptr;
    if (const int err = tq_getaddrinfo(host, port, nullptr, &addresses); err != 0) {
      ErrorA(-1, "%s: %s port %s: %s", kName, host, port, gai_strerror(err));
      return false;
    }
    context_.connection = NetConnectByAddr(addresses, nullptr);
    tq_freeaddrinfo(addresses);
    return context_.connection >= 0;
  }

  /// Asks for one chunk: kAllKnown, kSomeUnknown, or kTrouble after a report.
  int ask(const std::string& fingerprint) {
    const bool is_sent = NetSend(context_.connection, "%s", fingerprint.c_str()) >= 0;
    // Who sends peers away says why.
    const int result = NetReadReply(&context_);
    const std::string reply = context_.replyBuffer;
    if (is_sent && result == KEL_NET_REPLY_OK && reply == kKnown) return kAllKnown;
    if (is_sent && result == KEL_NET_REPLY_OK && reply == kUnknown) return kSomeUnknown;
    ErrorA(-1, "%s: %s: %s", kName, fingerprint.c_str(),
           reply.empty() ? "no answer" : reply.substr(0, reply.find('\n')).c_str());
    return kTrouble;
  }

 private:
  NetContext context_ = {};
};

/// Asks for each operand, or for each line of the standard input.
int ask_all(int count, char** operands) {
  Connection connection;
  if (!connection.open()) return kTrouble;
  int status = kAllKnown;
  auto next = [&, at = 0](std::string& fingerprint) mutable {
    if (count == 0) return static_cast<bool>(std::getline(std::cin, fingerprint));
    if (at == count) return false;
    fingerprint = operands[at++];
    return true;
  };
  for (std::string fingerprint; next(fingerprint);) {
    const int result = connection.ask(fingerprint);
    if (result == kTrouble) return kTrouble;
    std::printf("%s %s\n", fingerprint.c_str(), result == kAllKnown ? "known" : "unknown");
    status = result == kAllKnown ? status : result;
  }
  return std::fflush(stdout) == 0 ? status : kTrouble;
}

// The command line, for the usage: what calls it knows the program's name only.
int argument_count;
char** arguments;

void usage(const char* program) {
  std::fputs(
      "Asks a kel-lineserver for chunks by their fingerprints, those of the command line or\n"
      "the lines of the standard input. The exit status is 0 when all are known, 1 when some\n"
      "are not, 2 when something went wrong.\n",
      stdout);
  opt_fprintf_help(stdout, program, argument_count, arguments, table, "[FINGERPRINT...]");
}

int run(int argc, char** argv) {
  ::signal(SIGPIPE, SIG_IGN);
  const int first = opt_parse(table, argc, argv);
  const int status = first < 0 ? kTrouble : ask_all(argc - first, argv + first);
  opt_free(table);
  return status;
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
    return lineserver::kTrouble;
  }
}
