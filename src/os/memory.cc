// How much memory the machine and the process have.
#include <kel/logging.h>
#include <kel/os.h>

#include <sys/sysinfo.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "internal/handles.h"
#include "internal/process_stat.h"

namespace {

using kel::internal::UniqueFile;

constexpr unsigned long kMegabyte = 1048576;
constexpr unsigned long kAssumedMemory = 128 * kMegabyte;  // when the system does not tell
constexpr unsigned long kUnknown = std::numeric_limits<unsigned long>::max();

/// What counts as free among the values of /proc/meminfo, or kUnknown.
unsigned long free_by_meminfo() {
  const UniqueFile meminfo{std::fopen("/proc/meminfo", "re")};
  if (!meminfo) return kUnknown;
  bool found = false;
  unsigned long kilobytes = 0;
  char line[128];
  while (std::fgets(line, sizeof line, meminfo.get()) != nullptr) {
    for (const char* wanted : {"MemFree:", "Buffers:", "Cached:"}) {
      const size_t length = std::strlen(wanted);
      if (std::strncmp(line, wanted, length) != 0) continue;
      kilobytes += std::strtoul(line + length, nullptr, 10);
      found = true;
    }
  }
  return found ? kilobytes * 1024 : kUnknown;
}

unsigned long free_by_sysinfo() {
  struct sysinfo info = {};
  return ::sysinfo(&info) == 0 ? (info.freeram + info.bufferram) * info.mem_unit : kUnknown;
}

}  // namespace

// Every kernel that runs on this platform tells the unit of sysinfo's values.

unsigned long OSGetTotalRamValue(void) {
  struct sysinfo info = {};
  const unsigned long ram = ::sysinfo(&info) == 0 ? info.totalram * info.mem_unit : kAssumedMemory;
  __Trace("OSGetTotalRamValue: %luMB", ram / kMegabyte);
  return ram;
}

unsigned long OSGetMaxMemoryValue(void) {
  struct sysinfo info = {};
  if (::sysinfo(&info) != 0) return kAssumedMemory;
  const unsigned long ram = info.totalram * info.mem_unit;
  const unsigned long swap = info.totalswap * info.mem_unit;
  __Trace("OSGetMaxMemValue: RAM: %lu SWAP: %lu TOTAL: %lu", ram, swap, ram + swap);
  return ram + swap;
}

unsigned long OSGetFreeMemoryValue(void) {
  const unsigned long free = std::min(free_by_meminfo(), free_by_sysinfo());
  return free == kUnknown ? 0 : free;
}

unsigned long OSGetRSS(void) { return kel::internal::resident_bytes(); }
