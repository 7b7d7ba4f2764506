// kel-dedup: a small deduplicating backup store on the library's public interface.
#include <kel/library.h>
#include <kel/logging.h>

#include <sys/resource.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "commands.h"

namespace {

void usage(const char* program) {
  std::printf(
      "Usage: %s COMMAND REPO ...\n"
      "\n"
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
      program);
}

/// A walk holds a descriptor for each level of its tree.
void raise_descriptor_limit() {
  rlimit limit;
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

int run(int argc, char** argv) {
  const std::string command = argc > 1 ? argv[1] : "";
  if (command == "store" && argc == 4) return dedup::store(argv[2], argv[3]);
  if (command == "restore" && argc == 5) return dedup::restore(argv[2], argv[3], argv[4]);
  if (command == "verify" && argc == 3) return dedup::verify(argv[2]);
  if (command == "list" && argc == 3) return dedup::list(argv[2]);
  ShowUsage(argv, usage);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  const tqutil::LibAutoInit library("kel-dedup");
  _checkCommonArgs(&argc, argv, usage, GetKELVersion(), __DATE__, __TIME__, "Release");
  try {
    raise_descriptor_limit();
    const int status = run(argc, argv);
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return status;
    ErrorA(errno, "kel-dedup: could not write the output: %s", std::strerror(errno));
    return 1;
  } catch (const std::exception& problem) {
    ErrorA(-1, "kel-dedup: %s", problem.what());
    return 1;
  }
}
