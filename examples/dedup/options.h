// The options of the command line, with a configuration file behind them.
#pragma once

#include <cstdio>
#include <string>

#include "settings.h"

namespace dedup {

/// A folder on a server, and the PEM files for the way there.
struct RemoteAddress {
  std::string url;          ///< empty: there is no remote
  std::string certificate;  ///< of the client, with `key`; empty: it has none
  std::string key;
  std::string
      authority;  ///< what the server's certificate is checked with; empty: what the system trusts
};

struct Options {
  Settings settings;  ///< for a repository that is made
  std::string key_file;
  bool quiet = false;
  bool json = false;  ///< list prints JSON
  RemoteAddress remote;
};

/// Reads the options, moves them in front of the command, and sets up the log as they say. The
/// index of the first argument behind them, or -1 after a report.
int read_options(int argc, char** argv, Options& options);

/// Prints a usage line and the options, with the defaults that apply to this command line.
void print_options(std::FILE* out, const char* program, int argc, char** argv);

}  // namespace dedup
