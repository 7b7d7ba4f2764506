// The checksum beside libdeflate's and zlib's, and of a file beside reading that file.
#include <kel/crc.h>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <libdeflate.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace {

std::vector<unsigned char> data(1 << 20, 'd');

template <class Update>
void checksum(benchmark::State& state, Update update) {
  const auto size = static_cast<size_t>(state.range(0));
  uint32_t adler = 1;
  for (auto _ : state) benchmark::DoNotOptimize(adler = update(adler, data.data(), size));
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

void checksum_kel(benchmark::State& state) { checksum(state, CRCAppend); }
BENCHMARK(checksum_kel)->Name("crc/4KiB/kel")->Arg(4 << 10);
BENCHMARK(checksum_kel)->Name("crc/1MiB/kel")->Arg(1 << 20);

void checksum_libdeflate(benchmark::State& state) { checksum(state, libdeflate_adler32); }
BENCHMARK(checksum_libdeflate)->Name("crc/4KiB/libdeflate")->Arg(4 << 10);
BENCHMARK(checksum_libdeflate)->Name("crc/1MiB/libdeflate")->Arg(1 << 20);

void checksum_zlib(benchmark::State& state) {
  checksum(state, [](uint32_t adler, const unsigned char* from, size_t size) {
    return static_cast<uint32_t>(adler32_z(adler, from, size));
  });
}
BENCHMARK(checksum_zlib)->Name("crc/4KiB/zlib")->Arg(4 << 10);
BENCHMARK(checksum_zlib)->Name("crc/1MiB/zlib")->Arg(1 << 20);

/// A file of 64 MiB, in the page cache, for as long as the program runs.
class SomeFile {
 public:
  static constexpr int64_t kSize = 64 << 20;

  SomeFile() : fd_(mkstemp(path_.data())) {
    for (int64_t done = 0; done < kSize;) {
      const ssize_t written = ::write(fd_, data.data(), data.size());
      if (written <= 0) std::abort();
      done += written;
    }
  }
  ~SomeFile() {
    ::close(fd_);
    ::unlink(path_.c_str());
  }
  SomeFile(const SomeFile&) = delete;
  SomeFile& operator=(const SomeFile&) = delete;

  const char* path() const { return path_.c_str(); }

 private:
  std::string path_ = "/tmp/kel-bench-XXXXXX";
  int fd_;
};

const char* some_path() {
  static const SomeFile file;
  return file.path();
}

void file_kel(benchmark::State& state) {
  const char* path = some_path();
  for (auto _ : state) benchmark::DoNotOptimize(CRCFromFile(path));
  state.SetBytesProcessed(state.iterations() * SomeFile::kSize);
}
BENCHMARK(file_kel)->Name("crc_file/64MiB/kel");

/// Reads the file in blocks of as many bytes as the argument says.
void file_read(benchmark::State& state) {
  const char* path = some_path();
  std::vector<char> block(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    const int fd = ::open(path, O_RDONLY);
    while (::read(fd, block.data(), block.size()) > 0) {
    }
    ::close(fd);
  }
  state.SetBytesProcessed(state.iterations() * SomeFile::kSize);
}
BENCHMARK(file_read)->Name("crc_file/64MiB/read_32KiB")->Arg(32 << 10);
BENCHMARK(file_read)->Name("crc_file/64MiB/read_128KiB")->Arg(128 << 10);

}  // namespace
