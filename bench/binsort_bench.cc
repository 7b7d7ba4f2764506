// Sorting files of 40-byte records with 64 MiB, beside GNU sort as a process that has as much
// memory and the same records as lines of hexadecimal digits; and records that are in order already
// beside copying them. Input, runs and outputs lie in the temporary folder (TMPDIR). With
// KEL_BENCH_HUGE in the environment, 2 GiB and 10^8 records too, the latter with 16 GB of disk.
#include <kel/binsort.h>

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

namespace {

constexpr size_t kRecordSize = 40;
constexpr uint64_t kMemory = 64 << 20;
// A record costs 32 bytes of entries and a 48-byte block from malloc(); 4 MiB are for run buffers.
constexpr uint64_t kBatch = (kMemory - (4 << 20)) / 80;

struct Close {
  void operator()(FILE* file) const { fclose(file); }
};
using File = std::unique_ptr<FILE, Close>;

/// The files of all benchmarks: made when first asked for, removed at the end.
class Folder {
 public:
  Folder() {
    path_ = (std::filesystem::temp_directory_path() / "kel-bench-XXXXXX").string();
    if (mkdtemp(path_.data()) == nullptr) abort();
  }
  ~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  const std::string& path() const { return path_; }

  /// `count` records from a fixed sequence, or in ascending order.
  std::string records(size_t count, bool in_order) const {
    const std::string name = path_ + (in_order ? "/ordered-" : "/random-") + std::to_string(count);
    if (std::filesystem::exists(name)) return name;
    const File out(fopen(name.c_str(), "wb"));
    uint64_t state = 1;
    for (uint64_t i = 0; i < count; ++i) {
      unsigned char record[kRecordSize];
      for (size_t at = 0; at < kRecordSize; at += 8) {
        const uint64_t word = in_order && at == 0 ? __builtin_bswap64(i) : next(&state);
        memcpy(record + at, &word, 8);
      }
      if (fwrite(record, kRecordSize, 1, out.get()) != 1) abort();
    }
    return name;
  }

  /// The same as one line each.
  std::string lines(size_t count) const {
    const std::string name = path_ + "/lines-" + std::to_string(count);
    if (std::filesystem::exists(name)) return name;
    const File in(fopen(records(count, false).c_str(), "rb"));
    const File out(fopen(name.c_str(), "wb"));
    unsigned char record[kRecordSize];
    char line[2 * kRecordSize + 1];
    line[2 * kRecordSize] = '\n';
    while (fread(record, kRecordSize, 1, in.get()) == 1) {
      for (size_t i = 0; i < kRecordSize; ++i) {
        line[2 * i] = "0123456789abcdef"[record[i] >> 4];
        line[2 * i + 1] = "0123456789abcdef"[record[i] & 15];
      }
      if (fwrite(line, sizeof line, 1, out.get()) != 1) abort();
    }
    return name;
  }

 private:
  static uint64_t next(uint64_t* state) {
    uint64_t z = *state += 0x9e3779b97f4a7c15;
    z = (z ^ z >> 30) * 0xbf58476d1ce4e5b9;
    z = (z ^ z >> 27) * 0x94d049bb133111eb;
    return z ^ z >> 31;
  }

  std::string path_;
};

const Folder& folder() {
  static const Folder instance;
  return instance;
}

void* read_record(void*, FILE* in, uint64_t* size) {
  void* const record = malloc(kRecordSize);
  if (record != nullptr && fread_unlocked(record, kRecordSize, 1, in) != 1) {
    free(record);
    errno = ferror(in) != 0 ? EIO : ENOENT;
    return nullptr;
  }
  *size = kRecordSize;
  return record;
}
int compare_records(void*, uint64_t, void** a, uint64_t, void** b) {
  return memcmp(*a, *b, kRecordSize);
}
ssize_t write_record(void*, void* record, FILE* out, uint64_t) {
  return fwrite_unlocked(record, kRecordSize, 1, out) == 1 ? ssize_t{kRecordSize} : -1;
}
void free_record(void*, void* record) { free(record); }

/// Processor time of this process, or of the children it has waited for, in seconds.
double cpu_seconds(int whose) {
  struct rusage usage = {};
  getrusage(whose, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

void sort_kel(benchmark::State& state, size_t count, bool in_order) {
  const std::string from = folder().records(count, in_order);
  const std::string to = folder().path() + "/sorted";
  const double cpu_before = cpu_seconds(RUSAGE_SELF);
  for (auto _ : state) {
    const File in(fopen(from.c_str(), "rb"));
    const File out(fopen(to.c_str(), "wb"));
    binary_sort_ctx* sort = BinarySortCtxConstruct(
        read_record, compare_records, nullptr, write_record, free_record, nullptr, nullptr, kBatch,
        kMemory, folder().path().c_str(), 64, 1 << 16, 0);
    if (BinarySortFp(sort, in.get(), out.get()) != 0) state.SkipWithError("the sort failed");
    BinarySortCtxDestruct(&sort);
  }
  state.counters["cpu_s"] = cpu_seconds(RUSAGE_SELF) - cpu_before;
  struct rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  state.counters["peak_rss_mib"] = static_cast<double>(usage.ru_maxrss) / 1024;
  std::filesystem::remove(to);
}

void sort_gnu(benchmark::State& state, size_t count) {
  const std::string to = folder().path() + "/sorted-lines";
  const std::string command = "LC_ALL=C sort -S 64M --parallel=1 -T " + folder().path() + " -o " +
                              to + " " + folder().lines(count);
  const double cpu_before = cpu_seconds(RUSAGE_CHILDREN);
  for (auto _ : state)
    // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe): a fixed command in a folder of its own
    if (system(command.c_str()) != 0) state.SkipWithError("sort failed");
  state.counters["cpu_s"] = cpu_seconds(RUSAGE_CHILDREN) - cpu_before;
  std::filesystem::remove(to);
}

/// What presorted input costs at least: each record twice through the same functions.
void copy_records_twice(benchmark::State& state, size_t count) {
  const std::string from = folder().records(count, true);
  const std::string between = folder().path() + "/between";
  const std::string to = folder().path() + "/copied";
  for (auto _ : state) {
    for (const auto& [source, target] : {std::pair{&from, &between}, std::pair{&between, &to}}) {
      const File in(fopen(source->c_str(), "rb"));
      const File out(fopen(target->c_str(), "wb"));
      uint64_t size;
      while (void* const record = read_record(nullptr, in.get(), &size)) {
        write_record(nullptr, record, out.get(), 0);
        free_record(nullptr, record);
      }
    }
  }
  std::filesystem::remove(between);
  std::filesystem::remove(to);
}

void once(benchmark::internal::Benchmark* benchmark) {
  benchmark->UseRealTime()->Iterations(1)->Unit(benchmark::kMillisecond);
}

const int registered = [] {
  const bool huge = getenv("KEL_BENCH_HUGE") != nullptr;
  for (const size_t count : {1'000'000, 10'000'000, 53'687'091, 100'000'000}) {
    if (count > 10'000'000 && !huge) continue;
    const std::string task = "external_sort/" + std::to_string(count) + "x40/";
    once(benchmark::RegisterBenchmark((task + "kel").c_str(), sort_kel, count, false));
    once(benchmark::RegisterBenchmark((task + "gnu_sort").c_str(), sort_gnu, count));
  }
  constexpr size_t kOrdered = 10'000'000;
  const std::string task = "external_sort_presorted/10000000x40/";
  once(benchmark::RegisterBenchmark((task + "kel").c_str(), sort_kel, kOrdered, true));
  once(benchmark::RegisterBenchmark((task + "copy_twice").c_str(), copy_records_twice, kOrdered));
  return 0;
}();

}  // namespace
