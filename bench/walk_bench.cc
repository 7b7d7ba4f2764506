// Walks beside fts(3) and the recursive iterator of the C++ library, with warm caches. The iterator
// knows only types, as a walk without status does; with status its files are asked for their size.
// KEL_BENCH_DIR says where the trees go (default: /tmp); /usr is taken as it is.
#include <kel/dir.h>

#include <benchmark/benchmark.h>
#include <fts.h>
#include <unistd.h>

#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>

namespace {

namespace fs = std::filesystem;

const fs::path home = [] {
  const char* dir = std::getenv("KEL_BENCH_DIR");
  return fs::path(dir == nullptr ? "/tmp" : dir) / ("kel-walk-bench-" + std::to_string(::getpid()));
}();

/// Removes what the benchmarks left.
const struct Home {
  ~Home() { fs::remove_all(home); }
} keeper;

/// `directories` directories of `files` files, made once.
std::string tree(int directories, int files) {
  const fs::path root = home / (std::to_string(directories) + "x" + std::to_string(files));
  if (fs::exists(root)) return root;
  for (int i = 0; i < directories; ++i) {
    const fs::path folder = root / ("directory-" + std::to_string(i));
    fs::create_directories(folder);
    for (int k = 0; k < files; ++k) std::ofstream(folder / ("file-" + std::to_string(k)));
  }
  return root;
}

long walk_kel(const std::string& root, int options) {
  DDS* walk = DirOpenA(root.c_str(), options, nullptr, 0);
  long entries = 0, bytes = 0;
  while (const DDSENT* p = DirGetNextA(walk)) {
    ++entries;
    if (p->dds_info == DDS_F) bytes += p->dds_statp->st_size;
  }
  benchmark::DoNotOptimize(bytes);
  DirCloseA(walk);
  return entries;
}

long walk_wide(const std::string& root, int options) {
  DDSW* walk = DirOpenW(std::wstring(root.begin(), root.end()).c_str(), options, nullptr, 0);
  long entries = 0;
  while (DirGetNextW(walk) != nullptr) ++entries;
  DirCloseW(walk);
  return entries;
}

/// The two have the same bits for what is used here, but for the physical walk's.
long walk_fts(const std::string& root, int options) {
  int bits = FTS_PHYSICAL;
  if ((options & DDS_NOCHDIR) != 0) bits |= FTS_NOCHDIR;
  if ((options & DDS_NOSTAT) != 0) bits |= FTS_NOSTAT;
  std::string path = root;
  char* const roots[] = {path.data(), nullptr};
  FTS* walk = ::fts_open(roots, bits, nullptr);
  long entries = 0, bytes = 0;
  while (const FTSENT* p = ::fts_read(walk)) {
    ++entries;
    if (p->fts_info == FTS_F) bytes += p->fts_statp->st_size;
  }
  benchmark::DoNotOptimize(bytes);
  ::fts_close(walk);
  return entries;
}

long walk_iterator(const std::string& root, int options) {
  long entries = 1, directories = 1;
  uintmax_t bytes = 0;
  for (const fs::directory_entry& entry :
       fs::recursive_directory_iterator(root, fs::directory_options::skip_permission_denied)) {
    ++entries;
    if (entry.is_symlink()) continue;
    if (entry.is_directory())
      ++directories;
    else if ((options & DDS_NOSTAT) == 0 && entry.is_regular_file())
      bytes += entry.file_size();
  }
  benchmark::DoNotOptimize(bytes);
  return entries + directories;  // the others visit directories twice
}

using Walker = long (*)(const std::string&, int);

void run(benchmark::State& state, Walker walk, const std::string& root, int options) {
  long entries = walk(root, options);
  for (auto _ : state) entries = walk(root, options);
  state.counters["entries"] = static_cast<double>(entries);
  state.counters["per_entry"] = benchmark::Counter(
      static_cast<double>(entries),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void add(const std::string& task, const std::function<std::string()>& root, int options) {
  for (const auto& [who, walk] : std::map<std::string, Walker>{{"kel", walk_kel},
                                                               {"wide", walk_wide},
                                                               {"fts", walk_fts},
                                                               {"std_filesystem", walk_iterator}})
    benchmark::RegisterBenchmark((task + "/" + who).c_str(), [root, options, walk = walk](
                                                                 benchmark::State& state) {
      run(state, walk, root(), options);
    })->Unit(benchmark::kMillisecond);
}

const bool added = [] {
  std::setlocale(LC_CTYPE, "C.UTF-8");
  for (const auto& [mode, options] :
       std::map<std::string, int>{{"status", DDS_PHYSICAL},
                                  {"status_nochdir", DDS_PHYSICAL | DDS_NOCHDIR},
                                  {"nostat", DDS_PHYSICAL | DDS_NOSTAT},
                                  {"nostat_nochdir", DDS_PHYSICAL | DDS_NOSTAT | DDS_NOCHDIR}}) {
    add(
        "walk_" + mode + "/200x200", [] { return tree(200, 200); }, options);
    add(
        "walk_" + mode + "/usr", [] { return std::string("/usr"); }, options);
  }
  // One directory of 10^3 to 10^6 files: the time per entry stays the same.
  for (const int files : {1'000, 10'000, 100'000, 1'000'000})
    add(
        "walk_flat/" + std::to_string(files) + "_files", [files] { return tree(1, files); },
        DDS_PHYSICAL | DDS_NOSTAT);
  return true;
}();

}  // namespace
