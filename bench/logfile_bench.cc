// Lines to files beside spdlog and POCO: the same text, the same date, one and two threads.
#include <kel/logfiles.h>
#include <kel/logging.h>

#include <Poco/AutoPtr.h>
#include <Poco/FileChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Logger.h>
#include <Poco/PatternFormatter.h>
#include <benchmark/benchmark.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace {

constexpr int kFlags = KEL_LOG_LONG | KEL_LOG_DATE | KEL_LOG_SILENT;
constexpr unsigned long kRotationSize = 64UL << 20;

/// A directory of the program's own, gone with it.
class Folder {
 public:
  Folder() {
    std::string name = (std::filesystem::temp_directory_path() / "kel-bench-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) std::abort();
    path_ = name;
  }
  ~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }
  /// Makes room: a run writes some hundred megabytes.
  void clear() const {
    for (const auto& entry : std::filesystem::directory_iterator(path_))
      std::filesystem::remove(entry);
  }

 private:
  std::filesystem::path path_;
} folder;

enum Files { kOneFile, kFileEach };

/// The calling thread's file.
std::string path_of(const benchmark::State& state, Files files) {
  const int number = files == kFileEach ? state.thread_index() : 0;
  return folder / ("bench" + std::to_string(number) + ".log");
}

unsigned long position = 0;

void info_kel(benchmark::State& state, Files files, unsigned long max_size) {
  if (state.thread_index() == 0) {
    folder.clear();
    kelLogSetFlags(kFlags, 0);
    logFileSetMaxSize(max_size);
  }
  kelLogSet(path_of(state, files).c_str(), kFlags, 0);
  unsigned long n = 0;
  for (auto _ : state) InfoA(-1, "%s: copied %lu of %s", "FileCopy", ++n, "/srv/a");
  kelLogSet(nullptr, kFlags, 0);
  if (state.thread_index() == 0) logFileSetMaxSize(0);
}
void close_kel(const benchmark::State&) { logFileFlushStreams(); }

std::shared_ptr<spdlog::logger> spdlog_of(const std::string& path, unsigned long max_size) {
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  auto logger = spdlog::get(path);
  if (logger == nullptr) {
    logger = max_size == 0 ? spdlog::basic_logger_mt(path, path)
                           : spdlog::rotating_logger_mt(path, path, max_size, 3);
    logger->set_pattern("%B %d %H:%M:%S %l: %v");
    logger->flush_on(spdlog::level::err);
  }
  return logger;
}
void close_spdlog(const benchmark::State&) { spdlog::drop_all(); }

void info_spdlog(benchmark::State& state, Files files, unsigned long max_size) {
  if (state.thread_index() == 0) folder.clear();
  const auto logger = spdlog_of(path_of(state, files), max_size);
  unsigned long n = 0;
  for (auto _ : state) logger->info("{}: copied {} of {}", "FileCopy", ++n, "/srv/a");
}

/// Without a flush for each line, which is the channel's own choice.
Poco::Logger& poco_of(const std::string& path) {
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  if (Poco::Logger* known = Poco::Logger::has(path)) return *known;
  Poco::AutoPtr<Poco::FileChannel> file(new Poco::FileChannel(path));
  file->setProperty("flush", "false");
  Poco::AutoPtr<Poco::PatternFormatter> pattern(
      new Poco::PatternFormatter("%B %d %H:%M:%S %p: %t"));
  pattern->setProperty("times", "local");
  Poco::AutoPtr<Poco::FormattingChannel> channel(new Poco::FormattingChannel(pattern, file));
  return Poco::Logger::create(path, channel, Poco::Message::PRIO_INFORMATION);
}
void close_poco(const benchmark::State&) { Poco::Logger::shutdown(); }

void info_poco(benchmark::State& state, Files files) {
  if (state.thread_index() == 0) folder.clear();
  Poco::Logger& logger = poco_of(path_of(state, files));
  unsigned long n = 0;
  for (auto _ : state)
    logger.information("%s: copied %lu of %s", std::string("FileCopy"), ++n, std::string("/srv/a"));
}

BENCHMARK_CAPTURE(info_kel, one, kOneFile, 0)->Name("log_info/one_thread/kel")->Teardown(close_kel);
BENCHMARK_CAPTURE(info_spdlog, one, kOneFile, 0)
    ->Name("log_info/one_thread/spdlog")
    ->Teardown(close_spdlog);
BENCHMARK_CAPTURE(info_poco, one, kOneFile)->Name("log_info/one_thread/poco")->Teardown(close_poco);

BENCHMARK_CAPTURE(info_kel, each, kFileEach, 0)
    ->Name("log_info/two_threads_two_files/kel")
    ->Threads(2)
    ->Teardown(close_kel);
BENCHMARK_CAPTURE(info_spdlog, each, kFileEach, 0)
    ->Name("log_info/two_threads_two_files/spdlog")
    ->Threads(2)
    ->Teardown(close_spdlog);
BENCHMARK_CAPTURE(info_poco, each, kFileEach)
    ->Name("log_info/two_threads_two_files/poco")
    ->Threads(2)
    ->Teardown(close_poco);

BENCHMARK_CAPTURE(info_kel, shared, kOneFile, 0)
    ->Name("log_info/two_threads_one_file/kel")
    ->Threads(2)
    ->Teardown(close_kel);
BENCHMARK_CAPTURE(info_spdlog, shared, kOneFile, 0)
    ->Name("log_info/two_threads_one_file/spdlog")
    ->Threads(2)
    ->Teardown(close_spdlog);
BENCHMARK_CAPTURE(info_poco, shared, kOneFile)
    ->Name("log_info/two_threads_one_file/poco")
    ->Threads(2)
    ->Teardown(close_poco);

BENCHMARK_CAPTURE(info_kel, rotating, kOneFile, kRotationSize)
    ->Name("log_info_rotating/64MiB/kel")
    ->Teardown(close_kel);
BENCHMARK_CAPTURE(info_spdlog, not_rotating, kOneFile, 0)
    ->Name("log_info_rotating/64MiB/spdlog_not_rotating")
    ->Teardown(close_spdlog);
BENCHMARK_CAPTURE(info_spdlog, rotating, kOneFile, kRotationSize)
    ->Name("log_info_rotating/64MiB/spdlog")
    ->Teardown(close_spdlog);

void error_kel(benchmark::State& state) {
  folder.clear();
  kelLogSet((folder / "error.log").c_str(), kFlags, 0);
  for (auto _ : state) ErrorA(5, "%s: could not copy %lu of %s", "FileCopy", ++position, "/srv/a");
  kelLogSet(nullptr, kFlags, 0);
}
BENCHMARK(error_kel)->Name("log_error/one_thread/kel")->Teardown(close_kel);

void error_spdlog(benchmark::State& state) {
  folder.clear();
  const auto logger = spdlog_of(folder / "error.log", 0);
  for (auto _ : state)
    logger->error("{}: {}: could not copy {} of {}", 5, "FileCopy", ++position, "/srv/a");
}
BENCHMARK(error_spdlog)->Name("log_error/one_thread/spdlog")->Teardown(close_spdlog);

/// The price of a line to one of `open` files, either always the same one or each in turn.
void open_files(benchmark::State& state, size_t open, bool in_turn) {
  folder.clear();
  std::vector<std::string> paths;
  for (size_t i = 0; i < open; ++i) {
    paths.push_back(folder / ("file" + std::to_string(i) + ".log"));
    logFileWriteA("first\n", paths.back().c_str());
  }
  size_t next = 0;
  for (auto _ : state) {
    logFileWriteA("FileCopy: copied 12345678 of /srv/a\n", paths[next].c_str());
    if (in_turn && ++next == open) next = 0;
  }
}
BENCHMARK_CAPTURE(open_files, many, 1000, false)
    ->Name("log_open_files/1000/kel")
    ->Teardown(close_kel);
BENCHMARK_CAPTURE(open_files, one, 1, false)
    ->Name("log_open_files/1000/one_file_open")
    ->Teardown(close_kel);
BENCHMARK_CAPTURE(open_files, in_turn, 1000, true)
    ->Name("log_open_files_in_turn/1000/kel")
    ->Teardown(close_kel);
BENCHMARK_CAPTURE(open_files, ten, 10, true)
    ->Name("log_open_files_in_turn/1000/ten_files_open")
    ->Teardown(close_kel);

}  // namespace
