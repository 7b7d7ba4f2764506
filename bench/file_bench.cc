// File operations beside the commands that people would run: rm -rf, cp, cmp. The commands' times
// hold their start, about a millisecond; the work is a few hundred. KEL_BENCH_DIR says where the
// files go (default: /dev/shm, which leaves the disk out of it).
#include <kel/file.h>
#include <kel/path.h>

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

namespace fs = std::filesystem;

const std::string home = [] {
  const char* dir = std::getenv("KEL_BENCH_DIR");
  return std::string(dir == nullptr ? "/dev/shm" : dir) + "/kel-file-bench-" +
         std::to_string(::getpid());
}();

/// Removes what the benchmarks left.
const struct Home {
  Home() { fs::create_directories(home); }
  ~Home() { fs::remove_all(home); }
} keeper;

void run(benchmark::State& state, std::vector<const char*> words) {
  words.push_back(nullptr);
  pid_t child;
  int status = 1;
  if (::posix_spawnp(&child, words[0], nullptr, nullptr, const_cast<char**>(words.data()),
                     environ) != 0 ||
      ::waitpid(child, &status, 0) != child || status != 0)
    state.SkipWithError("the command failed");
}

// 200 directories of 200 files.
void plant(const std::string& root) {
  for (int i = 0; i < 200; ++i) {
    const std::string folder = root + "/" + std::to_string(i);
    fs::create_directories(folder);
    for (int k = 0; k < 200; ++k) std::ofstream(folder + "/file-" + std::to_string(k));
  }
}

template <class Remove>
void remove_tree(benchmark::State& state, Remove remove) {
  const std::string root = home + "/tree";
  for (auto _ : state) {
    state.PauseTiming();
    plant(root);
    state.ResumeTiming();
    remove(root.c_str());
  }
  if (fs::exists(root)) state.SkipWithError("not removed");
}

void kel_remove(benchmark::State& state) {
  remove_tree(state, [&](const char* root) {
    if (DeleteTreeA(root) != 1) state.SkipWithError("DeleteTreeA");
  });
}
BENCHMARK(kel_remove)->Name("remove_tree/40000/kel")->UseRealTime()->Unit(benchmark::kMillisecond);

void rm_remove(benchmark::State& state) {
  remove_tree(state, [&](const char* root) { run(state, {"rm", "-rf", root}); });
}
BENCHMARK(rm_remove)->Name("remove_tree/40000/rm")->UseRealTime()->Unit(benchmark::kMillisecond);

constexpr size_t kSize = size_t{256} << 20;

/// A file of 256 MiB that does not compress.
std::string large_file(const char* name) {
  const std::string path = home + "/" + name;
  if (fs::exists(path)) return path;
  std::vector<char> block(1 << 20);
  unsigned value = 1;
  std::ofstream out(path, std::ios::binary);
  for (size_t done = 0; done < kSize; done += block.size()) {
    for (char& c : block) c = static_cast<char>((value = value * 1664525 + 1013904223) >> 24);
    out.write(block.data(), static_cast<std::streamsize>(block.size()));
  }
  return path;
}

template <class Copy>
void copy_file(benchmark::State& state, Copy copy) {
  const std::string from = large_file("a"), to = home + "/copy";
  for (auto _ : state) {
    copy(from.c_str(), to.c_str());
    state.PauseTiming();
    fs::remove(to);
    state.ResumeTiming();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kSize));
}

void kel_copy(benchmark::State& state, int options) {
  FileSetOptions(options);
  copy_file(state, [&](const char* from, const char* to) {
    if (FileCopy(from, to, 0) != static_cast<ssize_t>(kSize)) state.SkipWithError("FileCopy");
  });
}
BENCHMARK_CAPTURE(kel_copy, plain, KEL_FILE_PLAIN)
    ->Name("copy/256MiB/kel")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(kel_copy, both, KEL_FILE_MD5 | KEL_FILE_CRC)
    ->Name("copy_md5_crc/256MiB/kel")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(kel_copy, md5, KEL_FILE_MD5)
    ->Name("copy_md5_crc/256MiB/md5_alone")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// FileCopy() leaves the data on stable storage, so the fair peer does too.
void cp_sync_copy(benchmark::State& state) {
  copy_file(state, [&](const char* from, const char* to) {
    run(state, {"cp", from, to});
    run(state, {"sync", to});
  });
}
BENCHMARK(cp_sync_copy)->Name("copy/256MiB/cp_sync")->UseRealTime()->Unit(benchmark::kMillisecond);

void cp_copy(benchmark::State& state) {
  copy_file(state, [&](const char* from, const char* to) { run(state, {"cp", from, to}); });
}
BENCHMARK(cp_copy)->Name("copy/256MiB/cp")->UseRealTime()->Unit(benchmark::kMillisecond);

void kel_compare(benchmark::State& state) {
  const std::string a = large_file("a"), b = large_file("b");
  for (auto _ : state)
    if (FileCompare(a.c_str(), b.c_str(), 0) != 0) state.SkipWithError("FileCompare");
}
BENCHMARK(kel_compare)->Name("compare/256MiB/kel")->UseRealTime()->Unit(benchmark::kMillisecond);

void cmp_compare(benchmark::State& state) {
  const std::string a = large_file("a"), b = large_file("b");
  for (auto _ : state) run(state, {"cmp", a.c_str(), b.c_str()});
}
BENCHMARK(cmp_compare)->Name("compare/256MiB/cmp")->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
