// The mounted file systems in the system summary.
#include <sys/statvfs.h>

#include <cstring>

#include "frame/os_test_sections.h"
#include "os/bounded_statistics.h"
#include "os/mounts.h"

namespace kel::internal {
namespace {

constexpr std::size_t kDeviceColumn = 15;

struct Kilobytes {
  unsigned long size, used, available;
};

Kilobytes sizes_of(const char* mount_point) {
  struct statvfs status;
  if (mount_point[0] != '/' || bounded_statvfs(mount_point, &status) != 0) return {};
  const auto kilobytes = [unit = block_unit(status)](fsblkcnt_t blocks) {
    return static_cast<unsigned long>(blocks * unit / 1024);
  };
  return {kilobytes(status.f_blocks), kilobytes(status.f_blocks - status.f_bfree),
          kilobytes(status.f_bavail)};
}

void print_mount(FILE* out, const OSMountA& mount) {
  const auto [size, used, available] = sizes_of(mount.mountPoint);
  if (std::strlen(mount.device) <= kDeviceColumn)
    std::fprintf(out, "%-15s ", mount.device);
  else
    std::fprintf(out, "%s\n                ", mount.device);
  std::fprintf(out, "%-10s %-14lu %-14lu %-14lu %s\n", mount.type, size, used, available,
               mount.mountPoint);
}

}  // namespace

void print_mount_section(FILE* out) {
  const MountList<OSMountA> list = read_mounts(kMountedTable, KEL_MOUNTS_ALL);
  if (list == nullptr) {
    std::fprintf(out, "Couldn't read mount table!\n");
    return;
  }
  std::fprintf(out, "System mount table:\n%-15s %-10s %-14s %-14s %-14s %s\n", "Filesystem", "Type",
               "1k-blocks", "Used", "Available", "Mounted On");
  for (OSMountA** mount = list.get(); *mount != nullptr; ++mount) print_mount(out, **mount);
}

}  // namespace kel::internal
