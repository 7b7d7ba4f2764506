// The product's file system Kofs: telling that a path lies on it, and its one control request.
#include <kel/logging.h>
#include <kel/os.h>

#include <sys/ioctl.h>
#include <sys/vfs.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

#include "internal/atomic_field.h"

namespace {

constexpr std::uint32_t kKofsMagic = 0xA501FCF5;
/// Switches off caching of the open file through memory maps.
constexpr unsigned long kKofsDisableMappedCache = _IO(0xF5, 1);

constexpr std::size_t kReportInterval = 1000;
constexpr std::size_t kMostReports = 5;

/// Counts the failures of one kind and tells which of them are worth a report.
class FailureCount {
 public:
  /// The number of this failure, from 1.
  std::size_t add() noexcept { return count_.fetch_add(1, std::memory_order_relaxed) + 1; }
  static bool is_due(std::size_t number) noexcept { return number % kReportInterval == 1; }

 private:
  std::atomic<std::size_t> count_ = 0;
};

FailureCount statfs_failures;
FailureCount request_failures;
bool nommap = false;

}  // namespace

bool IsKofs(const char* path) {
  struct statfs status = {};
  if (::statfs(path, &status) == 0) return static_cast<std::uint32_t>(status.f_type) == kKofsMagic;
  if (FailureCount::is_due(statfs_failures.add()))
    InfoA(-1, "Failed to get the file system type on path: %s, errno: %d",
          path == nullptr ? "(null)" : path, errno);
  return false;
}

void ConfigKofsNommap(bool enable) { kel::internal::store_field(nommap, enable); }

int EnableNommap(const char* name, int fd) {
  if (::ioctl(fd, kKofsDisableMappedCache) == 0) return 0;
  const std::size_t number = request_failures.add();
  if (FailureCount::is_due(number) && number <= kMostReports * kReportInterval)
    InfoA(-1, "%s: Failed to enable nommap, file: %s, errcnt: %zu, errno: %d", __func__,
          name == nullptr ? "(null)" : name, number, errno);
  return -1;
}

int ConditionalEnableNommap(const char* name, int fd) {
  return kel::internal::load_field(nommap) ? EnableNommap(name, fd) : 0;
}
