// A file of any bytes as an id file, and as a list of container ids: only what is valid is
// believed, and what is believed counts on.
#include <kel/crc.h>
#include <kel/serialize.h>

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <set>
#include <string>

#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const int memory = memfd_create("id", MFD_CLOEXEC);
  const std::string path = "/proc/self/fd/" + std::to_string(memory);
  require(::write(memory, data, size) == static_cast<ssize_t>(size));

  std::set<unsigned long> ids;
  require(ReadDcidFile(path, &ids));
  require(ids.empty() || (*ids.begin() >= 64 && *ids.rbegin() != UINT64_MAX));
  require(CRCFromFile(path.c_str()) == CRCAppend(1, size == 0 ? nullptr : data, size));

  uint64_t id = 0;
  int fd = OpenId(path.c_str(), "id", &id, 64);
  uint32_t checksum = 0;
  if (size >= 12) std::memcpy(&checksum, data + 8, sizeof checksum);
  uint64_t stored = 0;
  if (size >= 8) std::memcpy(&stored, data, sizeof stored);
  const bool valid = size >= 8 && stored >= 64 && (size < 12 || checksum == CRCAppend(1, data, 8));
  require((fd >= 0) == valid);
  if (fd >= 0) {
    require(id == stored && NextId(path.c_str(), "id", &id, &fd) == 0 && id == stored + 1);
    require(ReadId(path.c_str(), "id", &stored, fd, 0) == 0 && stored == id);
    ::close(fd);
  }
  ::close(memory);
  return 0;
}
