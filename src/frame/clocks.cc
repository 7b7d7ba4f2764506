// Clocks and the interruptible sleep.
#include "frame/clocks.h"

#include <kel/logging.h>
#include <kel/runtime.h>

#include <sys/select.h>
#include <sys/time.h>
#include <sys/times.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "internal/atomic_field.h"

using namespace kel::internal;

namespace {

double ticks_per_millisecond = 0;

uint64_t microseconds() {
  struct timeval now = {};
  gettimeofday(&now, nullptr);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_usec);
}

}  // namespace

void kel::internal::init_tick_count() noexcept {
  store_field(ticks_per_millisecond, static_cast<double>(sysconf(_SC_CLK_TCK)) * 0.001);
}

unsigned int GetTickCount(void) {
  const double scale = load_field(ticks_per_millisecond);
  if (scale <= 0) return 0;
  struct tms unused;
  const clock_t ticks = times(&unused);
  if (ticks != static_cast<clock_t>(-1))
    return static_cast<unsigned>(static_cast<uint64_t>(static_cast<double>(ticks) / scale));
  WarningA(-1, "%s: times failed: %s", __func__, std::strerror(errno));
  return static_cast<unsigned>(get_millis());
}

unsigned long get_millis(void) { return microseconds() / 1000; }

unsigned long gethrtime(void) { return microseconds(); }

long get_only_ms(void) {
  struct timespec now = {};
  clock_gettime(CLOCK_REALTIME_COARSE, &now);
  return now.tv_nsec / 1'000'000;
}

double hrtime2seconds(long t) { return static_cast<double>(t) / 1e6; }

long seconds2hrtime(double s) { return static_cast<long>(s * 1e6); }

long KelSleep(unsigned int seconds) {
  if (seconds == 0) return 0;
  const time_t start = time(nullptr);
  struct timeval timeout = {static_cast<time_t>(seconds), 0};
  if (select(0, nullptr, nullptr, nullptr, &timeout) == 0) return 0;
  if (errno == EINTR)
    return std::max(static_cast<long>(seconds) - static_cast<long>(time(nullptr) - start), 1L);
  if (TraceOn())
    __Trace("select returned unexpectedly with error %u [%s]", static_cast<unsigned>(errno),
            std::strerror(errno));
  return -1;
}

struct tm* KelLocaltime(const time_t* t, struct tm* out) {
  return localtime_r(t, out);
}

char* KelCtime(const time_t* t, char* buf) { return ctime_r(t, buf); }
