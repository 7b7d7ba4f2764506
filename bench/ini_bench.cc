// INI files beside inih, which only parses, and GLib's GKeyFile, which keeps comments too.
#include <kel/inifile.h>
#include <kel/logging.h>

#include <benchmark/benchmark.h>
#include <glib.h>
#include <ini.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

/// A file with `sections` x `keys` entries of 25 to 30 bytes, a tenth of them with a comment.
class Sample {
 public:
  Sample(int sections, int keys) {
    std::ofstream out(path_);
    for (int s = 0; s < sections; ++s) {
      out << "[section-" << s << "]\n";
      for (int k = 0; k < keys; ++k) {
        if (k % 10 == 0) out << "# what the next key is for\n";
        out << "setting-" << k << " = value of " << k << "\n";
      }
    }
    std::mt19937 random(1);
    for (int i = 0; i < 4096; ++i)
      names_.emplace_back("section-" + std::to_string(random() % static_cast<unsigned>(sections)),
                          "setting-" + std::to_string(random() % static_cast<unsigned>(keys)));
  }
  ~Sample() {
    InifileReleaseA(path());
    ::unlink(path());
  }
  const char* path() const { return path_.c_str(); }
  /// Some of the file's names, in random order, again and again.
  const std::pair<std::string, std::string>& next_name() { return names_[next_++ % names_.size()]; }

 private:
  static inline int files_ = 0;
  std::string path_ =
      "/tmp/kel-ini-bench-" + std::to_string(::getpid()) + "-" + std::to_string(files_++);
  std::vector<std::pair<std::string, std::string>> names_;
  size_t next_ = 0;
};

Sample& sample(const benchmark::State& state) {
  static std::map<std::pair<int64_t, int64_t>, std::unique_ptr<Sample>> samples;
  auto& found = samples[{state.range(0), state.range(1)}];
  if (!found)
    found = std::make_unique<Sample>(static_cast<int>(state.range(0)),
                                     static_cast<int>(state.range(1)));
  return *found;
}

void load_kel(benchmark::State& state) {
  const char* path = sample(state).path();
  for (auto _ : state) {
    InifileLoadA(path);
    InifileReleaseA(path);
  }
}

void load_inih(benchmark::State& state) {
  const char* path = sample(state).path();
  size_t total = 0;
  for (auto _ : state)
    ini_parse(
        path,
        [](void* sum, const char*, const char* name, const char*) {
          *static_cast<size_t*>(sum) += name != nullptr;
          return 1;
        },
        &total);
  benchmark::DoNotOptimize(total);
}

GKeyFile* load_key_file(const char* path) {
  GKeyFile* keys = g_key_file_new();
  if (g_key_file_load_from_file(keys, path, G_KEY_FILE_KEEP_COMMENTS, nullptr) == 0) std::abort();
  return keys;
}

void load_glib(benchmark::State& state) {
  const char* path = sample(state).path();
  for (auto _ : state) g_key_file_free(load_key_file(path));
}

void find_kel(benchmark::State& state) {
  Sample& s = sample(state);
  InifileLoadA(s.path());
  char buf[64];
  for (auto _ : state) {
    const auto& [section, key] = s.next_name();
    InifileGetValueA(section.c_str(), key.c_str(), buf, sizeof buf, nullptr, s.path());
    benchmark::DoNotOptimize(buf);
  }
}

void find_glib(benchmark::State& state) {
  Sample& s = sample(state);
  GKeyFile* keys = load_key_file(s.path());
  for (auto _ : state) {
    const auto& [section, key] = s.next_name();
    gchar* value = g_key_file_get_value(keys, section.c_str(), key.c_str(), nullptr);
    benchmark::DoNotOptimize(value);
    g_free(value);
  }
  g_key_file_free(keys);
}

void find_among_files(benchmark::State& state) {
  const auto others = static_cast<int>(state.range(2));
  kelLogSetFlags(0, 0);
  for (int i = 0; i < others; ++i) InifileLoadA(("/nowhere/" + std::to_string(i)).c_str());
  find_kel(state);
  InifileReleaseAll();
}

void save_kel(benchmark::State& state) {
  Sample& s = sample(state);
  InifileLoadA(s.path());
  for (auto _ : state) InifileSaveAsA(s.path(), "/dev/null", 1);
}

void save_glib(benchmark::State& state) {
  GKeyFile* keys = load_key_file(sample(state).path());
  for (auto _ : state) g_key_file_save_to_file(keys, "/dev/null", nullptr);
  g_key_file_free(keys);
}

#define PAIR(function, name, sections, keys)                            \
  BENCHMARK(function##_kel)->Name(name "/kel")->Args({sections, keys}); \
  BENCHMARK(function##_glib)->Name(name "/glib")->Args({sections, keys})

PAIR(load, "ini_load/100x100", 100, 100);
PAIR(load, "ini_load/1x10000", 1, 10'000);
BENCHMARK(load_inih)->Name("ini_load/100x100/inih")->Args({100, 100});
BENCHMARK(load_inih)->Name("ini_load/1x10000/inih")->Args({1, 10'000});
PAIR(find, "ini_find/1x100", 1, 100);
PAIR(find, "ini_find/100x100", 100, 100);
PAIR(find, "ini_find/1x1000000", 1, 1'000'000);
PAIR(find, "ini_find/10000x100", 10'000, 100);
BENCHMARK(find_among_files)->Name("ini_find/10000_files/kel")->Args({1, 100, 10'000});
PAIR(save, "ini_text/100x100", 100, 100);

}  // namespace
