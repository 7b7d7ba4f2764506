// kel-dedup: a small deduplicating backup store on the library's public interface.
#include <kel/library.h>
#include <kel/logging.h>

#include <sys/resource.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "commands.h"
#include "text.h"

namespace {

// The command line, for the usage: what calls it knows the program's name only.
int argument_count;
char** arguments;

void usage(const char* program) {
  std::fputs(
      "Keeps snapshots of folders in a repository, every chunk of data once, compressed and\n"
      "encrypted.\n"
      "\n"
      "  store   REPO DIR            stores DIR as a new snapshot; makes REPO when it is not "
      "there\n"
      "  restore REPO SNAPSHOT DIR   brings a snapshot (a number, or 'latest') back into DIR, "
      "which\n"
      "                              must be new or empty\n"
      "  verify  REPO                reads everything and checks every fingerprint\n"
      "  list    REPO                shows the snapshots\n"
      "\n"
      "The exit status is 0 when everything is right, else 1. REPO/key is the key: without it\n"
      "nothing can be read, with it everything.\n",
      stdout);
  dedup::print_options(stdout, program, argument_count, arguments);
}

/// A walk holds a descriptor for each level of its tree.
void raise_descriptor_limit() {
  rlimit limit;
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

/// Carries out a command, the first of the words.
int run(const std::vector<std::string>& words, const dedup::Options& options) {
  const std::string command = words.empty() ? "" : words[0];
  const size_t count = words.size();
  if (command == "store" && count == 3) return dedup::store(words[1], words[2], options);
  if (command == "restore" && count == 4)
    return dedup::restore(words[1], words[2], words[3], options);
  if (command == "verify" && count == 2) return dedup::verify(words[1], options);
  if (command == "list" && count == 2) return dedup::list(words[1], options);
  ShowUsage(arguments, usage);
  return 1;
}

int run_command_line(int argc, char** argv) {
  dedup::Options options;
  const int first = dedup::read_options(argc, argv, options);
  if (first < 0) {
    ErrorA(-1, "kel-dedup: see kel-dedup --help");
    return 1;
  }
  const std::vector<std::string> words(argv + first, argv + argc);
  const int status = run(words, options);
  InfoA(-1, "kel-dedup %s of %s: %s", words[0].c_str(), dedup::path_text(words[1]).c_str(),
        status == 0 ? "done" : "done, but for what was reported");
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  argument_count = argc;
  arguments = argv;
  const tqutil::LibAutoInit library("kel-dedup");
  _checkCommonArgs(&argc, argv, usage, GetKELVersion(), __DATE__, __TIME__, "Release");
  try {
    raise_descriptor_limit();
    const int status = run_command_line(argc, argv);
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return status;
    ErrorA(errno, "kel-dedup: could not write the output: %s", std::strerror(errno));
    return 1;
  } catch (const std::exception& problem) {
    ErrorA(-1, "kel-dedup: %s", problem.what());
    return 1;
  }
}
