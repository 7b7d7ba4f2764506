// A report that nobody reads: the price of a disabled level beside the formatting it cannot avoid.
#include <kel/logging.h>

#include <benchmark/benchmark.h>

#include <cstdarg>
#include <cstdio>

namespace {

[[gnu::format(printf, 2, 3), gnu::noinline]] void bare_format(char* buf, const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::vsnprintf(buf, 2048, format, args);
  va_end(args);
}

void disabled_kel(benchmark::State& state) {
  kelLogSetFlags(0x87, 0);
  long n = 0;
  for (auto _ : state)
    InfoA(-1, "%s: copied %lu of %s", "FileCopy", static_cast<unsigned long>(++n), "/srv/a");
}
BENCHMARK(disabled_kel)->Name("report_disabled/short/kel");

void disabled_vsnprintf(benchmark::State& state) {
  char buf[2048];
  long n = 0;
  for (auto _ : state) {
    bare_format(buf, "%s: copied %lu of %s", "FileCopy", static_cast<unsigned long>(++n), "/srv/a");
    benchmark::DoNotOptimize(buf);
  }
}
BENCHMARK(disabled_vsnprintf)->Name("report_disabled/short/vsnprintf");

}  // namespace
