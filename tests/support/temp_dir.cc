#include "support/temp_dir.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace kel::testing {

TempDir::TempDir() {
  std::string name = (std::filesystem::temp_directory_path() / "kel-test-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("cannot make " + name);
  path_ = name;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void write_file(const std::string& path, std::string_view contents) {
  std::ofstream out(path, std::ios::binary);
  out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
  if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

size_t open_descriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(all), end(all))) - 1;  // less the iterator's own
}

}  // namespace kel::testing
