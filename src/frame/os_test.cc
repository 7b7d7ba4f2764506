// The system summary of --os-test.
#include <kel/library.h>

#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "frame/os_test_sections.h"
#include "internal/process_stat.h"

using namespace kel::internal;

namespace {

constexpr unsigned long kMegabyte = 1048576;
constexpr unsigned long kAssumedMemory = 128 * kMegabyte;  // when the system does not tell

void print_system(FILE* out) {
  std::fprintf(out, "Target OS    : %s\n", "Linux-x86_64");
  struct utsname host = {};
  if (uname(&host) != 0) {
    std::fprintf(out, "uname() failed: %s!\n", std::strerror(errno));
    return;
  }
  std::fprintf(out, "OS Type      : %s\n", host.sysname);
  std::fprintf(out, "OS Version   : %s\n", host.version);
  std::fprintf(out, "OS Release   : %s\n", host.release);
  std::fprintf(out, "OS Machine   : %s\n", host.machine);
}

void print_types(FILE* out) {
  std::fprintf(out, "OS page size : %i bytes\n", static_cast<int>(sysconf(_SC_PAGESIZE)));
  std::fprintf(out, "Size uint32_t: %i bits\n", 32);
  std::fprintf(out, "Size uint64_t: %i bits\n", 64);
  std::fprintf(out, "OS Byte Order: Little Endian (system provided)\n");
  std::fprintf(out, "OS Byte Order: Little Endian (computed)\n");
  std::fprintf(out, "Large Files  : Supported (%ibit OS)\n", 64);
}

void print_memory(FILE* out) {
  struct sysinfo info = {};
  const unsigned long total =
      sysinfo(&info) == 0 ? (info.totalram + info.totalswap) * info.mem_unit : kAssumedMemory;
  const long pages = sysconf(_SC_PHYS_PAGES);
  if (pages <= 0) {
    std::fprintf(out, "OS Memory    : %lu MB\n", total / kMegabyte);
    return;
  }
  const unsigned long ram =
      static_cast<unsigned long>(pages) * static_cast<unsigned long>(sysconf(_SC_PAGESIZE));
  const unsigned long swap = total > ram ? total - ram : 0;
  std::fprintf(out, "OS Memory    : %lu MB (%lu RAM, %lu swap)\n", total / kMegabyte,
               ram / kMegabyte, swap / kMegabyte);
}

void print_process(FILE* out) {
  char name[kProcessNameSize];
  read_process_name(0, name);
  std::fprintf(out, "Current process name         : %s\n", name);
  std::fprintf(out, "Current memory usage         : %lu kbytes\n", resident_bytes() / 1024);
}

}  // namespace

void OSTest(FILE* stream) {
  FILE* out = stream != nullptr ? stream : stdout;
  print_system(out);
  print_types(out);
  print_memory(out);
  print_mount_section(out);
  print_interface_section(out);
  print_process(out);
  std::fprintf(out, "OS Check complete\n");
}
