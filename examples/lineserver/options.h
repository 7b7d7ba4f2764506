// The options of the service: defaults, the settings file, the command line.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace lineserver {

/// Where a thread's reports go.
struct LogTarget {
  std::string path;  ///< empty: to standard error only
  int flags;

  /// For the calling thread.
  void use() const;
};

struct Options {
  std::string repository;
  std::string key_file;
  uint16_t port;
  std::string allowed_peers;  ///< IP range; empty: everybody
  uint32_t most_peers;
  uint32_t idle_seconds;
  std::string pid_folder;
  bool foreground;
  LogTarget log;
};

/// Reads the command line, and the log settings of its file. False after a report.
bool read_options(int argc, char** argv, Options& options);

/// Prints a usage line and the options, with the defaults that apply to this command line.
void print_options(std::FILE* out, const char* program, int argc, char** argv);

}  // namespace lineserver
